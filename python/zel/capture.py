"""Captures: pcapng files with one message in each packet.

>>> for packet in read_capture("trace.pcapng"):
...     if packet.is_request and packet.opcode_name == "request":
...         print(packet.time_ns, packet.pid, decode(packet.payload, packet.order).kind)
"""

from __future__ import annotations

import struct
from dataclasses import dataclass
from typing import BinaryIO, Dict, Iterator, Union

from .elements import FormatError
from .records import Values, read_record
from .tables import CAPTURE_MAGIC, LAYOUTS, OPCODES

_SECTION, _INTERFACE, _PACKET = 0x0A0D0D0A, 1, 6
_LINK_TYPE = 147
_MAX_BLOCK = 1 << 31


@dataclass
class Packet:
    """A message as it was captured."""

    time_ns: int  # since 1970
    order: str  # byte order of the numbers, for decode() and read_answer()
    header: Values
    payload: bytes

    @property
    def is_request(self) -> bool:
        return bool(self.header["kind"] == 1)

    @property
    def is_cut(self) -> bool:
        return len(self.payload) < int(self.header["total"])

    @property
    def number(self) -> int:
        """The answer to a request has the number of the request."""
        return int(self.header["number"])

    @property
    def pid(self) -> int:
        return int(self.header["pid"])

    @property
    def uid(self) -> int:
        return int(self.header["uid"])

    @property
    def opcode_name(self) -> str:
        opcode = int(self.header["opcode"])
        return OPCODES.get(opcode, hex(opcode))


def _options(data: bytes, order: str) -> Dict[int, bytes]:
    found, at = {}, 0
    while at + 4 <= len(data):
        code, length = struct.unpack_from(order + "HH", data, at)
        if code == 0:
            break
        found[code] = data[at + 4 : at + 4 + length]
        at += 4 + length + -length % 4
    return found


def _packet(body: bytes, order: str, scale: int) -> Packet:
    _, high, low, length, _ = struct.unpack_from(order + "5I", body)
    data = body[20 : 20 + length]
    size = LAYOUTS["capture"].size
    header = read_record("capture", data[:size], order)
    if len(data) < size or header["magic"] != CAPTURE_MAGIC:
        raise FormatError("a packet that is no message of the policy service")
    return Packet(((high << 32) | low) * scale, order, header, data[size:])


def _blocks(file: BinaryIO) -> Iterator[tuple[int, str, bytes]]:
    order = "<"
    while True:
        head = file.read(8)
        if not head:
            return
        if head[:4] == b"\x0a\x0d\x0d\x0a":
            magic = file.read(4)
            order = "<" if magic == b"\x4d\x3c\x2b\x1a" else ">"
            head += magic
        if len(head) < 8:
            raise FormatError("the file ends within a block")
        type_, length = struct.unpack_from(order + "II", head)
        if length < 12 or length % 4 or length > _MAX_BLOCK:
            raise FormatError(f"a block of {length} bytes")
        rest = file.read(length - len(head))
        if len(rest) < length - len(head):
            raise FormatError("the file ends within a block")
        yield type_, order, (head[8:] + rest)[:-4]


def read_capture(source: Union[str, BinaryIO]) -> Iterator[Packet]:
    """The messages of a capture file, one at a time."""
    if isinstance(source, str):
        with open(source, "rb") as file:
            yield from read_capture(file)
        return
    scale = 1000  # ns in a unit of time
    for type_, order, body in _blocks(source):
        if type_ == _INTERFACE:
            link_type = struct.unpack_from(order + "H", body)[0]
            if link_type != _LINK_TYPE:
                raise FormatError(f"link type {link_type} instead of {_LINK_TYPE}")
            resolution = _options(body[8:], order).get(9, b"\x06")[0]
            if resolution > 9:
                raise FormatError("a unit of time below 1 ns")
            scale = 10 ** (9 - resolution)
        elif type_ == _PACKET:
            yield _packet(body, order, scale)
        elif type_ != _SECTION:
            continue
