# SPDX-License-Identifier: MIT
"""Makes two hosts on this machine, `server` (172.20.10.1/30) and `client` (172.20.10.2/30). One link joins them, and
both ends of it are named bsab.

    with Lab(sshd=True) as lab:
        print(lab.client.run("ssh 172.20.10.1 hostname").err)

A lab needs root with the privileges to make namespaces and mounts. It changes nothing outside the hosts' namespaces: it
makes no named namespace, no mount that the machine sees, and no file. Only processes keep it alive, and they end with
the `with` block or with this process."""

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

# lab/host covers /root, /home, /run and /etc/ssh, and then mounts a covered checkout again. If the checkout were one of
# these directories, this would expose the machine's files. The directories that hold them are rejected as well.
HIDDEN = {pathlib.Path(path) for path in ("/", "/root", "/home", "/run", "/etc", "/etc/ssh")}
ENVIRONMENT = {"LC_ALL": "C.UTF-8", "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}
IN_NAMESPACES = ["unshare", "--net", "--mount", "--propagation", "private", "--pid", "--uts", "--ipc", "--fork"]

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
    """A program that runs on a host, started by nsenter. Both are killed when this process dies.
    The init of a host is also a Process."""

    def __init__(self, command, stdin=subprocess.DEVNULL, stdout=None, env=None):
        self._out, self._err = stdout or tempfile.TemporaryFile(), tempfile.TemporaryFile()
        # nsenter gets its own process group. Otherwise a signal to the command's group would also reach this process.
        self.popen = subprocess.Popen(command, stdin=stdin, stdout=self._out, stderr=self._err, env=env,
                                      process_group=0,
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

    @property
    def pid(self):
        """The PID of the program itself, not of the nsenter that waits for it."""
        children = pathlib.Path(f"/proc/{self.popen.pid}/task/{self.popen.pid}/children").read_text().split()
        return int(children[0]) if children else self.popen.pid

    def signal(self, number):
        """Sends a signal to the program itself."""
        os.kill(self.pid, number)

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
        """The command line that runs `command` on the host, in /root. `command` is a shell command or a list of words.

        It becomes nsenter, which waits for the command from outside the host. If nsenter is killed, the command is
        killed too. Processes that the command leaves behind end with the lab."""
        words = ["/bin/sh", "-c", command] if isinstance(command, str) else [str(word) for word in command]
        environment = {"HOME": "/root", "USER": "root", "LOGNAME": "root", "TERM": "dumb", **ENVIRONMENT}
        passed = {name: os.environ[name] for name in ("TERM", "ASAN_OPTIONS", "UBSAN_OPTIONS") if name in os.environ}
        # If the lab runs in a chroot, --mount alone would leave that chroot. --root enters the host's root directory.
        return ["nsenter", "--target", str(self.pid), "--mount", "--root", "--uts", "--ipc", "--net", "--pid",
                "setpriv", "--pdeathsig", "KILL", "env", "-i", "-C", "/root",
                *(f"{name}={value}" for name, value in (environment | passed).items()), *words]

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
        """Captures the host's traffic into `file` (pcapng) during the `with` block. Needs dumpcap.
        Raises RuntimeError if dumpcap could not write all packets."""
        # The file is opened here, because its path may lead to another file on the host.
        with open(file, "wb") as target:
            dumpcap = self.start(["dumpcap", "-q", "-p", "-i", interface, "-w", "-"], stdout=target)
        eventually(lambda: "File: -" in dumpcap.err or not dumpcap.running)  # printed when the capture has started
        if not dumpcap.running:
            raise RuntimeError(f"dumpcap did not start: {dumpcap.err.strip()}")
        try:
            yield
        finally:
            time.sleep(0.5)  # dumpcap may read packets a quarter of a second late
            if dumpcap.running:
                dumpcap.signal(signal.SIGTERM)
            status = dumpcap.popen.wait(10)
        if status != 0:
            raise RuntimeError(f"the capture is incomplete: {dumpcap.err.strip()}")


class Lab:
    """The two hosts `server` and `client`. They run during the `with` block. With `sshd`, both have host keys and run
    sshd."""

    def __init__(self, sshd=False):
        self._with_sshd = "yes" if sshd else "no"
        self._inits = {}

    def __enter__(self):
        if os.geteuid() != 0:
            raise Unavailable("only root can make hosts, use sudo")
        if CHECKOUT in HIDDEN:
            raise Unavailable(f"the checkout must not be {CHECKOUT} itself")
        try:
            self.server, self.client = self._make_hosts({"server": "172.20.10.1", "client": "172.20.10.2"})
            self.server.peer, self.client.peer = self.client, self.server
            self._join()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        # The kernel kills all other processes of a host with its init. If this process dies instead, the standard input
        # of each init ends, and the init exits.
        for init in self._inits.values():
            if init.running:
                init.signal(signal.SIGKILL)
            init.wait()
            init.popen.stdin.close()

    def _make_hosts(self, addresses):
        """Starts the first process (init) of each host, and waits until the hosts are ready."""
        # A program that ignores SIGINT may have started this one, and sshd would pass that on to every login.
        start = ["env", "--default-signal", *IN_NAMESPACES, "--kill-child=KILL", FOLDER / "host"]
        for name in addresses:
            self._inits[name] = Process([*start, name, CHECKOUT, self._with_sshd], stdin=subprocess.PIPE,
                                        env=ENVIRONMENT)
        for name, init in self._inits.items():
            eventually(lambda: init.out.endswith("\n") or not init.running, 20)
            if not init.out:
                raise _failure(init.err or f"the {name} was not ready within 20 s")
            yield Host(name, addresses[name], int(init.out))

    def _join(self):
        # If both ends had the same index, the kernel would treat them as unpaired interfaces, and might report a second
        # late that they are up.
        ends = (["bsab", "index", "101", "netns", str(self.server.pid)],
                ["bsab", "index", "102", "netns", str(self.client.pid)])
        link = subprocess.run(["ip", "link", "add", *ends[0], "type", "veth", "peer", "name", *ends[1]],
                              capture_output=True, text=True, env=ENVIRONMENT)
        if link.returncode != 0:
            raise _failure(link.stderr)
        for host in self.hosts:
            host.check(f"ip link set lo up && ip address add {host.address}/30 dev bsab && ip link set bsab up")
        for host in self.hosts:
            state = host.path("/sys/class/net/bsab/operstate")
            if not eventually(lambda: state.read_text() == "up\n", 5):
                raise RuntimeError("the link did not come up within 5 s")

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


def _failure(output):
    """The exception for a host that could not be made. It names the missing right if there is one. Otherwise, it gives
    the first line of `output`, and is no reason to skip a test."""
    trial = subprocess.run([*IN_NAMESPACES, "sh", "-c", "mount -t proc proc /proc && ip link set lo up"],
                           capture_output=True, text=True, env=ENVIRONMENT)
    if trial.returncode == 0:
        return RuntimeError(output.partition("\n")[0])
    reason = trial.stderr.partition("\n")[0]
    needed = "root with CAP_SYS_ADMIN and CAP_NET_ADMIN; a container needs --privileged"
    if "propagation" in reason:
        needed = "a mount point as /; for a chroot: mount --bind ROOT ROOT"
    return Unavailable(f"cannot make a host ({reason}). This needs {needed}")


def _enter(network):
    if _libc.setns(network.fileno(), _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def _text(file):
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0).decode(errors="replace")
