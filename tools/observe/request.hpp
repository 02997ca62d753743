// What a request is, at a look: before it is verified, and whatever its bytes are.
#pragma once

#include "tools/observe/capture.hpp"
#include "tools/observe/protocol.hpp"
#include "tools/records/operator_protocol.hpp"
#include "zel.h"

#include <string_view>

namespace observe {

// Kinds of request by number: 0 is unknown, the library's have their own numbers, and the
// service's follow.
constexpr uint32_t kind_unknown = 0;
constexpr uint32_t kind_show = ZEL_API_STATS_PULL + 1;
constexpr uint32_t kind_traffic = kind_show + 1;
constexpr uint32_t kind_explain = kind_traffic + 1;
constexpr uint32_t kind_list = kind_explain + 1;
constexpr uint32_t kind_change = kind_list + 1;
constexpr uint32_t kind_observation = kind_change + 1;
constexpr uint32_t num_kinds = kind_observation + 1;

// The service's own requests, by transport opcode.
struct OwnRequest {
    uint32_t opcode;
    uint32_t kind;
    std::string_view name;
};
inline constexpr OwnRequest own_requests[] = {
    {service::opcode_show, kind_show, "show"},          {service::opcode_traffic, kind_traffic, "traffic"},
    {service::opcode_explain, kind_explain, "explain"}, {service::opcode_list, kind_list, "list"},
    {service::opcode_change, kind_change, "change"},    {opcode_status, kind_observation, "status"},
    {opcode_watch, kind_observation, "watch"},
};

std::string_view kind_name(uint32_t kind);

struct Request {
    uint32_t kind = kind_unknown;
    bool has_header = false; // which then is that of the message
    zel_kob_header_t header{};
};

// Looks at no more than the first elements of the payload.
Request identify(uint32_t opcode, ByteView payload);

// "policy_update set, application 3, policy 7"
std::string describe(const Request &request);

} // namespace observe
