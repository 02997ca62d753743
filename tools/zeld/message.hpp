// Messages: from received bytes to graphs, and from policies to bytes.
#pragma once

#include "tools/zeld/graph.hpp"
#include "zel-platform/kob.h"

#include <compare>
#include <vector>

namespace zeld {

using Bytes = std::vector<unsigned char>;

// A policy's id is unique within an application.
struct PolicyKey {
    uint32_t app_type;
    uint16_t id;
    auto operator<=>(const PolicyKey &) const = default;
};

struct Request {
    zel_kob_header_t header{};
    AnyGraph object; // of the type that the request kind carries; null for a delete without object
    // The message itself, if it can be stored as it is. Empty otherwise: it has elements
    // that this version does not know. Valid as long as the array.
    std::span<const unsigned char> message{};
    uint64_t checksum = 0;         // of all its bytes
    uint32_t unknown_elements = 0; // that were ignored
};

class Policy;

// The TLV array of a received message, single or multi-part; null when it has none.
const void *payload_of(kob_msg_t *msg);

// Verifies a message and reads it. 64 bytes behind the array must be readable. Throws
// Refusal when it is not a complete message; when strict, also for an unknown element.
Request read_request(const void *array, bool is_strict = false);

// Reads the message of a stored row. Throws Refusal when it is not a change of that policy.
Request read_stored(const PolicyKey &key, Bytes &message);

// Encodes a policy as the update message that creates it. Throws Refusal when it would
// be too large for any transport.
Bytes write_policy(uint32_t app_type, const Policy &policy);

} // namespace zeld
