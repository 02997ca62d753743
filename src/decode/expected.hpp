// The decoders.  Nearly every message has its elements in the order in which the
// encoder writes them.  As long as nobody wants the details, a record therefore begins
// with the expectation that they do, which takes one comparison per element; the first
// that differs is the loop's, and so are all that follow it in this record.
#pragma once

#include "decode/loop.hpp"

namespace zel {

// [[likely]] says nine in ten; a record of some thirty of them would be all unlikely.
[[gnu::always_inline]] inline bool surely(bool condition)
{
    return __builtin_expect_with_probability(condition, true, 1.0) != 0;
}

// Has the loop read the rest of a record, from what was pulled last.  In scalars, for
// the sake of those who keep them in registers.
template <class R>
[[gnu::noinline]] void deviate(Frame<R> &frame, R &record, uint32_t own_elements, uint16_t type, const void *value,
                               int32_t status)
{
    frame.status = decode_in_any_order(frame, &record, own_elements, {type, value}, status);
}

template <class C> bool expect_child(Frame<C> &frame, C &child, Reader &reader);

// The element that a member begins with.
template <uint16_t Id, auto Member> constexpr auto first_element(Field<Id, Member>)
{
    return Foreseen<Id, sizeof(Value<Member>)>{};
}
template <auto Member> constexpr auto first_element(Embedded<Member>)
{
    return ForeseenMarker<Wire<Value<Member>>::start>{};
}
template <uint16_t Id, auto Count, auto Array> constexpr auto first_element(Sequence<Id, Count, Array>)
{
    return Foreseen<Id, sizeof(Value<Count>)>{};
}
template <auto Selector, class... O> constexpr auto first_element(Choice<Selector, O...>) { return Foreseen<>{}; }

// The element that a record's member begins with; behind the last member, the end.
template <class R, std::size_t I> constexpr auto element_at()
{
    if constexpr (I == num_members<R>)
        return ForeseenMarker<Wire<R>::end>{};
    else
        return first_element(std::get<I>(Wire<R>::members));
}

// A record that has been read so far, up to the element that was pulled last.
template <class R> struct Progress {
    Frame<R> &frame;
    R &record;
    Reader &reader;
    uint32_t own_start; // 1 when the start marker was the record's own to pull
    uint32_t own_elements = 0;

    // Always false, for those who return what is the case.
    [[gnu::always_inline]] bool deviate()
    {
        frame.in.cursor = reader.cursor;
        zel::deviate(frame, record, own_start + own_elements, reader.element.type, reader.element.value, reader.status);
        reader.cursor = frame.in.cursor;
        return false;
    }

    // Goes on to the next element.
    template <class Next> [[gnu::always_inline]] bool next(Next foreseen)
    {
        ++own_elements;
        if (surely(reader.pull(foreseen)))
            return true;
        return deviate();
    }

    // The same behind a member that may have been reported on.
    template <class Next> [[gnu::always_inline]] bool next(Next foreseen, bool is_as_expected)
    {
        ++own_elements;
        if (surely(reader.pull(foreseen) && is_as_expected))
            return true;
        return deviate();
    }
};

// Each takes what a member expects, if that is what comes, and pulls what is foreseen
// behind it.  False: it was not, and the record has been read to its end.

template <class R, uint16_t Id, auto Member, class Next>
[[gnu::always_inline]] inline bool expect(Progress<R> &at, Field<Id, Member>, Next behind)
{
    if (!surely(at.reader.element.type == Id))
        return at.deviate();
    copy<Member>(at.record, at.reader.element);
    return at.next(behind);
}

template <class R, auto Member, class Next>
[[gnu::always_inline]] inline bool expect(Progress<R> &at, Embedded<Member>, Next behind)
{
    using Child = Value<Member>;
    if (!surely(at.reader.element.type == Wire<Child>::start))
        return at.deviate();
    uint32_t count = 0;
    Frame<Child> child_frame{at.frame.in, count};
    const bool is_as_expected = expect_child(child_frame, at.record.*Member, at.reader);
    at.frame.subtotal += count;
    return at.next(behind, is_as_expected);
}

template <class R, uint16_t Id, auto Count, auto Array, class Next>
[[gnu::always_inline]] inline bool expect(Progress<R> &at, Sequence<Id, Count, Array>, Next behind)
{
    if (!surely(at.reader.element.type == Id))
        return at.deviate();
    allocate_array<Count, Array>(at.frame, at.record, load<Value<Count>>(at.reader.element));
    constexpr uint16_t start = Wire<Element<Array>>::start;
    if (!at.next(ForeseenMarker<start>{}, is_quiet(at.frame.in)))
        return false;
    if (at.reader.element.type != start)
        return true;
    hand_over(at.frame, at.reader.cursor, [&] { decode_members<Count, Array>(at.frame, at.record); });
    return at.next(behind, is_quiet(at.frame.in));
}

// Whether the option is what comes; and then, whether it is all as expected.
template <class R, class Next, uint32_t Value, auto... Path>
[[gnu::always_inline]] inline bool expect_option(Progress<R> &at, Next behind, bool &is_as_expected,
                                                 Option<Value, Path...>)
{
    using Child = Target<Path...>;
    if (at.reader.element.type != Wire<Child>::start)
        return false;
    uint32_t count = 0;
    Child &child = follow<Path...>(at.record);
    Frame<Child> child_frame{at.frame.in, count};
    is_as_expected = expect_child(child_frame, child, at.reader);
    at.frame.subtotal += count;
    at.frame.is_sound = is_sound(child_frame, child);
    is_as_expected = at.next(behind, is_as_expected);
    return true;
}

template <class R, auto Selector, class... O, class Next>
[[gnu::always_inline]] inline bool expect(Progress<R> &at, Choice<Selector, O...>, Next behind)
{
    bool is_as_expected = true;
    (expect_option(at, behind, is_as_expected, O{}) || ...);
    return is_as_expected;
}

template <class R> [[gnu::always_inline]] inline bool expect_reference(Progress<R> &at)
{
    at.frame.reference_mat_type = load<uint32_t>(at.reader.element);
    if (!at.next(Foreseen<reference_mat_id_id, sizeof Reference::mat_id>{}))
        return false;
    if (!surely(at.reader.element.type == reference_mat_id_id))
        return at.deviate();
    resolve(at.frame, at.record, load<uint16_t>(at.reader.element));
    return at.next(ForeseenMarker<Wire<R>::end>{}, is_quiet(at.frame.in));
}

// The members of a record from one of them on.
template <class R, std::size_t I = 0> [[gnu::always_inline]] inline bool expect_members(Progress<R> &at)
{
    if constexpr (I == num_members<R>)
        return true;
    else
        return expect(at, std::get<I>(Wire<R>::members), element_at<R, I + 1>()) && expect_members<R, I + 1>(at);
}

template <class R> [[gnu::always_inline]] inline bool expect_content(Progress<R> &at)
{
    if constexpr (is_shareable<R>) {
        if (at.reader.element.type == reference_mat_type_id)
            return expect_reference(at);
    }
    return expect_members(at);
}

// A record from behind its start marker on, or from there on when that is its own to pull.
template <class R>
[[gnu::always_inline]] inline bool expect_record(Frame<R> &frame, R &record, Reader &reader, uint32_t own_start)
{
    begin(frame, record);
    Progress<R> at{frame, record, reader, 0};
    if (own_start != 0) {
        constexpr uint16_t start = Wire<R>::start;
        if (!surely(reader.pull(ForeseenMarker<start>{}) && reader.element.type == start))
            return at.deviate();
        at.own_start = 1;
    }
    if (!surely(reader.pull(element_at<R, 0>())))
        return at.deviate();
    if (!expect_content(at))
        return false;
    if (!surely(reader.element.type == Wire<R>::end))
        return at.deviate();
    frame.subtotal += own_start + at.own_elements + 1;
    finish(frame, record);
    disown_unsound(frame, record);
    return true;
}

// A child in the middle of a record, in place.
template <class C> [[gnu::always_inline]] inline bool expect_child(Frame<C> &frame, C &child, Reader &reader)
{
    return expect_record(frame, child, reader, 0) || is_quiet(frame.in);
}

template <class R> int32_t decode(Frame<R> &frame, R *__restrict record, uint32_t own_start)
{
    Reader reader{frame.in.array, frame.in.cursor};
    if (is_quiet(frame.in)) [[likely]] {
        expect_record(frame, *record, reader, own_start);
        frame.in.cursor = reader.cursor;
        return frame.status;
    }
    begin(frame, *record);
    reader.pull();
    frame.in.cursor = reader.cursor;
    return decode_in_any_order(frame, record, 0, reader.element, reader.status);
}

// All members at the first one's start marker.  When memory runs out, the count
// shrinks to the members that are there, and further ones are left to be skipped.
template <auto Count, auto Array, class R> [[gnu::noinline]] void decode_members(Frame<R> &frame, R &record)
{
    using State = typename Frame<R>::Array;
    using Member = Element<Array>;
    auto &count = record.*Count;
    if (frame.array != State::empty && frame.array != State::filled)
        return;
    frame.array = State::filled;
    Reader reader{frame.in.array, frame.in.cursor};
    // Members of fields alone are decoded in place, others by their own decoder.
    bool is_as_expected = is_leaf<Member> && is_quiet(frame.in);
    for (uint32_t i = 0; i < count; ++i) {
        auto *const member = static_cast<Member *>(std::calloc(1, sizeof(Member)));
        if (member == nullptr) {
            report_no_memory(frame, 1, sizeof(Member));
            count = static_cast<Value<Count>>(i);
            frame.array = State::closed;
            break;
        }
        (record.*Array)[i] = member;
        uint32_t elements = 0;
        Frame<Member> member_frame{frame.in, elements};
        const uint32_t own_start = i == 0 ? 0 : 1;
        if (is_leaf<Member> && is_as_expected)
            is_as_expected = expect_record(member_frame, *member, reader, own_start) || is_quiet(frame.in);
        else
            hand_over(frame, reader.cursor, [&] { decode(member_frame, member, own_start); });
        frame.subtotal += elements;
    }
    frame.in.cursor = reader.cursor;
}

} // namespace zel
