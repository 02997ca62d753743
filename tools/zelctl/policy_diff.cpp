#include "tools/zelctl/policy_diff.hpp"

#include "tools/json/field_rules.hpp"
#include "tools/json/writer.hpp"
#include "tools/records/graph.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/policy_text.hpp"
#include "wire/graph.hpp"
#include "wire/records.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <map>

namespace zelctl {

namespace {

using namespace zel::wire;
using Texts = std::vector<std::string>;

using tools::members;
using tools::pairs_of;
auto members_of(const zel_match_grp_t &group) { return members(group.matches, group.num_match); }
auto members_of(const zel_action_grp_t &group) { return members(group.actions, group.num_action); }

std::string text_of_field(const Member &field, const void *record)
{
    return tools::safe_text(
        tools::show_field(field, record).dump(-1, ' ', false, tools::Json::error_handler_t::replace));
}

// "what: name old -> new" for each field in which two records differ, also in the records
// that they contain.
void add_fields(Texts &details, const std::string &what, const Record &record, const void *a, const void *b)
{
    for (const Member &member : record.members) {
        if (member.kind == Kind::field && !tools::rule_of(member).is_mask) {
            const std::string before = text_of_field(member, a);
            const std::string after = text_of_field(member, b);
            if (before != after)
                details.push_back(fmt::format("{}{} {} -> {}", what, member.name, before, after));
        } else if (member.kind == Kind::choice) {
            const Option *const option = selected(a, member);
            if (option != nullptr && option == selected(b, member))
                add_fields(details, what, *option->record, part(a, option->offset), part(b, option->offset));
        }
    }
}

// Members of one multiset that the other one does not have.
template <class R, class Same>
std::vector<const R *> only_in(std::span<R *const> these, std::span<R *const> those, Same is_same)
{
    std::vector<const R *> left;
    std::vector<bool> is_used(those.size());
    for (const R *const one : these) {
        std::size_t i = 0;
        while (i < those.size() && (is_used[i] || !is_same(one, those[i])))
            ++i;
        if (i < those.size())
            is_used[i] = true;
        else
            left.push_back(one);
    }
    return left;
}

template <class R> bool is_same_record(const Record &record, const R *a, const R *b) { return equal(record, a, b); }

// ---- Matches and actions

void add_member(Texts &details, const zel_match_t &a, const zel_match_t &b)
{
    const std::string what = fmt::format("match {}: ", a.id);
    const std::size_t before = details.size();
    add_fields(details, what, match, &a, &b);
    if (a.type != b.type || a.type == ZEL_MATCH_TYPE_SERVICE || details.size() == before)
        details.push_back(fmt::format("{}{} -> {}", what, text_of(a), text_of(b)));
}

void add_member(Texts &details, const zel_action_t &a, const zel_action_t &b)
{
    details.push_back(fmt::format("action {}: {} -> {}", a.id, text_of(a), text_of(b)));
}

template <class G> void add_group(Texts &details, const char *noun, const Record &record, const G &a, const G &b)
{
    add_fields(details, fmt::format("{} group: ", noun), record, &a, &b);
    const auto find = [](const G &group, uint16_t id) {
        const auto found = std::ranges::find_if(members_of(group), [id](const auto *one) { return one->id == id; });
        return found == members_of(group).end() ? nullptr : *found;
    };
    const auto is_same_object = [](const auto *one, const auto *other) {
        if constexpr (std::is_same_v<G, zel_match_grp_t>)
            return equal(match, one, other);
        else
            return equal(action, one, other);
    };
    for (const auto *const old : members_of(a))
        if (const auto *const now = find(b, old->id); now == nullptr)
            details.push_back(fmt::format("- {} {}: {}", noun, old->id, text_of(*old)));
        else if (!is_same_object(old, now))
            add_member(details, *old, *now);
    for (const auto *const now : members_of(b))
        if (find(a, now->id) == nullptr)
            details.push_back(fmt::format("+ {} {}: {}", noun, now->id, text_of(*now)));
    const auto is_same_id = [](const auto *one, const auto *other) { return one->id == other->id; };
    const bool has_same_set = only_in(members_of(a), members_of(b), is_same_id).empty() &&
                              only_in(members_of(b), members_of(a), is_same_id).empty();
    if (has_same_set && !std::ranges::equal(members_of(a), members_of(b), is_same_id))
        details.push_back(fmt::format("the order of the members of {} group {}", noun, b.id));
}

PairChange compare_pairs(const zel_match_action_pair_t &a, const zel_match_action_pair_t &b, Details details)
{
    PairChange change{b.id, ChangeKind::unchanged, {}};
    if (equal(match_action_pair, &a, &b))
        return change;
    change.kind = ChangeKind::changed;
    if (details != Details::of_pairs)
        return change;
    add_fields(change.details, "", match_action_pair, &a, &b);
    add_group(change.details, "match", match_grp, a.match_group, b.match_group);
    add_group(change.details, "action", action_grp, a.action_group, b.action_group);
    return change;
}

// ---- Policies

std::map<uint16_t, const zel_match_action_pair_t *> by_id(const zel_policy_t &policy)
{
    std::map<uint16_t, const zel_match_action_pair_t *> pairs;
    for (const zel_match_action_pair_t *const pair : pairs_of(policy))
        pairs.emplace(pair->id, pair);
    return pairs;
}

std::vector<uint16_t> order_of(const zel_policy_t &policy)
{
    std::vector<uint16_t> ids;
    for (const zel_match_action_pair_t *const pair : pairs_of(policy))
        ids.push_back(pair->id);
    return ids;
}

// The order of the pairs that the service has when the pairs of a policy are removed,
// replaced in their places, and appended.
std::vector<uint16_t> order_after_update(const zel_policy_t &before, const zel_policy_t &after)
{
    const auto old = by_id(before);
    const auto now = by_id(after);
    std::vector<uint16_t> ids;
    for (const uint16_t id : order_of(before))
        if (now.contains(id))
            ids.push_back(id);
    for (const uint16_t id : order_of(after))
        if (!old.contains(id))
            ids.push_back(id);
    return ids;
}

bool has_same_interfaces(const zel_policy_t &a, const zel_policy_t &b)
{
    return equal(if_group, &a.if_group, &b.if_group);
}

void add_interfaces(Texts &details, const zel_if_group_t &a, const zel_if_group_t &b)
{
    const auto is_same = [](const auto *one, const auto *other) { return is_same_record(if_element, one, other); };
    const auto old = members(a.if_elements, a.num_if);
    const auto now = members(b.if_elements, b.num_if);
    const std::size_t before = details.size();
    for (const zel_if_element_t *const gone : only_in(old, now, is_same))
        details.push_back("- on " + text_of(*gone));
    for (const zel_if_element_t *const come : only_in(now, old, is_same))
        details.push_back("+ on " + text_of(*come));
    if (details.size() == before)
        details.emplace_back("the order of the interfaces");
}

PairChange whole_pair(const zel_match_action_pair_t &pair, ChangeKind kind, Details details)
{
    return {pair.id, kind, details == Details::of_pairs ? Texts{text_of(pair)} : Texts{}};
}

PolicyChange whole(const zel_policy_t &policy, ChangeKind kind, Details details)
{
    PolicyChange change;
    change.id = policy.id;
    change.kind = kind;
    for (const zel_match_action_pair_t *const pair : pairs_of(policy))
        change.pairs.push_back(whole_pair(*pair, kind, details));
    return change;
}

} // namespace

const char *name_of(ChangeKind kind)
{
    constexpr std::array names{"unchanged", "added", "removed", "changed"};
    return names.at(static_cast<std::size_t>(kind));
}

std::size_t PolicyChange::count(ChangeKind of) const
{
    return static_cast<std::size_t>(
        std::ranges::count_if(pairs, [of](const PairChange &pair) { return pair.kind == of; }));
}

PolicyChange compare(const zel_policy_t *before, const zel_policy_t *after, Details details)
{
    if (before == nullptr)
        return whole(*after, ChangeKind::added, details);
    if (after == nullptr)
        return whole(*before, ChangeKind::removed, details);
    PolicyChange change;
    change.id = after->id;
    add_fields(change.details, "", policy, before, after);
    if (!has_same_interfaces(*before, *after))
        add_interfaces(change.details, before->if_group, after->if_group);
    const auto old = by_id(*before);
    const auto now = by_id(*after);
    for (const zel_match_action_pair_t *const pair : pairs_of(*before))
        if (!now.contains(pair->id))
            change.pairs.push_back(whole_pair(*pair, ChangeKind::removed, details));
    for (const zel_match_action_pair_t *const pair : pairs_of(*after)) {
        const auto found = old.find(pair->id);
        if (found == old.end()) {
            change.pairs.push_back(whole_pair(*pair, ChangeKind::added, details));
            continue;
        }
        ++change.num_kept;
        if (PairChange one = compare_pairs(*found->second, *pair, details); one.kind != ChangeKind::unchanged)
            change.pairs.push_back(std::move(one));
    }
    if (order_after_update(*before, *after) != order_of(*after))
        change.details.emplace_back("the order of the pairs");
    if (!change.details.empty() || !change.pairs.empty())
        change.kind = ChangeKind::changed;
    return change;
}

std::string show(const PolicyChange &change)
{
    constexpr std::array marks{' ', '+', '-', '~'};
    const auto mark_of = [&](ChangeKind kind) { return marks.at(static_cast<std::size_t>(kind)); };
    if (change.kind == ChangeKind::unchanged)
        return {};
    std::string text = fmt::format("{} policy {}\n", mark_of(change.kind), change.id);
    for (const std::string &detail : change.details)
        text += "    " + detail + "\n";
    for (const PairChange &pair : change.pairs) {
        const bool is_whole = pair.kind != ChangeKind::changed;
        text +=
            fmt::format("  {} pair {}{}\n", mark_of(pair.kind), pair.id, is_whole ? ": " + pair.details.front() : "");
        for (const std::string &detail : is_whole ? Texts{} : pair.details)
            text += "      " + detail + "\n";
    }
    return text;
}

tools::Json to_json(const PolicyChange &change)
{
    tools::Json json{{"policy", change.id}, {"change", name_of(change.kind)}};
    if (!change.details.empty())
        json["details"] = change.details;
    tools::Json pairs = tools::Json::array();
    for (const PairChange &pair : change.pairs)
        pairs.push_back({{"pair", pair.id}, {"change", name_of(pair.kind)}, {"details", pair.details}});
    json["pairs"] = std::move(pairs);
    json["pairs_kept"] = change.num_kept;
    return json;
}

} // namespace zelctl
