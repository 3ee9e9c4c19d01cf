# SPDX-License-Identifier: MIT
"""What the programs ask the kernel for, as strace sees it: timeouts, pauses, attempts, modes, flags, and their order.

strace also shortens what would take a minute: it skips the pauses, and lets the wait for a client fail at once."""

import re
import struct

import pytest

from lab import eventually

NEW_KEY = """\
newfstatat "/root/.ssh"
mkdir "/root/.ssh", 0700 EEXIST
chmod "/root/.ssh", 0700
unlink "/root/.ssh/base_slice_exchange" ENOENT
unlink "/root/.ssh/base_slice_exchange.pub" ENOENT
wait4
openat "/root/.ssh/base_slice_exchange.pub", O_RDONLY|O_CLOEXEC
"""
INSTALLATION = """\
openat "/root/.ssh/authorized_keys", O_RDWR|O_CREAT|O_CLOEXEC, 0600
chmod "/root/.ssh/authorized_keys", 0600
openat "/root/.ssh/config", O_RDONLY|O_CLOEXEC ENOENT
openat "/root/.ssh/config", O_WRONLY|O_CREAT|O_APPEND|O_CLOEXEC, 0600
chmod "/root/.ssh/config", 0600
"""
ADDRESS = '{sa_family=AF_INET, sin_port=htons(8888), sin_addr=inet_addr("172.20.10.1")}, 16'
SOCKET = "socket AF_INET, SOCK_STREAM, IPPROTO_IP\n"
CLIENT_SOCKET = SOCKET + 'SO_RCVTIMEO and SO_SNDTIMEO 5000 ms\nSO_BINDTODEVICE "bsab\\0"\n'
INTERFACE = 'newfstatat "/sys/class/net/bsab"'
UNTIL_CONNECT = f"{NEW_KEY}{INTERFACE}\n{CLIENT_SOCKET}"
UNTIL_ANSWER = f"""\
{UNTIL_CONNECT}connect {ADDRESS}
sendto 484, MSG_NOSIGNAL
SO_RCVTIMEO and SO_SNDTIMEO 3000 ms
"""
CLIENT = f"""\
{UNTIL_ANSWER}recvfrom 512, 0
sendto 4588, MSG_NOSIGNAL
SO_RCVTIMEO and SO_SNDTIMEO 5000 ms
recvfrom 4624, 0
sendto 385, MSG_NOSIGNAL
SO_RCVTIMEO and SO_SNDTIMEO 3000 ms
recvfrom 354, 0
{INSTALLATION}sendto 768, MSG_NOSIGNAL
SO_RCVTIMEO and SO_SNDTIMEO 10000 ms
recvfrom 508, 0
sendto 284, MSG_NOSIGNAL
SO_RCVTIMEO and SO_SNDTIMEO 3000 ms
recvfrom 473, 0
close
"""
LISTENER_TIMEOUT = "SO_RCVTIMEO and SO_SNDTIMEO 60000 ms\n"
UNTIL_BIND = f"{NEW_KEY}{SOCKET}SO_REUSEADDR [1]\n{LISTENER_TIMEOUT}"
UNTIL_CLIENT = f"{UNTIL_BIND}bind {ADDRESS}\nlisten 1\n"
SERVER = f"""\
{UNTIL_CLIENT}accept
SO_RCVTIMEO and SO_SNDTIMEO 5000 ms
recvfrom 8192, 0
sendto 512, MSG_NOSIGNAL
recvfrom 8192, 0
sendto 4624, MSG_NOSIGNAL
recvfrom 8192, 0
sendto 354, MSG_NOSIGNAL
recvfrom 8192, 0
{INSTALLATION}sendto 508, MSG_NOSIGNAL
recvfrom 8192, 0
sendto 473, MSG_NOSIGNAL
close
close
"""

RUNS_THAT_FAIL = {
    # The host, a command that makes the run fail, faults for strace to inject; the calls, the status, standard error.
    "no interface": (
        "client", "ip link set bsab down; ip link set bsab name other", [],
        f"{NEW_KEY}49 times:\n{INTERFACE} ENOENT\nclock_nanosleep 200 ms\nend\n{INTERFACE} ENOENT\n",
        1, "ERROR: Interface 'bsab' not available after 10 seconds\nClient failed\n"),
    "connection refused": (
        "client", "true", [],
        f"{UNTIL_CONNECT}150 times:\nconnect {ADDRESS} ECONNREFUSED\nclose\n{CLIENT_SOCKET}clock_nanosleep 200 ms\n"
        f"end\nconnect {ADDRESS} ECONNREFUSED\n",
        134, "terminate called after throwing an instance of 'dorve::NqSocketException'\n"
             "  what():  Connect failed after 151 attempts: Connection refused\n"),
    "no address": (
        "server", "ip address flush dev bsab", [],
        f"{UNTIL_BIND}100 times:\nbind {ADDRESS} EADDRNOTAVAIL\nclose\n"
        f"{SOCKET}{LISTENER_TIMEOUT}SO_REUSEADDR [1]\nclock_nanosleep 200 ms\nend\n"
        f"bind {ADDRESS} EADDRNOTAVAIL\nclose\n",
        1, "Exception\nServer failed\n"),
    "no client": (
        "server", "true", ["accept:error=EAGAIN"],
        f"{UNTIL_CLIENT}accept EAGAIN\nclose\n",
        1, "Exception\nServer failed\n"),
}


def start(host, program, *faults):
    """Starts a program under strace, which skips its pauses and injects faults."""
    # LeakSanitizer does not work under strace.
    return host.start(["strace", "-qqq", "-y", "-s", "16", "-o", "/root/trace", "-E", "ASAN_OPTIONS=detect_leaks=0",
                       "-e", "trace=%file,%network,clock_nanosleep,close,wait4",
                       *(f"--inject={rule}" for rule in ("clock_nanosleep:retval=0", *faults)), program])


def calls(host):
    """The calls of the last traced program that concern sockets, pauses, ssh-keygen, SSH files and the interface."""
    wanted = re.compile(r'.*<socket:|clock_nanosleep|wait4|\w+\((AT_FDCWD<.*>, )?"/(root/\.ssh|sys/class/net/)')
    lines = filter(wanted.match, host.path("/root/trace").read_text().splitlines())
    text = "".join(f"{simplify(line)}\n" for line in lines)
    text = re.sub(r"SO_RCVTIMEO (.*)\nSO_SNDTIMEO \1\n", r"SO_RCVTIMEO and SO_SNDTIMEO \1\n", text)
    text = re.sub(r"(recvfrom .*\n)(recvfrom .*\n)+", r"\1", text)  # a message may come in pieces
    text = re.sub(r"^((?:.*\n){1,9}?)\1{2,}", lambda same: f"{len(same[0]) // len(same[1])} times:\n{same[1]}end\n",
                  text, flags=re.MULTILINE)
    return text.splitlines()


def simplify(line):
    """A line of strace with its time in milliseconds, without descriptors, results and values that vary."""
    call, arguments, error = re.fullmatch(r"(\w+)\((.*)\) += (?:-1 (E\w+))?.*", line).groups("")
    arguments = re.sub(r"^(AT_FDCWD|\d+)<.*?>(, )?", "", arguments)
    if call == "setsockopt":
        call, arguments = re.fullmatch(r"SOL_SOCKET, (SO_[A-Z]+)\w*, (.*), \d+", arguments).groups()
    match call:
        case "SO_RCVTIMEO" | "SO_SNDTIMEO":
            time = arguments.strip('"').encode().decode("unicode_escape").encode("latin1")
            seconds, microseconds = struct.unpack("ll", time)
            arguments = f"{seconds * 1000 + microseconds / 1000:g} ms"
        case "clock_nanosleep":
            seconds, nanoseconds = re.search(r"tv_sec=(\d+), tv_nsec=(\d+)", arguments).groups()
            arguments = f"{int(seconds) * 1000 + int(nanoseconds) / 1e6:g} ms"
        case "sendto" | "recvfrom":
            arguments = ", ".join(arguments.split(", ")[-4:-2])  # the size and the flags
        case "newfstatat":
            arguments = arguments.split(", ")[0]
        case "accept" | "wait4":
            arguments = ""
    return " ".join(filter(None, (call, arguments, error)))


def test_a_good_run(lab, build):
    server = start(lab.server, build / "dorve-server")
    eventually(lab.server.listens)
    client = start(lab.client, build / "dorve-client")
    assert (server.wait().status, client.wait().status) == (0, 0)
    assert calls(lab.server) == SERVER.splitlines()
    assert calls(lab.client) == CLIENT.splitlines()


@pytest.mark.parametrize("case", RUNS_THAT_FAIL)
def test_a_run_that_fails(lab, build, case):
    side, command, faults, expected, status, errors = RUNS_THAT_FAIL[case]
    host = {"client": lab.client, "server": lab.server}[side]
    host.check(command)
    outcome = start(host, build / f"dorve-{side}", *faults).wait()
    assert (outcome.status, outcome.err) == (status, errors)
    assert calls(host) == expected.splitlines()


def test_a_failed_receive_is_followed_by_a_pause(lab, build):
    with lab.server.listen():
        start(lab.client, build / "dorve-client", "recvfrom:error=EAGAIN", "clock_nanosleep:error=EINTR:when=1").wait()
    assert calls(lab.client) == (f"{UNTIL_ANSWER}recvfrom 512, 0 EAGAIN\nclock_nanosleep 200 ms EINTR\n"
                                 "clock_nanosleep 200 ms\nclose\n").splitlines()


def test_a_signal_ends_no_call(lab, build):
    server = start(lab.server, build / "dorve-server", "accept,recvfrom,sendto:error=EINTR:when=1+2")
    eventually(lab.server.listens)
    client = start(lab.client, build / "dorve-client", "recvfrom,sendto:error=EINTR:when=1+2")
    assert (server.wait().status, client.wait().status) == (0, 0)
    assert {"accept EINTR", "recvfrom 8192, 0 EINTR", "sendto 512, MSG_NOSIGNAL EINTR"} <= set(calls(lab.server))
