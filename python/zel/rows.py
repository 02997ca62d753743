"""The kinds of row in the printed tables."""

from __future__ import annotations

from dataclasses import dataclass
from typing import ClassVar, Dict, Tuple, Union


class Row:
    """A record of a message. Subclasses are printed: a data class for each record."""

    name: ClassVar[str] = ""
    start: ClassVar[int] = 0
    end: ClassVar[int] = 0
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    members: ClassVar[Tuple["Member", ...]] = ()


@dataclass(frozen=True)
class Field:
    """One element with a value."""

    name: str
    id: int
    width: int
    format: str  # number, hexadecimal, ipv4, mac or text
    names: Dict[int, str]
    since: int


@dataclass(frozen=True)
class Embedded:
    """A record that is held by value."""

    name: str
    record: type[Row]


@dataclass(frozen=True)
class Sequence:
    """One element with a count, then as many records."""

    name: str
    count: str
    id: int
    width: int
    record: type[Row]


@dataclass(frozen=True)
class Choice:
    """At most one record; the field that selector names says which."""

    name: str
    selector: str
    options: Dict[int, type[Row]]


Member = Union[Field, Embedded, Sequence, Choice]


@dataclass(frozen=True)
class Part:
    """A member of a record that travels whole, or of a record of statistics."""

    name: str
    id: int
    offset: int
    width: int
    count: int
    format: str
    layout: str
    is_array: bool
    is_signed: bool
    names: Dict[int, str]


@dataclass(frozen=True)
class Layout:
    """A record that travels whole, or a record of statistics."""

    size: int
    parts: Tuple[Part, ...]
    rest: str = ""  # the layout of the records behind it, as many as there is room for
