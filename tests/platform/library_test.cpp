// The library on this platform: a request leaves a client, arrives at a service
// as the same graph, and is answered with statistics.
#include "platform/reference/tlv_check.h"
#include "transport_support.hpp"
#include "zel.h"

#include <cstdarg>

namespace {

uint32_t num_errors = 0;

void count_error(const char *, ...) // NOLINT(cert-dcl50-cpp): the type of the library's callbacks
{
    ++num_errors;
}

class LibraryTest : public TransportTest {
protected:
    LibraryTest()
    {
        num_errors = 0;
        zel_api_init(&client, 0, 3, kob, count_error, nullptr, nullptr);
        zel_api_init(&server, 0, 0, ZEL_KOB_NO_TRANSPORT, count_error, nullptr, nullptr);
    }

    void *parse(uint32_t &mat_type)
    {
        uint32_t api_type = 0;
        uint32_t app_type = 0;
        uint16_t policy_id = 0;
        return parse_mat_obj_from_kob(0, &server, received.get(), &mat_type, &api_type, &policy_id, &app_type);
    }

    zel_api_handle_t client{};
    zel_api_handle_t server{};
};

// Enough matches that the request travels in parts, each of them used twice.
TEST_F(LibraryTest, LargeGroupArrivesWhole)
{
    std::vector<zel_match_t> matches(5000);
    std::vector<zel_match_t *> members;
    for (uint32_t i = 0; i < matches.size(); ++i) {
        matches[i].id = static_cast<uint16_t>(i);
        matches[i].type = ZEL_MATCH_TYPE_LISP_INST;
        matches[i].param.lisp_inst.inst_id = 7U * i;
    }
    for (std::size_t i = 0; i < 2 * matches.size(); ++i)
        members.push_back(&matches[i * 7 % matches.size()]);
    zel_match_grp_t group{1, 0, 0, static_cast<uint16_t>(members.size()), members.data()};

    std::thread service_thread([&] { EXPECT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK); });
    const uint32_t token = zel_policy_update_match_group(&client, 5, &group, 1, message.get());
    service_thread.join();
    ASSERT_NE(token, 0U);
    ASSERT_NE(mpkob_is_mpkob(0, received.get()), 0);

    uint32_t mat_type = 0;
    auto *const rebuilt = static_cast<zel_match_grp_t *>(parse(mat_type));
    ASSERT_NE(rebuilt, nullptr);
    ASSERT_EQ(mat_type, uint32_t{ZEL_MAT_TYPE_MATCH_GROUP});
    ASSERT_EQ(rebuilt->num_match, members.size());
    for (std::size_t i = 0; i < members.size(); ++i)
        ASSERT_EQ(rebuilt->matches[i]->param.lisp_inst.inst_id, members[i]->param.lisp_inst.inst_id) << i;
    free_contained_mat_obj_mem(&server, 0, mat_type, rebuilt);
    std::free(rebuilt);
    EXPECT_EQ(num_errors, 0U);
}

TEST_F(LibraryTest, StatisticsComeBack)
{
    zel_stat_request_t query{0, nullptr};
    const uint32_t token = zel_stats_pull(&client, &query, message.get());
    ASSERT_NE(token, 0U);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);

    std::vector<zel_stat_result_entry_t> entries(2000); // in parts, too
    for (uint32_t i = 0; i < entries.size(); ++i)
        entries[i].key = i;
    zel_stat_results_t results{1, static_cast<uint32_t>(entries.size()), entries.data()};
    Bytes body(TLV_ARRAY_OVERHEAD + zel_stat_results_get_tlv_sz(&results));
    ASSERT_EQ(zel_stat_results_to_tlv(&results, body.data(), body.size(), nullptr, 0, 0), 0);
    const zel_resp_hdr_t header{10, 0, 42, "done"};
    const mpkob_segment_t segments[] = {{&header, sizeof header}, {body.data(), static_cast<uint32_t>(body.size())}};
    ASSERT_EQ(kob_service_reply(service, received.get(), segments, 2), KOB_OK);
    ASSERT_EQ(kob_receive(kob, token, message.get(), patience), KOB_OK);

    EXPECT_EQ(zel_req_id_get(message.get()), token);
    EXPECT_EQ(zel_parse_response(message.get(), nullptr, nullptr, nullptr), 42);
    zel_stat_results_t *const parsed = zel_parse_stats(message.get());
    ASSERT_NE(parsed, nullptr);
    ASSERT_EQ(parsed->num_entries, entries.size());
    EXPECT_EQ(parsed->entries[1999].key, 1999U);
    zel_free_stat_results(parsed);
}

TEST_F(LibraryTest, RefusalReachesTheErrorCallback)
{
    close_service();
    EXPECT_EQ(zel_policy_delete(&client, 9, 1, message.get()), 0U);
    EXPECT_EQ(num_errors, 1U);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_ABSENT);
}

} // namespace
