// Messages: from received bytes to graphs, and from policies to bytes.
#pragma once

#include "tools/zeld/graph.hpp"
#include "zel-platform/kob.h"

#include <vector>

namespace zeld {

using Bytes = std::vector<unsigned char>;

struct Request {
    zel_kob_header_t header;
    AnyGraph object; // of the request kind's type; a delete needs none
};

// The array that a received message carries, in one part or several; null when it has none.
const void *payload_of(kob_msg_t *msg);

// Both throw Refusal for anything that is not a complete message.
Request read_request(kob_msg_t *msg);
Owned<zel_policy_t> read_policy(const Bytes &message);

// Policies as the update messages that would create them.
Bytes write_policy(uint32_t app_type, const zel_policy_t &policy);
Bytes write_policy_list(uint32_t app_type, std::vector<zel_policy_t *> policies);

} // namespace zeld
