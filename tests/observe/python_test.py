"""The Python package on golden messages, statistics and captures."""

import io
import unittest

from sample import GOLDEN, TIME_NS, answer, capture, golden, statistics, write_record

import zel


class Package(unittest.TestCase):
    def test_golden_messages_come_back_as_they_were(self):
        for name in GOLDEN:
            data = golden(name)
            message = zel.decode(data)
            self.assertEqual(zel.encode(message), data)
            self.assertEqual(zel.decode(zel.encode(message, ">"), ">"), message)
            for id_ in (0, 199, 65535):  # of a newer peer
                self.assertEqual(zel.decode(zel.array(zel.element(id_, b"\1") + data[4:])), message)

    def test_a_damaged_message_is_refused(self):
        data = golden("stat_request")
        found = list(zel.elements(data))
        for i, one in enumerate(found):
            if 1 <= i < len(found) - 1:
                missing = zel.array(data[4 : one.offset] + data[found[i + 1].offset :])
                self.assertRaises(zel.FormatError, zel.decode, missing)
            wide = zel.array(data[4 : one.offset] + zel.element(one.id, one.value + b"\0") + data[one.offset + 4 + len(one.value) :])
            self.assertRaises(zel.FormatError, zel.decode, wide)
        for size in range(len(data)):
            self.assertRaises(zel.FormatError, zel.decode, data[:size])
        self.assertRaises(zel.FormatError, zel.decode, data + b"\0")

    def test_policies_are_built(self):
        web = zel.Match(id=1, param=zel.MatchServiceElement(sip="10.0.0.0", sip_mask="255.0.0.0", dport=80, dport_mask=0xFFFF))
        drop = zel.Action(id=1, param=zel.ActionSetVrf(vrf=9))
        pairs = [zel.MatchActionPair(n, match_group=zel.MatchGrp(n, matches=[web]), action_group=zel.ActionGrp(n, actions=[drop]))
                 for n in (1, 2)]
        policy = zel.Policy(id=7, match_action_pair_group=zel.MatchActionPairGrp(pairs))
        data = zel.encode(zel.policy_update(policy, app=3))
        message = zel.decode(data)
        self.assertEqual((message.kind, message.header.app_type, message.header.policy_id), ("policy_update", 3, 7))
        shared = message.object.match_action_pair_group.pairs
        self.assertIs(shared[0].match_group.matches[0], shared[1].match_group.matches[0])
        self.assertEqual(zel.name_of(zel.Match, "type", shared[0].match_group.matches[0].type), "service_element")
        self.assertEqual(str(shared[0].match_group.matches[0].param.sip), "10.0.0.0")
        pairs[1].match_group.matches = [zel.Match(id=1, type=11)]
        self.assertRaises(zel.FormatError, zel.encode, zel.policy_update(policy))
        self.assertRaises(zel.FormatError, zel.encode, zel.policy_update(zel.Policy(id=70000)))

    def test_captures_and_answers(self):
        for order in "<>":
            policies = zel.encode(zel.policy_update(zel.Policy(id=4)), order) * 2
            status = zel.array(zel.element(212, write_record("application", order, app_type=3, pairs=5), order), order)
            payloads = [zel.encode(zel.policy_delete(4), order), answer(statistics(order), order), answer(policies, order),
                        answer(error=3, order=order), answer(status, order)]
            data = capture([({"kind": 1 + (i > 0), "number": i, "pid": 77}, p) for i, p in enumerate(payloads)], order)
            packets = list(zel.read_capture(io.BytesIO(data)))
            self.assertEqual([p.payload for p in packets], payloads)
            self.assertEqual({(p.time_ns, p.pid, p.is_cut, p.opcode_name) for p in packets}, {(TIME_NS, 77, False, "request")})
            self.assertTrue(packets[0].is_request and not packets[1].is_request)
            answers = [zel.read_answer(p.payload, p.order) for p in packets[1:]]
            entry = answers[0].statistics()["entries"][1]
            self.assertEqual((entry["ids"][:2], entry["stats"][0]), ([7, 2], {"counter1": 1 << 40, "counter2": 200}))
            self.assertEqual([m.object.id for m in answers[1].messages()], [4, 4])
            self.assertEqual((answers[2].error, answers[2].retval, answers[2].text), (3, -1, "done"))
            self.assertEqual(answers[3].records(), [{"record": "application", "app_type": 3, "policies": 0, "pairs": 5}])
            for size in (1, 8, 11, 40, 100, len(data) - 1):
                self.assertRaises(zel.FormatError, list, zel.read_capture(io.BytesIO(data[:size])))


if __name__ == "__main__":
    unittest.main()
