// From a policy to its classifier.
#include "tools/zeld/classifier.hpp"

#include "tools/zeld/policy.hpp"

#include <algorithm>
#include <map>

namespace zeld {

namespace {

constexpr uint8_t protocol_udp = 17;

// All bits of a field: the mask of a pattern that compares the whole field.
template <class V> constexpr V all = static_cast<V>(~V{0});

template <class R> bool is_active(const R &record) { return record.op_mode == service::op_mode_active; }

} // namespace

// Translates a policy. A match that never matches has no patterns; a pair that never
// matches becomes no rule.
class Compiler {
public:
    Compiler(Classifier &out, const Policy &policy) : out_(out)
    {
        out_.bindings_.reserve(policy.interfaces().size());
        for (const zel_if_element_t &element : policy.interfaces())
            if (is_active(element))
                out_.bindings_.push_back({element.interface, element.vrf, element.vlan});
        out_.is_bound_ = !policy.interfaces().empty();
        if (!is_active(policy.record()))
            return;
        policy.for_each_match([&](const zel_match_t &match) {
            const auto first = static_cast<uint32_t>(out_.patterns_.size());
            add_match(match);
            patterns_of(match.id) = {first, static_cast<uint32_t>(out_.patterns_.size())};
        });
        for (const Pair *const pair : policy.pairs_in_order())
            add_pair(*pair);
        make_tuples();
    }

private:
    using Pattern = Classifier::Pattern;
    using Range = Classifier::Range;
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

    // Where the patterns of each match are. Those of matches that the policy does not
    // have are left over from earlier policies.
    static Range &patterns_of(uint16_t id)
    {
        static std::vector<Range> ranges(UINT16_MAX + 1);
        return ranges[id];
    }

    // ---- Rules

    void add_pair(const Pair &pair)
    {
        const zel_match_grp_t &group = pair.record.match_group;
        const bool needs_all = group.logical_op == service::logical_and;
        if (!is_active(pair.record) || !is_active(group) || (!needs_all && group.logical_op != service::logical_or))
            return;
        const auto first = static_cast<uint32_t>(out_.matches_.size());
        for (const uint16_t id : pair.matches) {
            const Range patterns = patterns_of(id);
            if (patterns.first != patterns.end)
                out_.matches_.push_back(patterns);
            else if (needs_all)
                return out_.matches_.resize(first);
        }
        const Classifier::Rule rule{&pair, {first, static_cast<uint32_t>(out_.matches_.size())}, needs_all};
        if (!needs_all && rule.matches.first == rule.matches.end)
            return;
        for (const Key &key : needs_all ? keys_of_all(rule.matches) : keys_of_any(rule.matches))
            tuples_[key.mask].push_back({key.value, static_cast<uint32_t>(out_.rules_.size())});
        out_.rules_.push_back(rule);
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
    Keys keys_of_any(const Range &matches) const
    {
        Keys keys;
        for (uint32_t i = matches.first; i < matches.end; ++i)
            add_keys(keys, out_.matches_[i]);
        return keys.size() <= Classifier::most_buckets ? keys : Keys{{0, 0}};
    }

    // The keys of the match that has the fewest, and among those the one with most bits.
    Keys keys_of_all(const Range &matches) const
    {
        const auto rank = [](const Keys &keys) { return std::pair(keys.size(), ~keys.front().mask); };
        Keys best{{0, 0}};
        for (uint32_t i = matches.first; i < matches.end; ++i) {
            Keys keys;
            add_keys(keys, out_.matches_[i]);
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
        const Range &matches = out_.rules_[rule].matches;
        std::size_t steps = 1 + matches.end - matches.first;
        for (uint32_t i = matches.first; i < matches.end; ++i)
            steps += out_.matches_[i].end - out_.matches_[i].first;
        return steps;
    }

    // ---- Patterns

    void add(const PackedHeader &value, const PackedHeader &mask, uint32_t label = Classifier::no_label)
    {
        Pattern pattern{value, mask, label};
        for (std::size_t i = 0; i < mask.size(); ++i)
            pattern.value[i] &= mask[i];
        out_.patterns_.push_back(pattern);
    }

    // Adds the patterns of one match; none when it never matches.
    void add_match(const zel_match_t &match)
    {
        const zel_match_param_t &param = match.param;
        if (!is_active(match))
            return;
        switch (match.type) {
        case ZEL_MATCH_TYPE_LABEL:
            return add_label(param.label);
        case ZEL_MATCH_TYPE_SERVICE:
            for (const zel_match_service_element_t *const element : members(param.service))
                add_service_element(*element);
            return;
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
            return; // the service has no ACLs, and other types are unknown
        }
    }

    void add_service_element(const zel_match_service_element_t &element)
    {
        const uint8_t protocol_mask = element.protocol == 0 ? 0 : all<uint8_t>;
        add({addresses(element.sip, element.dip), transport(element.sport, element.dport, element.protocol, 0, 0), 0},
            {addresses(element.sip_mask, element.dip_mask),
             transport(element.sport_mask, element.dport_mask, protocol_mask, 0, 0), 0});
    }

    // Compares the tunnel's port, and its endpoint unless that is 0.
    void add_lisp_proto(const zel_match_lisp_proto_t &lisp)
    {
        const uint32_t rloc_mask = lisp.destination_rloc == 0 ? 0 : all<uint32_t>;
        add({addresses(0, lisp.destination_rloc), transport(0, lisp.udp_port, protocol_udp, 0, 0), 0},
            {addresses(0, rloc_mask), transport(0, all<uint16_t>, all<uint8_t>, 0, 0), 0});
    }

    // A packet header does not contain a tunnel, so a label with encap_flag never matches.
    void add_label(const zel_match_label_t &label)
    {
        if (label.encap_flag != 0 || label.length == 0 || label.length > ZEL_LABEL_SIZE)
            return;
        const uint16_t type_mask = label.eth_type == 0 ? 0 : all<uint16_t>;
        out_.labels_.emplace_back(reinterpret_cast<const char *>(label.label), label.length);
        add({0, transport(0, 0, 0, 0, label.eth_type), 0}, {0, transport(0, 0, 0, 0, type_mask), 0},
            static_cast<uint32_t>(out_.labels_.size() - 1));
    }

    Classifier &out_;
    std::map<uint64_t, std::vector<Entry>> tuples_; // by mask
};

Classifier::Classifier(const Policy &policy) { Compiler(*this, policy); }

std::size_t Classifier::size_of(const zel_match_t &match)
{
    constexpr std::size_t size_of_label = 128;
    const std::size_t patterns = match.type == ZEL_MATCH_TYPE_SERVICE ? match.param.service.num_elements : 1;
    return patterns * 2 * sizeof(Pattern) + (match.type == ZEL_MATCH_TYPE_LABEL ? size_of_label : 0);
}

// A vector that grows has room for twice its elements.
std::size_t Classifier::size_of_rule(std::size_t num_matches)
{
    return 2 * (sizeof(Rule) + num_matches * sizeof(Range) + most_buckets * 2 * sizeof(uint32_t));
}

} // namespace zeld
