// The library on this platform: a request leaves a client, arrives at a service
// as the same graph, and is answered with statistics.
#include "transport_support.hpp"
#include "zel.h"

#include <cstdarg>
#include <memory>

namespace {

uint32_t num_errors = 0;

void count_error(const char *, ...) { ++num_errors; } // the type of the library's callbacks

struct LibraryTest : TransportTest {
    LibraryTest()
    {
        num_errors = 0;
        zel_api_init(&client, 0, 3, kob, count_error, nullptr, nullptr);
        zel_api_init(&server, 0, 0, ZEL_KOB_NO_TRANSPORT, count_error, nullptr, nullptr);
    }

    zel_api_handle_t client{}, server{};
};

// Enough matches that the request travels in parts, each of them used twice.
TEST_F(LibraryTest, LargeGroupArrivesWhole)
{
    std::vector<zel_match_t> matches(5000);
    std::vector<zel_match_t *> members;
    for (uint32_t i = 0; i < 10000; ++i) {
        zel_match_t &match = *members.emplace_back(&matches[i * 7 % 5000]);
        match.id = static_cast<uint16_t>(i % 5000);
        match.type = ZEL_MATCH_TYPE_LISP_INST;
        match.param.lisp_inst.inst_id = i;
    }
    zel_match_grp_t group{1, 0, 0, static_cast<uint16_t>(members.size()), members.data()};

    std::thread service_thread([&] { EXPECT_EQ(serve(), KOB_OK); });
    EXPECT_NE(zel_policy_update_match_group(&client, 5, &group, 1, message.get()), 0U);
    service_thread.join();
    ASSERT_NE(mpkob_is_mpkob(0, received.get()), 0);
    uint32_t types[3];
    uint16_t policy_id = 0;
    auto *const rebuilt = static_cast<zel_match_grp_t *>(
        parse_mat_obj_from_kob(0, &server, received.get(), &types[0], &types[1], &policy_id, &types[2]));
    ASSERT_TRUE(rebuilt != nullptr && types[0] == ZEL_MAT_TYPE_MATCH_GROUP && rebuilt->num_match == members.size());
    for (std::size_t i = 0; i < members.size(); ++i)
        ASSERT_EQ(rebuilt->matches[i]->param.lisp_inst.inst_id, members[i]->param.lisp_inst.inst_id) << i;
    free_contained_mat_obj_mem(&server, 0, types[0], rebuilt);
    std::free(rebuilt);
    EXPECT_EQ(num_errors, 0U);
}

// Handles share nothing but the heartbeat count, so threads with one each may do anything at once.
TEST(Threads, TwoHandlesAtOnce)
{
    const auto work = [](uint16_t app) {
        zel_api_handle_t handle;
        zel_api_init(&handle, 0, app, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
        zel_match_t match{};
        match.type = ZEL_MATCH_TYPE_EXP;
        std::vector<zel_match_t *> members(100, &match);
        zel_match_grp_t group{app, 0, 0, 100, members.data()};
        for (int round = 0; round < 200; ++round) {
            const zel_kob_header_t header{ZEL_API_MATCH_GROUP_UPDATE, app, 1, 1};
            Bytes message(4 + zel_kob_header_get_tlv_sz() +
                          get_mat_obj_size_for_kob(&handle, app, ZEL_MAT_TYPE_MATCH_GROUP, &group) + KOB_PAYLOAD_TAIL);
            const auto capacity = static_cast<uint32_t>(message.size());
            zel_add_kob_header_to_tlv(&handle, message.data(), capacity, &header);
            assemble_mat_obj_for_kob(&handle, app, message.data(), capacity, ZEL_MAT_TYPE_MATCH_GROUP, &group);
            ASSERT_EQ(zel_verify_tlv_array(message.data(), nullptr, nullptr), ZEL_VERIFY_OK);

            uint32_t cursor = 0, subtotal = 0;
            zel_kob_header_t read_header{};
            zel_match_grp_t read{};
            zel_parse_kob_header_from_tlv(&handle, message.data(), &cursor, &read_header, &subtotal);
            zel_parse_match_grp_from_tlv(&handle, message.data(), &cursor, &read, &subtotal, app);
            ASSERT_TRUE(read.id == app && read.num_match == 100 && read.matches[99]->cached == 1);
            zel_empty_mat_cache(&handle);
            free_contained_mat_obj_mem(&handle, app, ZEL_MAT_TYPE_MATCH_GROUP, &read);
        }
    };
    std::thread other(work, uint16_t{2});
    work(1);
    other.join();
}

TEST_F(LibraryTest, StatisticsAndErrorsComeBack)
{
    zel_stat_request_t query{0, nullptr};
    const uint32_t token = zel_stats_pull(&client, &query, message.get());
    ASSERT_EQ(serve(), KOB_OK);
    std::vector<zel_stat_result_entry_t> entries(2000); // in parts, too
    entries[1999].key = 1999;
    zel_stat_results_t results{1, static_cast<uint32_t>(entries.size()), entries.data()};
    const zel_resp_hdr_t header{10, 0, 42, "done"};
    Bytes body(sizeof header + TLV_ARRAY_OVERHEAD + zel_stat_results_get_tlv_sz(&results));
    std::memcpy(body.data(), &header, sizeof header);
    unsigned char *const array = body.data() + sizeof header;
    ASSERT_EQ(zel_stat_results_to_tlv(&results, array, body.size() - sizeof header, nullptr, 0, 0), 0);
    ASSERT_EQ(reply(body), KOB_OK);
    ASSERT_EQ(fetch(token), KOB_OK);
    EXPECT_TRUE(zel_req_id_get(message.get()) == token && token != 0);
    EXPECT_EQ(zel_parse_response(message.get(), nullptr, nullptr, nullptr), 42);
    zel_stat_results_t *const parsed = zel_parse_stats(message.get());
    ASSERT_TRUE(parsed != nullptr && parsed->num_entries == entries.size());
    EXPECT_EQ(parsed->entries[1999].key, 1999U);
    zel_free_stat_results(parsed);

    close_service();
    EXPECT_EQ(zel_policy_delete(&client, 9, 1, message.get()), 0U);
    EXPECT_TRUE(num_errors == 1 && kob_errno_get(kob) == KOB_ERR_ABSENT) << num_errors;
}

} // namespace
