// Compares a message with what the encoder writes, run by run.
#include "verify/accept.hpp"

#include "model/elements.hpp"

#ifdef ZEL_INLINE_ELEMENTS

#include "verify/id_set.hpp"
#include "wire/format.hpp"
#include "wire/run.hpp"

#include <cstring>
#include <utility>

namespace zel {
namespace {

using wire::Kind;
using wire::Member;
using wire::Record;
using wire::Run;

constexpr wire::RunScope scope = wire::RunScope::with_embedded;

template <const Record &R, std::size_t From>
constexpr Run run = From == 0 ? run_with_start(R, scope) : run_from(R, From, scope);

// The start of a record that may be a reference, and the rest of either form.
template <const Record &R> constexpr Run start_run = start_of(R);
template <const Record &R> constexpr Run full_run = run_from(R, 0, scope);
template <const Record &R> constexpr Run reference_run = wire::content_of_reference() + end_of(R);

struct Ids {
    IdSet matches;
    IdSet actions;

    template <const Record &R> IdSet &of() { return R == wire::match ? matches : actions; }
};

class Comparison {
public:
    Comparison(const void *array, Ids &ids) : ids_(ids)
    {
        at_ = static_cast<const unsigned char *>(array) + array_overhead;
        end_ = at_ + platform::used_bytes(array);
    }

    bool is_at_end() const { return at_ == end_; }

    template <const Run &Expected> [[gnu::always_inline]] bool take()
    {
        return take_each<Expected>(std::make_index_sequence<Expected.size()>{});
    }

    // The value of a field in the run that was taken last.
    template <const Run &Taken> uint32_t value_of(std::size_t offset, std::size_t width) const
    {
        std::size_t i = 0;
        while (Taken[i].kind != wire::RunElement::Kind::value || Taken[i].offset != offset)
            ++i;
        return wire::load_number(at_ - size_of<Taken>() + Taken.offset(i, TLV_ELEMENT_OVERHEAD) + TLV_ELEMENT_OVERHEAD,
                                 width);
    }

    template <const Record &R> [[gnu::always_inline]] bool take_record();

private:
    template <const Run &Of> static constexpr uint32_t size_of() { return Of.offset(Of.size(), TLV_ELEMENT_OVERHEAD); }

    // Each comparison is nearly always true.
    template <const Run &Expected, std::size_t I> [[gnu::always_inline]] bool is_element() const
    {
        constexpr wire::RunElement expected = Expected[I];
        constexpr platform::ElementHeader header{expected.id, expected.width};
        const unsigned char *const element = at_ + Expected.offset(I, TLV_ELEMENT_OVERHEAD);
        const bool is_value = expected.kind == wire::RunElement::Kind::value;
        return expect_true(std::memcmp(element, &header, sizeof header) == 0) &&
               expect_true(is_value || element[sizeof header] == 0);
    }

    template <const Run &Expected, std::size_t... I> [[gnu::always_inline]] bool take_each(std::index_sequence<I...>)
    {
        if (!expect_true(static_cast<std::size_t>(end_ - at_) >= size_of<Expected>()) ||
            !expect_true((is_element<Expected, I>() && ...)))
            return false;
        at_ += size_of<Expected>();
        return true;
    }

    template <const Record &R, std::size_t From, const Run &Taken> [[gnu::always_inline]] bool take_behind();
    template <const Record &R, std::size_t I, const Run &Before> [[gnu::always_inline]] bool take_nested();
    template <const Record &R> [[gnu::always_inline]] bool take_shareable();
    template <const Record &R> [[gnu::noinline]] bool take_apart();
    template <const Record &R> [[gnu::always_inline]] bool take_members(uint32_t count);
    template <const Record &R, std::size_t I, std::size_t... O>
    [[gnu::always_inline]] bool take_option(uint32_t selector, std::index_sequence<O...>);

    Ids &ids_;
    const unsigned char *at_;
    const unsigned char *end_;
};

template <const Record &R> inline bool Comparison::take_members(uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        if constexpr (R == wire::policy) {
            if (!take_apart<R>())
                return false;
        } else {
            if (!take_record<R>())
                return false;
        }
    }
    return true;
}

// A selector that selects nothing has no option; what follows then is the end marker.
template <const Record &R, std::size_t I, std::size_t... O>
inline bool Comparison::take_option(uint32_t selector, std::index_sequence<O...>)
{
    bool is_taken = true;
    (void)((selector == R.members[I].options[O].value &&
            (is_taken = take_record<*R.members[I].options[O].record>(), true)) ||
           ...);
    return is_taken;
}

template <const Record &R, std::size_t I, const Run &Before> inline bool Comparison::take_nested()
{
    constexpr const Member &member = R.members[I];
    if constexpr (member.kind == Kind::embedded)
        return take_record<*member.record>();
    else if constexpr (member.kind == Kind::sequence)
        return take_members<*member.record>(value_of<Before>(member.offset, member.width));
    else
        return take_option<R, I>(value_of<Before>(member.offset, member.width),
                                 std::make_index_sequence<member.options.size()>{});
}

// What follows a run that has been taken.
template <const Record &R, std::size_t From, const Run &Taken> inline bool Comparison::take_behind()
{
    constexpr std::size_t nested = wire::end_of_run(R, From, scope);
    if constexpr (nested == R.members.size())
        return true;
    else
        return take_nested<R, nested, Taken>() && take<run<R, nested + 1>>() &&
               take_behind<R, nested + 1, run<R, nested + 1>>();
}

// Each object comes in full once.  A reference names only such an object.
template <const Record &R> inline bool Comparison::take_shareable()
{
    if (!take<start_run<R>>())
        return false;
    if (take<reference_run<R>>()) {
        constexpr const Member &type = wire::reference_mat_type;
        constexpr const Member &id = wire::reference_mat_id;
        return value_of<reference_run<R>>(type.offset, type.width) == R.mat_type &&
               ids_.of<R>().contains(value_of<reference_run<R>>(id.offset, id.width));
    }
    return take<full_run<R>>() && ids_.of<R>().insert(value_of<full_run<R>>(R.sharing.id, sizeof(uint16_t))) &&
           take_behind<R, 0, full_run<R>>();
}

template <const Record &R> inline bool Comparison::take_record()
{
    if constexpr (R.is_shareable())
        return take_shareable<R>();
    else
        return take<run<R, 0>>() && take_behind<R, 0, run<R, 0>>();
}

template <const Record &R> bool Comparison::take_apart() { return take_record<R>(); }

template <const Record &R> bool is_object(Comparison &message)
{
    return message.take_record<R>() && message.is_at_end();
}

bool is_object(Comparison &message, uint32_t mat_type)
{
    switch (mat_type) {
    case ZEL_MAT_TYPE_POLICY_LIST:
        return is_object<wire::policy_list>(message);
    case ZEL_MAT_TYPE_POLICY:
        return is_object<wire::policy>(message);
    case ZEL_MAT_TYPE_STAT_REQUEST:
        return is_object<wire::stat_request>(message);
    default: // the parts of a policy are small messages
        return false;
    }
}

} // namespace

bool is_as_encoded(const void *array)
{
    Ids ids;
    Comparison message(array, ids);
    if (!message.take<run<wire::kob_header, 0>>())
        return false;
    const Member &api_type = wire::kob_header_members[0];
    const uint32_t kind = message.value_of<run<wire::kob_header, 0>>(api_type.offset, api_type.width);
    return (kind == ZEL_API_POLICY_DELETE && message.is_at_end()) || is_object(message, get_mat_obj_type(kind));
}

} // namespace zel

#endif
