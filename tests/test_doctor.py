# SPDX-License-Identifier: MIT
"""Makes each mistake and runs dorve-doctor on the host that can see it.

The doctor must print what docs/doctor.md shows, and its first command must fix the mistake."""

import contextlib
import json
import os
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


STOP_SSHD = f"kill $(cat /run/sshd.pid); {until('! pgrep -x sshd >/dev/null')}"
# A restarted sshd writes its PID file when it listens. Without the old file, the wait lasts until then.
RELOAD = f"rm /run/sshd.pid; pkill -HUP -o -x sshd; {until('[ -s /run/sshd.pid ]')}"


def sshd(line):
    """Changes sshd's configuration, as a user does."""
    return f"sed -i '1i {line}' {SSHD_CONFIG}; {RELOAD}"


def occupy(port):
    return ("setsid /usr/bin/python3 -c 'import socket, time; "
            f"s = socket.create_server((\"\", {port})); time.sleep(99)' </dev/null >/dev/null 2>&1 & {listening(port)}")


def block(rule):
    return ("nft add table inet filter && nft add chain inet filter input '{ type filter hook input priority 0; }' && "
            f"nft add rule inet filter input {rule}")


class Mistake(NamedTuple):
    """A mistake, the heading in docs/doctor.md that names it, and how to make it."""

    title: str
    when: str
    side: str  # the host of the mistake; the doctor runs there too, unless `seen_from` names a host
    command: str
    seen_from: str = ""
    own_fix: str = ""  # runs in place of the printed command if that fixes nothing, or cannot work in the lab


MISTAKES = [
    Mistake("No SSH directory", BEFORE, "client", "rmdir /root/.ssh"),
    Mistake("A file in the place of the SSH directory", BEFORE, "server", "rmdir /root/.ssh; touch /root/.ssh"),
    Mistake("ssh-keygen is missing", BEFORE, "client", "mount --bind /dev/null /usr/bin/ssh-keygen",
            own_fix="umount /usr/bin/ssh-keygen"),
    Mistake("The interface has another name", BEFORE, "client",
            "ip link set bsab down; ip link set bsab name eth1; ip link set eth1 up"),
    Mistake("The link has neither its name nor its address", BEFORE, "client",
            "ip link set bsab down; ip link set bsab name eth1; ip link set eth1 up; ip address flush dev eth1; "
            "ip link add lan type veth peer name wan; ip link set wan up; ip route add default dev wan",
            own_fix="ip link delete wan; ip link set eth1 down; ip link set eth1 name bsab; ip link set bsab up; "
            "ip address add 172.20.10.2/30 dev bsab"),
    Mistake("The server lacks its address", BEFORE, "server", "ip address flush dev bsab"),
    Mistake("The client lacks its address", BEFORE, "client", "ip address flush dev bsab"),
    Mistake("The address is on another interface", BEFORE, "client",
            "ip address flush dev bsab; ip link add other type veth peer name end; ip link set other up; "
            "ip address add 172.20.10.2/30 dev other"),
    Mistake("The address has too long a prefix", BEFORE, "client",
            "ip address flush dev bsab; ip address add 172.20.10.2/32 dev bsab"),
    Mistake("Packets take another route", BEFORE, "client",
            "ip link add lan type veth peer name wan; ip link set lan up; ip link set wan up; "
            "ip address add 10.9.9.9/24 dev wan; ip route add 172.20.10.1/32 dev wan"),
    Mistake("The interface is down", BEFORE, "client", "ip link set bsab down"),
    Mistake("The other end of the link is down", BEFORE, "server", "ip link set bsab down", seen_from="client"),
    Mistake("The other device lacks its address", BEFORE, "server", "ip address flush dev bsab", seen_from="client"),
    Mistake("Another program holds port 8888", BEFORE, "server", occupy(8888)),
    Mistake("dorve-server runs twice", BEFORE, "server",
            f"setsid dorve-server >/dev/null 2>&1 & {listening(8888)}; touch /run/lab/first; "
            f"setsid dorve-server >/dev/null 2>&1 & {until('[ .ssh/base_slice_exchange.pub -nt /run/lab/first ]')}"),
    Mistake("No server waits", BEFORE, "client", "true"),
    Mistake("A firewall drops port 8888", BEFORE, "server", block("tcp dport 8888 drop"), seen_from="client"),
    Mistake("A firewall rejects port 8888", BEFORE, "server",
            block("tcp dport 8888 reject with icmp type host-prohibited"), seen_from="client"),
    Mistake("A firewall drops port 22", BETWEEN, "server", block("tcp dport 22 drop"), seen_from="client"),
    Mistake("A firewall rejects port 22", BETWEEN, "server", block("tcp dport 22 reject"), seen_from="client"),
    Mistake("sshd does not run", BETWEEN, "client", STOP_SSHD),
    Mistake("Another program holds port 22", BETWEEN, "client", f"{STOP_SSHD}; {occupy(22)}"),
    Mistake("sshd has not run since the last boot", BETWEEN, "client", f"{STOP_SSHD}; rmdir /run/sshd"),
    Mistake("There is no sshd", BETWEEN, "client", f"{STOP_SSHD}; mount --bind /run/sshd /usr/sbin",
            own_fix="umount /usr/sbin; /usr/sbin/sshd"),
    Mistake("sshd does not run on the other device", BETWEEN, "server", STOP_SSHD, seen_from="client"),
    Mistake("sshd listens on another port", BETWEEN, "server", sshd("Port 2222")),
    Mistake("sshd listens on another address", BETWEEN, "server", sshd("ListenAddress 127.0.0.1")),
    Mistake("sshd listens for IPv6 only", BETWEEN, "server", sshd("ListenAddress ::")),
    Mistake("sshd keeps root out", BETWEEN, "server", sshd("PermitRootLogin no")),
    Mistake("sshd accepts no keys", BETWEEN, "client", sshd("PubkeyAuthentication no")),
    Mistake("sshd accepts no ed25519 keys", BETWEEN, "client", sshd("PubkeyAcceptedAlgorithms ssh-rsa")),
    Mistake("Others may read the host keys", AFTER, "server", "chmod 644 /etc/ssh/ssh_host_*_key"),
    Mistake("The user has no shell", BETWEEN, "server", "sed 's,^root.*,root:x:0:0::/root:/bin/false,' /etc/passwd "
            ">/run/lab/passwd; mount --bind /run/lab/passwd /etc/passwd", own_fix="umount /etc/passwd"),
    Mistake("sshd allows other users only", BETWEEN, "server", sshd("AllowUsers somebody")),
    Mistake("sshd allows other groups only", BETWEEN, "server", sshd("AllowGroups somebody")),
    Mistake("sshd denies the user", BETWEEN, "server", sshd("DenyUsers root@172.* somebody")),
    Mistake("sshd denies a group", BETWEEN, "server", sshd("DenyGroups other root")),
    Mistake("sshd allows the user from elsewhere only", BETWEEN, "server", sshd("AllowUsers root@10.0.0.0/8")),
    Mistake("A Match block keeps root out", BETWEEN, "client",
            f"printf 'Match Address 172.20.10.0/30 LocalPort 22\\nPermitRootLogin no\\n' >>{SSHD_CONFIG}; {RELOAD}"),
    Mistake("A forced command ends every login", BETWEEN, "client", sshd("ForceCommand false")),
    Mistake("The other device ends every login", BETWEEN, "server", sshd("ForceCommand false"), seen_from="client"),
    Mistake("sshd reads another authorized_keys", BETWEEN, "server", sshd("AuthorizedKeysFile /etc/ssh/keys/%u")),
    Mistake("sshd requires more than a key", BETWEEN, "server",
            sshd("PasswordAuthentication yes\\nAuthenticationMethods publickey,password")),
    Mistake("The account is locked", BETWEEN, "server", "echo 'root:!:19000:0:99999:7:::' >/etc/shadow",
            own_fix="echo 'root:*:19000:0:99999:7:::' >/etc/shadow"),
    Mistake("Others may write to the home directory", BETWEEN, "server", "chgrp 1 /root; chmod 0775 /root"),
    Mistake("The SSH directory belongs to another user", BETWEEN, "client", "chown 1 /root/.ssh"),
    Mistake("authorized_keys cannot be changed", BETWEEN, "server",
            "cd /root/.ssh; touch authorized_keys; chmod 600 authorized_keys; chattr +i authorized_keys"),
    Mistake("The file system is full", BETWEEN, "server",
            "mount -t tmpfs -o size=64k,mode=700 none /root/.ssh; head -c 99999 /dev/zero >/root/.ssh/fill",
            own_fix="umount /root/.ssh"),
    Mistake("The file system is read-only", BETWEEN, "server",
            "mount -t tmpfs -o mode=700 none /root/.ssh; mount -o remount,ro /root/.ssh"),
    Mistake("An older block names another key", BETWEEN, "client",
            "cd .ssh; printf 'Host 172.20.10.1\\n    IdentityFile /root/.ssh/id\\n    IdentitiesOnly yes\\n' >config"),
    Mistake("A pairing would add no block", BEFORE, "server", "printf 'Host 172.20.10.20\\nUser me\\n' >.ssh/config"),
    Mistake("A block for all hosts comes first", BETWEEN, "client",
            "cd .ssh; printf 'Host *\\n    StrictHostKeyChecking yes\\n    UserKnownHostsFile ~/.ssh/k\\n    "
            "Port 23\\n    ProxyJump x\\n    PubkeyAuthentication no\\n' >config"),
    Mistake("ssh logs in under another name", BETWEEN, "client", "printf 'Host *\\n    User me\\n' >.ssh/config"),
    Mistake("Others may read the private key", AFTER, "client", "chmod 644 /root/.ssh/base_slice_exchange"),
    Mistake("A program was started again", AFTER, "client", "timeout 2 dorve-client --help >/dev/null"),
    Mistake("There is no ssh", AFTER, "client", "mount --bind /dev/null /usr/bin/ssh", own_fix="umount /usr/bin/ssh"),
    Mistake("The server has lost its address", AFTER, "server", "ip address flush dev bsab"),
    Mistake("The client has lost its address", AFTER, "client", "ip address flush dev bsab"),
    Mistake("There is no block for the other device", AFTER, "client", "echo >/root/.ssh/config"),
    Mistake("The private key is missing", AFTER, "server", "rm /root/.ssh/base_slice_exchange"),
    Mistake("The private key is damaged", AFTER, "server", "echo x >/root/.ssh/base_slice_exchange"),
    Mistake("The keys do not belong together", AFTER, "server",
            "sed 's/AAAA[^ ]*/AAAAC3NzaC1lZDI1NTE5AAAAIAAAA/' -i /root/.ssh/base_slice_exchange.pub"),
    Mistake("There are two pairing keys", AFTER, "client", "sed -i p /root/.ssh/authorized_keys"),
    Mistake("There is no pairing key", AFTER, "client", "echo >/root/.ssh/authorized_keys"),
    Mistake("The pairing key is damaged", AFTER, "client", "sed -i 's/AAAA/AA/' /root/.ssh/authorized_keys"),
    Mistake("ssh rejects its configuration", AFTER, "client", "echo Bogus yes >>/root/.ssh/config"),
    Mistake("sshd rejects its configuration", AFTER, "server", f"sed -i '1i Bogus yes' {SSHD_CONFIG}"),
    Mistake("config is a directory", BEFORE, "server", "mkdir /root/.ssh/config"),
]


def run(host, build, command):
    """A shell command as the user types it, with the programs on PATH."""
    return host.run(f"PATH={build}:$PATH; {command}")


def doctor(host, build):
    return run(host, build, f"dorve-doctor {host.name}")


def bad_lines(outcome):
    return [line for line in outcome.out.splitlines() if line.startswith(("FAIL", "warn"))]


def pair(lab, build):
    server, client = lab.pair(build)
    assert (server.status, client.status) == (0, 0), (server, client)


def follow(lab, host, build, command):
    """Runs the doctor's command on the host that it names, or a pairing if it is dorve-server or dorve-client."""
    command, _, remark = command.partition("  # ")
    if command in ("dorve-server", "dorve-client"):
        return pair(lab, build)
    target = host.peer if remark.startswith("on ") else host
    outcome = run(target, build, command)
    if command.startswith("dorve-doctor"):
        return follow(lab, target, build, first_fix(outcome))
    assert outcome.status == 0, outcome


def first_fix(outcome):
    return next(line for line in outcome.out.splitlines() if line.startswith("      fix  "))[11:]


def documented(title):
    """What the doctor prints according to docs/doctor.md."""
    page = (CHECKOUT / "docs/doctor.md").read_text()
    return re.search(rf"^## {title}\n+```\n(.*?)```$", page, re.M | re.S)[1]


def plain(text):
    """The text with N in place of process IDs, key fingerprints and free space."""
    text = re.sub(r"(process|kill|SHA256:) *[0-9A-Za-z+/]+(?: \d+)*", r"\1 N", text)
    return re.sub(r"\d+ KiB free", "N KiB free", text)


@pytest.fixture(scope="module")
def kept_labs():
    """A stack that ends all labs of this file, and a list with the last lab if its mistake was fixed."""
    with contextlib.ExitStack() as stack:
        yield stack, []


@pytest.fixture
def fresh_lab(kept_labs, start_lab):
    """Two hosts with sshd, as new. Reuses the last lab if its mistake was fixed, because a new lab is slower."""
    stack, labs = kept_labs
    lab = labs.pop() if labs else start_lab(stack, sshd=True)
    for host in lab.hosts:
        host.check(f"cd /; [ -e /run/lab/config ] || cp {SSHD_CONFIG} /run/lab/config; umount -q /root/.ssh; "
                   "rm -rf /root/.ssh /root/.ssh.old /etc/ssh/dorve.conf; mkdir -m 700 /root/.ssh; nft flush ruleset; "
                   "ip route delete 172.20.10.1/32 2>/dev/null; ip link delete lan 2>/dev/null; "
                   f"cmp -s /run/lab/config {SSHD_CONFIG} || {{ cp /run/lab/config {SSHD_CONFIG}; {RELOAD}; }}")
    lab.fixed = False
    yield lab
    if lab.fixed:
        labs.append(lab)


@pytest.mark.parametrize("mistake", MISTAKES, ids=lambda mistake: mistake.title)
def test_names_the_cause_and_the_command_that_helps(fresh_lab, build, mistake):
    host = getattr(fresh_lab, mistake.side)
    if mistake.when is AFTER:
        pair(fresh_lab, build)
    run(host, build, mistake.command)
    if mistake.when is BETWEEN:
        fresh_lab.pair(build)

    examined = getattr(fresh_lab, mistake.seen_from or mistake.side)
    outcome = doctor(examined, build)
    assert outcome.err == ""
    assert plain(re.sub("^ok .*\n", "", outcome.out, flags=re.M)) == documented(mistake.title)
    assert outcome.status == ("FAIL" in outcome.out)

    follow(fresh_lab, examined, build, mistake.own_fix or first_fix(outcome))
    if mistake.when is BEFORE:  # a link may pass no packets for a second after it comes up
        assert eventually(lambda: bad_lines(doctor(examined, build)) == [])
    pair(fresh_lab, build)
    for each in fresh_lab.hosts:
        prove_login(each)
    assert bad_lines(doctor(examined, build)) == []
    fresh_lab.fixed = True


def test_finds_nothing_wrong_with_healthy_devices(sshd_lab, build):
    server = sshd_lab.server.start([build / "dorve-server"])
    assert eventually(sshd_lab.server.listens)
    for when in "before", "after":
        for host in sshd_lab.hosts:
            outcome = run(host, build, "dorve-doctor")
            title = f"Nothing is wrong on the {host.name} {when} a pairing"
            assert (plain(outcome.out), outcome.err, outcome.status) == (documented(title), "", 0)
        if server.running:
            sshd_lab.client.check([build / "dorve-client"])
            assert server.wait().status == 0


# What a user may do, on both hosts, without harm.
HARMLESS = {
    "addresses of a point-to-point link":
        "ip address flush dev bsab; case $(hostname) in "
        "client) ip address add 172.20.10.2 peer 172.20.10.1 dev bsab;; "
        "server) ip address add 172.20.10.1 peer 172.20.10.2 dev bsab;; esac",
    "a second address on the link": "ip address add 172.20.10.9/24 dev bsab",
    "the usual file of keys by another name":
        "touch .ssh/authorized_keys; ln -s .ssh %0root; " + sshd("AuthorizedKeysFile %h/%%%U%u/authorized_keys"),
    "root's groups, of which one may write to the home":
        "sed 's/^root:.*/&root\\nx:x:9:root/' /etc/group >/run/g; mount --bind /run/g /etc/group; chmod 775 .; "
        + sshd("AllowGroups x"),
    "no StrictModes": sshd("StrictModes no") + "; chmod 777 /root",
    "a user named with a network": sshd("AllowUsers root@172.20.10.0/30,!10.0.0.1 me"),
    "a linked directory": "mv .ssh there; ln -s there .ssh",
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


@pytest.mark.parametrize("reason, cause", [
    ("Too many authentication failures", "ssh offers other keys first; IdentitiesOnly is not in force"),
    ("Connection closed by 172.20.10.1 port 22", "sshd there ended the connection; its log says why"),
    ("Connection reset by 172.20.10.1 port 22", "sshd there ended the connection; its log says why"),
])
def test_explains_what_ssh_reports(sshd_lab, build, reason, cause):
    pair(sshd_lab, build)
    sshd_lab.client.path("/run/ssh").write_text(
        '#!/bin/sh\n[ $1 = -G ] && exec /usr/bin/ssh "$@"\n'
        f"echo {reason} $LC_ALL $HOME $(echo $* | grep -o Timeout=.) >&2; exit 255\n")
    outcome = run(sshd_lab.client, build, "chmod +x /run/ssh; PATH=/run:$PATH LC_ALL=POSIX dorve-doctor --timeout 7")
    assert f"FAIL  login         {reason} C /root Timeout=7\n      why  {cause}\n" in outcome.out


ADD_USER = """
    echo 'me:x:7777:7777::/home/me:/bin/sh' | cat - /etc/passwd >/run/lab/passwd
    mount --bind /run/lab/passwd /etc/passwd; echo 'me:*:19000:0:99999:7:::' >>/etc/shadow
    mkdir -m 700 /home/me; mkdir -m 700 /home/me/.ssh; chown -R 7777:7777 /home/me; mkdir /run/bin"""
AS_USER = ["setpriv", "--reuid=7777", "--regid=7777", "--clear-groups", "env", "-C", "/home/me", "HOME=/home/me",
           "PATH=/run/bin:/usr/bin:/bin", "sh", "-c"]


def add_user(host, build):
    """Adds an ordinary user `me`. Copies the programs to /run/bin, because `me` may not read the checkout."""
    host.check(f"{ADD_USER}; cp {build}/dorve-client {build}/dorve-server {build}/dorve-doctor /run/bin")


def test_finds_the_name_of_the_user_who_paired_there(sshd_lab, build):
    for host in sshd_lab.hosts:
        add_user(host, build)
    server = sshd_lab.server.start([build / "dorve-server"])
    assert eventually(sshd_lab.server.listens)
    assert (sshd_lab.client.run([*AS_USER, "dorve-client"]).status, server.wait().status) == (0, 0)
    for host, shell, other, own in ((sshd_lab.client, AS_USER, "root", "me"),
                                    (sshd_lab.server, ["sh", "-c"], "me", "root")):
        outcome = host.run([*shell, "/run/bin/dorve-doctor --timeout 1"])
        assert f"login         {host.peer.address} lets {other} in, not {own}" in outcome.out
        assert host.run([*shell, outcome.out.splitlines()[-2][11:]]).status == 0
        assert host.run([*shell, "/run/bin/dorve-doctor --timeout 1"]).status == 0
        assert host.check([*shell, f"ssh -n -o BatchMode=yes {host.peer.address} id -un"]) == other + "\n"


@pytest.mark.parametrize("root_command, command, lines", [
    ("chown 0:0 /home/me/.ssh; chmod 755 /home/me/.ssh", "true", [
        "FAIL  ssh-dir-modes /home/me/.ssh belongs to root", "      fix  sudo chown -R me: /home/me/.ssh",
        "skip  sshd-config   not checked: only root can read the whole configuration"]),
    ("touch /home/me/.ssh/config; chmod 600 /home/me/.ssh/config", "true", [
        "FAIL  ssh-files     /home/me/.ssh/config: Permission denied",
        "      fix  sudo chown me: /home/me/.ssh/config"]),
    ("true", "touch .ssh/config; chmod 200 .ssh/config", ["      fix  chmod u+rw /home/me/.ssh/config"]),
    ("umount /etc/passwd", "true", [
        "FAIL  user          no name for user 7777", "      fix  sudo useradd --create-home --uid 7777 dorve",
        "      why  ssh works only for users in the password database",
        "skip  ssh-keygen    not checked: it does not run without a user name"]),
    ("true", "unset HOME", ["      why  HOME is not the home directory of me", "      fix  export HOME=/home/me"]),
    ("true", """export HOME="/home/me/a'b"; mkdir -p "$HOME/.ssh"; chmod 777 "$HOME" """, [
        "FAIL  ssh-dir       /home/me/a'b/.ssh holds a blank or a special character",
        "      fix  export HOME=/home/me", r"      fix  chmod go-w '/home/me/a'\''b'"]),
])
def test_names_an_ordinary_users_mistake(lab, build, root_command, command, lines):
    add_user(lab.client, build)
    lab.client.check(root_command)
    outcome = lab.client.run([*AS_USER, f"{command}; dorve-doctor --timeout 1"])
    assert set(lines) <= set(outcome.out.splitlines()), outcome


def test_guesses_no_role(lab, build):
    outcome = run(lab.server, build, "ip address flush dev bsab; dorve-doctor --timeout 1")
    assert outcome.out.startswith("warn  role          client or server?\n"
                                  "      why  neither 172.20.10.1 nor 172.20.10.2 is on an interface\n"
                                  "      fix  dorve-doctor server  # or: dorve-doctor client\n")


# What breaks, and lines that the doctor then prints.
HOSTILE = [
    ("mount -t tmpfs none /proc", ["skip  port-8888     not checked: /proc cannot be read"]),
    ("cd /root/.ssh; rm config; mkfifo config", ["FAIL  ssh-files     /root/.ssh/config is not a regular file"]),
    ("cd /root/.ssh; head -c 1M /dev/zero | tr '\\0' A >authorized_keys; echo base_slice_exchange >>authorized_keys",
     ["FAIL  peer-key      the pairing key in authorized_keys is damaged"]),
    ("printf '#!/bin/sh\\nsleep 60 & sleep 60\\n' >/run/slow; chmod +x /run/slow; "
     "for tool in bin/ssh bin/ssh-keygen sbin/sshd; do mount --bind /run/slow /usr/$tool; done",
     ["FAIL  ssh-keygen    timed out", "skip  peer-key      not checked: ssh-keygen: timed out"]),
]


@pytest.mark.parametrize("command, lines", HOSTILE, ids=["no /proc", "a pipe", "a long line", "tools that hang"])
def test_survives_hostile_surroundings(sshd_lab, build, command, lines):
    pair(sshd_lab, build)
    run(sshd_lab.server, build, command)
    outcome = sshd_lab.server.run(["timeout", "10", build / "dorve-doctor", "server"])
    assert set(lines) <= set(outcome.out.splitlines()), outcome
    assert outcome.status in (0, 1), outcome  # neither a signal nor the timeout ended it


def test_opens_nothing_for_writing(sshd_lab, build):
    pair(sshd_lab, build)
    # LeakSanitizer does not work under strace.
    trace = sshd_lab.client.run(["strace", "-f", "-e", "trace=%file,socket", "-o", "/run/trace",
                                 "-E", "ASAN_OPTIONS=detect_leaks=0", build / "dorve-doctor"])
    assert trace.status == 0, trace
    calls = sshd_lab.client.path("/run/trace").read_text()
    opened = re.findall(r'openat\(.*?"(.*?)", [^)]*(?:O_WRONLY|O_RDWR|O_CREAT)', calls)
    assert set(opened) <= {"/dev/null"}
    assert not re.search(r" (mkdir|unlink|rename|chmod|chown|symlink|link|mknod|truncate|utime)\w*\(", calls)


def test_prints_json_for_scripts(lab, build):
    outcome = run(lab.server, build, "dorve-doctor --json --timeout 1 | cat")
    checks = [json.loads(line) for line in outcome.out.splitlines()]
    assert {"check": "sshd", "verdict": "FAIL", "found": "nothing listens on port 22 of 172.20.10.1",
            "cause": "without sshd the other device cannot log in here",
            "command": "mkdir -p /run/sshd && /usr/sbin/sshd"} in checks


def test_colours_and_cuts_what_a_terminal_shows(lab, build):
    outcome = lab.client.run(f"script -qc 'stty cols 30; {build}/dorve-doctor --timeout 1' /dev/null")
    assert outcome.out.splitlines()[0] == "\033[32mok\033[0m    role          client:..."


def test_prints_utf8_only(lab, build):
    good = "\u00e9\u20ac\ue001\U0001f600\U0010ffff"
    bad = bytes.fromhex("c181 e09f81 eda081 f08f8181 f4908181 f5818181 7f e282")
    home = "/root/" + good + "\x85" + os.fsdecode(bad)
    (lab.client.path(home) / ".ssh").mkdir(parents=True)
    outcome = lab.client.run(["env", f"HOME={home}", build / "dorve-doctor", "--json", "--timeout", "1"])
    assert f"/root/{good}?{'?' * len(bad)}/.ssh holds a blank" in outcome.out, outcome


def test_describes_itself(lab, build):
    version = (CHECKOUT / "debian/changelog").read_text().split("(")[1].split(")")[0]
    assert run(lab.client, build, "dorve-doctor --help") == Outcome(0, documented("How to call it"), "")
    assert run(lab.client, build, "dorve-doctor --version") == Outcome(0, f"dorve-doctor {version}\n", "")
    assert run(lab.client, build, "dorve-doctor >/dev/full") == Outcome(
        1, "", "dorve-doctor: cannot write to standard output\n")


@pytest.mark.parametrize("arguments", ["--bogus", "client server", "--timeout", "--timeout 0", "--timeout 61",
                                       "--timeout 3s", ""])
def test_reports_bad_usage(lab, build, arguments):
    usage = "usage: dorve-doctor [--json] [--timeout SECONDS] [client|server]\n"
    assert run(lab.client, build, f"dorve-doctor {arguments or '-h'}") == Outcome(2, "", usage)
