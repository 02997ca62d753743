#include "tools/zelctl/policy_text.hpp"

#include "tools/json/names.hpp"
#include "tools/json/service_elements.hpp"
#include "tools/json/text_values.hpp"
#include "tools/json/writer.hpp"
#include "tools/text/safe_text.hpp"
#include "wire/records.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <span>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zelctl {

namespace {

using tools::Json;

std::string name_of(uint32_t number, tools::Names names)
{
    const Json shown = tools::show_named(number, names);
    return shown.is_string() ? shown.get<std::string>() : fmt::format("{}", number);
}

std::string mode_of(uint32_t op_mode)
{
    return op_mode == service::op_mode_active ? "" : fmt::format("[{}] ", name_of(op_mode, tools::op_modes));
}

// ---- Any record, from its JSON: names and values, without those that are 0

void add_words(std::string &text, const Json &value);

void add_members(std::string &text, const Json &object)
{
    for (const auto &[name, value] : object.items()) {
        std::string words;
        add_words(words, value);
        const bool is_selector = name == "type" && value.is_string() && object.contains(value.get<std::string>());
        if (words.empty() || is_nothing(value) || is_selector)
            continue;
        text += fmt::format("{}{} {}", text.empty() ? "" : " ", name, words);
    }
}

void add_words(std::string &text, const Json &value)
{
    if (value.is_object())
        return add_members(text, value);
    const std::string word = value.is_string() ? value.get<std::string>() : std::string();
    const bool needs_quotes = word.find_first_of(" ,\"") != std::string::npos;
    text += value.is_string() && !needs_quotes ? word : value.dump();
}

// A match or an action: what its type selects.  A type without content stands alone.
std::string words_of(const zel::wire::Record &record, const void *object)
{
    Json json = tools::JsonWriter().write(record, object);
    const Json type = json["type"];
    for (const char *member : {"op_mode", "id", "pre_match_id", "type"})
        json.erase(member);
    std::string text;
    add_members(text, json);
    if (text.empty())
        text = type.is_string() && json.empty() ? type.get<std::string>() : fmt::format("type {}", type.dump());
    return tools::safe_text(text);
}

// ---- Five-tuples

std::string address_of(uint32_t address, uint32_t mask)
{
    if (mask == 0 && address == 0)
        return "any";
    return tools::show_ipv4(address) + (mask == UINT32_MAX ? "" : "/" + tools::show_ipv4_mask(mask));
}

std::string port_text(uint16_t port, uint16_t mask) { return fmt::format("{}/{:#06x}", port, mask); }

std::string with_port(const std::string &address, const std::string &ports)
{
    return ports == "any" ? address : address + ":" + ports;
}

// Elements that differ in the destination port alone are one text.
struct Line {
    std::string head; // protocol and source
    std::string dip;
    std::string dports;
};

Line line_of(const zel_match_service_element_t &element, const tools::JoinedElements &joined)
{
    const std::string sport =
        joined.sport ? tools::show_port_range(*joined.sport) : port_text(element.sport, element.sport_mask);
    const std::string dport =
        joined.dport ? tools::show_port_range(*joined.dport) : port_text(element.dport, element.dport_mask);
    const std::string protocol = name_of(element.protocol, tools::protocols);
    return {fmt::format("{} {} -> ", protocol == "any" ? "ip" : protocol,
                        with_port(address_of(element.sip, element.sip_mask), sport)),
            address_of(element.dip, element.dip_mask), dport};
}

std::string text_of_elements(std::span<const zel_match_service_element_t *const> elements)
{
    std::vector<Line> lines;
    while (!elements.empty()) {
        const tools::JoinedElements joined = tools::join_front(elements);
        Line line = line_of(*elements.front(), joined);
        if (!lines.empty() && lines.back().head == line.head && lines.back().dip == line.dip && line.dports != "any")
            lines.back().dports += "," + line.dports;
        else
            lines.push_back(std::move(line));
        elements = elements.subspan(joined.number);
    }
    std::string text;
    for (const Line &line : lines)
        text += (text.empty() ? "" : ", ") + line.head + with_port(line.dip, line.dports);
    return text.empty() ? "no element" : text;
}

// ---- Lines

template <class R> std::string joined(std::span<R *const> members, std::string_view separator)
{
    std::string text;
    for (const R *const member : members)
        text += (text.empty() ? "" : std::string(separator)) + text_of(*member);
    return text;
}

winsize terminal_size()
{
    winsize size{};
    if (isatty(STDOUT_FILENO) == 0 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0)
        size = {};
    return size;
}

} // namespace

bool is_nothing(const Json &value)
{
    constexpr std::array<std::string_view, 6> zeros{"", "any", "0.0.0.0", "0x0000", "0x00000000", "00:00:00:00:00:00"};
    return value.is_string() ? std::ranges::find(zeros, value.get<std::string_view>()) != zeros.end() : value == 0;
}

std::string text_of(const zel_match_t &match)
{
    const std::string mode = mode_of(match.op_mode);
    if (match.type == ZEL_MATCH_TYPE_SERVICE)
        return mode + text_of_elements({match.param.service.elements, match.param.service.num_elements});
    if (match.type == ZEL_MATCH_TYPE_SERVICE_ELEMENT) {
        const zel_match_service_element_t *const one[] = {&match.param.service_element};
        return mode + text_of_elements(one);
    }
    if (match.type == ZEL_MATCH_TYPE_NO_PARAM)
        return mode + "any packet";
    return mode + words_of(zel::wire::match, &match);
}

std::string text_of(const zel_match_grp_t &group)
{
    const std::span<zel_match_t *const> matches(group.matches, group.num_match);
    const std::string mode = mode_of(group.op_mode);
    if (group.logical_op == service::logical_and)
        return mode + (matches.empty() ? "any packet" : joined(matches, " and "));
    const std::string name = name_of(group.logical_op, tools::logical_ops);
    if (matches.size() < 2)
        return fmt::format("{}{} of: {}", mode, name, matches.empty() ? "nothing" : text_of(*matches.front()));
    return mode + joined(matches, fmt::format(" {} ", name));
}

std::string text_of(const zel_action_t &action)
{
    return mode_of(action.op_mode) + words_of(zel::wire::action, &action);
}

std::string text_of(const zel_action_grp_t &group)
{
    const std::string actions = joined(std::span<zel_action_t *const>(group.actions, group.num_action), ", ");
    return mode_of(group.op_mode) + (actions.empty() ? "no action" : actions);
}

std::string text_of(const zel_match_action_pair_t &pair)
{
    return mode_of(pair.op_mode) + text_of(pair.match_group) + " => " + text_of(pair.action_group);
}

std::string text_of(const zel_if_element_t &interface)
{
    Json json = tools::JsonWriter().write(zel::wire::if_element, &interface);
    json.erase("op_mode");
    std::string text;
    add_members(text, json);
    return mode_of(interface.op_mode) + (text.empty() ? "any interface" : text);
}

std::string wrapped(const std::string &text, std::size_t width, std::size_t indent)
{
    std::string lines;
    std::size_t line = 0; // where it begins
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find(' ', at), text.size());
        if (at > line && lines.size() - lines.rfind('\n') - 1 + (end - at) > width) {
            lines.back() = '\n';
            lines.append(indent, ' ');
            line = at;
        }
        lines += text.substr(at, end - at) + (end < text.size() ? " " : "");
        at = end + 1;
    }
    return lines;
}

std::string show_policy(const zel_policy_t &policy, std::size_t width)
{
    constexpr std::size_t id_width = 8;
    const zel_match_action_pair_grp_t &group = policy.match_action_pair_group;
    std::string text = fmt::format("policy {}, version {}, {}{}\n", policy.id, policy.version,
                                   name_of(policy.op_mode, tools::op_modes),
                                   policy.app_type != 0 ? fmt::format(", app_type {}", policy.app_type) : "");
    for (uint32_t i = 0; i < policy.if_group.num_if; ++i)
        text += wrapped("  on " + text_of(*policy.if_group.if_elements[i]), width, id_width) + "\n";
    for (const zel_match_action_pair_t *const pair : std::span(group.pairs, group.num_pair))
        text += wrapped(fmt::format("{:>6}: {}", pair->id, text_of(*pair)), width, id_width) + "\n";
    return text;
}

std::size_t terminal_width()
{
    const std::size_t width = terminal_size().ws_col;
    return width != 0 ? width : SIZE_MAX;
}

std::size_t terminal_height()
{
    const std::size_t rows = terminal_size().ws_row;
    return rows != 0 ? rows : SIZE_MAX;
}

} // namespace zelctl
