// Requests of 1 kB through the transport, and with the NATS library alone, in turns:
//
//     request_latency HOST:PORT
#include "zel-nats.h"
#include "zel-platform/kob_client.h"
#include "zel-platform/kob_service.h"

#include <nats/nats.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int rounds = 10;
constexpr int requests = 500;
constexpr uint32_t request_size = 1024;
constexpr uint32_t answer_size = 268;

std::atomic<bool> is_over = false;

void serve(kob_service_t *service)
{
    kob_msg_t *const msg = kob_msg_alloc();
    const std::vector<char> answer(answer_size);
    const mpkob_segment_t whole{answer.data(), answer_size};
    while (!is_over) {
        if (kob_service_receive(service, msg, 100) == KOB_OK)
            kob_service_reply(service, msg, &whole, 1);
    }
    kob_msg_free(msg);
}

void answer_bare(natsConnection *connection, natsSubscription *, natsMsg *msg, void *)
{
    static const std::vector<char> answer(answer_size);
    natsConnection_Publish(connection, natsMsg_GetReply(msg), answer.data(), answer_size);
    natsMsg_Destroy(msg);
}

natsConnection *connect(const std::string &url)
{
    natsOptions *options = nullptr;
    natsConnection *connection = nullptr;
    natsOptions_Create(&options);
    natsOptions_SetURL(options, url.c_str());
    natsOptions_SetSendAsap(options, true);
    natsConnection_Connect(&connection, options);
    natsOptions_Destroy(options);
    return connection;
}

template <class Request> void measure(std::vector<double> &times, Request request)
{
    for (int i = 0; i < requests; ++i) {
        const Clock::time_point start = Clock::now();
        if (!request())
            std::abort();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
}

double median(std::vector<double> &times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2 || zel_nats_enable(nullptr) != KOB_OK)
        return 2;
    const std::string url = std::string("nats://") + argv[1];
    kob_service_t *const service = kob_service_open((url + "/latency.kob").c_str(), nullptr, nullptr);
    natsConnection *const server = connect(url);
    natsConnection *const client = connect(url);
    if (service == nullptr || server == nullptr || client == nullptr)
        return 1;
    natsSubscription *subscription = nullptr;
    natsConnection_Subscribe(&subscription, server, "latency.bare", answer_bare, nullptr);
    natsConnection_Flush(server);
    std::thread serving(serve, service);

    std::vector<char> request(request_size);
    const uint32_t used = request_size - 4;
    std::memcpy(request.data(), &used, sizeof used);
    const uint32_t kob = kob_open((url + "/latency.kob").c_str(), nullptr, nullptr);
    kob_msg_t *const msg = kob_msg_alloc();
    std::vector<double> ours;
    std::vector<double> bare;
    for (int round = 0; round < rounds; ++round) {
        measure(ours, [&] {
            return fu_kob_send(kob, 1, 2, 3, request.data(), request_size, msg, 0, 0) == KOB_OK &&
                   kob_receive(kob, kob_rr_token_get(msg), msg, -1) == KOB_OK;
        });
        measure(bare, [&] {
            natsMsg *answer = nullptr;
            const natsStatus status =
                natsConnection_Request(&answer, client, "latency.bare", request.data(), request_size, 2000);
            natsMsg_Destroy(answer);
            return status == NATS_OK;
        });
    }
    const double our_median = median(ours);
    const double bare_median = median(bare);
    std::printf("request of 1 kB, p50: %.0f us through the transport, %.0f us with the NATS library alone, %+.0f %%\n",
                our_median, bare_median, 100 * (our_median / bare_median - 1));
    is_over = true;
    serving.join();
    kob_msg_free(msg);
    kob_close(kob);
    kob_service_close(service);
    natsSubscription_Destroy(subscription);
    natsConnection_Destroy(server);
    natsConnection_Destroy(client);
    return 0;
}
