// The verifier: what the encoder writes passes, and the first fault of anything else is named.
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"
#include "wire/verify.hpp"
#include "zel/platform/tlv_array.h"

#include <gtest/gtest.h>
#include <random>

using namespace test;

namespace {

struct Verdict {
    uint32_t rule;
    zel_verify_report_t report;
    std::string text() const
    {
        char line[ZEL_VERIFY_TEXT_SIZE];
        EXPECT_LT(zel_verify_report_text(&report, line, sizeof line), int{sizeof line});
        return line;
    }
};

Verdict verify(const Bytes &array, bool strict = false)
{
    const zel_verify_options_t options{sizeof options, strict};
    Verdict verdict{};
    verdict.report.size = sizeof verdict.report;
    const size_t allocated = heap.callocs.size();
    verdict.rule = zel_verify_tlv_array(array.data(), &options, &verdict.report);
    EXPECT_EQ(heap.callocs.size(), allocated);
    EXPECT_EQ(verdict.report.rule, verdict.rule);
    return verdict;
}

// The message that the library sends for a graph.
Bytes sent(uint32_t kind, void *graph)
{
    auto handle = fresh_handle();
    Message slot;
    uint32_t token = 0;
    send_to_zel(&token, kind, &handle, 5, graph, 6, &slot);
    return platform.sends[0].message;
}

// Where an element starts, by its place.
uint32_t offset_of(const std::vector<ReadElement> &elements, size_t index)
{
    uint32_t offset = 4;
    for (size_t i = 0; i < index; ++i)
        offset += tlv_size_get(static_cast<uint32_t>(elements[i].value.size()));
    return offset;
}

} // namespace

TEST(Verify, EveryElementHasItsPlace)
{
    std::mt19937 random(1);
    const auto below = [&](uint32_t n) { return [&random, n] { return static_cast<uint32_t>(random() % n); }; };
    for (uint32_t round = 0; round < 66; ++round) {
        const uint32_t kind = 1 + round % 11;
        const uint32_t mat_type = get_mat_obj_type(kind);
        void *graph = Graphs([&] { return 1 + below(2)(); }, below(6)).make(mat_type);
        const auto whole = elements_of(sent(kind, graph));
        free_graph(mat_type, graph);
        ASSERT_EQ(verify(array(whole), true).rule, ZEL_VERIFY_OK) << verify(array(whole), true).text();
        for (size_t i = 0; i < whole.size(); ++i) {
            // The verdict after an edit, which is found there or behind.
            const auto edited = [&](auto edit, bool strict = false) {
                auto elements = whole;
                edit(elements, elements.begin() + static_cast<std::ptrdiff_t>(i));
                const Verdict verdict = verify(array(elements), strict);
                const size_t index = verdict.report.element_index;
                if (verdict.rule != ZEL_VERIFY_OK) {
                    EXPECT_LE(i, index);
                    EXPECT_EQ(verdict.report.offset, offset_of(elements, index));
                }
                return verdict.rule;
            };
            const auto add_unknown = [](auto &all, auto at) { all.insert(at, ReadElement{150, {1, 2}}); };
            EXPECT_NE(edited([](auto &all, auto at) { all.erase(at); }), ZEL_VERIFY_OK) << i;
            EXPECT_NE(edited([](auto &all, auto at) { all.insert(at, ReadElement(*at)); }), ZEL_VERIFY_OK) << i;
            EXPECT_EQ(edited([](auto &, auto at) { at->value.pop_back(); }), ZEL_VERIFY_WIDTH) << i;
            EXPECT_EQ(edited([](auto &, auto at) { at->value.push_back(0); }), ZEL_VERIFY_WIDTH) << i;
            EXPECT_EQ(edited([](auto &all, auto at) { all.erase(at, all.end()); }),
                      kind == ZEL_API_POLICY_DELETE && i == 6 ? ZEL_VERIFY_OK : ZEL_VERIFY_INCOMPLETE)
                << i;
            EXPECT_EQ(edited(add_unknown), ZEL_VERIFY_OK) << i;
            EXPECT_EQ(edited(add_unknown, true), ZEL_VERIFY_UNKNOWN) << i;
        }
    }
}

TEST(Verify, TheFirstFaultIsNamed)
{
    const std::string tail = "114 125 127:0000 126 117 123";
    const std::string pair = "107 110:0100 111:00000000 112:0000 101 103:0000 104:00000000 105:00000000 ";
    const std::string no_actions = "102 60 62:0000 63:00000000 64:0000 61 108 ";
    const std::string list = "122 124:0100 116 118:0000 119:0700 120:00000000 121:00000000 113 115:0200 " + pair +
                             "106:0000 " + no_actions + pair;
    const std::string head = "23 25:00000000 26:0500 27:0000 ", action = "96 98:00000000 99:0500 ";
    const std::string exp = head + "28:08000000 46 48:07 47 24 ";
    const std::string reference = "23 158:08000000 157:0500 24 ";
    const std::string where = "policy list / policy 1 / pair 2";
    const struct {
        uint32_t kind;
        std::string elements;
        std::string text;
    } cases[] = {
        {1, list + "106:0200 " + exp + reference + no_actions + tail, "accepted"},
        {1, list + "106:0100 " + exp + reference + no_actions + tail,
         where + ": the count is not the number of members: expected 1, found 2 (element 49, id 23, offset 308)"},
        {1, list + "106:0300 " + exp + reference + no_actions + tail,
         where + ": the count is not the number of members: expected 3, found 2 (element 53, id 102, offset 332)"},
        {1, list + "106:0200 " + exp + exp,
         where + " / match 2: an object comes in full again: expected 8, found 5 (element 51, id 26, offset 321)"},
        {1, list + "106:0200 " + exp + "23 158:08000000 157:0600 24 ",
         where + " / match 2: a reference names an object that has not come: expected 8, found 6 "
                 "(element 51, id 157, offset 321)"},
        {1, list + "106:0200 " + exp + "23 158:07000000 157:0500 24 ",
         where + " / match 2: a reference names an object of another kind: expected 8, found 7 "
                 "(element 50, id 158, offset 313)"},
        {7, head + "28:04000000 46 48:07 47 24 ",
         "match: type and parameter disagree: expected 20, found 46 (element 11, id 46, offset 77)"},
        {7, head + "28:04000000 24",
         "match: type and parameter disagree: expected 20, found 24 "
         "(element 11, id 24, offset 77)"},
        {7, head + "28:02000000 46 48:07 47 24",
         "match: type and parameter disagree: expected 0, found 46 (element 11, id 46, offset 77)"},
        {7, head + "28:08000000 46 48:07 47:01 24",
         "match: the value of a marker is not 0: expected 0, found 1 (element 13, id 47, offset 87)"},
        {7, exp + "150", "accepted"},
        {7, exp + "23", "something follows the object: expected 0, found 23 (element 15, id 23, offset 97)"},
        {8, exp,
         "action: not the object that the request kind names: expected 96, found 23 "
         "(element 6, id 23, offset 44)"},
        {8, action + "100:03000000 79 81:02000000 82:00000000 83:00000000 56 58:00 57",
         "action: an element is not in its place: expected 59, found 57 (element 16, id 57, offset 110)"},
        {10, "", "accepted"},
        {9, "", "interface group: the message ends too early: expected 125, found 0 (element 6, id 0, offset 44)"},
        {12, "", "header: the request kind is not known: expected 11, found 12 (element 1, id 4, offset 9)"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(verify(message(c.kind, c.elements)).text(), c.text);
    EXPECT_EQ(verify(array("4:01000000 1")).text(), "header: the header does not come first: expected 1, found 4 "
                                                    "(element 0, id 4, offset 4)");
    EXPECT_EQ(verify(array("")).text(), "header: the message ends too early: expected 1, found 0 "
                                        "(element 0, id 0, offset 4)");
    // An element that nobody can read, within the message and behind it.
    platform.extra_elements = 1;
    EXPECT_EQ(verify(message(7, "")).rule, ZEL_VERIFY_DAMAGED);
    EXPECT_EQ(verify(message(10, "")).text(),
              "an element is damaged: expected 0, found 0 (element 6, id 0, offset 44)");
    platform.extra_elements = 0;
}

TEST(Verify, MessagesAndRecordsOfOtherSizes)
{
    for (const bool in_parts : {false, true}) {
        Message received{message(7, "23 24"), in_parts};
        received.context = 11;
        EXPECT_EQ(zel_verify_mat_obj_from_kob(11, &received, nullptr, nullptr), ZEL_VERIFY_PLACE);
    }
    Message nothing;
    nothing.empty = true;
    EXPECT_EQ(zel_verify_mat_obj_from_kob(0, &nothing, nullptr, nullptr), ZEL_VERIFY_NO_MESSAGE);
    // A caller that knows only the first members of the records.
    const Bytes bytes = message(10, "150");
    const zel_verify_options_t options{offsetof(zel_verify_options_t, strict), 1};
    zel_verify_report_t report{};
    report.size = offsetof(zel_verify_report_t, offset);
    report.offset = 77;
    EXPECT_EQ(zel_verify_tlv_array(bytes.data(), &options, &report), ZEL_VERIFY_OK);
    EXPECT_EQ(verify(bytes).report.unknown_elements, 1u);
    EXPECT_EQ(zel_verify_tlv_array(array("").data(), &options, &report), ZEL_VERIFY_INCOMPLETE);
    EXPECT_EQ(report.rule, ZEL_VERIFY_INCOMPLETE);
    EXPECT_EQ(report.offset, 77u);
    EXPECT_EQ(report.size, offsetof(zel_verify_report_t, offset));
    EXPECT_STREQ(zel_verify_rule_text(ZEL_VERIFY_TRAILING + 1), "unknown rule");
}

namespace {

// The format of a later release, in which interfaces have one more field and policies one
// more group.
namespace later {

constexpr wire::Member new_field{
    .kind = wire::Kind::field, .id = 162, .offset = 0, .width = 4, .since = 2, .name = "mtu", .text = "if_ele mtu"};

constexpr auto if_element_members = [] {
    std::array<wire::Member, 6> members{};
    members[0] = wire::if_element.members[0];
    members[1] = new_field;
    std::copy(wire::if_element.members.begin() + 1, wire::if_element.members.end(), members.begin() + 2);
    return members;
}();
constexpr wire::Record if_element{"if_element",
                                  "",
                                  TLV_ZEL_IF_ELEMENT,
                                  129,
                                  sizeof(zel_if_element_t),
                                  if_element_members,
                                  ZEL_MAT_TYPE_IF_ELEMENT,
                                  "",
                                  "interface"};

constexpr auto if_group_members = [] {
    std::array<wire::Member, 1> members{wire::if_group.members[0]};
    members[0].record = &if_element;
    return members;
}();
constexpr wire::Record if_group{
    "if_group",       "", TLV_ZEL_IF_GROUP, 126, sizeof(zel_if_group_t), if_group_members, ZEL_MAT_TYPE_IF_GROUP, "",
    "interface group"};

constexpr const wire::Record *objects[] = {&if_element, &if_group};
constexpr wire::MessageFormat format = wire::make_format(wire::kob_header, objects);

} // namespace later

uint32_t verify_as(const wire::MessageFormat &format, const Bytes &array, bool strict)
{
    zel_verify_report_t report;
    return wire::verify(format, array.data(), strict, report);
}

} // namespace

// A member that is newer than the first release may be absent, and only at its own place
// present; whoever does not know it passes over it, unless strict.
TEST(Verify, MembersThatOlderPeersDoNotHave)
{
    const auto group = [](const std::string &interface) {
        return message(ZEL_API_INTERFACE_GROUP_UPDATE, "125 127:0100 128 " + interface + " 129 126");
    };
    const std::string rest = " 131:00000000 132:00000000 133:0000 134:00000000";
    const Bytes older = group("130:00000000" + rest);
    const Bytes newer = group("130:00000000 162:dc050000" + rest);
    const Bytes misplaced = group("130:00000000" + rest + " 162:dc050000");
    const Bytes too_narrow = group("130:00000000 162:dc05" + rest);
    const Bytes incomplete = group("162:dc050000" + rest);
    for (const bool strict : {false, true}) {
        EXPECT_EQ(verify_as(later::format, older, strict), ZEL_VERIFY_OK);
        EXPECT_EQ(verify_as(later::format, newer, strict), ZEL_VERIFY_OK);
        EXPECT_EQ(verify_as(later::format, misplaced, strict), ZEL_VERIFY_PLACE);
        EXPECT_EQ(verify_as(later::format, too_narrow, strict), ZEL_VERIFY_WIDTH);
        EXPECT_EQ(verify_as(later::format, incomplete, strict), ZEL_VERIFY_PLACE);
        EXPECT_EQ(verify_as(wire::message_format, older, strict), ZEL_VERIFY_OK);
        EXPECT_EQ(verify_as(wire::message_format, newer, strict), strict ? ZEL_VERIFY_UNKNOWN : ZEL_VERIFY_OK);
    }
}
