#include "tools/message/element_facts.hpp"

#include "tools/json/field_notation.hpp"

#include <array>

namespace tools {
namespace {

using Table = std::array<ElementFacts, 256>;
using Kind = ElementFacts::Kind;

// A value in its notation; where that is not the number itself, the number, too.
template <class Notation, class V> std::string show(std::span<const uint8_t> bytes)
{
    V value;
    std::memcpy(&value, bytes.data(), sizeof value);
    const Json shown = Notation::show(value);
    if constexpr (std::is_integral_v<V>) {
        if (shown.is_string() && !std::is_same_v<Notation, Hex>)
            return shown.get<std::string>() + " (" + show_hex(value, sizeof value) + ")";
    }
    return shown.dump();
}

template <class Notation, class V>
void add_value(Table &table, uint16_t id, std::string_view record, std::string_view field, std::string_view text)
{
    table.at(id) = {Kind::value, record, field, text, sizeof(V), show<Notation, V>};
}

template <class R> void add_record(Table &table);

template <class R, uint16_t Id, auto Member> void add_member(Table &table, zel::Field<Id, Member> field)
{
    add_value<typename NotationOf<Member>::value, zel::Value<Member>>(table, Id, zel::Wire<R>::name.text,
                                                                      member_name<Member>, field.text);
}

template <class R, auto Member> void add_member(Table &table, zel::Embedded<Member>)
{
    add_record<zel::Value<Member>>(table);
}

template <class R, uint16_t Id, auto Count, auto Array>
void add_member(Table &table, zel::Sequence<Id, Count, Array> sequence)
{
    add_value<Number, zel::Value<Count>>(table, Id, zel::Wire<R>::name.text, member_name<Count>, sequence.text);
    add_record<zel::Element<Array>>(table);
}

template <uint32_t Value, auto... Path> void add_option(Table &table, zel::Option<Value, Path...>)
{
    add_record<zel::Target<Path...>>(table);
}

template <class R, auto Selector, class... O> void add_member(Table &table, zel::Choice<Selector, O...>)
{
    (add_option(table, O{}), ...);
}

template <class R> void add_record(Table &table)
{
    constexpr std::string_view name = zel::Wire<R>::name.text;
    table.at(zel::Wire<R>::start) = {Kind::start, name, {}, zel::start_marker_text, 1, nullptr};
    table.at(zel::Wire<R>::end) = {Kind::end, name, {}, zel::end_marker_text, 1, nullptr};
    std::apply([&](auto... member) { (add_member<R>(table, member), ...); }, zel::Wire<R>::members);
}

template <class... O> void add_objects(Table &table, zel::MatObjectList<O...>)
{
    (add_record<typename O::record>(table), ...);
}

Table make_table()
{
    Table table;
    add_record<zel_kob_header_t>(table);
    add_objects(table, zel::MatObjects{});
    add_value<Number, decltype(zel::Reference::mat_type)>(table, zel::reference_mat_type_id, "reference", "mat_type",
                                                          "mat type");
    add_value<Number, decltype(zel::Reference::mat_id)>(table, zel::reference_mat_id_id, "reference", "mat_id",
                                                        "mat id");
    return table;
}

} // namespace

const ElementFacts &facts_of_element(uint16_t id)
{
    static const Table table = make_table();
    static const ElementFacts unknown;
    return id < table.size() ? table[id] : unknown;
}

} // namespace tools
