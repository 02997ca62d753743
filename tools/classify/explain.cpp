#include "tools/classify/explain.hpp"

#include <algorithm>

namespace classify {

using service::Reason;

namespace {

struct PortRange {
    uint32_t first;
    uint32_t last;
};

bool is_port(const Field &field) { return field.word == 1 && field.bits == 16 && field.shift >= 32; }

// A mask with ones in front and zeros behind.
bool is_prefix(uint32_t mask, uint32_t bits)
{
    const uint32_t zeros = ~mask & static_cast<uint32_t>(~uint64_t{0} >> (64 - bits));
    return (zeros & (zeros + 1)) == 0;
}

// Whether two patterns are equal in all but one field.
bool differ_only_in(const Field &field, const Pattern &a, const Pattern &b)
{
    PackedHeader others{~uint64_t{0}, ~uint64_t{0}, ~uint64_t{0}};
    others.at(field.word) &= ~((~uint64_t{0} >> (64 - field.bits)) << field.shift);
    for (std::size_t i = 0; i < others.size(); ++i)
        if (((a.value.at(i) ^ b.value.at(i)) & others.at(i)) != 0 ||
            ((a.mask.at(i) ^ b.mask.at(i)) & others.at(i)) != 0)
            return false;
    return a.label == b.label;
}

// The ports that a pattern and those beside it take together, as far as they adjoin.
PortRange joined(std::span<const Pattern> patterns, const Pattern &pattern, const Field &field)
{
    const auto range_of = [&](const Pattern &one) {
        const uint32_t value = field.of(one.value);
        return PortRange{value, value | (~field.of(one.mask) & 0xffff)};
    };
    std::vector<PortRange> ranges;
    for (const Pattern &one : patterns)
        if (is_prefix(field.of(one.mask), field.bits) && differ_only_in(field, one, pattern))
            ranges.push_back(range_of(one));
    std::sort(ranges.begin(), ranges.end(), [](const PortRange &a, const PortRange &b) { return a.first < b.first; });
    const uint32_t own = range_of(pattern).first;
    PortRange joined = ranges.front();
    for (const PortRange &range : ranges) {
        if (range.first > joined.last + 1) {
            if (own <= joined.last)
                break;
            joined = range;
        }
        joined.last = std::max(joined.last, range.last);
    }
    return joined;
}

} // namespace

Explanation::Explanation(const zel_policy_t &policy, const Classifier &classifier, const service::PacketHeader &packet)
    : policy_(policy), classifier_(classifier), packet_(packet), fields_(pack(packet)),
      applies_(classifier.never() == Never::no && classifier.applies_to(packet)),
      taken_(classifier.classify(packet, fields_))
{}

std::size_t Explanation::cost(const Classifier &classifier)
{
    std::size_t steps = classifier.bindings().size();
    for (const Classifier::Rule &rule : classifier.rules()) {
        const auto alternatives = classifier.alternatives(rule);
        steps += 1 + alternatives.size();
        for (const Classifier::Alternative &alternative : alternatives)
            steps += 2 * classifier.patterns(alternative).size();
    }
    return steps;
}

Reason Explanation::next()
{
    if (!applies_ || pair_ == policy_.match_action_pair_group.num_pair)
        return about_policy();
    is_done_ = pair_ == taken_;
    return about_pair(pair_++);
}

Reason Explanation::about_policy()
{
    Reason reason{};
    reason.policy_id = policy_.id;
    reason.verdict = service::verdict_no_pair;
    is_done_ = true;
    if (applies_)
        return reason;
    reason.verdict = service::verdict_never;
    reason.field = static_cast<uint8_t>(classifier_.never());
    if (classifier_.never() != Never::no)
        return reason;
    // The interface with the fewest differences.
    const auto differences = [&](const Classifier::Binding &binding) {
        return std::array{
            binding.interface != 0 && binding.interface != packet_.interface,
            binding.vlan != 0 && binding.vlan != packet_.vlan,
            binding.vrf != 0 && binding.vrf != packet_.vrf,
        };
    };
    const auto number = [&](const Classifier::Binding &binding) {
        const auto all = differences(binding);
        return std::count(all.begin(), all.end(), true);
    };
    const auto bindings = classifier_.bindings();
    const auto closest = std::min_element(bindings.begin(), bindings.end(),
                                          [&](const auto &a, const auto &b) { return number(a) < number(b); });
    const auto differs = differences(*closest);
    reason.num_elements = static_cast<uint32_t>(bindings.size());
    reason.mask = UINT32_MAX;
    if (differs[0])
        reason.verdict = service::verdict_interface, reason.found = packet_.interface,
        reason.wanted = closest->interface;
    else if (differs[1])
        reason.verdict = service::verdict_vlan, reason.found = packet_.vlan, reason.wanted = closest->vlan;
    else
        reason.verdict = service::verdict_vrf, reason.found = packet_.vrf, reason.wanted = closest->vrf;
    return reason;
}

Reason Explanation::about_pair(uint32_t pair) const
{
    Reason reason{};
    reason.policy_id = policy_.id;
    reason.pair_id = policy_.match_action_pair_group.pairs[pair]->id;
    const Classifier::Outcome &outcome = classifier_.pairs()[pair];
    if (pair == taken_) {
        reason.verdict = service::verdict_took;
    } else if (outcome.rule != Classifier::none) {
        why_not(reason, classifier_.rules()[outcome.rule]);
    } else {
        reason.verdict = service::verdict_never;
        reason.field = static_cast<uint8_t>(outcome.never);
        reason.match_id = outcome.match;
    }
    return reason;
}

uint32_t Explanation::num_failed(const Pattern &pattern) const
{
    uint32_t number = 0;
    for (const Field &field : fields_in_order)
        number += ((field.of(fields_) ^ field.of(pattern.value)) & field.of(pattern.mask)) != 0 ? 1 : 0;
    return number + (pattern.label != Pattern::no_label && label_of(packet_) != classifier_.labels()[pattern.label]);
}

// Of a group that needs all matches, the first match that failed. Of any other, and in
// a match, the pattern that most of the packet's fields satisfy.
void Explanation::why_not(Reason &reason, const Classifier::Rule &rule) const
{
    const Classifier::Alternative *failed = nullptr;
    const Pattern *closest = nullptr;
    uint32_t least = UINT32_MAX;
    for (const Classifier::Alternative &alternative : classifier_.alternatives(rule)) {
        if (rule.needs_all && classifier_.matches(alternative, packet_, fields_))
            continue;
        for (const Pattern &pattern : classifier_.patterns(alternative))
            if (const uint32_t number = num_failed(pattern); number < least) {
                least = number;
                closest = &pattern;
                failed = &alternative;
            }
        if (rule.needs_all)
            break;
    }
    if (closest != nullptr) // always: a rule has patterns
        why_not(reason, *failed, *closest);
}

void Explanation::why_not(Reason &reason, const Classifier::Alternative &alternative, const Pattern &closest) const
{
    const auto patterns = classifier_.patterns(alternative);
    reason.match_id = alternative.match;
    reason.num_elements = static_cast<uint32_t>(patterns.size());
    for (std::size_t i = 0; i < fields_in_order.size(); ++i) {
        const Field &field = fields_in_order.at(i);
        const uint32_t mask = field.of(closest.mask);
        if (((field.of(fields_) ^ field.of(closest.value)) & mask) == 0)
            continue;
        reason.verdict = service::verdict_field;
        reason.field = static_cast<uint8_t>(i);
        reason.found = field.of(fields_);
        reason.wanted = field.of(closest.value);
        reason.mask = mask;
        if (is_port(field) && is_prefix(mask, field.bits)) {
            const PortRange range = joined(patterns, closest, field);
            reason.wanted = range.first;
            reason.last = range.last;
            reason.mask = 0;
        }
        return;
    }
    const std::string &label = classifier_.labels()[closest.label];
    reason.verdict = service::verdict_label;
    reason.label_length = static_cast<uint16_t>(label.size());
    std::copy(label.begin(), label.end(), reason.label);
}

} // namespace classify
