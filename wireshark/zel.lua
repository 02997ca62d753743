-- Printed from the wire description by scripts/generate. Do not edit.

local FINGERPRINT = "04ebd433a981628c"

local ELEMENTS = {
    [1] = {kind = "start", record = "kob_header"},
    [2] = {kind = "end", record = "kob_header"},
    [4] = {kind = "value", record = "kob_header", name = "api_type", width = 4, count = 1, format = "number", names = {[1] = "policy_list_update", [2] = "policy_update", [3] = "match_action_pair_group_update", [4] = "match_action_pair_update", [5] = "match_group_update", [6] = "action_group_update", [7] = "match_update", [8] = "action_update", [9] = "interface_group_update", [10] = "policy_delete", [11] = "stats_pull"}},
    [5] = {kind = "value", record = "kob_header", name = "app_type", width = 4, count = 1, format = "number"},
    [6] = {kind = "value", record = "kob_header", name = "policy_id", width = 2, count = 1, format = "number"},
    [7] = {kind = "value", record = "kob_header", name = "op_code", width = 4, count = 1, format = "number", names = {[1] = "set", [2] = "remove", [3] = "stats"}},
    [9] = {kind = "start", record = "match_service_element"},
    [10] = {kind = "end", record = "match_service_element"},
    [11] = {kind = "value", record = "match_service_element", name = "sip", width = 4, count = 1, format = "ipv4"},
    [12] = {kind = "value", record = "match_service_element", name = "sip_mask", width = 4, count = 1, format = "ipv4"},
    [13] = {kind = "value", record = "match_service_element", name = "dip", width = 4, count = 1, format = "ipv4"},
    [14] = {kind = "value", record = "match_service_element", name = "dip_mask", width = 4, count = 1, format = "ipv4"},
    [15] = {kind = "value", record = "match_service_element", name = "sport", width = 2, count = 1, format = "number"},
    [16] = {kind = "value", record = "match_service_element", name = "sport_mask", width = 2, count = 1, format = "hexadecimal"},
    [17] = {kind = "value", record = "match_service_element", name = "dport", width = 2, count = 1, format = "number"},
    [18] = {kind = "value", record = "match_service_element", name = "dport_mask", width = 2, count = 1, format = "hexadecimal"},
    [19] = {kind = "value", record = "match_service_element", name = "protocol", width = 1, count = 1, format = "number", names = {[0] = "any", [1] = "icmp", [2] = "igmp", [6] = "tcp", [17] = "udp", [47] = "gre", [50] = "esp", [51] = "ah", [89] = "ospf", [103] = "pim", [132] = "sctp"}},
    [20] = {kind = "start", record = "match_service"},
    [21] = {kind = "end", record = "match_service"},
    [22] = {kind = "value", record = "match_service", name = "num_elements", width = 2, count = 1, format = "number"},
    [23] = {kind = "start", record = "match"},
    [24] = {kind = "end", record = "match"},
    [25] = {kind = "value", record = "match", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
    [26] = {kind = "value", record = "match", name = "id", width = 2, count = 1, format = "number"},
    [27] = {kind = "value", record = "match", name = "pre_match_id", width = 2, count = 1, format = "number"},
    [28] = {kind = "value", record = "match", name = "type", width = 4, count = 1, format = "number", names = {[1] = "acl", [3] = "label", [4] = "service", [5] = "service_element", [6] = "eth_proto", [7] = "arp_opcode", [8] = "exp", [9] = "lisp_proto", [10] = "lisp_inst", [2] = "acl_ipv6", [11] = "no_param"}},
    [29] = {kind = "start", record = "match_acl"},
    [30] = {kind = "end", record = "match_acl"},
    [31] = {kind = "value", record = "match_acl", name = "acl", width = 65, count = 1, format = "text"},
    [32] = {kind = "start", record = "match_label"},
    [33] = {kind = "end", record = "match_label"},
    [34] = {kind = "value", record = "match_label", name = "eth_type", width = 2, count = 1, format = "hexadecimal"},
    [35] = {kind = "value", record = "match_label", name = "encap_flag", width = 4, count = 1, format = "number"},
    [36] = {kind = "value", record = "match_label", name = "encap_tunnel_sip", width = 4, count = 1, format = "ipv4"},
    [37] = {kind = "value", record = "match_label", name = "encap_tunnel_dip", width = 4, count = 1, format = "ipv4"},
    [38] = {kind = "value", record = "match_label", name = "length", width = 2, count = 1, format = "number"},
    [39] = {kind = "value", record = "match_label", name = "label", width = 64, count = 1, format = "text"},
    [40] = {kind = "start", record = "match_eth_proto"},
    [41] = {kind = "end", record = "match_eth_proto"},
    [42] = {kind = "value", record = "match_eth_proto", name = "type", width = 2, count = 1, format = "hexadecimal"},
    [43] = {kind = "start", record = "match_arp_opcode"},
    [44] = {kind = "end", record = "match_arp_opcode"},
    [45] = {kind = "value", record = "match_arp_opcode", name = "opcode", width = 4, count = 1, format = "number"},
    [46] = {kind = "start", record = "match_exp"},
    [47] = {kind = "end", record = "match_exp"},
    [48] = {kind = "value", record = "match_exp", name = "exp", width = 1, count = 1, format = "number"},
    [49] = {kind = "start", record = "match_lisp_proto"},
    [50] = {kind = "end", record = "match_lisp_proto"},
    [51] = {kind = "value", record = "match_lisp_proto", name = "udp_port", width = 2, count = 1, format = "number"},
    [52] = {kind = "value", record = "match_lisp_proto", name = "destination_rloc", width = 4, count = 1, format = "ipv4"},
    [53] = {kind = "start", record = "match_lisp_inst"},
    [54] = {kind = "end", record = "match_lisp_inst"},
    [55] = {kind = "value", record = "match_lisp_inst", name = "inst_id", width = 4, count = 1, format = "number"},
    [56] = {kind = "start", record = "action_label_param"},
    [57] = {kind = "end", record = "action_label_param"},
    [58] = {kind = "value", record = "action_label_param", name = "label_length", width = 1, count = 1, format = "number"},
    [59] = {kind = "value", record = "action_label_param", name = "label", width = 64, count = 1, format = "text"},
    [60] = {kind = "start", record = "action_grp"},
    [61] = {kind = "end", record = "action_grp"},
    [62] = {kind = "value", record = "action_grp", name = "id", width = 2, count = 1, format = "number"},
    [63] = {kind = "value", record = "action_grp", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
    [64] = {kind = "value", record = "action_grp", name = "num_action", width = 2, count = 1, format = "number"},
    [65] = {kind = "start", record = "l2_redirect_ipv4"},
    [66] = {kind = "end", record = "l2_redirect_ipv4"},
    [67] = {kind = "value", record = "l2_redirect_ipv4", name = "vrf", width = 4, count = 1, format = "number"},
    [68] = {kind = "value", record = "l2_redirect_ipv4", name = "r_table_id", width = 4, count = 1, format = "number"},
    [69] = {kind = "value", record = "l2_redirect_ipv4", name = "dip", width = 4, count = 1, format = "ipv4"},
    [70] = {kind = "value", record = "l2_redirect_ipv4", name = "smac", width = 6, count = 1, format = "mac"},
    [71] = {kind = "value", record = "l2_redirect_ipv4", name = "dmac", width = 6, count = 1, format = "mac"},
    [72] = {kind = "value", record = "l2_redirect_ipv4", name = "dest_if", width = 4, count = 1, format = "number"},
    [73] = {kind = "start", record = "l3_redirect_ipv4"},
    [74] = {kind = "end", record = "l3_redirect_ipv4"},
    [75] = {kind = "value", record = "l3_redirect_ipv4", name = "vrf", width = 4, count = 1, format = "number"},
    [76] = {kind = "value", record = "l3_redirect_ipv4", name = "r_table_id", width = 4, count = 1, format = "number"},
    [77] = {kind = "value", record = "l3_redirect_ipv4", name = "sip", width = 4, count = 1, format = "ipv4"},
    [78] = {kind = "value", record = "l3_redirect_ipv4", name = "dip", width = 4, count = 1, format = "ipv4"},
    [79] = {kind = "start", record = "action_param_redirect"},
    [80] = {kind = "end", record = "action_param_redirect"},
    [81] = {kind = "value", record = "action_param_redirect", name = "type", width = 4, count = 1, format = "number", names = {[1] = "l2_ipv4", [2] = "l3_ipv4"}},
    [82] = {kind = "value", record = "action_param_redirect", name = "encap_flag", width = 4, count = 1, format = "number"},
    [83] = {kind = "value", record = "action_param_redirect", name = "insert_label", width = 4, count = 1, format = "number"},
    [84] = {kind = "value", record = "action_param_redirect", name = "etype", width = 2, count = 1, format = "hexadecimal"},
    [85] = {kind = "start", record = "action_nat_rewrite"},
    [86] = {kind = "end", record = "action_nat_rewrite"},
    [87] = {kind = "value", record = "action_nat_rewrite", name = "src_ip", width = 4, count = 1, format = "ipv4"},
    [88] = {kind = "value", record = "action_nat_rewrite", name = "dst_ip", width = 4, count = 1, format = "ipv4"},
    [89] = {kind = "value", record = "action_nat_rewrite", name = "src_port", width = 2, count = 1, format = "number"},
    [90] = {kind = "value", record = "action_nat_rewrite", name = "dst_port", width = 2, count = 1, format = "number"},
    [91] = {kind = "start", record = "action_lisp_decapsulation"},
    [92] = {kind = "end", record = "action_lisp_decapsulation"},
    [95] = {kind = "value", record = "action_lisp_decapsulation", name = "if_index", width = 4, count = 1, format = "number"},
    [96] = {kind = "start", record = "action"},
    [97] = {kind = "end", record = "action"},
    [98] = {kind = "value", record = "action", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
    [99] = {kind = "value", record = "action", name = "id", width = 2, count = 1, format = "number"},
    [100] = {kind = "value", record = "action", name = "type", width = 4, count = 1, format = "number", names = {[3] = "redirect", [6] = "nat_rewrite", [7] = "set_vrf", [8] = "lisp_decapsulation"}},
    [101] = {kind = "start", record = "match_grp"},
    [102] = {kind = "end", record = "match_grp"},
    [103] = {kind = "value", record = "match_grp", name = "id", width = 2, count = 1, format = "number"},
    [104] = {kind = "value", record = "match_grp", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
    [105] = {kind = "value", record = "match_grp", name = "logical_op", width = 4, count = 1, format = "number", names = {[0] = "and", [1] = "or"}},
    [106] = {kind = "value", record = "match_grp", name = "num_match", width = 2, count = 1, format = "number"},
    [107] = {kind = "start", record = "match_action_pair"},
    [108] = {kind = "end", record = "match_action_pair"},
    [110] = {kind = "value", record = "match_action_pair", name = "id", width = 2, count = 1, format = "number"},
    [111] = {kind = "value", record = "match_action_pair", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
    [112] = {kind = "value", record = "match_action_pair", name = "pre_pair_id", width = 2, count = 1, format = "number"},
    [113] = {kind = "start", record = "match_action_pair_grp"},
    [114] = {kind = "end", record = "match_action_pair_grp"},
    [115] = {kind = "value", record = "match_action_pair_grp", name = "num_pair", width = 2, count = 1, format = "number"},
    [116] = {kind = "start", record = "policy"},
    [117] = {kind = "end", record = "policy"},
    [118] = {kind = "value", record = "policy", name = "version", width = 2, count = 1, format = "number"},
    [119] = {kind = "value", record = "policy", name = "id", width = 2, count = 1, format = "number"},
    [120] = {kind = "value", record = "policy", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
    [121] = {kind = "value", record = "policy", name = "app_type", width = 4, count = 1, format = "number"},
    [122] = {kind = "start", record = "policy_list"},
    [123] = {kind = "end", record = "policy_list"},
    [124] = {kind = "value", record = "policy_list", name = "num_policy", width = 2, count = 1, format = "number"},
    [125] = {kind = "start", record = "if_group"},
    [126] = {kind = "end", record = "if_group"},
    [127] = {kind = "value", record = "if_group", name = "num_if", width = 2, count = 1, format = "number"},
    [128] = {kind = "start", record = "if_element"},
    [129] = {kind = "end", record = "if_element"},
    [130] = {kind = "value", record = "if_element", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
    [131] = {kind = "value", record = "if_element", name = "direction", width = 4, count = 1, format = "number"},
    [132] = {kind = "value", record = "if_element", name = "interface", width = 4, count = 1, format = "number"},
    [133] = {kind = "value", record = "if_element", name = "vlan", width = 2, count = 1, format = "number"},
    [134] = {kind = "value", record = "if_element", name = "vrf", width = 4, count = 1, format = "number"},
    [135] = {kind = "start", record = "stat_request"},
    [136] = {kind = "end", record = "stat_request"},
    [137] = {kind = "value", record = "stat_request", name = "num_requests", width = 4, count = 1, format = "number"},
    [138] = {kind = "start", record = "stat_request_entry"},
    [139] = {kind = "end", record = "stat_request_entry"},
    [140] = {kind = "value", record = "stat_request_entry", name = "interface", width = 4, count = 1, format = "number"},
    [141] = {kind = "value", record = "stat_request_entry", name = "vlan", width = 2, count = 1, format = "number"},
    [142] = {kind = "value", record = "stat_request_entry", name = "vrf", width = 4, count = 1, format = "number"},
    [143] = {kind = "value", record = "stat_request_entry", name = "policy_id", width = 2, count = 1, format = "number", names = {[65535] = "all"}},
    [144] = {kind = "value", record = "stat_request_entry", name = "match_action_pair_id", width = 2, count = 1, format = "number", names = {[65535] = "all"}},
    [145] = {kind = "value", record = "stat_request_entry", name = "flag", width = 4, count = 1, format = "number", names = {[0] = "none", [1] = "clear"}},
    [148] = {kind = "value", record = "stats", name = "counter1", width = 8, count = 1, format = "number"},
    [149] = {kind = "value", record = "stats", name = "counter2", width = 8, count = 1, format = "number"},
    [150] = {kind = "value", record = "stat_result_entry", name = "tag", width = 1, count = 1, format = "number"},
    [151] = {kind = "value", record = "stat_result_entry", name = "key", width = 4, count = 1, format = "number"},
    [152] = {kind = "value", record = "stat_result_entry", name = "ids", width = 2, count = 5, format = "number"},
    [153] = {kind = "value", record = "stat_result_entry", name = "stats", width = 16, count = 3, format = "number", layout = "stats"},
    [154] = {kind = "value", record = "stat_results", name = "tag", width = 1, count = 1, format = "number"},
    [155] = {kind = "value", record = "stat_results", name = "num_entries", width = 4, count = 1, format = "number"},
    [156] = {kind = "value", record = "stat_results", name = "entries", width = 0, count = 1, format = "number", layout = "stat_result_entry", is_array = true},
    [157] = {kind = "value", record = "reference", name = "mat_id", width = 2, count = 1, format = "number"},
    [158] = {kind = "value", record = "reference", name = "mat_type", width = 4, count = 1, format = "number"},
    [159] = {kind = "start", record = "action_set_vrf"},
    [160] = {kind = "end", record = "action_set_vrf"},
    [161] = {kind = "value", record = "action_set_vrf", name = "vrf", width = 4, count = 1, format = "number"},
    [201] = {kind = "value", record = "show_request", name = "show_request", width = 8, count = 1, format = "number", layout = "show_request"},
    [202] = {kind = "value", record = "packet_header", name = "packet_header", width = 104, count = 1, format = "number", layout = "packet_header"},
    [203] = {kind = "value", record = "explain_request", name = "explain_request", width = 8, count = 1, format = "number", layout = "explain_request"},
    [204] = {kind = "value", record = "reason", name = "reason", width = 96, count = 1, format = "number", layout = "reason"},
    [205] = {kind = "value", record = "list_request", name = "list_request", width = 16, count = 1, format = "number", layout = "list_request"},
    [206] = {kind = "value", record = "summary", name = "summary", width = 32, count = 1, format = "number", layout = "summary"},
    [207] = {kind = "value", record = "change_request", name = "change_request", width = 16, count = 1, format = "number", layout = "change_request"},
    [208] = {kind = "value", record = "message_part", name = "message_part", width = 0, count = 1, format = "number", layout = "message_part"},
    [209] = {kind = "value", record = "policy_frame", name = "policy_frame", width = 12, count = 1, format = "number", layout = "policy_frame"},
    [210] = {kind = "value", record = "status", name = "status", width = 168, count = 1, format = "number", layout = "status"},
    [211] = {kind = "value", record = "client", name = "client", width = 40, count = 1, format = "number", layout = "client"},
    [212] = {kind = "value", record = "application", name = "application", width = 16, count = 1, format = "number", layout = "application"},
    [213] = {kind = "value", record = "request_count", name = "request_count", width = 48, count = 1, format = "number", layout = "request_count"},
    [214] = {kind = "value", record = "watch", name = "watch", width = 8, count = 1, format = "number", layout = "watch"},
    [215] = {kind = "value", record = "watched", name = "watched", width = 16, count = 1, format = "number", layout = "watched"},
}

-- Records that travel whole.
local LAYOUTS = {
    frame = {size = 32, fields = {
        {offset = 0, record = "frame", name = "magic", width = 4, count = 1, format = "hexadecimal"},
        {offset = 4, record = "frame", name = "kind", width = 2, count = 1, format = "number", names = {[1] = "request", [2] = "response", [3] = "refusal"}},
        {offset = 6, record = "frame", name = "in_parts", width = 2, count = 1, format = "number"},
        {offset = 8, record = "frame", name = "token", width = 4, count = 1, format = "number"},
        {offset = 12, record = "frame", name = "opcode", width = 4, count = 1, format = "hexadecimal", names = {[117762] = "request", [117764] = "multi-part request", [117778] = "show", [117780] = "traffic", [117782] = "explain", [117784] = "list", [117786] = "change", [117792] = "status", [117794] = "watch"}},
        {offset = 16, record = "frame", name = "node", width = 4, count = 1, format = "number"},
        {offset = 20, record = "frame", name = "sap", width = 4, count = 1, format = "number"},
        {offset = 24, record = "frame", name = "total", width = 4, count = 1, format = "number"},
        {offset = 28, record = "frame", name = "offset", width = 4, count = 1, format = "number"},
    }},
    capture = {size = 40, fields = {
        {offset = 0, record = "capture", name = "magic", width = 4, count = 1, format = "hexadecimal"},
        {offset = 4, record = "capture", name = "kind", width = 2, count = 1, format = "number", names = {[1] = "request", [2] = "response", [3] = "refusal"}},
        {offset = 6, record = "capture", name = "in_parts", width = 2, count = 1, format = "number"},
        {offset = 8, record = "capture", name = "number", width = 4, count = 1, format = "number"},
        {offset = 12, record = "capture", name = "client", width = 4, count = 1, format = "number"},
        {offset = 16, record = "capture", name = "pid", width = 4, count = 1, format = "number"},
        {offset = 20, record = "capture", name = "uid", width = 4, count = 1, format = "number"},
        {offset = 24, record = "capture", name = "opcode", width = 4, count = 1, format = "hexadecimal", names = {[117762] = "request", [117764] = "multi-part request", [117778] = "show", [117780] = "traffic", [117782] = "explain", [117784] = "list", [117786] = "change", [117792] = "status", [117794] = "watch"}},
        {offset = 28, record = "capture", name = "node", width = 4, count = 1, format = "number"},
        {offset = 32, record = "capture", name = "sap", width = 4, count = 1, format = "number"},
        {offset = 36, record = "capture", name = "total", width = 4, count = 1, format = "number"},
    }},
    response = {size = 268, fields = {
        {offset = 0, record = "response", name = "status", width = 4, count = 1, format = "number", names = {[1] = "ok", [2] = "failed"}},
        {offset = 4, record = "response", name = "error", width = 4, count = 1, format = "number", names = {[0] = "none", [1] = "malformed", [2] = "unsupported", [3] = "not found", [4] = "conflict", [5] = "storage", [6] = "limit", [7] = "denied"}},
        {offset = 8, record = "response", name = "retval", width = 4, count = 1, format = "number", is_signed = true},
        {offset = 12, record = "response", name = "msg", width = 256, count = 1, format = "text"},
    }},
    show_request = {size = 8, fields = {
        {offset = 0, record = "show_request", name = "app_type", width = 4, count = 1, format = "number"},
        {offset = 4, record = "show_request", name = "policy_id", width = 4, count = 1, format = "number"},
    }},
    packet_header = {size = 104, fields = {
        {offset = 0, record = "packet_header", name = "sip", width = 4, count = 1, format = "ipv4"},
        {offset = 4, record = "packet_header", name = "dip", width = 4, count = 1, format = "ipv4"},
        {offset = 8, record = "packet_header", name = "sport", width = 2, count = 1, format = "number"},
        {offset = 10, record = "packet_header", name = "dport", width = 2, count = 1, format = "number"},
        {offset = 12, record = "packet_header", name = "ether_type", width = 2, count = 1, format = "hexadecimal"},
        {offset = 14, record = "packet_header", name = "protocol", width = 1, count = 1, format = "number", names = {[0] = "any", [1] = "icmp", [2] = "igmp", [6] = "tcp", [17] = "udp", [47] = "gre", [50] = "esp", [51] = "ah", [89] = "ospf", [103] = "pim", [132] = "sctp"}},
        {offset = 15, record = "packet_header", name = "exp", width = 1, count = 1, format = "number"},
        {offset = 16, record = "packet_header", name = "arp_opcode", width = 4, count = 1, format = "number"},
        {offset = 20, record = "packet_header", name = "lisp_instance", width = 4, count = 1, format = "number"},
        {offset = 24, record = "packet_header", name = "interface", width = 4, count = 1, format = "number"},
        {offset = 28, record = "packet_header", name = "vrf", width = 4, count = 1, format = "number"},
        {offset = 32, record = "packet_header", name = "vlan", width = 2, count = 1, format = "number"},
        {offset = 34, record = "packet_header", name = "label_length", width = 2, count = 1, format = "number"},
        {offset = 36, record = "packet_header", name = "label", width = 64, count = 1, format = "text"},
        {offset = 100, record = "packet_header", name = "bytes", width = 4, count = 1, format = "number"},
    }},
    explain_request = {size = 8, fields = {
        {offset = 0, record = "explain_request", name = "app_type", width = 4, count = 1, format = "number"},
        {offset = 4, record = "explain_request", name = "policy_id", width = 4, count = 1, format = "number"},
    }, rest = "packet_header"},
    reason = {size = 96, fields = {
        {offset = 0, record = "reason", name = "policy_id", width = 2, count = 1, format = "number"},
        {offset = 2, record = "reason", name = "pair_id", width = 2, count = 1, format = "number"},
        {offset = 4, record = "reason", name = "match_id", width = 2, count = 1, format = "number"},
        {offset = 6, record = "reason", name = "verdict", width = 1, count = 1, format = "number", names = {[0] = "took", [1] = "no_pair", [2] = "never", [3] = "field", [4] = "label", [5] = "interface", [6] = "vlan", [7] = "vrf"}},
        {offset = 7, record = "reason", name = "field", width = 1, count = 1, format = "number"},
        {offset = 8, record = "reason", name = "found", width = 4, count = 1, format = "hexadecimal"},
        {offset = 12, record = "reason", name = "wanted", width = 4, count = 1, format = "hexadecimal"},
        {offset = 16, record = "reason", name = "mask", width = 4, count = 1, format = "hexadecimal"},
        {offset = 20, record = "reason", name = "last", width = 4, count = 1, format = "number"},
        {offset = 24, record = "reason", name = "num_elements", width = 4, count = 1, format = "number"},
        {offset = 28, record = "reason", name = "label_length", width = 2, count = 1, format = "number"},
        {offset = 30, record = "reason", name = "label", width = 64, count = 1, format = "text"},
    }},
    list_request = {size = 16, fields = {
        {offset = 0, record = "list_request", name = "app_type", width = 4, count = 1, format = "number"},
        {offset = 4, record = "list_request", name = "first_id", width = 4, count = 1, format = "number"},
        {offset = 8, record = "list_request", name = "most", width = 4, count = 1, format = "number"},
        {offset = 12, record = "list_request", name = "flags", width = 4, count = 1, format = "hexadecimal"},
    }},
    summary = {size = 32, fields = {
        {offset = 0, record = "summary", name = "revision", width = 8, count = 1, format = "number"},
        {offset = 8, record = "summary", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
        {offset = 12, record = "summary", name = "app_type", width = 4, count = 1, format = "number"},
        {offset = 16, record = "summary", name = "bytes", width = 4, count = 1, format = "number"},
        {offset = 20, record = "summary", name = "policy_id", width = 2, count = 1, format = "number"},
        {offset = 22, record = "summary", name = "version", width = 2, count = 1, format = "number"},
        {offset = 24, record = "summary", name = "num_pairs", width = 2, count = 1, format = "number"},
        {offset = 26, record = "summary", name = "num_interfaces", width = 2, count = 1, format = "number"},
        {offset = 28, record = "summary", name = "application", width = 4, count = 1, format = "number"},
    }},
    change_request = {size = 16, fields = {
        {offset = 0, record = "change_request", name = "app_type", width = 4, count = 1, format = "number"},
        {offset = 4, record = "change_request", name = "flags", width = 4, count = 1, format = "hexadecimal"},
        {offset = 8, record = "change_request", name = "num_expected", width = 4, count = 1, format = "number"},
    }, rest = "expected"},
    expected = {size = 16, fields = {
        {offset = 0, record = "expected", name = "revision", width = 8, count = 1, format = "number"},
        {offset = 8, record = "expected", name = "policy_id", width = 4, count = 1, format = "number"},
    }},
    message_part = {size = 0, fields = {
    }},
    policy_frame = {size = 12, fields = {
        {offset = 0, record = "policy_frame", name = "op_mode", width = 4, count = 1, format = "number", names = {[0] = "active", [1] = "disabled"}},
        {offset = 4, record = "policy_frame", name = "app_type", width = 4, count = 1, format = "number"},
        {offset = 8, record = "policy_frame", name = "policy_id", width = 2, count = 1, format = "number"},
        {offset = 10, record = "policy_frame", name = "version", width = 2, count = 1, format = "number"},
    }, rest = "pair_id"},
    pair_id = {size = 2, fields = {
        {offset = 0, record = "pair_id", name = "pair_id", width = 2, count = 1, format = "number"},
    }},
    status = {size = 168, fields = {
        {offset = 0, record = "status", name = "fingerprint", width = 8, count = 1, format = "hexadecimal"},
        {offset = 8, record = "status", name = "started_ns", width = 8, count = 1, format = "number"},
        {offset = 16, record = "status", name = "uptime_ns", width = 8, count = 1, format = "number"},
        {offset = 24, record = "status", name = "requests", width = 8, count = 1, format = "number"},
        {offset = 32, record = "status", name = "refusals", width = 8, count = 1, format = "number"},
        {offset = 40, record = "status", name = "policies", width = 8, count = 1, format = "number"},
        {offset = 48, record = "status", name = "pairs", width = 8, count = 1, format = "number"},
        {offset = 56, record = "status", name = "policy_bytes", width = 8, count = 1, format = "number"},
        {offset = 64, record = "status", name = "process_bytes", width = 8, count = 1, format = "number"},
        {offset = 72, record = "status", name = "max_message", width = 8, count = 1, format = "number"},
        {offset = 80, record = "status", name = "max_policy_bytes", width = 8, count = 1, format = "number"},
        {offset = 88, record = "status", name = "kept_messages", width = 8, count = 1, format = "number"},
        {offset = 96, record = "status", name = "kept_bytes", width = 8, count = 1, format = "number"},
        {offset = 104, record = "status", name = "max_kept_bytes", width = 8, count = 1, format = "number"},
        {offset = 112, record = "status", name = "max_clients", width = 4, count = 1, format = "number"},
        {offset = 116, record = "status", name = "max_clients_per_user", width = 4, count = 1, format = "number"},
        {offset = 120, record = "status", name = "pid", width = 4, count = 1, format = "number"},
        {offset = 124, record = "status", name = "clients", width = 4, count = 1, format = "number"},
        {offset = 128, record = "status", name = "applications", width = 4, count = 1, format = "number"},
        {offset = 136, record = "status", name = "version", width = 32, count = 1, format = "text"},
    }},
    client = {size = 40, fields = {
        {offset = 0, record = "client", name = "client", width = 4, count = 1, format = "number"},
        {offset = 4, record = "client", name = "pid", width = 4, count = 1, format = "number"},
        {offset = 8, record = "client", name = "uid", width = 4, count = 1, format = "number"},
        {offset = 16, record = "client", name = "requests", width = 8, count = 1, format = "number"},
        {offset = 24, record = "client", name = "refusals", width = 8, count = 1, format = "number"},
        {offset = 32, record = "client", name = "served_ns", width = 8, count = 1, format = "number"},
    }},
    application = {size = 16, fields = {
        {offset = 0, record = "application", name = "app_type", width = 4, count = 1, format = "number"},
        {offset = 4, record = "application", name = "policies", width = 4, count = 1, format = "number"},
        {offset = 8, record = "application", name = "pairs", width = 8, count = 1, format = "number"},
    }},
    request_count = {size = 48, fields = {
        {offset = 0, record = "request_count", name = "kind", width = 32, count = 1, format = "text"},
        {offset = 32, record = "request_count", name = "error", width = 4, count = 1, format = "number", names = {[0] = "none", [1] = "malformed", [2] = "unsupported", [3] = "not found", [4] = "conflict", [5] = "storage", [6] = "limit", [7] = "denied"}},
        {offset = 40, record = "request_count", name = "requests", width = 8, count = 1, format = "number"},
    }},
    watch = {size = 8, fields = {
        {offset = 0, record = "watch", name = "first", width = 8, count = 1, format = "number"},
    }},
    watched = {size = 16, fields = {
        {offset = 0, record = "watched", name = "next", width = 8, count = 1, format = "number"},
        {offset = 8, record = "watched", name = "missed", width = 8, count = 1, format = "number"},
    }},
    stats = {size = 16, fields = {
        {offset = 0, record = "stats", name = "counter1", width = 8, count = 1, format = "number"},
        {offset = 8, record = "stats", name = "counter2", width = 8, count = 1, format = "number"},
    }},
    stat_result_entry = {size = 68, fields = {
        {offset = 0, record = "stat_result_entry", name = "tag", width = 1, count = 1, format = "number"},
        {offset = 4, record = "stat_result_entry", name = "key", width = 4, count = 1, format = "number"},
        {offset = 8, record = "stat_result_entry", name = "ids", width = 2, count = 5, format = "number"},
        {offset = 20, record = "stat_result_entry", name = "stats", width = 16, count = 3, format = "number", layout = "stats"},
    }},
    stat_results = {size = 16, fields = {
        {offset = 0, record = "stat_results", name = "tag", width = 1, count = 1, format = "number"},
        {offset = 4, record = "stat_results", name = "num_entries", width = 4, count = 1, format = "number"},
        {offset = 8, record = "stat_results", name = "entries", width = 0, count = 1, format = "number", layout = "stat_result_entry", is_array = true},
    }},
}

local OPCODES = {
    [117762] = "request",
    [117764] = "multi-part request",
    [117778] = "show",
    [117780] = "traffic",
    [117782] = "explain",
    [117784] = "list",
    [117786] = "change",
    [117792] = "status",
    [117794] = "watch",
}

-- A dissector for Wireshark: captures of zeld and zelctl (link type USER0), and messages
-- over NATS on TCP port 4222. Above are the tables, printed; this is the program.

local zel = Proto("zel", "zel policy service")
local nats = Proto("zel_nats", "zel over NATS")

local CAPTURE_MAGIC = 0x5a454c01
local FRAME_MAGIC = 0x4b4f4201
local REQUEST, RESPONSE = 1, 2

local truncated = ProtoExpert.new("zel.truncated", "Truncated", expert.group.MALFORMED, expert.severity.ERROR)
local malformed = ProtoExpert.new("zel.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local refused = ProtoExpert.new("zel.refused", "Refused", expert.group.RESPONSE_CODE, expert.severity.WARN)
local unknown = ProtoExpert.new("zel.unknown", "Element that this version does not have", expert.group.UNDECODED,
                                expert.severity.NOTE)
zel.experts = {truncated, malformed, refused, unknown}

-- ---- Fields

local fields = {
    id = ProtoField.uint16("zel.element.id", "Element"),
    length = ProtoField.uint16("zel.element.length", "Length"),
    value = ProtoField.bytes("zel.element.value", "Value"),
    used = ProtoField.uint32("zel.array.length", "Array length"),
    record = ProtoField.string("zel.record", "Record"),
    payload = ProtoField.bytes("zel.payload", "Payload"),
    fingerprint = ProtoField.string("zel.dissector.fingerprint", "Wire description of the dissector"),
    subject = ProtoField.string("zel.nats.subject", "NATS subject"),
    reply = ProtoField.string("zel.nats.reply", "NATS reply subject"),
    text = ProtoField.string("zel.nats.line", "NATS"),
}

local function make_field(f)
    local path = "zel." .. f.record .. "." .. f.name
    if f.format == "ipv4" then return ProtoField.ipv4(path, f.name) end
    if f.format == "mac" then return ProtoField.ether(path, f.name) end
    if f.format == "text" then return ProtoField.string(path, f.name) end
    if f.is_signed then return ProtoField.int32(path, f.name) end
    local base_of_numbers = f.format == "hexadecimal" and base.HEX or base.DEC
    if f.width == 8 then return ProtoField.uint64(path, f.name, base_of_numbers) end
    local make = f.width == 1 and ProtoField.uint8 or f.width == 2 and ProtoField.uint16 or ProtoField.uint32
    return make(path, f.name, base_of_numbers, f.names)
end

local function add_field(f)
    local key = f.record .. "." .. f.name
    if not f.is_array and not f.layout and not fields[key] then
        fields[key] = make_field(f)
    end
end

for _, element in pairs(ELEMENTS) do
    if element.kind == "value" then add_field(element) end
end
for _, layout in pairs(LAYOUTS) do
    for _, f in ipairs(layout.fields) do add_field(f) end
end
for _, f in pairs(fields) do table.insert(zel.fields, f) end

-- ---- Values. Numbers have the byte order of the sender, which the magic number shows.

local little = true

local function number(range)
    return little and range:le_uint() or range:uint()
end

local function add_number(tree, field, range)
    return little and tree:add_le(field, range) or tree:add(field, range)
end

-- Text, with harmless characters; zeros at its end fill up the field.
local function text_of(range)
    local bytes = range:bytes():raw():gsub("%z+$", "")
    return (bytes:gsub("[^\32-\126]", function(c) return string.format("\\x%02x", c:byte()) end))
end

local dissect_array

local function add_value(tree, f, range)
    local field = fields[f.record .. "." .. f.name]
    if f.format == "text" then
        return tree:add(field, range, text_of(range))
    elseif f.format == "mac" then
        return tree:add(field, range)
    end
    return add_number(tree, field, range)
end

local add_layout

-- The items of a value: one number or record, or an array of them.
local function add_items(tree, f, range)
    for i = 0, f.count - 1 do
        local item = range:range(i * f.width, f.width)
        if f.layout then
            add_layout(tree, f.layout, item)
        else
            add_value(tree, f, item)
        end
    end
end

-- A record whose members have fixed places. One that ends early is shown as far as it goes.
function add_layout(tree, name, range)
    local layout = LAYOUTS[name]
    local sub = tree:add(fields.record, range, name)
    for _, f in ipairs(layout.fields) do
        if f.offset + f.width * f.count <= range:len() then
            add_items(sub, f, range:range(f.offset, f.width * f.count))
        end
    end
    local at, step = layout.size, layout.rest and LAYOUTS[layout.rest].size
    while step and at + step <= range:len() do
        add_layout(sub, layout.rest, range:range(at, step))
        at = at + step
    end
    if range:len() < layout.size then
        sub:add_proto_expert_info(truncated, "the record " .. name .. " has " .. layout.size .. " bytes")
    end
    return sub
end

local function add_element_value(tree, element, value)
    if element.is_array then
        local sub = tree:add(fields.record, value, element.layout)
        dissect_array(sub, value)
    elseif element.layout and element.record == element.layout then
        add_layout(tree, element.layout, value) -- a later version may be longer
    elseif value:len() ~= element.width * element.count then
        tree:add(fields.value, value):add_proto_expert_info(malformed, element.record .. "." .. element.name ..
            " has " .. element.width * element.count .. " bytes")
    else
        add_items(tree, element, value)
    end
end

-- ---- Arrays of elements

local function add_element(tree, range, id)
    local element = ELEMENTS[id]
    local length = range:len() - 4
    if not element then
        local item = tree:add(fields.value, range)
        item:set_text("unknown element " .. id .. ", " .. length .. " bytes")
        add_number(item, fields.id, range:range(0, 2))
        item:add_proto_expert_info(unknown)
    elseif length == 0 then
        tree:add(fields.value, range):add_proto_expert_info(malformed, "element " .. id .. " without a value")
    else
        add_element_value(tree, element, range:range(4, length))
    end
end

-- One array. Returns how many bytes it has.
function dissect_array(tree, range)
    if range:len() < 4 then
        tree:add(fields.value, range):add_proto_expert_info(truncated, "an array begins with 4 bytes")
        return range:len()
    end
    local used = number(range:range(0, 4))
    local used_item = add_number(tree, fields.used, range:range(0, 4))
    if used > range:len() - 4 then
        used_item:add_proto_expert_info(truncated, "of " .. used .. " bytes " .. range:len() - 4 .. " are here")
    end
    local stop = 4 + math.min(used, range:len() - 4)
    local at = 4
    local open = {} -- trees and records of the markers that surround
    local current = tree
    while at < stop do
        local length = at + 4 <= stop and number(range:range(at + 2, 2)) or 0
        if at + 4 + length > stop then
            current:add(fields.value, range:range(at, stop - at)):add_proto_expert_info(truncated,
                "this element is cut short")
            break
        end
        local id = number(range:range(at, 2))
        local element = ELEMENTS[id]
        if element and element.kind == "start" then
            local sub = current:add(fields.record, range:range(at, 4 + length), element.record)
            table.insert(open, {tree = current, record = element.record})
            current = sub
        elseif element and element.kind == "end" then
            local last = table.remove(open)
            if not last or last.record ~= element.record then
                current:add(fields.value, range:range(at, 4 + length)):add_proto_expert_info(malformed,
                    "the end of " .. element.record .. " without its start")
            end
            current = last and last.tree or tree
        else
            add_element(current, range:range(at, 4 + length), id)
        end
        at = at + 4 + length
    end
    if #open > 0 then
        current:add_proto_expert_info(truncated, "the record " .. open[#open].record .. " has no end")
    end
    return stop
end

-- Arrays that follow each other.
local function dissect_arrays(tree, range)
    local at = 0
    while at < range:len() do
        local taken = dissect_array(tree, range:range(at))
        at = at + taken
    end
end

-- ---- Messages

local kind_names = ELEMENTS[4].names

-- The request kind, for the column with the summary.
local function request_name(range, opcode)
    if range and range:len() >= 18 and number(range:range(9, 2)) == 4 then
        local kind = number(range:range(13, 4))
        return kind_names[kind] or "request kind " .. kind
    end
    return OPCODES[opcode] or string.format("opcode 0x%x", opcode)
end

local function dissect_response(tree, range, opcode)
    local size = LAYOUTS.response.size
    local header = add_layout(tree, "response", range:range(0, math.min(size, range:len())))
    local summary = (OPCODES[opcode] or "answer") .. " answered"
    if range:len() >= 8 and number(range:range(4, 4)) ~= 0 then
        header:add_proto_expert_info(refused, text_of(range:range(12, math.min(range:len(), size) - 12)))
        summary = "refused: " .. text_of(range:range(12, math.min(range:len(), size) - 12))
    end
    if range:len() > size then
        dissect_arrays(tree, range:range(size))
    end
    return summary
end

-- The payload of a message. Returns a summary.
local function dissect_payload(tree, range, kind, opcode, total)
    if not range then return OPCODES[opcode] or "empty" end
    if range:len() < total then
        tree:add_proto_expert_info(truncated, "of " .. total .. " bytes " .. range:len() .. " are here")
    end
    if kind == RESPONSE then
        return dissect_response(tree, range, opcode)
    end
    dissect_arrays(tree, range)
    return request_name(range, opcode)
end

local function rest_of(range, from)
    return range:len() > from and range:range(from) or nil
end

-- True when a magic number stands at the front, in either byte order.
local function has_magic(range, magic)
    if range:len() < 4 then return false end
    little = range:range(0, 4):le_uint() == magic
    return little or range:range(0, 4):uint() == magic
end

function zel.dissector(buffer, pinfo, tree)
    local range = buffer:range()
    if not has_magic(range, CAPTURE_MAGIC) then return 0 end
    pinfo.cols.protocol = "ZEL"
    local size = LAYOUTS.capture.size
    local root = tree:add(zel, range)
    root:add(fields.fingerprint, FINGERPRINT):set_generated()
    add_layout(root, "capture", range:range(0, math.min(size, range:len())))
    if range:len() < size then return range:len() end
    local kind, opcode = number(range:range(4, 2)), number(range:range(24, 4))
    local summary = dissect_payload(root, rest_of(range, size), kind, opcode, number(range:range(36, 4)))
    pinfo.cols.info = summary .. ", number " .. number(range:range(8, 4)) .. ", client " .. number(range:range(12, 4))
    return range:len()
end

-- Messages in several packets: those that are not whole yet, by subject and token; and
-- whole ones, by the place of their last packet. A capture is read more than once.
local unfinished, finished = {}, {}
function zel.init() unfinished, finished = {}, {} end

-- The whole message, when this packet is its last one.
local function reassemble(payload, total, offset, message, place)
    if finished[place] then return finished[place] end
    local bytes = offset == 0 and ByteArray.new() or unfinished[message]
    if not bytes or bytes:len() ~= offset then return end
    bytes:append(payload:bytes())
    unfinished[message] = bytes
    if bytes:len() < total then return end
    unfinished[message], finished[place] = nil, bytes
    return bytes
end

-- A packet of the transport: its header, and a message or a part of one.
local function dissect_frame(tree, range, subject, place)
    local size = LAYOUTS.frame.size
    add_layout(tree, "frame", range:range(0, math.min(size, range:len())))
    if range:len() < size then return "truncated packet" end
    local kind, opcode = number(range:range(4, 2)), number(range:range(12, 4))
    local total, offset = number(range:range(24, 4)), number(range:range(28, 4))
    local payload = rest_of(range, size)
    if payload and (offset ~= 0 or payload:len() < total) and number(range:range(6, 2)) ~= 0 then
        tree:add(fields.payload, payload)
        local message = subject .. " " .. number(range:range(8, 4))
        local whole = reassemble(payload, total, offset, message, place)
        if not whole then
            return request_name(nil, opcode) .. ", " .. payload:len() .. " of " .. total .. " bytes from " .. offset
        end
        payload = whole:tvb("Whole message"):range()
    end
    return dissect_payload(tree, payload, kind, opcode, total)
end

-- ---- NATS: lines, and behind some of them as many bytes as they say

-- The line at an offset without its end, and the offset behind it; nothing while it is not whole.
local function line_at(buffer, from)
    local text = buffer:raw(from, math.min(buffer:len() - from, 4096))
    local stop = text:find("\r\n", 1, true)
    if stop then return text:sub(1, stop - 1), from + stop + 1 end
end

local function words_of(line)
    local words = {}
    for word in line:gmatch("%S+") do table.insert(words, word) end
    return words
end

-- Of a line that content follows: subject, reply subject, bytes of headers, bytes in all.
local function content_of(words)
    local verb = (words[1] or ""):upper()
    local has_headers = verb == "HPUB" or verb == "HMSG"
    if not has_headers and verb ~= "PUB" and verb ~= "MSG" then return end
    local first_optional = (verb == "MSG" or verb == "HMSG") and 4 or 3
    local numbers = has_headers and 2 or 1
    local total = tonumber(words[#words])
    local headers = has_headers and tonumber(words[#words - 1]) or 0
    if not total or not headers or headers > total then return end
    local reply = #words - numbers >= first_optional and words[first_optional] or nil
    return words[2], reply, headers, total
end

-- One command of NATS. Returns the offset behind it, or nothing when more bytes are needed.
local function dissect_command(buffer, pinfo, tree, at)
    local line, behind = line_at(buffer, at)
    if not line then return end
    local subject, reply, headers, total = content_of(words_of(line))
    if not subject then
        tree:add(fields.text, buffer(at, behind - at), (line:gsub("[^\32-\126]", "?")))
        return behind
    end
    if behind + total + 2 > buffer:len() then return end
    local sub = tree:add(nats, buffer(at, behind + total + 2 - at))
    sub:add(fields.subject, buffer(at, #line), (subject:gsub("[^\32-\126]", "?")))
    if reply then sub:add(fields.reply, buffer(at, #line), (reply:gsub("[^\32-\126]", "?"))) end
    if total - headers >= 4 then
        local range = buffer(behind + headers, total - headers)
        if has_magic(range, FRAME_MAGIC) then
            pinfo.cols.protocol = "ZEL"
            pinfo.cols.info = dissect_frame(sub:add(zel, range), range, subject, pinfo.number .. " " .. at)
        end
    end
    return behind + total + 2
end

function nats.dissector(buffer, pinfo, tree)
    pinfo.cols.protocol = "NATS"
    local at = 0
    while at < buffer:len() do
        local next = dissect_command(buffer, pinfo, tree, at)
        if not next then
            pinfo.desegment_offset = at
            pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
            return buffer:len()
        end
        at = next
    end
    return buffer:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, zel)
DissectorTable.get("tcp.port"):add(4222, nats)
