# SPDX-License-Identifier: MIT
"""dorve-doctor on the right side of each mistake: it names the cause first, and the command that it prints helps."""

import json
import re

import pytest

from lab import eventually, prove_login

SSHD_CONFIG = "/etc/ssh/sshd_config"
RELOAD = "pkill -HUP -o -x sshd; sleep 0.2"
BEFORE, BETWEEN, AFTER = "before a pairing", "before a pairing, seen after it", "after a pairing"


def sshd(line):
    """Changes sshd's configuration, as a user does."""
    return f"sed -i '1i {line}' {SSHD_CONFIG}; {RELOAD}"


def drop(rule):
    return ("nft add table inet filter && nft add chain inet filter input '{ type filter hook input priority 0; }' && "
            f"nft add rule inet filter input {rule}")


# The mistake: when, on which side, by what command; then the line that the doctor prints first, and, where the
# printed command cannot work in the lab, one that does the same.
MISTAKES = [
    ("no SSH directory", BEFORE, "client", "rmdir /root/.ssh",
     "ssh-dir       none: /root/.ssh (missing), /home/root/.ssh (missing)"),
    ("a file in place of the SSH directory", BEFORE, "server", "rmdir /root/.ssh; touch /root/.ssh",
     "ssh-dir       none: /root/.ssh (no directory), /home/root/.ssh (missing)"),
    ("ssh-keygen missing", BEFORE, "client", "mount --bind /dev/null /usr/bin/ssh-keygen",
     "ssh-keygen    not found", "umount /usr/bin/ssh-keygen"),
    ("the interface has another name", BEFORE, "client",
     "ip link set bsab down; ip link set bsab name eth1; ip link set eth1 up",
     "interface     none is called bsab; there is eth1 (up)"),
    ("no address on the server", BEFORE, "server", "ip address flush dev bsab",
     "address       172.20.10.1 is on no interface"),
    ("no address on the client", BEFORE, "client", "ip address flush dev bsab",
     "address       172.20.10.2 is on no interface"),
    ("the address on another interface", BEFORE, "client",
     "ip address flush dev bsab; ip link add other type veth peer name end; ip link set other up; "
     "ip address add 172.20.10.2/30 dev other", "address       172.20.10.2/30 is on other, not on bsab"),
    ("the address without its network", BEFORE, "client",
     "ip address flush dev bsab; ip address add 172.20.10.2/32 dev bsab", "address       172.20.10.2/32 is on bsab"),
    ("the link down on the client", BEFORE, "client", "ip link set bsab down", "interface     bsab is down"),
    ("the other end of the link down", BEFORE, "client", "ip link set bsab down", "interface     bsab is up, no carrier"),
    ("port 8888 taken", BEFORE, "server",
     "setsid /usr/bin/python3 -c 'import socket, time; s = socket.create_server((\"\", 8888)); time.sleep(99)' "
     "</dev/null >/dev/null 2>&1 & sleep 0.3", "port-8888     held by python3 (process N)"),
    ("two dorve-server at once", BEFORE, "server",
     "setsid dorve-server >/dev/null 2>&1 & setsid dorve-server >/dev/null 2>&1 & sleep 0.3",
     "programs      dorve-server runs 2 times"),
    ("the server not there", BEFORE, "client", "true", "peer-8888     no dorve-server waits on 172.20.10.1"),
    ("a firewall that drops 8888", BEFORE, "server", drop("tcp dport 8888 drop"),
     "peer-8888     port 8888 of 172.20.10.1 does not answer"),
    ("a firewall that rejects 8888", BEFORE, "server", drop("tcp dport 8888 reject with icmp type host-prohibited"),
     "peer-8888     port 8888 of 172.20.10.1 is rejected"),
    ("a firewall that drops 22", BETWEEN, "server", drop("tcp dport 22 drop"),
     "peer-22       port 22 of 172.20.10.1 does not answer"),
    ("sshd not running", BETWEEN, "client", "kill $(cat /run/sshd.pid); sleep 0.2",
     "sshd          nothing listens on port 22 of 172.20.10.2"),
    ("sshd not running over there", BETWEEN, "server", "kill $(cat /run/sshd.pid); sleep 0.2",
     "sshd          nothing listens on port 22 of 172.20.10.1"),
    ("sshd on another port", BETWEEN, "server", sshd("Port 2222"),
     "sshd          sshd listens on port 2222, not on port 22 of 172.20.10.1"),
    ("PermitRootLogin no", BETWEEN, "server", sshd("PermitRootLogin no"), "sshd-config   PermitRootLogin no"),
    ("PubkeyAuthentication no", BETWEEN, "client", sshd("PubkeyAuthentication no"),
     "sshd-config   PubkeyAuthentication no"),
    ("AllowUsers", BETWEEN, "server", sshd("AllowUsers somebody"), "sshd-config   AllowUsers does not name root"),
    ("DenyUsers", BETWEEN, "server", sshd("DenyUsers root@172.*"), "sshd-config   DenyUsers keeps root out"),
    ("AuthorizedKeysFile", BETWEEN, "server", sshd("AuthorizedKeysFile /etc/ssh/keys/%u"),
     "sshd-config   AuthorizedKeysFile /etc/ssh/keys/%u"),
    ("a locked account", BETWEEN, "server", "echo 'root:!:19000:0:99999:7:::' >/etc/shadow",
     "sshd-config   the account root is locked", "echo 'root:*:19000:0:99999:7:::' >/etc/shadow"),
    ("the home directory writable by others", BETWEEN, "server", "chmod 0777 /root",
     "ssh-dir-modes /root may be written by others (mode 0777)"),
    ("the SSH directory of another user", BETWEEN, "client", "chown 1 /root/.ssh",
     "ssh-dir-modes /root/.ssh belongs to daemon, not to root"),
    ("authorized_keys immutable", BETWEEN, "server", "touch /root/.ssh/authorized_keys; "
     "chmod 600 /root/.ssh/authorized_keys; chattr +i /root/.ssh/authorized_keys",
     "ssh-files     /root/.ssh/authorized_keys cannot be changed (chattr +i)"),
    ("the file system full", BETWEEN, "server", "mount -t tmpfs -o size=64k,mode=700 none /root/.ssh; "
     "head -c 99999 /dev/zero >/root/.ssh/fill", "ssh-dir-space the file system of /root/.ssh is full",
     "umount /root/.ssh"),
    ("the file system read-only", BETWEEN, "server", "mount -t tmpfs -o mode=700 none /root/.ssh; "
     "mount -o remount,ro /root/.ssh", "ssh-dir-space the file system of /root/.ssh is read-only"),
    ("an older block for the same host", BETWEEN, "client",
     "printf 'Host 172.20.10.1\\n    IdentityFile /root/.ssh/id\\n    IdentitiesOnly yes\\n' >/root/.ssh/config",
     "ssh-config    for 172.20.10.1 ssh uses IdentityFile /root/.ssh/id"),
    ("strict checking for all hosts first", BETWEEN, "client",
     "printf 'Host *\\n    StrictHostKeyChecking yes\\n    UserKnownHostsFile ~/.ssh/known\\n' >/root/.ssh/config",
     "ssh-config    for 172.20.10.1 ssh uses StrictHostKeyChecking true"),
    ("a key file that others may read", AFTER, "client", "chmod 644 /root/.ssh/base_slice_exchange",
     "key-pair      others may read /root/.ssh/base_slice_exchange"),
    ("the client run for its help", AFTER, "client", "timeout 1 dorve-client --help >/dev/null",
     "key-pair      the key is newer than the pairing"),
]


def run(host, build, command):
    """A shell command as the user types it, with the programs on PATH."""
    return host.run(f"PATH={build}:$PATH; {command}")


def doctor(host, build):
    return run(host, build, f"dorve-doctor --timeout 1 {host.name}")


def bad_lines(outcome):
    return [line for line in outcome.out.splitlines() if line.startswith(("FAIL", "warn"))]


def pair(lab, build):
    server, client = lab.pair(build)
    assert (server.status, client.status) == (0, 0), (server, client)


def follow(lab, host, build, command):
    """Does what the doctor says: here, on the other device, or both programs for a pairing."""
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


@pytest.mark.parametrize("mistake", MISTAKES, ids=lambda mistake: mistake[0])
def test_names_the_cause_and_the_command_that_helps(sshd_lab, build, mistake):
    _, when, side, command, line, *own_fix = mistake
    host = getattr(sshd_lab, side)
    if when is AFTER:
        pair(sshd_lab, build)
    run(host.peer if "other end" in mistake[0] else host, build, command)
    if when is BETWEEN:
        sshd_lab.pair(build)

    examined = host.peer if line.startswith("peer-") and side == "server" else host
    outcome = doctor(examined, build)
    lines = outcome.out.splitlines()
    first = next(number for number, text in enumerate(lines) if not text.startswith("ok "))
    assert re.sub(r"process \d+", "process N", lines[first][6:]) == line, outcome
    assert lines[first + 1].startswith("      why  "), outcome
    assert lines[first + 2].startswith("      fix  "), outcome
    assert outcome.err == ""

    follow(sshd_lab, examined, build, own_fix[0] if own_fix else lines[first + 2][11:])
    for each in sshd_lab.hosts:
        if when is BEFORE:
            assert bad_lines(doctor(each, build)) == []
    pair(sshd_lab, build)
    for each in sshd_lab.hosts:
        prove_login(each)
        outcome = doctor(each, build)
        assert bad_lines(outcome) == [] and outcome.status == 0, outcome


def test_tells_that_a_second_server_has_replaced_the_key(sshd_lab, build):
    key = sshd_lab.server.ssh / "base_slice_exchange.pub"
    first = sshd_lab.server.start([build / "dorve-server"])
    assert eventually(sshd_lab.server.listens)
    first_key = key.read_text()
    second = sshd_lab.server.start([build / "dorve-server"])
    assert eventually(lambda: key.exists() and key.read_text() not in ("", first_key))
    assert (sshd_lab.client.run([build / "dorve-client"]).status, first.wait().status) == (0, 0)
    assert eventually(sshd_lab.server.listens)

    outcome = doctor(sshd_lab.server, build)
    assert bad_lines(outcome) == ["FAIL  login         172.20.10.2 refuses the key for root"]
    assert first_fix(outcome) == "dorve-client  # on 172.20.10.2"
    assert (run(sshd_lab.client, build, "dorve-client").status, second.wait().status) == (0, 0)
    prove_login(sshd_lab.server)


ADD_USER = """
    echo 'me:x:7777:7777::/home/me:/bin/sh' | cat - /etc/passwd >/run/lab/passwd
    mount --bind /run/lab/passwd /etc/passwd; echo 'me:*:19000:0:99999:7:::' >>/etc/shadow
    mkdir -m 700 /home/me; mkdir -m 700 /home/me/.ssh; chown -R 7777:7777 /home/me; mkdir /run/bin"""
AS_USER = ["setpriv", "--reuid=7777", "--regid=7777", "--clear-groups", "env", "-C", "/home/me", "HOME=/home/me",
           "PATH=/run/bin:/usr/bin:/bin", "sh", "-c"]


def add_user(host, build):
    """An ordinary user `me` of the host, who can reach the programs wherever the checkout is."""
    host.check(f"{ADD_USER}; cp {build}/dorve-client {build}/dorve-server {build}/dorve-doctor /run/bin")


def test_finds_the_name_of_the_user_who_paired_there(sshd_lab, build):
    for host in sshd_lab.hosts:
        add_user(host, build)
    server = sshd_lab.server.start([build / "dorve-server"])
    assert eventually(sshd_lab.server.listens)
    assert sshd_lab.client.run([*AS_USER, "dorve-client"]).status == 0
    assert server.wait().status == 0
    for host, shell, other, own in ((sshd_lab.client, AS_USER, "root", "me"),
                                    (sshd_lab.server, ["sh", "-c"], "me", "root")):
        outcome = host.run([*shell, "/run/bin/dorve-doctor --timeout 1"])
        assert f"login         {host.peer.address} lets {other} in, not {own}" in outcome.out
        assert host.run([*shell, outcome.out.splitlines()[-2][11:]]).status == 0
        assert host.run([*shell, "/run/bin/dorve-doctor --timeout 1"]).status == 0
        assert host.check([*shell, f"ssh -n -o BatchMode=yes {host.peer.address} id -un"]) == other + "\n"


def test_tells_an_ordinary_user_about_a_directory_of_root(lab, build):
    add_user(lab.client, build)
    lab.client.check("chown 0:0 /home/me/.ssh; chmod 755 /home/me/.ssh")
    outcome = lab.client.run([*AS_USER, "dorve-doctor --timeout 1"])
    assert "FAIL  ssh-dir-modes /home/me/.ssh belongs to root\n" in outcome.out
    assert "      fix  sudo chown -R me: /home/me/.ssh\n" in outcome.out
    assert "skip  sshd-config   not checked: only root can read the whole configuration\n" in outcome.out


def test_tells_of_a_blank_in_the_path(lab, build):
    outcome = run(lab.client, build, "mkdir -p '/root/my home/.ssh'; HOME='/root/my home' dorve-doctor --timeout 1")
    assert "FAIL  ssh-dir       /root/my home/.ssh holds a blank or a special character\n" in outcome.out
    assert "      fix  export HOME=/root\n" in outcome.out


# What breaks, and a line that the doctor then prints.
HOSTILE = [
    ("mount -t tmpfs none /proc", "skip  port-8888     not checked: /proc does not tell"),
    ("head -c 1000000 /dev/zero | tr '\\0' 'A' >/root/.ssh/authorized_keys; "
     "echo base_slice_exchange >>/root/.ssh/authorized_keys",
     "FAIL  peer-key      the pairing key in authorized_keys is damaged"),
    ("echo Bogus yes >/root/.ssh/config", "      fix  sed -i '1s/^/#/' /root/.ssh/config"),
    (sshd("Bogus yes"), "      fix  sed -i '1s/^/#/' /etc/ssh/sshd_config"),
    ("rm /root/.ssh/base_slice_exchange", "FAIL  key-pair      /root/.ssh/base_slice_exchange is missing"),
    ("echo x >/root/.ssh/base_slice_exchange", "FAIL  key-pair      the private key is damaged"),
    ("sed -i p /root/.ssh/authorized_keys", "FAIL  peer-key      authorized_keys holds 2 pairing keys"),
    ("rm -f /root/.ssh/config; mkdir /root/.ssh/config", "FAIL  ssh-files     /root/.ssh/config is no regular file"),
    ("printf '#!/bin/sh\\nsleep 60 & sleep 60\\n' >/run/slow; chmod +x /run/slow; "
     "for tool in ssh ssh-keygen; do mount --bind /run/slow /usr/bin/$tool; done; "
     "mount --bind /run/slow /usr/sbin/sshd", "FAIL  ssh-keygen    no end in time"),
]


@pytest.mark.parametrize("command, line", HOSTILE)
def test_survives_hostile_surroundings(sshd_lab, build, command, line):
    pair(sshd_lab, build)
    run(sshd_lab.server, build, command)
    outcome = sshd_lab.server.run(["timeout", "10", build / "dorve-doctor", "server"])
    assert line in outcome.out.splitlines(), outcome
    assert (outcome.status, outcome.err) == (1 if "FAIL" in outcome.out else 0, "")


def test_opens_nothing_for_writing(sshd_lab, build):
    pair(sshd_lab, build)
    trace = sshd_lab.client.run(["strace", "-f", "-e", "trace=%file,socket", "-o", "/run/trace",
                                 build / "dorve-doctor"])
    assert trace.status == 0, trace
    calls = sshd_lab.client.path("/run/trace").read_text()
    opened = re.findall(r'openat\(.*?"(.*?)", [^)]*(?:O_WRONLY|O_RDWR|O_CREAT)', calls)
    assert set(opened) <= {"/dev/null"}
    assert not re.search(r" (mkdir|unlink|rename|chmod|chown|symlink|link|mknod|truncate|utime)\w*\(", calls)


def test_prints_json_for_scripts(lab, build):
    outcome = run(lab.server, build, "dorve-doctor --json --timeout 1 | cat")
    checks = [json.loads(line) for line in outcome.out.splitlines()]
    assert checks[0] == {"check": "role", "verdict": "ok", "found": "server: bsab has 172.20.10.1", "cause": "",
                         "command": ""}
    assert {"check": "sshd", "verdict": "FAIL", "found": "nothing listens on port 22 of 172.20.10.1",
            "cause": "without sshd the other device cannot log in here",
            "command": "mkdir -p /run/sshd && /usr/sbin/sshd"} in checks


@pytest.mark.parametrize("arguments", ["--bogus", "client server", "--timeout", "--timeout 0", "--timeout 61",
                                       "--timeout 3s", ""])
def test_reports_bad_usage(lab, build, arguments):
    outcome = run(lab.client, build, f"dorve-doctor {arguments or '-h'}")
    assert (outcome.status, outcome.out) == (2, "")
    assert outcome.err == "usage: dorve-doctor [--json] [--timeout SECONDS] [client|server]\n"
