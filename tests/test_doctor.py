# SPDX-License-Identifier: MIT
"""Makes mistakes on the lab's hosts and does what dorve-doctor prints, until nothing fails."""

import json
import re
from typing import NamedTuple

import pytest

from lab import CHECKOUT, Outcome, eventually, prove_login

SSHD_CONFIG = "/etc/ssh/sshd_config"
BEFORE, BETWEEN, AFTER = "before a pairing", "before a pairing, seen after it", "after a pairing"


def until(condition):
    """Waits, on the host, until a shell condition is true."""
    return f"timeout 10 sh -c 'until {condition}; do sleep 0.02; done'"


def listening(port):
    return until(f'ss -Hltn "sport = :{port}" | grep -q .')


# sshd writes its PID file when it listens. Without the old file, the wait lasts until then.
LISTENS_AGAIN = until("[ -s /run/sshd.pid ]")
RELOAD = f"pid=$(cat /run/sshd.pid); rm /run/sshd.pid; kill -HUP $pid; {LISTENS_AGAIN}"
STOP_SSHD = f"pid=$(cat /run/sshd.pid); kill -CONT $pid; kill $pid; {until('[ ! -e /run/sshd.pid ]')}"


def start_sshd(arguments=""):
    return f"{STOP_SSHD}; /usr/sbin/sshd {arguments}; {LISTENS_AGAIN}"


def sshd(line):
    """Changes sshd's configuration, as a user does."""
    return f"sed -i '1i {line}' {SSHD_CONFIG}; {RELOAD}"


def occupy(port):
    return ("setsid /usr/bin/python3 -c 'import socket, time; "
            f"s = socket.create_server((\"\", {port})); time.sleep(99)' </dev/null >/dev/null 2>&1 & {listening(port)}")


def run_server(then):
    return f"setsid dorve-server </dev/null >/dev/null 2>&1 & {listening(8888)}; {then}"


def chain(hook, *rules, policy="accept"):
    """A chain with rules, and a chain `last` that drops all packets."""
    return "; ".join([
        "nft add table inet t; nft add chain inet t last; nft add rule inet t last drop",
        f"nft add chain inet t {hook} '{{ type filter hook {hook} priority 0; policy {policy}; }}'",
        *(f"nft add rule inet t {hook} {rule}" for rule in rules)])


CLOSED = chain("input", "ct state established accept", "iif lo accept", policy="drop")
LAN = ("ip link add lan type veth peer name wan; for end in lan wan; do "
       "ip link set $end addrgenmode none; ip link set $end up; done")
CONFIG_BLOCK = "printf 'Host *\\n    {}\\n' >.ssh/config"


class Mistake(NamedTuple):
    """A mistake, and what the doctor shows. docs/doctor.md has the whole output of those that show nothing here."""

    title: str
    when: str
    side: str  # the host of the mistake; the doctor runs there too, unless `seen_from` names a host
    command: str
    shows: str = ""  # a line of the output
    seen_from: str = ""
    undo: str = ""  # runs on `side` first, where the doctor prints no command
    role: str = ""  # the user's decision which side this is


MISTAKES = [
    Mistake("There is no SSH directory", BEFORE, "client", "rmdir .ssh"),
    Mistake("The interface has another name", BEFORE, "client",
            "ip link set bsab down; ip link set bsab name eth1; ip link set eth1 up"),
    Mistake("The interface is down", BEFORE, "client", "ip link set bsab down"),
    Mistake("The address is missing", BEFORE, "client", "ip address flush dev bsab"),
    Mistake("The address is on another interface", BEFORE, "client",
            f"ip address flush dev bsab; {LAN}; ip address add 172.20.10.2/30 dev lan"),
    # Only the user knows which of the two devices is the client.
    Mistake("Both devices have the same address", BEFORE, "client",
            "ip address flush dev bsab; ip address add 172.20.10.1/30 dev bsab", role="client"),
    Mistake("Another program holds port 8888", BEFORE, "server", occupy(8888)),
    Mistake("dorve-server runs twice", BEFORE, "server", run_server(
        f"touch /run/lab/first; {run_server(until('[ .ssh/base_slice_exchange.pub -nt /run/lab/first ]'))}")),
    Mistake("No server waits", BEFORE, "client", "true"),
    Mistake("A firewall on this device drops packets by default", BEFORE, "server", CLOSED),
    Mistake("sshd does not run", BETWEEN, "client", STOP_SSHD),
    Mistake("sshd listens on another port", BETWEEN, "server", sshd("Port 2222")),
    Mistake("sshd keeps root out", BETWEEN, "server", sshd("PermitRootLogin no")),
    Mistake("sshd allows only other users", BETWEEN, "server", sshd("AllowUsers somebody")),
    Mistake("Others may write to the home directory", BETWEEN, "server", "chmod 0777 ."),
    Mistake("authorized_keys cannot be changed", BETWEEN, "server",
            "cd .ssh; touch authorized_keys; chmod 600 authorized_keys; chattr +i authorized_keys"),
    Mistake("ssh logs in under another name", BETWEEN, "client", CONFIG_BLOCK.format("User me")),
    Mistake("A block for all hosts comes first", BETWEEN, "client", CONFIG_BLOCK.format(
        "StrictHostKeyChecking yes\\n    Port 23\\n    ProxyJump x\\n    PubkeyAuthentication no")),
    Mistake("A program was started again", AFTER, "client", "timeout 2 dorve-client >/dev/null"),
    Mistake("Others may read the private key", AFTER, "client", "chmod 644 .ssh/base_slice_exchange"),

    Mistake("the file system is full", BETWEEN, "server",
            "mount -t tmpfs -o size=64k,mode=700 none .ssh; head -c 99999 /dev/zero >.ssh/fill",
            "FAIL  ssh-dir-space the file system of /root/.ssh is full", undo="umount .ssh"),

    Mistake("the cable is out", BEFORE, "server", "ip link set bsab down",
            "FAIL  interface     bsab is up, no carrier", seen_from="client"),
    Mistake("a route leads elsewhere", BEFORE, "client", f"{LAN}; ip route add 172.20.10.1/32 dev wan",
            "FAIL  address       packets to 172.20.10.1 leave over wan, not bsab"),
    Mistake("a rule drops packets", BEFORE, "client", "ip rule add to 172.20.10.1 priority 5 blackhole",
            "FAIL  address       packets to 172.20.10.1 do not leave: there is a blackhole route"),
    Mistake("the neighbour is fixed", AFTER, "client",
            "ip neighbour replace 172.20.10.1 lladdr 02:00:00:00:00:99 dev bsab nud permanent",
            "FAIL  address       a fixed neighbour entry says that 172.20.10.1 is MAC"),

    Mistake("the firewall drops all that leaves", BEFORE, "client", chain("output", policy="drop"),
            "FAIL  firewall      this device drops packets of the link in chain inet t output"),
    Mistake("the firewall has a set and a jump", BEFORE, "server", "nft add table inet t; nft add set inet t bad "
            "'{ type inet_service; elements = { 80, 8888 }; }';" + chain("input", "tcp dport @bad jump last"),
            "FAIL  firewall      this device drops packets of the link in chain inet t input"),

    Mistake("sshd is stopped", AFTER, "server", "kill -STOP $(cat /run/sshd.pid)",
            "FAIL  sshd          sshd (process N) is stopped"),
    Mistake("a program listens on port 8888 for IPv6 and IPv4", BEFORE, "server",
            "python3 -m http.server -b :: 8888 >/dev/null 2>&1 & sleep 1",
            "FAIL  port-8888     held by python3 (process N)"),
    Mistake("sshd listens for IPv6 only", BETWEEN, "server", sshd("ListenAddress ::"),
            "FAIL  sshd          sshd listens on other addresses than 172.20.10.1"),

    Mistake("sshd does not run, but a session listens", AFTER, "client",
            "ssh -f 172.20.10.1 'ssh -R 9000:127.0.0.1:9 172.20.10.2 sleep 60' >/dev/null 2>&1; "
            f"{listening(9000)}; {STOP_SSHD}", "FAIL  sshd          nothing listens on port 22 of 172.20.10.2"),
    Mistake("sshd was started with arguments", BETWEEN, "server",
            f"chmod 777 .; (echo DenyUsers root; cat {SSHD_CONFIG}) >/etc/ssh/other; "
            f"{start_sshd('-f /etc/ssh/other -o StrictModes=no')}",
            "FAIL  sshd-config   sshd: User root from 172.20.10.2 not allowed because listed in DenyUsers"),
    Mistake("sshd revoked the key", AFTER, "server",
            f"cp .ssh/authorized_keys /etc/ssh/revoked; {sshd('RevokedKeys /etc/ssh/revoked')}",
            "FAIL  sshd-config   sshd: Authentication key ED25519 SHA256:N revoked by file /etc/ssh/revoked"),
    Mistake("sshd rejects its configuration", AFTER, "server", f"{STOP_SSHD}; echo Bogus yes >>{SSHD_CONFIG}",
            f"FAIL  sshd-config   {SSHD_CONFIG}: line 6: Bad configuration option: Bogus"),
    Mistake("sshd still has its old configuration", BETWEEN, "server",
            f"{sshd('PermitRootLogin no')}; sed -i 1d {SSHD_CONFIG}",
            "warn  sshd-config   its files changed after sshd started"),
    Mistake("sshd has a log", AFTER, "server", f"{start_sshd('-E /run/sshd.log')}; cd .ssh; "
            "ssh-keygen -q -t ed25519 -N '' -C base_slice_exchange -f new; mv new.pub authorized_keys; "
            "echo Connection closed by authenticating user root 172.20.10.2 port 1 [preauth] >>/run/sshd.log; "
            "echo Disconnected from user root 172.20.10.2 port 1 >>/run/sshd.log",
            "skip  sshd-log      sshd's log about the last refused login: "
            "Connection closed by authenticating user root 172.20.10.2 port 1"),

    Mistake("ssh rejects its configuration", AFTER, "client", "echo Bogus yes >>.ssh/config",
            "FAIL  ssh-config    /root/.ssh/config: line 7: Bad configuration option: bogus"),

    Mistake("a forced command ends logins", BETWEEN, "server", sshd("ForceCommand true"),
            "FAIL  login         the key is accepted, but no command runs: exit status 0", seen_from="client"),
]


def run(host, build, command):
    """A shell command as the user types it, with the programs on PATH."""
    return host.run(f"PATH={build}:$PATH; {command}")


def doctor(host, build, arguments=""):
    return run(host, build, f"dorve-doctor {arguments}")


def bad_lines(outcome):
    return [line for line in outcome.out.splitlines() if line.startswith(("FAIL", "warn"))]


def next_commands(outcome):
    """The command in the last line of the report, if there is one. A second sshd for debugging repairs nothing."""
    commands = re.findall("(?:First|Next): (.*)", outcome.out.splitlines()[-1])
    return [command for command in commands if "sshd -d" not in command]


def pair(lab, build):
    """Runs a pairing. A server that already waits takes part in it."""
    if not lab.server.listens():
        lab.server.start([build / "dorve-server"])
        assert eventually(lab.server.listens)
    assert lab.client.run([build / "dorve-client"]).status == 0
    assert eventually(lambda: not lab.server.listens())


def state(host):
    """All bytes, owners and modes that a command could change, and the settings of the network."""
    return host.run("tar -c --mtime=@0 /etc/ssh /root/.ssh 2>&1 | sha256sum; nft list ruleset; "
                    "for kind in address route rule; do ip -4 -o $kind; done")


def run_printed(host, build, command):
    """Runs a command and waits until sshd has read its configuration again."""
    pid_file = host.path("/run/sshd.pid")
    before = pid_file.exists() and pid_file.stat().st_mtime_ns
    outcome = run(host, build, command)
    if "kill -HUP" in command:
        assert eventually(lambda: pid_file.exists() and pid_file.stat().st_mtime_ns != before)
    elif command.endswith("/sshd"):
        assert eventually(lambda: host.listens(22))
    return outcome


def follow(lab, host, build, command):
    """Does what the doctor printed on a host. Runs commands twice, because the second time must change nothing."""
    command, _, remark = command.partition("  # ")
    target = host.peer if remark.startswith("on ") else host
    if command in ("dorve-server", "dorve-client"):
        pair(lab, build)
    elif command.startswith("dorve-doctor"):
        for nested in next_commands(run(target, build, command)):
            follow(lab, target, build, nested)
    else:
        outcome = run_printed(target, build, command)
        assert outcome.status == 0, (command, outcome)
        once = state(target)
        run_printed(target, build, command)
        assert state(target) == once, f"a second time changes more: {command}"


def repair(lab, host, build, role=""):
    """Does what the doctor prints until it prints no more commands."""
    for _ in range(8):
        outcome = doctor(host, build, role)
        commands = next_commands(outcome)
        if not commands:
            return outcome
        follow(lab, host, build, commands[0])
    raise AssertionError(f"the doctor's commands do not help: {outcome}")


def documented(title):
    """What the doctor prints according to docs/doctor.md."""
    page = (CHECKOUT / "docs/doctor.md").read_text()
    return re.search(rf"^## {title}\n+```\n(.*?)```$", page, re.M | re.S)[1]


def plain(text):
    """The text with N in place of numbers and fingerprints, and MAC in place of hardware addresses. The programs and
    Python appear as on a usual Debian system."""
    text = re.sub(r"(process |/proc/|kill |kill -[A-Z]+ |python3\.)\d+", r"\1N", text)
    text = re.sub(r"(SHA256:)[\w+/]+", r"\1N", text)
    text = re.sub(r"-ef '.*?/(dorve-(?:client|server))' ", r"-ef /usr/bin/\1 ", text)  # a path with blanks
    text = re.sub(r"[^\s>]+/(dorve-(?:client|server)) ", r"/usr/bin/\1 ", re.sub(r"\d+ KiB", "N KiB", text))
    return re.sub(r"(\w\w:){5}\w\w", "MAC", text)


def without_ok(text):
    return re.sub("^ok .*\n", "", text, flags=re.M)


@pytest.mark.parametrize("mistake", MISTAKES, ids=lambda mistake: mistake.title)
def test_names_the_cause_and_the_commands_that_help(sshd_lab, build, mistake):
    host = getattr(sshd_lab, mistake.side)
    if mistake.when is AFTER:
        pair(sshd_lab, build)
    run(host, build, mistake.command)
    if mistake.when is BETWEEN:
        sshd_lab.pair(build)

    examined = getattr(sshd_lab, mistake.seen_from or mistake.side)
    outcome = doctor(examined, build)
    assert outcome.err == ""
    if mistake.shows:
        assert mistake.shows in plain(outcome.out).splitlines(), outcome
    else:
        assert plain(without_ok(outcome.out)) == documented(mistake.title)
    assert outcome.status == ("FAIL" in outcome.out)

    run(host, build, mistake.undo or "true")
    assert bad_lines(repair(sshd_lab, examined, build, mistake.role)) == []
    for each in sshd_lab.hosts:
        prove_login(each)


def test_finds_nothing_wrong_with_healthy_devices(sshd_lab, build):
    server = sshd_lab.server.start([build / "dorve-server"])
    assert eventually(sshd_lab.server.listens)
    for when in "before", "after":
        for host in sshd_lab.hosts:
            outcome = doctor(host, build)
            title = f"Nothing is wrong on the {host.name} {when} a pairing"
            assert (plain(outcome.out), outcome.err, outcome.status) == (documented(title), "", 0)
        if server.running:
            sshd_lab.client.check([build / "dorve-client"])
            assert server.wait().status == 0


# What a user may do, on both hosts, without harm.
HARMLESS = {
    "the usual file of keys by another name, and a second address":
        "ip address add 172.20.10.9/24 dev bsab; touch .ssh/authorized_keys; ln -s .ssh %0root; "
        + sshd("AuthorizedKeysFile %h/%%%U%u/authorized_keys"),
    "root's groups, of which one may write to the home":
        "sed 's/^root:.*/&root\\nx:x:9:root/' /etc/group >/run/g; mount --bind /run/g /etc/group; chmod 775 .; "
        + sshd("AllowGroups x"),
    "no StrictModes, a user named with a network, and a linked directory":
        "chmod 777 .; mv .ssh there; ln -s there .ssh; "
        + sshd("StrictModes no\\nAllowUsers root@172.20.10.0/30,!10.0.0.1 me"),
    "a firewall that lets the link through, and a start-up file that prints":
        chain("input", "udp dport 53 drop", "iifname bsab tcp dport { 22, 8888 } accept", "iif lo accept",
              "ct state established accept", policy="drop") + "; echo 'echo hello >&2' >.bashrc",
}


@pytest.mark.parametrize("name", HARMLESS)
def test_raises_no_false_alarm(sshd_lab, build, name):
    for host in sshd_lab.hosts:
        assert host.run(HARMLESS[name]).status == 0
    for _ in "before", "after":
        for host in sshd_lab.hosts:
            assert bad_lines(doctor(host, build)) == []
        pair(sshd_lab, build)
    for host in sshd_lab.hosts:
        prove_login(host)


ADD_USER = """
    echo 'me:x:7777:7777::/home/me:/bin/sh' | cat - /etc/passwd >/run/lab/passwd
    mount --bind /run/lab/passwd /etc/passwd; echo 'me:*:19000:0:99999:7:::' >>/etc/shadow
    (umask 337; echo 'me ALL=(ALL:ALL) NOPASSWD: ALL' >/run/lab/sudoers); mount --bind /run/lab/sudoers /etc/sudoers
    mkdir -m 700 /home/me; mkdir -m 700 /home/me/.ssh; chown 7777:7777 /home/me /home/me/.ssh; mkdir /run/bin"""
AS_ROOT = ["env", "PATH=/run/bin:/usr/sbin:/usr/bin:/sbin:/bin", "sh", "-c"]
AS_USER = ["setpriv", "--reuid=7777", "--regid=7777", "--clear-groups", "env", "-C", "/home/me", "HOME=/home/me",
           *AS_ROOT[1:]]


def add_user(host, build):
    """Adds an ordinary user `me` with sudo. Copies the programs to /run/bin, because `me` may not read the checkout."""
    host.check(f"{ADD_USER}; cp {build}/dorve-client {build}/dorve-server {build}/dorve-doctor /run/bin")


@pytest.mark.parametrize("shell, command", [(AS_USER, "dorve-doctor"), (AS_ROOT, "dorve-doctor --user me")])
def test_finds_the_name_of_the_user_who_paired_there(sshd_lab, build, shell, command):
    for host in sshd_lab.hosts:
        add_user(host, build)
    server = sshd_lab.server.start([build / "dorve-server"])
    assert eventually(sshd_lab.server.listens)
    assert (sshd_lab.client.run([*AS_USER, "dorve-client"]).status, server.wait().status) == (0, 0)
    # ssh runs this command with its own rights.
    sshd_lab.client.check([*AS_USER, "echo 'Match exec \"id -un >>/home/me/who\"' >>.ssh/config"])
    for host, shell, command, other, own in ((sshd_lab.client, shell, command, "root", "me"),
                                             (sshd_lab.server, AS_ROOT, "dorve-doctor", "me", "root")):
        outcome = host.run([*shell, command])
        assert f"login         {host.peer.address} lets {other} in, not {own}" in outcome.out, outcome
        assert host.run([*shell, next_commands(outcome)[0]]).status == 0
        outcome = host.run([*shell, command])
        assert f"ok    login         ssh {host.peer.address} logs in as {other}\n" in outcome.out, outcome
    assert set(sshd_lab.client.path("/home/me/who").read_text().split()) == {"me"}
    assert sshd_lab.client.check("find /home/me ! -user me") == ""
    outcome = sshd_lab.client.run([*AS_ROOT, "SUDO_USER=me dorve-doctor"])
    assert "      fix  sudo dorve-doctor --user me\n" in outcome.out


@pytest.mark.parametrize("root_command, command, line", [
    ("chown 0:0 /home/me/.ssh; chmod 755 /home/me/.ssh", "true", "FAIL  ssh-dir-modes /home/me/.ssh belongs to root"),
    ("true", "[ -e .ssh/config ] || { touch .ssh/config; chmod 200 .ssh/config; }",
     "FAIL  ssh-files     /home/me/.ssh/config: Permission denied"),
    ("true", """export HOME="/home/me/a'b"; mkdir -p "$HOME/.ssh" """,
     "FAIL  ssh-dir       /home/me/a'b/.ssh contains a blank or a special character"),
    ("umount /etc/passwd", "true", "FAIL  user          no name for user 7777"),
    (occupy(8888), "true", "FAIL  port-8888     held by a process of another user"),
    ("true", "true", "skip  sshd-config   not checked: only root can read the whole configuration"),
])
def test_names_an_ordinary_users_mistake(lab, build, root_command, command, line):
    add_user(lab.server, build)
    lab.server.check(root_command)
    lines = lab.server.run([*AS_USER, f"{command}; dorve-doctor --timeout 1"]).out.splitlines()
    assert line in lines
    if not line.startswith(("FAIL  ssh-dir", "FAIL  ssh-files")):
        return
    fix = next(each[11:] for each in lines[lines.index(line):] if each.startswith("      fix  "))
    outcome = lab.server.run([*AS_USER, f"{command}; {fix}; {fix}; dorve-doctor --timeout 1"])
    assert line not in outcome.out.splitlines(), (fix, outcome)


@pytest.mark.parametrize("file, line, rights", [
    ("/etc/ssh/ssh_config", "Bogus yes", ""),
    (".ssh/config", 'Match exec "echo /etc/ssh/ssh_config line 1: >&2"\nBogus yes', "setsid -w runuser -u me -- "),
])
def test_root_edits_no_file_that_only_the_user_names(lab, build, file, line, rights):
    add_user(lab.client, build)
    lab.client.check(f"cd /home/me; echo 'ssh-ed25519 AAAA base_slice_exchange' >.ssh/authorized_keys; "
                     f"echo '{line}' >{file}; chown me: .ssh/*")
    lines = lab.client.run([*AS_ROOT, "dorve-doctor --user me client"]).out.splitlines()
    failed = next(number for number, each in enumerate(lines) if each.startswith("FAIL  ssh-config"))
    assert re.match(rf"      fix  {rights}(sh -c '|)sed --follow-symlinks", lines[failed + 2]), lines


# What breaks, and a line that the doctor then prints.
HOSTILE = {
    "no /proc": ("mount -t tmpfs none /proc", "skip  programs      not checked: /proc cannot be read"),
    "pipes": ("cd .ssh; rm config authorized_keys; mkfifo config authorized_keys",
              "FAIL  ssh-files     /root/.ssh/config is not a regular file"),
    "a long line": ("cd .ssh; (head -c 1M /dev/zero | tr '\\0' A; echo base_slice_exchange) >authorized_keys",
                    "FAIL  peer-key      the pairing key in authorized_keys is damaged (line 1)"),
    # The running sshd would start its replacement too.
    "tools that hang": (f"{STOP_SSHD}; "
                        "printf '#!/bin/sh\\nsleep 60 & setsid sleep 60\\n' >/run/slow; chmod +x /run/slow; "
                        "cd /usr; for tool in bin/ssh bin/ssh-keygen sbin/sshd sbin/nft; do "
                        "mount --bind /run/slow $tool; done",
                        "FAIL  ssh-keygen    timed out"),
}


@pytest.mark.parametrize("name", HOSTILE)
def test_survives_hostile_surroundings(sshd_lab, build, name):
    pair(sshd_lab, build)
    command, line = HOSTILE[name]
    run(sshd_lab.server, build, command)
    outcome = sshd_lab.server.run(["timeout", "10", build / "dorve-doctor", "server"])
    assert line in outcome.out.splitlines(), outcome
    assert outcome.status in (0, 1), outcome  # neither a signal nor the timeout ended it
    if name != "no /proc":
        assert sshd_lab.server.run("pgrep -x sleep").out == "", "a command left a process behind"


def test_opens_nothing_for_writing(sshd_lab, build):
    pair(sshd_lab, build)
    # LeakSanitizer does not work under strace.
    trace = sshd_lab.client.run(["strace", "-f", "-e", "trace=%file", "-o", "/run/trace",
                                 "-E", "ASAN_OPTIONS=detect_leaks=0", build / "dorve-doctor"])
    assert trace.status == 0, trace
    calls = sshd_lab.client.path("/run/trace").read_text()
    opened = re.findall(r'open(?:at)?\(.*?"(.*?)", [^)]*(?:O_WRONLY|O_RDWR|O_CREAT)', calls)
    assert set(opened) <= {"/dev/null", "/dev/stdin"}
    assert not re.search(r" (mkdir|unlink|rename|chmod|chown|symlink|link|mknod|truncate|utime)\w*\(", calls)


def test_sends_nothing_elsewhere_when_the_link_has_failed(sshd_lab, build):
    client = sshd_lab.client
    client.check(f"{LAN}; ip address add 10.9.9.1/24 dev lan; ip route add default via 10.9.9.2; "
                 "echo nameserver 10.9.9.2 >/run/resolv; mount --bind /run/resolv /etc/resolv.conf")
    for paired in False, True:
        if paired:
            pair(sshd_lab, build)
        for fails, works in (("ip link set bsab down", "ip link set bsab up"),
                             ("ip address flush dev bsab", "ip address add 172.20.10.2/30 dev bsab"),
                             ("ip link set bsab down; ip link set bsab name x; ip address add 172.20.10.2/28 dev lan",
                              "ip address del 172.20.10.2/28 dev lan; ip link set x name bsab; ip link set bsab up"),
                             (CONFIG_BLOCK.format("HostName partner.example"), "true")):
            client.check(fails)
            assert client.run([build / "dorve-doctor", "client"]).status == (paired or "HostName" not in fails)
            assert client.check("cat /sys/class/net/lan/statistics/tx_packets") == "0\n", fails
            client.check(works)


def test_prints_json_for_scripts(lab, build):
    outcome = run(lab.server, build, "dorve-doctor --json --timeout 1 | cat")
    checks = [json.loads(line) for line in outcome.out.splitlines()]
    assert {"check": "sshd", "verdict": "FAIL", "found": "nothing listens on port 22 of 172.20.10.1",
            "cause": "without sshd the other device cannot log in here",
            "command": "mkdir -p -m 755 /run/sshd && /usr/sbin/sshd -t && /usr/sbin/sshd"} in checks


@pytest.mark.parametrize("environment, line", [("TERM=xterm", "\033[32mok\033[0m    role          client:..."),
                                               ("TERM=dumb", "ok    role          client:..."),
                                               ("TERM=xterm NO_COLOR=", "ok    role          client:...")])
def test_colours_and_cuts_what_a_terminal_shows(lab, build, environment, line):
    outcome = lab.client.run(f"{environment} script -qc 'stty cols 30; {build}/dorve-doctor --timeout 1' /dev/null")
    assert outcome.out.splitlines()[1] == line


def test_describes_itself(lab, build):
    version = (CHECKOUT / "debian/changelog").read_text().split("(")[1].split(")")[0]
    assert run(lab.client, build, "dorve-doctor --help") == Outcome(0, documented("How to call it"), "")
    assert run(lab.client, build, "dorve-doctor --version") == Outcome(0, f"dorve-doctor {version}\n", "")
    assert run(lab.client, build, "dorve-doctor >/dev/full") == Outcome(
        1, "", "dorve-doctor: cannot write to standard output\n")
    add_user(lab.client, build)
    assert lab.client.run([*AS_USER, "dorve-doctor --user root"]) == Outcome(
        2, "", "dorve-doctor: --user needs root\n")


@pytest.mark.parametrize("arguments", ["--bogus", "client server", "--timeout", "--timeout 0", "--timeout 61",
                                       "--timeout 3s", "--user", "--user ''", "-h"])
def test_reports_bad_usage(shared_lab, build, arguments):
    usage = "usage: dorve-doctor [--json] [--timeout SECONDS] [--user NAME] [client|server]\n"
    assert run(shared_lab.client, build, f"dorve-doctor {arguments}") == Outcome(2, "", usage)
