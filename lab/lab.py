# SPDX-License-Identifier: MIT
"""Runs the two lab hosts of lab/up, for tests and tools in Python.

    with Lab(sshd=True) as lab:
        print(lab.client.run("ssh 172.20.10.1 hostname").err)

Needs root and changes nothing outside the hosts. The lab ends with the `with` block or with this process."""

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
    """The system does not allow us to make hosts. The text gives the reason."""


class Outcome:
    """How a program exited: its status as in a shell (128 + N for signal N), and what it printed."""

    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err

    def __repr__(self):
        return f"status {self.status}\n--- standard output\n{self.out}--- standard error\n{self.err}"

    def __eq__(self, other):
        return (self.status, self.out, self.err) == (other.status, other.out, other.err)


class Process:
    """A program that runs on a host, started by nsenter. Both are killed when this process dies."""

    def __init__(self, command, stdin=subprocess.DEVNULL):
        self._out, self._err = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        # nsenter gets its own process group. Otherwise a signal to the command's group would also reach this process.
        self.popen = subprocess.Popen(command, stdin=stdin, stdout=self._out, stderr=self._err, process_group=0,
                                      preexec_fn=lambda: _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL))

    @property
    def out(self):
        """What the program has printed on standard output so far."""
        return _text(self._out)

    @property
    def err(self):
        """What the program has printed on standard error so far."""
        return _text(self._err)

    @property
    def running(self):
        return self.popen.poll() is None

    def signal(self, number):
        """Sends a signal to the program itself, not to the nsenter that waits for it."""
        children = pathlib.Path(f"/proc/{self.popen.pid}/task/{self.popen.pid}/children").read_text().split()
        os.kill(int(children[0]) if children else self.popen.pid, number)

    def kill(self):
        """Kills the program and returns its Outcome."""
        self.popen.kill()
        return self.wait()

    def wait(self, timeout=60):
        """Waits for the program and returns its Outcome. After `timeout` seconds, kills it and raises
        subprocess.TimeoutExpired."""
        try:
            status = self.popen.wait(timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            raise
        return Outcome(status if status >= 0 else 128 - status, self.out, self.err)


class Host:
    """One host: its `name`, its `address` on the link, the `pid` of its init, and its `peer`, the other host."""

    def __init__(self, name, address, pid):
        self.name, self.address, self.pid = name, address, pid
        self.peer = None

    def path(self, name):
        """The path on this machine of a file on the host. `name` is the file's absolute path on the host."""
        return pathlib.Path(f"/proc/{self.pid}/root{name}")

    @property
    def ssh(self):
        """The path on this machine of the host's SSH directory."""
        return self.path("/root/.ssh")

    def command(self, command):
        """The command line that runs `command` on the host. `command` is a shell command or a list of words."""
        words = ["/bin/sh", "-c", command] if isinstance(command, str) else [str(word) for word in command]
        return [str(FOLDER / "on"), str(self.pid), *words]

    def start(self, command, **options):
        """Starts a command and returns its Process."""
        return Process(self.command(command), **options)

    def run(self, command, timeout=60, **options):
        """Runs a command and returns its Outcome."""
        return self.start(command, **options).wait(timeout)

    def check(self, command, **options):
        """Runs a command that must succeed. Returns its standard output."""
        outcome = self.run(command, **options)
        if outcome.status != 0:
            raise RuntimeError(f"on the {self.name}: {command}: {outcome}")
        return outcome.out

    @contextlib.contextmanager
    def network(self):
        """Sockets that this thread makes in the `with` block belong to the host's network."""
        with open("/proc/thread-self/ns/net") as own, open(f"/proc/{self.pid}/ns/net") as there:
            _enter(there)
            try:
                yield
            finally:
                _enter(own)

    def connect(self, address, port=PORT, timeout=15):
        """Opens a TCP connection from this host."""
        with self.network():
            return socket.create_connection((address, port), timeout)

    def listen(self, port=PORT, timeout=15):
        """Opens a TCP listener on this host's address."""
        with self.network():
            listener = socket.create_server((self.address, port), backlog=1)
        listener.settimeout(timeout)
        return listener

    def listens(self, port=PORT):
        """Whether a TCP socket of this host listens on the port."""
        lines = self.proc("net/tcp").read_text().splitlines()[1:]
        return any(int(line.split()[1].split(":")[1], 16) == port and line.split()[3] == "0A" for line in lines)

    def proc(self, name):
        """The path of the file /proc/INIT/NAME, where INIT is the host's init. Files in net/ describe its network."""
        return pathlib.Path(f"/proc/{self.pid}/{name}")

    @contextlib.contextmanager
    def capture(self, file, interface="bsab"):
        """Captures the host's traffic into `file` (pcapng) during the `with` block. Needs dumpcap."""
        with open(file, "wb") as target, subprocess.Popen(
                self.command(["dumpcap", "-q", "-p", "-i", interface, "-w", "-"]),
                stdin=subprocess.DEVNULL, stdout=target, stderr=subprocess.PIPE, text=True) as nsenter:
            for line in nsenter.stderr:
                if line.startswith("File:"):  # printed when the capture has started
                    break
            else:
                raise RuntimeError("dumpcap did not start")
            try:
                yield
            finally:
                time.sleep(0.5)  # dumpcap may read packets a quarter of a second late
                # Signals dumpcap and not nsenter: a killed dumpcap would leave a file without the last packets.
                children = f"/proc/{nsenter.pid}/task/{nsenter.pid}/children"
                os.kill(int(pathlib.Path(children).read_text().split()[0]), signal.SIGTERM)
                nsenter.stderr.read()


class Lab:
    """The two hosts `server` and `client`. They run during the `with` block."""

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
        self._up.communicate()  # closes lab/up's standard input, which ends the lab

    @property
    def hosts(self):
        """Both hosts, the server first."""
        return self.server, self.client

    def pair(self, build):
        """Runs one pairing with the programs in the folder `build`. Returns the Outcomes of server and client."""
        server = self.server.start([build / "dorve-server"])
        eventually(lambda: self.server.listens() or not server.running)
        client = self.client.run([build / "dorve-client"])
        return server.wait(), client


def prove_login(host, user="root"):
    """Logs in from `host` to its peer with plain ssh and returns the peer's hostname. Raises RuntimeError if the login
    fails or reaches another host."""
    name = host.check(["ssh", "-n", "-o", "BatchMode=yes", "-o", "ConnectTimeout=5", "-o", "LogLevel=ERROR",
                       f"{user}@{host.peer.address}", "hostname"]).strip()
    if name != host.peer.name:
        raise RuntimeError(f"the {host.name} logged in to {name}, not to the {host.peer.name}")
    return name


def eventually(condition, seconds=10):
    """Waits at most `seconds` until `condition()` is true. Returns its last value."""
    deadline = time.monotonic() + seconds
    while not (value := condition()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return value


def _enter(network):
    if _libc.setns(network.fileno(), _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def _text(file):
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0).decode(errors="replace")
