# SPDX-License-Identifier: MIT
"""The client program against a scripted server: what it sends, prints and installs, and how it ends."""

import hashlib
import re
import time

import pytest
import wire
from lab import Outcome

GOOD_RUN = (wire.DOCUMENT.parent / "client-run.txt").read_text()
SERVER_KEY = "ssh-ed25519 " + "S" * 100 + " base_slice_exchange\n"
TOKEN = "a" * 64

# Each phase has its name, the state after its request, and the record and fields of a good response.
PHASES = [
    ("VERSION_NEGOTIATION", "VERSION_QUERY_SENT", "VersionResponse", {"selected_version": "1.0"}),
    ("EXCHANGE_KEYS", "EXCHANGE_KEYS_SENT", "ExchangeKeysResponse",
     {"public_key": SERVER_KEY, "session_token": TOKEN}),
    ("VERIFY_KEYS", "VERIFY_KEYS_SENT", "VerifyKeysResponse", {"status": "VERIFIED"}),
    ("INSTALL_KEYS", "INSTALL_KEYS_SENT", "InstallKeysResponse", {"install_status": "COMPLETED"}),
    ("CONFIRM", "CONFIRM_SENT", "ConfirmInstallResponse", {"status": "COMPLETE", "keys_active": 1}),
]
EACH_PHASE = pytest.mark.parametrize("phase", range(5))


class Peer:
    """A server that has accepted `client`, a run of the program."""

    def __init__(self, client, listener):
        self.client, self.requests = client, []
        self.connection, _ = listener.accept()
        self.connection.settimeout(15)
        self.send = self.connection.sendall

    def receive(self):
        """Receives the request of the next phase."""
        message = wire.receive(self.connection)
        assert message, f"the client has closed the connection: {self.client.wait()}"
        self.requests.append(wire.read(message))

    def response(self, **changes):
        """A good response to the last request, with these fields changed."""
        *_, record, fields = PHASES[len(self.requests) - 1]
        return wire.build(record, **{"request_id": self.requests[-1]["request_id"], **fields, **changes})


@pytest.fixture
def client_in(shared_lab, build):
    """Starts a client and brings it into a phase: the server has received the request of the phase."""
    with shared_lab.server.listen() as listener:
        def start(phase, command=(build / "dorve-client",)):
            peer = Peer(shared_lab.client.start(command), listener)
            while len(peer.requests) < phase:
                peer.receive()
                peer.send(peer.response())
            peer.receive()
            return peer
        yield start


def run_until(end):
    """The output of a good run up to and including the line that ends with `end`."""
    return GOOD_RUN[:GOOD_RUN.index(f"{end}\n") + len(end) + 1]


def failure(phase, err, out=""):
    """The Outcome of a run that fails after the request of `phase`; `err` and `out` are the extra lines."""
    name, sent, *_ = PHASES[phase]
    return Outcome(1, run_until(f"-> {sent}") + out, f"{err}Phase {phase} ({name}) failed\nClient failed\n")


def code(number):
    return f"ERROR: Transitioning to ERROR state, code=0x{number}\n"


def received(message):
    return f"Received response, size={len(message)} bytes\n"


def test_a_good_run_sends_the_documented_requests(shared_lab, client_in):
    shared_lab.client.ssh.chmod(0o775)  # sshd ignores keys in a group-writable directory
    peer = client_in(0)
    for phase in range(5):
        response = peer.response()
        for piece in response[:wire.HEADER.size], response[wire.HEADER.size:42], response[42:]:
            peer.send(piece)
            time.sleep(0.02)
        if phase < 4:
            peer.receive()
    assert peer.client.wait() == Outcome(0, GOOD_RUN, "")

    key = (shared_lab.client.ssh / "base_slice_exchange.pub").read_text()
    expected = [
        ("VersionQuery", {"client_version": "1.0", "supported_versions": "1.0", "features": 3}),
        ("ExchangeKeysRequest", {"variant": "base", "public_key": key}),
        ("VerifyKeysRequest", {"session_token": TOKEN, "local_key_hash": hashlib.sha256(key.encode()).hexdigest(),
                               "peer_key_hash": hashlib.sha256(SERVER_KEY.encode()).hexdigest()}),
        ("InstallKeysRequest", {"session_token": TOKEN, "install_flags": 3}),
        ("ConfirmInstallRequest", {"session_token": TOKEN, "status": "INSTALLED"}),
    ]
    for (record, fields), request, sequence in zip(expected, peer.requests, (0, 0, 1, 2, 3)):
        own = {name: request[name] for name in ("request_id", "timestamp")}
        assert request == wire.read(wire.build(record, sequence=sequence, **own, **fields))
        ms = re.fullmatch(r"REQ-base-(\d+)-[0-9a-f]{8}", own["request_id"])[1]
        assert abs(int(ms) / 1000 - time.monotonic()) < 10
        assert abs(own["timestamp"] / 1e6 - time.time()) < 10
    assert len({request["request_id"] for request in peer.requests}) == 5
    assert (shared_lab.client.ssh / "authorized_keys").read_text() == SERVER_KEY
    assert shared_lab.client.ssh.stat().st_mode & 0o777 == 0o700


def test_ignores_what_the_document_calls_ignored(client_in):
    peer = client_in(0)
    peer.send(peer.response(server_version="9", message="x" * 256, features=7, sequence=9, header_reserved=9))
    for changes in ({"token_expiry_us": 1, "reserved2": "x" * 291}, {"reserved": 9}, {"status": "x" * 32},
                    {"completed_at_us": 1, "keys_active": 7}):
        peer.receive()
        peer.send(peer.response(request_id="x" * 128, timestamp=0, **changes))
    assert peer.client.wait() == Outcome(0, GOOD_RUN.replace("keys_active=1", "keys_active=7"), "")


@pytest.mark.parametrize("phase, changes, lines", [
    (0, {"request_id": "other"}, "Error\n" + code("ffffffff")),
    (0, {"error_code": 1}, "Error\n" + code("3011")),
    (0, {"error_code": 2}, "Error\n" + code("ffffffff")),
    (0, {"selected_version": "1.1"}, "Error\n" + code("ffffffff")),
    (0, {"selected_version": ""}, "Error\n" + code("ffffffff")),
    (2, {"status": "V" * 32}, f"Key verification failed: {'V' * 32}\n" + code("5002")),
    (3, {"status": "COMPLETED", "install_status": "x"}, "Server installation failed: x\n" + code("7001")),
    (3, {"size": 192}, "Server installation failed: \n" + code("7001")),
    (4, {"status": "COMPLETED"}, "Confirmation failed: COMPLETED\n"),
])
def test_rejects_a_response(shared_lab, client_in, phase, changes, lines):
    peer = client_in(phase)
    response = peer.response(**changes)
    peer.send(response)
    assert peer.client.wait() == failure(phase, lines, received(response))
    if phase == 3:  # the client installs before it sends the request
        assert (shared_lab.client.ssh / "authorized_keys").read_text() == SERVER_KEY


@EACH_PHASE
def test_rejects_a_damaged_response_and_one_of_another_type(client_in, phase):
    name = re.sub("(?<=[a-z])(?=[A-Z])", "_", PHASES[phase][2]).upper()
    header_code = "3012" if phase == 0 else "3002"
    for changes, size, reason in [({"type": 2 * phase, "checksum": 1}, None, "checksum\n" + code("3002")),
                                  ({}, 31, "checksum\n" + code("3002")),
                                  ({"type": 2 * phase}, None, "header\n" + code(header_code))]:
        peer = client_in(phase)
        response = peer.response(**changes)[:size]
        peer.send(response)
        assert peer.client.wait() == failure(phase, f"{name} validation failed: Invalid {reason}",
                                             received(response))


@EACH_PHASE
def test_reports_a_response_that_does_not_come_whole(client_in, phase):
    size = wire.HEADER.size + wire.RECORDS[PHASES[phase][2]].size
    for sent, changes, line in [(0, {}, "Connection closed by server"),
                                (-1, {}, "Connection closed while reading fragmented message"),
                                (None, {"length": size + 1},
                                 f"Message too large: {size + 1} bytes exceeds buffer size {size}")]:
        peer = client_in(phase)
        peer.send(peer.response(**changes)[:sent])
        peer.connection.close()
        assert peer.client.wait() == failure(phase, f"{line}\n")


def test_reports_a_request_that_cannot_be_sent(client_in, tampered):
    peer = client_in(1, tampered("dorve-client", "sendto:error=EPIPE:when=3"))
    peer.send(peer.response())
    assert peer.client.wait() == Outcome(1, run_until("-> VERIFY_KEYS_SENDING"),
                                         "Send failed: Send failed: Broken pipe\n"
                                         "Phase 2 (VERIFY_KEYS) failed\nClient failed\n")


@pytest.mark.parametrize("rule, reason", [
    ("setsockopt:error=EPERM:when=3", "Failed to bind to interface bsab: Operation not permitted"),
    ("setsockopt:error=EPERM:when=5", "Failed to set send timeout: Operation not permitted"),  # at the first retry
    ("socket:error=EMFILE", "Failed to create TCP socket: Too many open files"),
])
def test_aborts_without_a_socket(shared_lab, tampered, rule, reason):
    assert shared_lab.client.run(tampered("dorve-client", rule)) == Outcome(
        134, run_until("Interface 'bsab' is ready"),
        f"terminate called after throwing an instance of 'dorve::NqSocketException'\n  what():  {reason}\n")


def test_uses_the_first_ssh_directory(lab, build):
    with lab.server.listen() as listener:
        for prepare, directory in [
                ("mkdir -p /home/user/.ssh; export HOME=/home/user", "/home/user/.ssh"),
                ("mkdir /home/empty; export HOME=/home/empty", "/root/.ssh"),
                ("mkdir /home/odd; touch /home/odd/.ssh; export HOME=/home/odd", "/root/.ssh"),
                ("unset HOME", "/root/.ssh"),
                ("rm -r /root/.ssh; mkdir -p /home/root/.ssh", "/home/root/.ssh")]:
            key = lab.client.path(directory) / "base_slice_exchange"
            key.unlink(missing_ok=True)
            client = lab.client.start(f"{prepare}; exec {build}/dorve-client")
            assert listener.accept() and key.exists(), (prepare, client)
    for program in ("dorve-client", "dorve-server"):
        assert lab.client.run(f"rm -rf /home/root; {build}/{program}") == Outcome(1, "", "Error\n")
