#include "tools/zelctl/classbench.hpp"

#include "tools/json/bad_input.hpp"
#include "tools/json/progress.hpp"
#include "tools/json/text_values.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <bit>
#include <optional>

namespace zelctl {
namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trim(std::string_view text)
{
    const std::size_t begin = std::min(text.find_first_not_of(blanks), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

// Reads the fields of a line, one after the other.
class LineReader {
public:
    LineReader(std::string_view text, const std::string &file, uint32_t line) : rest_(text), file_(file), line_(line) {}

    void address(std::string_view name, uint32_t &address, uint32_t &mask)
    {
        const std::string_view field = next(name);
        const auto [left, right] = split(field, '/');
        const auto read = tools::read_ipv4(left);
        const auto read_mask = tools::read_ipv4_mask(right);
        if (!read || !read_mask)
            fail(name, "an address and a prefix length such as \"10.0.0.0/8\"", field);
        address = *read;
        mask = *read_mask;
    }

    PortRange ports(std::string_view name)
    {
        const std::string_view field = next(name);
        const auto [left, right] = split(field, ':');
        const auto first = number(trim(left), UINT16_MAX);
        const auto last = number(trim(right), UINT16_MAX);
        if (!first || !last || *first > *last)
            fail(name, "a range of ports such as \"0 : 65535\"", field);
        return {static_cast<uint16_t>(*first), static_cast<uint16_t>(*last)};
    }

    uint8_t protocol(std::string_view name)
    {
        const std::string_view field = next(name);
        const auto [left, right] = split(field, '/');
        const auto protocol = number(left, UINT8_MAX);
        const auto mask = number(right, UINT8_MAX);
        if (!protocol || !mask || (*mask != 0 && *mask != 0xff) || (*mask == 0xff && *protocol == 0))
            fail(name, "one protocol such as \"0x06/0xFF\", not 0, or any, \"0x00/0x00\"", field);
        return static_cast<uint8_t>(*protocol & *mask);
    }

    // The optional last column; a mask of 0 is for any flags.
    bool flags()
    {
        if (rest_.empty())
            return false;
        const std::string_view field = next("TCP flags");
        const auto [left, right] = split(field, '/');
        const auto mask = number(right, UINT16_MAX);
        if (!number(left, UINT16_MAX) || !mask)
            fail("TCP flags", "a value and a mask such as \"0x0002/0x0002\"", field);
        return *mask != 0;
    }

    void strip(char mark)
    {
        if (!rest_.starts_with(mark))
            fail("rule", fmt::format("a line that begins with {}", mark), rest_);
        rest_.remove_prefix(1);
    }

private:
    static std::pair<std::string_view, std::string_view> split(std::string_view text, char separator)
    {
        const std::size_t at = std::min(text.find(separator), text.size());
        return {text.substr(0, at), text.substr(std::min(at + 1, text.size()))};
    }

    static std::optional<uint64_t> number(std::string_view text, uint64_t most)
    {
        const auto value = tools::read_number(text);
        return value && *value <= most ? value : std::nullopt;
    }

    std::string_view next(std::string_view name)
    {
        if (rest_.empty())
            fail(name, "five fields separated by tabs", "the end of the line");
        const auto [field, rest] = split(rest_, '\t');
        rest_ = rest;
        return trim(field);
    }

    [[noreturn]] void fail(std::string_view name, std::string_view expected, std::string_view found) const
    {
        throw tools::BadInput(fmt::format("{}:{}: {}: expected {}, found \"{}\"", file_, line_, name, expected, found));
    }

    std::string_view rest_;
    const std::string &file_;
    uint32_t line_;
};

Rule read_rule(std::string_view text, const std::string &file, uint32_t line)
{
    LineReader reader(text, file, line);
    Rule rule{};
    reader.strip('@');
    reader.address("source address", rule.sip, rule.sip_mask);
    reader.address("destination address", rule.dip, rule.dip_mask);
    rule.sport = reader.ports("source ports");
    rule.dport = reader.ports("destination ports");
    rule.protocol = reader.protocol("protocol");
    rule.has_flags = reader.flags();
    return rule;
}

void fill_match(zel_match_t &match, const Rule &rule)
{
    const std::vector<tools::MaskedPort> sports = tools::expand(rule.sport);
    const std::vector<tools::MaskedPort> dports = tools::expand(rule.dport);
    match.type = ZEL_MATCH_TYPE_SERVICE;
    zel_match_service_t &service = match.param.service;
    const auto elements = tools::make_members(service.elements, service.num_elements, sports.size() * dports.size());
    for (std::size_t i = 0; i < elements.size(); ++i) {
        const tools::MaskedPort sport = sports[i / dports.size()];
        const tools::MaskedPort dport = dports[i % dports.size()];
        *elements[i] = {rule.sip,   rule.sip_mask, rule.dip,   rule.dip_mask, sport.value,
                        sport.mask, dport.value,   dport.mask, rule.protocol};
    }
}

void fill_pair(zel_match_action_pair_t &pair, uint16_t id, const Rule &rule, const zel_action_t &action)
{
    pair.id = id;
    pair.pre_pair_id = static_cast<uint16_t>(id - 1);
    pair.match_group.id = id;
    zel_match_t &match = *tools::make_members(pair.match_group.matches, pair.match_group.num_match, 1).front();
    match.id = id;
    fill_match(match, rule);
    pair.action_group.id = id;
    *tools::make_members(pair.action_group.actions, pair.action_group.num_action, 1).front() = action;
}

} // namespace

std::vector<Rule> read_classbench(std::string_view text, const std::string &file)
{
    tools::Progress progress("reading rules", text.size());
    std::vector<Rule> rules;
    uint32_t line = 1;
    for (std::size_t at = 0; at < text.size(); ++line) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view rule = trim(text.substr(at, end - at));
        at = end + 1;
        if (!rule.empty() && rule.front() != '#')
            rules.push_back(read_rule(rule, file, line));
        progress.reached(at);
    }
    return rules;
}

tools::Graph make_policy(const std::vector<Rule> &rules, uint16_t policy_id, uint32_t app,
                         const std::vector<zel_action_t> &actions, const std::string &file)
{
    if (rules.size() > UINT16_MAX)
        throw tools::BadInput(
            fmt::format("{}: {} rules are too many; a policy has at most {} pairs", file, rules.size(), UINT16_MAX));
    tools::Graph graph(zel::wire::policy);
    auto &policy = graph.as<zel_policy_t>();
    policy.id = policy_id;
    policy.app_type = app;
    zel_match_action_pair_grp_t &group = policy.match_action_pair_group;
    const auto pairs = tools::make_members(group.pairs, group.num_pair, rules.size());
    for (std::size_t i = 0; i < pairs.size(); ++i)
        fill_pair(*pairs[i], static_cast<uint16_t>(i + 1), rules[i], actions[i % actions.size()]);
    return graph;
}

} // namespace zelctl
