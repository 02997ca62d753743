// Encoded sizes: what the encoders append, added up over the wire description.
#include "encode/encode.hpp"

#include "model/trace.hpp"

#include <cstring>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Record;
using wire::WidthCounts;

// A match whose type has no parameter record.
[[gnu::cold]] void report_no_parameter(const zel_api_handle_t &handle, const zel_match_t &match)
{
    constexpr const char *function = "zel_match_get_tlv_sz";
    if (match.type == ZEL_MATCH_TYPE_ACL_IPV6)
        trace(handle, Severity::error, function, "acl_ipv6 unsupported."_trace);
    else if (match.type != ZEL_MATCH_TYPE_NO_PARAM)
        trace(handle, Severity::error, function, "match type unsupported: %d, id: %d"_trace, match.type, match.id);
}

// The bytes of so many elements of each width.
constexpr uint32_t total_size(const WidthCounts &counts, auto size_of_element)
{
    uint32_t size = 0;
    for (std::size_t i = 0; i < wire::element_widths.size(); ++i)
        if (counts[i] != 0)
            size += counts[i] * size_of_element(wire::element_widths[i]);
    return size;
}

#ifdef ZEL_INLINE_ELEMENTS

// Adds up bytes: what an element takes is known at compile time.
class ElementSum {
public:
    template <const Record &R> [[gnu::always_inline]] void add(uint32_t times = 1)
    {
        constexpr auto size_of_element = [](uint32_t width) { return TLV_ELEMENT_OVERHEAD + width; };
        size_ += times * total_size(R.widths, size_of_element);
    }
    uint32_t total() const { return size_; }

private:
    uint32_t size_ = 0;
};

#else

// Counts the elements of each width; what they take is asked and multiplied once, at the end.
class ElementSum {
public:
    template <const Record &R> [[gnu::always_inline]] void add()
    {
        using Lanes [[gnu::vector_size(sizeof(WidthCounts))]] = uint32_t;
        Lanes sum;
        Lanes more;
        std::memcpy(&sum, &counts_, sizeof sum);
        std::memcpy(&more, &R.widths, sizeof more);
        sum += more;
        std::memcpy(&counts_, &sum, sizeof sum);
    }
    template <const Record &R> void add(uint32_t times)
    {
        for (std::size_t i = 0; i < wire::element_widths.size(); ++i)
            counts_[i] += times * R.widths[i];
    }
    uint32_t total() const { return total_size(counts_, element_size); }

private:
    WidthCounts counts_{};
};

#endif

struct Sizer {
    const Pass &pass;
    ElementSum sum{};
};

template <const Record &R> void add_nested(Sizer &sizer, const void *object);

// Markers, fields, counts and embedded records are the same for every object of a kind.
template <const Record &R> [[gnu::always_inline]] inline void add(Sizer &sizer, const void *object)
{
    if constexpr (R.is_shareable()) {
        if (!sizer.pass.is_first_occurrence(R, object))
            return sizer.sum.add<wire::reference>();
    }
    sizer.sum.add<R>();
    add_nested<R>(sizer, object);
}

// The same in code of its own.
template <const Record &R> [[gnu::noinline]] void add_apart(Sizer &sizer, const void *object) { add<R>(sizer, object); }

// Members of fields alone have one size and are not looked at.
template <const Record &R, std::size_t I>
[[gnu::always_inline]] inline void add_members(Sizer &sizer, const void *object)
{
    constexpr const Member &sequence = R.members[I];
    constexpr const Record &contained = *sequence.record;
    const uint32_t count = wire::count_of(object, sequence);
    if constexpr (contained.is_leaf())
        return sizer.sum.add<contained>(count);
    const wire::Pointer *const members = wire::array_of(object, sequence);
    for (uint32_t i = 0; i < count; ++i) {
        // Members lie anywhere; this loads the next one while the current one is measured.
        if (i + 1 < count)
            __builtin_prefetch(members[i + 1]);
        if constexpr (is_apart<contained>)
            add_apart<contained>(sizer, members[i]);
        else
            add<contained>(sizer, members[i]);
    }
}

// False: the selector selects nothing.
template <const Record &R, std::size_t I, std::size_t... O>
[[gnu::always_inline]] inline bool add_choice(Sizer &sizer, const void *object, std::index_sequence<O...>)
{
    constexpr const Member &choice = R.members[I];
    const uint32_t selector = wire::number_at(object, choice);
    return ((selector == choice.options[O].value &&
             (add<*choice.options[O].record>(sizer, wire::part(object, choice.options[O].offset)), true)) ||
            ...);
}

template <const Record &R, std::size_t I>
[[gnu::always_inline]] inline void add_member(Sizer &sizer, const void *object)
{
    constexpr const Member &member = R.members[I];
    if constexpr (member.kind == Kind::embedded) {
        add_nested<*member.record>(sizer, wire::part(object, member.offset));
    } else if constexpr (member.kind == Kind::sequence) {
        add_members<R, I>(sizer, object);
    } else if constexpr (member.kind == Kind::choice) {
        if (add_choice<R, I>(sizer, object, std::make_index_sequence<member.options.size()>{}))
            return;
        if constexpr (R == wire::match)
            report_no_parameter(*sizer.pass.handle, *static_cast<const zel_match_t *>(object));
    }
}

// What depends on the object: the members of its sequences, and its options.
template <const Record &R> [[gnu::always_inline]] inline void add_nested(Sizer &sizer, const void *object)
{
    [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline))
    {
        (add_member<R, R.first_nested + I>(sizer, object), ...);
    }
    (std::make_index_sequence<R.members.size() - R.first_nested>{});
}

template <const Record &R> uint32_t size_of_leaf()
{
    ElementSum sum;
    sum.add<R>();
    return sum.total();
}

} // namespace

template <const Record &R> uint32_t encoded_size(const Pass &pass, const void *object)
{
    if (object == nullptr)
        return 0;
    Sizer sizer{pass};
    if constexpr (platform_is_inline)
        add<R>(sizer, object);
    else
        add_apart<R>(sizer, object);
    return sizer.sum.total();
}

// A record without matches and actions, which alone look at a handle.
template <const Record &R> static uint32_t encoded_size(const void *object)
{
    return encoded_size<R>({nullptr, 0}, object);
}

} // namespace zel

using namespace zel;

// One macro per shape of signature.
#define LEAF_SIZE(object)                                                                                              \
    uint32_t zel_##object##_get_tlv_sz() { return size_of_leaf<wire::object>(); }
#define SIZE(object)                                                                                                   \
    template uint32_t zel::encoded_size<wire::object>(const Pass &, const void *);                                     \
    uint32_t zel_##object##_get_tlv_sz(const zel_##object##_t *record, uint32_t)                                       \
    {                                                                                                                  \
        return encoded_size<wire::object>(record);                                                                     \
    }
#define SIZE_WITH_CACHE(object)                                                                                        \
    template uint32_t zel::encoded_size<wire::object>(const Pass &, const void *);                                     \
    uint32_t zel_##object##_get_tlv_sz(zel_api_handle_t *handle, const zel_##object##_t *record, uint32_t app_type)    \
    {                                                                                                                  \
        return encoded_size<wire::object>({handle, app_type}, record);                                                 \
    }

LEAF_SIZE(kob_header)
ZEL_LEAF_RECORDS(LEAF_SIZE)
ZEL_PLAIN_RECORDS(SIZE)
ZEL_CACHED_RECORDS(SIZE_WITH_CACHE)
