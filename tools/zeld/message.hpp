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
    // The message itself, if it can be stored and shown unchanged as the policy that
    // it creates. Empty otherwise: the policy is then encoded. Valid as long as the array.
    std::span<const unsigned char> policy_message{};
};

// The TLV array of a received message, single or multi-part; null when it has none.
const void *payload_of(kob_msg_t *msg);

// Throws Refusal when the array is not a complete message. 64 bytes behind the
// array must be readable.
Request read_request(const void *array);

// Reads a stored policy message. Throws Refusal when it is not the policy of that key.
Owned<zel_policy_t> read_policy(const PolicyKey &key, const Bytes &message);

// Encodes a policy as the update message that creates it. Each id has to name one
// object in the policy. Throws Refusal when it would be too large for any transport.
Bytes write_policy(uint32_t app_type, const zel_policy_t &policy);

} // namespace zeld
