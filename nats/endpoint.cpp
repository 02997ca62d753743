#include "nats/endpoint.hpp"

#include "zel-nats.h"

#include <cstdlib>
#include <cstring>

using namespace zel::platform;

namespace zel::nats {

namespace {

template <bool IsEncrypted> constexpr const char *scheme = IsEncrypted ? "tls" : "nats";

template <bool IsEncrypted> bool is_location(const char *text)
{
    Location location;
    return parse_location(text, scheme<IsEncrypted>, location);
}

template <bool IsEncrypted>
int32_t connect_to(const char *location, uint32_t max_message, Deadline deadline, ClientLink *&link)
{
    return connect_link(location, IsEncrypted, max_message, deadline, link);
}

template <bool IsEncrypted>
int32_t listen_to(const char *location, const ServiceLimits &limits, const kob_service_options_t &,
                  ServiceLink *&service)
{
    return listen_at(location, IsEncrypted, limits, service);
}

template <bool IsEncrypted>
constinit const ClientOperations client_operations = {connect_to<IsEncrypted>, send_request, receive_response,
                                                      disconnect_link};

template <bool IsEncrypted>
constinit const ServiceOperations service_operations = {listen_to<IsEncrypted>, descriptor, await_request, reply_to,
                                                        close_service};

template <bool IsEncrypted>
constinit const Endpoint endpoint = {scheme<IsEncrypted>, is_location<IsEncrypted>, &client_operations<IsEncrypted>,
                                     &service_operations<IsEncrypted>};

// Registered once and kept; true when it is there.
bool enter(const Endpoint &entry, const char *probe)
{
    const char *location = nullptr;
    return find_endpoint(probe, location) == &entry || register_endpoint(entry);
}

struct Source {
    const char *zel_nats_options_t::*option;
    char *Settings::*setting;
    const char *variable;
};

constexpr Source sources[] = {
    {&zel_nats_options_t::user, &Settings::user, "ZEL_NATS_USER"},
    {&zel_nats_options_t::password, &Settings::password, "ZEL_NATS_PASSWORD"},
    {&zel_nats_options_t::ca, &Settings::ca, "ZEL_NATS_CA"},
    {&zel_nats_options_t::certificate, &Settings::certificate, "ZEL_NATS_CERT"},
    {&zel_nats_options_t::key, &Settings::key, "ZEL_NATS_KEY"},
    {&zel_nats_options_t::inbox_prefix, &Settings::inbox_prefix, "ZEL_NATS_INBOX"},
};

bool take_setting(const zel_nats_options_t *options, const Source &source)
{
    const char *value = options != nullptr ? options->*source.option : nullptr;
    if (value == nullptr)
        value = std::getenv(source.variable);
    char *const copy = value != nullptr && *value != '\0' ? strdup(value) : nullptr;
    std::free(settings.*source.setting);
    settings.*source.setting = copy;
    return copy != nullptr || value == nullptr || *value == '\0';
}

} // namespace

} // namespace zel::nats

int32_t zel_nats_enable(const zel_nats_options_t *options)
{
    using namespace zel::nats;
    for (const Source &source : sources) {
        if (!take_setting(options, source))
            return KOB_ERR_MEMORY;
    }
    const bool is_entered = enter(endpoint<false>, "nats://h/s") && enter(endpoint<true>, "tls://h/s");
    return is_entered ? KOB_OK : KOB_ERR_MEMORY;
}
