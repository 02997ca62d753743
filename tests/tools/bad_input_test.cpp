// What the JSON reader refuses: the text of the error, its line and its path.
#include "tools/tool_graphs.hpp"

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <span>

using namespace tools;
using namespace test;

struct Bad {
    uint32_t mat_type;
    const char *text;
    const char *complaint;
};

constexpr uint32_t match_type = ZEL_MAT_TYPE_MATCH;
constexpr uint32_t action_type = ZEL_MAT_TYPE_ACTION;
constexpr uint32_t element_type = ZEL_MAT_TYPE_MATCH_SERVICE_ELEMENT;
constexpr uint32_t pairs_type = ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP;
constexpr uint32_t policy_type = ZEL_MAT_TYPE_POLICY;

// clang-format off
const Bad bad_json[] = {
    Bad{match_type, "{\"id\": 1,\n\"id\": 2}", "2: the member \"id\" stands twice in one object"},
    Bad{match_type, "{\"exp\": {\"id\": 1},\n\"id\": 2, \"exp\"\n: 3}", "2: the member \"exp\" stands twice in one object"},
    Bad{match_type, "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[", "1: nested deeper than 64 levels"},
    Bad{match_type, "3", "1: .: expected an object, found 3"}};

const Bad bad_values[] = {
    Bad{match_type, "{\n\"id\": 70000\n}", "2: .id: expected an integer from 0 to 65535, found 70000"},
    Bad{match_type, "{\"id\": -1}", "1: .id: expected an integer from 0 to 65535, found -1"},
    Bad{match_type, "{\"id\": 1.5}", "1: .id: expected an integer from 0 to 65535, found 1.5"},
    Bad{match_type, "{\"id\": true}", "1: .id: expected an integer from 0 to 65535, found true"},
    Bad{match_type, "{\"id\": 18446744073709551616}", "1: .id: expected an integer from 0 to 65535, found 18446744073709551616"},
    Bad{match_type, "{\"id\": 1, \"type\": \"servce\"}", "1: .type: expected one of \"acl\", \"label\", \"service\", \"service_element\", \"eth_proto\", \"arp_opcode\", \"exp\", \"lisp_proto\", \"lisp_inst\", \"acl_ipv6\", \"no_param\", or an integer from 0 to 4294967295, found \"servce\""},
    Bad{match_type, "{\"id\": 1, \"op_mode\": null, \"type\": 11}", "1: .op_mode: expected one of \"active\", \"disabled\", or an integer from 0 to 4294967295, found null"},
    Bad{match_type, "{\"id\": 1, \"eth_proto\": \"ipv4\"}", "1: .eth_proto: expected a number such as \"0x0800\", found \"ipv4\""},
    Bad{match_type, "{\"id\": 1, \"acl\": \"hex:0\"}", "1: .acl: expected a text of at most 64 bytes, or \"hex:\" and hexadecimal digits, found \"hex:0\""},
    Bad{match_type, "{\"id\": 1, \"label\": {\"label\": \"12345678901234567890123456789012345678901234567890123456789012345\"}}", "1: .label.label: expected a text of at most 64 bytes, or \"hex:\" and hexadecimal digits, found a text of 65 bytes"},
    Bad{match_type, "{\"id\": 1, \"lisp_proto\": {\"destination_rloc\": 167772161}}", "1: .lisp_proto.destination_rloc: expected an IPv4 address such as \"10.1.2.3\", found 167772161"},
    Bad{element_type, "{\"sip\": \"10.0.0/8\"}", "1: .sip: expected an IPv4 address such as \"10.1.2.3\", the same with a mask such as \"10.0.0.0/8\", or \"any\", found \"10.0.0/8\""},
    Bad{element_type, "{\"sport\": \"80/0x10000\"}", "1: .sport: expected an integer from 0 to 65535, the same with a mask such as \"1024/0xfc00\", a range such as \"80-90\" in a service, or \"any\", found \"80/0x10000\""},
    Bad{action_type, "{\"id\": 1, \"redirect\": {\"l2_ipv4\": {\"smac\": \"02:00\"}}}", "1: .redirect.l2_ipv4.smac: expected an Ethernet address such as \"00:1b:21:0a:0b:0c\", found \"02:00\""}};

const Bad bad_members[] = {
    Bad{element_type, "{\"sip\": \"any\",\n \"sip_mask\": 0}", "2: .sip_mask: unknown member; expected \"sip\", \"dip\", \"sport\", \"dport\" or \"protocol\""},
    Bad{match_type, "{\"type\": 11}", "1: .: the member \"id\" is missing"},
    Bad{match_type, "{\"id\": 1}", "1: .: one of these members is missing: \"type\", \"acl\", \"label\", \"service\", \"service_element\", \"eth_proto\", \"arp_opcode\", \"exp\", \"lisp_proto\" or \"lisp_inst\""},
    Bad{match_type, "{\"id\": 1, \"type\": \"acl\"}", "1: .: type \"acl\" needs a member \"acl\""},
    Bad{match_type, "{\"id\": 1, \"type\": \"acl\", \"exp\": 1}", "1: .exp: \"exp\" does not go with the type beside it"},
    Bad{match_type, "{\"id\": 1, \"exp\": 1, \"acl\": \"a\"}", "1: .exp: \"acl\" and \"exp\" exclude each other"},
    Bad{match_type, "{\"id\": 1, \"service\": 5}", "1: .service: expected an array, found 5"},
    Bad{ZEL_MAT_TYPE_STAT_REQUEST, "[{\"policy_id\": \"all\"}]", "1: .[0]: the member \"match_action_pair_id\" is missing"}};

const Bad bad_identities[] = {
    Bad{policy_type, R"({"id": 1, "match_action_pair_group": [
        {"id": 1, "match_group": {"matches": [{"id": 4, "exp": 1}]}},
        {"id": 2, "match_group": {"matches": [{"id": 4, "exp": 2}]}}]})",
        "3: .match_action_pair_group[1].match_group.matches[0]: match 4 differs from the match 4 in test.json:2; a message has one match of an id"},
    Bad{policy_type, R"({"id": 1, "match_action_pair_group": [{"id": 3,
        "action_group": {"actions": [{"id": 1, "set_vrf": 2}, {"ref": 7}]}}]})",
        "2: .match_action_pair_group[0].action_group.actions[1].ref: there is no action 7 before this place"},
    Bad{ZEL_MAT_TYPE_ACTION_GROUP, R"({"actions": [{"id": 1, "set_vrf": 2}, {"ref": 1, "id": 1}]})",
        "1: .actions[1]: a \"ref\" has no other members beside it"},
    Bad{pairs_type, "[{\"id\": 5},\n{\"id\": 5}]", "2: .[1]: the id 5 stands in line 1 already"},
    Bad{ZEL_MAT_TYPE_POLICY_LIST, "[{\"id\": 5},\n{\"id\": 6},\n{\"id\": 5}]", "3: .[2]: the id 5 stands in line 1 already"}};
// clang-format on

void expect_complaints(std::span<const Bad> table)
{
    for (const Bad &bad : table)
        EXPECT_EQ(complaint([&] { graph_from_json(bad.mat_type, bad.text); }),
                  std::string("test.json:") + bad.complaint);
}

TEST(BadInput, Json) { expect_complaints(bad_json); }
TEST(BadInput, Values) { expect_complaints(bad_values); }
TEST(BadInput, Members) { expect_complaints(bad_members); }
TEST(BadInput, Identities) { expect_complaints(bad_identities); }

TEST(BadInput, MoreMembersThanACountHolds)
{
    std::string text = "[";
    for (int i = 0; i < 65536; ++i)
        text += i == 0 ? "{}" : ",{}";
    EXPECT_EQ(complaint([&] { graph_from_json(ZEL_MAT_TYPE_IF_GROUP, text + "]"); }),
              "test.json:1: .: 65536 are too many; at most 65535 can be sent");
}

TEST(BadInput, AMemberTwiceAmongMany)
{
    constexpr int members = 50000;
    std::string text = "{";
    for (int i = 0; i < members; ++i)
        text += fmt::format("\"{}\": {{\"m\": {}}},\n", i, i);
    EXPECT_EQ(parse_json(text + "\"m\": 0}", "test.json").root.children.size(), members + 1u);
    for (const int twice : {0, members / 2, members - 1})
        EXPECT_EQ(complaint([&] { parse_json(text + fmt::format("\"{}\": 0}}", twice), "test.json"); }),
                  fmt::format("test.json:{}: the member \"{}\" stands twice in one object", members + 1, twice));
}

// The parser's own text follows.
TEST(BadInput, WhatIsNotJson)
{
    const auto read = [](const char *text) { return complaint([&] { graph_from_json(match_type, text); }); };
    EXPECT_EQ(read("{\"id\": 1,\n  oops}").find("test.json:2: not JSON: syntax error while parsing object key"), 0u);
    EXPECT_EQ(read("").find("test.json:1: not JSON: syntax error while parsing value"), 0u);
    EXPECT_EQ(read("[\n1,\n2\n").find("test.json:3: not JSON: "), 0u);
    EXPECT_EQ(read("\"\xff\"").find("test.json:1: not JSON: "), 0u);
    EXPECT_EQ(read("{} {}").find("test.json:1: not JSON: "), 0u);
}

// A policy with any byte changed is still a policy or is refused.
TEST(BadInput, AnyByteMayBeWrong)
{
    const std::string text = read_file(EXAMPLES_DIR "/policies/lisp_overlay.json");
    std::size_t refused = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
        for (const char typed : {'0', '"', ']', 'x', '\x01'}) {
            std::string changed = text;
            changed[i] = typed;
            const std::string said = complaint([&] { graph_from_json(policy_type, changed); });
            ASSERT_TRUE(said.empty() || said.starts_with("test.json:")) << said;
            refused += !said.empty();
        }
    EXPECT_GT(refused, text.size());
}

TEST(BadInput, FilesThatCannotBeRead)
{
    EXPECT_EQ(complaint([] { read_json_file("/nowhere/at/all.json"); }),
              "/nowhere/at/all.json: cannot be read: No such file or directory");
    EXPECT_EQ(complaint([] { read_json_file("/"); }), "/: cannot be read: Is a directory");
}
