# SPDX-License-Identifier: MIT
"""The messages of the protocol, for scripted peers. Their layout is read from the tables of docs/protocol.md, so that
scripted peers do not share a mistake with the programs.

A message is bytes. Its fields are a dict by the names in the tables. Texts are strings without the NULs at their end.
The `reserved` of the header is called `header_reserved`, because bodies also have a `reserved`."""

import pathlib
import re
import socket
import struct
import time
import zlib

DOCUMENT = pathlib.Path(__file__).resolve().parent.parent / "docs/protocol.md"
_INTEGERS = {1: "B", 2: "H", 4: "I", 8: "Q"}


class Table:
    """A byte table of the document: the names and struct formats of its fields, and the values that it fixes."""

    def __init__(self, section, start=0):
        self.names, self.format, self.fixed = [], "", {}
        for offset, size, name, meaning in re.findall(r"^\| (\d+) \| (\d+) \| `(\w+)` \|(.*)\|$", section, re.M):
            assert start + self.size == int(offset), f"{name} does not begin where the field before it ends"
            is_integer = int(size) in _INTEGERS and not meaning.startswith(" text")
            self.names.append(name)
            self.format += _INTEGERS[int(size)] if is_integer else f"{size}s"
            if value := re.match(r" (0x[0-9A-F]+)", meaning):
                self.fixed[name] = int(value[1], 16)

    @property
    def size(self):
        return struct.calcsize("<" + self.format)

    def pack(self, order, fields):
        kinds = re.sub(r"\d+", "", self.format)
        values = [fields.get(name, b"" if kind == "s" else 0) for name, kind in zip(self.names, kinds)]
        return struct.pack(order + self.format, *(v.encode() if isinstance(v, str) else v for v in values))

    def unpack(self, order, data):
        values = struct.unpack(order + self.format, data)
        return {name: value.rstrip(b"\0").decode("latin-1") if isinstance(value, bytes) else value
                for name, value in zip(self.names, values)}


def _read_tables():
    header, records = None, {}
    for section in re.split(r"^##+ ", DOCUMENT.read_text(), flags=re.M):
        if section.startswith("Message\n"):
            header = Table(section)
            header.names[header.names.index("reserved")] = "header_reserved"
        elif title := re.match(r"Type (\d+), (\w+), (\d+) bytes", section):
            records[title[2]] = record = Table(section, header.size)
            record.fixed["type"] = int(title[1])
            assert header.size + record.size == int(title[3]), f"{title[2]} has another size than its title says"
    return header, records


HEADER, RECORDS = _read_tables()


def build(name, size=None, **fields):
    """A message of the record `name`, valid except where `fields` say otherwise, truncated or zero-filled to `size`."""
    body = RECORDS[name].pack("<", fields)
    if size is not None:
        body = body[:size - HEADER.size].ljust(size - HEADER.size, b"\0")
    header = {"timestamp": time.time_ns() // 1000, "length": HEADER.size + len(body)}
    header |= HEADER.fixed | RECORDS[name].fixed | fields
    return HEADER.pack(">", {"checksum": checksum(header, body)} | header) + body


def checksum(header, body):
    """The CRC of the header, in little-endian order and with `checksum` 0, followed by the body."""
    return zlib.crc32(HEADER.pack("<", header | {"checksum": 0}) + body)


def read(message):
    """The fields of the header and the body of a message, which must be undamaged."""
    header, body = HEADER.unpack(">", message[:HEADER.size]), message[HEADER.size:]
    assert header["checksum"] == checksum(header, body), "the checksum is wrong"
    record = next(record for record in RECORDS.values() if record.fixed["type"] == header["type"])
    return header | record.unpack("<", body)


def receive(connection):
    """One whole message from a socket, or the part of it that came before the peer closed."""
    message, size = b"", HEADER.size
    while len(message) < size and (more := connection.recv(size - len(message))):
        message += more
        if len(message) == HEADER.size:
            size = HEADER.unpack(">", message)["length"]
    return message


def reset(connection):
    """Closes a connection so that its other end fails with ECONNRESET."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()
