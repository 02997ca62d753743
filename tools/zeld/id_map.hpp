// A map from 16-bit ids to values whose copies share memory.
//
// A copy costs one pointer for each 256 ids. A change copies the leaf that it falls
// into, unless this map is the leaf's only owner. So a policy can have an old and a
// new version at a time, and a new version costs in proportion to the change.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace zeld {

template <class V> class IdMap {
public:
    const V *find(uint16_t id) const
    {
        const auto leaf = leaf_of(leaves_, id);
        if (leaf == leaves_.end() || key_of(*leaf) != id / leaf_ids)
            return nullptr;
        const auto entry = entry_of(**leaf, id);
        return entry != (*leaf)->end() && entry->first == id ? &entry->second : nullptr;
    }

    // The value of an id, which is made if there is none.
    V &edit(uint16_t id)
    {
        Leaf &leaf = **own_leaf(id);
        auto entry = entry_of(leaf, id);
        if (entry == leaf.end() || entry->first != id)
            entry = leaf.emplace(entry, id, V{});
        return entry->second;
    }

    // There must be a value.
    void erase(uint16_t id)
    {
        const auto leaf = own_leaf(id);
        (*leaf)->erase(entry_of(**leaf, id));
        if ((*leaf)->empty())
            leaves_.erase(leaf);
    }

    bool empty() const { return leaves_.empty(); }

    // Calls visit(id, value) in ascending order of the ids.
    template <class Visit> void for_each(Visit visit) const
    {
        for (const auto &leaf : leaves_)
            for (const auto &[id, value] : *leaf)
                visit(id, value);
    }

    // Bytes that an entry takes, with the room that a growing leaf has to spare.
    static constexpr std::size_t entry_size = 2 * sizeof(std::pair<uint16_t, V>);
    // Bytes that a map takes with its first leaf.
    static constexpr std::size_t base_size = 128;

private:
    using Leaf = std::vector<std::pair<uint16_t, V>>; // in ascending order; never empty
    using Leaves = std::vector<std::shared_ptr<Leaf>>;
    static constexpr unsigned leaf_ids = 256;

    static unsigned key_of(const std::shared_ptr<Leaf> &leaf) { return leaf->front().first / leaf_ids; }

    // Ids that leave no gap, as they mostly do, are at their place.
    template <class L> static auto leaf_of(L &leaves, uint16_t id)
    {
        const std::size_t place = id / leaf_ids;
        if (place < leaves.size() && key_of(leaves[place]) == place)
            return leaves.begin() + static_cast<std::ptrdiff_t>(place);
        return std::partition_point(leaves.begin(), leaves.end(),
                                    [&](const auto &leaf) { return key_of(leaf) < id / leaf_ids; });
    }

    template <class L> static auto entry_of(L &leaf, uint16_t id)
    {
        const std::size_t place = id % leaf_ids;
        if (place < leaf.size() && leaf[place].first == id)
            return leaf.begin() + static_cast<std::ptrdiff_t>(place);
        return std::partition_point(leaf.begin(), leaf.end(), [&](const auto &entry) { return entry.first < id; });
    }

    // The leaf for an id, made or copied so that it can be changed.
    auto own_leaf(uint16_t id)
    {
        const auto leaf = leaf_of(leaves_, id);
        if (leaf == leaves_.end() || key_of(*leaf) != id / leaf_ids)
            return leaves_.insert(leaf, std::make_shared<Leaf>());
        if (leaf->use_count() != 1)
            *leaf = std::make_shared<Leaf>(**leaf);
        return leaf;
    }

    Leaves leaves_; // in ascending order
};

} // namespace zeld
