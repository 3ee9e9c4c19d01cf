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


def test_the_tables_hold_what_the_example_shows():
    for message in DOCUMENTED.messages:
        wire.read(message)
    rows = TABLE_ROW.findall(documentation("protocol.md"))
    assert [(int(offset), int(size), name) for offset, size, name in rows] == DOCUMENTED.fields


def test_a_pairing_is_dissected_as_documented(lab, build, tmp_path):
    if not shutil.which("tshark"):
        pytest.skip("tshark is not installed")
    capture = tmp_path / "capture"

    def example(*options):
        return subprocess.run([CHECKOUT / "scripts/record-example", capture, *options],
                              check=True, stdout=subprocess.PIPE, text=True).stdout

    def show(wanted, *fields):
        columns = [word for field in fields for word in ("-e", field)]
        lines = example("-Y", f"dorve && {wanted}", "-T", "fields", *columns).splitlines()
        return [line.split("\t") for line in lines]

    for host in lab.hosts:
        host.check("ip link set bsab gso_max_segs 1")  # the link splits what does not fit in a packet
    with lab.client.capture(capture):
        lab.pair(build)
    live = Example(example())
    assert live.constant == DOCUMENTED.constant

    strange = ("dorve.timestamp > frame.time || dorve.completed_at_us > frame.time || "
               "dorve.token_expiry_us < frame.time || dorve.response_time > frame.time_relative || "
               "_ws.expert.severity >= 4194304")  # a note, or worse
    frames, kinds, pieces, good, response_in, response_to = zip(*show(
        f"!({strange})", "frame.number", "dorve.type", "tcp.segment.count", "dorve.checksum.status",
        "dorve.response_in", "dorve.response_to"))
    assert list(kinds) == TYPES
    assert [kind for kind, count in zip(kinds, pieces) if count] == ["2", "3"]
    assert set(good) == {"1"}
    assert response_in[::2] == frames[1::2] and response_to[1::2] == frames[::2]
    assert not any(response_in[1::2] + response_to[::2])

    damaged = bytearray(capture.read_bytes())
    for number, message in enumerate(live.messages):
        damaged[damaged.index(message[:wire.HEADER.size]) + 23 * number] ^= 1
    capture.write_bytes(damaged)
    assert show("dorve.bad_checksum", "dorve.type") == [[kind] for kind in TYPES]
