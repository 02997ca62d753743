// Request calls, from their arguments to the transport and back to the heap.
#include "support/recording_platform.hpp"

#include <functional>
#include <gtest/gtest.h>

using namespace test;

namespace {

template <class T> T read(const ReadElement &element)
{
    T value{};
    memcpy(&value, element.value.data(), std::min(sizeof value, element.value.size()));
    return value;
}

} // namespace

TEST(Requests, HeadersAndRoots)
{
    zel_policy_t policy{};
    policy.id = 0x1234;
    zel_policy_list_t list{};
    zel_match_action_pair_grp_t pairs{};
    zel_match_action_pair_t pair{};
    zel_match_grp_t matches{};
    zel_action_grp_t actions{};
    zel_match_t match{};
    match.type = ZEL_MATCH_TYPE_NO_PARAM;
    zel_action_t action{};
    zel_if_group_t interfaces{};
    zel_stat_request_t stats{};
    Message msg;
    msg.token = 0xfeedf00d;
    auto handle = fresh_handle();
    zel_api_handle_t *h = &handle;
    const struct {
        std::function<uint32_t()> call;
        uint32_t api_type;
        uint16_t policy_id;
        uint32_t op_code;
        uint16_t root; // start marker; 0: none
    } cases[] = {
        {[&] { return zel_policy_list_update(h, &list, 9, &msg); }, 1, 0, 9, 122},
        {[&] { return zel_policy_update(h, &policy, 9, &msg); }, 2, 0x1234, 9, 116},
        {[&] { return zel_policy_update_match_action_pair_group(h, 7, &pairs, 9, &msg); }, 3, 7, 9, 113},
        {[&] { return zel_policy_update_match_action_pair(h, 7, &pair, 9, &msg); }, 4, 7, 9, 107},
        {[&] { return zel_policy_update_match_group(h, 7, &matches, 9, &msg); }, 5, 7, 9, 101},
        {[&] { return zel_policy_update_action_group(h, 7, &actions, 9, &msg); }, 6, 7, 9, 60},
        {[&] { return zel_policy_update_match(h, 7, &match, 9, &msg); }, 7, 7, 9, 23},
        {[&] { return zel_policy_update_action(h, 7, &action, 9, &msg); }, 8, 7, 9, 96},
        {[&] { return zel_policy_update_interface_group(h, 7, &interfaces, 9, &msg); }, 9, 7, 9, 125},
        {[&] { return zel_policy_delete(h, 65535, 9, &msg); }, 10, 65535, 9, 0},
        {[&] { return zel_stats_pull(h, &stats, &msg); }, 11, 0, 3, 135},
    };
    for (const auto &c : cases) {
        platform.sends.clear();
        platform.reports.clear();
        heap.callocs.clear();
        EXPECT_EQ(c.call(), 0xfeedf00du) << c.api_type;
        ASSERT_EQ(platform.sends.size(), 1u);
        const Send &send = platform.sends[0];
        const auto elements = elements_of(send.message);
        ASSERT_GE(elements.size(), 6u);
        EXPECT_EQ(elements[0].id, 1);
        EXPECT_EQ(read<uint32_t>(elements[1]), c.api_type);
        EXPECT_EQ(read<uint32_t>(elements[2]), handle.app_type);
        EXPECT_EQ(read<uint16_t>(elements[3]), c.policy_id);
        EXPECT_EQ(read<uint32_t>(elements[4]), c.op_code);
        EXPECT_EQ(elements[5].id, 2);
        EXPECT_EQ(elements.size() > 6 ? elements[6].id : 0, c.root);
        EXPECT_EQ(std::tie(send.kob_handle, send.node, send.sap, send.opcode, send.kob_msg),
                  std::make_tuple(7u, 0xfe000000u, 487u, 0x1cc02u, static_cast<void *>(&msg)));
        // One zero-filled block of the message's size, gone again; others are cache entries.
        EXPECT_EQ(std::count(heap.callocs.begin(), heap.callocs.end(), std::pair(send.message.size(), size_t{1})), 1);
        EXPECT_TRUE(heap.live.empty());
        const size_t header = 4 + 5 + 8 + 8 + 6 + 8 + 5;
        EXPECT_EQ(platform.reported("dbg")[c.api_type == 7 || c.api_type == 8 ? 1 : 0],
                  "size_tlv_arr_4_hdr: " + std::to_string(header) +
                      ", size_tlv_arr_4_data: " + std::to_string(send.message.size() - header) + "\n");
    }
}

TEST(Requests, KindsMapToMatTypes)
{
    const uint32_t expected[] = {0, 14, 13, 12, 11, 10, 9, 8, 7, 5, 13, 3, 0, 0};
    for (uint32_t kind = 0; kind < std::size(expected); ++kind)
        EXPECT_EQ(get_mat_obj_type(kind), expected[kind]);
    EXPECT_EQ(get_mat_obj_type(UINT32_MAX), 0u);
}

TEST(Requests, PlainUpToTheThresholdAndMultiPartAbove)
{
    zel_match_t acl{0, 1, 0, ZEL_MATCH_TYPE_ACL, {}, 0};
    zel_match_t label{0, 2, 0, ZEL_MATCH_TYPE_LABEL, {}, 0};
    zel_match_t *matches[] = {&acl, &label};
    const zel_match_grp_t group{0, 0, 0, 2, matches};
    for (const uint32_t size : {120832u, 120833u})
        for (const int32_t refused : {0, 3}) {
            // Elements of these two widths are said to take so much that the message has this size.
            auto handle = fresh_handle();
            platform.element_sizes = {{65, 60000}, {64, 0}};
            const uint32_t rest = 44 + get_mat_obj_size_for_kob(&handle, 1, ZEL_MAT_TYPE_MATCH_GROUP, &group);
            platform.element_sizes[64] = size - rest;
            platform.send_result = refused;
            Message msg;
            msg.token = 5;
            uint32_t result = 99;
            EXPECT_EQ(send_to_zel(&result, ZEL_API_MATCH_GROUP_UPDATE, &handle, 1, &group, 2, &msg),
                      static_cast<uint32_t>(ZEL_SEND_DONE));
            EXPECT_EQ(result, refused ? 0u : 5u);
            ASSERT_EQ(platform.sends.size(), 1u);
            const Send &send = platform.sends[0];
            const bool multi_part = size > 120832;
            EXPECT_EQ(std::tie(send.multi_part, send.opcode, send.num_segments),
                      std::make_tuple(multi_part, multi_part ? 0x1cc04u : 0x1cc02u, multi_part ? 1u : 0u));
            EXPECT_EQ(send.message.size(), size);
            EXPECT_TRUE(heap.live.empty());
            const std::string text = multi_part ? "mpkob_send() fails , kob_retval: 3, errno: 100 "
                                                : "fu_kob_send() fails. kob_retval: 3, errno: 100 ";
            EXPECT_EQ(platform.reported("err"), refused ? std::vector{text} : Strings{});
        }
}

TEST(Requests, RefusedBeforeSending)
{
    auto handle = fresh_handle();
    Message msg;
    uint32_t result = 99;
    heap.fail_calloc = 1;
    EXPECT_EQ(send_to_zel(&result, ZEL_API_POLICY_DELETE, &handle, 1, nullptr, 2, &msg),
              static_cast<uint32_t>(ZEL_SEND_ERR_NO_MEMORY));
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(platform.reports, Strings{"dbg: size_tlv_arr_4_hdr: 44, size_tlv_arr_4_data: 0\n"});

    handle = fresh_handle(1);
    handle.kob_handle = 1;
    result = 99;
    EXPECT_EQ(send_to_zel(&result, ZEL_API_POLICY_UPDATE, &handle, 1, nullptr, 2, &msg),
              static_cast<uint32_t>(ZEL_SEND_ERR_NO_TRANSPORT));
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(platform.sends.empty() && platform.reports.empty() && platform.log.empty() && heap.callocs.empty());
}

TEST(Requests, HandleAndSmallCalls)
{
    platform = {};
    zel_api_handle_t handle{};
    EXPECT_EQ(zel_api_init(&handle, 11, 12, 13, err_cb, warn_cb, nullptr), 1234);
    EXPECT_EQ(platform.log, Strings{"init 12 16"});
    EXPECT_EQ(std::tie(handle.debug, handle.app_type, handle.kob_handle), std::make_tuple(11u, 12u, 13u));
    EXPECT_TRUE(handle.err_cb == err_cb && handle.warn_cb == warn_cb && handle.dbg_cb == nullptr);
    EXPECT_EQ(zel_event_handling(), 0);
    EXPECT_EQ(ddb_kobops_ix_t, 0u);
    EXPECT_EQ(zel_api_handle.mat_cache.root, nullptr);
}

TEST(Responses, HeaderTextAndToken)
{
    Message msg;
    msg.token = 77;
    msg.payload.resize(ZEL_RESP_HDR_SIZE);
    auto *header = reinterpret_cast<zel_resp_hdr_t *>(msg.payload.data());
    *header = {3, 4, -9, {}};
    memset(header->msg, 'm', sizeof header->msg);
    uint32_t status = 0;
    uint32_t error = 0;
    char text[ZEL_RESP_TEXT_SIZE + 1];
    memset(text, 'x', sizeof text);
    EXPECT_EQ(zel_parse_response(&msg, &status, &error, text), -9);
    EXPECT_EQ(std::tie(status, error), std::make_tuple(3u, 4u));
    EXPECT_EQ(std::string(text, sizeof text), std::string(256, 'm') + 'x');
    EXPECT_EQ(zel_parse_response(&msg, nullptr, nullptr, nullptr), -9);
    EXPECT_EQ(zel_req_id_get(&msg), 77u);
    EXPECT_EQ(zel_get_resp_hdr(&msg), header);
    msg.empty = true;
    EXPECT_EQ(zel_parse_response(&msg, &status, &error, text), -1);
    EXPECT_EQ(status, 3u);
}

TEST(Responses, KindOfAMessageWithAWholeHeader)
{
    Message whole{array("3:010000000200000009")};
    EXPECT_EQ(zel_get_api_type(&whole), 1u);
    EXPECT_EQ(zel_get_app_type(0, &whole), 2u);
    whole.multi_part = true;
    whole.context = 6;
    EXPECT_EQ(zel_get_app_type(6, &whole), 2u);
    EXPECT_EQ(zel_get_api_type(&whole), 0u);
    Message other{array("1:0100000002000000")};
    Message none{array("")};
    for (Message *msg : {&other, &none}) {
        EXPECT_EQ(zel_get_api_type(msg), 0u);
        EXPECT_EQ(zel_get_app_type(0, msg), 0u);
    }
}
