# SPDX-License-Identifier: MIT
"""Pairs two hosts with both programs. Checks the output, the SSH files and the logins of both hosts."""

from lab import CHECKOUT, Outcome, prove_login

FOREIGN_KEYS = "# mine\n\nssh-rsa AAAA me@home\nno-pty ssh-rsa BBBB"
FOREIGN_CONFIG = "Host elsewhere\n    User me"


def test_a_pairing_lets_both_hosts_log_in_and_keeps_foreign_lines(sshd_lab, build):
    for host in sshd_lab.hosts:
        (host.ssh / "authorized_keys").write_text(FOREIGN_KEYS)
        (host.ssh / "config").write_text(FOREIGN_CONFIG)
        assert host.run(f"ssh -o BatchMode=yes {host.peer.address} hostname").status == 255

    for _ in ("first pairing", "repeated pairing"):
        server, client = sshd_lab.pair(build)
        assert client == Outcome(0, (CHECKOUT / "docs/client-run.txt").read_text(), "")
        assert server == Outcome(0, "Starting DORVE Server (Base) v1.0\nServer completed successfully\n", "")
        for host in sshd_lab.hosts:
            key = (host.peer.ssh / "base_slice_exchange.pub").read_text()
            assert (host.ssh / "authorized_keys").read_text() == (
                f"# mine\nssh-rsa AAAA me@home\nno-pty ssh-rsa BBBB\n\n{key}")
            assert (host.ssh / "config").read_text() == (
                f"{FOREIGN_CONFIG}\nHost {host.peer.address}\n    IdentityFile /root/.ssh/base_slice_exchange\n"
                "    IdentitiesOnly yes\n    StrictHostKeyChecking no\n    UserKnownHostsFile /dev/null\n")
            modes = {file.name: file.stat().st_mode & 0o777 for file in host.ssh.iterdir()}
            assert modes == {"authorized_keys": 0o600, "config": 0o600, "base_slice_exchange": 0o600,
                             "base_slice_exchange.pub": 0o644}
            assert prove_login(host) == host.peer.name
