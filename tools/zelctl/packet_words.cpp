#include "tools/zelctl/packet_words.hpp"

#include "tools/classify/explain.hpp"
#include "tools/json/names.hpp"
#include "tools/json/port_ranges.hpp"
#include "tools/json/reader.hpp"
#include "tools/json/text_values.hpp"
#include "tools/json/writer.hpp"
#include "tools/records/packet_record.hpp"
#include "tools/zelctl/policy_text.hpp"

#include <fmt/core.h>

namespace zelctl {

namespace {

constexpr const char *command_line = "command line";

// "dport=443" as a member of an object, which refers to the word.  A number may be written in any
// notation, so all values are texts.
tools::Node member_of(const std::string &word)
{
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos || equals == 0)
        throw tools::BadInput(fmt::format("packet: expected FIELD=VALUE or a JSON object, found \"{}\"", word));
    tools::Node member;
    member.kind = tools::Node::Kind::text;
    member.key = std::string_view(word).substr(0, equals);
    member.text = std::string_view(word).substr(equals + 1);
    return member;
}

tools::Document document_of(const std::vector<std::string> &words)
{
    if (words.size() == 1 && words.front().starts_with('{'))
        return tools::parse_json(words.front(), command_line);
    std::vector<tools::Node> members;
    for (const std::string &word : words) {
        const tools::Node member = member_of(word);
        if (std::ranges::find(members, member.key, &tools::Node::key) != members.end())
            throw tools::BadInput(fmt::format("packet: {} is given twice", member.key));
        members.push_back(member);
    }
    tools::Document document{command_line};
    document.root.kind = tools::Node::Kind::object;
    document.root.children = document.arena.copy(members);
    return document;
}

std::string protocol_name(uint32_t protocol)
{
    const tools::Json shown = tools::show_named(protocol, tools::protocols);
    return shown.is_string() && protocol != 0 ? shown.get<std::string>() : fmt::format("{}", protocol);
}

std::string value_of(const classify::Field &field, uint32_t value)
{
    const std::string_view name = field.name;
    if (name == "sip" || name == "dip")
        return tools::show_ipv4(value);
    if (name == "ether_type")
        return tools::show_hex(value, sizeof(uint16_t));
    return name == "protocol" ? protocol_name(value) : fmt::format("{}", value);
}

std::string wanted_of(const classify::Field &field, const service::Reason &reason)
{
    if (reason.mask == 0)
        return tools::show_port_range({static_cast<uint16_t>(reason.wanted), static_cast<uint16_t>(reason.last)});
    std::string value = value_of(field, reason.wanted);
    if (field.bits == 32 && reason.mask != UINT32_MAX)
        return fmt::format("in {}/{}", value, tools::show_ipv4_mask(reason.mask));
    if (field.bits == 16 && reason.mask != UINT16_MAX)
        return fmt::format("{}/{}", value, tools::show_hex(reason.mask, sizeof(uint16_t)));
    return value;
}

std::string text_of_field(const service::Reason &reason)
{
    if (reason.field >= classify::fields_in_order.size())
        return "a field that this version does not know differs";
    const classify::Field &field = classify::fields_in_order.at(reason.field);
    return fmt::format("{} {} is not {}", field.name, value_of(field, reason.found), wanted_of(field, reason));
}

std::string text_of_label(const service::Reason &reason)
{
    const std::size_t length = std::min<std::size_t>(reason.label_length, sizeof reason.label);
    return fmt::format("the label is not \"{}\"", tools::show_bytes({reason.label, length}));
}

std::string about_policy(const char *name, const service::Reason &reason)
{
    return fmt::format("the policy is not bound to {} {}, but to {}{}", name, reason.found, reason.wanted,
                       reason.num_elements > 1 ? fmt::format(" (the closest of {})", reason.num_elements) : "");
}

std::string about_match(const std::string &text, const service::Reason &reason)
{
    const std::string closest =
        reason.num_elements > 1 ? fmt::format(", the closest of {} elements", reason.num_elements) : "";
    return fmt::format("{} (match {}{})", text, reason.match_id, closest);
}

} // namespace

service::PacketHeader read_packet(const std::vector<std::string> &words)
{
    const tools::Document document = document_of(words);
    const tools::JsonPath root;
    service::PacketHeader packet{};
    tools::JsonReader(0).read({document, document.root, root}, tools::packet_header, &packet);
    return packet;
}

tools::Json packet_to_json(const service::PacketHeader &packet)
{
    tools::Json json = tools::JsonWriter().write(tools::packet_header, &packet);
    for (auto member = json.begin(); member != json.end();)
        member = is_nothing(*member) ? json.erase(member) : std::next(member);
    return json;
}

std::string text_of(const service::Reason &reason)
{
    switch (reason.verdict) {
    case service::verdict_took:
        return "takes the packet";
    case service::verdict_no_pair:
        return "no pair takes the packet";
    case service::verdict_never: {
        const auto never = static_cast<classify::Never>(reason.field);
        const char *const text = classify::text_of(never);
        return is_of_match(never) ? fmt::format("{} (match {})", text, reason.match_id) : text;
    }
    case service::verdict_field:
        return about_match(text_of_field(reason), reason);
    case service::verdict_label:
        return about_match(text_of_label(reason), reason);
    case service::verdict_interface:
        return about_policy("interface", reason);
    case service::verdict_vlan:
        return about_policy("VLAN", reason);
    case service::verdict_vrf:
        return about_policy("VRF", reason);
    default:
        return fmt::format("a reason {} that this version does not know", reason.verdict);
    }
}

} // namespace zelctl
