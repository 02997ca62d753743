// Encoded sizes: what the encoders append, added up over the wire description.
#include "encode/compress.hpp"
#include "encode/element.hpp"
#include "model/trace.hpp"
#include "wire/record_names.hpp"

#include <cstring>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Option;
using wire::Record;
using wire::WidthCounts;

// A match whose type has no parameter record.
void report_no_parameter(const zel_api_handle_t &handle, const zel_match_t &match)
{
    constexpr const char *function = "zel_match_get_tlv_sz";
    if (match.type == ZEL_MATCH_TYPE_ACL_IPV6)
        trace(handle, Severity::error, function, "acl_ipv6 unsupported."_trace);
    else if (match.type != ZEL_MATCH_TYPE_NO_PARAM)
        trace(handle, Severity::error, function, "match type unsupported: %d, id: %d"_trace, match.type, match.id);
}

// Counts the elements of each width; what they take is asked and multiplied once, at the end.
class Sizer {
public:
    Sizer(zel_api_handle_t &handle, uint32_t app_type) : handle_(handle), app_type_(app_type) {}

    void add(const Record &record, const void *object)
    {
        if (record.is_shareable() && !is_first_occurrence(&handle_, app_type_, record, object))
            return add_fixed(reference_widths);
        add_fixed(record.widths);
        add_nested(record, object);
    }

    // Markers, fields, counts and embedded records: the same for every object of a kind.
    [[gnu::always_inline]] void add_fixed(const WidthCounts &widths)
    {
        using Lanes [[gnu::vector_size(sizeof(WidthCounts))]] = uint32_t;
        Lanes sum;
        Lanes more;
        std::memcpy(&sum, &counts_, sizeof sum);
        std::memcpy(&more, &widths, sizeof more);
        sum += more;
        std::memcpy(&counts_, &sum, sizeof sum);
    }

    uint32_t total() const
    {
        uint32_t size = 0;
        for (std::size_t i = 0; i < wire::element_widths.size(); ++i)
            if (counts_[i] != 0)
                size += counts_[i] * element_size(wire::element_widths[i]);
        return size;
    }

private:
    static constexpr WidthCounts reference_widths = wire::count_widths(wire::reference_members);

    // What depends on the object: the members of its sequences, and its options.
    void add_nested(const Record &record, const void *object)
    {
        for (const Member &member : record.nested()) {
            if (member.kind == Kind::embedded)
                add_nested(*member.record, wire::part(object, member.offset));
            else if (member.kind == Kind::sequence)
                add_members(member, object);
            else if (member.kind == Kind::choice)
                add_option(record, member, object);
        }
    }

    // Members of fields alone have one size and are not looked at.
    void add_members(const Member &sequence, const void *object)
    {
        const Record &record = *sequence.record;
        const uint32_t count = wire::count_of(object, sequence);
        if (record.is_leaf()) {
            for (std::size_t i = 0; i < wire::element_widths.size(); ++i)
                counts_[i] += count * record.widths[i];
            return;
        }
        const wire::Pointer *const members = wire::array_of(object, sequence);
        for (uint32_t i = 0; i < count; ++i) {
            // Members lie anywhere; this loads the next one while the current one is measured.
            if (i + 1 < count)
                __builtin_prefetch(members[i + 1]);
            add(record, members[i]);
        }
    }

    void add_option(const Record &record, const Member &choice, const void *object)
    {
        if (const Option *const option = wire::selected(object, choice)) {
            add_fixed(option->record->widths);
            add_nested(*option->record, wire::part(object, option->offset));
        } else if (&record == &wire::match) {
            report_no_parameter(handle_, *static_cast<const zel_match_t *>(object));
        }
    }

    zel_api_handle_t &handle_;
    uint32_t app_type_;
    WidthCounts counts_{};
};

uint32_t size_of(zel_api_handle_t &handle, const Record &record, const void *object, uint32_t app_type)
{
    Sizer sizer(handle, app_type);
    if (object != nullptr)
        sizer.add(record, object);
    return sizer.total();
}

// A record without matches and actions, which alone look at a handle.
uint32_t size_of(const Record &record, const void *object)
{
    zel_api_handle_t no_handle{};
    return size_of(no_handle, record, object, 0);
}

uint32_t size_of_leaf(const Record &record)
{
    zel_api_handle_t no_handle{};
    Sizer sizer(no_handle, 0);
    sizer.add_fixed(record.widths);
    return sizer.total();
}

} // namespace
} // namespace zel

using namespace zel;

// One macro per shape of signature.
#define LEAF_SIZE(object)                                                                                              \
    uint32_t zel_##object##_get_tlv_sz() { return size_of_leaf(wire::object); }
#define SIZE(object)                                                                                                   \
    uint32_t zel_##object##_get_tlv_sz(const zel_##object##_t *record, uint32_t)                                       \
    {                                                                                                                  \
        return size_of(wire::object, record);                                                                          \
    }
#define SIZE_WITH_CACHE(object)                                                                                        \
    uint32_t zel_##object##_get_tlv_sz(zel_api_handle_t *handle, const zel_##object##_t *record, uint32_t app_type)    \
    {                                                                                                                  \
        return size_of(*handle, wire::object, record, app_type);                                                       \
    }

LEAF_SIZE(kob_header)
ZEL_LEAF_RECORDS(LEAF_SIZE)
ZEL_PLAIN_RECORDS(SIZE)
ZEL_CACHED_RECORDS(SIZE_WITH_CACHE)
