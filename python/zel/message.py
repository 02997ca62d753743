"""Messages: from bytes to records and back.

>>> message = decode(data)
>>> message.kind, message.object.id
('policy_update', 7)
>>> encode(policy_update(Policy(id=7)))
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Dict, Iterator, List, Optional, Tuple

from . import tables
from .elements import Element, FormatError, array, array_size, element, elements, read_value, write_value
from .rows import Choice, Embedded, Field, Row, Sequence
from .tables import KobHeader, Policy, PolicyList, StatRequest, StatRequestEntry

SET, REMOVE, STATISTICS = 1, 2, 3  # op_code


@dataclass
class Message:
    """A request: its header, and the object unless the header is all."""

    header: KobHeader
    object: Optional[Any] = None

    @property
    def kind(self) -> str:
        return name_of(KobHeader, "api_type", self.header.api_type)


def name_of(record: type[Row], member: str, number: int) -> str:
    """The name of a number, or the number as text."""
    for row in record.members:
        if isinstance(row, Field) and row.name == member:
            return row.names.get(number, str(number))
    raise KeyError(member)


def number_of(record: type[Row], member: str, name: str) -> int:
    """The number that has a name."""
    for row in record.members:
        if isinstance(row, Field) and row.name == member:
            for number, known in row.names.items():
                if known == name:
                    return number
    raise KeyError(name)


class _Reader:
    """Reads records from a list of elements. Unknown elements are passed over."""

    def __init__(self, found: Iterator[Element], order: str) -> None:
        known = {tables.REFERENCE_TYPE, tables.REFERENCE_ID}
        for record in tables.STARTS.values():
            known |= {record.start, record.end}
            known |= {row.id for row in record.members if isinstance(row, (Field, Sequence))}
        self._elements = [one for one in found if one.id in known]
        self._at = 0
        self._order = order
        self._shared: Dict[Tuple[int, int], Any] = {}

    def next_id(self) -> int:
        return self._elements[self._at].id if self._at < len(self._elements) else 0

    def _take(self, id_: int, width: int) -> bytes:
        if self.next_id() != id_:
            where = f"offset {self._elements[self._at].offset}" if self.next_id() else "the end"
            raise FormatError(f"{where}: expected element {id_}, found {self.next_id()}")
        found = self._elements[self._at]
        if len(found.value) != width:
            raise FormatError(f"offset {found.offset}: element {id_} has {len(found.value)} bytes instead of {width}")
        self._at += 1
        return found.value

    def record(self, record: type[Row]) -> Any:
        self._take(record.start, 1)
        if record.is_shareable and self.next_id() == tables.REFERENCE_TYPE:
            result = self._reference()
        else:
            result = record()
            for row in record.members:
                self._member(result, row)
            if record.is_shareable:
                self._shared[record.mat_type, getattr(result, "id")] = result
        self._take(record.end, 1)
        return result

    def _reference(self) -> Any:
        mat_type = int(read_value("number", self._take(tables.REFERENCE_TYPE, 4), self._order))
        id_ = int(read_value("number", self._take(tables.REFERENCE_ID, 2), self._order))
        if (mat_type, id_) not in self._shared:
            raise FormatError(f"a reference to {id_} of type {mat_type}, which did not come before")
        return self._shared[mat_type, id_]

    def _member(self, result: Any, row: Any) -> None:
        if isinstance(row, Field):
            if row.since > 1 and self.next_id() != row.id:
                return
            setattr(result, row.name, read_value(row.format, self._take(row.id, row.width), self._order))
        elif isinstance(row, Embedded):
            setattr(result, row.name, self.record(row.record))
        elif isinstance(row, Sequence):
            count = int(read_value("number", self._take(row.id, row.width), self._order))
            setattr(result, row.name, [self.record(row.record) for _ in range(count)])
        elif getattr(result, row.selector) in row.options:
            setattr(result, row.name, self.record(row.options[getattr(result, row.selector)]))


class _Writer:
    def __init__(self, order: str) -> None:
        self._order = order
        self._parts: List[bytes] = []
        self._written: Dict[Tuple[int, int], Any] = {}

    def finish(self) -> bytes:
        return array(b"".join(self._parts), self._order)

    def _add(self, id_: int, value: bytes) -> None:
        self._parts.append(element(id_, value, self._order))

    def record(self, value: Any) -> None:
        self._add(value.start, b"\0")
        if not self._is_reference(value):
            for row in value.members:
                self._member(value, row)
        self._add(value.end, b"\0")

    def _is_reference(self, value: Any) -> bool:
        """Writes a reference when the message has carried the match or action before."""
        if not value.is_shareable:
            return False
        key = (value.mat_type, value.id)
        if key not in self._written:
            self._written[key] = value
            return False
        if self._written[key] != value:
            raise FormatError(f"two of type {value.mat_type} with id {value.id} that differ")
        self._add(tables.REFERENCE_TYPE, write_value("number", 4, key[0], self._order))
        self._add(tables.REFERENCE_ID, write_value("number", 2, key[1], self._order))
        return True

    def _member(self, value: Any, row: Any) -> None:
        if isinstance(row, Field):
            content = getattr(value, row.name)
            if row.name in _selectors(value) and content == 0:
                content = _selected(value, row.name)
            self._add(row.id, write_value(row.format, row.width, content, self._order))
        elif isinstance(row, Embedded):
            self.record(getattr(value, row.name))
        elif isinstance(row, Sequence):
            members = getattr(value, row.name)
            self._add(row.id, write_value("number", row.width, len(members), self._order))
            for member in members:
                self.record(member)
        elif getattr(value, row.name) is not None:
            self.record(getattr(value, row.name))


def _selectors(value: Row) -> List[str]:
    return [row.selector for row in value.members if isinstance(row, Choice)]


def _selected(value: Row, selector: str) -> int:
    """The number that stands for the record in a choice."""
    for row in value.members:
        if isinstance(row, Choice) and row.selector == selector:
            for number, record in row.options.items():
                if isinstance(getattr(value, row.name), record):
                    return number
    return 0


def decode(data: bytes, order: str = "<") -> Message:
    """Reads exactly one message. order is "<" for the byte order of most machines, or ">"."""
    if array_size(data, order) != len(data):
        raise FormatError(f"bytes follow the message of {array_size(data, order)} bytes")
    reader = _Reader(elements(data, order), order)
    message = Message(reader.record(KobHeader))
    record = tables.OBJECTS.get(message.header.api_type)
    if record is None:
        raise FormatError(f"request kind {message.header.api_type} is not known")
    if reader.next_id() != 0:
        message.object = reader.record(record)
    if reader.next_id() != 0:
        raise FormatError("elements follow the object")
    return message


def encode(message: Message, order: str = "<") -> bytes:
    """The bytes that the library sends for the same message."""
    writer = _Writer(order)
    writer.record(message.header)
    if message.object is not None:
        writer.record(message.object)
    return writer.finish()


def request(kind: str, object_: Optional[Any], policy_id: int = 0, app: int = 0, op_code: int = SET) -> Message:
    """A message of a kind, such as "match_update"."""
    return Message(KobHeader(number_of(KobHeader, "api_type", kind), app, policy_id, op_code), object_)


def policy_update(policy: Policy, app: int = 0, op_code: int = SET) -> Message:
    """Creates or replaces a policy."""
    return request("policy_update", policy, policy.id, app, op_code)


def policy_list_update(policies: List[Policy], app: int = 0, op_code: int = SET) -> Message:
    """Creates or replaces policies, all or none of them."""
    return request("policy_list_update", PolicyList(policies=policies), 0, app, op_code)


def policy_delete(policy_id: int, app: int = 0) -> Message:
    return request("policy_delete", None, policy_id, app, REMOVE)


def stats_pull(queries: List[StatRequestEntry], app: int = 0) -> Message:
    return request("stats_pull", StatRequest(requests=queries), 0, app, STATISTICS)
