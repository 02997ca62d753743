// Graphs to send: one with everything in it, and random ones of every kind.
#pragma once

#include "zel.h"

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <random>
#include <vector>

namespace test {

// A record on the heap, as a client would allocate it.
template <class R> R *make(const R &record)
{
    auto *copy = static_cast<R *>(std::calloc(1, sizeof(R)));
    *copy = record;
    return copy;
}

template <class R> R **array_of(const std::vector<R *> &members)
{
    auto **array = static_cast<R **>(std::calloc(members.size() + 1, sizeof(R *)));
    std::copy(members.begin(), members.end(), array);
    return array;
}

template <class R> uint16_t count_of(const std::vector<R *> &members)
{
    return static_cast<uint16_t>(members.size());
}

// Matches and actions with content that follows from type and id.
zel_match_t *make_match(uint32_t type, uint16_t id);
zel_action_t *make_action(uint32_t type, uint16_t id, uint32_t redirect_type = 0);
zel_match_grp_t make_match_group(const std::vector<zel_match_t *> &matches);
zel_action_grp_t make_action_group(const std::vector<zel_action_t *> &actions);

// Every record kind, every match and action type, every redirect, a reference to
// a match and to an action; values that tell fields apart.
zel_policy_list_t *full_policy_list();
zel_stat_request_t *full_stat_request();

// A random graph of the kind that a request carries, with repeated objects.
void *random_graph(uint32_t mat_type, std::mt19937 &random);

// Frees what it owns, and the root.
void free_graph(uint32_t mat_type, void *root);

} // namespace test
