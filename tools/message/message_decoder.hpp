// From elements to records, by the wire description.  Stricter than the library's
// decoders, which make the best of what they get: the tools say what is wrong.
#pragma once

#include "tools/json/bad_input.hpp"
#include "tools/json/field_notation.hpp"
#include "tools/message/element_list.hpp"
#include "tools/message/graph.hpp"

#include <map>
#include <utility>

namespace tools {

class MessageDecoder {
public:
    explicit MessageDecoder(const ElementList &list) : list_(list) {}

    // Fills a zero-filled record, or throws BadInput and leaves it so that it can
    // be freed.  The records must outlive the decoder.
    template <class R> void decode(R &record)
    {
        expect(zel::Wire<R>::start, 1);
        if constexpr (zel::is_shareable<R>) {
            if (decode_reference(record))
                return;
        }
        std::apply([&](auto... member) { (decode_member(record, member), ...); }, zel::Wire<R>::members);
        expect(zel::Wire<R>::end, 1);
        // The first object of an id is the one that references mean.
        if constexpr (zel::is_shareable<R>)
            definitions_.try_emplace({zel::MatObjectOf<R>::type, record.id}, &record);
    }

    // The next element that the description knows, or null.
    const RawElement *peek();

    // Refuses the next element, or the end of the message.
    [[noreturn]] void fail(const std::string &text);

private:
    const RawElement &expect(uint16_t id, std::size_t length);

    template <class V> void read(uint16_t id, V &value)
    {
        std::memcpy(&value, expect(id, sizeof value).value.data(), sizeof value);
    }

    template <class R> bool decode_reference(R &record)
    {
        const RawElement *const first = peek();
        if (first == nullptr || first->id != zel::reference_mat_type_id)
            return false;
        zel::Reference reference{};
        read(zel::reference_mat_type_id, reference.mat_type);
        read(zel::reference_mat_id_id, reference.mat_id);
        const auto found = definitions_.find({reference.mat_type, reference.mat_id});
        if (reference.mat_type != zel::MatObjectOf<R>::type || found == definitions_.end())
            fail(fmt::format("the reference before it, to object {} of MAT type {}, means no {} of this message",
                             reference.mat_id, reference.mat_type, zel::Wire<R>::name.text));
        record = *static_cast<const R *>(found->second);
        record.cached = 1; // what it owns is the definition's
        expect(zel::Wire<R>::end, 1);
        return true;
    }

    template <class R, uint16_t Id, auto Member> void decode_member(R &record, zel::Field<Id, Member>)
    {
        read(Id, record.*Member);
        // No reader of a message keeps these bytes.
        if constexpr (std::is_same_v<typename NotationOf<Member>::value, Text<1>>)
            (record.*Member)[sizeof(record.*Member) - 1] = 0;
    }

    template <class R, auto Member> void decode_member(R &record, zel::Embedded<Member>) { decode(record.*Member); }

    template <class R, uint16_t Id, auto Count, auto Array>
    void decode_member(R &record, zel::Sequence<Id, Count, Array>)
    {
        zel::Value<Count> count = 0;
        read(Id, count);
        // A count is a claim; at least a pair of markers must stand behind each member.
        if (count > (list_.elements.size() - next_) / 2)
            fail(fmt::format("{} {} cannot be in what follows", count, member_name<Array>));
        make_room<Array>(record, count);
        for (uint32_t i = 0; i < count; ++i)
            decode(append_member<Count, Array>(record));
    }

    template <class R, auto Selector, class... O> void decode_member(R &record, zel::Choice<Selector, O...>)
    {
        (decode_option(record, record.*Selector, O{}), ...);
    }

    template <class R, uint32_t Value, auto... Path>
    void decode_option(R &record, uint32_t selector, zel::Option<Value, Path...>)
    {
        if (selector == Value)
            decode(zel::follow<Path...>(record));
    }

    const ElementList &list_;
    std::size_t next_ = 0;
    std::map<std::pair<uint32_t, uint16_t>, const void *> definitions_;
};

} // namespace tools
