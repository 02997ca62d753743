"""What the tests of this folder share: golden messages, and captures of them."""

import os
import struct
import sys

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(SOURCE, "python"))

import zel  # noqa: E402
from zel.tables import CAPTURE_MAGIC, LAYOUTS  # noqa: E402

GOLDEN = ("policy_list", "stat_request")
TIME_NS = 1_700_000_000_123_456_789


def golden(name, order="<"):
    """A golden message. Values are bytes as they lie in memory of a little-endian machine."""
    content = b""
    with open(f"{SOURCE}/tests/golden/{name}.elements", encoding="utf-8") as file:
        for line in file:
            if not line.startswith("#"):
                id_, _, value = line.split()[:3]
                content += zel.element(int(id_), bytes.fromhex(value), order)
    return zel.array(content, order)


def write_record(name, order="<", **values):
    """A record that travels whole, from its layout."""
    data = bytearray(LAYOUTS[name].size)
    for part in LAYOUTS[name].parts:
        value = values.get(part.name, 0)
        if not isinstance(value, bytes):
            value = value.to_bytes(part.width, "little" if order == "<" else "big", signed=part.is_signed)
        data[part.offset : part.offset + len(value)] = value
    return bytes(data)


def block(type_, body, order):
    size = len(body) + 12
    return struct.pack(order + "II", type_, size) + body + struct.pack(order + "I", size)


def capture(packets, order="<"):
    """A capture file of (header values, payload), with times in ns."""
    data = block(0x0A0D0D0A, struct.pack(order + "IHHq", 0x1A2B3C4D, 1, 0, -1), order)
    data += block(1, struct.pack(order + "HHIHHB3xHH", 147, 0, 0, 9, 1, 9, 0, 0), order)
    for header, payload in packets:
        values = {"magic": CAPTURE_MAGIC, "kind": 1, "opcode": 0x1CC02, "total": len(payload), **header}
        packet = write_record("capture", order, **values) + payload
        head = struct.pack(order + "5I", 0, TIME_NS >> 32, TIME_NS & 0xFFFFFFFF, len(packet), len(packet))
        data += block(6, head + packet + bytes(-len(packet) % 4), order)
    return data


def statistics(order="<"):
    """The body of an answer with two entries."""
    content = zel.element(154, b"\1", order) + zel.element(155, struct.pack(order + "I", 2), order)
    for pair in (1, 2):
        entry = zel.element(150, b"\2", order) + zel.element(151, struct.pack(order + "I", 3), order)
        entry += zel.element(152, struct.pack(order + "5H", 7, pair, 0, 0, 0), order)
        entry += zel.element(153, struct.pack(order + "6Q", 1 << 40, pair * 100, 0, 0, 0, 0), order)
        content += zel.element(156, zel.array(entry, order), order)
    return zel.array(content, order)


def answer(body=b"", order="<", error=0, text=b"done"):
    status, retval = (1, 0) if error == 0 else (2, -1)
    return write_record("response", order, status=status, error=error, retval=retval, msg=text) + body
