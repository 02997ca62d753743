// Random graphs for the tools' tests, and their JSON.
#pragma once

#include "support/graphs.hpp"
#include "tools/json/reader.hpp"
#include "tools/json/writer.hpp"
#include "wire/graph.hpp"

#include <random>

namespace test {

// Gives pairs and policies ids of their own, which the reader requires.
inline void number_members(zel_match_action_pair_grp_t &group)
{
    for (uint16_t i = 0; i < group.num_pair; ++i)
        group.pairs[i]->id = i;
}

inline void number_members(const tools::Graph &graph)
{
    if (graph.record() == &zel::wire::match_action_pair_grp)
        return number_members(graph.as<zel_match_action_pair_grp_t>());
    if (graph.record() == &zel::wire::policy)
        return number_members(graph.as<zel_policy_t>().match_action_pair_group);
    if (graph.record() != &zel::wire::policy_list)
        return;
    const auto &list = graph.as<zel_policy_list_t>();
    for (uint16_t i = 0; i < list.num_policy; ++i) {
        list.policies[i]->id = i;
        number_members(list.policies[i]->match_action_pair_group);
    }
}

// Up to three members in every sequence, and so few ids that objects occur again.
// Services always get a new id, because their number of elements is random.
inline tools::Graph random_graph(uint32_t mat_type, uint32_t seed)
{
    const auto random = std::make_shared<std::mt19937>(seed);
    const auto id = [random, fresh = 60u]() mutable {
        const auto drawn = static_cast<uint32_t>((*random)() % 60);
        return drawn % 12 + 1 == ZEL_MATCH_TYPE_SERVICE ? drawn % 12 + (fresh += 12) : drawn;
    };
    Graphs graphs([random] { return (*random)() % 4; }, id);
    tools::Graph graph(mat_type, graphs.make(mat_type));
    number_members(graph);
    return graph;
}

inline bool equal_graphs(const tools::Graph &a, const tools::Graph &b)
{
    return a.record() == b.record() && zel::wire::equal(*a.record(), a.root(), b.root());
}

inline tools::Graph graph_from_json(uint32_t mat_type, std::string_view text)
{
    const tools::Document document = tools::parse_json(text, "test.json");
    tools::JsonReader reader(0);
    return read_graph(reader, *zel::wire::object_of(mat_type), document);
}

// What BadInput says, or nothing when it is not thrown.
template <class Work> std::string complaint(Work work)
{
    try {
        work();
    } catch (const tools::BadInput &fault) {
        return fault.what();
    }
    return {};
}

} // namespace test
