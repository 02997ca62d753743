#include "tools/json/reader.hpp"

#include "tools/json/field_rules.hpp"
#include "tools/json/notation.hpp"
#include "tools/json/service_elements.hpp"
#include "tools/json/text_values.hpp"
#include "wire/graph.hpp"

#include <fmt/core.h>

#include <algorithm>

namespace tools {

using namespace zel::wire;

namespace {

// "a", "b" or "c"
std::string enumerated(const std::vector<std::string_view> &names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i)
        text += fmt::format("{}\"{}\"", i == 0 ? "" : i + 1 == names.size() ? " or " : ", ", names[i]);
    return text;
}

// The field that tells the records of a sequence apart, or null.  Matches and actions
// have none here: they may come again, as the same object.
const Member *key_of(const Record &record)
{
    if (record.is_shareable())
        return nullptr;
    const auto id = std::ranges::find(record.members, std::string_view("id"), &Member::name);
    return id == record.members.end() ? nullptr : &*id;
}

// Refuses a key that an earlier item of the sequence has.
class Keys {
public:
    explicit Keys(const Record &record) : field_(key_of(record)) {}

    void add(const Input &item, const void *object)
    {
        if (field_ == nullptr)
            return;
        const uint32_t key = load(*field_, part(object, field_->offset));
        const auto [earlier, is_new] = offsets_.try_emplace(key, item.node.offset);
        if (!is_new)
            item.fail(fmt::format("the id {} stands in line {} already", key, item.document.line_at(earlier->second)));
    }

private:
    const Member *field_;
    std::map<uint32_t, uint32_t> offsets_;
};

// What one record of a sequence is read from.
struct Item {
    const Node *node;
    std::size_t place; // in the array
};

// The items of an array, where those with ranges are several, which live in the arena.
std::vector<Item> split_items(const Node &array, Arena &arena)
{
    std::vector<Item> items;
    for (std::size_t place = 0; place < array.children.size(); ++place) {
        const Node &item = array.children[place];
        const std::span<const Node> several = split_ranges(item, arena);
        if (several.empty())
            items.push_back({&item, place});
        for (const Node &one : several)
            items.push_back({&one, place});
    }
    return items;
}

[[noreturn]] void fail_without_choice(const Input &in, const Member &choice)
{
    std::vector<std::string_view> names{choice.name};
    for (const Option &option : choice.options)
        names.emplace_back(option.name);
    in.fail("one of these members is missing: " + enumerated(names));
}

} // namespace

void refuse_unknown_member(const Input &in, const Node &member, const std::vector<std::string_view> &names)
{
    if (std::ranges::find(names, member.key) != names.end())
        return;
    const JsonPath path = in.path.in(member.key);
    Input{in.document, member, path}.fail("unknown member; expected " + enumerated(names));
}

void refuse_unknown_members(const Input &in, const std::vector<std::string_view> &names)
{
    for (const Node &child : in.node.children)
        refuse_unknown_member(in, child, names);
}

template <class Read> void JsonReader::guard(Read read)
{
    if (faults_ == nullptr)
        return read();
    try {
        read();
    } catch (const BadInput &fault) {
        faults_->emplace_back(fault.what());
    }
}

void JsonReader::read(const Input &in, const Record &record, void *object)
{
    const std::size_t num_before = num_faults();
    if (record.is_shareable() && read_reference(in, record, object))
        return;
    if (has_short_form(record) && !in.node.is_object())
        read_content(in, record.members.front(), object);
    else
        read_members(in, record, object);
    if (record.is_shareable())
        define(in, record, object, num_faults() != num_before);
}

// {"ref": 5} stands for the match, or action, 5 that came before.
bool JsonReader::read_reference(const Input &in, const Record &record, void *object)
{
    if (!in.node.is_object() || in.node.find("ref") == nullptr)
        return false;
    if (in.node.children.size() != 1)
        in.fail("a \"ref\" has no other members beside it");
    return with_member(in, "ref", [&](const Input &ref) {
        uint32_t id = 0;
        if (!read_named(ref.node, {}, UINT16_MAX, id))
            ref.expected(expected_named({}, UINT16_MAX));
        const auto found = definitions_.find({record.mat_type, static_cast<uint16_t>(id)});
        if (found == definitions_.end())
            ref.fail(fmt::format("there is no {} {} before this place", record.name, id));
        std::memcpy(object, found->second.object, record.size);
        cached_flag(record, object) = 1; // what it owns is the definition's
    });
}

void JsonReader::define(const Input &in, const Record &record, const void *object, bool is_broken)
{
    const uint16_t id = id_of(record, object);
    const auto [entry, is_new] =
        definitions_.try_emplace({record.mat_type, id}, Definition{object, &in.document, in.node.offset, is_broken});
    const Definition &earlier = entry->second;
    if (!is_new && !is_broken && !earlier.is_broken && !equal(record, object, earlier.object))
        in.fail(fmt::format("{0} {1} differs from the {0} {1} in {2}:{3}; a message has one {0} of an id", record.name,
                            id, earlier.document->file, earlier.document->line_at(earlier.offset)));
}

void JsonReader::read_members(const Input &in, const Record &record, void *object)
{
    if (!in.node.is_object())
        in.expected("an object");
    const std::vector<std::string_view> &names = member_names(record);
    std::size_t next = 0; // members mostly stand in the order of the names
    for (const Node &child : in.node.children) {
        if (next < names.size() && child.key == names[next]) {
            ++next;
            continue;
        }
        guard([&] { refuse_unknown_member(in, child, names); });
        next = static_cast<std::size_t>(std::ranges::find(names, child.key) - names.begin()) + 1;
    }
    Members members(in.node);
    for (const Member &member : record.members)
        guard([&] {
            if (member.kind == Kind::field)
                read_field(in, members, member, object);
            else if (member.kind == Kind::choice)
                read_choice(in, members, member, object);
            else
                with_member(in, members, member.name, [&](const Input &value) { read_content(value, member, object); });
        });
}

void JsonReader::read_field(const Input &in, Members &members, const Member &field, void *object)
{
    const FieldRule &rule = rule_of(field);
    if (rule.is_mask)
        return;
    const bool is_there = with_member(in, members, field.name, [&](const Input &value) {
        read_content(value, field, object);
        if (rule.length != nullptr && in.node.find(rule.length->name) == nullptr)
            set(*rule.length, object, static_cast<uint32_t>(read_bytes(value.node.text)->size()));
    });
    if (!is_there && rule.is_required)
        in.fail(fmt::format("the member \"{}\" is missing", field.name));
    if (!is_there && rule.is_application)
        set(field, object, app_type_);
}

// The value of a member that is no choice.
void JsonReader::read_content(const Input &in, const Member &member, void *object)
{
    if (member.kind == Kind::sequence)
        read_items(in, member, object);
    else if (member.kind == Kind::embedded)
        read(in, *member.record, part(object, member.offset));
    else if (!tools::read_field(in.node, member, object))
        in.expected(expected_of(member));
}

void JsonReader::read_items(const Input &in, const Member &sequence, void *object)
{
    if (in.node.kind != Node::Kind::array)
        in.expected("an array");
    const bool is_split = has_ranges(sequence);
    const std::vector<Item> split = is_split ? split_items(in.node, arena_) : std::vector<Item>{};
    const auto item_at = [&](std::size_t i) { return is_split ? split[i] : Item{&in.node.children[i], i}; };
    const std::size_t count = is_split ? split.size() : in.node.children.size();
    if (count > most_in(sequence))
        in.fail(fmt::format("{} are too many; at most {} can be sent", count, most_in(sequence)));
    if (count != 0)
        array_of(object, sequence) = allocate<void *>(count);
    Keys keys(*sequence.record);
    for (uint32_t i = 0; i < count; ++i) {
        const Item from = item_at(i);
        const JsonPath path = in.path.at(from.place);
        const Input item{in.document, *from.node, path};
        void *const member = allocate_bytes(sequence.record->size);
        array_of(object, sequence)[i] = member;
        set_count(object, sequence, i + 1);
        guard([&] {
            read(item, *sequence.record, member);
            keys.add(item, member);
        });
    }
}

void JsonReader::read_choice(const Input &in, Members &members, const Member &choice, void *object)
{
    const bool has_selector = members.find(choice.name) != nullptr;
    const Option *chosen = nullptr;
    for (const Option &option : choice.options)
        with_member(in, members, option.name, [&](const Input &value) {
            if (chosen != nullptr)
                value.fail(fmt::format("\"{}\" and \"{}\" exclude each other", chosen->name, option.name));
            if (!has_selector)
                set(choice, object, option.value);
            else if (number_at(object, choice) != option.value)
                value.fail(fmt::format("\"{}\" does not go with the {} beside it", option.name, choice.name));
            chosen = &option;
            read(value, *option.record, part(object, option.offset));
        });
    if (chosen == nullptr && !has_selector)
        fail_without_choice(in, choice);
    if (const Option *const needed = selected(object, choice); chosen == nullptr && needed != nullptr)
        in.fail(fmt::format("{0} \"{1}\" needs a member \"{1}\"", choice.name, needed->name));
}

Graph read_graph(JsonReader &reader, const Record &record, const Input &in)
{
    Graph graph(record);
    reader.read(in, record, graph.root());
    return graph;
}

Graph read_graph(JsonReader &reader, const Record &record, const Document &document)
{
    const JsonPath root;
    return read_graph(reader, record, {document, document.root, root});
}

} // namespace tools
