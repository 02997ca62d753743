// From a policy to its classifier.
#include "tools/classify/classifier.hpp"
#include "tools/records/graph.hpp"

#include <algorithm>
#include <map>

namespace classify {

namespace {

constexpr uint8_t protocol_udp = 17;

// All bits of a field: the mask of a pattern that compares the whole field.
template <class V> constexpr V all = static_cast<V>(~V{0});

template <class R> bool is_active(const R &record) { return record.op_mode == service::op_mode_active; }

using tools::members;

} // namespace

// Translates a policy. A match that never matches has no patterns; a pair that never
// matches becomes no rule.
class Compiler {
public:
    Compiler(Classifier &out, const zel_policy_t &policy) : out_(out)
    {
        add_interfaces(policy.if_group);
        if (!is_active(policy))
            out_.never_ = Never::policy_mode;
        else if (out_.is_bound_ && out_.bindings_.empty())
            out_.never_ = Never::interfaces;
        const zel_match_action_pair_grp_t &group = policy.match_action_pair_group;
        out_.outcomes_.reserve(group.num_pair);
        ++compilation();
        for (const zel_match_action_pair_t *const pair : members(group.pairs, group.num_pair))
            out_.outcomes_.push_back(is_active(policy) ? add_pair(*pair) : without_rule(Never::policy_mode));
        make_tuples();
    }

private:
    using Range = Classifier::Range;
    using Alternative = Classifier::Alternative;
    using Outcome = Classifier::Outcome;
    // Masked addresses of a pattern.
    struct Key {
        uint64_t mask;
        uint64_t value;
        auto operator<=>(const Key &) const = default;
    };
    using Keys = std::vector<Key>; // without duplicates; more than most_buckets of them are too many
    struct Entry {
        uint64_t value;
        uint32_t rule;
    };
    // A match that has been compiled.
    struct Compiled {
        uint64_t compilation = 0; // in which that was
        Range patterns{};
        Never never = Never::no;
    };

    // By id. Those of other compilations are left over, and do not count.
    static Compiled &compiled(uint16_t id)
    {
        static std::vector<Compiled> matches(UINT16_MAX + 1);
        return matches[id];
    }
    static uint64_t &compilation()
    {
        static uint64_t number = 0;
        return number;
    }

    void add_interfaces(const zel_if_group_t &group)
    {
        out_.is_bound_ = group.num_if != 0;
        out_.bindings_.reserve(group.num_if);
        for (const zel_if_element_t *const element : members(group.if_elements, group.num_if))
            if (is_active(*element))
                out_.bindings_.push_back({element->interface, element->vrf, element->vlan});
    }

    const Compiled &compile(const zel_match_t &match)
    {
        Compiled &entry = compiled(match.id);
        if (entry.compilation == compilation())
            return entry;
        const auto first = static_cast<uint32_t>(out_.patterns_.size());
        const Never never = add_match(match);
        if (never != Never::no)
            out_.unused_.push_back({match.id, never});
        entry = {compilation(), {first, static_cast<uint32_t>(out_.patterns_.size())}, never};
        return entry;
    }

    // ---- Rules

    static Outcome without_rule(Never never, uint16_t match = 0) { return {Classifier::none, never, match}; }

    Outcome add_pair(const zel_match_action_pair_t &pair)
    {
        const zel_match_grp_t &group = pair.match_group;
        const bool needs_all = group.logical_op == service::logical_and;
        if (!is_active(pair))
            return without_rule(Never::pair_mode);
        if (!is_active(group))
            return without_rule(Never::group_mode);
        if (!needs_all && group.logical_op != service::logical_or)
            return without_rule(Never::logical_op);
        const auto first = static_cast<uint32_t>(out_.alternatives_.size());
        Outcome outcome = without_rule(Never::empty_group);
        for (const zel_match_t *const match : members(group.matches, group.num_match)) {
            const Compiled &entry = compile(*match);
            if (entry.never == Never::no) {
                out_.alternatives_.push_back({entry.patterns, match->id});
                continue;
            }
            outcome = without_rule(entry.never, match->id);
            if (needs_all) {
                out_.alternatives_.resize(first);
                return outcome;
            }
        }
        const Range alternatives{first, static_cast<uint32_t>(out_.alternatives_.size())};
        return needs_all || alternatives.first != alternatives.end ? add_rule(alternatives, needs_all) : outcome;
    }

    Outcome add_rule(const Range &alternatives, bool needs_all)
    {
        const auto number = static_cast<uint32_t>(out_.rules_.size());
        for (const Key &key : needs_all ? keys_of_all(alternatives) : keys_of_any(alternatives))
            tuples_[key.mask].push_back({key.value, number});
        out_.rules_.push_back({static_cast<uint32_t>(out_.outcomes_.size()), alternatives, needs_all});
        return {number, Never::no, 0};
    }

    void add_keys(Keys &keys, const Range &patterns) const
    {
        for (uint32_t i = patterns.first; i < patterns.end && keys.size() <= Classifier::most_buckets; ++i) {
            const Key key{out_.patterns_[i].mask[0], out_.patterns_[i].value[0]};
            if (std::find(keys.begin(), keys.end(), key) == keys.end())
                keys.push_back(key);
        }
    }

    // A packet that matches has one of these keys.
    Keys keys_of_any(const Range &alternatives) const
    {
        Keys keys;
        for (uint32_t i = alternatives.first; i < alternatives.end; ++i)
            add_keys(keys, out_.alternatives_[i].patterns);
        return keys.size() <= Classifier::most_buckets ? keys : Keys{{0, 0}};
    }

    // The keys of the match that has the fewest, and among those the one with most bits.
    Keys keys_of_all(const Range &alternatives) const
    {
        const auto rank = [](const Keys &keys) { return std::pair(keys.size(), ~keys.front().mask); };
        Keys best{{0, 0}};
        for (uint32_t i = alternatives.first; i < alternatives.end; ++i) {
            Keys keys;
            add_keys(keys, out_.alternatives_[i].patterns);
            const bool is_of_use = keys.size() <= Classifier::most_buckets &&
                                   std::all_of(keys.begin(), keys.end(), [](const Key &key) { return key.mask != 0; });
            if (is_of_use && (best.front().mask == 0 || rank(keys) < rank(best)))
                best = std::move(keys);
        }
        return best;
    }

    // ---- Tuples

    void make_tuples()
    {
        merge_small_tuples();
        for (auto &[mask, entries] : tuples_)
            if (mask != 0)
                add_tuple(mask, entries);
        std::sort(out_.tuples_.begin(), out_.tuples_.end(),
                  [](const auto &a, const auto &b) { return a.first_rule < b.first_rule; });
        if (const auto rest = tuples_.find(0); rest != tuples_.end())
            add_tuple(0, rest->second);
        out_.buckets_.push_back(static_cast<uint32_t>(out_.entries_.size()));
        out_.cost_ += out_.bindings_.size();
    }

    void merge_small_tuples()
    {
        std::vector<Entry> rest;
        for (auto tuple = tuples_.begin(); tuple != tuples_.end();) {
            const bool is_small = tuple->first == 0 || tuple->second.size() < Classifier::least_rules;
            if (is_small)
                for (const Entry &entry : tuple->second)
                    rest.push_back({0, entry.rule});
            tuple = is_small ? tuples_.erase(tuple) : std::next(tuple);
        }
        if (!rest.empty())
            tuples_[0] = std::move(rest);
    }

    // Sorts the entries by bucket, and by rule in each bucket.
    void add_tuple(uint64_t mask, std::vector<Entry> &entries)
    {
        uint32_t bits = 0;
        while (mask != 0 && (std::size_t{1} << bits) < entries.size())
            ++bits;
        const uint32_t shift = 64 - bits;
        const auto bucket_of = [&](const Entry &entry) { return bucket_number(entry.value, shift); };
        std::sort(entries.begin(), entries.end(), [&](const Entry &a, const Entry &b) {
            return std::pair(bucket_of(a), a.rule) < std::pair(bucket_of(b), b.rule);
        });
        const auto first = std::min_element(entries.begin(), entries.end(),
                                            [](const Entry &a, const Entry &b) { return a.rule < b.rule; });
        out_.tuples_.push_back({mask, first->rule, shift, static_cast<uint32_t>(out_.buckets_.size())});
        std::size_t worst = 0;
        auto entry = entries.begin();
        for (uint32_t bucket = 0; bucket < uint32_t{1} << bits; ++bucket) {
            out_.buckets_.push_back(static_cast<uint32_t>(out_.entries_.size()));
            std::size_t cost = 0;
            for (; entry != entries.end() && bucket_of(*entry) == bucket; ++entry)
                cost += add_entry(entry->rule);
            worst = std::max(worst, cost);
        }
        out_.cost_ += 2 + worst;
    }

    // Returns the steps to compare a rule; 0 when the bucket has it by now.
    std::size_t add_entry(uint32_t rule)
    {
        const bool is_first = out_.buckets_.back() == out_.entries_.size();
        if (!is_first && out_.entries_.back() == rule)
            return 0;
        out_.entries_.push_back(rule);
        const Range &alternatives = out_.rules_[rule].alternatives;
        std::size_t steps = 1 + Classifier::length(alternatives);
        for (uint32_t i = alternatives.first; i < alternatives.end; ++i)
            steps += Classifier::length(out_.alternatives_[i].patterns);
        return steps;
    }

    // ---- Patterns

    Never add(const PackedHeader &value, const PackedHeader &mask, uint32_t label = Pattern::no_label)
    {
        Pattern pattern{value, mask, label};
        for (std::size_t i = 0; i < mask.size(); ++i)
            pattern.value[i] &= mask[i];
        out_.patterns_.push_back(pattern);
        return Never::no;
    }

    // Adds the patterns of one match, or says why it never matches.
    Never add_match(const zel_match_t &match)
    {
        const zel_match_param_t &param = match.param;
        if (!is_active(match))
            return Never::match_mode;
        switch (match.type) {
        case ZEL_MATCH_TYPE_ACL:
        case ZEL_MATCH_TYPE_ACL_IPV6:
            return Never::access_list;
        case ZEL_MATCH_TYPE_LABEL:
            return add_label(param.label);
        case ZEL_MATCH_TYPE_SERVICE:
            for (const auto *const element : members(param.service.elements, param.service.num_elements))
                add_service_element(*element);
            return param.service.num_elements == 0 ? Never::no_elements : Never::no;
        case ZEL_MATCH_TYPE_SERVICE_ELEMENT:
            return add_service_element(param.service_element);
        case ZEL_MATCH_TYPE_ETH_PROTO:
            return add({0, transport(0, 0, 0, 0, param.eth_proto.type), 0},
                       {0, transport(0, 0, 0, 0, all<uint16_t>), 0});
        case ZEL_MATCH_TYPE_ARP_OPCODE:
            return add({0, 0, overlay(param.arp_opcode.opcode, 0)}, {0, 0, overlay(all<uint32_t>, 0)});
        case ZEL_MATCH_TYPE_EXP:
            return add({0, transport(0, 0, 0, param.exp.exp, 0), 0}, {0, transport(0, 0, 0, all<uint8_t>, 0), 0});
        case ZEL_MATCH_TYPE_LISP_PROTO:
            return add_lisp_proto(param.lisp_proto);
        case ZEL_MATCH_TYPE_LISP_INST:
            return add({0, 0, overlay(0, param.lisp_inst.inst_id)}, {0, 0, overlay(0, all<uint32_t>)});
        case ZEL_MATCH_TYPE_NO_PARAM:
            return add({}, {});
        default:
            return Never::type;
        }
    }

    Never add_service_element(const zel_match_service_element_t &element)
    {
        const uint8_t protocol_mask = element.protocol == 0 ? 0 : all<uint8_t>;
        return add(
            {addresses(element.sip, element.dip), transport(element.sport, element.dport, element.protocol, 0, 0), 0},
            {addresses(element.sip_mask, element.dip_mask),
             transport(element.sport_mask, element.dport_mask, protocol_mask, 0, 0), 0});
    }

    // Compares the tunnel's port, and its endpoint unless that is 0.
    Never add_lisp_proto(const zel_match_lisp_proto_t &lisp)
    {
        const uint32_t rloc_mask = lisp.destination_rloc == 0 ? 0 : all<uint32_t>;
        return add({addresses(0, lisp.destination_rloc), transport(0, lisp.udp_port, protocol_udp, 0, 0), 0},
                   {addresses(0, rloc_mask), transport(0, all<uint16_t>, all<uint8_t>, 0, 0), 0});
    }

    // A packet header does not contain a tunnel, so a label with encap_flag never matches.
    Never add_label(const zel_match_label_t &label)
    {
        if (label.encap_flag != 0)
            return Never::tunnel_label;
        if (label.length == 0 || label.length > ZEL_LABEL_SIZE)
            return Never::label_length;
        const uint16_t type_mask = label.eth_type == 0 ? 0 : all<uint16_t>;
        out_.labels_.emplace_back(reinterpret_cast<const char *>(label.label), label.length);
        return add({0, transport(0, 0, 0, 0, label.eth_type), 0}, {0, transport(0, 0, 0, 0, type_mask), 0},
                   static_cast<uint32_t>(out_.labels_.size() - 1));
    }

    Classifier &out_;
    std::map<uint64_t, std::vector<Entry>> tuples_; // by mask
};

Classifier::Classifier(const zel_policy_t &policy) { Compiler(*this, policy); }

std::size_t Classifier::size_of(const zel_match_t &match)
{
    constexpr std::size_t size_of_label = 128;
    const std::size_t patterns = match.type == ZEL_MATCH_TYPE_SERVICE ? match.param.service.num_elements : 1;
    return patterns * 2 * sizeof(Pattern) + 2 * sizeof(Unused) +
           (match.type == ZEL_MATCH_TYPE_LABEL ? size_of_label : 0);
}

// A vector that grows has room for twice its elements.
std::size_t Classifier::size_of_rule(std::size_t num_matches)
{
    return 2 *
           (sizeof(Rule) + sizeof(Outcome) + num_matches * sizeof(Alternative) + most_buckets * 2 * sizeof(uint32_t));
}

} // namespace classify
