"""Printed from the wire description by scripts/generate. Do not edit."""

from __future__ import annotations

from dataclasses import dataclass, field
from ipaddress import IPv4Address
from typing import ClassVar, Dict, List, Optional, Union

from .rows import Choice, Embedded, Field, Layout, Part, Row, Sequence

FINGERPRINT = "04ebd433a981628c"
CAPTURE_MAGIC = 0x5a454c01
REFERENCE_TYPE = 158
REFERENCE_ID = 157

OPCODES: Dict[int, str] = {
    0x1cc02: "request",
    0x1cc04: "multi-part request",
    0x1cc12: "show",
    0x1cc14: "traffic",
    0x1cc16: "explain",
    0x1cc18: "list",
    0x1cc1a: "change",
    0x1cc20: "status",
    0x1cc22: "watch",
}


@dataclass
class KobHeader(Row):
    name: ClassVar[str] = "kob_header"
    start: ClassVar[int] = 1
    end: ClassVar[int] = 2
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    api_type: int = 0
    app_type: int = 0
    policy_id: int = 0
    op_code: int = 0


KobHeader.members = (
    Field("api_type", 4, 4, "number", {1: "policy_list_update", 2: "policy_update", 3: "match_action_pair_group_update", 4: "match_action_pair_update", 5: "match_group_update", 6: "action_group_update", 7: "match_update", 8: "action_update", 9: "interface_group_update", 10: "policy_delete", 11: "stats_pull"}, 1),
    Field("app_type", 5, 4, "number", {}, 1),
    Field("policy_id", 6, 2, "number", {}, 1),
    Field("op_code", 7, 4, "number", {1: "set", 2: "remove", 3: "stats"}, 1),
)


@dataclass
class MatchAcl(Row):
    name: ClassVar[str] = "match_acl"
    start: ClassVar[int] = 29
    end: ClassVar[int] = 30
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    acl: bytes = b""


MatchAcl.members = (
    Field("acl", 31, 65, "text", {}, 1),
)


@dataclass
class MatchLabel(Row):
    name: ClassVar[str] = "match_label"
    start: ClassVar[int] = 32
    end: ClassVar[int] = 33
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    eth_type: int = 0
    encap_flag: int = 0
    encap_tunnel_sip: IPv4Address = IPv4Address(0)
    encap_tunnel_dip: IPv4Address = IPv4Address(0)
    length: int = 0
    label: bytes = b""


MatchLabel.members = (
    Field("eth_type", 34, 2, "hexadecimal", {}, 1),
    Field("encap_flag", 35, 4, "number", {}, 1),
    Field("encap_tunnel_sip", 36, 4, "ipv4", {}, 1),
    Field("encap_tunnel_dip", 37, 4, "ipv4", {}, 1),
    Field("length", 38, 2, "number", {}, 1),
    Field("label", 39, 64, "text", {}, 1),
)


@dataclass
class MatchServiceElement(Row):
    name: ClassVar[str] = "match_service_element"
    start: ClassVar[int] = 9
    end: ClassVar[int] = 10
    mat_type: ClassVar[int] = 6
    is_shareable: ClassVar[bool] = False
    sip: IPv4Address = IPv4Address(0)
    sip_mask: IPv4Address = IPv4Address(0)
    dip: IPv4Address = IPv4Address(0)
    dip_mask: IPv4Address = IPv4Address(0)
    sport: int = 0
    sport_mask: int = 0
    dport: int = 0
    dport_mask: int = 0
    protocol: int = 0


MatchServiceElement.members = (
    Field("sip", 11, 4, "ipv4", {}, 1),
    Field("sip_mask", 12, 4, "ipv4", {}, 1),
    Field("dip", 13, 4, "ipv4", {}, 1),
    Field("dip_mask", 14, 4, "ipv4", {}, 1),
    Field("sport", 15, 2, "number", {}, 1),
    Field("sport_mask", 16, 2, "hexadecimal", {}, 1),
    Field("dport", 17, 2, "number", {}, 1),
    Field("dport_mask", 18, 2, "hexadecimal", {}, 1),
    Field("protocol", 19, 1, "number", {0: "any", 1: "icmp", 2: "igmp", 6: "tcp", 17: "udp", 47: "gre", 50: "esp", 51: "ah", 89: "ospf", 103: "pim", 132: "sctp"}, 1),
)


@dataclass
class MatchService(Row):
    name: ClassVar[str] = "match_service"
    start: ClassVar[int] = 20
    end: ClassVar[int] = 21
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    elements: List[MatchServiceElement] = field(default_factory=list)


MatchService.members = (
    Sequence("elements", "num_elements", 22, 2, MatchServiceElement),
)


@dataclass
class MatchEthProto(Row):
    name: ClassVar[str] = "match_eth_proto"
    start: ClassVar[int] = 40
    end: ClassVar[int] = 41
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    type: int = 0


MatchEthProto.members = (
    Field("type", 42, 2, "hexadecimal", {}, 1),
)


@dataclass
class MatchArpOpcode(Row):
    name: ClassVar[str] = "match_arp_opcode"
    start: ClassVar[int] = 43
    end: ClassVar[int] = 44
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    opcode: int = 0


MatchArpOpcode.members = (
    Field("opcode", 45, 4, "number", {}, 1),
)


@dataclass
class MatchExp(Row):
    name: ClassVar[str] = "match_exp"
    start: ClassVar[int] = 46
    end: ClassVar[int] = 47
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    exp: int = 0


MatchExp.members = (
    Field("exp", 48, 1, "number", {}, 1),
)


@dataclass
class MatchLispProto(Row):
    name: ClassVar[str] = "match_lisp_proto"
    start: ClassVar[int] = 49
    end: ClassVar[int] = 50
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    udp_port: int = 0
    destination_rloc: IPv4Address = IPv4Address(0)


MatchLispProto.members = (
    Field("udp_port", 51, 2, "number", {}, 1),
    Field("destination_rloc", 52, 4, "ipv4", {}, 1),
)


@dataclass
class MatchLispInst(Row):
    name: ClassVar[str] = "match_lisp_inst"
    start: ClassVar[int] = 53
    end: ClassVar[int] = 54
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    inst_id: int = 0


MatchLispInst.members = (
    Field("inst_id", 55, 4, "number", {}, 1),
)


@dataclass
class Match(Row):
    name: ClassVar[str] = "match"
    start: ClassVar[int] = 23
    end: ClassVar[int] = 24
    mat_type: ClassVar[int] = 8
    is_shareable: ClassVar[bool] = True
    op_mode: int = 0
    id: int = 0
    pre_match_id: int = 0
    type: int = 0
    param: Optional[Union[MatchAcl, MatchLabel, MatchService, MatchServiceElement, MatchEthProto, MatchArpOpcode, MatchExp, MatchLispProto, MatchLispInst]] = None


Match.members = (
    Field("op_mode", 25, 4, "number", {0: "active", 1: "disabled"}, 1),
    Field("id", 26, 2, "number", {}, 1),
    Field("pre_match_id", 27, 2, "number", {}, 1),
    Field("type", 28, 4, "number", {1: "acl", 3: "label", 4: "service", 5: "service_element", 6: "eth_proto", 7: "arp_opcode", 8: "exp", 9: "lisp_proto", 10: "lisp_inst", 2: "acl_ipv6", 11: "no_param"}, 1),
    Choice("param", "type", {1: MatchAcl, 3: MatchLabel, 4: MatchService, 5: MatchServiceElement, 6: MatchEthProto, 7: MatchArpOpcode, 8: MatchExp, 9: MatchLispProto, 10: MatchLispInst}),
)


@dataclass
class MatchGrp(Row):
    name: ClassVar[str] = "match_grp"
    start: ClassVar[int] = 101
    end: ClassVar[int] = 102
    mat_type: ClassVar[int] = 10
    is_shareable: ClassVar[bool] = False
    id: int = 0
    op_mode: int = 0
    logical_op: int = 0
    matches: List[Match] = field(default_factory=list)


MatchGrp.members = (
    Field("id", 103, 2, "number", {}, 1),
    Field("op_mode", 104, 4, "number", {0: "active", 1: "disabled"}, 1),
    Field("logical_op", 105, 4, "number", {0: "and", 1: "or"}, 1),
    Sequence("matches", "num_match", 106, 2, Match),
)


@dataclass
class ActionLabelParam(Row):
    name: ClassVar[str] = "action_label_param"
    start: ClassVar[int] = 56
    end: ClassVar[int] = 57
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    label_length: int = 0
    label: bytes = b""


ActionLabelParam.members = (
    Field("label_length", 58, 1, "number", {}, 1),
    Field("label", 59, 64, "text", {}, 1),
)


@dataclass
class L2RedirectIpv4(Row):
    name: ClassVar[str] = "l2_redirect_ipv4"
    start: ClassVar[int] = 65
    end: ClassVar[int] = 66
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    vrf: int = 0
    r_table_id: int = 0
    dip: IPv4Address = IPv4Address(0)
    smac: bytes = bytes(6)
    dmac: bytes = bytes(6)
    dest_if: int = 0


L2RedirectIpv4.members = (
    Field("vrf", 67, 4, "number", {}, 1),
    Field("r_table_id", 68, 4, "number", {}, 1),
    Field("dip", 69, 4, "ipv4", {}, 1),
    Field("smac", 70, 6, "mac", {}, 1),
    Field("dmac", 71, 6, "mac", {}, 1),
    Field("dest_if", 72, 4, "number", {}, 1),
)


@dataclass
class L3RedirectIpv4(Row):
    name: ClassVar[str] = "l3_redirect_ipv4"
    start: ClassVar[int] = 73
    end: ClassVar[int] = 74
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    vrf: int = 0
    r_table_id: int = 0
    sip: IPv4Address = IPv4Address(0)
    dip: IPv4Address = IPv4Address(0)


L3RedirectIpv4.members = (
    Field("vrf", 75, 4, "number", {}, 1),
    Field("r_table_id", 76, 4, "number", {}, 1),
    Field("sip", 77, 4, "ipv4", {}, 1),
    Field("dip", 78, 4, "ipv4", {}, 1),
)


@dataclass
class ActionParamRedirect(Row):
    name: ClassVar[str] = "action_param_redirect"
    start: ClassVar[int] = 79
    end: ClassVar[int] = 80
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    type: int = 0
    encap_flag: int = 0
    insert_label: int = 0
    label_param: ActionLabelParam = field(default_factory=lambda: ActionLabelParam())
    etype: int = 0
    param: Optional[Union[L2RedirectIpv4, L3RedirectIpv4]] = None


ActionParamRedirect.members = (
    Field("type", 81, 4, "number", {1: "l2_ipv4", 2: "l3_ipv4"}, 1),
    Field("encap_flag", 82, 4, "number", {}, 1),
    Field("insert_label", 83, 4, "number", {}, 1),
    Embedded("label_param", ActionLabelParam),
    Field("etype", 84, 2, "hexadecimal", {}, 1),
    Choice("param", "type", {1: L2RedirectIpv4, 2: L3RedirectIpv4}),
)


@dataclass
class ActionNatRewrite(Row):
    name: ClassVar[str] = "action_nat_rewrite"
    start: ClassVar[int] = 85
    end: ClassVar[int] = 86
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    src_ip: IPv4Address = IPv4Address(0)
    dst_ip: IPv4Address = IPv4Address(0)
    src_port: int = 0
    dst_port: int = 0


ActionNatRewrite.members = (
    Field("src_ip", 87, 4, "ipv4", {}, 1),
    Field("dst_ip", 88, 4, "ipv4", {}, 1),
    Field("src_port", 89, 2, "number", {}, 1),
    Field("dst_port", 90, 2, "number", {}, 1),
)


@dataclass
class ActionSetVrf(Row):
    name: ClassVar[str] = "action_set_vrf"
    start: ClassVar[int] = 159
    end: ClassVar[int] = 160
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    vrf: int = 0


ActionSetVrf.members = (
    Field("vrf", 161, 4, "number", {}, 1),
)


@dataclass
class ActionLispDecapsulation(Row):
    name: ClassVar[str] = "action_lisp_decapsulation"
    start: ClassVar[int] = 91
    end: ClassVar[int] = 92
    mat_type: ClassVar[int] = 0
    is_shareable: ClassVar[bool] = False
    if_index: int = 0


ActionLispDecapsulation.members = (
    Field("if_index", 95, 4, "number", {}, 1),
)


@dataclass
class Action(Row):
    name: ClassVar[str] = "action"
    start: ClassVar[int] = 96
    end: ClassVar[int] = 97
    mat_type: ClassVar[int] = 7
    is_shareable: ClassVar[bool] = True
    op_mode: int = 0
    id: int = 0
    type: int = 0
    param: Optional[Union[ActionParamRedirect, ActionNatRewrite, ActionSetVrf, ActionLispDecapsulation]] = None


Action.members = (
    Field("op_mode", 98, 4, "number", {0: "active", 1: "disabled"}, 1),
    Field("id", 99, 2, "number", {}, 1),
    Field("type", 100, 4, "number", {3: "redirect", 6: "nat_rewrite", 7: "set_vrf", 8: "lisp_decapsulation"}, 1),
    Choice("param", "type", {3: ActionParamRedirect, 6: ActionNatRewrite, 7: ActionSetVrf, 8: ActionLispDecapsulation}),
)


@dataclass
class ActionGrp(Row):
    name: ClassVar[str] = "action_grp"
    start: ClassVar[int] = 60
    end: ClassVar[int] = 61
    mat_type: ClassVar[int] = 9
    is_shareable: ClassVar[bool] = False
    id: int = 0
    op_mode: int = 0
    actions: List[Action] = field(default_factory=list)


ActionGrp.members = (
    Field("id", 62, 2, "number", {}, 1),
    Field("op_mode", 63, 4, "number", {0: "active", 1: "disabled"}, 1),
    Sequence("actions", "num_action", 64, 2, Action),
)


@dataclass
class MatchActionPair(Row):
    name: ClassVar[str] = "match_action_pair"
    start: ClassVar[int] = 107
    end: ClassVar[int] = 108
    mat_type: ClassVar[int] = 11
    is_shareable: ClassVar[bool] = False
    id: int = 0
    op_mode: int = 0
    pre_pair_id: int = 0
    match_group: MatchGrp = field(default_factory=lambda: MatchGrp())
    action_group: ActionGrp = field(default_factory=lambda: ActionGrp())


MatchActionPair.members = (
    Field("id", 110, 2, "number", {}, 1),
    Field("op_mode", 111, 4, "number", {0: "active", 1: "disabled"}, 1),
    Field("pre_pair_id", 112, 2, "number", {}, 1),
    Embedded("match_group", MatchGrp),
    Embedded("action_group", ActionGrp),
)


@dataclass
class MatchActionPairGrp(Row):
    name: ClassVar[str] = "match_action_pair_grp"
    start: ClassVar[int] = 113
    end: ClassVar[int] = 114
    mat_type: ClassVar[int] = 12
    is_shareable: ClassVar[bool] = False
    pairs: List[MatchActionPair] = field(default_factory=list)


MatchActionPairGrp.members = (
    Sequence("pairs", "num_pair", 115, 2, MatchActionPair),
)


@dataclass
class IfElement(Row):
    name: ClassVar[str] = "if_element"
    start: ClassVar[int] = 128
    end: ClassVar[int] = 129
    mat_type: ClassVar[int] = 4
    is_shareable: ClassVar[bool] = False
    op_mode: int = 0
    direction: int = 0
    interface: int = 0
    vlan: int = 0
    vrf: int = 0


IfElement.members = (
    Field("op_mode", 130, 4, "number", {0: "active", 1: "disabled"}, 1),
    Field("direction", 131, 4, "number", {}, 1),
    Field("interface", 132, 4, "number", {}, 1),
    Field("vlan", 133, 2, "number", {}, 1),
    Field("vrf", 134, 4, "number", {}, 1),
)


@dataclass
class IfGroup(Row):
    name: ClassVar[str] = "if_group"
    start: ClassVar[int] = 125
    end: ClassVar[int] = 126
    mat_type: ClassVar[int] = 5
    is_shareable: ClassVar[bool] = False
    if_elements: List[IfElement] = field(default_factory=list)


IfGroup.members = (
    Sequence("if_elements", "num_if", 127, 2, IfElement),
)


@dataclass
class Policy(Row):
    name: ClassVar[str] = "policy"
    start: ClassVar[int] = 116
    end: ClassVar[int] = 117
    mat_type: ClassVar[int] = 13
    is_shareable: ClassVar[bool] = False
    version: int = 0
    id: int = 0
    op_mode: int = 0
    app_type: int = 0
    match_action_pair_group: MatchActionPairGrp = field(default_factory=lambda: MatchActionPairGrp())
    if_group: IfGroup = field(default_factory=lambda: IfGroup())


Policy.members = (
    Field("version", 118, 2, "number", {}, 1),
    Field("id", 119, 2, "number", {}, 1),
    Field("op_mode", 120, 4, "number", {0: "active", 1: "disabled"}, 1),
    Field("app_type", 121, 4, "number", {}, 1),
    Embedded("match_action_pair_group", MatchActionPairGrp),
    Embedded("if_group", IfGroup),
)


@dataclass
class PolicyList(Row):
    name: ClassVar[str] = "policy_list"
    start: ClassVar[int] = 122
    end: ClassVar[int] = 123
    mat_type: ClassVar[int] = 14
    is_shareable: ClassVar[bool] = False
    policies: List[Policy] = field(default_factory=list)


PolicyList.members = (
    Sequence("policies", "num_policy", 124, 2, Policy),
)


@dataclass
class StatRequestEntry(Row):
    name: ClassVar[str] = "stat_request_entry"
    start: ClassVar[int] = 138
    end: ClassVar[int] = 139
    mat_type: ClassVar[int] = 2
    is_shareable: ClassVar[bool] = False
    interface: int = 0
    vlan: int = 0
    vrf: int = 0
    policy_id: int = 0
    match_action_pair_id: int = 0
    flag: int = 0


StatRequestEntry.members = (
    Field("interface", 140, 4, "number", {}, 1),
    Field("vlan", 141, 2, "number", {}, 1),
    Field("vrf", 142, 4, "number", {}, 1),
    Field("policy_id", 143, 2, "number", {65535: "all"}, 1),
    Field("match_action_pair_id", 144, 2, "number", {65535: "all"}, 1),
    Field("flag", 145, 4, "number", {0: "none", 1: "clear"}, 1),
)


@dataclass
class StatRequest(Row):
    name: ClassVar[str] = "stat_request"
    start: ClassVar[int] = 135
    end: ClassVar[int] = 136
    mat_type: ClassVar[int] = 3
    is_shareable: ClassVar[bool] = False
    requests: List[StatRequestEntry] = field(default_factory=list)


StatRequest.members = (
    Sequence("requests", "num_requests", 137, 4, StatRequestEntry),
)


OBJECTS: Dict[int, type[Row]] = {
    1: PolicyList, # policy_list_update
    2: Policy, # policy_update
    3: MatchActionPairGrp, # match_action_pair_group_update
    4: MatchActionPair, # match_action_pair_update
    5: MatchGrp, # match_group_update
    6: ActionGrp, # action_group_update
    7: Match, # match_update
    8: Action, # action_update
    9: IfGroup, # interface_group_update
    10: Policy, # policy_delete
    11: StatRequest, # stats_pull
}

# The class of each start marker.
STARTS: Dict[int, type[Row]] = {
    1: KobHeader,
    122: PolicyList,
    116: Policy,
    113: MatchActionPairGrp,
    107: MatchActionPair,
    101: MatchGrp,
    23: Match,
    29: MatchAcl,
    32: MatchLabel,
    20: MatchService,
    9: MatchServiceElement,
    40: MatchEthProto,
    43: MatchArpOpcode,
    46: MatchExp,
    49: MatchLispProto,
    53: MatchLispInst,
    60: ActionGrp,
    96: Action,
    79: ActionParamRedirect,
    56: ActionLabelParam,
    65: L2RedirectIpv4,
    73: L3RedirectIpv4,
    85: ActionNatRewrite,
    159: ActionSetVrf,
    91: ActionLispDecapsulation,
    125: IfGroup,
    128: IfElement,
    135: StatRequest,
    138: StatRequestEntry,
}

LAYOUTS: Dict[str, Layout] = {
    "frame": Layout(32, (
        Part("magic", 0, 0, 4, 1, "hexadecimal", "", False, False, {}),
        Part("kind", 0, 4, 2, 1, "number", "", False, False, {1: "request", 2: "response", 3: "refusal"}),
        Part("in_parts", 0, 6, 2, 1, "number", "", False, False, {}),
        Part("token", 0, 8, 4, 1, "number", "", False, False, {}),
        Part("opcode", 0, 12, 4, 1, "hexadecimal", "", False, False, {117762: "request", 117764: "multi-part request", 117778: "show", 117780: "traffic", 117782: "explain", 117784: "list", 117786: "change", 117792: "status", 117794: "watch"}),
        Part("node", 0, 16, 4, 1, "number", "", False, False, {}),
        Part("sap", 0, 20, 4, 1, "number", "", False, False, {}),
        Part("total", 0, 24, 4, 1, "number", "", False, False, {}),
        Part("offset", 0, 28, 4, 1, "number", "", False, False, {}),
    )),
    "capture": Layout(40, (
        Part("magic", 0, 0, 4, 1, "hexadecimal", "", False, False, {}),
        Part("kind", 0, 4, 2, 1, "number", "", False, False, {1: "request", 2: "response", 3: "refusal"}),
        Part("in_parts", 0, 6, 2, 1, "number", "", False, False, {}),
        Part("number", 0, 8, 4, 1, "number", "", False, False, {}),
        Part("client", 0, 12, 4, 1, "number", "", False, False, {}),
        Part("pid", 0, 16, 4, 1, "number", "", False, False, {}),
        Part("uid", 0, 20, 4, 1, "number", "", False, False, {}),
        Part("opcode", 0, 24, 4, 1, "hexadecimal", "", False, False, {117762: "request", 117764: "multi-part request", 117778: "show", 117780: "traffic", 117782: "explain", 117784: "list", 117786: "change", 117792: "status", 117794: "watch"}),
        Part("node", 0, 28, 4, 1, "number", "", False, False, {}),
        Part("sap", 0, 32, 4, 1, "number", "", False, False, {}),
        Part("total", 0, 36, 4, 1, "number", "", False, False, {}),
    )),
    "response": Layout(268, (
        Part("status", 0, 0, 4, 1, "number", "", False, False, {1: "ok", 2: "failed"}),
        Part("error", 0, 4, 4, 1, "number", "", False, False, {0: "none", 1: "malformed", 2: "unsupported", 3: "not found", 4: "conflict", 5: "storage", 6: "limit", 7: "denied"}),
        Part("retval", 0, 8, 4, 1, "number", "", False, True, {}),
        Part("msg", 0, 12, 256, 1, "text", "", False, False, {}),
    )),
    "show_request": Layout(8, (
        Part("app_type", 0, 0, 4, 1, "number", "", False, False, {}),
        Part("policy_id", 0, 4, 4, 1, "number", "", False, False, {}),
    )),
    "packet_header": Layout(104, (
        Part("sip", 0, 0, 4, 1, "ipv4", "", False, False, {}),
        Part("dip", 0, 4, 4, 1, "ipv4", "", False, False, {}),
        Part("sport", 0, 8, 2, 1, "number", "", False, False, {}),
        Part("dport", 0, 10, 2, 1, "number", "", False, False, {}),
        Part("ether_type", 0, 12, 2, 1, "hexadecimal", "", False, False, {}),
        Part("protocol", 0, 14, 1, 1, "number", "", False, False, {0: "any", 1: "icmp", 2: "igmp", 6: "tcp", 17: "udp", 47: "gre", 50: "esp", 51: "ah", 89: "ospf", 103: "pim", 132: "sctp"}),
        Part("exp", 0, 15, 1, 1, "number", "", False, False, {}),
        Part("arp_opcode", 0, 16, 4, 1, "number", "", False, False, {}),
        Part("lisp_instance", 0, 20, 4, 1, "number", "", False, False, {}),
        Part("interface", 0, 24, 4, 1, "number", "", False, False, {}),
        Part("vrf", 0, 28, 4, 1, "number", "", False, False, {}),
        Part("vlan", 0, 32, 2, 1, "number", "", False, False, {}),
        Part("label_length", 0, 34, 2, 1, "number", "", False, False, {}),
        Part("label", 0, 36, 64, 1, "text", "", False, False, {}),
        Part("bytes", 0, 100, 4, 1, "number", "", False, False, {}),
    )),
    "explain_request": Layout(8, (
        Part("app_type", 0, 0, 4, 1, "number", "", False, False, {}),
        Part("policy_id", 0, 4, 4, 1, "number", "", False, False, {}),
    ), "packet_header"),
    "reason": Layout(96, (
        Part("policy_id", 0, 0, 2, 1, "number", "", False, False, {}),
        Part("pair_id", 0, 2, 2, 1, "number", "", False, False, {}),
        Part("match_id", 0, 4, 2, 1, "number", "", False, False, {}),
        Part("verdict", 0, 6, 1, 1, "number", "", False, False, {0: "took", 1: "no_pair", 2: "never", 3: "field", 4: "label", 5: "interface", 6: "vlan", 7: "vrf"}),
        Part("field", 0, 7, 1, 1, "number", "", False, False, {}),
        Part("found", 0, 8, 4, 1, "hexadecimal", "", False, False, {}),
        Part("wanted", 0, 12, 4, 1, "hexadecimal", "", False, False, {}),
        Part("mask", 0, 16, 4, 1, "hexadecimal", "", False, False, {}),
        Part("last", 0, 20, 4, 1, "number", "", False, False, {}),
        Part("num_elements", 0, 24, 4, 1, "number", "", False, False, {}),
        Part("label_length", 0, 28, 2, 1, "number", "", False, False, {}),
        Part("label", 0, 30, 64, 1, "text", "", False, False, {}),
    )),
    "list_request": Layout(16, (
        Part("app_type", 0, 0, 4, 1, "number", "", False, False, {}),
        Part("first_id", 0, 4, 4, 1, "number", "", False, False, {}),
        Part("most", 0, 8, 4, 1, "number", "", False, False, {}),
        Part("flags", 0, 12, 4, 1, "hexadecimal", "", False, False, {}),
    )),
    "summary": Layout(32, (
        Part("revision", 0, 0, 8, 1, "number", "", False, False, {}),
        Part("op_mode", 0, 8, 4, 1, "number", "", False, False, {0: "active", 1: "disabled"}),
        Part("app_type", 0, 12, 4, 1, "number", "", False, False, {}),
        Part("bytes", 0, 16, 4, 1, "number", "", False, False, {}),
        Part("policy_id", 0, 20, 2, 1, "number", "", False, False, {}),
        Part("version", 0, 22, 2, 1, "number", "", False, False, {}),
        Part("num_pairs", 0, 24, 2, 1, "number", "", False, False, {}),
        Part("num_interfaces", 0, 26, 2, 1, "number", "", False, False, {}),
        Part("application", 0, 28, 4, 1, "number", "", False, False, {}),
    )),
    "change_request": Layout(16, (
        Part("app_type", 0, 0, 4, 1, "number", "", False, False, {}),
        Part("flags", 0, 4, 4, 1, "hexadecimal", "", False, False, {}),
        Part("num_expected", 0, 8, 4, 1, "number", "", False, False, {}),
    ), "expected"),
    "expected": Layout(16, (
        Part("revision", 0, 0, 8, 1, "number", "", False, False, {}),
        Part("policy_id", 0, 8, 4, 1, "number", "", False, False, {}),
    )),
    "message_part": Layout(0, (
    )),
    "policy_frame": Layout(12, (
        Part("op_mode", 0, 0, 4, 1, "number", "", False, False, {0: "active", 1: "disabled"}),
        Part("app_type", 0, 4, 4, 1, "number", "", False, False, {}),
        Part("policy_id", 0, 8, 2, 1, "number", "", False, False, {}),
        Part("version", 0, 10, 2, 1, "number", "", False, False, {}),
    ), "pair_id"),
    "pair_id": Layout(2, (
        Part("pair_id", 0, 0, 2, 1, "number", "", False, False, {}),
    )),
    "status": Layout(168, (
        Part("fingerprint", 0, 0, 8, 1, "hexadecimal", "", False, False, {}),
        Part("started_ns", 0, 8, 8, 1, "number", "", False, False, {}),
        Part("uptime_ns", 0, 16, 8, 1, "number", "", False, False, {}),
        Part("requests", 0, 24, 8, 1, "number", "", False, False, {}),
        Part("refusals", 0, 32, 8, 1, "number", "", False, False, {}),
        Part("policies", 0, 40, 8, 1, "number", "", False, False, {}),
        Part("pairs", 0, 48, 8, 1, "number", "", False, False, {}),
        Part("policy_bytes", 0, 56, 8, 1, "number", "", False, False, {}),
        Part("process_bytes", 0, 64, 8, 1, "number", "", False, False, {}),
        Part("max_message", 0, 72, 8, 1, "number", "", False, False, {}),
        Part("max_policy_bytes", 0, 80, 8, 1, "number", "", False, False, {}),
        Part("kept_messages", 0, 88, 8, 1, "number", "", False, False, {}),
        Part("kept_bytes", 0, 96, 8, 1, "number", "", False, False, {}),
        Part("max_kept_bytes", 0, 104, 8, 1, "number", "", False, False, {}),
        Part("max_clients", 0, 112, 4, 1, "number", "", False, False, {}),
        Part("max_clients_per_user", 0, 116, 4, 1, "number", "", False, False, {}),
        Part("pid", 0, 120, 4, 1, "number", "", False, False, {}),
        Part("clients", 0, 124, 4, 1, "number", "", False, False, {}),
        Part("applications", 0, 128, 4, 1, "number", "", False, False, {}),
        Part("version", 0, 136, 32, 1, "text", "", False, False, {}),
    )),
    "client": Layout(40, (
        Part("client", 0, 0, 4, 1, "number", "", False, False, {}),
        Part("pid", 0, 4, 4, 1, "number", "", False, False, {}),
        Part("uid", 0, 8, 4, 1, "number", "", False, False, {}),
        Part("requests", 0, 16, 8, 1, "number", "", False, False, {}),
        Part("refusals", 0, 24, 8, 1, "number", "", False, False, {}),
        Part("served_ns", 0, 32, 8, 1, "number", "", False, False, {}),
    )),
    "application": Layout(16, (
        Part("app_type", 0, 0, 4, 1, "number", "", False, False, {}),
        Part("policies", 0, 4, 4, 1, "number", "", False, False, {}),
        Part("pairs", 0, 8, 8, 1, "number", "", False, False, {}),
    )),
    "request_count": Layout(48, (
        Part("kind", 0, 0, 32, 1, "text", "", False, False, {}),
        Part("error", 0, 32, 4, 1, "number", "", False, False, {0: "none", 1: "malformed", 2: "unsupported", 3: "not found", 4: "conflict", 5: "storage", 6: "limit", 7: "denied"}),
        Part("requests", 0, 40, 8, 1, "number", "", False, False, {}),
    )),
    "watch": Layout(8, (
        Part("first", 0, 0, 8, 1, "number", "", False, False, {}),
    )),
    "watched": Layout(16, (
        Part("next", 0, 0, 8, 1, "number", "", False, False, {}),
        Part("missed", 0, 8, 8, 1, "number", "", False, False, {}),
    )),
    "stats": Layout(16, (
        Part("counter1", 148, 0, 8, 1, "number", "", False, False, {}),
        Part("counter2", 149, 8, 8, 1, "number", "", False, False, {}),
    )),
    "stat_result_entry": Layout(68, (
        Part("tag", 150, 0, 1, 1, "number", "", False, False, {}),
        Part("key", 151, 4, 4, 1, "number", "", False, False, {}),
        Part("ids", 152, 8, 2, 5, "number", "", False, False, {}),
        Part("stats", 153, 20, 16, 3, "number", "stats", False, False, {}),
    )),
    "stat_results": Layout(16, (
        Part("tag", 154, 0, 1, 1, "number", "", False, False, {}),
        Part("num_entries", 155, 4, 4, 1, "number", "", False, False, {}),
        Part("entries", 156, 8, 0, 1, "number", "stat_result_entry", True, False, {}),
    )),
}

# Elements whose value is a record.
RECORD_ELEMENTS: Dict[int, str] = {
    201: "show_request",
    202: "packet_header",
    203: "explain_request",
    204: "reason",
    205: "list_request",
    206: "summary",
    207: "change_request",
    208: "message_part",
    209: "policy_frame",
    210: "status",
    211: "client",
    212: "application",
    213: "request_count",
    214: "watch",
    215: "watched",
}
