// The fast decoders: nearly every message has its elements in the order in which the
// encoder writes them.  As long as it does, records are read in runs.  At the first element
// that is not the expected one, the rest of the record goes to the general decoder.  They
// are not used when reports about single elements go somewhere.
//
// A record is a template argument here, so that every run is a constant.
#include "decode/frame.hpp"

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Option;
using wire::Record;
using wire::Run;

// ---- What is expected

template <const Record &R, std::size_t From> constexpr Run run = run_from(R, From, read_scope);

template <const Record &R> constexpr Run start_run = start_of(R);
template <const Record &R> constexpr Run end_run = end_of(R);
constexpr Run reference_run = wire::content_of_reference();

// Records that are a single run in all messages.
template <const Record &R> constexpr bool is_one_run = R.is_leaf() && platform_is_inline;
template <const Record &R> [[maybe_unused]] constexpr Run whole_run = run_with_start(R, read_scope);

// Members of a sequence that are read within the code of their container.
template <const Record &R> constexpr bool is_in_place = R != wire::policy &&platform_is_inline;

// ---- Reading

// A record that is being read.  Nothing here has its address taken, so that it can stay in
// registers.
struct Progress {
    const Source &in;
    void *object;
    ElementReader &reader;
    uint32_t before = 0; // elements that the reader had taken before those of this record
    Frame::Array array = Frame::Array::before;
    uint32_t reference_mat_type = 0;
    bool is_sound = true;
    int32_t status = 0;

    bool is_quiet() const { return zel::is_quiet(in.handle()); }
};

// How the general decoder ended a record.
struct End {
    int32_t status;
    uint32_t elements;
    Frame::Array array;
};

[[gnu::noinline]] End read_rest(Frame frame, const Record &record, void *object, ElementReader reader)
{
    reader.leave_fast_path();
    decode_rest(frame, record, object, reader);
    return {frame.status, frame.elements, frame.array};
}

// Each of these returns false when the record has been read to its end by other code than
// this; something may then have been reported, and a callback may have changed the handle.

// Reads the rest of the record with the general decoder.
[[gnu::always_inline]] inline bool leave_in_place(Progress &at, const Record &record)
{
    const uint32_t elements = at.reader.taken - at.before;
    const End end =
        read_rest({at.in, elements, at.array, at.reference_mat_type, at.is_sound}, record, at.object, at.reader);
    at.reader.take_back();
    at.reader.taken = at.before + end.elements;
    at.status = end.status;
    at.array = end.array;
    return false;
}

[[gnu::noinline, maybe_unused]] bool leave_apart(Progress &at, const Record &record)
{
    return leave_in_place(at, record);
}

// With the platform behind calls, each element costs a call, after which registers are loaded
// again.  Small code is then better than inlined code.
template <const Record &R> [[gnu::always_inline]] inline bool leave(Progress &at)
{
    if constexpr (platform_is_inline)
        return leave_in_place(at, R);
    else
        return leave_apart(at, R);
}

template <const Record &R, const Run &Expected> [[gnu::always_inline]] inline bool take(Progress &at)
{
    return expect_true(at.reader.take<Expected>(at.object)) || leave<R>(at);
}

// Goes on if nothing is reported.
template <const Record &R> [[gnu::always_inline]] inline bool go_on(Progress &at, bool is_still_quiet)
{
    at.reader.stand_at_next();
    return expect_true(is_still_quiet) || leave<R>(at);
}

template <const Record &R> bool read_record(Progress &at, Start start);
template <const Record &R> void decode_fast(Frame &frame, void *__restrict object, Start start);

// A record that lies in another one, at its start marker.  Returns whether nothing is reported.
template <const Record &R>
[[gnu::always_inline]] inline bool read_contained(Progress &container, void *object, bool &is_sound)
{
    Progress at{container.in, object, container.reader};
    const bool is_still_quiet = expect_true(read_record<R>(at, Start::shared_marker)) || at.is_quiet();
    is_sound = is_sound_service(at.array, R, object);
    return is_still_quiet;
}

template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_embedded(Progress &at)
{
    constexpr const Member &embedded = R.members[I];
    if (!expect_true(at.reader.is_at(start_run<*embedded.record>[0])))
        return leave<R>(at);
    bool is_sound = true;
    const bool is_still_quiet = read_contained<*embedded.record>(at, wire::part(at.object, embedded.offset), is_sound);
    return go_on<R>(at, is_still_quiet);
}

// A member of a sequence, by code of its own.
template <const Record &R> [[gnu::always_inline]] inline void read_apart(Progress &container, void *object, Start start)
{
    Frame frame{container.in};
    container.reader.give_back();
    decode_fast<R>(frame, object, start);
    container.reader.take_back();
    container.reader.taken += frame.elements + (start == Start::shared_marker ? 1 : 0);
}

// A member of a sequence.  Returns whether nothing is reported.
template <const Record &R>
[[gnu::always_inline]] inline bool read_member(Progress &container, void *object, Start start)
{
    if constexpr (is_one_run<R>) {
        if (expect_true(container.reader.take<whole_run<R>>(object)))
            return true;
    }
    if constexpr (is_in_place<R> && !R.is_leaf()) {
        Progress at{container.in, object, container.reader};
        if (expect_true(read_record<R>(at, start)))
            return true;
    } else {
        read_apart<R>(container, object, start);
    }
    return container.is_quiet();
}

// The members that are left, by the general decoder.
template <const Record &R, std::size_t I>
[[gnu::always_inline]] inline void read_other_members(Progress &at, uint32_t first)
{
    Frame frame{at.in, 0, at.array};
    at.reader.give_back();
    decode_members(frame, R, R.members[I], at.object, first);
    at.reader.take_back();
    at.reader.taken += frame.elements;
    at.array = frame.array;
}

template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_members(Progress &at)
{
    constexpr const Member &sequence = R.members[I];
    const uint32_t count = wire::count_of(at.object, sequence);
    at.array = Frame::Array::filled;
    for (uint32_t i = 0; i < count; ++i) {
        void *const member = allocate_member(at.in, R, sequence, at.object, i);
        if (!expect_true(member != nullptr)) {
            at.array = Frame::Array::closed;
            return i == 0 ? leave<R>(at) : go_on<R>(at, false);
        }
        const Start start = i == 0 ? Start::shared_marker : Start::own_marker;
        if (!expect_true(read_member<*sequence.record>(at, member, start))) {
            read_other_members<R, I>(at, i + 1);
            return go_on<R>(at, at.is_quiet());
        }
    }
    return go_on<R>(at, true);
}

// Behind the count.
template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_sequence(Progress &at)
{
    constexpr const Member &sequence = R.members[I];
    at.array = allocate_array(at.in, R, sequence, at.object, wire::count_of(at.object, sequence), at.array);
    const bool has_array = at.array == Frame::Array::empty;
    if (!go_on<R>(at, has_array || at.is_quiet()))
        return false;
    if (!at.reader.is_at(start_run<*sequence.record>[0]))
        return true;
    return expect_true(has_array) ? read_members<R, I>(at) : leave<R>(at);
}

// False: it is not this option that comes.  Otherwise result says whether all was as expected.
template <const Record &R, std::size_t I, std::size_t O>
[[gnu::always_inline]] inline bool read_option(Progress &at, bool &result)
{
    constexpr const Option &option = R.members[I].options[O];
    constexpr const Record &contained = *option.record;
    if (!at.reader.is_at(start_run<contained>[0]))
        return false;
    void *const parameter = wire::part(at.object, option.offset);
    if constexpr (is_one_run<contained>) {
        at.is_sound = false;
        result = expect_true(at.reader.take<whole_run<contained>>(parameter)) || leave<R>(at);
    } else {
        const bool is_still_quiet = read_contained<contained>(at, parameter, at.is_sound);
        result = go_on<R>(at, is_still_quiet);
    }
    return true;
}

template <const Record &R, std::size_t I, std::size_t... O>
[[gnu::always_inline]] inline bool read_choice(Progress &at, std::index_sequence<O...>)
{
    bool result = true;
    (read_option<R, I, O>(at, result) || ...);
    return result;
}

// What lies between two runs, standing behind the first.
template <const Record &R, std::size_t I> [[gnu::always_inline]] inline bool read_nested(Progress &at)
{
    constexpr const Member &member = R.members[I];
    if constexpr (member.kind == Kind::sequence) {
        return read_sequence<R, I>(at);
    } else {
        if constexpr (I == 0 || is_in_run(R.members[I - 1], read_scope))
            at.reader.stand_at_next();
        if constexpr (member.kind == Kind::embedded)
            return read_embedded<R, I>(at);
        else
            return read_choice<R, I>(at, std::make_index_sequence<member.options.size()>{});
    }
}

// The record from a member on.
template <const Record &R, std::size_t From> [[gnu::always_inline]] inline bool read_from(Progress &at)
{
    constexpr std::size_t nested = wire::end_of_run(R, From, read_scope);
    if (run<R, From>.size() != 0 && !take<R, run<R, From>>(at))
        return false;
    if constexpr (nested == R.members.size())
        return true;
    else
        return read_nested<R, nested>(at) && read_from<R, nested + 1>(at);
}

template <const Record &R> [[gnu::always_inline]] inline bool read_reference(Progress &at)
{
    wire::Reference reference{};
    const bool is_taken = at.reader.take<reference_run>(&reference);
    at.reference_mat_type = reference.mat_type;
    if (!expect_true(is_taken))
        return leave<R>(at);
    resolve(at.in, R, at.object, reference);
    return go_on<R>(at, at.is_quiet()) && take<R, end_run<R>>(at);
}

template <const Record &R> [[gnu::always_inline]] inline bool read_content(Progress &at)
{
    if constexpr (R.is_shareable()) {
        if (at.reader.is_at(reference_run[0]))
            return read_reference<R>(at);
    }
    return read_from<R, 0>(at);
}

// At the start marker, or behind it.
template <const Record &R> [[gnu::always_inline]] inline bool read_record(Progress &at, Start start)
{
    if constexpr (R.is_shareable())
        wire::cached_flag(R, at.object) = 0;
    at.before = at.reader.taken;
    if (start == Start::own_marker)
        at.reader.stand_at_next();
    if (start != Start::behind_marker && !take<R, start_run<R>>(at))
        return false;
    if (start == Start::shared_marker)
        ++at.before;
    at.reader.stand_at_next();
    if (!read_content<R>(at))
        return false;
    finish(at.in, at.is_sound, R, at.object);
    return true;
}

template <const Record &R> void decode_fast(Frame &frame, void *__restrict object, Start start)
{
    if (!is_quiet(frame.in.handle())) [[unlikely]]
        return decode_generally(frame, R, object, start);
    ElementReader reader(frame.in.array, frame.in.cursor);
    if (start == Start::shared_marker)
        reader.stand_at(R.start);
    Progress at{frame.in, object, reader};
    read_record<R>(at, start);
    reader.give_back();
    frame.elements = reader.taken - at.before;
    frame.status = at.status;
}

// The header, and the records that messages have many of.  Others are read fast within those;
// at the top of a message they are read generally, and what they contain is read fast.
struct Row {
    const Record *record;
    DecodeRecord decode;
};

template <const Record &R> constexpr Row row{&R, decode_fast<R>};

constexpr Row rows[] = {
    row<wire::kob_header>, row<wire::if_element>, row<wire::match_service_element>,
    row<wire::match>,      row<wire::action>,     row<wire::match_action_pair>,
    row<wire::policy>,
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
