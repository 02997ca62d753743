// The service's half of the transport: fills in the default options and calls the endpoint
// that the address names.
#include "zel-platform/kob_service.h"

#include "reference/kob/endpoint.hpp"

#include <algorithm>
#include <cstdlib>

using namespace zel::platform;

struct kob_service {
    const ServiceOperations *operations;
    ServiceLink *link;
    uint32_t max_message;
};

namespace {

uint32_t either(uint32_t given, uint64_t otherwise)
{
    return given != 0 ? given : static_cast<uint32_t>(std::min<uint64_t>(otherwise, UINT32_MAX));
}

ServiceLimits limits_of(const kob_service_options_t &given)
{
    ServiceLimits limits{};
    limits.max_message = std::min(either(given.max_message, default_max_message), KOB_MESSAGE_LIMIT);
    limits.max_clients = either(given.max_clients, 64);
    limits.max_clients_per_user = either(given.max_clients_per_user, (uint64_t{7} * limits.max_clients + 7) / 8);
    limits.max_queued = either(given.max_queued, uint64_t{2} * limits.max_message);
    limits.max_memory = either(given.max_memory, uint64_t{4} * limits.max_message);
    limits.idle_ms = either(given.idle_ms, 10000);
    limits.on_refusal = given.on_refusal;
    limits.context = given.context;
    return limits;
}

} // namespace

kob_service_t *kob_service_open(const char *address, const kob_service_options_t *options, int32_t *error)
{
    const char *location = nullptr;
    const Endpoint *const endpoint = find_endpoint(address, location);
    if (endpoint == nullptr || endpoint->service == nullptr) {
        set_error(error, KOB_ERR_ADDRESS);
        return nullptr;
    }
    auto *const service = static_cast<kob_service_t *>(std::calloc(1, sizeof(kob_service_t)));
    if (service == nullptr) {
        set_error(error, KOB_ERR_MEMORY);
        return nullptr;
    }
    const kob_service_options_t given = options != nullptr ? *options : kob_service_options_t{};
    const ServiceLimits limits = limits_of(given);
    service->operations = endpoint->service;
    service->max_message = limits.max_message;
    const int32_t code = endpoint->service->listen(location, limits, given, service->link);
    set_error(error, code);
    if (code == KOB_OK)
        return service;
    std::free(service);
    return nullptr;
}

int kob_service_fd(const kob_service_t *service) { return service->operations->descriptor(*service->link); }

int32_t kob_service_receive(kob_service_t *service, kob_msg_t *msg, int32_t timeout_ms)
{
    if (msg == nullptr)
        return KOB_ERR_ARGUMENT;
    const Deadline deadline = timeout_ms < 0 ? Deadline::never() : Deadline::in(static_cast<uint32_t>(timeout_ms));
    kob_msg request{};
    const int32_t error = service->operations->await(*service->link, request, deadline);
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
    return service->operations->reply(*service->link, *request, segments, num_segments, static_cast<uint32_t>(total));
}

void kob_service_hold(kob_service_t *service, const kob_msg_t *request, int is_held)
{
    if (service->operations->hold != nullptr)
        service->operations->hold(*service->link, *request, is_held != 0);
}

int kob_service_is_gone(const kob_service_t *service, const kob_msg_t *request)
{
    return service->operations->is_gone != nullptr && service->operations->is_gone(*service->link, *request) ? 1 : 0;
}

uint32_t kob_service_clients(const kob_service_t *service, kob_client_info_t *infos, uint32_t capacity)
{
    return service->operations->clients != nullptr ? service->operations->clients(*service->link, infos, capacity) : 0;
}

void kob_service_close(kob_service_t *service)
{
    if (service == nullptr)
        return;
    service->operations->close(*service->link);
    std::free(service);
}
