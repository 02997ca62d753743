"""Records that travel whole, answers and statistics."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Dict, List

from .elements import FormatError, array_size, elements, read_value
from .message import Message, decode
from .tables import LAYOUTS, RECORD_ELEMENTS

Values = Dict[str, Any]


def read_record(name: str, data: bytes, order: str = "<") -> Values:
    """A record that travels whole. Members that a shorter one does not have are missing.
    Records behind it are a list, under their name."""
    values: Values = {}
    layout = LAYOUTS[name]
    if layout.rest:
        step = LAYOUTS[layout.rest].size
        starts = range(layout.size, len(data) - step + 1, step)
        values[layout.rest] = [read_record(layout.rest, data[at : at + step], order) for at in starts]
    for part in layout.parts:
        content = data[part.offset : part.offset + part.width * part.count]
        if len(content) == part.width * part.count:
            values[part.name] = _read_items(part, content, order)
    return values


def _read_items(part: Any, content: bytes, order: str) -> Any:
    items = [content[i : i + part.width] for i in range(0, len(content), part.width)]
    if part.layout:
        read = [read_record(part.layout, item, order) for item in items]
    else:
        read = [read_value(part.format, item, order, part.is_signed) for item in items]
    return read if part.count > 1 else read[0]


def _read_elements(name: str, data: bytes, order: str) -> Values:
    parts = {part.id: part for part in LAYOUTS[name].parts}
    values: Values = {part.name: [] for part in parts.values() if part.is_array}
    for one in elements(data, order):
        part = parts.get(one.id)
        if part is None:
            continue
        if part.is_array:
            values[part.name].append(_read_elements(part.layout, one.value, order))
        elif len(one.value) == part.width * part.count:
            values[part.name] = _read_items(part, one.value, order)
        else:
            raise FormatError(f"offset {one.offset}: element {one.id} has {len(one.value)} bytes")
    return values


def read_statistics(data: bytes, order: str = "<") -> Values:
    """The body of an answer to a statistics request: {"tag", "num_entries", "entries"}."""
    results = _read_elements("stat_results", data, order)
    if len(results["entries"]) != results.get("num_entries"):
        raise FormatError(f"{len(results['entries'])} entries where {results.get('num_entries')} are announced")
    return results


@dataclass
class Answer:
    status: int
    error: int
    retval: int
    text: str
    body: bytes
    order: str = "<"

    def statistics(self) -> Values:
        return read_statistics(self.body, self.order)

    def messages(self) -> List[Message]:
        """The policies in an answer to a show request."""
        found, rest = [], self.body
        while rest:
            size = array_size(rest, self.order)
            found.append(decode(rest[:size], self.order))
            rest = rest[size:]
        return found

    def records(self) -> List[Values]:
        """The records in an answer to a status request; "record" names each."""
        return [
            {"record": RECORD_ELEMENTS[one.id], **read_record(RECORD_ELEMENTS[one.id], one.value, self.order)}
            for one in elements(self.body, self.order)
            if one.id in RECORD_ELEMENTS
        ]


def read_answer(data: bytes, order: str = "<") -> Answer:
    """The payload of an answer."""
    size = LAYOUTS["response"].size
    if len(data) < size:
        raise FormatError(f"an answer has at least {size} bytes, and there are {len(data)}")
    header = read_record("response", data[:size], order)
    text = header["msg"].split(b"\0")[0].decode("utf-8", "backslashreplace")
    return Answer(header["status"], header["error"], header["retval"], text, data[size:], order)
