"""Messages, captures and statistics of the zel policy service.

The tables are printed from the wire description that the library is built on; FINGERPRINT
says from which one.
"""

from .capture import Packet, read_capture
from .elements import Element, FormatError, array, element, elements
from .message import (
    Message,
    decode,
    encode,
    name_of,
    number_of,
    policy_delete,
    policy_list_update,
    policy_update,
    request,
    stats_pull,
)
from .records import Answer, read_answer, read_record, read_statistics
from .tables import *  # noqa: F401,F403 - the records
from .tables import FINGERPRINT

__all__ = [name for name in dir() if not name.startswith("_")]
