// The verifier: one pass over the elements along the wire description, which
// takes each element that has to come and stops at the first that does not.
#pragma once

#include "platform/tlv_array.h"
#include "wire/known_elements.hpp"

#include <algorithm>
#include <bitset>
#include <cstdio>
#include <cstring>

namespace zel {

// An object on the way from the message's object to the element being read.
struct Place {
    const Place *container;
    const char *noun;
    uint32_t position; // among the members of a sequence, from 1; 0 for others
};

struct Verification {
    const void *array;
    bool strict;
    zel_verify_report_t report{};

    // The element that comes next, if there is one.
    bool at_end = false;
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;

    uint32_t index = 0; // its place in the array, from 0
    uint32_t cursor = 0;
    const void *previous_value = nullptr;
    uint16_t previous_length = 0;

    const Place *place = nullptr;

    // The ids of the objects that have come in full.
    using Ids = std::bitset<UINT16_MAX + 1>;
    Ids matches{};
    Ids actions{};
};

template <class R> auto &ids_of(Verification &v)
{
    if constexpr (std::is_same_v<R, zel_match_t>)
        return v.matches;
    else
        return v.actions;
}

// ---- The report

inline uint32_t distance(const void *from, const void *to)
{
    return static_cast<uint32_t>(static_cast<const char *>(to) - static_cast<const char *>(from));
}

// An element's first byte lies as far before its value as an element without value is long.
inline uint32_t offset_of_value(const Verification &v, const void *value)
{
    return distance(v.array, value) - static_cast<uint16_t>(tlv_size_get(0));
}

inline uint32_t offset_of_next(const Verification &v)
{
    constexpr uint32_t array_overhead = 4;
    if (!v.at_end)
        return offset_of_value(v, v.value);
    if (v.previous_value == nullptr)
        return array_overhead;
    return distance(v.array, v.previous_value) + v.previous_length;
}

// Writes the path behind the first used bytes; returns how many are used then.
inline uint32_t write_path(zel_verify_report_t &report, const Place *place)
{
    if (place == nullptr)
        return 0;
    const uint32_t used = write_path(report, place->container);
    char *const end = report.path + used;
    const std::size_t room = sizeof report.path - used;
    const char *const separator = used != 0 ? " / " : "";
    const int written = place->position != 0
                            ? std::snprintf(end, room, "%s%s %u", separator, place->noun, place->position)
                            : std::snprintf(end, room, "%s%s", separator, place->noun);
    return std::min<uint32_t>(used + static_cast<uint32_t>(written), sizeof report.path - 1);
}

// Refuses the next element.  Why it is not the expected one may have a simpler
// reason than the rule: there is none, or it is one that nobody knows.
inline bool refuse(Verification &v, uint32_t rule, uint32_t expected, uint32_t found)
{
    zel_verify_report_t &report = v.report;
    if (v.at_end) {
        const bool is_cut_short = v.index < tlv_array_get_num_tlvs(v.array, 0);
        rule = is_cut_short ? ZEL_VERIFY_DAMAGED : ZEL_VERIFY_INCOMPLETE;
        found = 0;
    } else if (!is_known_element(v.type)) {
        rule = ZEL_VERIFY_UNKNOWN;
        found = v.type;
    }
    report.rule = rule;
    report.offset = offset_of_next(v);
    report.element_index = v.index;
    report.element_id = v.at_end ? 0 : v.type;
    report.expected = expected;
    report.found = found;
    write_path(report, v.place);
    return false;
}

// ---- Elements

inline void read_next(Verification &v)
{
    for (;; ++v.index) {
        v.at_end = tlv_array_get_next_tlv(v.array, &v.type, &v.length, &v.value, 0, &v.cursor) != 0;
        if (v.at_end || v.strict || is_known_element(v.type))
            return;
        ++v.report.unknown_elements;
        v.previous_value = v.value;
        v.previous_length = v.length;
    }
}

inline void advance(Verification &v)
{
    v.previous_value = v.value;
    v.previous_length = v.length;
    ++v.index;
    read_next(v);
}

inline bool is_next(const Verification &v, uint16_t id) { return !v.at_end && v.type == id; }

// Whether the next element is this one and as wide; loads its value.  A rule
// other than PLACE may know better why it has to be this one.
template <class V> bool expect(Verification &v, uint16_t id, V &value, uint32_t rule = ZEL_VERIFY_PLACE)
{
    if (!is_next(v, id))
        return refuse(v, rule, id, v.type);
    if (v.length != sizeof value)
        return refuse(v, ZEL_VERIFY_WIDTH, sizeof value, v.length);
    std::memcpy(&value, v.value, sizeof value);
    return true;
}

inline bool take_marker(Verification &v, uint16_t id, uint32_t rule = ZEL_VERIFY_PLACE)
{
    uint8_t value = 0;
    if (!expect(v, id, value, rule))
        return false;
    if (value != 0)
        return refuse(v, ZEL_VERIFY_MARKER, 0, value);
    advance(v);
    return true;
}

// ---- Members

template <class R> bool verify_record(Verification &v, R &fields, uint32_t rule = ZEL_VERIFY_PLACE);

template <class R> bool verify_record(Verification &v, uint32_t rule = ZEL_VERIFY_PLACE)
{
    R fields{};
    return verify_record(v, fields, rule);
}

// Values that have to satisfy more than their width.
template <auto Member> inline constexpr bool is_identity = false;
template <> inline constexpr bool is_identity<&zel_match_t::id> = true;
template <> inline constexpr bool is_identity<&zel_action_t::id> = true;

template <auto Member> inline constexpr bool is_request_kind = false;
template <> inline constexpr bool is_request_kind<&zel_kob_header_t::api_type> = true;

template <class R> bool remember(Verification &v, uint16_t id)
{
    auto &&is_seen = ids_of<R>(v)[id];
    if (is_seen)
        return refuse(v, ZEL_VERIFY_REPEATED, MatObjectOf<R>::type, id);
    is_seen = true;
    return true;
}

template <class R, uint16_t Id, auto Member> bool verify(Verification &v, R &fields, Field<Id, Member>)
{
    auto &value = fields.*Member;
    if (!expect(v, Id, value))
        return false;
    if constexpr (is_identity<Member>) {
        if (!remember<R>(v, value))
            return false;
    }
    if constexpr (is_request_kind<Member>) {
        if (get_mat_obj_type(value) == ZEL_MAT_TYPE_NONE)
            return refuse(v, ZEL_VERIFY_REQUEST_KIND, ZEL_API_STATS_PULL, value);
    }
    advance(v);
    return true;
}

template <class R, auto Member> bool verify(Verification &v, R &fields, Embedded<Member>)
{
    return verify_record(v, fields.*Member);
}

template <class R, uint16_t Id, auto Count, auto Array>
bool verify(Verification &v, R &fields, Sequence<Id, Count, Array>)
{
    using Member = Element<Array>;
    auto &count = fields.*Count;
    if (!expect(v, Id, count))
        return false;
    advance(v);
    Place place{v.place, MatObjectOf<Member>::noun.text, 0};
    while (place.position < count) {
        if (is_next(v, Wire<R>::end))
            return refuse(v, ZEL_VERIFY_COUNT, count, place.position);
        ++place.position;
        v.place = &place;
        if (!verify_record<Member>(v))
            return false;
        v.place = place.container;
    }
    if (is_next(v, Wire<Member>::start))
        return refuse(v, ZEL_VERIFY_COUNT, count, count + 1);
    return true;
}

template <uint32_t Value, auto... Path> constexpr uint16_t start_of(Option<Value, Path...>)
{
    return Wire<Target<Path...>>::start;
}

template <uint32_t Value, auto... Path> constexpr bool is_selected(uint32_t selector, Option<Value, Path...>)
{
    return selector == Value;
}

template <class R, uint32_t Value, auto... Path> bool verify(Verification &v, R &fields, Option<Value, Path...>)
{
    return verify_record(v, follow<Path...>(fields), ZEL_VERIFY_PARAMETER);
}

template <class R, auto Selector, class... O> bool verify(Verification &v, R &fields, Choice<Selector, O...>)
{
    const uint32_t selector = fields.*Selector;
    if ((is_selected(selector, O{}) || ...))
        return ((is_selected(selector, O{}) && verify(v, fields, O{})) || ...);
    if ((is_next(v, start_of(O{})) || ...))
        return refuse(v, ZEL_VERIFY_PARAMETER, 0, v.type);
    return true;
}

// ---- Records

template <class R> bool verify_reference(Verification &v)
{
    Reference reference{};
    if (!expect(v, reference_mat_type_id, reference.mat_type))
        return false;
    if (reference.mat_type != MatObjectOf<R>::type)
        return refuse(v, ZEL_VERIFY_REFERENCE_KIND, MatObjectOf<R>::type, reference.mat_type);
    advance(v);
    if (!expect(v, reference_mat_id_id, reference.mat_id))
        return false;
    if (!ids_of<R>(v)[reference.mat_id])
        return refuse(v, ZEL_VERIFY_REFERENCE, MatObjectOf<R>::type, reference.mat_id);
    advance(v);
    return true;
}

template <class R> bool verify_contents(Verification &v, R &fields)
{
    if constexpr (is_shareable<R>) {
        if (is_next(v, reference_mat_type_id))
            return verify_reference<R>(v);
    }
    return std::apply([&](auto... member) { return (verify(v, fields, member) && ...); }, Wire<R>::members);
}

// The fields and counts are left in the record, but no members.
template <class R> bool verify_record(Verification &v, R &fields, uint32_t rule)
{
    return take_marker(v, Wire<R>::start, rule) && verify_contents(v, fields) && take_marker(v, Wire<R>::end);
}

} // namespace zel
