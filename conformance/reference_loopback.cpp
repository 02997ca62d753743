// A client and a service of the reference platform in one process.
#include "zel-platform/kob_client.h"
#include "zel-platform/kob_service.h"
#include "zel/platform_check.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr int32_t moment = 100; // ms, for what does not arrive

struct Loopback {
    kob_service_t *service;
    uint32_t kob;
    kob_msg_t *request;  // the client's
    kob_msg_t *received; // the service's
    kob_msg_t *response; // the client's
    char address[64];
};

Loopback own;

// Removes the socket file.
void close_service()
{
    kob_service_close(own.service);
    own.service = nullptr;
}

// In steps: a message in parts takes several.
void *receive(void *)
{
    for (int32_t waited = 0; waited < moment;) {
        const int32_t error = kob_service_receive(own.service, own.received, 1);
        if (error == KOB_OK)
            return own.received;
        waited += error == KOB_ERR_TIMEOUT ? 1 : moment;
    }
    return nullptr;
}

void *answer(void *, const void *bytes, uint32_t size)
{
    const mpkob_segment_t segment{bytes, size};
    if (kob_service_reply(own.service, own.received, &segment, 1) != KOB_OK)
        return nullptr;
    const uint32_t token = kob_rr_token_get(own.received);
    return kob_receive(own.kob, token, own.response, moment) == KOB_OK ? own.response : nullptr;
}

void refuse(void *) { close_service(); }

} // namespace

int32_t zel_check_loopback_open(const char *address, zel_check_loopback_t *loopback)
{
    (void)std::snprintf(own.address, sizeof own.address, "unix:/tmp/zel-platform-check-%d", getpid());
    const char *const used = address != nullptr ? address : own.address;
    int32_t error = KOB_OK;
    own.service = kob_service_open(used, nullptr, &error);
    if (own.service == nullptr)
        return error;
    (void)std::atexit(close_service);
    own.kob = kob_open(used, nullptr, &error);
    own.request = kob_msg_alloc();
    own.received = kob_msg_alloc();
    own.response = kob_msg_alloc();
    loopback->kob_handle = own.kob;
    loopback->request = own.request;
    loopback->receive = receive;
    loopback->answer = answer;
    loopback->refuse = refuse;
    return error;
}
