// Rule sets become policies that match exactly what the rules match.
#include "tools/tool_graphs.hpp"

#include "tools/json/text_values.hpp"
#include "tools/zelctl/classbench.hpp"
#include "tools/zelctl/packet_file.hpp"

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <optional>

using namespace zelctl;
using namespace test;

namespace {

const std::string rules_file = "rules";

zel_action_t vrf_action(uint16_t id)
{
    zel_action_t action{};
    action.id = id;
    action.type = ZEL_ACTION_TYPE_SET_VRF;
    action.param.set_vrf.vrf = id;
    return action;
}

struct Packet {
    uint32_t sip;
    uint32_t dip;
    uint16_t sport;
    uint16_t dport;
    uint8_t protocol;
};

// The first rule that matches, by its ranges and prefixes.
std::optional<std::size_t> first_rule(const std::vector<Rule> &rules, const Packet &p)
{
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const Rule &r = rules[i];
        if (((p.sip ^ r.sip) & r.sip_mask) == 0 && ((p.dip ^ r.dip) & r.dip_mask) == 0 && p.sport >= r.sport.first &&
            p.sport <= r.sport.last && p.dport >= r.dport.first && p.dport <= r.dport.last &&
            (r.protocol == 0 || r.protocol == p.protocol))
            return i;
    }
    return std::nullopt;
}

// The first pair with a five-tuple that matches, as a service finds it.
std::optional<std::size_t> first_pair(const zel_policy_t &policy, const Packet &p)
{
    const auto &group = policy.match_action_pair_group;
    for (std::size_t i = 0; i < group.num_pair; ++i) {
        const auto &service = group.pairs[i]->match_group.matches[0]->param.service;
        for (std::size_t k = 0; k < service.num_elements; ++k) {
            const auto &e = *service.elements[k];
            if ((p.sip & e.sip_mask) == (e.sip & e.sip_mask) && (p.dip & e.dip_mask) == (e.dip & e.dip_mask) &&
                (p.sport & e.sport_mask) == e.sport && (p.dport & e.dport_mask) == e.dport &&
                (e.protocol == 0 || e.protocol == p.protocol))
                return i;
        }
    }
    return std::nullopt;
}

class RandomRules {
public:
    explicit RandomRules(uint32_t seed) : random_(seed) {}

    // Few distinct values, so that rules overlap and packets hit them.
    uint32_t address() { return 0x0a000000 | number(4) << 16 | number(4) << 8 | number(8); }
    uint16_t port()
    {
        constexpr uint16_t some[] = {0, 1, 79, 80, 1023, 1024, 5000, 49152, 65534, 65535};
        return number(2) == 0 ? some[number(std::size(some))] : static_cast<uint16_t>(random_());
    }
    uint8_t protocol() { return std::array<uint8_t, 3>{6, 17, 1}[number(3)]; }

    std::string line()
    {
        const auto prefix = [&] {
            return tools::show_ipv4(address()) + "/" + std::to_string(number(4) * 8 + number(9));
        };
        const auto range = [&] {
            const auto [low, high] = std::minmax({port(), port()});
            return number(3) == 0 ? std::string("0 : 65535") : fmt::format("{} : {}", low, high);
        };
        const bool any = number(4) == 0;
        return fmt::format("@{}\t{}\t{}\t{}\t{:#04x}/{}\t0x0000/0x0200\t\n", prefix(), prefix(), range(), range(),
                           any ? 0 : protocol(), any ? "0x00" : "0xFF");
    }

    Packet packet() { return {address(), address(), port(), port(), protocol()}; }

private:
    uint32_t number(std::size_t below) { return static_cast<uint32_t>(random_() % below); }

    std::mt19937 random_;
};

} // namespace

TEST(Classbench, ThePolicyMatchesWhatTheRulesMatch)
{
    std::size_t matched = 0;
    for (uint32_t seed = 0; seed < 12; ++seed) {
        RandomRules random(seed);
        std::string text;
        for (int i = 0; i < 25; ++i)
            text += random.line();
        const std::vector<Rule> rules = read_classbench(text, rules_file);
        ASSERT_EQ(rules.size(), 25u);
        const tools::Graph policy = make_policy(rules, 1, 0, {vrf_action(1)}, rules_file);
        for (int i = 0; i < 500; ++i) {
            const Packet packet = random.packet();
            const auto expected = first_rule(rules, packet);
            ASSERT_EQ(first_pair(policy.as<zel_policy_t>(), packet), expected) << "seed " << seed << ", packet " << i;
            matched += expected.has_value();
        }
    }
    EXPECT_GT(matched, 500u);
}

TEST(Classbench, RulesBecomePairsInOrder)
{
    const std::string example = EXAMPLES_DIR "/classbench/small.rules";
    const std::vector<Rule> rules = read_classbench(tools::read_file(example), example);
    ASSERT_EQ(rules.size(), 30u);
    const tools::Graph graph = make_policy(rules, 7, 2, {vrf_action(4), vrf_action(9)}, rules_file);
    const auto &policy = graph.as<zel_policy_t>();
    EXPECT_EQ(policy.id, 7);
    EXPECT_EQ(policy.app_type, 2u);
    for (uint16_t i = 0; i < 30; ++i) {
        const auto &pair = *policy.match_action_pair_group.pairs[i];
        EXPECT_EQ(pair.id, i + 1);
        EXPECT_EQ(pair.pre_pair_id, i);
        EXPECT_EQ(pair.match_group.matches[0]->id, i + 1);
        EXPECT_EQ(pair.action_group.actions[0]->id, i % 2 == 0 ? 4 : 9);
    }
    // As JSON, each action is written once and every other pair refers to it.
    const std::string json = write_graph(graph).dump();
    EXPECT_NE(json.find(R"("actions":[{"ref":4}])"), std::string::npos);
    EXPECT_TRUE(equal_graphs(graph, graph_from_json(ZEL_MAT_TYPE_POLICY, json)));

    // Every packet of the trace was made for some rule.
    for (const service::PacketHeader &p : read_packet_file(EXAMPLES_DIR "/classbench/small.trace"))
        EXPECT_TRUE(first_pair(policy, {p.sip, p.dip, p.sport, p.dport, p.protocol}));
}

TEST(Classbench, BadLines)
{
    const auto read = [](const std::string &line) {
        return complaint([&] { read_classbench("\n" + line, rules_file); });
    };
    const std::string addresses = "@10.0.0.0/8\t10.0.0.0/8\t";
    EXPECT_EQ(read("10.0.0.0/8"), "rules:2: rule: expected a line that begins with @, found \"10.0.0.0/8\"");
    EXPECT_EQ(read("@10.0.0.0/33\t"), "rules:2: source address: expected an address and a prefix length such as "
                                      "\"10.0.0.0/8\", found \"10.0.0.0/33\"");
    EXPECT_EQ(read("@10.0.0.0/8"),
              "rules:2: destination address: expected five fields separated by tabs, found \"the end of the line\"");
    EXPECT_EQ(read(addresses + "9 : 8"),
              "rules:2: source ports: expected a range of ports such as \"0 : 65535\", found \"9 : 8\"");
    EXPECT_EQ(read(addresses + "0 : 65536"),
              "rules:2: source ports: expected a range of ports such as \"0 : 65535\", found \"0 : 65536\"");
    EXPECT_EQ(read(addresses + "1 : 2\t1 : 2\t0x00/0xFF"), "rules:2: protocol: expected one protocol such as "
                                                           "\"0x06/0xFF\", not 0, or any, \"0x00/0x00\", found "
                                                           "\"0x00/0xFF\"");
    EXPECT_EQ(read("# a remark"), "");
}
