# SPDX-License-Identifier: MIT
"""Operations that act on a whole machine: the restart of sshd, and mounts.

They run on a lab host, which has its own processes, mounts, /run and kernel log. The tool that runs them refuses to
run anywhere else."""

import re

import pytest

from lab import Outcome, eventually


@pytest.fixture
def server(sshd_lab):
    return sshd_lab.server


@pytest.fixture
def operation(server, build):
    """The command line of an operation."""
    tool = build / "tests/host-operation"
    check = server.run([tool, "check"])
    if check.status != 0:
        pytest.skip(check.err)
    return lambda *words: [tool, *words]


def start(host, program):
    """Starts a copy of sleep. Returns its Process and its PID on the host."""
    process = host.start(["sh", "-c", 'echo $$; exec "$0" 1000', program])
    assert eventually(lambda: process.out.endswith("\n"))
    pid = process.out.strip()
    assert eventually(lambda: host.path(f"/proc/{pid}/cmdline").read_text().startswith(f"{program}\0"))
    return process, pid


def test_restart_starts_sshd_and_ends_only_an_old_sshd(server, operation):
    pid_file, log = server.path("/run/sshd.pid"), server.path("/dev/kmsg")

    def running():
        return pid_file.exists() and pid_file.read_text().strip()

    old = running()
    server.check(operation("restart"))
    assert eventually(lambda: running() not in ("", False, old))
    assert not server.path(f"/proc/{old}").exists()
    server.check(f"kill {running()}")
    assert eventually(lambda: not pid_file.exists())
    server.check(operation("restart"))
    assert eventually(running)
    with server.peer.connect(server.address, 22) as connection:
        assert connection.recv(8) == b"SSH-2.0-"

    # A daemon that cannot start leaves the PID file as the restart left it.
    server.check(f"kill {running()}; cp /bin/sleep /run/sshd-x; echo Nonsense >>/etc/ssh/sshd_config")
    assert eventually(lambda: not pid_file.exists())
    for program, is_sshd in (("/run/sshd-x", True), ("sleep", False)):
        process, pid = start(server, program)
        pid_file.write_text(f"{pid}\n")
        log.write_text("")
        server.check(operation("restart"))
        assert eventually(lambda: "Nonsense" in log.read_text())
        assert pid_file.exists() is not is_sshd, program
        assert process.running is not is_sshd, program


def test_termination_is_polite_first_and_waits_in_growing_steps(server, operation):
    # strace makes kill(2) succeed without a signal. LeakSanitizer does not work under strace.
    _, stubborn = start(server, "sleep")
    waiting = server.start(["strace", "-qqq", "-ttt", "-o", "/root/trace", "-E", "ASAN_OPTIONS=detect_leaks=0",
                            "-e", "trace=kill,clock_nanosleep,exit_group", "-e", "inject=kill:retval=0",
                            *operation("terminate", stubborn)])

    polite, pid = start(server, "sleep")
    assert server.check(operation("terminate", pid))[0] == "1"
    assert polite.wait().status == 128 + 15
    orphan = server.start("sleep 0.2 & echo $!; exec sleep 1000")  # sleep never waits for its child
    assert eventually(lambda: orphan.out and " Z " in server.path(f"/proc/{orphan.out.strip()}/stat").read_text())
    assert server.check(operation("wait", orphan.out.strip(), "0"))[0] == "1"
    server.check("cp /bin/sleep '/run/x) Z'")
    _, odd = start(server, "/run/x) Z")  # in /proc/PID/stat its name looks like the state of a zombie
    assert server.check(operation("wait", odd, "0"))[0] == "0"

    outcome = waiting.wait()
    assert (outcome.out, outcome.err) == ("0", "Error\n")
    trace = server.path("/root/trace").read_text()
    _, terminated, killed = re.split(r"^(?=.*SIGTERM|.*SIGKILL)", trace, flags=re.M)
    for step, following, limit in ((terminated, killed, 5), (killed, trace.splitlines()[-1], 2)):
        pauses = [int(pause) / 1e6 for pause in re.findall(r"tv_sec=0, tv_nsec=(\d+)", step)]
        assert pauses[:4] == [20, 40, 80, 160] and set(pauses[4:]) == {200}
        # A busy machine makes the wait longer, never the sum of the pauses.
        assert sum(pauses) / 1000 <= limit + 0.2
        assert float(following.split()[0]) - float(step.split()[0]) > limit


def test_a_tmpfs_is_mounted_once_with_its_options(server, operation):
    mounted, failed, nothing = Outcome(0, "Successful\n", ""), Outcome(1, "", "Error\n"), Outcome(0, "", "")

    def mount(path, *prefix):
        return server.run([*prefix, *operation("mount", path, "size=64k,mode=0700")])

    assert mount("/run/m") == failed  # there is no such directory
    server.check("mkdir -p /run/m/inner")
    assert mount("/run/m/inner") == mounted
    assert mount("/run/m") == mounted
    assert mount("/run/m") == nothing
    assert mount("/run/m/") == mounted  # paths are compared as texts
    no_table = "strace -qqq -o /dev/null -E ASAN_OPTIONS=detect_leaks=0 -P /proc/mounts -e inject=openat:error=EACCES"
    assert mount("/run/m", *no_table.split()).err.endswith("\nError\n")  # and mounts it again
    mounts = re.findall(r"^(\S+ /run/m .*?)(?:,inode64)? 0 0$", server.proc("mounts").read_text(), flags=re.M)
    assert mounts == ["tmpfs /run/m tmpfs rw,nosuid,nodev,noexec,relatime,size=64k,mode=700"] * 3
