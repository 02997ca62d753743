// From JSON to records, by the wire description: one function per kind of member
// and none per record.
#pragma once

#include "tools/json/field_notation.hpp"
#include "tools/json/json_document.hpp"
#include "tools/message/graph.hpp"
#include "tools/message/graph_equal.hpp"

#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace tools {

// A record with a single member is written as that member's value.  Giving it as
// an object is right, too, so that a record may get a second member one day.
template <class R> inline constexpr bool has_short_form = std::tuple_size_v<Members<R>> == 1;

// Reads the documents of one message: within it, a match or an action is known by
// its id.  The documents and the records must outlive the reader.
class JsonReader {
public:
    // Fields of the application's number that are left out get this one.
    explicit JsonReader(uint32_t app_type) : app_type_(app_type) {}

    // Fills a zero-filled record, or throws BadInput and leaves it half filled, but
    // so that it can be freed.
    template <class R> void read(const Input &in, R &record);

private:
    struct Definition {
        const void *record;
        std::string_view file;
        uint32_t line;
    };

    template <class R> bool read_reference(const Input &in, R &record);
    template <class R> void define(const Input &in, const R &record);
    template <class R> void read_members(const Input &in, R &record);

    template <class R, uint16_t Id, auto Member> void read_member(const Input &in, R &record, zel::Field<Id, Member>);
    template <class R, auto Member> void read_member(const Input &in, R &record, zel::Embedded<Member>);
    template <class R, uint16_t Id, auto Count, auto Array>
    void read_member(const Input &in, R &record, zel::Sequence<Id, Count, Array>);
    template <class R, auto Selector, class... O>
    void read_member(const Input &in, R &record, zel::Choice<Selector, O...>);
    template <class R, auto Selector, uint32_t Value, auto... Path>
    void read_option(const Input &in, R &record, std::string_view &chosen, zel::Option<Value, Path...>);

    // The value of a member that is there.
    template <auto Member, class R, class Form> void read_value(const Input &in, R &record, Form);
    template <auto Member, auto Mask, class R> void read_value(const Input &in, R &record, WithMask<Mask>);
    template <class R, uint16_t Id, auto Member> void read_short(const Input &in, R &record, zel::Field<Id, Member>);
    template <class R, uint16_t Id, auto Count, auto Array>
    void read_short(const Input &in, R &record, zel::Sequence<Id, Count, Array>);

    uint32_t app_type_;
    std::map<std::pair<uint32_t, uint16_t>, Definition> definitions_;
};

// A graph of a MAT type from a value of a document.
Graph read_graph(JsonReader &reader, uint32_t mat_type, const Input &in);
Graph read_graph(JsonReader &reader, uint32_t mat_type, const Document &document);

// ---------------------------------------------------------------------------

// The names that the members of a record's object can have.
template <class R, uint16_t Id, auto Member>
void add_names(std::vector<std::string_view> &names, zel::Field<Id, Member>)
{
    if constexpr (!std::is_same_v<typename NotationOf<Member>::form, WithinAnother>)
        names.push_back(member_name<Member>);
}
template <class R, auto Member> void add_names(std::vector<std::string_view> &names, zel::Embedded<Member>)
{
    names.push_back(member_name<Member>);
}
template <class R, uint16_t Id, auto Count, auto Array>
void add_names(std::vector<std::string_view> &names, zel::Sequence<Id, Count, Array>)
{
    names.push_back(member_name<Array>);
}
template <class R, auto Selector, class... O>
void add_names(std::vector<std::string_view> &names, zel::Choice<Selector, O...>)
{
    (names.push_back(option_name(O{}).name), ...);
}

template <class R> std::vector<std::string_view> names_of_members()
{
    std::vector<std::string_view> names;
    std::apply([&](auto... member) { (add_names<R>(names, member), ...); }, zel::Wire<R>::members);
    return names;
}

// "a", "b" or "c"
inline std::string enumerated(const std::vector<std::string_view> &names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i)
        text += fmt::format("{}\"{}\"", i == 0 ? "" : i + 1 == names.size() ? " or " : ", ", names[i]);
    return text;
}

template <class R> void refuse_unknown_members(const Input &in)
{
    static const std::vector<std::string_view> names = names_of_members<R>();
    for (const Node &child : in.node.children)
        if (std::ranges::find(names, child.key) == names.end()) {
            const Place place = in.place.in(child.key);
            Input{in.document, child, place}.fail("unknown member; expected " + enumerated(names));
        }
}

// Calls read with the member of a name, when there is one.
template <class Read> bool with_member(const Input &in, std::string_view name, Read read)
{
    const Node *const node = in.node.find(name);
    if (node == nullptr)
        return false;
    const Place place = in.place.in(name);
    read(Input{in.document, *node, place});
    return true;
}

template <class R> void JsonReader::read(const Input &in, R &record)
{
    if constexpr (zel::is_shareable<R>) {
        if (read_reference(in, record))
            return;
        read_members(in, record);
        define(in, record);
    } else {
        read_members(in, record);
    }
}

template <class R> void JsonReader::read_members(const Input &in, R &record)
{
    if constexpr (has_short_form<R>) {
        if (!in.node.is_object())
            return read_short(in, record, std::get<0>(zel::Wire<R>::members));
    }
    if (!in.node.is_object())
        in.expected("an object");
    refuse_unknown_members<R>(in);
    std::apply([&](auto... member) { (read_member(in, record, member), ...); }, zel::Wire<R>::members);
}

// {"ref": 5} stands for the match, or action, 5 that came before.
template <class R> bool JsonReader::read_reference(const Input &in, R &record)
{
    constexpr uint32_t mat_type = zel::MatObjectOf<R>::type;
    if (!in.node.is_object() || in.node.find("ref") == nullptr)
        return false;
    if (in.node.children.size() != 1)
        in.fail("a \"ref\" has no other members beside it");
    return with_member(in, "ref", [&](const Input &ref) {
        uint16_t id = 0;
        if (!Number::read(ref.node, id))
            ref.expected(Number::expected<uint16_t>());
        const auto found = definitions_.find({mat_type, id});
        if (found == definitions_.end())
            ref.fail(fmt::format("there is no {} {} before this place", zel::Wire<R>::name.text, id));
        record = *static_cast<const R *>(found->second.record);
        record.cached = 1; // what it owns is the definition's
    });
}

template <class R> void JsonReader::define(const Input &in, const R &record)
{
    const auto [entry, is_new] = definitions_.try_emplace({zel::MatObjectOf<R>::type, record.id},
                                                          Definition{&record, in.document.file, in.node.line});
    const Definition &earlier = entry->second;
    if (!is_new && !equal(record, *static_cast<const R *>(earlier.record)))
        in.fail(fmt::format("{0} {1} differs from the {0} {1} in {2}:{3}; a message has one {0} of an id",
                            zel::Wire<R>::name.text, record.id, earlier.file, earlier.line));
}

template <auto Member, class R, class Form> void JsonReader::read_value(const Input &in, R &record, Form)
{
    using Notation = typename NotationOf<Member>::value;
    if (!Notation::read(in.node, record.*Member))
        in.expected(Notation::template expected<zel::Value<Member>>());
}

template <auto Member, auto Mask, class R> void JsonReader::read_value(const Input &in, R &record, WithMask<Mask>)
{
    using Notation = Masked<typename NotationOf<Member>::value>;
    if (!Notation::read(in.node, record.*Member, record.*Mask))
        in.expected(Notation::template expected<zel::Value<Member>>());
}

// The text of a node sets the length of a field, unless a member says it.
template <auto Member, auto Length, class R> void set_length(const Input &in, R &record, SetsLength<Length>)
{
    if (in.node.find(member_name<Length>) == nullptr)
        record.*Length = static_cast<zel::Value<Length>>(read_bytes(in.node.find(member_name<Member>)->text)->size());
}
template <auto Member, class R, class Form> void set_length(const Input &, R &, Form) {}

template <class R, uint16_t Id, auto Member>
void JsonReader::read_member(const Input &in, R &record, zel::Field<Id, Member>)
{
    using Form = typename NotationOf<Member>::form;
    if constexpr (!std::is_same_v<Form, WithinAnother>) {
        constexpr std::string_view name = member_name<Member>;
        if (with_member(in, name, [&](const Input &value) { read_value<Member>(value, record, Form{}); }))
            set_length<Member>(in, record, Form{});
        else if (is_required<Member>)
            in.fail(fmt::format("the member \"{}\" is missing", name));
        else if constexpr (is_application<Member>)
            record.*Member = app_type_;
    }
}

template <class R, auto Member> void JsonReader::read_member(const Input &in, R &record, zel::Embedded<Member>)
{
    with_member(in, member_name<Member>, [&](const Input &child) { read(child, record.*Member); });
}

template <class R, uint16_t Id, auto Count, auto Array>
void JsonReader::read_member(const Input &in, R &record, zel::Sequence<Id, Count, Array> sequence)
{
    with_member(in, member_name<Array>, [&](const Input &items) { read_short(items, record, sequence); });
}

template <class R, uint16_t Id, auto Member>
void JsonReader::read_short(const Input &in, R &record, zel::Field<Id, Member>)
{
    read_value<Member>(in, record, typename NotationOf<Member>::form{});
}

// Whoever stands in a sequence under an id stands there once; matches and actions
// may come again, being the same ones.
template <class R> inline constexpr bool has_id_of_its_own = requires(R record) { record.id; }
&&!zel::is_shareable<R>;

template <class R, uint16_t Id, auto Count, auto Array>
void JsonReader::read_short(const Input &in, R &record, zel::Sequence<Id, Count, Array>)
{
    using Item = zel::Element<Array>;
    if (in.node.kind != Node::Kind::array)
        in.expected("an array");
    const std::vector<Node> &items = in.node.children;
    constexpr auto most = std::numeric_limits<zel::Value<Count>>::max();
    if (items.size() > most)
        in.fail(fmt::format("{} are too many; at most {} can be sent", items.size(), most));
    make_room<Array>(record, items.size());
    [[maybe_unused]] std::map<uint32_t, uint32_t> lines_by_id;
    for (std::size_t i = 0; i < items.size(); ++i) {
        const Place place = in.place.at(i);
        const Input item{in.document, items[i], place};
        auto &member = append_member<Count, Array>(record);
        read(item, member);
        if constexpr (has_id_of_its_own<Item>) {
            const auto [earlier, is_new] = lines_by_id.try_emplace(member.id, item.node.line);
            if (!is_new)
                item.fail(fmt::format("the id {} stands in line {} already", member.id, earlier->second));
        }
    }
}

template <class R, auto Selector, class... O>
void JsonReader::read_member(const Input &in, R &record, zel::Choice<Selector, O...> choice)
{
    std::string_view chosen;
    (read_option<R, Selector>(in, record, chosen, O{}), ...);
    if (!chosen.empty())
        return;
    if (in.node.find(member_name<Selector>) == nullptr) {
        std::vector<std::string_view> names{member_name<Selector>};
        add_names<R>(names, choice);
        in.fail("one of these members is missing: " + enumerated(names));
    }
    const auto needed = std::ranges::find(selector_names<Selector>, uint32_t{record.*Selector}, &Name::value);
    if (needed < selector_names<Selector>.begin() + sizeof...(O))
        in.fail(fmt::format("{0} \"{1}\" needs a member \"{1}\"", member_name<Selector>, needed->name));
}

template <class R, auto Selector, uint32_t Value, auto... Path>
void JsonReader::read_option(const Input &in, R &record, std::string_view &chosen, zel::Option<Value, Path...>)
{
    constexpr std::string_view name = PathName<Path...>::value;
    with_member(in, name, [&](const Input &option) {
        if (!chosen.empty())
            option.fail(fmt::format("\"{}\" and \"{}\" exclude each other", chosen, name));
        if (in.node.find(member_name<Selector>) == nullptr)
            record.*Selector = Value;
        else if (record.*Selector != Value)
            option.fail(fmt::format("\"{}\" does not go with the {} beside it", name, member_name<Selector>));
        chosen = name;
        read(option, zel::follow<Path...>(record));
    });
}

} // namespace tools
