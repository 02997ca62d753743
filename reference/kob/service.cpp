// The service's half of the transport: completes the options and hands over to
// the endpoint that the address names.
#include "zel-platform/kob_service.h"

#include "reference/kob/endpoint.hpp"

#include <algorithm>
#include <cstdlib>

using namespace zel::platform;

struct kob_service {
    const Endpoint *endpoint;
    ServiceEndpoint *clients;
    uint32_t max_message;
};

namespace {

void set_default(uint32_t &option, uint32_t value)
{
    if (option == 0)
        option = value;
}

kob_service_options_t completed(const kob_service_options_t *given)
{
    kob_service_options_t options = given != nullptr ? *given : kob_service_options_t{};
    set_default(options.max_message, 16 * 1024 * 1024);
    options.max_message = std::min(options.max_message, KOB_MESSAGE_LIMIT);
    set_default(options.max_clients, 64);
    set_default(options.max_queued, 2 * options.max_message);
    set_default(options.max_memory,
                static_cast<uint32_t>(std::min(uint64_t{4} * options.max_message, uint64_t{UINT32_MAX})));
    set_default(options.idle_ms, 10000);
    set_default(options.permissions, 0600);
    return options;
}

} // namespace

kob_service_t *kob_service_open(const char *address, const kob_service_options_t *options, int32_t *error)
{
    const char *place = nullptr;
    const Endpoint *const endpoint = find_endpoint(address, place);
    if (endpoint == nullptr) {
        set_error(error, KOB_ERR_ADDRESS);
        return nullptr;
    }
    auto *const service = static_cast<kob_service_t *>(std::calloc(1, sizeof(kob_service_t)));
    if (service == nullptr) {
        set_error(error, KOB_ERR_MEMORY);
        return nullptr;
    }
    const kob_service_options_t complete = completed(options);
    service->endpoint = endpoint;
    service->max_message = complete.max_message;
    const int32_t code = endpoint->listen(place, complete, service->clients);
    set_error(error, code);
    if (code == KOB_OK)
        return service;
    std::free(service);
    return nullptr;
}

int kob_service_fd(const kob_service_t *service) { return service->endpoint->descriptor(service->clients); }

int32_t kob_service_receive(kob_service_t *service, kob_msg_t *msg, int32_t timeout_ms)
{
    const Deadline deadline = timeout_ms < 0 ? Deadline::never() : Deadline::in(static_cast<uint32_t>(timeout_ms));
    kob_msg request{};
    const int32_t error = service->endpoint->await(service->clients, request, deadline);
    if (error == KOB_OK)
        replace(*msg, request);
    return error;
}

int32_t kob_service_reply(kob_service_t *service, const kob_msg_t *request, const mpkob_segment_t *segments,
                          uint32_t num_segments)
{
    uint64_t total = 0;
    for (uint32_t i = 0; i < num_segments; ++i)
        total += segments[i].length;
    if (total > service->max_message)
        return KOB_ERR_TOO_LARGE;
    return service->endpoint->reply(service->clients, *request, segments, num_segments, static_cast<uint32_t>(total));
}

void kob_service_close(kob_service_t *service)
{
    if (service == nullptr)
        return;
    service->endpoint->close(service->clients);
    std::free(service);
}
