#include "tools/zeld/message_check.hpp"

#include "model/mat_objects.hpp"
#include "platform/tlv_array.h"
#include "tools/zeld/refusal.hpp"

#include <bitset>
#include <cstring>
#include <string>
#include <vector>

namespace zeld {

namespace {

using service::error_malformed;
using service::error_unsupported;

// The longest path is seven records deep, because the description does not recurse.
class Checker {
public:
    explicit Checker(const void *array) : array_(array) { advance(); }

    // The record that comes next.  Fills its fields and counts, but no members.
    // position is its place among its siblings, from 1; 0 when it has none.
    template <class R> void record(R &fields, uint32_t position = 0)
    {
        path_.push_back({zel::Wire<R>::name.text, position});
        expect(zel::Wire<R>::start, 1, "its start marker");
        if (!is_reference(fields)) {
            std::apply([&](auto... kind) { (member(fields, kind), ...); }, zel::Wire<R>::members);
            remember(fields);
        }
        expect(zel::Wire<R>::end, 1, "its end marker");
        path_.pop_back();
    }

    // The object that a request kind carries, by its MAT type.
    template <class... O> void object(uint32_t mat_type, zel::MatObjectList<O...>)
    {
        (void)((mat_type == O::type && (record_of<typename O::record>(), true)) || ...);
    }

    void end() const
    {
        if (status_ == 0)
            fail("type {} where the message should end", type_);
    }

private:
    struct Place {
        const char *record;
        uint32_t position;
    };

    void advance()
    {
        ++index_;
        status_ = tlv_array_get_next_tlv(array_, &type_, &length_, &value_, 0, &cursor_);
    }

    template <class... Args> [[noreturn]] void fail(fmt::format_string<Args...> what, const Args &...args) const
    {
        std::string where;
        for (const Place &place : path_) {
            where += where.empty() ? " in " : " / ";
            where += place.record;
            if (place.position != 0)
                where += fmt::format(" {}", place.position);
        }
        throw Refusal(error_malformed, "element {}{}: {}", index_, where,
                      fmt::vformat(what, fmt::make_format_args(args...)));
    }

    // Takes the next element, which has to be this one.
    template <class V> void take(uint16_t type, V &value, const char *what)
    {
        const void *const bytes = expect(type, sizeof value, what);
        std::memcpy(&value, bytes, sizeof value);
    }

    const void *expect(uint16_t type, std::size_t length, const char *what)
    {
        if (status_ != 0)
            fail("the message ends, or is damaged, where type {} belongs, {}", type, what);
        if (type_ != type)
            fail("type {} where type {} belongs, {}", type_, type, what);
        if (length_ != length)
            fail("type {}, {}, has {} bytes instead of {}", type, what, length_, length);
        const void *const value = value_;
        advance();
        return value;
    }

    template <class R, uint16_t Id, auto Member> void member(R &fields, zel::Field<Id, Member> field)
    {
        take(Id, fields.*Member, field.text);
    }

    template <class R, auto Member> void member(R &fields, zel::Embedded<Member>) { record(fields.*Member); }

    template <class R, uint16_t Id, auto Count, auto Array>
    void member(R &fields, zel::Sequence<Id, Count, Array> sequence)
    {
        take(Id, fields.*Count, sequence.text);
        for (uint32_t i = 0; i < fields.*Count; ++i)
            record_of<zel::Element<Array>>(i + 1);
    }

    template <class R, auto Selector, class... O> void member(R &fields, zel::Choice<Selector, O...>)
    {
        const uint32_t selector = fields.*Selector;
        (option(fields, selector, O{}), ...);
    }

    template <class R, uint32_t Value, auto... Path>
    void option(R &fields, uint32_t selector, zel::Option<Value, Path...>)
    {
        if (selector == Value)
            record(zel::follow<Path...>(fields));
    }

    template <class R> void record_of(uint32_t position = 0)
    {
        R fields{};
        record(fields, position);
    }

    // ---- Matches and actions, which come in full once

    template <class R> bool is_reference(R &)
    {
        if constexpr (zel::is_shareable<R>) {
            if (status_ != 0 || type_ != zel::reference_mat_type_id)
                return false;
            zel::Reference reference{};
            take(zel::reference_mat_type_id, reference.mat_type, "the type of a reference");
            take(zel::reference_mat_id_id, reference.mat_id, "the id of a reference");
            if (reference.mat_type != zel::MatObjectOf<R>::type)
                fail("a reference to an object of kind {}", reference.mat_type);
            if (!seen<R>()[reference.mat_id])
                fail("a reference to {} {}, which has not come before", zel::Wire<R>::name.text, reference.mat_id);
            return true;
        }
        return false;
    }

    template <class R> void remember(const R &fields)
    {
        if constexpr (zel::is_shareable<R>) {
            if (seen<R>()[fields.id])
                fail("{} {} has come in full before", zel::Wire<R>::name.text, fields.id);
            seen<R>().set(fields.id);
        }
    }

    using Ids = std::bitset<UINT16_MAX + 1>;
    template <class R> Ids &seen() { return std::is_same_v<R, zel_match_t> ? matches_ : actions_; }

    const void *array_;
    uint32_t cursor_ = 0;
    uint32_t index_ = 0; // of the next element, from 1; what is known of it follows
    int32_t status_ = 0;
    uint16_t type_ = 0;
    uint16_t length_ = 0;
    const void *value_ = nullptr;
    std::vector<Place> path_;
    Ids matches_;
    Ids actions_;
};

} // namespace

zel_kob_header_t check_message(const void *array)
{
    Checker checker(array);
    zel_kob_header_t header{};
    checker.record(header);
    const uint32_t mat_type = get_mat_obj_type(header.api_type);
    if (mat_type == ZEL_MAT_TYPE_NONE)
        throw Refusal(error_unsupported, "request kind {} is not known", header.api_type);
    if (header.api_type != ZEL_API_POLICY_DELETE)
        checker.object(mat_type, zel::MatObjects{});
    checker.end();
    return header;
}

} // namespace zeld
