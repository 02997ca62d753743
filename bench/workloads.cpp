#include "bench/workloads.hpp"

#include <numeric>
#include <random>

namespace bench {
namespace {

// Makes matches and actions and repeats earlier ones.  std::mt19937 gives the same
// numbers everywhere; the distributions of the standard library would not.
class Source {
public:
    uint32_t number(uint32_t below = 0) { return below == 0 ? uint32_t(random_()) : uint32_t(random_()) % below; }
    uint16_t number16(uint32_t below = 65536) { return uint16_t(number(below)); }

    Service service(int elements)
    {
        Service service;
        for (int i = 0; i < elements; ++i)
            service.elements.push_back({number(), 0xffffff00, number(), 0xffffff00, number16(), 0xffff, number16(),
                                        0xffff, uint8_t(i % 2 != 0 ? 17 : 6)});
        return service;
    }
    Label label() { return {0x8847, 1, number(), number(), "tunnel-label-" + text(6)}; }
    EtherProtocol ether_protocol() { return {uint16_t(0x0800 + number(64))}; }
    Acl acl() { return {"branch-office-in-" + text(8)}; }
    Redirect l3_redirect() { return {1, 0, {}, 0x0800, L3Redirect{number(4096), number(256), number(), number()}}; }
    Redirect l2_redirect()
    {
        return {1, 1, "service-path-" + text(6), 0x8847,
                L2Redirect{number(4096), number(256), number(), mac(), mac(), number(1u << 28)}};
    }
    NatRewrite nat() { return {number(), number(), number16(), number16()}; }
    std::vector<Interface> interfaces(int count)
    {
        std::vector<Interface> interfaces;
        for (int i = 0; i < count; ++i)
            interfaces.push_back({1, uint32_t(i % 2), number(1u << 28), number16(4096), number(4096)});
        return interfaces;
    }

    template <class Param> Shared<Match> match(Param param)
    {
        ++last_match_;
        return std::make_shared<const Match>(Match{1, last_match_, uint16_t(last_match_ - 1), std::move(param)});
    }
    template <class Param> Shared<Action> action(Param param)
    {
        return std::make_shared<const Action>(Action{1, ++last_action_, std::move(param)});
    }

private:
    std::string text(int length)
    {
        std::string text;
        while (int(text.size()) < length)
            text += char('a' + number(26));
        return text;
    }
    Mac mac()
    {
        Mac mac;
        for (uint8_t &byte : mac)
            byte = uint8_t(number());
        return mac;
    }

    std::mt19937 random_{1};
    uint16_t last_match_ = 0;
    uint16_t last_action_ = 0;
};

// The earlier objects of one kind, to be repeated.
template <class T> class Earlier {
public:
    template <class Make> Shared<T> repeat_or(Source &source, bool repeat, Make make)
    {
        if (repeat && !objects_.empty())
            return objects_[source.number(uint32_t(objects_.size()))];
        return objects_.emplace_back(make());
    }

private:
    std::vector<Shared<T>> objects_;
};

Pair pair_of(uint16_t id, std::vector<Shared<Match>> matches, std::vector<Shared<Action>> actions)
{
    return {id, 1, uint16_t(id - 1), {id, 1, 1, std::move(matches)}, {id, 1, std::move(actions)}};
}

Policy policy_of(uint16_t id, std::vector<Pair> pairs, std::vector<Interface> interfaces)
{
    return {1, id, 1, 1, std::move(pairs), std::move(interfaces)};
}

Message small()
{
    Source source;
    std::vector<Shared<Match>> matches{source.match(source.service(2)), source.match(source.acl())};
    std::vector<Shared<Action>> actions{source.action(source.l3_redirect())};
    return {{policy_of(1, {pair_of(1, std::move(matches), std::move(actions))}, source.interfaces(2))}};
}

// Pairs of four matches and two actions.  Every third match and every second action
// is a repeat, of any earlier one of its kind in the whole message.
Message pairs_with_repeats(uint16_t num_policies, uint16_t pairs_each)
{
    Source source;
    std::array<Earlier<Match>, 4> matches;
    std::array<Earlier<Action>, 2> actions;
    std::size_t num_matches = 0;
    const auto next = [&](std::size_t kind, auto make) {
        return matches[kind].repeat_or(source, num_matches++ % 3 == 2, [&] { return source.match(make()); });
    };
    Message message;
    for (uint16_t p = 1; p <= num_policies; ++p) {
        std::vector<Pair> pairs;
        for (uint16_t i = 1; i <= pairs_each; ++i) {
            std::vector<Shared<Match>> four{
                next(0, [&] { return source.service(4); }), next(1, [&] { return source.label(); }),
                next(2, [&] { return source.ether_protocol(); }), next(3, [&] { return source.acl(); })};
            const bool repeat = i % 2 == 0;
            std::vector<Shared<Action>> two{
                actions[0].repeat_or(source, repeat, [&] { return source.action(source.l2_redirect()); }),
                actions[1].repeat_or(source, repeat, [&] { return source.action(source.nat()); })};
            pairs.push_back(pair_of(i, std::move(four), std::move(two)));
        }
        message.policies.push_back(policy_of(p, std::move(pairs), source.interfaces(16)));
    }
    return message;
}

// Distinct matches, none of them with much content, so that what shows is the search
// for repeats.
Message distinct_matches(std::vector<uint16_t> ids)
{
    constexpr std::size_t matches_each = 5;
    std::vector<Pair> pairs;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (i % matches_each == 0)
            pairs.push_back(pair_of(uint16_t(pairs.size() + 1), {}, {}));
        pairs.back().match_group.matches.push_back(
            std::make_shared<const Match>(Match{1, ids[i], uint16_t(ids[i] - 1), EtherProtocol{0x0800}}));
    }
    return {{policy_of(1, std::move(pairs), {})}};
}

std::vector<uint16_t> ascending(std::size_t count)
{
    std::vector<uint16_t> ids(count);
    std::iota(ids.begin(), ids.end(), uint16_t{1});
    return ids;
}

std::vector<uint16_t> descending(std::size_t count)
{
    auto ids = ascending(count);
    std::ranges::reverse(ids);
    return ids;
}

std::vector<uint16_t> shuffled(std::size_t count)
{
    auto ids = ascending(count);
    Source source;
    for (std::size_t i = count; i > 1; --i)
        std::swap(ids[i - 1], ids[source.number(uint32_t(i))]);
    return ids;
}

std::vector<Workload> all_workloads()
{
    std::vector<Workload> all{
        {"S", false, small},
        {"M", false, [] { return pairs_with_repeats(1, 200); }},
        {"L", false, [] { return pairs_with_repeats(64, 100); }},
    };
    const std::pair<const char *, std::vector<uint16_t> (*)(std::size_t)> orders[] = {
        {"ascending", ascending}, {"descending", descending}, {"random", shuffled}};
    for (const auto &[order, ids] : orders)
        for (const std::size_t count : {10, 100, 1000, 10000, 65535})
            all.push_back({std::to_string(count) + " " + order, true,
                           [count, ids = ids] { return distinct_matches(ids(count)); }});
    return all;
}

} // namespace

const std::vector<Workload> &workloads()
{
    static const std::vector<Workload> all = all_workloads();
    return all;
}

std::size_t count_objects(const Message &message)
{
    std::size_t count = 0;
    for (const Policy &policy : message.policies)
        for (const Pair &pair : policy.pairs)
            count += pair.match_group.matches.size() + pair.action_group.actions.size();
    return count;
}

} // namespace bench
