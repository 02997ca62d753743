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
};

class Policy;

// The TLV array of a received message, single or multi-part; null when it has none.
const void *payload_of(kob_msg_t *msg);

// Reading a request in two steps, because each takes its time with a large message. 64
// bytes behind the array must be readable. verify_request() throws Refusal when the
// array is not a complete message, and returns the number of unknown elements. In a
// strict verification there are none.
uint32_t verify_request(const void *array, bool is_strict = false);
Request parse_request(const void *array, uint32_t num_unknown);
Request read_request(const void *array);

// Reads the message of a stored row. Throws Refusal when it is not a change of that policy.
Request read_stored(const PolicyKey &key, Bytes &message);

// Encodes a policy as the update message that creates it. Throws Refusal when it would
// be too large for any transport.
Bytes write_policy(uint32_t app_type, const Policy &policy);

} // namespace zeld
