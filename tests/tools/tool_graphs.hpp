// Random graphs for the tools' tests, and their JSON.
#pragma once

#include "support/graphs.hpp"
#include "tools/json/json_reader.hpp"
#include "tools/json/json_writer.hpp"

#include <random>

namespace test {

// What the reader of policies insists on and random numbers do not give: no two
// pairs, and no two policies, of one id.
inline void number_members(zel_match_action_pair_grp_t &group)
{
    for (uint16_t i = 0; i < group.num_pair; ++i)
        group.pairs[i]->id = i;
}
inline void number_members(zel_policy_t &policy) { number_members(policy.match_action_pair_group); }
inline void number_members(zel_policy_list_t &list)
{
    for (uint16_t i = 0; i < list.num_policy; ++i) {
        list.policies[i]->id = i;
        number_members(*list.policies[i]);
    }
}
template <class R> void number_members(R &) {}

// Up to three members in every sequence, and so few ids that objects occur again;
// except for services, which would not have the same number of elements again.
inline tools::Graph random_graph(uint32_t mat_type, uint32_t seed)
{
    const auto random = std::make_shared<std::mt19937>(seed);
    const auto id = [random, fresh = 60u]() mutable {
        const auto drawn = static_cast<uint32_t>((*random)() % 60);
        return drawn % 12 + 1 == ZEL_MATCH_TYPE_SERVICE ? drawn % 12 + (fresh += 12) : drawn;
    };
    Graphs graphs([random] { return (*random)() % 4; }, id);
    tools::Graph graph(mat_type, graphs.make(mat_type));
    tools::visit_mat_type(mat_type, [&]<class R>(R *) { number_members(graph.as<R>()); });
    return graph;
}

inline bool equal_graphs(const tools::Graph &a, const tools::Graph &b)
{
    bool same = false;
    tools::visit_mat_type(a.mat_type(), [&]<class R>(R *) { same = tools::equal(a.as<R>(), b.as<R>()); });
    return same && a.mat_type() == b.mat_type();
}

inline tools::Graph graph_from_json(uint32_t mat_type, std::string_view text)
{
    const tools::Document document = tools::parse_json(text, "test.json");
    tools::JsonReader reader(0);
    return read_graph(reader, mat_type, document);
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
