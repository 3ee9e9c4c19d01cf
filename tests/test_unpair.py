# SPDX-License-Identifier: MIT
"""Undoes pairings with dorve-unpair. Checks its output, the SSH files and the logins."""

import pytest

from lab import Outcome

KEY = "base_slice_exchange"
REMOVED = ["line {} of /root/.ssh/authorized_keys", "lines {} to {} of /root/.ssh/config", f"/root/.ssh/{KEY}",
           f"/root/.ssh/{KEY}.pub"]
PEER = ("The other device still has its half of the pairing. Run dorve-unpair there too, as the user who paired it.\n")
NOTHING = Outcome(0, "Nothing of a pairing is left in /root/.ssh.\n", "")


def block(host):
    """The block of the host's config. It begins in line 2 of the file."""
    return (f"\nHost {host.peer.address}\n    IdentityFile /root/.ssh/{KEY}\n    IdentitiesOnly yes\n"
            "    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n")


def listed(word, *lines):
    return "".join(f"{word} {line}\n" for line in REMOVED).format(*lines) + PEER


def state(host):
    """The bytes, the mode and the time of the last change of each SSH file."""
    return {file.name: (file.read_bytes(), file.stat().st_mode, file.stat().st_ctime_ns) for file in host.ssh.iterdir()}


@pytest.fixture
def paired(shared_lab, build):
    """A host with the files of a pairing, and a function that runs dorve-unpair there."""
    host = shared_lab.client
    host.check("rm -rf /root/.ssh && mkdir -m 700 /root/.ssh")
    (host.ssh / "authorized_keys").write_text(f"A\n\nssh-ed25519 K {KEY}\n")
    (host.ssh / "config").write_text(block(host))
    for name in (KEY, f"{KEY}.pub"):
        (host.ssh / name).write_text("key")
    return host, lambda arguments="", before="": host.run(f"{before} {build}/dorve-unpair {arguments}")


def test_an_unpaired_device_has_its_old_files_and_no_login(sshd_lab, build):
    before = {"authorized_keys": "# mine\nssh-rsa AAAA me@home\n", "config": "Host elsewhere\n    User me"}
    for host in sshd_lab.hosts:
        for name, text in before.items():
            (host.ssh / name).write_text(text)
    sshd_lab.pair(build)
    sshd_lab.pair(build)
    client = sshd_lab.client

    paired = state(client)
    would = client.run([build / "dorve-unpair", "--dry-run"])
    assert would == Outcome(1, listed("Would remove", 4, 3, 7), "")
    assert state(client) == paired
    assert client.run([build / "dorve-unpair"]) == Outcome(0, listed("Removed", 4, 3, 7), "")
    after = {file.name: file.read_text() for file in client.ssh.iterdir()}
    assert after == before | {"authorized_keys": before["authorized_keys"] + "\n"}
    for host in sshd_lab.hosts:
        assert host.run(f"ssh -o BatchMode=yes -o StrictHostKeyChecking=no {host.peer.address} true").status == 255
    unpaired = state(client)
    assert client.run([build / "dorve-unpair"]) == client.run([build / "dorve-unpair", "--dry-run"]) == NOTHING
    assert state(client) == unpaired

    assert sshd_lab.server.run([build / "dorve-unpair"]) == Outcome(0, listed("Removed", 4, 3, 7), "")
    assert {file.name: file.read_text() for file in sshd_lab.server.ssh.iterdir()} == after


def test_a_changed_block_stays_and_is_named(paired):
    host, unpair = paired
    config = host.ssh / "config"
    changed = block(host).replace("no\n", "no\n    User bob\n")
    config.write_text(f"{block(host)}{changed}\nHost b\n")
    stays = ("dorve-unpair: kept lines {} to {} of /root/.ssh/config: "
             "somebody changed this block, so remove it by hand\n")
    assert unpair("--dry-run") == Outcome(1, listed("Would remove", 3, 2, 6), stays.format(8, 13))
    assert unpair() == Outcome(1, listed("Removed", 3, 2, 6), stays.format(2, 7))
    assert config.read_text() == f"{changed}\nHost b\n"
    assert unpair() == Outcome(1, "", stays.format(2, 7))
    config.write_text("Host b\n")
    assert unpair() == NOTHING


@pytest.mark.parametrize("inject, kept", [
    ("-e inject=pwrite64:error=ENOSPC:when=1", "line 3 of /root/.ssh/authorized_keys: cannot be written: No space"),
    ("-P /root/.ssh/config -e inject=openat:error=EACCES", "/root/.ssh/config: cannot be read: Permission denied"),
    ("-P /root/.ssh/config -e inject=openat:error=EPERM:when=2", "lines 2 to 6 of /root/.ssh/config: cannot be w"),
    (f"-P /root/.ssh/{KEY} -e inject=unlink:error=EPERM", f"/root/.ssh/{KEY}: cannot be removed: Operation not"),
])
def test_what_cannot_be_removed_is_named_and_the_rest_goes(paired, inject, kept):
    host, unpair = paired
    before = {file.name: file.read_text() for file in host.ssh.iterdir()}
    outcome = unpair(before=f"strace -qqq -o /dev/null -E ASAN_OPTIONS=detect_leaks=0 {inject}")
    assert outcome.status == 1
    assert outcome.err.startswith(f"dorve-unpair: kept {kept}") and outcome.err.count("\n") == 1, outcome
    assert outcome.out.count("Removed") == 3
    after = {"authorized_keys": "A\n\n", "config": ""}
    name = kept.split("/")[3].split(":")[0]
    assert {file.name: file.read_text() for file in host.ssh.iterdir()} == after | {name: before[name]}
    assert unpair().status == 0
    assert {file.name: file.read_text() for file in host.ssh.iterdir()} == after


def test_the_directory_is_that_of_the_programs(paired):
    host, unpair = paired
    host.check("mkdir -p '/home/a\tb/.ssh' && : >'/home/a\tb/.ssh/" + KEY + "'")
    found = "Removed /home/a?b/.ssh/base_slice_exchange\n" + PEER
    assert unpair(before="HOME='/home/a\tb'") == Outcome(0, found, "")
    assert unpair(before="HOME=/none", arguments=">/dev/full") == Outcome(
        1, "", "dorve-unpair: cannot write to standard output\n")
    assert unpair() == NOTHING
    host.check("rm -r /root/.ssh")
    assert unpair() == Outcome(0, "Nothing of a pairing is left: this user has no SSH directory.\n", "")
