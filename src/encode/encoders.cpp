// Encoders: each record's members in wire order, appended to a TLV array.
//
// A record is a template argument here, so that every run is a constant.
#include "encode/encode.hpp"

#include "model/trace.hpp"
#include "zel/platform/heartbeat.h"

#include <atomic>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Record;

// Heartbeats go out every so many matches of the process, and policies of a list.
constexpr uint32_t heartbeat_interval = 32;

// Matches encoded by this process in match groups, over all handles.  Threads may lose
// an increment to each other, which only shifts a heartbeat.
std::atomic<uint32_t> encoded_matches = 0;

// A process that encodes a very large graph keeps telling the system manager that it is
// alive.  Matches count over the whole process, from the first on; policies by their
// index, the first excepted.  The counter rises after the heartbeat has gone out.
template <const Record &Group> void send_heartbeat([[maybe_unused]] uint32_t index)
{
    if constexpr (Group == wire::match_grp) {
        const uint32_t before = encoded_matches.load(std::memory_order_relaxed);
        if (before % heartbeat_interval == 0)
            fu_keeper_update_and_send_heartbeat(0);
        encoded_matches.store(encoded_matches.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    } else if constexpr (Group == wire::policy_list) {
        if (index != 0 && index % heartbeat_interval == 0)
            fu_keeper_update_and_send_heartbeat(0);
    }
}

// A match whose type has no parameter record.
[[gnu::cold]] void report_no_parameter(const zel_api_handle_t &handle, const zel_match_t &match)
{
    constexpr const char *function = "zel_add_match_to_tlv";
    if (match.type == ZEL_MATCH_TYPE_ACL_IPV6)
        trace(handle, Severity::error, function, "acl_ipv6 unsupported."_trace);
    else if (match.type != ZEL_MATCH_TYPE_NO_PARAM)
        trace(handle, Severity::error, function, "unknown match type: %d"_trace, match.type);
}

struct Writer {
    const Pass &pass;
    RunWriter runs;
};

template <const Record &R, std::size_t From = 0> int32_t write_from(Writer &writer, const void *object);

// A record that may be a reference.
template <const Record &R> [[gnu::always_inline]] inline int32_t write(Writer &writer, const void *object)
{
    if constexpr (R.is_shareable()) {
        if (!writer.pass.is_first_occurrence(R, object)) {
            const wire::Reference reference{R.mat_type, wire::id_of(R, object)};
            writer.runs.add<reference_run<R>>(&reference);
            return 0;
        }
    }
    return write_from<R>(writer, object);
}

// The same in code of its own.
template <const Record &R> [[gnu::noinline]] int32_t write_apart(Writer &shared, const void *object)
{
    if constexpr (!platform_is_inline)
        return write<R>(shared, object);
    Writer writer = shared; // a copy can stay in registers
    const int32_t status = write<R>(writer, object);
    shared.runs = writer.runs;
    return status;
}

template <const Record &R, std::size_t I>
[[gnu::always_inline]] inline void write_members(Writer &writer, const void *object)
{
    constexpr const Member &sequence = R.members[I];
    constexpr const Record &contained = *sequence.record;
    const uint32_t count = wire::count_of(object, sequence);
    const wire::Pointer *const members = wire::array_of(object, sequence);
    for (uint32_t i = 0; i < count; ++i) {
        // Members lie anywhere; this loads the next one while the current one is written.
        if (i + 1 < count)
            __builtin_prefetch(members[i + 1]);
        if constexpr (is_apart<contained>)
            write_apart<contained>(writer, members[i]);
        else
            write<contained>(writer, members[i]);
        send_heartbeat<R>(i);
    }
}

// False: the selector selects nothing.
template <const Record &R, std::size_t I, std::size_t... O>
[[gnu::always_inline]] inline bool write_choice(Writer &writer, const void *object, std::index_sequence<O...>)
{
    constexpr const Member &choice = R.members[I];
    const uint32_t selector = wire::number_at(object, choice);
    return ((selector == choice.options[O].value &&
             (write_from<*choice.options[O].record>(writer, wire::part(object, choice.options[O].offset)), true)) ||
            ...);
}

// What lies between two runs.
template <const Record &R, std::size_t I>
[[gnu::always_inline]] inline void write_nested(Writer &writer, const void *object)
{
    constexpr const Member &member = R.members[I];
    if constexpr (member.kind == Kind::embedded) {
        write_from<*member.record>(writer, wire::part(object, member.offset));
    } else if constexpr (member.kind == Kind::sequence) {
        write_members<R, I>(writer, object);
    } else if (!write_choice<R, I>(writer, object, std::make_index_sequence<member.options.size()>{})) {
        if constexpr (R == wire::match) {
            writer.runs.close();
            report_no_parameter(*writer.pass.handle, *static_cast<const zel_match_t *>(object));
        }
    }
}

// The whole record, or what follows a nested member.
template <const Record &R, std::size_t From>
[[gnu::always_inline]] inline int32_t write_from(Writer &writer, const void *object)
{
    constexpr std::size_t nested = wire::end_of_run(R, From, written_scope);
    const int32_t status = writer.runs.add<written_run<R, From>>(object);
    if constexpr (nested == R.members.size()) {
        return status;
    } else {
        write_nested<R, nested>(writer, object);
        return write_from<R, nested + 1>(writer, object);
    }
}

} // namespace

template <const Record &R> int32_t encode(const Pass &pass, const TargetArray &to, const void *object)
{
    if (object == nullptr)
        return 0;
    Writer writer{pass, RunWriter(to)};
    const int32_t status = platform_is_inline ? write<R>(writer, object) : write_apart<R>(writer, object);
    writer.runs.close();
    return status;
}

// A parameter record alone.  Only callers outside ask for it, so it is not worth unrolled
// code of its own.
static int32_t encode_leaf(const TargetArray &to, const Record &record, const void *object)
{
    if (object == nullptr)
        return 0;
    append(to, record.start, sizeof zel_tlv_struct_start, &zel_tlv_struct_start, wire::start_marker_text);
    for (const Member &field : record.members)
        append(to, field.id, field.width, wire::part(object, field.offset), field.text);
    return append(to, record.end, sizeof zel_tlv_struct_end, &zel_tlv_struct_end, wire::end_marker_text);
}

} // namespace zel

using namespace zel;

// One macro per shape of signature.
#define LEAF_ENCODER(object)                                                                                           \
    int32_t zel_add_##object##_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,                  \
                                      const zel_##object##_t *record)                                                  \
    {                                                                                                                  \
        static_assert(wire::object.is_leaf());                                                                         \
        return encode_leaf({handle, tlv_array, array_size}, wire::object, record);                                     \
    }
#define ENCODER_WITH_APP(object)                                                                                       \
    template int32_t zel::encode<wire::object>(const Pass &, const TargetArray &, const void *);                       \
    int32_t zel_add_##object##_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,                  \
                                      const zel_##object##_t *record, uint32_t app_type)                               \
    {                                                                                                                  \
        return encode<wire::object>({handle, app_type}, {handle, tlv_array, array_size}, record);                      \
    }

int32_t zel_add_kob_header_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                  const zel_kob_header_t *record)
{
    return encode<wire::kob_header>({handle, 0}, {handle, tlv_array, array_size}, record);
}

ZEL_LEAF_RECORDS(LEAF_ENCODER)
ZEL_PLAIN_RECORDS(ENCODER_WITH_APP)
ZEL_CACHED_RECORDS(ENCODER_WITH_APP)
