#include "tools/zeld/message.hpp"

#include "encode/walk.hpp"
#include "platform/tlv_array.h"
#include "platform/transport.h"
#include "tools/message/tracing.hpp"
#include "tools/zeld/log.hpp"
#include "zel-platform/tlv_check.h"

#include <cstdarg>
#include <cstdio>
#include <unordered_map>

namespace zeld {

namespace {

// Set when the library reports an error: it then goes on with what it has.
bool has_library_failed = false;

// The library's diagnostics, which end with a line feed or not.
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

// A handle for one message.  Detail costs a call per element, so it is only asked for when it shows.
zel_api_handle_t make_handle()
{
    has_library_failed = false;
    zel_api_handle_t handle{};
    const zel_trace_cb_t detail = is_logged(LogLevel::trace) ? report<LogLevel::trace> : nullptr;
    zel_api_init(&handle, tools::trace_flag(), 0, ZEL_KOB_NO_TRANSPORT, report<LogLevel::error>, report<LogLevel::warn>,
                 detail);
    return handle;
}

// Nothing is built from a message of another shape than send_to_zel() gives messages:
// the graph that the tolerant parser makes of it may miss members or own too much.
// What newer peers add is passed over, unless it should be zeld's own.
template <class Verify> void require_sound(Verify verify, bool is_own = false)
{
    const zel_verify_options_t options{sizeof options, is_own};
    zel_verify_report_t report{};
    report.size = sizeof report;
    const uint32_t rule = verify(&options, &report);
    if (rule == ZEL_VERIFY_OK)
        return;
    char text[ZEL_VERIFY_TEXT_SIZE];
    zel_verify_report_text(&report, text, sizeof text);
    throw Refusal(rule == ZEL_VERIFY_REQUEST_KIND ? service::error_unsupported : service::error_malformed, "{}",
                  std::string_view(text));
}

zel_kob_header_t read_header(zel_api_handle_t &handle, const void *array, uint32_t &cursor)
{
    zel_kob_header_t header{};
    uint32_t num_elements = 0;
    zel_parse_kob_header_from_tlv(&handle, array, &cursor, &header, &num_elements);
    return header;
}

// A verified message cannot fail to be read but for want of memory, and then not all of it is there.
void require_all_read()
{
    if (has_library_failed)
        throw std::bad_alloc();
}

// What walk() hands the elements to: appends them to a buffer that grows.
class Writer {
public:
    using Passed = Writer &;
    using Local = Writer &;

    void start(uint16_t id) { add(id, sizeof zel_tlv_struct_start, &zel_tlv_struct_start); }
    int32_t end(uint16_t id)
    {
        add(id, sizeof zel_tlv_struct_end, &zel_tlv_struct_end);
        return 0;
    }

    template <class V> void value(uint16_t id, const V &value, const char *) { add(id, sizeof value, &value); }

    // The policies of a list come from different requests and may have different
    // objects of one id.  A reader takes a reference for the first object that came
    // with the id, so only an equal one can be referred to; others are written in full.
    template <class R> bool is_first(const R &object)
    {
        const auto [place, is_first] = written<R>().try_emplace(object.id, &object);
        return is_first || !equal(*place->second, object);
    }

    template <class R> void no_parameter(const R &) {}
    template <class R> void member_done(const R &, uint32_t) {}

    Bytes take()
    {
        buffer_.resize(used_);
        return std::move(buffer_);
    }

private:
    void add(uint16_t id, uint16_t length, const void *value)
    {
        used_ += tlv_size_get(length);
        if (used_ > service_limit)
            throw Refusal(service::error_limit, "the message would be larger than {} bytes", service_limit);
        if (used_ > buffer_.size())
            buffer_.resize(2 * used_);
        const int32_t status =
            tlv_array_add_tlv(buffer_.data(), static_cast<uint32_t>(buffer_.size()), id, length, value, 0);
        if (status != 0)
            throw std::logic_error(fmt::format("element {} did not fit: {}", id, status));
    }

    template <class R> auto &written()
    {
        if constexpr (std::is_same_v<R, zel_match_t>)
            return matches_;
        else
            return actions_;
    }

    // No transport carries more; keeps sizes far from the end of 32 bits.
    static constexpr std::size_t service_limit = KOB_MESSAGE_LIMIT;

    std::size_t used_ = TLV_ARRAY_OVERHEAD;
    Bytes buffer_ = Bytes(256);
    std::unordered_map<uint16_t, const zel_match_t *> matches_;
    std::unordered_map<uint16_t, const zel_action_t *> actions_;
};

template <class R> Bytes write_message(const zel_kob_header_t &header, const R &object)
{
    Writer writer;
    zel::walk<Writer>(writer, header);
    zel::walk<Writer>(writer, object);
    return writer.take();
}

} // namespace

const void *payload_of(kob_msg_t *msg)
{
    return mpkob_is_mpkob(0, msg) != 0 ? mpkob_payload_get(0, msg) : kob_payload_get(msg);
}

Request read_request(kob_msg_t *msg)
{
    require_sound([msg](auto... records) { return zel_verify_mat_obj_from_kob(0, msg, records...); });

    zel_api_handle_t handle = make_handle();
    uint32_t cursor = 0;
    const zel_kob_header_t header = read_header(handle, payload_of(msg), cursor);
    uint32_t mat_type = 0;
    uint32_t api_type = 0;
    uint16_t policy_id = 0;
    uint32_t app_type = 0;
    void *const object = parse_mat_obj_from_kob(0, &handle, msg, &mat_type, &api_type, &policy_id, &app_type);
    AnyGraph graph(object, FreeAnyGraph{mat_type});
    require_all_read();
    return {header, std::move(graph)};
}

Owned<zel_policy_t> read_policy(const Bytes &message)
{
    if (tlv_array_check(message.data(), static_cast<uint32_t>(message.size())) != TLV_OK)
        throw Refusal(service::error_malformed, "the array is longer than the message");
    Bytes padded(message);
    padded.resize(message.size() + ZEL_LABEL_SIZE);
    require_sound([&](auto... records) { return zel_verify_tlv_array(padded.data(), records...); }, true);

    zel_api_handle_t handle = make_handle();
    uint32_t cursor = 0;
    const zel_kob_header_t header = read_header(handle, padded.data(), cursor);
    if (header.api_type != ZEL_API_POLICY_UPDATE)
        throw Refusal(service::error_malformed, "not a policy");
    uint32_t num_elements = 0;
    const Owned<zel_policy_t> policy(allocate<zel_policy_t>(1));
    zel_parse_policy_from_tlv(&handle, padded.data(), &cursor, policy.get(), &num_elements, header.app_type);
    zel_empty_mat_cache(&handle);
    require_all_read();
    return clone(*policy); // which shares nothing, unlike what the decoder gives
}

Bytes write_policy(uint32_t app_type, const zel_policy_t &policy)
{
    return write_message({ZEL_API_POLICY_UPDATE, app_type, policy.id, service::op_code_set}, policy);
}

Bytes write_policy_list(uint32_t app_type, std::vector<zel_policy_t *> policies)
{
    if (policies.size() > UINT16_MAX)
        throw Refusal(service::error_limit, "{} policies do not fit in one list", policies.size());
    const zel_policy_list_t list{static_cast<uint16_t>(policies.size()), policies.data()};
    return write_message({ZEL_API_POLICY_LIST_UPDATE, app_type, 0, service::op_code_set}, list);
}

} // namespace zeld
