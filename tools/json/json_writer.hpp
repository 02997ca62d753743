// From records to JSON that JsonReader reads back to an equal graph.
#pragma once

#include "tools/json/field_notation.hpp"
#include "tools/json/json_reader.hpp"
#include "tools/message/graph.hpp"
#include "tools/message/graph_equal.hpp"

#include <map>
#include <utility>

namespace tools {

// Writes the graphs of one message: a match or an action that comes again, with
// the same content, becomes a {"ref": id}.  The records must outlive the writer.
class JsonWriter {
public:
    template <class R> Json write(const R &record)
    {
        if constexpr (zel::is_shareable<R>) {
            const auto [earlier, is_new] = written_.try_emplace({zel::MatObjectOf<R>::type, record.id}, &record);
            if (!is_new && equal(record, *static_cast<const R *>(earlier->second)))
                return {{"ref", record.id}};
        }
        if constexpr (has_short_form<R>) {
            return write_short(record, std::get<0>(zel::Wire<R>::members));
        } else {
            Json object = Json::object();
            std::apply([&](auto... member) { (write_member(object, record, member), ...); }, zel::Wire<R>::members);
            return object;
        }
    }

private:
    template <class R, uint16_t Id, auto Member> Json write_short(const R &record, zel::Field<Id, Member>)
    {
        return NotationOf<Member>::value::show(record.*Member);
    }

    template <class R, uint16_t Id, auto Count, auto Array>
    Json write_short(const R &record, zel::Sequence<Id, Count, Array>)
    {
        Json items = Json::array();
        for (uint32_t i = 0; i < record.*Count; ++i)
            items.push_back(write(*(record.*Array)[i]));
        return items;
    }

    template <class R, uint16_t Id, auto Member>
    void write_member(Json &object, const R &record, zel::Field<Id, Member> field)
    {
        write_field(object, record, field, typename NotationOf<Member>::form{});
    }

    template <class R, auto Member> void write_member(Json &object, const R &record, zel::Embedded<Member>)
    {
        set<Member>(object, write(record.*Member));
    }

    template <class R, uint16_t Id, auto Count, auto Array>
    void write_member(Json &object, const R &record, zel::Sequence<Id, Count, Array> sequence)
    {
        set<Array>(object, write_short(record, sequence));
    }

    template <class R, auto Selector, class... O>
    void write_member(Json &object, const R &record, zel::Choice<Selector, O...>)
    {
        (write_option(object, record, record.*Selector, O{}), ...);
    }

    template <class R, uint32_t Value, auto... Path>
    void write_option(Json &object, const R &record, uint32_t selector, zel::Option<Value, Path...>)
    {
        if (selector == Value)
            object[std::string(PathName<Path...>::value)] = write(zel::follow<Path...>(record));
    }

    template <class R, uint16_t Id, auto Member, class Form>
    void write_field(Json &object, const R &record, zel::Field<Id, Member>, Form)
    {
        set<Member>(object, NotationOf<Member>::value::show(record.*Member));
    }

    template <class R, uint16_t Id, auto Member, auto Mask>
    void write_field(Json &object, const R &record, zel::Field<Id, Member>, WithMask<Mask>)
    {
        set<Member>(object, Masked<typename NotationOf<Member>::value>::show(record.*Member, record.*Mask));
    }

    template <class R, uint16_t Id, auto Member>
    void write_field(Json &, const R &, zel::Field<Id, Member>, WithinAnother)
    {}

    template <class R, uint16_t Id, auto Member, auto Bytes>
    void write_field(Json &object, const R &record, zel::Field<Id, Member>, LengthOf<Bytes>)
    {
        if (record.*Member != without_padding(record.*Bytes).size())
            set<Member>(object, record.*Member);
    }

    template <auto Member> static void set(Json &object, Json value)
    {
        object[std::string(member_name<Member>)] = std::move(value);
    }

    std::map<std::pair<uint32_t, uint16_t>, const void *> written_;
};

Json write_graph(const Graph &graph);

} // namespace tools
