// Times what zel.hpp adds to the C calls: values WORKLOAD ROUNDS.
//
// Prints nanoseconds per match or action, medians over the rounds, as JSON:
//   records   fills C records, in a block for each kind, and makes the message
//   vectors   fills the values of zel.hpp, and does nothing with them
//   values    fills the values and makes the message, with the ids of the program
//   numbered  the same, with ids that zel.hpp gives by content
#include "bench/workloads.hpp"
#include "bench/zel_graph.hpp"
#include "zel.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <malloc.h>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

// A workload as a program has it, which knows how many records it needs.
struct Source {
    explicit Source(std::vector<const zel_policy_t *> given) : policies(std::move(given))
    {
        for (const zel_policy_t *const policy : policies) {
            interfaces += policy->if_group.num_if;
            pairs += policy->match_action_pair_group.num_pair;
            for (uint32_t i = 0; i < policy->match_action_pair_group.num_pair; ++i)
                count(*policy->match_action_pair_group.pairs[i]);
        }
    }
    void count(const zel_match_action_pair_t &pair)
    {
        matches += pair.match_group.num_match;
        actions += pair.action_group.num_action;
        for (uint32_t i = 0; i < pair.match_group.num_match; ++i)
            if (const zel_match_t &match = *pair.match_group.matches[i]; match.type == ZEL_MATCH_TYPE_SERVICE)
                elements += match.param.service.num_elements;
    }
    std::size_t objects() const { return matches + actions; }

    std::vector<const zel_policy_t *> policies;
    std::size_t pairs = 0, matches = 0, actions = 0, elements = 0, interfaces = 0;
};

// A block for the records of one kind and one for the pointers to them.
template <class R> class Block {
public:
    explicit Block(std::size_t most)
        : records_(static_cast<R *>(std::calloc(most, sizeof(R)))),
          pointers_(static_cast<R **>(std::calloc(most, sizeof(R *))))
    {}
    ~Block()
    {
        std::free(records_);
        std::free(pointers_);
    }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    R &add(const R &from)
    {
        pointers_[used_] = &records_[used_];
        return records_[used_++] = from;
    }
    R **end() const { return pointers_ + used_; }

private:
    R *records_;
    R **pointers_;
    std::size_t used_ = 0;
};

// What a C program writes: records in arrays, and pointers to them.
class Records {
public:
    explicit Records(const Source &source)
        : policies_(source.policies.size()), pairs_(source.pairs), matches_(source.matches), actions_(source.actions),
          elements_(source.elements), interfaces_(source.interfaces)
    {
        list_ = {static_cast<uint16_t>(source.policies.size()), policies_.end()};
        for (const zel_policy_t *const policy : source.policies)
            add(*policy);
    }
    const zel_policy_list_t &list() const { return list_; }

private:
    void add(const zel_policy_t &from)
    {
        zel_policy_t &policy = policies_.add(from);
        policy.if_group.if_elements = interfaces_.end();
        for (uint32_t i = 0; i < from.if_group.num_if; ++i)
            interfaces_.add(*from.if_group.if_elements[i]);
        policy.match_action_pair_group.pairs = pairs_.end();
        for (uint32_t i = 0; i < from.match_action_pair_group.num_pair; ++i)
            add(*from.match_action_pair_group.pairs[i]);
    }

    void add(const zel_match_action_pair_t &from)
    {
        zel_match_action_pair_t &pair = pairs_.add(from);
        pair.match_group.matches = matches_.end();
        for (uint32_t i = 0; i < from.match_group.num_match; ++i)
            add(*from.match_group.matches[i]);
        pair.action_group.actions = actions_.end();
        for (uint32_t i = 0; i < from.action_group.num_action; ++i)
            actions_.add(*from.action_group.actions[i]);
    }

    void add(const zel_match_t &from)
    {
        zel_match_t &match = matches_.add(from);
        if (from.type != ZEL_MATCH_TYPE_SERVICE)
            return;
        match.param.service.elements = elements_.end();
        for (uint32_t i = 0; i < from.param.service.num_elements; ++i)
            elements_.add(*from.param.service.elements[i]);
    }

    zel_policy_list_t list_{};
    Block<zel_policy_t> policies_;
    Block<zel_match_action_pair_t> pairs_;
    Block<zel_match_t> matches_;
    Block<zel_action_t> actions_;
    Block<zel_match_service_element_t> elements_;
    Block<zel_if_element_t> interfaces_;
};

std::vector<zel::Policy> values_of(const Source &source, bool has_ids)
{
    std::vector<zel::Policy> policies;
    policies.reserve(source.policies.size());
    for (const zel_policy_t *const policy : source.policies)
        policies.push_back(zel::to_value(*policy));
    if (!has_ids)
        for (zel::Policy &policy : policies)
            for (zel::Pair &pair : policy.pairs) {
                for (zel::Match &match : pair.matches)
                    match.id = match.pre_match_id = 0;
                for (zel::Action &action : pair.actions)
                    action.id = 0;
            }
    return policies;
}

std::string message_of(const void *list)
{
    const zel_kob_header_t header{ZEL_API_POLICY_LIST_UPDATE, 0, 0, ZEL_OP_SET};
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    uint32_t size = 0;
    void *const message = zel_encode_message(&handle, &header, list, &size);
    if (message == nullptr)
        throw std::bad_alloc();
    std::string bytes(static_cast<const char *>(message), size);
    std::free(message);
    return bytes;
}

std::string from_values(const Source &source, bool has_ids)
{
    const auto graph = zel::Graph::of(values_of(source, has_ids));
    if (!graph)
        throw std::runtime_error(graph.error().text);
    return message_of(graph->root());
}

double median(std::vector<double> samples)
{
    std::ranges::sort(samples);
    return samples[samples.size() / 2];
}

// The policies of a graph as the benchmark makes it.
std::vector<const zel_policy_t *> policies_of(const bench::Message &message)
{
    const void *const root = bench::to_zel(message);
    if (bench::api_type_of(message) != ZEL_API_POLICY_LIST_UPDATE)
        return {static_cast<const zel_policy_t *>(root)};
    const auto &list = *static_cast<const zel_policy_list_t *>(root);
    return {list.policies, list.policies + list.num_policy};
}

void run(const char *workload_name, long rounds)
{
    const auto all = bench::workloads();
    const auto workload = std::ranges::find(all, workload_name, &bench::Workload::name);
    if (workload == all.end())
        throw std::runtime_error("no such workload");
    const Source source(policies_of(workload->make()));

    std::size_t total = 0; // what is made is used
    const std::pair<const char *, std::function<void()>> ways[] = {
        {"records", [&] { total += message_of(&Records(source).list()).size(); }},
        {"vectors", [&] { total += values_of(source, true).size(); }},
        {"values", [&] { total += from_values(source, true).size(); }},
        {"numbered", [&] { total += from_values(source, false).size(); }}};
    if (message_of(&Records(source).list()) != from_values(source, true))
        throw std::runtime_error("records and values make different messages");

    std::vector<double> samples[std::size(ways)];
    for (long round = 0; round < rounds; ++round)
        for (std::size_t way = 0; way < std::size(ways); ++way) {
            long repetitions = 0;
            const auto begin = Clock::now();
            std::chrono::duration<double, std::nano> time{};
            for (; time.count() < 5e6; ++repetitions, time = Clock::now() - begin)
                ways[way].second();
            samples[way].push_back(time.count() / static_cast<double>(repetitions) /
                                   static_cast<double>(source.objects()));
        }
    for (std::size_t way = 0; way < std::size(ways); ++way)
        std::printf("%s\"%s\": %.1f", way == 0 ? "{" : ", ", ways[way].first, median(samples[way]));
    std::printf(", \"bytes\": %zu}\n", total != 0 ? message_of(&Records(source).list()).size() : 0);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        if (argc != 3)
            throw std::runtime_error("a workload and a number of rounds");
        // The heap keeps its pages: otherwise each round pays for those of the one before it.
        constexpr int kept = 256 << 20;
        mallopt(M_TRIM_THRESHOLD, kept);
        mallopt(M_MMAP_THRESHOLD, kept);
        run(argv[1], std::strtol(argv[2], nullptr, 10));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
