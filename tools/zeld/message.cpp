#include "tools/zeld/message.hpp"

#include "platform/transport.h"
#include "tools/message/tracing.hpp"
#include "tools/zeld/log.hpp"
#include "zel-platform/tlv_check.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace zeld {

namespace {

// Set when the library reports an error. The library then continues, so its result
// is incomplete.
bool has_library_failed = false;

// Logs a diagnostic of the library, without the line feed that some of them have.
template <LogLevel Level> void report(const char *format, ...) // NOLINT(cert-dcl50-cpp): the type of its callbacks
{
    if (Level == LogLevel::error)
        has_library_failed = true;
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
    has_library_failed = false;
    zel_api_handle_t handle{};
    const zel_trace_cb_t detail = is_logged(LogLevel::trace) ? report<LogLevel::trace> : nullptr;
    zel_api_init(&handle, tools::trace_flag(), 0, ZEL_KOB_NO_TRANSPORT, report<LogLevel::error>, report<LogLevel::warn>,
                 detail);
    return handle;
}

// A verified message or a checked policy can only fail for lack of memory.
void require_complete()
{
    if (has_library_failed)
        throw std::bad_alloc();
}

// The parser is tolerant: its graph of a message of another shape may lack members
// or share memory. So each message is verified first. Returns the number of
// unknown elements; in a strict verification there are none.
uint32_t verify(const void *array, bool is_strict)
{
    const zel_verify_options_t options{sizeof options, is_strict};
    zel_verify_report_t result{};
    result.size = sizeof result;
    const uint32_t rule = zel_verify_tlv_array(array, &options, &result);
    if (rule == ZEL_VERIFY_OK)
        return result.unknown_elements;
    char text[ZEL_VERIFY_TEXT_SIZE];
    zel_verify_report_text(&result, text, sizeof text);
    throw Refusal(rule == ZEL_VERIFY_REQUEST_KIND ? service::error_unsupported : service::error_malformed, "{}",
                  std::string_view(text));
}

// Reads the header and the object of a verified message.
Request parse(const void *array)
{
    zel_api_handle_t handle = make_handle();
    Request request;
    void *const object = zel_parse_tlv_array(&handle, array, &request.header);
    request.object = AnyGraph(object, FreeAnyGraph{get_mat_obj_type(request.header.api_type)});
    require_complete();
    return request;
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

Request read_request(const void *array)
{
    const uint32_t num_unknown = verify(array, false);
    Request request = parse(array);
    const zel_kob_header_t &header = request.header;
    if (header.api_type == ZEL_API_POLICY_UPDATE && header.op_code == service::op_code_set && num_unknown == 0)
        request.policy_message = bytes_of(array);
    return request;
}

Owned<zel_policy_t> read_policy(const PolicyKey &key, const Bytes &message)
{
    if (tlv_array_check(message.data(), static_cast<uint32_t>(message.size())) != TLV_OK)
        throw Refusal(service::error_malformed, "the array is longer than the message");
    Bytes padded(message);
    padded.resize(message.size() + KOB_PAYLOAD_TAIL);
    verify(padded.data(), true);
    const Request request = parse(padded.data());
    const zel_kob_header_t expected = header_of(key);
    const auto *const policy = static_cast<const zel_policy_t *>(request.object.get());
    if (!zel::wire::equal(zel::wire::kob_header, &request.header, &expected) || policy->id != key.id)
        throw Refusal(service::error_malformed, "the message creates something else");
    return clone(*policy);
}

Bytes write_policy(uint32_t app_type, const zel_policy_t &policy)
{
    // Encoded sizes are below four times the graph's, so they stay below 32 bits.
    if (graph_size(policy) > KOB_MESSAGE_LIMIT)
        throw Refusal(service::error_limit, "policy {} would take more than {} bytes of memory", policy.id,
                      KOB_MESSAGE_LIMIT);
    zel_api_handle_t handle = make_handle();
    const uint32_t size = TLV_ARRAY_OVERHEAD + zel_kob_header_get_tlv_sz() +
                          get_mat_obj_size_for_kob(&handle, app_type, ZEL_MAT_TYPE_POLICY, &policy);
    Bytes message(size);
    const zel_kob_header_t header = header_of({app_type, policy.id});
    zel_add_kob_header_to_tlv(&handle, message.data(), size, &header);
    assemble_mat_obj_for_kob(&handle, app_type, message.data(), size, ZEL_MAT_TYPE_POLICY, &policy);
    require_complete();
    return message;
}

} // namespace zeld
