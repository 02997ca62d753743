// The status of a running service.
#pragma once

#include "tools/observe/protocol.hpp"
#include "tools/zelctl/connection.hpp"

#include <vector>

namespace zelctl {

struct ServiceStatus {
    observe::Status summary{};
    std::vector<observe::ClientStatus> clients{};
    std::vector<observe::ApplicationStatus> applications{};
    std::vector<observe::RequestCount> counts{};
};

// Throws NoService when the answer cannot be read, or is a refusal.
ServiceStatus read_status(const Options &options);

} // namespace zelctl
