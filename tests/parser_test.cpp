// The message parser, and the whole way from a graph to an equal graph.
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"
#include "zel/platform/tlv_array.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <unistd.h>

using namespace test;

namespace {

struct Parsed {
    void *object;
    uint32_t mat_type = 99, api_type = 98, app_type = 2;
    uint16_t policy_id = 97;
};

Parsed parse(zel_api_handle_t &handle, const Bytes &payload, bool multi_part = false)
{
    Message message{payload, multi_part};
    message.payload.resize(payload.size() + 64);
    message.context = 11;
    Parsed parsed{};
    parsed.object = parse_mat_obj_from_kob(11, &handle, &message, &parsed.mat_type, &parsed.api_type, &parsed.policy_id,
                                           &parsed.app_type);
    return parsed;
}

std::string pid_line(const std::string &text) { return "PID " + std::to_string(getpid()) + ": type: " + text; }

} // namespace

TEST(Parser, TracesOfAMessage)
{
    auto handle = fresh_handle(1);
    const Parsed parsed = parse(handle, message(7, "23 26:0500 28:0b000000 24 139"));
    EXPECT_EQ(std::tie(parsed.mat_type, parsed.api_type, parsed.policy_id, parsed.app_type),
              std::make_tuple(8u, 7u, 6, 4u));
    ASSERT_NE(parsed.object, nullptr);
    EXPECT_EQ(static_cast<zel_match_t *>(parsed.object)->id, 5);
    std::free(parsed.object);
    EXPECT_TRUE(heap.live.empty());

    Strings lines;
    for (const auto &call : platform.log)
        if (call.find("log 648 7536640 2 0 105 parse_mat_obj_from_kob(") == 0)
            lines.push_back(call.substr(call.find('(')));
    const std::string header = pid_line("TLV_ZEL_KOB_HEADER, api_type: 7, app_type: 4, policy_id: 6, op_code: 7");
    EXPECT_EQ(lines, (Strings{
                         "(4092)[tester]: parse_mat_obj_from_kob() begins.\n",
                         "(4104)[tester]: num_tlvs: 11\n",
                         "(4123)[tester]: TLV_ZEL_KOB_HEADER\n",
                         "(4136)[tester]: " + header,
                         "(4234)[tester]: TLV_ZEL_MATCH\n",
                         "(4243)[tester]: " + pid_line("TLV_ZEL_MATCH, id: 5 type: 11\n"),
                         "(4317)[tester]: Unsupported TLV type: 139, length: 1. Ok if ISSU\n",
                         "(4372)[tester]: parse_mat_obj_from_kob() ends.\n",
                     }));
}

TEST(Parser, EveryTopLevelObject)
{
    const struct {
        uint16_t start;
        const char *site;  // line and name
        uint32_t api_type; // that selects it; 0: none does
        std::string detail;
    } cases[] = {
        {9, "(4249)[tester]: TLV_ZEL_MATCH_SERVICE_ELE", 0, ""},
        {23, "(4234)[tester]: TLV_ZEL_MATCH", 7, "TLV_ZEL_MATCH, id: 0 type: 0\n"},
        {60, "(4261)[tester]: TLV_ZEL_ACTION_GROUP", 6, "TLV_ZEL_ACTION_GROUP, id: 0\n"},
        {96, "(4277)[tester]: TLV_ZEL_ACTION", 8, "TLV_ZEL_ACTION, id: 0, a_type: 0\n"},
        {101, "(4219)[tester]: TLV_ZEL_MATCH_GROUP", 5, "TLV_ZEL_MATCH_GROUP, mg id: 0, num_matches: 0\n"},
        {107, "(4206)[tester]: TLV_ZEL_MATCH_ACTION_PAIR", 4, ""},
        {113, "(4194)[tester]: TLV_ZEL_MATCH_ACTION_PAIR_GROUP", 3, ""},
        {116, "(4155)[tester]: TLV_ZEL_POLICY", 10, ""},
        {122, "(4142)[tester]: TLV_ZEL_POLICY_LIST", 1, ""},
        {125, "(4171)[tester]: TLV_ZEL_IF_GROUP", 9, ""},
        {128, "(4182)[tester]: TLV_ZEL_IF_ELEMENT", 0, ""},
        {135, "(4291)[tester]: TLV_ZEL_STAT_REQUEST", 11, ""},
        {138, "(4303)[tester]: TLV_ZEL_STAT_REQ_ENTRY", 0, ""},
    };
    for (const auto &c : cases) {
        auto handle = fresh_handle(1);
        const std::string both = std::to_string(c.start) + " " + std::to_string(c.start + 1);
        const Parsed parsed = parse(handle, message(c.api_type, both), true);
        EXPECT_EQ(parsed.object != nullptr, c.api_type != 0) << c.start;
        const std::string line = std::string("log 648 7536640 2 0 105 parse_mat_obj_from_kob") + c.site + "\n";
        EXPECT_EQ(std::count(platform.log.begin(), platform.log.end(), line), 1) << line;
        const auto texts = platform.reported("dbg");
        EXPECT_EQ(std::count(texts.begin(), texts.end(), pid_line(c.detail)), c.detail.empty() ? 0 : 1) << c.detail;
        EXPECT_EQ(heap.live.size(), 1u);
        free_heap();
    }
}

TEST(Parser, SelectionAmongSeveralObjects)
{
    auto handle = fresh_handle();
    const std::string policies = "116 119:0100 117 116 119:0200 113 115:0000 114 117";
    Parsed parsed = parse(handle, message(2, policies));
    EXPECT_EQ(static_cast<zel_policy_t *>(parsed.object)->id, 2);
    free_heap();
    // A policy answers for its groups, at their place in it.
    for (const auto &[kind, offset] :
         {std::pair{3u, offsetof(zel_policy_t, match_action_pair_group)}, {9u, offsetof(zel_policy_t, if_group)}}) {
        parsed = parse(handle, message(kind, "116 119:0100 117"));
        ASSERT_EQ(heap.live.size(), 1u);
        EXPECT_EQ(parsed.object, static_cast<const char *>(heap.live.begin()->first) + offset);
        free_heap();
    }
    // No header: nothing is selected, and the caller's application type stands.
    parsed = parse(handle, array(policies));
    EXPECT_EQ(std::tie(parsed.mat_type, parsed.api_type, parsed.policy_id, parsed.app_type),
              std::make_tuple(0u, 98u, 97, 2u));
    EXPECT_EQ(parsed.object, nullptr);
    free_heap();
}

TEST(Parser, UnreadableAndEmptyMessages)
{
    auto handle = fresh_handle();
    EXPECT_EQ(parse(handle, array("")).object, nullptr);
    EXPECT_EQ(platform.reported("dbg"),
              (Strings{"parse_mat_obj_from_kob() begins.\n", "num_tlvs: 0\n", "parse_mat_obj_from_kob() ends.\n"}));
    Message none;
    none.empty = true;
    Parsed parsed{};
    EXPECT_EQ(parse_mat_obj_from_kob(0, &handle, &none, &parsed.mat_type, &parsed.api_type, &parsed.policy_id,
                                     &parsed.app_type),
              nullptr);
    // Out of memory for the record: the message ends there.
    heap.fail_calloc = 1;
    parsed = parse(handle, message(7, "23 24"));
    EXPECT_EQ(parsed.object, nullptr);
    EXPECT_EQ(parsed.mat_type, 8u);
    EXPECT_EQ(platform.reported("err"),
              Strings{"cannot allocate, count: 1, size: " + std::to_string(sizeof(zel_match_t))});

    // The element count promises more than can be read.
    handle = fresh_handle();
    platform.extra_elements = 1;
    parsed = parse(handle, message(7, "23 26:0500 24"));
    EXPECT_EQ(static_cast<zel_match_t *>(parsed.object)->id, 5);
    EXPECT_EQ(platform.reported("dbg").end()[-2], "tlv-get failed, i: 10, num_tlvs: 10\n");
    EXPECT_TRUE(platform.reported("err").empty());
    free_heap();
}

// The sum of all counts of a message is limited: to a fixed number, then to what the message can
// contain.
TEST(Parser, CountsThatClaimTooMuch)
{
    auto handle = fresh_handle();
    const std::string group = "101 106:ffff 102 ";
    const Parsed parsed = parse(handle, message(5, group + group + group + group));
    EXPECT_EQ(static_cast<zel_match_grp_t *>(parsed.object)->num_match, 0);
    std::vector<size_t> claimed;
    for (const auto &[count, size] : heap.callocs)
        if (count > 1)
            claimed.push_back(count);
    EXPECT_EQ(claimed, (std::vector<size_t>{65535, 65535, 18}));
    free_heap();
}

// Any graph of any request kind arrives as an equal graph: encoded again, it gives
// the same bytes, and both are freed completely.
TEST(Parser, RoundTripsOfRandomGraphs)
{
    std::mt19937 random(20261121);
    const auto below = [&](uint32_t n) { return [&random, n] { return static_cast<uint32_t>(random() % n); }; };
    for (int round = 0; round < 500; ++round) {
        const uint32_t kind = 1 + below(11)();
        const uint32_t mat_type = get_mat_obj_type(kind);
        auto handle = fresh_handle();
        platform.padding = round % 3 == 0 ? 4 : 1;
        platform.size_noise = 0x7650000;
        Message sent;
        uint32_t token = 0;
        void *graph = Graphs(below(5), below(40)).make(mat_type);
        send_to_zel(&token, kind, &handle, 5, graph, 6, &sent);
        free_graph(mat_type, graph);
        ASSERT_TRUE(heap.live.empty());
        // The size that was computed is that of the elements written, however the platform pads them.
        size_t written = 4;
        for (const auto &write : platform.writes)
            written += static_cast<uint16_t>(tlv_size_get(static_cast<uint32_t>(write.value.size())));
        ASSERT_EQ(platform.sends[0].message.size(), written);

        const Parsed parsed = parse(handle, platform.sends[0].message, round % 2 == 0);
        ASSERT_NE(parsed.object, nullptr);
        EXPECT_EQ(std::tie(parsed.mat_type, parsed.api_type, parsed.policy_id, parsed.app_type),
                  std::make_tuple(mat_type, kind, 5, 1u));
        EXPECT_EQ(handle.mat_cache.root, nullptr);
        send_to_zel(&token, kind, &handle, 5, parsed.object, 6, &sent);
        EXPECT_EQ(platform.sends[0].message, platform.sends[1].message) << "kind " << kind;
        free_graph(mat_type, parsed.object);
        ASSERT_TRUE(heap.live.empty());
        EXPECT_TRUE(platform.reported("warn").empty());
    }
}

// When a further object cannot be allocated there is no answer, and nothing is lost.
TEST(Parser, NoMemoryForAFurtherObject)
{
    // A policy, which also stands for the pair group that the kind names, then a pair group.
    const Bytes payload = message(3, "116 113 115:0000 114 125 127:0000 126 117 113 115:0000 114");
    for (const int failing : {1, 2}) {
        auto handle = fresh_handle();
        heap.fail_calloc = failing;
        const Parsed parsed = parse(handle, payload);
        EXPECT_EQ(parsed.object, nullptr);
        EXPECT_EQ(parsed.mat_type, uint32_t{ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP});
        EXPECT_EQ(platform.reported("err").size(), 1u);
        EXPECT_TRUE(heap.live.empty()) << failing;
    }
}

// Reports do not change what is read.  Without them the fast decoders run, and any element may
// end their path.
TEST(Parser, ReadsTheSameWhetherItIsWatchedOrNot)
{
    std::mt19937 random(20261122);
    const auto below = [&](size_t n) { return static_cast<uint32_t>(random() % n); };
    Bytes arena(64 << 20);
    const auto result_of = [&](const Bytes &payload, bool is_watched) {
        auto handle = fresh_handle();
        if (!is_watched)
            handle.dbg_cb = nullptr;
        heap.arena = &arena;
        const Parsed parsed = parse(handle, payload);
        Bytes content;
        for (const auto &[block, size] : heap.live)
            content.insert(content.end(), static_cast<const uint8_t *>(block),
                           static_cast<const uint8_t *>(block) + size);
        const auto result =
            std::make_tuple(parsed.object, parsed.mat_type, parsed.api_type, parsed.app_type, parsed.policy_id,
                            heap.callocs, heap.live, content, platform.reported("err"), platform.reported("warn"));
        heap = {};
        return result;
    };
    for (int round = 0; round < 4000; ++round) {
        const uint32_t kind = 1 + below(11);
        const uint32_t mat_type = get_mat_obj_type(kind);
        auto handle = fresh_handle();
        Message sent;
        uint32_t token = 0;
        void *graph = Graphs([&] { return below(4); }, [&] { return below(30); }).make(mat_type);
        send_to_zel(&token, kind, &handle, 5, graph, 6, &sent);
        free_graph(mat_type, graph);
        auto elements = elements_of(platform.sends[0].message);
        for (uint32_t faults = below(4); faults != 0 && elements.size() > 1; --faults) {
            const auto any = [&] { return elements.begin() + static_cast<std::ptrdiff_t>(below(elements.size())); };
            const auto it = any();
            switch (below(6)) {
            case 0:
                std::swap(*it, *any());
                break;
            case 1:
                elements.erase(it);
                break;
            case 2:
                elements.insert(it, ReadElement(*any()));
                break;
            case 3:
                it->id = static_cast<uint16_t>(below(170));
                break;
            case 4:
                it->value.assign(below(6), static_cast<uint8_t>(below(4)));
                break;
            case 5:
                elements.erase(it, elements.end());
                break;
            }
        }
        const Bytes payload = array(elements);
        ASSERT_EQ(result_of(payload, true), result_of(payload, false)) << "round " << round;
    }
}
