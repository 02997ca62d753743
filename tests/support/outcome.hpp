// All that can be seen of what the library makes of a message, as text.
#pragma once

#include "reference/kob/message.hpp"
#include "wire/format.hpp"
#include "zel.h"
#include "zel/platform/transport.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>

// Present when the program is built with leak checking.
extern "C" {
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace test {

// Which reports a handle's owner takes.  The library may take other ways when it need not
// report; what comes out must not depend on it.
enum class Listening { to_nothing, to_failures, to_all };

struct Outcome {
    std::string result;   // what the calls give
    std::string failures; // what they reported as errors and warnings
    friend bool operator==(const Outcome &, const Outcome &) = default;
};

namespace outcome_detail {

namespace wire = zel::wire;

inline std::string *failures = nullptr;

inline void note_failure(const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    *failures += text;
    *failures += '\n';
}

inline void ignore(const char *, ...) {}

inline void append_bytes(std::string &to, const void *bytes, std::size_t size)
{
    for (const unsigned char byte : std::span(static_cast<const unsigned char *>(bytes), size)) {
        constexpr const char *digits = "0123456789abcdef";
        to += {digits[byte / 16], digits[byte % 16]};
    }
}

inline void append_record(std::string &to, const wire::Record &record, const void *object);

inline void append_members(std::string &to, const wire::Member &sequence, const void *object)
{
    to += '[';
    const auto *const members = wire::array_of(object, sequence);
    for (uint32_t i = 0; members != nullptr && i < wire::count_of(object, sequence); ++i)
        if (members[i] != nullptr)
            append_record(to, *sequence.record, members[i]);
    to += ']';
}

inline bool leaves_pointers_out = false; // of damaged messages
inline bool is_damaged = false;          // the message that is being read

// A damaged match may have carried a service and say that it is something else.  Then the pointer
// to the service's elements lies among its parameter's bytes, and is another one in each run.  The
// messages of the tests have no such match; a fuzzer finds some.
inline zel_match_t without_pointer(const zel_match_t &match)
{
    zel_match_t copy = match;
    if (leaves_pointers_out && is_damaged && match.type != ZEL_MATCH_TYPE_SERVICE)
        copy.param.service.elements = nullptr;
    return copy;
}

inline void append_member(std::string &to, const wire::Record &record, const wire::Member &member, const void *object)
{
    const wire::Option *const option = member.kind == wire::Kind::choice ? wire::selected(object, member) : nullptr;
    // The parameter of a copy may be lost, and that of a damaged match be of another kind.
    const bool is_copy = record.is_shareable() && wire::at<uint32_t>(object, record.sharing.cached) != 0;
    if (member.id != 0)
        append_bytes(to, wire::part(object, member.offset), member.width);
    if (member.kind == wire::Kind::embedded)
        append_record(to, *member.record, wire::part(object, member.offset));
    else if (member.kind == wire::Kind::sequence)
        append_members(to, member, object);
    else if (option != nullptr && !(is_copy && option->record->owns_memory))
        append_record(to, *option->record, wire::part(object, option->offset));
}

inline void append_record(std::string &to, const wire::Record &record, const void *object)
{
    zel_match_t match;
    if (record == wire::match) {
        match = without_pointer(*static_cast<const zel_match_t *>(object));
        object = &match;
    }
    to += record.name;
    to += '{';
    if (record.is_shareable())
        append_bytes(to, wire::part(object, record.sharing.cached), sizeof(uint32_t));
    for (const wire::Member &member : record.members)
        append_member(to, record, member, object);
    to += '}';
}

// Verifies and parses a message; encodes again what it was, if it was in order.
inline void append_reading(std::string &to, zel_api_handle_t &handle, const void *array, std::size_t size)
{
    zel_verify_report_t report{};
    report.size = sizeof report;
    char text[ZEL_VERIFY_TEXT_SIZE];
    const bool is_verified = zel_verify_tlv_array(array, nullptr, &report) == ZEL_VERIFY_OK;
    is_damaged = !is_verified;
    zel_verify_report_text(&report, text, sizeof text);
    to += text + (", " + std::to_string(report.unknown_elements)) + " unknown\n";

    zel_kob_header_t header{};
    void *const object = zel_parse_tlv_array(&handle, array, &header);
    append_record(to, wire::kob_header, &header);
    if (object == nullptr)
        return;
    const uint32_t mat_type = get_mat_obj_type(header.api_type);
    append_record(to, *wire::object_of(mat_type), object);
    const bool is_own = mat_type != ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP && mat_type != ZEL_MAT_TYPE_IF_GROUP;
    if (is_verified) {
        uint32_t encoded_size = 0;
        void *const message = zel_encode_message(&handle, &header, object, &encoded_size);
        to += message != nullptr && encoded_size <= size ? '\n' : '!';
        append_bytes(to, message, encoded_size);
        std::free(message);
    }
    // A damaged message may have carried a policy instead of one of its groups, which then lies within it.
    if (!is_own && !is_verified)
        return;
    free_contained_mat_obj_mem(&handle, header.app_type, mat_type, object);
    std::free(object);
}

} // namespace outcome_detail

// Damage can make the decoders lose members and cache entries, by contract.
inline Outcome outcome_of(std::span<const unsigned char> array, Listening listening)
{
    using namespace outcome_detail;
    const auto payload = std::make_unique<unsigned char[]>(array.size() + KOB_PAYLOAD_TAIL);
    std::copy(array.begin(), array.end(), payload.get());
    Outcome outcome;
    failures = &outcome.failures;
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 1, ZEL_KOB_NO_TRANSPORT, listening == Listening::to_nothing ? nullptr : note_failure,
                 listening == Listening::to_nothing ? nullptr : note_failure,
                 listening == Listening::to_all ? ignore : nullptr);
    if (__lsan_disable != nullptr)
        __lsan_disable();
    append_reading(outcome.result, handle, payload.get(), array.size());
    if (__lsan_enable != nullptr)
        __lsan_enable();
    return outcome;
}

} // namespace test
