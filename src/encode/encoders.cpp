// Encoders: each record's members in wire order, appended to a TLV array.
//
// A record is a template argument here, so that every element's id and width is a
// constant.
#include "encode/compress.hpp"
#include "encode/element.hpp"
#include "model/trace.hpp"
#include "platform/heartbeat.h"
#include "wire/record_names.hpp"

#include <atomic>
#include <utility>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Option;
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
void report_no_parameter(const zel_api_handle_t &handle, const zel_match_t &match)
{
    constexpr const char *function = "zel_add_match_to_tlv";
    if (match.type == ZEL_MATCH_TYPE_ACL_IPV6)
        trace(handle, Severity::error, function, "acl_ipv6 unsupported."_trace);
    else if (match.type != ZEL_MATCH_TYPE_NO_PARAM)
        trace(handle, Severity::error, function, "unknown match type: %d"_trace, match.type);
}

struct Writer : ElementWriter {
    uint32_t app_type;
};

template <const Record &R> int32_t write(const Writer &shared, const void *record);
template <const Record &R> int32_t write_in_place(Writer writer, const void *record);

template <const Record &R, std::size_t I>
[[gnu::always_inline]] inline void write_members(const Writer &writer, const void *record)
{
    constexpr const Member &sequence = R.members[I];
    constexpr const Record &contained = *sequence.record;
    const uint32_t count = wire::count_of(record, sequence);
    const wire::Pointer *const members = wire::array_of(record, sequence);
    for (uint32_t i = 0; i < count; ++i) {
        // Members lie anywhere; this loads the next one while the current one is written.
        if (i + 1 < count)
            __builtin_prefetch(members[i + 1]);
        if constexpr (contained.is_leaf())
            write_in_place<contained>(writer, members[i]);
        else
            write<contained>(writer, members[i]);
        send_heartbeat<R>(i);
    }
}

template <const Record &R, std::size_t I, std::size_t O>
[[gnu::always_inline]] inline bool write_option(const Writer &writer, const void *record, uint32_t selector)
{
    constexpr const Option &option = R.members[I].options[O];
    if (selector != option.value)
        return false;
    write_in_place<*option.record>(writer, wire::part(record, option.offset));
    return true;
}

template <const Record &R, std::size_t I, std::size_t... O>
[[gnu::always_inline]] inline void write_choice(const Writer &writer, const void *record, std::index_sequence<O...>)
{
    const uint32_t selector = wire::number_at(record, R.members[I]);
    if ((write_option<R, I, O>(writer, record, selector) || ...))
        return;
    if constexpr (R == wire::match)
        report_no_parameter(*writer.handle, *static_cast<const zel_match_t *>(record));
}

template <const Record &R, std::size_t I>
[[gnu::always_inline]] inline void write_member(const Writer &writer, const void *record)
{
    constexpr const Member &member = R.members[I];
    const void *const place = wire::part(record, member.offset);
    if constexpr (member.id != 0)
        writer.add(member.id, member.width, place, member.text);
    if constexpr (member.kind == Kind::embedded)
        write_in_place<*member.record>(writer, place);
    else if constexpr (member.kind == Kind::sequence)
        write_members<R, I>(writer, record);
    else if constexpr (member.kind == Kind::choice)
        write_choice<R, I>(writer, record, std::make_index_sequence<member.options.size()>{});
}

// The whole record, within the encoding of another or its own.
template <const Record &R> [[gnu::always_inline]] inline int32_t write_in_place(Writer writer, const void *record)
{
    writer.add_start(R.start);
    [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline))
    {
        (write_member<R, I>(writer, record), ...);
    }
    (std::make_index_sequence<R.members.size()>{});
    return writer.add_end(R.end);
}

template <const Record &R> int32_t write(const Writer &shared, const void *record)
{
    const Writer writer = shared;
    if constexpr (R.is_shareable()) {
        if (!is_first_occurrence(writer.handle, writer.app_type, R, record)) {
            write_reference(writer, R, record);
            return 0;
        }
    }
    return write_in_place<R>(writer, record);
}

template <const Record &R>
int32_t encode(zel_api_handle_t *handle, void *array, uint32_t size, const void *record, uint32_t app_type = 0)
{
    return record != nullptr ? write<R>({{handle, array, size}, app_type}, record) : 0;
}

// A parameter record alone.  Only callers outside ask for it, so it is not worth unrolled
// code of its own.
int32_t encode_leaf(const ElementWriter &writer, const Record &record, const void *object)
{
    if (object == nullptr)
        return 0;
    writer.add_start(record.start);
    for (const Member &field : record.members)
        writer.add(field.id, field.width, wire::part(object, field.offset), field.text);
    return writer.add_end(record.end);
}

} // namespace
} // namespace zel

using namespace zel;

// One macro per shape of signature.
#define ENCODER(object)                                                                                                \
    int32_t zel_add_##object##_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,                  \
                                      const zel_##object##_t *record)                                                  \
    {                                                                                                                  \
        return encode<wire::object>(handle, tlv_array, array_size, record);                                            \
    }
#define LEAF_ENCODER(object)                                                                                           \
    int32_t zel_add_##object##_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,                  \
                                      const zel_##object##_t *record)                                                  \
    {                                                                                                                  \
        static_assert(wire::object.is_leaf());                                                                         \
        return encode_leaf({handle, tlv_array, array_size}, wire::object, record);                                     \
    }
#define ENCODER_WITH_APP(object)                                                                                       \
    int32_t zel_add_##object##_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,                  \
                                      const zel_##object##_t *record, uint32_t app_type)                               \
    {                                                                                                                  \
        return encode<wire::object>(handle, tlv_array, array_size, record, app_type);                                  \
    }

ENCODER(kob_header)
ZEL_LEAF_RECORDS(LEAF_ENCODER)
ZEL_PLAIN_RECORDS(ENCODER_WITH_APP)
ZEL_CACHED_RECORDS(ENCODER_WITH_APP)
