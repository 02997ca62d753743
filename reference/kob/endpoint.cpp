// Which endpoint serves an address.
#include "reference/kob/endpoint.hpp"

#include <cstring>

namespace zel::platform {

static constexpr const Endpoint *endpoints[] = {&unix_endpoint};

const Endpoint *find_endpoint(const char *address, const char *&place)
{
    const char *const colon = std::strchr(address, ':');
    if (colon == nullptr)
        return nullptr;
    const auto length = static_cast<std::size_t>(colon - address);
    for (const Endpoint *const endpoint : endpoints) {
        if (std::strlen(endpoint->scheme) != length || std::memcmp(endpoint->scheme, address, length) != 0)
            continue;
        place = colon + 1;
        return endpoint->is_place(place) ? endpoint : nullptr;
    }
    return nullptr;
}

} // namespace zel::platform
