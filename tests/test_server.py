# SPDX-License-Identifier: MIT
"""The server program against a scripted client: its responses, what it installs, and how it ends."""

import re
import socket
import time

import pytest
import wire
from lab import Outcome, eventually

STARTED = "Starting DORVE Server (Base) v1.0\n"
COMPLETED = STARTED + "Server completed successfully\n"


@pytest.fixture
def server(lab, build):
    """A server that listens."""
    lab.server.ssh.chmod(0o775)  # sshd ignores keys in a group-writable directory
    server = lab.server.start([build / "dorve-server"])
    eventually(lambda: lab.server.listens() or not server.running)
    if not lab.server.listens():
        pytest.fail(f"the server did not come up: {server.kill()}")
    return server


@pytest.fixture
def connection(lab, server):
    """A client's connection to the server."""
    with lab.client.connect("172.20.10.1") as connection:
        yield connection


@pytest.fixture
def ask(connection):
    """Sends a message, or builds it from a record's name and fields, and returns the response."""
    def request(message, **fields):
        connection.sendall(wire.build(message, **fields) if isinstance(message, str) else message)
        response = wire.receive(connection)
        assert response, "the server closed the connection"
        return response
    return request


def check(response, record, **fields):
    """Checks every byte of a response. Its timestamp must be about now."""
    got = wire.read(response)
    assert got == wire.read(wire.build(record, timestamp=got["timestamp"], **fields))
    assert abs(got["timestamp"] / 1e6 - time.time()) < 10


def test_responds_to_each_request_in_any_order(lab, server, ask):
    ssh = lab.server.ssh
    check(ask("VersionQuery", request_id="a", supported_versions=" 2.0,\t1.0 "), "VersionResponse", request_id="a",
          server_version="1.0", selected_version="1.0", message="Version 1.0 selected successfully")
    check(ask("VersionQuery", request_id="b", supported_versions="2.0"), "VersionResponse", request_id="b",
          server_version="1.0", error_code=1, message="No compatible version. Server supports: 1.0")
    check(ask("VerifyKeysRequest", request_id="c"), "VerifyKeysResponse", request_id="c", status="VERIFIED")

    completed = {"status": "COMPLETED", "install_status": "COMPLETED"}
    check(ask("InstallKeysRequest", request_id="d"), "InstallKeysResponse", request_id="d", **completed)
    assert (ssh / "authorized_keys").read_text() == ""  # nobody has sent a key yet

    for key in ("k" * 4096, "ssh-ed25519 K base_slice_exchange\n"):  # the first fills its field, without a NUL
        request = {"request_id": f"e{len(key)}", "public_key": key, "reserved": "x" * 300}
        response = ask("ExchangeKeysRequest", **request)
        made = {name: wire.read(response)[name] for name in ("session_token", "token_expiry_us")}
        check(response, "ExchangeKeysResponse", request_id=request["request_id"],
              public_key=(ssh / "base_slice_exchange.pub").read_text(), **made)
        assert re.fullmatch("[0-9a-f]{64}", made["session_token"])
        assert abs(made["token_expiry_us"] / 1e6 - time.time() - 3600) < 10
        ask("InstallKeysRequest", request_id=f"f{len(key)}")
    assert (ssh / "authorized_keys").read_text() == "k" * 4095 + "\n\nssh-ed25519 K base_slice_exchange\n"
    assert ssh.stat().st_mode & 0o777 == 0o700

    response = ask("ConfirmInstallRequest", request_id="g")
    completed_at = wire.read(response)["completed_at_us"]
    check(response, "ConfirmInstallResponse", request_id="g", status="COMPLETE", keys_active=1,
          completed_at_us=completed_at)
    assert abs(completed_at / 1e6 - time.time()) < 10
    assert server.wait() == Outcome(0, COMPLETED, "")


def test_repeats_its_response_to_a_known_id(lab, ask):
    install = wire.build("InstallKeysRequest", request_id="same")
    keys = lab.server.ssh / "authorized_keys"
    first = ask(install)
    keys.write_text("touched\n")
    assert ask(install) == first
    assert ask("ConfirmInstallRequest", request_id="same") == first  # and the connection stays open

    for number in range(9):
        ask("VersionQuery", request_id=f"other {number}")
    assert ask(install) == first
    assert keys.read_text() == "touched\n"
    ask("VersionQuery", request_id="the eleventh id")
    assert ask(install) != first
    assert keys.read_text() == "touched\n\n"

    for unknown in ("", "x" * 128):  # never found in the cache
        assert ask("VersionQuery", request_id=unknown) != ask("VersionQuery", request_id=unknown)


def test_drops_invalid_messages(server, connection, ask):
    query = wire.build("VersionQuery", request_id="unsound")
    bad_messages = [
        query[:31], bytes(32), b"x" * 8192, query + query, query[:300] + b"x" + query[301:],
        wire.build("VersionQuery", length=483), wire.build("VersionQuery", length=8193),
        wire.build("VersionQuery", magic=0x444F5257), wire.build("VersionQuery", version=0x0101),
        *(wire.build("VersionQuery", request_id="unsound", type=number) for number in (1, 3, 5, 7, 9, 10, 256)),
    ]
    for count, message in enumerate(bad_messages, 1):
        connection.sendall(message)
        assert eventually(lambda: server.err == "Error\n" * count), (message, server.err)

    # The server dropped these messages and still serves the connection. It accepts other sizes, and messages in pieces.
    fields = {"request_id": "unsound", "supported_versions": "1.0"}
    assert wire.read(ask("VersionQuery", **fields))["selected_version"] == "1.0"
    assert wire.read(ask("VersionQuery", request_id="short", size=192))["selected_version"] == ""
    largest = wire.build("VersionQuery", **fields | {"request_id": "largest"}, size=8192)
    connection.sendall(largest[:32])
    time.sleep(0.02)
    assert wire.read(ask(largest[32:]))["selected_version"] == "1.0"

    connection.sendall(query[:400])
    connection.shutdown(socket.SHUT_WR)
    assert server.wait() == Outcome(0, COMPLETED, "Error\n" * (len(bad_messages) + 2))


def test_serves_one_client_whose_connection_breaks(lab, server, connection, ask):
    with lab.client.connect("172.20.10.1") as second, lab.client.connect("172.20.10.1"):  # both may wait
        second.sendall(wire.build("VersionQuery", request_id="second"))
        ask("VersionQuery", request_id="first")
        wire.reset(connection)
        assert server.wait() == Outcome(0, COMPLETED, "Exception\n")
        with pytest.raises(ConnectionResetError):
            second.recv(1)
