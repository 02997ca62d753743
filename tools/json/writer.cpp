#include "tools/json/writer.hpp"

#include "tools/json/field_rules.hpp"
#include "tools/json/service_elements.hpp"
#include "tools/json/text_values.hpp"
#include "wire/graph.hpp"

namespace tools {

using namespace zel::wire;

namespace {

// Whether a field holds the length of a text, and that is how long the text is.
bool follows_from_text(const Member &field, const void *object)
{
    const Member *const text = rule_of(field).text;
    if (text == nullptr)
        return false;
    const auto *const bytes = static_cast<const uint8_t *>(part(object, text->offset));
    return load(field, part(object, field.offset)) == without_padding({bytes, text->width}).size();
}

} // namespace

// One port is a number.
static Json show_ports(PortRange range)
{
    return range.first == range.last ? Json(range.first) : Json(show_port_range(range));
}

Json JsonWriter::write(const Record &record, const void *object)
{
    if (record.is_shareable()) {
        const uint16_t id = id_of(record, object);
        const auto [earlier, is_new] = written_.try_emplace({record.mat_type, id}, object);
        if (!is_new && equal(record, object, earlier->second))
            return {{"ref", id}};
    }
    if (has_short_form(record))
        return write_content(record.members.front(), object);
    Json json = Json::object();
    for (const Member &member : record.members)
        write_member(json, member, object);
    return json;
}

void JsonWriter::write_member(Json &json, const Member &member, const void *object)
{
    if (member.kind == Kind::choice) {
        if (const Option *const option = selected(object, member))
            json[option->name] = write(*option->record, part(object, option->offset));
    } else if (!rule_of(member).is_mask && !follows_from_text(member, object)) {
        json[member.name] = write_content(member, object);
    }
}

// The value of a member that is no choice.
Json JsonWriter::write_content(const Member &member, const void *object)
{
    if (member.kind == Kind::field)
        return show_field(member, object);
    if (member.kind == Kind::embedded)
        return write(*member.record, part(object, member.offset));
    if (has_ranges(member))
        return write_elements(member, object);
    Json items = Json::array();
    for (uint32_t i = 0; i < count_of(object, member); ++i)
        items.push_back(write(*member.record, array_of(object, member)[i]));
    return items;
}

Json JsonWriter::write_elements(const Member &sequence, const void *object)
{
    std::vector<const zel_match_service_element_t *> elements;
    for (uint32_t i = 0; i < count_of(object, sequence); ++i)
        elements.push_back(static_cast<const zel_match_service_element_t *>(array_of(object, sequence)[i]));
    Json items = Json::array();
    for (std::span<const zel_match_service_element_t *const> rest(elements); !rest.empty();) {
        const JoinedElements joined = join_front(rest);
        Json item = write(*sequence.record, rest.front());
        if (joined.sport)
            item["sport"] = show_ports(*joined.sport);
        if (joined.dport)
            item["dport"] = show_ports(*joined.dport);
        items.push_back(std::move(item));
        rest = rest.subspan(joined.number);
    }
    return items;
}

Json write_graph(const Graph &graph)
{
    return graph.root() == nullptr ? Json() : JsonWriter().write(*graph.record(), graph.root());
}

} // namespace tools
