# SPDX-License-Identifier: MIT
"""The two lab hosts of lab/up, for tests and tools in Python.

    with Lab(sshd=True) as lab:
        print(lab.client.run("ssh 172.20.10.1 hostname").err)

Needs root. Touches nothing outside the hosts; the lab ends with the `with` block, or with this process."""

import contextlib
import ctypes
import os
import pathlib
import signal
import socket
import subprocess
import tempfile
import time

FOLDER = pathlib.Path(__file__).resolve().parent
CHECKOUT = FOLDER.parent
PORT = 8888

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000
_PR_SET_PDEATHSIG = 1


class Unavailable(Exception):
    """This system does not let us make hosts; the text says why."""


class Outcome:
    """What a program left: its status as a shell gives it (128 + N for signal N) and what it printed."""

    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err

    def __repr__(self):
        return f"status {self.status}\n--- standard output\n{self.out}--- standard error\n{self.err}"

    def __eq__(self, other):
        return (self.status, self.out, self.err) == (other.status, other.out, other.err)


class Process:
    """A program under way on a host. It is killed, with what nsenter waits for, when this process dies."""

    def __init__(self, command, stdin=subprocess.DEVNULL):
        self._out, self._err = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        # A group of its own: a signal to a whole group on a host stays there.
        self.popen = subprocess.Popen(command, stdin=stdin, stdout=self._out, stderr=self._err, process_group=0,
                                      preexec_fn=lambda: _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL))

    @property
    def out(self):
        """What it has printed so far."""
        return _text(self._out)

    @property
    def err(self):
        return _text(self._err)

    @property
    def running(self):
        return self.popen.poll() is None

    def signal(self, number):
        """Sends a signal to the program itself, not to the nsenter that waits for it."""
        child = pathlib.Path(f"/proc/{self.popen.pid}/task/{self.popen.pid}/children").read_text().split()
        os.kill(int(child[0]) if child else self.popen.pid, number)

    def kill(self):
        self.popen.kill()
        return self.wait()

    def wait(self, timeout=60):
        """Its Outcome; after `timeout` seconds it is killed, and subprocess.TimeoutExpired raised."""
        try:
            status = self.popen.wait(timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            raise
        return Outcome(status if status >= 0 else 128 - status, self.out, self.err)


class Host:
    """One host: `name`, `address` on the link, and its `peer`."""

    def __init__(self, name, address, pid):
        self.name, self.address, self.pid = name, address, pid
        self.peer = None

    def path(self, name):
        """A file of the host, by its absolute path there, as a path of this machine."""
        return pathlib.Path(f"/proc/{self.pid}/root{name}")

    @property
    def ssh(self):
        return self.path("/root/.ssh")

    def command(self, command):
        """The command line of this machine that runs `command`, a shell command or a list of words, there."""
        words = ["/bin/sh", "-c", command] if isinstance(command, str) else [str(word) for word in command]
        return [str(FOLDER / "on"), str(self.pid), *words]

    def start(self, command, **options):
        return Process(self.command(command), **options)

    def run(self, command, timeout=60, **options):
        return self.start(command, **options).wait(timeout)

    def check(self, command, **options):
        """Runs a command that must succeed, and returns what it printed on standard output."""
        outcome = self.run(command, **options)
        if outcome.status != 0:
            raise RuntimeError(f"on the {self.name}: {command}: {outcome}")
        return outcome.out

    @contextlib.contextmanager
    def network(self):
        """Sockets that this thread makes in the block are the host's."""
        with open("/proc/thread-self/ns/net") as own, open(f"/proc/{self.pid}/ns/net") as there:
            _enter(there)
            try:
                yield
            finally:
                _enter(own)

    def connect(self, address, port=PORT, timeout=15):
        """A TCP connection from this host."""
        with self.network():
            return socket.create_connection((address, port), timeout)

    def listen(self, port=PORT, timeout=15):
        """A TCP listener on this host's address."""
        with self.network():
            listener = socket.create_server((self.address, port), backlog=1)
        listener.settimeout(timeout)
        return listener

    def listens(self, port=PORT):
        """Whether a TCP socket listens on the port."""
        lines = self.proc("net/tcp").read_text().splitlines()[1:]
        return any(int(line.split()[1].split(":")[1], 16) == port and line.split()[3] == "0A" for line in lines)

    def proc(self, name):
        """A file in /proc of the host's init, which shows the host's network."""
        return pathlib.Path(f"/proc/{self.pid}/{name}")

    @contextlib.contextmanager
    def capture(self, file, interface="bsab"):
        """Captures the host's traffic into `file` (pcapng) while the block runs. Needs dumpcap."""
        with open(file, "wb") as target, subprocess.Popen(
                self.command(["dumpcap", "-q", "-p", "-i", interface, "-w", "-"]),
                stdin=subprocess.DEVNULL, stdout=target, stderr=subprocess.PIPE, text=True) as dumpcap:
            for line in dumpcap.stderr:
                if line.startswith("File:"):  # printed once it listens
                    break
            else:
                raise RuntimeError("dumpcap did not start")
            try:
                yield
            finally:
                time.sleep(0.5)  # it may have a quarter of a second yet to read
                # lab/on's child is told, because a killed dumpcap leaves a cut file.
                children = f"/proc/{dumpcap.pid}/task/{dumpcap.pid}/children"
                os.kill(int(pathlib.Path(children).read_text().split()[0]), signal.SIGTERM)
                dumpcap.stderr.read()


class Lab:
    """The two hosts `server` and `client`, for as long as the `with` block runs."""

    def __init__(self, sshd=False):
        self._option = ["--sshd"] if sshd else []

    def __enter__(self):
        self._up = subprocess.Popen([FOLDER / "up", *self._option], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True)
        lines = [self._up.stdout.readline().split() for _ in range(2)]
        if not all(lines):
            raise Unavailable(self._up.communicate()[1].strip())
        pids = dict(lines)
        self.server = Host("server", "172.20.10.1", int(pids["server"]))
        self.client = Host("client", "172.20.10.2", int(pids["client"]))
        self.server.peer, self.client.peer = self.client, self.server
        return self

    def __exit__(self, *_):
        self._up.communicate()  # the end of its input is the end of the lab

    @property
    def hosts(self):
        return self.server, self.client

    def pair(self, build):
        """One pairing by the programs in the folder `build`: the Outcomes of the server and the client."""
        server = self.server.start([build / "dorve-server"])
        eventually(lambda: self.server.listens() or not server.running)
        client = self.client.run([build / "dorve-client"])
        return server.wait(), client


def prove_login(host, user="root"):
    """Raises unless plain ssh on `host` logs in to its peer; returns the peer's name as the peer gave it."""
    name = host.check(["ssh", "-n", "-o", "BatchMode=yes", "-o", "ConnectTimeout=5", "-o", "LogLevel=ERROR",
                       f"{user}@{host.peer.address}", "hostname"]).strip()
    if name != host.peer.name:
        raise RuntimeError(f"{name} answered for the {host.peer.name}")
    return name


def eventually(holds, seconds=10):
    """Waits, for `seconds` at most, until `holds()`; returns whether it did."""
    deadline = time.monotonic() + seconds
    while not (held := holds()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return held


def _enter(network):
    if _libc.setns(network.fileno(), _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def _text(file):
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0).decode(errors="replace")
