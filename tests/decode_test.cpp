// Decoders: what arrives in any order, twice, damaged, or as a reference.
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"
#include "zel-platform/tlv_check.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

using namespace test;

namespace {

struct Decoded {
    int32_t status;
    uint32_t subtotal;
};

// Decodes from an array's start with a decoder of either shape.
template <class Decoder, class R>
Decoded decode(Decoder decoder, zel_api_handle_t &handle, const Bytes &array, R &record)
{
    uint32_t cursor = 0;
    Decoded decoded{0, 99};
    if constexpr (std::is_invocable_v<Decoder, zel_api_handle_t *, const void *, uint32_t *, R *, uint32_t *, uint32_t>)
        decoded.status = decoder(&handle, array.data(), &cursor, &record, &decoded.subtotal, 1);
    else
        decoded.status = decoder(&handle, array.data(), &cursor, &record, &decoded.subtotal);
    return decoded;
}

bool operator==(const Decoded &a, const Decoded &b) { return a.status == b.status && a.subtotal == b.subtotal; }

// A policy list with two members of everything.
Bytes encoded_list(zel_api_handle_t &handle, Number ids)
{
    auto *list = Graphs([] { return 2; }, std::move(ids)).make<zel_policy_list_t>();
    Bytes array(20000);
    zel_add_policy_list_to_tlv(&handle, array.data(), 19000, list, 1);
    zel_empty_mat_cache(&handle);
    free_graph(ZEL_MAT_TYPE_POLICY_LIST, list);
    return array;
}

// A match of 7 elements.
std::string match(const char *id) { return std::string(" 23 26:") + id + " 28:08000000 46 48:07 47 24 "; }

} // namespace

TEST(Decode, FieldsInAnyOrderRepeatedMissingAndUnknown)
{
    auto handle = fresh_handle();
    zel_kob_header_t header{};
    EXPECT_EQ(
        decode(zel_parse_kob_header_from_tlv, handle, array("1 4:01000000 5:02000000 6:0300 7:04000000 2"), header),
        (Decoded{0, 6}));
    EXPECT_EQ(std::tie(header.api_type, header.app_type, header.policy_id, header.op_code),
              std::make_tuple(1u, 2u, 3, 4u));
    EXPECT_EQ(platform.reported("dbg")[1], "tlv type: 4, tlv_subtotal: 1");

    header = {};
    platform.reports.clear();
    EXPECT_EQ(
        decode(zel_parse_kob_header_from_tlv, handle, array("7:09000000 4:01000000 300:0102 4:05000000 3 2"), header),
        (Decoded{0, 6}));
    EXPECT_EQ(std::tie(header.api_type, header.app_type, header.op_code), std::make_tuple(5u, 0u, 9u));
    EXPECT_EQ(platform.reported("warn"),
              (Strings{"unsupported TLV type: 300, ok if in ISSU", "unsupported TLV type: 3, ok if in ISSU"}));

    // A short value is read past its end: 2 bytes of value, then the next element's id.
    decode(zel_parse_kob_header_from_tlv, handle, array("4:1111 2"), header);
    EXPECT_EQ(header.api_type, 0x00021111u);
}

// An array that ends anywhere: the status comes up, counts are right, nothing leaks.
TEST(Decode, TruncatedAtEveryElement)
{
    auto handle = fresh_handle();
    const Bytes array = encoded_list(handle, [n = 2u]() mutable { return ++n % 13; });
    const auto elements = elements_of(array);
    const auto total = static_cast<uint32_t>(elements.size());
    uint32_t used = 0;
    for (uint32_t kept = 0; kept <= total; ++kept) {
        handle = fresh_handle();
        Bytes cut(array);
        memcpy(cut.data(), &used, 4);
        auto *record = zeroed<zel_policy_list_t>();
        const Decoded expected{kept == total ? 0 : TLV_END, kept};
        ASSERT_EQ(decode(zel_parse_policy_list_from_tlv, handle, cut, *record), expected) << kept;
        zel_empty_mat_cache(&handle);
        free_graph(ZEL_MAT_TYPE_POLICY_LIST, record);
        ASSERT_TRUE(heap.live.empty()) << kept;
        if (kept < total)
            used += 4 + static_cast<uint32_t>(elements[kept].value.size());
    }
}

TEST(Decode, ArrayParents)
{
    auto handle = fresh_handle();
    zel_match_grp_t group{};
    // The count, then both members at the first one's marker, then an action that nobody wants.
    const auto two = array("106:0200" + match("0100") + match("0200") + "96 102");
    EXPECT_EQ(decode(zel_parse_match_grp_from_tlv, handle, two, group), (Decoded{0, 17}));
    ASSERT_EQ(group.num_match, 2);
    EXPECT_EQ(group.matches[1]->id, 2);
    EXPECT_EQ(group.matches[1]->param.exp.exp, 7);
    EXPECT_EQ(platform.reported("warn"), Strings{"unsupported TLV type: 96, ok if in ISSU"});
    zel_empty_mat_cache(&handle);
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH_GROUP, &group);

    // Without members to read, theirs are skipped element by element, the marker silently;
    // an array that this call did not allocate is never read into.
    auto **foreign = reinterpret_cast<zel_match_t **>(0x10);
    for (const auto &[count, left] : {std::pair{"106:0000", static_cast<zel_match_t **>(nullptr)}, {"", foreign}}) {
        group = {0, 0, 0, 5, foreign};
        platform.reports.clear();
        EXPECT_EQ(decode(zel_parse_match_grp_from_tlv, handle, array(count + match("0100") + "102"), group).status, 0);
        EXPECT_EQ(platform.reported("warn").size(), 6u);
        EXPECT_EQ(group.matches, left);
    }

    // A repeated count replaces the array; one without members is released.
    group = {};
    decode(zel_parse_match_grp_from_tlv, handle, array("106:0900 106:0100" + match("0400") + "102"), group);
    EXPECT_EQ(group.num_match, 1);
    EXPECT_EQ(group.matches[0]->id, 4);
    zel_empty_mat_cache(&handle);
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH_GROUP, &group);
    EXPECT_TRUE(heap.live.empty());
}

TEST(Decode, CountThatNoMessageCanSatisfy)
{
    for (const auto &[asked, got] : {std::pair{"137:00000200 136", 131072u}, {"137:01000200 136", 2u}}) {
        auto handle = fresh_handle();
        zel_stat_request_t request{};
        decode(zel_parse_stat_request_from_tlv, handle, array(asked), request);
        EXPECT_EQ(request.num_requests, got);
        EXPECT_EQ(heap.callocs, (std::vector{std::pair(size_t{got}, sizeof(void *))}));
        std::free(request.requests);
    }
}

TEST(Decode, PeculiarFields)
{
    auto handle = fresh_handle();
    zel_match_acl_t acl{};
    std::string a;
    for (int i = 0; i < 65; ++i)
        a += "61";
    decode(zel_parse_match_acl_from_tlv, handle, array("31:" + a + " 30"), acl);
    EXPECT_EQ(acl.acl[63], 'a');
    EXPECT_EQ(acl.acl[64], 0);

    zel_action_lisp_decapsulation_t lisp{};
    decode(zel_parse_action_lisp_decapsulation_from_tlv, handle, array("93:01 94:02 95:03000000 92"), lisp);
    EXPECT_EQ(lisp.if_index, 3u);
    EXPECT_EQ(platform.reported("warn").size(), 2u);

    // The address record is the one that came last, whatever the type says.
    zel_action_param_redirect_t redirect{};
    const auto both = array("81:01000000 65 67:0a000000 71:010203040506 72:63000000 66 73 75:14000000 74 80");
    EXPECT_EQ(decode(zel_parse_action_param_redirect_from_tlv, handle, both, redirect), (Decoded{0, 10}));
    EXPECT_EQ(redirect.l3_ipv4.vrf, 20u);
    EXPECT_EQ(redirect.l2_ipv4.dest_if, 99u);

    // So is a match's parameter; the values of five kinds are reported.
    platform.reports.clear();
    zel_match_t match{};
    const auto values = array("46 48:1f 47 53 55:05000000 54 49 51:ab00 52:cd000000 50 43 45:02000000 44 40 42:0008 41 "
                              "28:08000000 24");
    decode(zel_parse_match_from_tlv, handle, values, match);
    Strings reported;
    for (const auto &text : platform.reported("dbg"))
        if (text.find("Match") == 0)
            reported.push_back(text);
    EXPECT_EQ(reported,
              (Strings{"Match ARP Opcode: 0x7\n", "Match Lisp inst : 5\n", "Match Lisp proto dport: 0xab\n",
                       "Match Lisp proto drloc: 0xcd\n", "Match ARP Opcode: 0x2\n", "Match Eth proto type: 0x800\n"}));
    EXPECT_EQ(match.param.eth_proto.type, 0x800);
    zel_empty_mat_cache(&handle);
    zel_match_exp_t exp{};
    decode(zel_parse_match_exp_from_tlv, handle, array("48:1f 47"), exp);
    EXPECT_EQ(exp.exp, 0x1f);
}

// The platform gets the caller's own cursor for every element, those of contained records included.
TEST(Decode, PullsWithTheCallersCursor)
{
    auto *list = Graphs([] { return 2; }, counted()).make<zel_policy_list_t>();
    auto handle = fresh_handle();
    Message sent;
    zel_policy_list_update(&handle, list, 1, &sent);
    free_graph(ZEL_MAT_TYPE_POLICY_LIST, list);
    Message received{platform.sends[0].message};
    received.payload.resize(received.payload.size() + 64);
    for (const bool is_watched : {true, false}) {
        handle = fresh_handle();
        handle.dbg_cb = is_watched ? dbg_cb : nullptr;
        zel_kob_header_t header{};
        void *const object = zel_parse_tlv_array(&handle, received.payload.data(), &header);
        ASSERT_GT(platform.cursors.size(), 100u);
        EXPECT_EQ(std::set(platform.cursors.begin(), platform.cursors.end()).size(), 1u);
        free_graph(ZEL_MAT_TYPE_POLICY_LIST, object);
    }
    uint32_t cursor = 0, subtotal = 0;
    auto *const request = zeroed<zel_stat_request_t>();
    handle = fresh_handle();
    zel_parse_stat_request_from_tlv(&handle, array("137:02000000 138 140:05000000 139 138 139 136").data(), &cursor,
                                    request, &subtotal, 1);
    EXPECT_EQ(platform.cursors, std::vector<const uint32_t *>(7, &cursor));
    free_graph(ZEL_MAT_TYPE_STAT_REQUEST, request);
}

// The debug flag alone, without a callback, traces every element.
TEST(Decode, DetailForTheTraceFacilityAlone)
{
    auto handle = fresh_handle(1);
    handle.dbg_cb = nullptr;
    zel_match_t match{};
    uint32_t cursor = 0, subtotal = 0;
    zel_parse_match_from_tlv(&handle, array("23 25:01000000 26:0500 27:0600 28:06000000 40 42:0008 41 24").data(),
                             &cursor, &match, &subtotal, 1);
    EXPECT_EQ(subtotal, 9u);
    const auto is_detail = [](const std::string &line) { return line.find("tlv type: ") != std::string::npos; };
    EXPECT_EQ(std::count_if(platform.log.begin(), platform.log.end(), is_detail), 9);
    zel_empty_mat_cache(&handle);
}

// A request without memory for its first entry has no array either: the free traversal
// leaves the array of a request without entries alone.
TEST(Decode, RequestWithoutMemoryForItsFirstEntry)
{
    for (const int failing : {1, 2, 3}) { // the array, the first entry, the second
        auto handle = fresh_handle();
        heap.fail_calloc = failing;
        zel_stat_request_t request{};
        uint32_t cursor = 0, subtotal = 0;
        zel_parse_stat_request_from_tlv(&handle, array("135 137:02000000 138 139 138 139 136").data(), &cursor,
                                        &request, &subtotal, 1);
        EXPECT_EQ(request.num_requests, failing == 3 ? 1u : 0u);
        free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_STAT_REQUEST, &request);
        EXPECT_TRUE(heap.live.empty()) << failing;
    }
}

TEST(Decode, References)
{
    auto handle = fresh_handle();
    auto *owner = Graphs(scripted({3}), scripted({3})).make<zel_match_t>(); // a service
    zel_store_mat_cache(&handle, 1, ZEL_MAT_TYPE_MATCH, 5, owner);
    const size_t stored = heap.callocs.size();

    zel_match_t copy{};
    EXPECT_EQ(decode(zel_parse_match_from_tlv, handle, array("158:08000000 157:0500 24"), copy), (Decoded{0, 3}));
    EXPECT_EQ(copy.cached, 1u);
    copy.cached = 0;
    EXPECT_EQ(memcmp(&copy, owner, sizeof copy), 0); // pointers included
    EXPECT_EQ(heap.callocs.size(), stored);          // not stored again

    // The other kind of object: no more than it holds, and marked as a copy.
    zel_action_t other{};
    decode(zel_parse_action_from_tlv, handle, array("158:08000000 157:0500 97"), other);
    EXPECT_EQ(other.cached, 1u);
    EXPECT_EQ(memcmp(&other, owner, sizeof *owner), 0);

    // Misses: each kind has its text, and the empty record is stored under id 0.
    platform.reports.clear();
    copy = {};
    other = {};
    decode(zel_parse_match_from_tlv, handle, array("157:0500 24"), copy);
    decode(zel_parse_action_from_tlv, handle, array("158:07000000 157:0600 97"), other);
    EXPECT_EQ(platform.reported("err"), (Strings{"non-exisitng mat, app: 1, mat_type: 0, mat_id: 5",
                                                 "a non-exisitng mat, app: 1, mat_type: 7, mat_id: 6"}));
    EXPECT_EQ(zel_found_mat_cache(&handle, 1, ZEL_MAT_TYPE_MATCH, 0)->obj, &copy);
    EXPECT_EQ(zel_found_mat_cache(&handle, 1, ZEL_MAT_TYPE_ACTION, 0)->obj, &other);
    zel_empty_mat_cache(&handle);
    free_graph(ZEL_MAT_TYPE_MATCH, owner);

    // A service after another parameter finds that one's bytes, not a count and an array.
    copy = {};
    const auto leftover = array("32 34:ffff 35:ffffffff 36:ffffffff 37:ffffffff 33 20 9 11:01000000 10 21 24");
    EXPECT_EQ(decode(zel_parse_match_from_tlv, handle, leftover, copy), (Decoded{0, 12}));
    zel_empty_mat_cache(&handle);
    EXPECT_TRUE(heap.live.empty());
}

// The free traversal trusts match.type.  A match whose type says service and whose parameter
// is another record is marked as a copy, so that nothing of it is freed.
TEST(Decode, MatchThatDoesNotOwnWhatItSays)
{
    const std::string type = "28:04000000 ", service = "20 22:0100 9 10 21 ";
    const std::string label = "32 34:0200 35:10000000 36:10000000 37:00000000 33 ";
    const struct {
        std::string elements;
        uint32_t cached;
        size_t lost; // blocks that were displaced
    } cases[] = {
        {type + service + "24", 0, 0},
        {service + type + "24", 0, 0},
        {type + "20 21 24", 0, 0},
        {type + label + "24", 1, 0},
        {label + type, 1, 0},
        {type + label + "20 21 24", 1, 0},
        {type + label + service + "24", 0, 0},
        {type + service + label + "24", 1, 2},
        {service + "24", 0, 2},
    };
    for (const auto &c : cases) {
        auto handle = fresh_handle();
        zel_match_t match{};
        decode(zel_parse_match_from_tlv, handle, array(c.elements), match);
        EXPECT_EQ(match.cached, c.cached) << c.elements;
        zel_empty_mat_cache(&handle);
        free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH, &match);
        EXPECT_EQ(heap.live.size(), c.lost) << c.elements;
        free_heap();
    }
}
