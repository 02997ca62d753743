// The fast decoders: nearly every message has its elements in the order in which the
// encoder writes them.  As long as they do, one comparison per element is enough.  At the
// first element that is not the expected one, the rest of the record goes to the general
// decoder.  They are not used when reports about single elements go somewhere.
//
// A record is a template argument here, so that every element's id, width and place are
// constants.
#include "decode/frame.hpp"

#include <utility>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Option;
using wire::Record;

constexpr ExpectedElement marker(uint16_t id) { return {id, sizeof zel_tlv_struct_start}; }

// The element that a record's member begins with; behind the last member, the end marker.
// A choice may begin with any of several.
template <const Record &R> constexpr ExpectedElement element_at(std::size_t i)
{
    if (i == R.members.size())
        return marker(R.end);
    const Member &member = R.members[i];
    if (member.kind == Kind::choice)
        return {};
    return member.kind == Kind::embedded ? marker(member.record->start) : ExpectedElement{member.id, member.width};
}

// A record that has been read so far, up to the element that was pulled last.
struct Progress {
    Frame &frame;
    void *object;
    ElementReader &reader;
    uint32_t own_start; // 1 when the start marker was the record's own to pull
    uint32_t own_elements = 0;
};

// Reads the rest of the record with the general decoder.  Returns false, so that callers
// can write `return leave<R>(at)`.
template <const Record &R> [[gnu::noinline]] bool leave(Progress &at)
{
    at.frame.status = decode_in_any_order(at.frame, R, at.object, at.own_start + at.own_elements, at.reader);
    at.reader.take_back();
    return false;
}

// Goes on to the next element.
template <const Record &R, ExpectedElement Next> [[gnu::always_inline]] inline bool next(Progress &at)
{
    ++at.own_elements;
    return expect_true(at.reader.pull<Next>()) || leave<R>(at);
}

// The same behind a contained record, whose decoding may have begun to be reported: a
// callback may change the handle.
template <const Record &R, ExpectedElement Next>
[[gnu::always_inline]] inline bool next(Progress &at, bool is_still_quiet)
{
    ++at.own_elements;
    return expect_true(at.reader.pull<Next>() && is_still_quiet) || leave<R>(at);
}

template <const Record &R> bool read_record(Frame &frame, void *object, ElementReader &reader, uint32_t own_start);
template <const Record &R> int32_t decode_fast(Frame &frame, void *__restrict object, uint32_t own_start);

// A contained record, in place.  True while nothing is reported.
template <const Record &R>
[[gnu::always_inline]] inline bool read_contained(Frame &frame, void *object, ElementReader &reader)
{
    return read_record<R>(frame, object, reader, 0) || is_quiet(frame.in);
}

// Each of these takes what a member expects, if that is what comes, and pulls the element
// behind it.  False: something else came, and the record has been read to its end.

template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_field(Progress &at)
{
    constexpr const Member &field = R.members[I];
    if (!expect_true(at.reader.element.id == field.id))
        return leave<R>(at);
    copy_bytes<read_width(field)>(wire::part(at.object, field.offset), at.reader.element.value);
    return next<R, element_at<R>(I + 1)>(at);
}

template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_embedded(Progress &at)
{
    constexpr const Member &member = R.members[I];
    if (!expect_true(at.reader.element.id == member.record->start))
        return leave<R>(at);
    uint32_t elements = 0;
    Frame frame{at.frame.in, elements};
    const bool is_still_quiet = read_contained<*member.record>(frame, wire::part(at.object, member.offset), at.reader);
    at.frame.subtotal += elements;
    return next<R, element_at<R>(I + 1)>(at, is_still_quiet);
}

template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_sequence(Progress &at)
{
    constexpr const Member &sequence = R.members[I];
    constexpr const Record &contained = *sequence.record;
    if (!expect_true(at.reader.element.id == sequence.id))
        return leave<R>(at);
    const uint32_t count = wire::load_number(at.reader.element.value, sequence.width);
    allocate_array(at.frame, R, sequence, at.object, count);
    if (!next<R, marker(contained.start)>(at, is_quiet(at.frame.in)))
        return false;
    if (at.reader.element.id != contained.start)
        return true;
    at.reader.give_back();
    decode_members(at.frame, R, sequence, at.object, decode_fast<contained>);
    at.reader.take_back();
    return next<R, element_at<R>(I + 1)>(at, is_quiet(at.frame.in));
}

// False: it is not this option that comes.  Otherwise result says whether all was as expected.
template <const Record &R, std::size_t I, std::size_t O>
[[gnu::always_inline]] inline bool read_option(Progress &at, bool &result)
{
    constexpr const Option &option = R.members[I].options[O];
    constexpr const Record &contained = *option.record;
    if (at.reader.element.id != contained.start)
        return false;
    uint32_t elements = 0;
    Frame frame{at.frame.in, elements};
    void *const parameter = wire::part(at.object, option.offset);
    const bool is_still_quiet = read_contained<contained>(frame, parameter, at.reader);
    at.frame.subtotal += elements;
    at.frame.is_sound = is_sound_service(frame, contained, parameter);
    result = next<R, element_at<R>(I + 1)>(at, is_still_quiet);
    return true;
}

template <const Record &R, std::size_t I, std::size_t... O>
[[gnu::always_inline]] inline bool read_choice(Progress &at, std::index_sequence<O...>)
{
    bool result = true;
    (read_option<R, I, O>(at, result) || ...);
    return result;
}

template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_member(Progress &at)
{
    constexpr const Member &member = R.members[I];
    if constexpr (member.kind == Kind::field)
        return read_field<R, I>(at);
    else if constexpr (member.kind == Kind::embedded)
        return read_embedded<R, I>(at);
    else if constexpr (member.kind == Kind::sequence)
        return read_sequence<R, I>(at);
    else
        return read_choice<R, I>(at, std::make_index_sequence<member.options.size()>{});
}

template <const Record &R> [[gnu::always_inline]] inline bool read_reference(Progress &at)
{
    constexpr ExpectedElement mat_id{wire::reference_mat_id.id, wire::reference_mat_id.width};
    at.frame.reference_mat_type = load<uint32_t>(at.reader.element.value);
    if (!next<R, mat_id>(at))
        return false;
    if (!expect_true(at.reader.element.id == mat_id.id))
        return leave<R>(at);
    resolve(at.frame, R, at.object, load<uint16_t>(at.reader.element.value));
    return next<R, marker(R.end)>(at, is_quiet(at.frame.in));
}

template <const Record &R> [[gnu::always_inline]] inline bool read_content(Progress &at)
{
    if constexpr (R.is_shareable()) {
        if (at.reader.element.id == wire::reference_mat_type.id)
            return read_reference<R>(at);
    }
    return [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline))
    {
        return (read_member<R, I>(at) && ...);
    }
    (std::make_index_sequence<R.members.size()>{});
}

// A record from behind its start marker on, or with it when it is the record's own to pull.
// False: the record is complete, but not by this function alone.
template <const Record &R>
[[gnu::always_inline]] inline bool read_record(Frame &frame, void *object, ElementReader &reader, uint32_t own_start)
{
    frame.subtotal = 0;
    if constexpr (R.is_shareable())
        wire::cached_flag(R, object) = 0;
    Progress at{frame, object, reader, 0};
    if (own_start != 0) {
        if (!expect_true(reader.pull<marker(R.start)>() && reader.element.id == R.start))
            return leave<R>(at);
        at.own_start = 1;
    }
    if (!expect_true(reader.pull<element_at<R>(0)>()))
        return leave<R>(at);
    if (!read_content<R>(at))
        return false;
    if (!expect_true(reader.element.id == R.end))
        return leave<R>(at);
    frame.subtotal += own_start + at.own_elements + 1;
    finish(frame, R, object);
    disown_unsound(frame, R, object);
    return true;
}

template <const Record &R> int32_t decode_fast(Frame &frame, void *__restrict object, uint32_t own_start)
{
    ElementReader reader(frame.in.array, frame.in.cursor);
    if (!is_quiet(frame.in)) [[unlikely]] {
        begin(frame, R, object);
        reader.pull();
        return decode_in_any_order(frame, R, object, 0, reader);
    }
    read_record<R>(frame, object, reader, own_start);
    reader.give_back();
    return frame.status;
}

// The records that stand at the top of a message or in a sequence.  Others are read fast
// within those.
struct Row {
    const Record *record;
    DecodeRecord decode;
};

template <const Record &R> constexpr Row row{&R, decode_fast<R>};

constexpr Row rows[] = {
    row<wire::kob_header>,
    row<wire::stat_request_entry>,
    row<wire::stat_request>,
    row<wire::if_element>,
    row<wire::if_group>,
    row<wire::match_service_element>,
    row<wire::match>,
    row<wire::action>,
    row<wire::match_grp>,
    row<wire::action_grp>,
    row<wire::match_action_pair>,
    row<wire::match_action_pair_grp>,
    row<wire::policy>,
    row<wire::policy_list>,
};

} // namespace

DecodeRecord find_decoder(const Record &record)
{
    for (const Row &row : rows)
        if (row.record == &record)
            return row.decode;
    return nullptr;
}

} // namespace zel
