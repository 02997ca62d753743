#include "tools/observe/request.hpp"

#include "tools/json/names.hpp"
#include "wire/format.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace observe {

namespace {

using namespace zel::wire;

std::string_view name_in(tools::Names names, uint32_t value)
{
    const auto found = std::ranges::find(names, value, &tools::Name::value);
    return found != names.end() ? found->name : std::string_view{};
}

uint32_t kind_of_opcode(uint32_t opcode)
{
    const auto *const found = std::ranges::find(own_requests, opcode, &OwnRequest::opcode);
    if (found != std::ranges::end(own_requests))
        return found->kind;
    return is_about_observation(opcode) ? kind_observation : kind_unknown;
}

bool set_member(zel_kob_header_t &header, uint32_t id, ByteView value)
{
    for (const Member &member : kob_header.members) {
        if (member.id != id || member.width != value.size())
            continue;
        std::memcpy(part(&header, member.offset), value.data(), value.size());
        return true;
    }
    return false;
}

// Reads a header that is the first record of an array, as send_to_zel() writes it.
bool read_header(ByteView payload, zel_kob_header_t &header)
{
    constexpr std::size_t overhead = 4; // of the array, and of an element
    std::size_t at = overhead;
    std::size_t num_set = 0;
    for (std::size_t i = 0; i < kob_header.members.size() + 2 && at + overhead <= payload.size(); ++i) {
        const uint32_t id = load_number(&payload[at], sizeof(uint16_t));
        const uint32_t length = load_number(&payload[at + sizeof(uint16_t)], sizeof(uint16_t));
        at += overhead;
        if (length > payload.size() - at)
            return false;
        num_set += set_member(header, id, payload.subspan(at, length)) ? 1 : 0;
        at += length;
    }
    return num_set == kob_header.members.size();
}

} // namespace

std::string_view kind_name(uint32_t kind)
{
    if (kind == kind_observation)
        return "observation";
    if (const auto *const own = std::ranges::find(own_requests, kind, &OwnRequest::kind);
        own != std::ranges::end(own_requests))
        return own->name;
    const std::string_view name = name_in(tools::request_kind_names, kind);
    return name.empty() ? "unknown" : name;
}

Request identify(uint32_t opcode, ByteView payload)
{
    Request request;
    request.kind = kind_of_opcode(opcode);
    if (opcode != ZEL_KOB_OPC_REQUEST && opcode != ZEL_KOB_OPC_MP_REQUEST)
        return request;
    request.has_header = read_header(payload, request.header);
    if (request.has_header && request.header.api_type <= ZEL_API_STATS_PULL)
        request.kind = request.header.api_type;
    return request;
}

std::string describe(const Request &request)
{
    const zel_kob_header_t &header = request.header;
    if (!request.has_header)
        return std::string(kind_name(request.kind));
    const std::string kind = request.kind != kind_unknown ? std::string(kind_name(request.kind))
                                                          : fmt::format("request kind {}", header.api_type);
    const std::string_view op_code = name_in(tools::op_codes, header.op_code);
    return fmt::format("{} {}, application {}, policy {}", kind,
                       op_code.empty() ? fmt::format("op_code {}", header.op_code) : std::string(op_code),
                       header.app_type, header.policy_id);
}

} // namespace observe
