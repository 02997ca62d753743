#include "tools/json/field_rules.hpp"

#include "tools/records/packet_record.hpp"
#include "wire/format.hpp"

#include <algorithm>
#include <array>
#include <unordered_map>

namespace tools {
namespace {

using namespace zel::wire;

// The description of a field.  A name that the record does not have is a compile error.
constexpr const Member *field_of(const Record &record, std::string_view name)
{
    for (const Member &member : record.members)
        if (member.kind == Kind::field && member.name == name)
            return &member;
    throw "the record has no such field";
}

// A selector's values have the names of the records that they select.
template <std::size_t N, std::size_t M = 0>
consteval std::array<Name, N + M> names_of(const Option (&options)[N], const std::array<Name, M> &further = {})
{
    std::array<Name, N + M> names;
    const auto end = std::ranges::transform(options, names.begin(), [](const Option &option) {
                         return Name{option.value, option.name};
                     }).out;
    std::ranges::copy(further, end);
    return names;
}

constexpr std::array match_types_without_record{Name{ZEL_MATCH_TYPE_ACL_IPV6, "acl_ipv6"},
                                                Name{ZEL_MATCH_TYPE_NO_PARAM, "no_param"}};
constexpr std::array match_types = names_of(match_options, match_types_without_record);
constexpr std::array action_types = names_of(action_options);
constexpr std::array redirect_types = names_of(action_param_redirect_options);

// clang-format off
constexpr FieldRule rules[] = {
    {.field = field_of(kob_header, "api_type"), .names = request_kind_names, .is_required = true},
    {.field = field_of(kob_header, "app_type"), .is_application = true},
    {.field = field_of(kob_header, "op_code"), .names = op_codes},

    {.field = field_of(policy, "id"), .is_required = true},
    {.field = field_of(policy, "op_mode"), .names = op_modes},
    {.field = field_of(policy, "app_type"), .is_application = true},
    {.field = field_of(match_action_pair, "id"), .is_required = true},
    {.field = field_of(match_action_pair, "op_mode"), .names = op_modes},
    {.field = field_of(if_element, "op_mode"), .names = op_modes},

    {.field = field_of(match_grp, "op_mode"), .names = op_modes},
    {.field = field_of(match_grp, "logical_op"), .names = logical_ops},
    {.field = field_of(match, "op_mode"), .names = op_modes},
    {.field = field_of(match, "id"), .is_required = true},
    {.field = field_of(match, "type"), .names = match_types},
    {.field = field_of(match_acl, "acl"), .reserved = 1},
    {.field = field_of(match_label, "label"), .length = field_of(match_label, "length")},
    {.field = field_of(match_service_element, "sip"), .mask = field_of(match_service_element, "sip_mask")},
    {.field = field_of(match_service_element, "dip"), .mask = field_of(match_service_element, "dip_mask")},
    {.field = field_of(match_service_element, "sport"), .mask = field_of(match_service_element, "sport_mask")},
    {.field = field_of(match_service_element, "dport"), .mask = field_of(match_service_element, "dport_mask")},
    {.field = field_of(match_service_element, "protocol"), .names = protocols},

    {.field = field_of(action_grp, "op_mode"), .names = op_modes},
    {.field = field_of(action, "op_mode"), .names = op_modes},
    {.field = field_of(action, "id"), .is_required = true},
    {.field = field_of(action, "type"), .names = action_types},
    {.field = field_of(action_param_redirect, "type"), .names = redirect_types},
    {.field = field_of(action_label_param, "label"), .length = field_of(action_label_param, "label_length")},

    {.field = field_of(stat_request_entry, "policy_id"), .names = all_or_id, .is_required = true},
    {.field = field_of(stat_request_entry, "match_action_pair_id"), .names = all_or_id, .is_required = true},
    {.field = field_of(stat_request_entry, "flag"), .names = stat_flags},

    {.field = field_of(packet_header, "protocol"), .names = protocols},
    {.field = field_of(packet_header, "label"), .length = field_of(packet_header, "label_length")},
};
// clang-format on

constexpr bool is_named(const Record &record, const Member &choice, const Option &option)
{
    const Member *const selector = field_of(record, choice.name);
    // By element, because GCC's sanitizers do not let a constant compare addresses.
    const auto *const rule =
        std::ranges::find_if(rules, [&](const FieldRule &r) { return r.field->id == selector->id; });
    return rule != std::end(rules) && std::ranges::find(rule->names, option.name, &Name::name) != rule->names.end();
}

constexpr bool selectors_are_named()
{
    bool all = true;
    for (const Record *const object : mat_objects)
        for_each_record(*object, [&](const Record &record) {
            for (const Member &member : record.members)
                for (const Option &option : member.options)
                    all &= is_named(record, member, option);
        });
    return all;
}
static_assert(selectors_are_named(), "a selector is without a rule that names its values");

// The rules, and those of the masks and lengths that they name.  Every field of every object asks
// for its rule several times: hence a hash table with open addressing.
class RuleIndex {
public:
    RuleIndex()
    {
        for (const FieldRule &rule : rules) {
            at(*rule.field) = rule;
            if (rule.mask != nullptr)
                at(*rule.mask).is_mask = true;
            if (rule.length != nullptr)
                at(*rule.length).text = rule.field;
        }
    }

    const FieldRule &find(const Member &field) const
    {
        const Slot &slot = slots_[place_of(field)];
        return slot.field == &field ? slot.rule : none_;
    }

private:
    struct Slot {
        const Member *field = nullptr;
        FieldRule rule;
    };

    FieldRule &at(const Member &field)
    {
        Slot &slot = slots_[place_of(field)];
        slot.field = &field;
        return slot.rule;
    }

    // Of the field, or a free one.
    std::size_t place_of(const Member &field) const
    {
        std::size_t place = reinterpret_cast<std::uintptr_t>(&field) / sizeof field % slots_.size();
        while (slots_[place].field != nullptr && slots_[place].field != &field)
            place = (place + 1) % slots_.size();
        return place;
    }

    static constexpr std::size_t num_slots = 256;
    // A rule names three fields at most.  A search ends at a free slot, so there has to be one.
    static_assert(std::size_t{3} * std::size(rules) < num_slots);

    std::array<Slot, num_slots> slots_;
    FieldRule none_;
};

} // namespace

const FieldRule &rule_of(const Member &field)
{
    static const RuleIndex index;
    return index.find(field);
}

const std::vector<std::string_view> &member_names(const Record &record)
{
    thread_local std::unordered_map<const Record *, std::vector<std::string_view>> known;
    const auto [entry, is_new] = known.try_emplace(&record);
    if (!is_new)
        return entry->second;
    for (const Member &member : record.members) {
        if (member.kind != Kind::choice && !rule_of(member).is_mask)
            entry->second.emplace_back(member.name);
        for (const Option &option : member.options)
            entry->second.emplace_back(option.name);
    }
    return entry->second;
}

} // namespace tools
