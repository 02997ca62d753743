// What goes onto the wire: elements, texts, sizes, and what a failed write changes.
#include "support/golden.hpp"
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"
#include "wire/records.hpp"

#include <gtest/gtest.h>
#include <sstream>

using namespace test;

namespace {

// What names an element in the report that its write has failed.
std::string text_in(const std::string &report)
{
    const std::string before = "Failed to encode ";
    return report.substr(before.size(), report.find("  tlv element: -28") - before.size());
}

std::string line_of(const ElementWrite &write, const std::string &text)
{
    std::ostringstream line;
    line << write.id << ' ' << write.value.size() << ' ' << std::hex;
    for (const uint8_t byte : write.value)
        line << (byte >> 4) << (byte & 15);
    line << ' ' << text << '\n';
    return line.str();
}

// All elements of a request, one a line and indented by nesting.
std::string dump(uint32_t api_type, const void *root)
{
    auto handle = fresh_handle();
    platform.fail_write = -1;
    Message message;
    uint32_t token = 0;
    send_to_zel(&token, api_type, &handle, 0x0102, root, 0x03040506, &message);

    Strings reports;
    for (const auto &report : platform.reported("err"))
        if (report.find("Failed") == 0)
            reports.push_back(report);
    std::string lines =
        "# Every element of the message, in order: id, length, value (bytes as they lie in memory), field text.\n";
    size_t depth = 0;
    for (size_t i = 0; i < platform.writes.size() && i < reports.size(); ++i) {
        const std::string text = text_in(reports[i]);
        depth -= text == zel::wire::end_marker_text ? 1 : 0;
        lines += std::string(2 * depth, ' ') + line_of(platform.writes[i], text);
        depth += text == zel::wire::start_marker_text ? 1 : 0;
    }
    EXPECT_EQ(reports.size(), platform.writes.size());
    return lines;
}

} // namespace

TEST(Wire, GoldenElements)
{
    // One policy: a pair with all twelve kinds of match, three redirects and each other
    // kind of action, a pair that refers to two of them, two interfaces; then an empty policy.
    Graphs policies(scripted({2, 2, 12, 2, 7, 1, 1, 2, 0, 0}),
                    scripted({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 2, 14, 26, 5, 6, 7, 0, 0, 6}));
    auto *list = policies.make<zel_policy_list_t>();
    expect_golden("policy_list.elements", dump(ZEL_API_POLICY_LIST_UPDATE, list));
    free_graph(ZEL_MAT_TYPE_POLICY_LIST, list);

    auto *request = Graphs(scripted({2}), scripted({})).make<zel_stat_request_t>();
    expect_golden("stat_request.elements", dump(ZEL_API_STATS_PULL, request));
    free_graph(ZEL_MAT_TYPE_STAT_REQUEST, request);
}

TEST(Wire, SizingAndEncodingReportUnsupportedMatches)
{
    auto handle = fresh_handle();
    Bytes array(1000);
    const struct {
        uint32_t type;
        Strings sizing, encoding;
    } cases[] = {{2, {"acl_ipv6 unsupported."}, {"acl_ipv6 unsupported."}},
                 {11, {}, {}},
                 {12, {"match type unsupported: 12, id: 9"}, {"unknown match type: 12"}},
                 {0, {"match type unsupported: 0, id: 9"}, {"unknown match type: 0"}}};
    for (const auto &c : cases) {
        zel_match_t match{1, 9, 2, c.type, {}, 0};
        platform.reports.clear();
        EXPECT_EQ(zel_match_get_tlv_sz(&handle, &match, 1), 5u + 8 + 6 + 6 + 8 + 5);
        EXPECT_EQ(platform.reported("err"), c.sizing);
        zel_empty_mat_cache(&handle);
        platform.reports.clear();
        platform.writes.clear();
        zel_add_match_to_tlv(&handle, array.data(), 1000, &match, 1);
        EXPECT_EQ(platform.reported("err"), c.encoding);
        EXPECT_EQ(platform.writes.size(), 6u);
        zel_empty_mat_cache(&handle);
    }
}

// Whichever element fails, all others are written, and only the last one's status shows.
TEST(Wire, EncodingGoesOnAfterAFailedElement)
{
    auto *policy = Graphs([] { return 3; }, counted()).make<zel_policy_t>();
    size_t total = 1;
    for (int n = 1; n <= static_cast<int>(total); ++n) {
        auto handle = fresh_handle();
        Bytes array(10000);
        platform.fail_write = n;
        const int32_t status = zel_add_policy_to_tlv(&handle, array.data(), 10000, policy, 1);
        zel_empty_mat_cache(&handle);
        total = platform.writes.size();
        ASSERT_EQ(status, n == static_cast<int>(total) ? -28 : 0) << n;
        ASSERT_EQ(elements_of(array).size(), total - 1) << n;
        size_t failures = 0;
        for (const auto &report : platform.reported("err"))
            failures += report.find("Failed to encode ") == 0;
        ASSERT_EQ(failures, 1u) << n;
    }
    EXPECT_GT(total, 100u);
    free_graph(ZEL_MAT_TYPE_POLICY, policy);
}

TEST(Wire, MarkersOfMatTypes)
{
    auto handle = fresh_handle();
    Bytes array(100);
    const uint16_t starts[] = {0, 0, 138, 135, 128, 125, 9, 96, 23, 60, 101, 107, 113, 116, 122};
    for (uint32_t type = 0; type <= 16; ++type) {
        platform.writes.clear();
        platform.reports.clear();
        zel_add_tlv_struct_start(&handle, type, array.data(), 77);
        zel_add_tlv_struct_end(&handle, type, array.data(), 77);
        if (type < 2 || type > 14) {
            const std::string text = "unkown type: " + std::to_string(type);
            EXPECT_EQ(platform.reported("err"), (Strings{text, text}));
            EXPECT_TRUE(platform.writes.empty());
            continue;
        }
        ASSERT_EQ(platform.writes.size(), 2u);
        EXPECT_EQ(platform.writes[0].id, starts[type]);
        EXPECT_EQ(platform.writes[1].id, starts[type] + 1);
        EXPECT_EQ(platform.writes[1].value, Bytes{0});
        EXPECT_EQ(platform.writes[1].capacity, 77u);
    }
}

// Records whose members are fields alone are sized by their count.
TEST(Wire, SizesOfMembersWithoutContent)
{
    const zel_if_group_t interfaces{5, nullptr};
    const zel_stat_request_t queries{5, nullptr};
    const zel_match_service_t service{5, nullptr};
    EXPECT_EQ(zel_if_group_get_tlv_sz(&interfaces, 1), 16 + 5 * zel_if_element_get_tlv_sz());
    EXPECT_EQ(zel_stat_request_get_tlv_sz(&queries, 1), 18 + 5 * zel_stat_request_entry_get_tlv_sz());
    EXPECT_EQ(zel_match_service_get_tlv_sz(&service, 1), 16 + 5 * zel_match_service_element_get_tlv_sz());
}

// The first match of a process sends one.  Run in a process of its own.
TEST(WireDeathTest, HeartbeatAtTheFirstMatch)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto first_match = [] {
        auto handle = fresh_handle();
        Bytes array(1000);
        zel_match_t match{};
        zel_match_t *matches[] = {&match, &match};
        const zel_match_grp_t group{0, 0, 0, 2, matches};
        zel_add_match_grp_to_tlv(&handle, array.data(), 1000, &group, 1);
        std::exit(platform.heartbeats);
    };
    EXPECT_EXIT(first_match(), testing::ExitedWithCode(1), "");
}

// The counter rises after the heartbeat: one that encodes a match itself sends another.
TEST(Wire, HeartbeatsThatEncode)
{
    auto handle = fresh_handle();
    Bytes array(1 << 16);
    zel_match_t match{};
    zel_match_t *matches[] = {&match};
    const zel_match_grp_t group{0, 0, 0, 1, matches};
    const auto encode = [&] { zel_add_match_grp_to_tlv(&handle, array.data(), 1 << 16, &group, 1); };
    bool is_nested = false;
    platform.on_heartbeat = [&] {
        if (!std::exchange(is_nested, true))
            encode();
    };
    for (int i = 0; i < 32 && platform.heartbeats == 0; ++i)
        encode();
    EXPECT_EQ(platform.heartbeats, 2);
    zel_empty_mat_cache(&handle);
}

// Matches count over the whole process, policies by index.
TEST(Wire, Heartbeats)
{
    auto handle = fresh_handle();
    Bytes array(1 << 16);
    zel_match_t match{};
    std::vector<zel_match_t *> matches(64, &match);
    zel_match_grp_t group{0, 0, 0, 0, matches.data()};
    const auto beats = [&](uint16_t count) {
        platform.heartbeats = 0;
        group.num_match = count;
        zel_add_match_grp_to_tlv(&handle, array.data(), 1 << 16, &group, 1);
        return platform.heartbeats;
    };
    EXPECT_EQ(beats(0), 0);
    // Other tests of this process have encoded matches: find where the counter stands.
    int before = 0;
    while (beats(1) == 0)
        ASSERT_LT(++before, 32);
    EXPECT_EQ(beats(31), 0);
    EXPECT_EQ(beats(1), 1);
    EXPECT_EQ(beats(64), 2);

    zel_policy_t policy{};
    std::vector<zel_policy_t *> policies(66, &policy);
    zel_policy_list_t list{0, policies.data()};
    for (const auto &[count, expected] : {std::pair<uint16_t, int>{32, 0}, {33, 1}, {64, 1}, {65, 2}}) {
        platform.heartbeats = 0;
        list.num_policy = count;
        zel_add_policy_list_to_tlv(&handle, array.data(), 1 << 16, &list, 1);
        EXPECT_EQ(platform.heartbeats, expected) << count;
    }
    zel_empty_mat_cache(&handle);
}
