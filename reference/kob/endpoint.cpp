// The table of endpoints.
#include "reference/kob/endpoint.hpp"

#include <atomic>
#include <cstring>

namespace zel::platform {

namespace unix_socket {
extern const Endpoint endpoint; // the one that is always there
}

namespace {

// Filled from the start; what has been entered stays.
constinit std::atomic<const Endpoint *> endpoints[8] = {&unix_socket::endpoint};

bool has_scheme(const Endpoint &endpoint, const char *scheme, std::size_t length)
{
    return std::strlen(endpoint.scheme) == length && std::memcmp(endpoint.scheme, scheme, length) == 0;
}

} // namespace

bool register_endpoint(const Endpoint &endpoint)
{
    for (auto &entry : endpoints) {
        const Endpoint *present = nullptr;
        if (entry.compare_exchange_strong(present, &endpoint))
            return true;
        if (has_scheme(*present, endpoint.scheme, std::strlen(endpoint.scheme)))
            return false;
    }
    return false;
}

const Endpoint *find_endpoint(const char *address, const char *&location)
{
    const char *const colon = address != nullptr ? std::strchr(address, ':') : nullptr;
    if (colon == nullptr)
        return nullptr;
    for (const auto &entry : endpoints) {
        const Endpoint *const endpoint = entry.load();
        if (endpoint == nullptr || !has_scheme(*endpoint, address, static_cast<std::size_t>(colon - address)))
            continue;
        location = colon + 1;
        return endpoint->is_location(location) ? endpoint : nullptr;
    }
    return nullptr;
}

} // namespace zel::platform
