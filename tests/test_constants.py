# SPDX-License-Identifier: MIT
"""Compares the waits, attempts and modes in the man pages with what the programs ask the kernel for, as strace sees it.

strace also shortens what would take a minute: it skips the pauses, and lets the wait for a client fail at once."""

import re
import struct

import pytest

from lab import CHECKOUT, eventually

PAUSE = 0.2  # seconds


def page(name):
    return (CHECKOUT / "man" / name).read_text()


def documented(program, wait):
    """The numbers that the tables of a man page give for a wait."""
    row = re.search(rf"^\.It {wait} Ta (.*)", page(f"{program}.1"), re.M)[1]
    return [float(number) for number in re.findall(r"\d+(?:\.\d+)?", row)]


# The host, a command that makes the run fail, a fault for strace to inject; the call that fails and how often, the exit
# status, standard error.
RUNS_THAT_FAIL = [
    ("client", "ip link set bsab down; ip link set bsab name other", [], "newfstatat.*net/bsab",
     documented("dorve-client", "the interface to exist")[0] / PAUSE,
     1, "ERROR: Interface 'bsab' not available after 10 seconds\nClient failed\n"),
    ("client", "true", [], "connect", documented("dorve-client", "the server to accept the connection")[0],
     134, "terminate called after throwing an instance of 'dorve::NqSocketException'\n"
          "  what():  Connect failed after 151 attempts: Connection refused\n"),
    ("server", "ip address flush dev bsab", [], "bind",
     1 + documented("dorve-server", "its address to exist and port 8888 to be free")[0] / PAUSE,
     1, "Exception\nServer failed\n"),
    ("server", "true", ["accept:error=EAGAIN"], "accept", 1, 1, "Exception\nServer failed\n"),
]


def start(host, program, *faults):
    """Starts a program under strace, which skips its pauses and injects faults."""
    # LeakSanitizer does not work under strace.
    return host.start(["strace", "-qqq", "-y", "-s", "16", "-o", "/root/trace", "-E", "ASAN_OPTIONS=detect_leaks=0",
                       "-e", "trace=%file,%network,clock_nanosleep",
                       *(f"--inject={rule}" for rule in ("clock_nanosleep:retval=0", *faults)), program])


def trace(host):
    return host.path("/root/trace").read_text()


def seconds(host):
    """The pauses of the last traced program."""
    pauses = re.findall(r"^clock_nanosleep\(.*?tv_sec=(\d+), tv_nsec=(\d+)", trace(host), re.M)
    return [int(whole) + int(nano) / 1e9 for whole, nano in pauses]


def waits(host, calls):
    """The timeouts that are in force when the last traced program makes these calls, without repetitions."""
    found, timeout = [], None
    for line in trace(host).splitlines():
        if option := re.search(r'SO_RCVTIMEO\w*, "(.*)", 16', line):
            whole, micro = struct.unpack("ll", option[1].encode().decode("unicode_escape").encode("latin1"))
            timeout = whole + micro / 1e6
        elif re.match(calls, line) and found[-1:] != [timeout]:
            found.append(timeout)
    return found


def test_a_good_run(lab, build):
    server = start(lab.server, build / "dorve-server")
    eventually(lab.server.listens)
    client = start(lab.client, build / "dorve-client")
    assert (server.wait().status, client.wait().status) == (0, 0)
    assert waits(lab.client, "connect.*8888") == documented("dorve-client", "a firewall drops it silently")[:1]
    assert waits(lab.client, "recvfrom") == documented("dorve-client", "the response in phases 0 to 4")
    assert waits(lab.server, "accept") == documented("dorve-server", "a client")
    assert waits(lab.server, "recvfrom|sendto") == documented(
        "dorve-server", "the client to send or to receive more bytes")
    assert "SO_REUSEADDR, [1]" in trace(lab.server)

    files = page("dorve.7")
    modes = dict(re.findall(r"^\.It Pa (\w+)\n(?:(?!\.It).*\n)*?.*mode (0\d+)", files, re.M))
    del modes["base_slice_exchange"]  # ssh-keygen sets this mode
    modes[""] = re.search(r"mode of the directory, which becomes (0\d+)", files)[1]
    for host in lab.hosts:
        calls = re.findall(r'^(?:mkdir|chmod|openat)\(.*"/root/\.ssh/?(\w*)".*, (0\d+)\)', trace(host), re.M)
        assert set(calls) == set(modes.items())
        assert not re.search(r'^openat\(.*"/root/\.ssh/(?!.*O_CLOEXEC)', trace(host), re.M)


@pytest.mark.parametrize("side, command, faults, call, attempts, status, errors", RUNS_THAT_FAIL)
def test_a_run_that_fails(lab, build, side, command, faults, call, attempts, status, errors):
    host = {"client": lab.client, "server": lab.server}[side]
    host.check(command)
    outcome = start(host, build / f"dorve-{side}", *faults).wait()
    assert (outcome.status, outcome.err) == (status, errors)
    assert len(re.findall(rf"^{call}.* = -1 ", trace(host), re.M)) == attempts
    assert seconds(host) == [PAUSE] * int(attempts - 1)


def test_a_failed_receive_is_followed_by_a_pause(lab, build):
    with lab.server.listen():
        outcome = start(lab.client, build / "dorve-client", "recvfrom:error=EAGAIN",
                        "clock_nanosleep:error=EINTR:when=1").wait()
    assert outcome.err == ("Receive failed: Receive timeout: Resource temporarily unavailable\n"
                           "Phase 0 (VERSION_NEGOTIATION) failed\nClient failed\n")
    assert seconds(lab.client) == [PAUSE, PAUSE]  # the second call resumes the first
    assert trace(lab.client).count("EAGAIN") == 1


def test_a_signal_ends_no_call(lab, build):
    server = start(lab.server, build / "dorve-server", "accept,recvfrom,sendto:error=EINTR:when=1+2")
    eventually(lab.server.listens)
    client = start(lab.client, build / "dorve-client", "recvfrom,sendto:error=EINTR:when=1+2")
    assert (server.wait().status, client.wait().status) == (0, 0)
    assert set(re.findall(r"^(\w+)\(.*EINTR", trace(lab.server), re.M)) == {"accept", "recvfrom", "sendto"}
