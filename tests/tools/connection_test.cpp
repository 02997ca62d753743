// Answers of a service, and services that do not answer.
#include "tools/zelctl/statistics.hpp"

#include "platform/reference/kob_service.h"
#include "platform/reference/tlv_check.h"
#include "tools/common/service_protocol.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <unistd.h>

using namespace zelctl;

namespace {

// Answers one request with what it is given, on a thread of its own.
class OneAnswer {
public:
    OneAnswer(uint32_t status, uint32_t error, int32_t retval, std::string_view text, std::string body = {})
        : body_(std::move(body))
    {
        header_.status = status;
        header_.error = error;
        header_.retval = retval;
        std::memcpy(header_.msg, text.data(), text.size());
        options.service = "unix:/tmp/zelctl_connection_test." + std::to_string(getpid());
        service_ = kob_service_open(options.service.c_str(), nullptr, nullptr);
        thread_ = std::thread([this] { answer(); });
    }
    ~OneAnswer()
    {
        thread_.join();
        kob_service_close(service_);
    }

    Options options;

private:
    void answer()
    {
        kob_msg_t *const msg = kob_msg_alloc();
        if (kob_service_receive(service_, msg, 5000) == KOB_OK) {
            const mpkob_segment_t segments[] = {{&header_, sizeof header_},
                                                {body_.data(), static_cast<uint32_t>(body_.size())}};
            kob_service_reply(service_, msg, segments, body_.empty() ? 1 : 2);
            kob_service_receive(service_, msg, 100); // lets the reply leave
        }
        kob_msg_free(msg);
    }

    zel_resp_hdr_t header_{};
    std::string body_;
    kob_service_t *service_;
    std::thread thread_;
};

Answer ask(const Options &options)
{
    Connection connection(options);
    return connection.request(
        [](zel_api_handle_t *handle, kob_msg_t *msg) { return zel_policy_delete(handle, 7, 2, msg); });
}

std::string failure(const Options &options)
{
    try {
        ask(options);
    } catch (const NoService &fault) {
        return fault.what();
    }
    return {};
}

} // namespace

TEST(Connection, AnAnswerIsReadWhole)
{
    OneAnswer service(service::status_failed, service::error_not_found, -1, std::string(ZEL_RESP_TEXT_SIZE, 'x'));
    const Answer answer = ask(service.options);
    EXPECT_TRUE(answer.refused());
    EXPECT_EQ(answer.error, uint32_t{service::error_not_found});
    EXPECT_EQ(answer.retval, -1);
    EXPECT_EQ(answer.text, std::string(ZEL_RESP_TEXT_SIZE, 'x')); // not terminated
    EXPECT_EQ(report(service.options, answer, "done"), int{exit_refused});
}

TEST(Connection, StatisticsAreReadFromTheBody)
{
    zel_stat_result_entry_t entry{};
    entry.tag = service::stat_tag_pair;
    entry.ids[0] = 7;
    entry.ids[1] = 2;
    entry.stats[0] = {10, 640};
    zel_stat_results_t results{service::stat_tag_results, 1, &entry};
    std::string body(TLV_ARRAY_OVERHEAD + zel_stat_results_get_tlv_sz(&results), '\0');
    uint32_t written = 0;
    ASSERT_EQ(zel_stat_results_to_tlv(&results, body.data(), body.size(), &written, 0, 0), 0);

    OneAnswer service(service::status_ok, service::error_none, 0, "", body);
    const Statistics statistics = read_statistics(ask(service.options));
    EXPECT_EQ(show_as_json(statistics),
              "[{\"policy_id\":7,\"match_action_pair_id\":2,\"packets\":10,\"bytes\":640}]\n");

    // Ten packets in two seconds; counters that were cleared meanwhile count from 0.
    const Statistics before{{{7, 2}, {0, 0}}};
    EXPECT_NE(show_as_table(statistics, &before, 2).find("5.0          320.0"), std::string::npos);
    const Statistics cleared{{{7, 2}, {500, 9000}}};
    EXPECT_NE(show_as_table(statistics, &cleared, 2).find("5.0          320.0"), std::string::npos);
}

TEST(Connection, AnswersWithoutStatisticsAreNoStatistics)
{
    OneAnswer service(service::status_ok, service::error_none, 0, "");
    const Answer answer = ask(service.options);
    EXPECT_FALSE(answer.refused());
    EXPECT_EQ(answer.body(), "");
}

TEST(Connection, NoServiceAndNoAnswer)
{
    Options options;
    options.service = "unix:/tmp/zelctl_connection_test.nobody";
    EXPECT_EQ(failure(options), "unix:/tmp/zelctl_connection_test.nobody: no service at this address");
    options.service = "carrier:pigeon";
    EXPECT_EQ(failure(options), "carrier:pigeon: endpoint address not understood");

    options.service = "unix:/tmp/zelctl_connection_test." + std::to_string(getpid());
    options.timeout = 0.05;
    kob_service_t *const silent = kob_service_open(options.service.c_str(), nullptr, nullptr);
    EXPECT_EQ(failure(options), options.service + ": timed out");
    kob_service_close(silent);
}
