// How decoders read elements: one by one, in any order, or in runs.
//
// A fast decoder stands at an element: the next one that it has not taken.  With the platform
// behind calls that element has been pulled already; in one program with the platform it is
// looked at where it lies.
#pragma once

#include "decode/exceptions.hpp"
#include "model/elements.hpp"
#include "wire/run.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zel {

// A copy of constant size, in pieces of two words: compilers have better instructions for
// these than for a long copy.  Through a variable, because both places may be the same.
template <std::size_t Width> [[gnu::always_inline]] inline void copy_bytes(void *to, const void *from)
{
    constexpr std::size_t size = std::min(Width, 2 * sizeof(void *));
    char piece[size];
    std::memcpy(piece, from, size);
    std::memcpy(to, piece, size);
    if constexpr (size < Width)
        copy_bytes<Width - size>(wire::part(to, size), wire::part(from, size));
}

#ifdef ZEL_INLINE_ELEMENTS

inline constexpr wire::RunScope read_scope = wire::RunScope::with_embedded;

// The position is a copy of the caller's cursor, which then stays in a register; give_back()
// and take_back() stand around code that reads on its own.
class ElementReader {
public:
    ElementReader(const void *array, uint32_t *cursor)
        : array_(array), shared_(cursor), end_(std::max(platform::used_bytes(array), *cursor)), cursor_(*cursor)
    {}

    // ---- In any order

    void pull()
    {
        uint16_t length = 0;
        status = platform::next(array_, cursor_, element.id, length, element.value);
    }

    void give_back() { *shared_ = cursor_; }
    void take_back() { cursor_ = *shared_; }

    // What a fast decoder stands at becomes the element.
    void leave_fast_path() { pull(); }

    int32_t status = 0; // of the last pull
    TlvElement element{};
    uint32_t taken = 0; // number of elements, by fast decoders

    // ---- In runs

    // Goes on to the element behind those that have been taken.
    static void stand_at_next() {}

    // The next element is a marker that another reader has found.
    static void stand_at(uint16_t) {}
    void skip_marker() { pull(); }

    [[gnu::always_inline]] bool is_at(const wire::RunElement &expected) const
    {
        return has_room(TLV_ELEMENT_OVERHEAD + expected.width) && is_header(0, expected);
    }

    // Copies the values of a run into the object.  False: something
    // else comes, and nothing has been taken.
    template <const wire::Run &Run> [[gnu::always_inline]] bool take(void *object)
    {
        constexpr auto indices = std::make_index_sequence<Run.size()>{};
        if (!has_room(offset_in<Run>(Run.size())) || !expect_true(has_headers<Run>(indices)))
            return false;
        copy_values<Run>(object, indices);
        cursor_ += offset_in<Run>(Run.size());
        taken += Run.size();
        return true;
    }

private:
    template <const wire::Run &Run> static constexpr uint32_t offset_in(std::size_t index)
    {
        return Run.offset(index, TLV_ELEMENT_OVERHEAD);
    }

    const unsigned char *at(uint32_t offset) const
    {
        return static_cast<const unsigned char *>(array_) + array_overhead + cursor_ + offset;
    }

    bool has_room(uint32_t bytes) const { return expect_true(bytes <= end_ - cursor_); }

    [[gnu::always_inline]] bool is_header(uint32_t offset, const wire::RunElement &expected) const
    {
        const platform::ElementHeader header{expected.id, expected.width};
        return std::memcmp(at(offset), &header, sizeof header) == 0;
    }

    template <const wire::Run &Run, std::size_t... I>
    [[gnu::always_inline]] bool has_headers(std::index_sequence<I...>) const
    {
        return (expect_true(is_header(offset_in<Run>(I), Run[I])) && ...);
    }

    template <const wire::Run &Run, std::size_t... I>
    [[gnu::always_inline]] void copy_values([[maybe_unused]] void *object, std::index_sequence<I...>) const
    {
        (copy_value<Run, I>(object), ...);
    }

    template <const wire::Run &Run, std::size_t I>
    [[gnu::always_inline]] void copy_value([[maybe_unused]] void *object) const
    {
        constexpr wire::RunElement read = Run[I];
        if constexpr (read.kind == wire::RunElement::Kind::value)
            copy_bytes<read_width(read.id, read.width)>(wire::part(object, read.offset),
                                                        at(offset_in<Run>(I) + TLV_ELEMENT_OVERHEAD));
    }

    const void *array_;
    uint32_t *shared_;
    uint32_t end_; // of the elements; not before the cursor
    uint32_t cursor_;
};

#else

inline constexpr wire::RunScope read_scope = wire::RunScope::one_record;

// Pulls elements with the caller's own cursor.
class ElementReader {
public:
    ElementReader(const void *array, uint32_t *cursor) : array_(array), cursor_(cursor) {}

    // ---- In any order

    void pull()
    {
        uint16_t length = 0;
        status = tlv_array_get_next_tlv(array_, &element.id, &length, &element.value, 0, cursor_);
        if (!expect_true(status == 0))
            element.id = no_element;
    }

    // The cursor is the caller's at all times.
    void give_back() {}
    void take_back() {}

    // The element that a fast decoder stands at has been pulled.
    void leave_fast_path() {}

    int32_t status = 0; // of the last pull
    TlvElement element{};
    uint32_t taken = 0; // number of elements, by fast decoders

    // ---- In runs

    // Goes on to the element behind those that have been taken.
    void stand_at_next() { pull(); }

    // The next element is a marker that another reader has found, and pulled.
    void stand_at(uint16_t id) { element.id = id; }
    static void skip_marker() {}

    bool is_at(const wire::RunElement &expected) const { return element.id == expected.id; }

    // Copies the values of a run into the object.  False: at the
    // first element that is not the expected one.
    template <const wire::Run &Run> [[gnu::always_inline]] bool take(void *object)
    {
        return take_each<Run>(object, std::make_index_sequence<Run.size()>{});
    }

private:
    static constexpr uint16_t no_element = 0; // is never expected

    template <const wire::Run &Run, std::size_t... I>
    [[gnu::always_inline]] bool take_each([[maybe_unused]] void *object, std::index_sequence<I...>)
    {
        const bool is_taken = (take_one<Run, I>(object) && ...);
        taken += is_taken ? Run.size() : 0;
        return is_taken;
    }

    template <const wire::Run &Run, std::size_t I> [[gnu::always_inline]] bool take_one([[maybe_unused]] void *object)
    {
        constexpr wire::RunElement expected = Run[I];
        if constexpr (I != 0)
            pull();
        if (!expect_true(element.id == expected.id)) {
            taken += I;
            return false;
        }
        if constexpr (expected.kind == wire::RunElement::Kind::value)
            copy_bytes<read_width(expected.id, expected.width)>(wire::part(object, expected.offset), element.value);
        return true;
    }

    const void *array_;
    uint32_t *cursor_;
};

#endif

} // namespace zel
