# SPDX-License-Identifier: MIT
"""Compares the tables and the example of the protocol, a pairing of the programs, and the dissector's display."""

import re
import shutil
import subprocess

import pytest

import wire
from conftest import CHECKOUT

TABLE_ROW = re.compile(r"^\| (\d+) \| (\d+) \| `(\w+)`", re.M)
HEX_ROW = re.compile(r"([0-9a-f]{4})  (.{48})(?:\s*(\d+) (\w+))?.*")
VARYING = re.compile("checksum|timestamp|_id|_key|_token|_us")
TYPES = [str(number) for number in range(10)]

# For each of the dissector's marks, what is wrong with a message that has only this mark.
MARKS = {
    "bad_magic": {"magic": 0x444F5257}, "bad_version": {"version": 0x0101}, "bad_type": {"type": 10},
    "bad_length": {"length": 8193}, "bad_checksum": {"checksum": 1}, "short": {"size": 480}, "long": {"size": 492},
    "unterminated": {"client_version": "x" * 32}, "not_zero": {"header_reserved": 1},
}


class Example:
    """An annotated pairing, from docs/ or from scripts/record-example."""

    def __init__(self, text):
        self.fields = []    # offset, size and name of all fields, the header's once
        self.messages = []  # the bytes of each message
        self.constant = []  # the rows of hex bytes and the lines of Wireshark, without the values that vary
        name = ""
        for line in text[text.index("### VersionQuery"):].splitlines():
            row = HEX_ROW.fullmatch(line.ljust(54))
            if not row:
                self.constant.append(re.sub(r"\W", "", re.split("[:,]", line)[0]))
                continue
            offset = int(row[1], 16)
            if offset == 0:
                self.messages.append(b"")
            zeroes = re.match(r"00 \* (\d+)", row[2])
            self.messages[-1] += bytes(int(zeroes[1])) if zeroes else bytes.fromhex(row[2])
            if row[4]:
                name = row[4]
                if offset >= wire.HEADER.size or len(self.messages) == 1:
                    self.fields.append((offset, int(row[3]), name))
            if not VARYING.search(name):
                self.constant.append(line)
            elif row[4]:
                self.constant.append(row.group(1, 3, 4))


def documentation(name):
    return (CHECKOUT / "docs" / name).read_text()


DOCUMENTED = Example(documentation("protocol.md") + documentation("example-pairing.txt"))


def example(capture, *options):
    return subprocess.run([CHECKOUT / "scripts/record-example", capture, *options],
                          check=True, stdout=subprocess.PIPE, text=True).stdout


def show(capture, wanted, *fields):
    """A row for each frame that the filter `wanted` lets through, with the values of the fields."""
    columns = [word for field in fields for word in ("-e", field)]
    lines = example(capture, "-Y", f"dorve && {wanted}", "-T", "fields", *columns).splitlines()
    return [line.split("\t") for line in lines]


def test_the_tables_hold_what_the_example_shows():
    for message in DOCUMENTED.messages:
        wire.read(message)
    rows = TABLE_ROW.findall(documentation("protocol.md"))
    assert [(int(offset), int(size), name) for offset, size, name in rows] == DOCUMENTED.fields


@pytest.fixture
def capture(tmp_path):
    if not shutil.which("tshark"):
        pytest.skip("tshark is not installed")
    return tmp_path / "capture"


def test_a_pairing_is_dissected_as_documented(lab, build, capture):
    for host in lab.hosts:
        host.check("ip link set bsab gso_max_segs 1")  # the link splits what does not fit in a packet
    with lab.client.capture(capture):
        lab.pair(build)
    live = Example(example(capture))
    assert live.constant == DOCUMENTED.constant

    strange = ("dorve.timestamp > frame.time || dorve.completed_at_us > frame.time || "
               "dorve.token_expiry_us < frame.time || dorve.response_time > frame.time_relative || "
               "_ws.expert.severity >= 4194304")  # a note, or worse
    frames, kinds, pieces, good, response_in, response_to = zip(*show(
        capture, f"!({strange})", "frame.number", "dorve.type", "tcp.segment.count", "dorve.checksum.status",
        "dorve.response_in", "dorve.response_to"))
    assert list(kinds) == TYPES
    assert [kind for kind, count in zip(kinds, pieces) if count] == ["2", "3"]
    assert set(good) == {"1"}
    assert response_in[::2] == frames[1::2] and response_to[1::2] == frames[::2]
    assert not any(response_in[1::2] + response_to[::2])


def test_a_bad_message_has_its_mark(lab, capture):
    with lab.client.capture(capture), lab.server.listen() as listener:
        for wrong in MARKS.values():
            with lab.client.connect(lab.server.address) as connection, listener.accept()[0]:
                connection.sendall(wire.build("VersionQuery", request_id="a", **wrong))
    rows = show(capture, "tcp", *(f"dorve.{mark}" for mark in MARKS))
    assert [[mark for mark, text in zip(MARKS, row) if text] for row in rows] == [[mark] for mark in MARKS]
