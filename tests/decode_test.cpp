// Decoders: what arrives in any order, twice, damaged, or as a reference.
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"

#include <algorithm>
#include <gtest/gtest.h>

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

void add_match(Array &array, uint16_t id)
{
    array.marker(23)
        .field(26, id)
        .field(28, uint32_t{ZEL_MATCH_TYPE_EXP})
        .marker(46)
        .add(48, {7})
        .marker(47)
        .marker(24);
}

} // namespace

TEST(Decode, FieldsInAnyOrderRepeatedMissingAndUnknown)
{
    auto handle = fresh_handle();
    zel_kob_header_t header{};
    const auto full = Array().marker(1).field(4, 1u).field(5, 2u).field(6, uint16_t{3}).field(7, 4u).marker(2);
    EXPECT_EQ(decode(zel_parse_kob_header_from_tlv, handle, Array(full).bytes(), header), (Decoded{0, 6}));
    EXPECT_EQ(std::tie(header.api_type, header.app_type, header.policy_id, header.op_code),
              std::make_tuple(1u, 2u, 3, 4u));
    EXPECT_EQ(platform.reported("dbg")[1], "tlv type: 4, tlv_subtotal: 1");

    header = {};
    platform.reports.clear();
    const auto mixed = Array().field(7, 9u).field(4, 1u).add(300, {1, 2}).field(4, 5u).add(3).marker(2);
    EXPECT_EQ(decode(zel_parse_kob_header_from_tlv, handle, Array(mixed).bytes(), header), (Decoded{0, 6}));
    EXPECT_EQ(std::tie(header.api_type, header.app_type, header.op_code), std::make_tuple(5u, 0u, 9u));
    EXPECT_EQ(platform.reported("warn"), (std::vector<std::string>{"unsupported TLV type: 300, ok if in ISSU",
                                                                   "unsupported TLV type: 3, ok if in ISSU"}));

    // A short value is read past its end: 2 bytes of value, then the next element's id.
    header = {};
    decode(zel_parse_kob_header_from_tlv, handle, Array().field(4, uint16_t{0x1111}).marker(2).bytes(), header);
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
        const Decoded expected{kept == total ? 0 : 61, kept};
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
    Array two;
    two.field(106, uint16_t{2});
    add_match(two, 1);
    add_match(two, 2);
    two.marker(96).marker(102);
    EXPECT_EQ(decode(zel_parse_match_grp_from_tlv, handle, two.bytes(), group), (Decoded{0, 17}));
    ASSERT_EQ(group.num_match, 2);
    EXPECT_EQ(group.matches[1]->id, 2);
    EXPECT_EQ(group.matches[1]->param.exp.exp, 7);
    EXPECT_EQ(platform.reported("warn"), std::vector<std::string>{"unsupported TLV type: 96, ok if in ISSU"});
    zel_empty_mat_cache(&handle);
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH_GROUP, &group);

    // A count of 0: members are skipped element by element, their markers silently.
    for (const bool counted : {true, false}) {
        group = {0, 0, 0, 5, reinterpret_cast<zel_match_t **>(0x10)};
        platform.reports.clear();
        Array none;
        if (counted)
            none.field(106, uint16_t{0});
        add_match(none, 1);
        none.marker(102);
        EXPECT_EQ(decode(zel_parse_match_grp_from_tlv, handle, none.bytes(), group).status, 0);
        EXPECT_EQ(platform.reported("warn").size(), 6u);
        // An array that this call did not allocate is never read into.
        EXPECT_EQ(group.matches, counted ? nullptr : reinterpret_cast<zel_match_t **>(0x10));
    }

    // A repeated count replaces the array; one without members is released.
    group = {};
    Array repeated;
    repeated.field(106, uint16_t{9}).field(106, uint16_t{1});
    add_match(repeated, 4);
    repeated.marker(102);
    decode(zel_parse_match_grp_from_tlv, handle, repeated.bytes(), group);
    EXPECT_EQ(group.num_match, 1);
    EXPECT_EQ(group.matches[0]->id, 4);
    zel_empty_mat_cache(&handle);
    free_contained_mat_obj_mem(&handle, 1, ZEL_MAT_TYPE_MATCH_GROUP, &group);
    EXPECT_TRUE(heap.live.empty());
}

TEST(Decode, CountThatNoMessageCanSatisfy)
{
    for (const auto &[asked, got] : {std::pair{131072u, 131072u}, {131073u, 2u}, {UINT32_MAX, 2u}}) {
        auto handle = fresh_handle();
        zel_stat_request_t request{};
        decode(zel_parse_stat_request_from_tlv, handle, Array().field(137, asked).marker(136).bytes(), request);
        EXPECT_EQ(request.num_requests, got);
        EXPECT_EQ(heap.callocs, (std::vector{std::pair(size_t{got}, sizeof(void *))}));
        std::free(request.requests);
    }
}

TEST(Decode, PeculiarFields)
{
    auto handle = fresh_handle();
    zel_match_acl_t acl{};
    decode(zel_parse_match_acl_from_tlv, handle, Array().add(31, Bytes(65, 'a')).marker(30).bytes(), acl);
    EXPECT_EQ(acl.acl[63], 'a');
    EXPECT_EQ(acl.acl[64], 0);

    zel_action_lisp_decapsulation_t lisp{};
    decode(zel_parse_action_lisp_decapsulation_from_tlv, handle,
           Array().field(93, 1u).field(94, 2u).field(95, 3u).marker(92).bytes(), lisp);
    EXPECT_EQ(lisp.if_index, 3u);
    EXPECT_EQ(platform.reported("warn").size(), 2u);

    // The address record is the one that came last, whatever the type says.
    zel_action_param_redirect_t redirect{};
    const auto both = Array()
                          .field(81, 1u)
                          .marker(65)
                          .field(67, 10u)
                          .add(71, {1, 2, 3, 4, 5, 6})
                          .field(72, 99u)
                          .marker(66)
                          .marker(73)
                          .field(75, 20u)
                          .marker(74)
                          .marker(80);
    EXPECT_EQ(decode(zel_parse_action_param_redirect_from_tlv, handle, Array(both).bytes(), redirect),
              (Decoded{0, 10}));
    EXPECT_EQ(redirect.l3_ipv4.vrf, 20u);
    EXPECT_EQ(redirect.l2_ipv4.dest_if, 99u);

    platform.reports.clear();
    const auto values = Array()
                            .marker(46)
                            .add(48, {0x1f})
                            .marker(47)
                            .marker(53)
                            .field(55, 5u)
                            .marker(54)
                            .marker(49)
                            .field(51, uint16_t{0xab})
                            .field(52, 0xcdu)
                            .marker(50)
                            .marker(43)
                            .field(45, 2u)
                            .marker(44)
                            .marker(40)
                            .field(42, uint16_t{0x800})
                            .marker(41)
                            .field(28, 8u)
                            .marker(24);
    zel_match_t match{};
    decode(zel_parse_match_from_tlv, handle, Array(values).bytes(), match);
    std::vector<std::string> reported;
    for (const auto &text : platform.reported("dbg"))
        if (text.find("Match") == 0)
            reported.push_back(text);
    EXPECT_EQ(reported, (std::vector<std::string>{"Match ARP Opcode: 0x7\n", "Match Lisp inst : 5\n",
                                                  "Match Lisp proto dport: 0xab\n", "Match Lisp proto drloc: 0xcd\n",
                                                  "Match ARP Opcode: 0x2\n", "Match Eth proto type: 0x800\n"}));
    EXPECT_EQ(match.param.eth_proto.type, 0x800);
    zel_empty_mat_cache(&handle);
    zel_match_exp_t exp{};
    decode(zel_parse_match_exp_from_tlv, handle, Array().add(48, {0x1f}).marker(47).bytes(), exp);
    EXPECT_EQ(exp.exp, 0x1f);
}

TEST(Decode, References)
{
    auto handle = fresh_handle();
    auto *owner = Graphs(scripted({3}), scripted({3})).make<zel_match_t>(); // a service
    zel_store_mat_cache(&handle, 1, ZEL_MAT_TYPE_MATCH, 5, owner);
    const size_t stored = heap.callocs.size();

    zel_match_t copy{};
    const auto reference = Array().field(158, 8u).field(157, uint16_t{5}).marker(24);
    EXPECT_EQ(decode(zel_parse_match_from_tlv, handle, Array(reference).bytes(), copy), (Decoded{0, 3}));
    EXPECT_EQ(copy.cached, 1u);
    EXPECT_EQ(copy.param.service.elements, owner->param.service.elements);
    copy.cached = 0;
    EXPECT_EQ(memcmp(&copy, owner, sizeof copy), 0);
    EXPECT_EQ(heap.callocs.size(), stored); // not stored again

    // The other kind of object: no more than it holds, and marked as a copy.
    zel_action_t other{};
    const auto crossed = Array().field(158, 8u).field(157, uint16_t{5}).marker(97);
    decode(zel_parse_action_from_tlv, handle, Array(crossed).bytes(), other);
    EXPECT_EQ(other.cached, 1u);
    EXPECT_EQ(memcmp(&other, owner, sizeof *owner), 0);

    // Misses: each kind has its text, and the empty record is stored under id 0.
    platform.reports.clear();
    copy = {};
    other = {};
    decode(zel_parse_match_from_tlv, handle, Array().field(157, uint16_t{5}).marker(24).bytes(), copy);
    decode(zel_parse_action_from_tlv, handle, Array().field(158, 7u).field(157, uint16_t{6}).marker(97).bytes(), other);
    EXPECT_EQ(platform.reported("err"),
              (std::vector<std::string>{"non-exisitng mat, app: 1, mat_type: 0, mat_id: 5",
                                        "a non-exisitng mat, app: 1, mat_type: 7, mat_id: 6"}));
    EXPECT_EQ(zel_found_mat_cache(&handle, 1, ZEL_MAT_TYPE_MATCH, 0)->obj, &copy);
    EXPECT_EQ(zel_found_mat_cache(&handle, 1, ZEL_MAT_TYPE_ACTION, 0)->obj, &other);
    zel_empty_mat_cache(&handle);
    free_graph(ZEL_MAT_TYPE_MATCH, owner);
}

// A service after another parameter finds its bytes, not a count and an array.
TEST(Decode, ServiceWithoutCountReadsNothing)
{
    auto handle = fresh_handle();
    zel_match_t match{};
    const auto elements = Array()
                              .marker(29)
                              .add(31, Bytes(65, 0xee))
                              .marker(30)
                              .marker(20)
                              .marker(9)
                              .field(11, 1u)
                              .marker(10)
                              .marker(21)
                              .marker(24);
    EXPECT_EQ(decode(zel_parse_match_from_tlv, handle, Array(elements).bytes(), match), (Decoded{0, 9}));
    zel_empty_mat_cache(&handle);
    EXPECT_TRUE(heap.live.empty());
}

// Whatever allocation fails, the rest stays consistent and can be freed.
TEST(Decode, AnyAllocationFails)
{
    auto handle = fresh_handle();
    const Bytes array = encoded_list(handle, counted());
    size_t allocations = 0; // of a decoding in which none fails, the first one
    for (size_t n = 0; n <= allocations; ++n) {
        handle = fresh_handle();
        auto *record = zeroed<zel_policy_list_t>();
        const size_t before = heap.callocs.size();
        heap.fail_calloc = static_cast<int>(n);
        decode(zel_parse_policy_list_from_tlv, handle, array, *record);
        if (n == 1) {
            EXPECT_EQ(platform.reported("err")[0],
                      "cannot allocate, count: 2, size: " + std::to_string(sizeof(void *)));
        }
        EXPECT_EQ(platform.reported("err").empty(), n == 0) << n;
        if (n == 0)
            allocations = heap.callocs.size() - before;
        zel_empty_mat_cache(&handle);
        free_graph(ZEL_MAT_TYPE_POLICY_LIST, record);
        ASSERT_TRUE(heap.live.empty()) << n;
    }
    EXPECT_GT(allocations, 40u);
}
