// The vocabulary of the wire description: what a record and its members are.
//
// A description is plain constant data.  Code that must be fast takes a record as
// a template argument and unrolls its members; all other code loops over them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace zel::wire {

struct Record;

// The four kinds of member.
enum class Kind : uint8_t {
    field,    // one element with the bytes of the member, as they lie in memory
    embedded, // a record held by value
    sequence, // a count element, then that many records, each reached through a pointer
    choice    // at most one record out of several that share an area; a field selects it
};

// How people write the value of a field.
enum class Format : uint8_t { number, hexadecimal, ipv4, mac, text };

// One record of a choice.
struct Option {
    uint32_t value; // of the selector
    uint16_t offset;
    const char *name;
    const Record *record;
};

struct Member {
    Kind kind;
    uint16_t id = 0;    // element of the field, or of the sequence's count
    uint16_t offset;    // of the field, the embedded record, the sequence's count or the choice's selector
    uint16_t width = 0; // bytes of the field or of the count
    uint16_t array = 0; // offset of the sequence's array of pointers
    Format format = Format::number;
    // 1: in every message.  Later: older peers do not know the member, so it may be absent.
    uint8_t since = 1;
    const char *name;               // of the C member; the sequence's is its array's
    const char *count = nullptr;    // name of the C member that holds the sequence's count
    const char *text = nullptr;     // names the element in failure reports; null without an element
    const Record *record = nullptr; // embedded, or of the sequence's members
    std::span<const Option> options = {};

    constexpr bool may_be_absent() const { return since > 1; }
    constexpr bool has_record() const { return kind == Kind::embedded || kind == Kind::sequence; }
};

// Where a record that can be shared within a message keeps what that takes; all 0 in others.
struct Sharing {
    uint16_t id = 0;     // offset of the 16-bit id that tells objects apart
    uint16_t cached = 0; // offset of the flag of a copy
};

// The widths that elements have, and how many elements of each width are in every
// encoding of a record: its size then follows from what the platform takes for each width.
// Eight counts, of which two are unused: they are added in two vector instructions.
inline constexpr std::array<uint16_t, 6> element_widths{1, 2, 4, 6, 64, 65};
using WidthCounts = std::array<uint32_t, 8>;

constexpr WidthCounts count_widths(std::span<const Member> members);
constexpr bool have_sequences(std::span<const Member> members);

// The index of the first member that is not a field; the number of members when all are.
constexpr std::size_t find_first_nested(std::span<const Member> members)
{
    std::size_t i = 0;
    while (i < members.size() && members[i].kind == Kind::field)
        ++i;
    return i;
}

struct Record {
    const char *name;    // "match": of zel_match_t
    const char *decoder; // "zel_parse_match_from_tlv": in reports
    uint16_t start;      // marker ids
    uint16_t end;
    uint32_t size; // bytes in memory
    std::span<const Member> members;
    uint32_t mat_type = 0;     // 0: a header or a parameter
    const char *tlv_name = ""; // "TLV_ZEL_MATCH", of records with a MAT type
    const char *noun = "";     // what people call an object with a MAT type
    Sharing sharing{};

    // Derived from the members.
    std::size_t first_nested = find_first_nested(members);
    WidthCounts widths = count_widths(members);
    bool owns_memory = have_sequences(members);

    // A start marker belongs to one record.
    friend constexpr bool operator==(const Record &a, const Record &b) { return a.start == b.start; }

    constexpr bool is_shareable() const { return sharing.cached != 0; }
    constexpr bool is_leaf() const { return first_nested == members.size(); }
    constexpr std::span<const Member> nested() const { return members.subspan(first_nested); }
};

constexpr std::size_t width_index(uint16_t width)
{
    std::size_t i = 0;
    while (element_widths[i] != width) // leaves the array, and so the compilation, for a width that is missing
        ++i;
    return i;
}

// Whether a record has a sequence, or may have one in a record that it holds.
constexpr bool have_sequences(std::span<const Member> members)
{
    for (const Member &member : members) {
        if (member.kind == Kind::sequence || (member.has_record() && member.record->owns_memory))
            return true;
        for (const Option &option : member.options)
            if (option.record->owns_memory)
                return true;
    }
    return false;
}

// Markers, fields, counts and embedded records; members and options come on top.
constexpr WidthCounts count_widths(std::span<const Member> members)
{
    WidthCounts counts{};
    constexpr std::size_t num_markers = 2;
    counts[width_index(1)] = num_markers;
    for (const Member &member : members) {
        if (member.id != 0)
            ++counts[width_index(member.width)];
        for (std::size_t i = 0; member.kind == Kind::embedded && i < counts.size(); ++i)
            counts[i] += member.record->widths[i];
    }
    return counts;
}

// ---- Access by offset

template <class T> const T &at(const void *record, std::size_t offset)
{
    return *reinterpret_cast<const T *>(static_cast<const char *>(record) + offset);
}

template <class T> T &at(void *record, std::size_t offset)
{
    return *reinterpret_cast<T *>(static_cast<char *>(record) + offset);
}

// A number of 16 or 32 bits in a message, at any address.
inline uint32_t load_number(const void *value, std::size_t width)
{
    uint16_t narrow = 0;
    uint32_t wide = 0;
    if (width == sizeof narrow) {
        std::memcpy(&narrow, value, sizeof narrow);
        return narrow;
    }
    std::memcpy(&wide, value, sizeof wide);
    return wide;
}

// A count or a selector of a record; both are 16 or 32 bits wide.
inline uint32_t number_at(const void *record, const Member &member)
{
    return member.width == sizeof(uint16_t) ? at<uint16_t>(record, member.offset) : at<uint32_t>(record, member.offset);
}

inline uint32_t count_of(const void *record, const Member &sequence) { return number_at(record, sequence); }

inline void set_count(void *record, const Member &sequence, uint32_t count)
{
    if (sequence.width == sizeof(uint16_t))
        at<uint16_t>(record, sequence.offset) = static_cast<uint16_t>(count);
    else
        at<uint32_t>(record, sequence.offset) = count;
}

// A pointer to a record, whatever the record's type: all have one representation.
using Pointer [[gnu::may_alias]] = void *;
using PointerArray [[gnu::may_alias]] = Pointer *;

inline PointerArray &array_of(void *record, const Member &sequence) { return at<PointerArray>(record, sequence.array); }
inline const Pointer *array_of(const void *record, const Member &sequence)
{
    return at<PointerArray>(record, sequence.array);
}

inline void *part(void *record, std::size_t offset) { return static_cast<char *>(record) + offset; }
inline const void *part(const void *record, std::size_t offset) { return static_cast<const char *>(record) + offset; }

// The record that a choice's selector selects, or null.
inline const Option *selected(const void *record, const Member &choice)
{
    const uint32_t selector = number_at(record, choice);
    for (const Option &option : choice.options)
        if (option.value == selector)
            return &option;
    return nullptr;
}

inline uint16_t id_of(const Record &record, const void *object) { return at<uint16_t>(object, record.sharing.id); }
inline uint32_t &cached_flag(const Record &record, void *object) { return at<uint32_t>(object, record.sharing.cached); }

// ---- What follows from the members

// Calls visit for a record and for every record in it.
template <class Visit> constexpr void for_each_record(const Record &record, Visit visit)
{
    visit(record);
    for (const Member &member : record.members) {
        if (member.has_record())
            for_each_record(*member.record, visit);
        for (const Option &option : member.options)
            for_each_record(*option.record, visit);
    }
}

} // namespace zel::wire
