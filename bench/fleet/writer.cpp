// Writes revisions at a rate, and measures how long after the acknowledgement the last node
// reports each of them:
//
//     fleet_writer SERVERS GROUP NODES RULES RATE REVISIONS
//
// A node that has taken over a later revision has taken over the earlier ones, too.
#include "tools/fleet/store.hpp"
#include "tools/message/message.hpp"
#include "tools/records/service_protocol.hpp"

#include <fmt/core.h>
#include <sodium.h>

#include <algorithm>
#include <charconv>
#include <random>
#include <thread>

namespace {

using namespace fleet;
using Clock = std::chrono::steady_clock;

// A pair for each rule, with a five-tuple and the same action.
std::string make_policy(uint32_t rules, uint32_t vrf)
{
    tools::Message message;
    message.header = {ZEL_API_POLICY_UPDATE, 0, 1, service::op_code_set};
    auto *const policy = tools::allocate<zel_policy_t>();
    message.graph = tools::Graph(ZEL_MAT_TYPE_POLICY, policy);
    policy->id = 1;
    zel_match_action_pair_grp_t &group = policy->match_action_pair_group;
    uint32_t number = 0;
    for (zel_match_action_pair_t *const pair : tools::make_members(group.pairs, group.num_pair, rules)) {
        pair->id = static_cast<uint16_t>(++number);
        pair->match_group.id = pair->id;
        zel_match_t &match = *tools::make_members(pair->match_group.matches, pair->match_group.num_match, 1)[0];
        match.id = pair->id;
        match.type = ZEL_MATCH_TYPE_SERVICE_ELEMENT;
        match.param.service_element.sip = 0x0a000000 + number * 2654435761U % 0xffffff;
        match.param.service_element.sip_mask = 0xffffffff;
        match.param.service_element.dport = static_cast<uint16_t>(number);
        match.param.service_element.protocol = 6;
        pair->action_group.id = 1;
        zel_action_t &action = *tools::make_members(pair->action_group.actions, pair->action_group.num_action, 1)[0];
        action.id = 1;
        action.type = ZEL_ACTION_TYPE_SET_VRF;
        action.param.set_vrf.vrf = vrf;
    }
    return encode_message(message);
}

struct Written {
    uint64_t sequence;
    Clock::time_point acknowledged;
    std::optional<Clock::time_point> complete;
};

class Bench {
public:
    Bench(const std::string &servers, std::string group, std::size_t nodes)
        : bus_(servers, Bus::Start::connected), reports_(servers, Bus::Start::connected), store_(bus_),
          group_(std::move(group)), nodes_(nodes)
    {
        reports_.subscribe("zel.report.*");
        reports_.flush();
        for (const Status &status : store_.statuses())
            take(status.node, status.groups.empty() ? 0 : status.groups[0].applied.sequence);
    }

    void write(const std::string &message)
    {
        const Entry entry = store_.put_object(message);
        const Manifest manifest = commit(store_, {group_, "bench", "", {}}, [&](const Manifest *) {
            Manifest next;
            next.policies[{0, 1}] = entry;
            return next;
        });
        written_.push_back({manifest.revision.sequence, Clock::now(), {}});
    }

    // Until a time, or until the last revision is complete.
    void collect(Clock::time_point until)
    {
        while (Clock::now() < until && !(is_last_ && is_complete())) {
            const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
            if (const std::optional<BusMessage> message =
                    reports_.take(std::clamp(wait, std::chrono::milliseconds(0), std::chrono::milliseconds(20))))
                take(message->subject.substr(message->subject.rfind('.') + 1), applied_in(message->data));
        }
    }

    void last() { is_last_ = true; }

    void print()
    {
        std::vector<double> times;
        for (const Written &one : written_)
            if (one.complete)
                times.push_back(
                    std::max(0.0, std::chrono::duration<double, std::milli>(*one.complete - one.acknowledged).count()));
        std::sort(times.begin(), times.end());
        const auto at = [&](double share) {
            return times.empty() ? 0
                                 : times[std::min(times.size() - 1,
                                                  static_cast<std::size_t>(share * static_cast<double>(times.size())))];
        };
        const Json json{{"revisions", written_.size()},
                        {"complete", times.size()},
                        {"p50", at(0.5)},
                        {"p99", at(0.99)},
                        {"max", at(1)},
                        {"nodes", sequences_.size()}};
        fmt::print("{}\n", json.dump());
    }

private:
    bool is_complete() const { return !written_.empty() && written_.back().complete.has_value(); }

    // The applied sequence of a node's one group.  Decoding twenty thousand statuses a second
    // would be most of what is measured.
    static uint64_t applied_in(std::string_view status)
    {
        constexpr std::string_view member = "\"sequence\":";
        const std::size_t applied = status.find("\"applied\":{");
        const std::size_t at = status.find(member, applied);
        uint64_t sequence = 0;
        if (applied != std::string_view::npos && at != std::string_view::npos)
            std::from_chars(status.data() + at + member.size(), status.data() + status.size(), sequence);
        return sequence;
    }

    void take(const std::string &node, uint64_t applied)
    {
        uint64_t &sequence = sequences_[node];
        --counts_[sequence];
        sequence = std::max(sequence, applied);
        ++counts_[sequence];
        if (sequences_.size() < nodes_)
            return;
        counts_.erase(counts_.begin(),
                      std::find_if(counts_.begin(), counts_.end(), [](auto &c) { return c.second > 0; }));
        const uint64_t least = counts_.begin()->first;
        while (next_ < written_.size() && written_[next_].sequence <= least)
            written_[next_++].complete = Clock::now();
    }

    Bus bus_;
    Bus reports_;
    Store store_;
    std::string group_;
    std::size_t nodes_;
    std::vector<Written> written_;
    std::size_t next_ = 0;
    std::map<std::string, uint64_t> sequences_;
    std::map<uint64_t, int64_t> counts_; // nodes at a sequence
    bool is_last_ = false;
};

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7 || sodium_init() < 0)
        return 2;
    try {
        tools::NatsOptions options;
        tools::enable_nats(options);
        const auto rules = static_cast<uint32_t>(std::strtoul(argv[4], nullptr, 10));
        const double rate = std::strtod(argv[5], nullptr);
        const auto revisions = static_cast<uint32_t>(std::strtoul(argv[6], nullptr, 10));
        Bench bench(argv[1], argv[2], std::strtoul(argv[3], nullptr, 10));
        std::random_device random;
        const uint32_t first = random();
        Clock::time_point due = Clock::now();
        for (uint32_t i = 0; i < revisions; ++i) {
            bench.write(make_policy(rules, first + i));
            due += std::chrono::microseconds(static_cast<int64_t>(1e6 / rate));
            if (i + 1 < revisions)
                bench.collect(due);
        }
        bench.last();
        bench.collect(Clock::now() + std::chrono::seconds(30));
        bench.print();
        return 0;
    } catch (const std::exception &fault) {
        fmt::print(stderr, "fleet_writer: {}\n", fault.what());
        return 1;
    }
}
