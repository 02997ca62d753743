#include "tools/zeld/service.hpp"

#include "platform/tlv_array.h"
#include "tools/zeld/log.hpp"
#include "tools/zeld/statistics.hpp"

namespace zeld {

namespace {

using service::error_limit;
using service::error_malformed;
using service::error_unsupported;

Answer make_answer(uint32_t status, uint32_t error, int32_t retval, std::string_view text)
{
    Answer answer;
    answer.header.status = status;
    answer.header.error = error;
    answer.header.retval = retval;
    text.copy(answer.header.msg, sizeof answer.header.msg - 1); // the last byte stays NUL
    return answer;
}

Answer success(std::string_view text, std::size_t retval = 0)
{
    return make_answer(service::status_ok, service::error_none, static_cast<int32_t>(retval), text);
}

Answer failure(service::Error error, std::string_view text)
{
    return make_answer(service::status_failed, error, -1, text);
}

// Reads the values of an array whose elements are all of one kind.
template <class V> std::vector<V> read_values(const void *array, uint16_t type)
{
    if (array == nullptr)
        return {};
    std::vector<V> values;
    uint32_t cursor = 0;
    const uint32_t num_elements = tlv_array_get_num_tlvs(array, 0);
    for (uint32_t i = 1; i <= num_elements; ++i) {
        uint16_t found = 0;
        uint16_t length = 0;
        const void *value = nullptr;
        if (tlv_array_get_next_tlv(array, &found, &length, &value, 0, &cursor) != 0)
            throw Refusal(error_malformed, "element {} is damaged", i);
        if (found != type || length != sizeof(V))
            throw Refusal(error_malformed, "element {}: type {} of {} bytes where type {} of {} belongs", i, found,
                          length, type, sizeof(V));
        std::memcpy(&values.emplace_back(), value, sizeof(V));
    }
    return values;
}

} // namespace

void Service::serve(kob_service_t *transport, kob_msg_t *msg)
{
    const Answer given = answer(msg);
    const mpkob_segment_t segments[] = {
        {&given.header, sizeof given.header},
        {given.body.data(), static_cast<uint32_t>(given.body.size())},
    };
    if (const int32_t error = kob_service_reply(transport, msg, segments, given.body.empty() ? 1 : 2); error != KOB_OK)
        log(LogLevel::warn, "client {}: the answer was not delivered: {}", kob_msg_client(msg), kob_error_text(error));
}

Answer Service::answer(kob_msg_t *msg)
{
    Answer given;
    try {
        given = dispatch(msg);
    } catch (const Refusal &refusal) {
        given = failure(refusal.error(), refusal.what());
    } catch (const std::bad_alloc &) {
        given = failure(error_limit, "out of memory");
    }
    if (given.header.status != service::status_ok)
        log(LogLevel::warn, "client {}: refused, error {}: {}", kob_msg_client(msg), given.header.error,
            given.header.msg);
    return given;
}

Answer Service::dispatch(kob_msg_t *msg)
{
    switch (const uint32_t opcode = kob_msg_opcode(msg)) {
    case ZEL_KOB_OPC_REQUEST:
    case ZEL_KOB_OPC_MP_REQUEST:
        return policy_request(msg);
    case service::opcode_show:
        return show(payload_of(msg));
    case service::opcode_traffic:
        return traffic(payload_of(msg));
    default:
        throw Refusal(error_unsupported, "opcode {:#x} is not known", opcode);
    }
}

Answer Service::policy_request(kob_msg_t *msg)
{
    const Request request = read_request(payload_of(msg));
    const zel_kob_header_t &header = request.header;
    if (header.api_type != ZEL_API_STATS_PULL) {
        const std::string text = policies_.apply(request);
        log(LogLevel::info, "client {}: request kind {}, op_code {}, application {}: {}", kob_msg_client(msg),
            header.api_type, header.op_code, header.app_type, text);
        return success(text);
    }
    if (header.op_code != service::op_code_stats)
        throw Refusal(error_unsupported, "op_code {} is not known for a statistics request", header.op_code);
    Answer given = success("statistics");
    given.body = answer_statistics(policies_, header.app_type,
                                   *static_cast<const zel_stat_request_t *>(request.object.get()), max_body_);
    return given;
}

Answer Service::show(const void *array) const
{
    const auto requests = read_values<service::ShowRequest>(array, service::element_show);
    if (requests.size() != 1)
        throw Refusal(error_malformed, "{} elements where one show request belongs", requests.size());
    const auto [app_type, policy_id] = requests.front();
    std::vector<Policy *> policies;
    if (policy_id == service::show_all)
        policies = policies_.of_application(app_type);
    else if (policy_id <= UINT16_MAX)
        policies = {&policies_.get({app_type, static_cast<uint16_t>(policy_id)})};
    else
        throw Refusal(error_malformed, "{} is not a policy id", policy_id);

    std::size_t size = 0;
    for (const Policy *const policy : policies)
        size += policy->message().size();
    if (size > max_body_)
        throw Refusal(error_limit, "the policies take {} bytes, and an answer has room for {}; show them one by one",
                      size, max_body_);
    Answer given = success(fmt::format("{} policies", policies.size()));
    given.body.reserve(size);
    for (const Policy *const policy : policies)
        given.body.insert(given.body.end(), policy->message().begin(), policy->message().end());
    return given;
}

Answer Service::traffic(const void *array)
{
    const auto packets = read_values<service::PacketHeader>(array, service::element_packet);
    const std::size_t num_matched = policies_.count(packets);
    return success(fmt::format("{} of {} packets matched", num_matched, packets.size()), num_matched);
}

} // namespace zeld
