"""Arrays of elements, and single values."""

from __future__ import annotations

import struct
from ipaddress import IPv4Address
from typing import Any, Iterator, NamedTuple

MAX_VALUE = 0xFFFF  # bytes of one element


class FormatError(ValueError):
    """Bytes that are not what they should be. The text says where."""


class Element(NamedTuple):
    offset: int  # of the element in the bytes
    id: int
    value: bytes


def array_size(data: bytes, order: str = "<") -> int:
    """Bytes of the array at the front, its length included."""
    if len(data) < 4:
        raise FormatError(f"an array begins with 4 bytes, and there are {len(data)}")
    size = 4 + int(struct.unpack_from(order + "I", data)[0])
    if size > len(data):
        raise FormatError(f"an array claims {size} bytes, and there are {len(data)}")
    return size


def elements(data: bytes, order: str = "<") -> Iterator[Element]:
    """The elements of the array at the front."""
    size = array_size(data, order)
    at = 4
    while at < size:
        if at + 4 > size:
            raise FormatError(f"offset {at}: an element is cut short")
        id_, length = struct.unpack_from(order + "HH", data, at)
        if at + 4 + length > size:
            raise FormatError(f"offset {at}: element {id_} is cut short")
        yield Element(at, id_, bytes(data[at + 4 : at + 4 + length]))
        at += 4 + length


def element(id_: int, value: bytes, order: str = "<") -> bytes:
    """One element as bytes."""
    if len(value) > MAX_VALUE:
        raise FormatError(f"element {id_}: {len(value)} bytes are too many")
    return struct.pack(order + "HH", id_, len(value)) + value


def array(content: bytes, order: str = "<") -> bytes:
    """Elements as an array."""
    return struct.pack(order + "I", len(content)) + content


def _byte_order(order: str) -> Any:
    return "little" if order == "<" else "big"


def read_value(format_: str, value: bytes, order: str, is_signed: bool = False) -> Any:
    """A value as int, IPv4Address or bytes. Text loses the zeros at its end."""
    if format_ == "text":
        return value.rstrip(b"\0")
    if format_ == "mac":
        return value
    number = int.from_bytes(value, _byte_order(order), signed=is_signed)
    return IPv4Address(number) if format_ == "ipv4" else number


def write_value(format_: str, width: int, value: Any, order: str) -> bytes:
    """A value as so many bytes. An address may be a text, a text may be str."""
    if format_ in ("text", "mac"):
        data = value.encode() if isinstance(value, str) else bytes(value)
        if len(data) > width:
            raise FormatError(f"{len(data)} bytes where {width} fit")
        return data.ljust(width, b"\0")
    number = int(IPv4Address(value)) if format_ == "ipv4" else int(value)
    try:
        return number.to_bytes(width, _byte_order(order))
    except OverflowError:
        raise FormatError(f"{number} does not fit in {width} bytes") from None
