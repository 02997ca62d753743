#include "tools/zeld/message.hpp"

#include "tools/message/tracing.hpp"
#include "tools/zeld/checksum.hpp"
#include "tools/zeld/log.hpp"
#include "tools/zeld/policy.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/transport.h"
#include "zel/service.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace zeld {

namespace {

// Logs a diagnostic of the library, without the line feed that some of them have.
template <LogLevel Level> void report(const char *format, ...) // NOLINT(cert-dcl50-cpp): the type of its callbacks
{
    char text[512];
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text, sizeof text, format, args); // NOLINT(clang-analyzer-valist.Uninitialized): it is not
    va_end(args);
    log(Level, "libzel: {}", fmt::string_view(text, std::strcspn(text, "\n")));
}

// A handle for one message. The debug callback costs a call for each element, so
// it is set only when its output is logged.
zel_api_handle_t make_handle()
{
    zel_api_handle_t handle{};
    const zel_trace_cb_t detail = is_logged(LogLevel::trace) ? report<LogLevel::trace> : nullptr;
    // No warnings: each unknown element of a message is one, and the request has their number.
    zel_api_init(&handle, tools::trace_flag(), 0, ZEL_KOB_NO_TRANSPORT, report<LogLevel::error>, nullptr, detail);
    return handle;
}

zel_kob_header_t header_of(const PolicyKey &key)
{
    return {ZEL_API_POLICY_UPDATE, key.app_type, key.id, service::op_code_set};
}

// An array starts with the number of bytes behind that number.
std::span<const unsigned char> bytes_of(const void *array)
{
    uint32_t used = 0;
    std::memcpy(&used, array, sizeof used);
    const auto *const bytes = static_cast<const unsigned char *>(array);
    return std::span(bytes, std::size_t{TLV_ARRAY_OVERHEAD} + used);
}

} // namespace

const void *payload_of(kob_msg_t *msg)
{
    return mpkob_is_mpkob(0, msg) != 0 ? mpkob_payload_get(0, msg) : kob_payload_get(msg);
}

Request read_request(const void *array, bool is_strict)
{
    zel_api_handle_t handle = make_handle();
    const zel_request_options_t options{sizeof options, is_strict, 0, &handle};
    zel_request_t read{};
    read.size = sizeof read;
    switch (zel_request_read_array(array, &options, &read)) {
    case ZEL_REQUEST_REFUSED:
        throw Refusal(static_cast<service::Error>(read.answer.error), "{}", std::string_view(read.answer.msg));
    case ZEL_REQUEST_NO_MEMORY:
        throw std::bad_alloc();
    }
    Request request{read.header, AnyGraph(read.object, FreeAnyGraph{read.mat_type})};
    request.unknown_elements = read.unknown_elements;
    if (read.unknown_elements == 0)
        request.message = bytes_of(array);
    request.checksum = checksum(bytes_of(array));
    return request;
}

Request read_stored(const PolicyKey &key, Bytes &message)
{
    if (tlv_array_check(message.data(), static_cast<uint32_t>(message.size())) != TLV_OK)
        throw Refusal(service::error_malformed, "the array is longer than the message");
    message.resize(message.size() + KOB_PAYLOAD_TAIL);
    Request request = read_request(message.data(), true);
    message.resize(message.size() - KOB_PAYLOAD_TAIL);
    if (request.header.app_type != key.app_type || request.header.policy_id != key.id)
        throw Refusal(service::error_malformed, "the message changes something else");
    return request;
}

Bytes write_policy(uint32_t app_type, const Policy &policy)
{
    const std::size_t size = policy.encoded_size();
    if (size > KOB_MESSAGE_LIMIT)
        throw Refusal(service::error_limit, "policy {} would take {} bytes", policy.id(), size);
    zel_api_handle_t handle = make_handle();
    Bytes message(size);
    const zel_kob_header_t header = header_of({app_type, policy.id()});
    const PolicyGraph graph(policy);
    const auto capacity = static_cast<uint32_t>(size);
    zel_add_kob_header_to_tlv(&handle, message.data(), capacity, &header);
    assemble_mat_obj_for_kob(&handle, app_type, message.data(), capacity, ZEL_MAT_TYPE_POLICY, &graph.policy());
    if (handle.faults.count != 0) // a checked policy can only fail for lack of memory
        throw std::bad_alloc();
    return message;
}

const EncodedSizes &encoded_sizes()
{
    static const EncodedSizes sizes = [] {
        const zel_policy_t policy{};
        const zel_match_action_pair_t pair{};
        zel_match_t match{};
        match.type = ZEL_MATCH_TYPE_NO_PARAM;
        zel_match_t *matches[] = {&match, &match};
        zel_match_grp_t one{};
        one.num_match = 1;
        one.matches = matches;
        zel_match_grp_t two = one;
        two.num_match = 2;
        return EncodedSizes{TLV_ARRAY_OVERHEAD + zel_kob_header_get_tlv_sz() + encoded_size(policy), encoded_size(pair),
                            zel_if_element_get_tlv_sz(), encoded_size(two) - encoded_size(one)};
    }();
    return sizes;
}

} // namespace zeld
