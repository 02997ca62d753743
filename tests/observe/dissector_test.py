"""The Wireshark dissector on golden captures: needs tshark.

usage: dissector_test.py
"""

import re
import struct
import subprocess
import tempfile
import unittest

from sample import SOURCE, answer, capture, golden, statistics, write_record

import zel
from zel.rows import Field, Sequence


def tshark(data, *arguments, suffix=".pcapng"):
    with tempfile.NamedTemporaryFile(suffix=suffix) as file:
        file.write(data)
        file.flush()
        done = subprocess.run(
            ["tshark", "-X", f"lua_script:{SOURCE}/wireshark/zel.lua", "-r", file.name, *arguments],
            capture_output=True, text=True, timeout=120, check=True)
    if "Lua" in done.stderr:
        raise AssertionError(done.stderr)
    return done.stdout


def count(data, display_filter, **options):
    return len(tshark(data, "-Y", display_filter, **options).splitlines())


def expected_fields(record):
    """Every (filter name, value) of a record and of those in it."""
    for row in record.members:
        if isinstance(row, Field):
            yield f"zel.{record.name}.{row.name}", getattr(record, row.name)
            continue
        value = getattr(record, row.name)
        if isinstance(row, Sequence):
            yield f"zel.{record.name}.{row.count}", len(value)
        for member in value if isinstance(row, Sequence) else [value]:
            if member is not None:
                yield from expected_fields(member)


def shown(value):
    if isinstance(value, bytes):
        if len(value) == 6:
            return value.hex(":")
        return re.sub(rb"[^ -~]", lambda c: b"\\x%02x" % c.group()[0], value).decode()
    return str(value)


def tcp_capture(chunks, port=4222):
    """A pcap file of raw IPv4 with one TCP stream to a port."""
    data = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101)
    sequence = 1
    for chunk in chunks:
        tcp = struct.pack(">HHIIBBHHH", 40000, port, sequence, 1, 0x50, 0x18, 65535, 0, 0)
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(chunk), 0, 0, 64, 6, 0, bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2]))
        packet = ip + tcp + chunk
        data += struct.pack("<IIII", 0, 0, len(packet), len(packet)) + packet
        sequence += len(chunk)
    return data


class Dissector(unittest.TestCase):
    def test_every_field_of_every_golden_message_is_shown(self):
        for order, name in (("<", "policy_list"), ("<", "stat_request"), (">", "policy_list")):
            message = zel.decode(golden(name))
            fields = list(expected_fields(message.header)) + list(expected_fields(message.object))
            names = sorted({field for field, _ in fields})
            arguments = [word for field in names for word in ("-e", field)]
            output = tshark(capture([({}, zel.encode(message, order))], order), "-T", "fields",
                            "-E", "aggregator=;", "-E", "separator=|", *arguments)
            for field, column in zip(names, output.rstrip("\n").split("|")):
                # An object that travels twice is shown once: the second one is a reference.
                values = [self.number(value) for value in column.split(";")]
                wanted = [self.number(shown(value)) for found, value in fields if found == field]
                rest = iter(wanted)
                self.assertEqual(values, [value for value in values if value in rest], field)
                self.assertEqual(set(values), set(wanted), field)

    @staticmethod
    def number(text):
        return str(int(text, 16)) if text.startswith("0x") else text

    def test_a_truncated_message_is_marked_wherever_it_ends(self):
        whole = golden("stat_request")
        self.assertEqual(count(capture([({}, whole)]), "zel.truncated || zel.malformed"), 0)
        cuts = range(1, len(whole), 7)
        self.assertEqual(count(capture([({"total": len(whole)}, whole[:cut]) for cut in cuts]), "zel.truncated"), len(cuts))
        # The array says how long it is, and its last element does not fit.
        shorter = struct.pack("<I", len(whole) - 4 - 3) + whole[4:-3]
        self.assertEqual(count(capture([({}, shorter)]), "zel.truncated"), 1)
        wide = zel.array(zel.element(1, b"\0") + zel.element(4, b"\1\0") + zel.element(2, b"\0"))
        strange = zel.array(zel.element(199, b"\1") + zel.element(24, b"\0"))
        data = capture([({}, wide), ({}, strange)])
        self.assertEqual([count(data, f) for f in ("zel.malformed", "zel.unknown")], [2, 1])

    def test_fields_can_be_filtered(self):
        data = capture([
            ({"pid": 77}, golden("policy_list")),
            ({"kind": 2, "number": 1}, answer(statistics())),
            ({"kind": 2, "number": 2}, answer(error=3, text=b"no \x1b[31m such policy")),
            ({"opcode": 0x1CC12}, zel.array(zel.element(201, write_record("show_request", app_type=5, policy_id=9)))),
            ({"opcode": 0x1CC1A}, zel.array(
                zel.element(207, write_record("change_request", num_expected=2) + write_record("expected", policy_id=8)
                            + write_record("expected", policy_id=11))
                + zel.element(208, b"\1\2\3")
                + zel.element(209, write_record("policy_frame", policy_id=8) + struct.pack("<3H", 3, 1, 2)))),
        ])
        for display_filter, expected in (
            ("zel.match_service_element.sip == 160.161.162.4", 1), ("zel.capture.pid == 77", 1),
            ("zel.stat_result_entry.ids == 7 && zel.stats.counter1 == 1099511627776", 1), ("zel.response.error == 3", 1),
            ("zel.response.retval == -1", 1), ("zel.refused", 1), ("zel.show_request.policy_id == 9", 1),
            ("zel.capture.kind == 2", 2), ("zel.expected.policy_id == 11 && zel.pair_id.pair_id == 2", 1), ("zel.truncated || zel.malformed || zel.unknown", 0),
            ("zel.reference.mat_id == 0", 1)):
            self.assertEqual(count(data, display_filter), expected, display_filter)
        text = tshark(data)
        self.assertIn("policy_list_update", text)
        self.assertIn("refused: no \\x1b[31m such policy", text)
        self.assertNotIn("\x1b", text)

    def test_messages_over_nats(self):
        message = golden("policy_list")
        frame = write_record("frame", magic=0x4B4F4201, kind=1, token=1, opcode=0x1CC02, total=len(message))
        packet = frame + message
        headers = b"NATS/1.0\r\na: b\r\n\r\n"
        stream = b"PING\r\nPUB zel.node reply.1 %d\r\n%s\r\n" % (len(packet), packet)
        stream += b"HPUB zel.node reply.1 %d %d\r\n%s%s\r\nPONG\r\n" % (
            len(headers), len(headers) + len(packet), headers, packet)
        part = write_record("frame", magic=0x4B4F4201, kind=1, in_parts=1, token=2, opcode=0x1CC04,
                            total=9000, offset=4000) + bytes(5000)
        stream += b"MSG zel.node 4 %d\r\n%s\r\n" % (len(part), part)
        data = tcp_capture([stream[i : i + 1000] for i in range(0, len(stream), 1000)])
        self.assertEqual(count(data, 'zel.nats.subject == "zel.node"', suffix=".pcap"), 3)
        self.assertEqual(count(data, "zel.kob_header.api_type == 1", suffix=".pcap"), 2)
        self.assertEqual(count(data, "zel.frame.offset == 4000", suffix=".pcap"), 1)
        # A message in parts is shown with its last one, among parts of another.
        stream = b""
        for token, offset in ((5, 0), (6, 0), (5, 300), (6, 300)):
            whole = message if token == 5 else bytes(len(message))
            part = write_record("frame", magic=0x4B4F4201, kind=1, in_parts=1, token=token, opcode=0x1CC04,
                                total=len(whole), offset=offset) + (whole[:300] if offset == 0 else whole[300:])
            stream += b"PUB zel.node %d\r\n%s\r\n" % (len(part), part)
        data = tcp_capture([stream])
        self.assertEqual(count(data, "zel.kob_header.api_type == 1", suffix=".pcap"), 1)


if __name__ == "__main__":
    unittest.main()
