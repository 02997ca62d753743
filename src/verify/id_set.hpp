// The ids of objects that have come.
#pragma once

#include <algorithm>
#include <iterator>
#include <stdint.h>

namespace zel {

// A bit per id, in parts that are cleared when they are first needed: a small message needs one.
class IdSet {
public:
    bool contains(uint32_t id) const { return is_cleared(id) && (word_of(id) & bit_of(id)) != 0; }

    // False: the id is in the set already.
    bool insert(uint32_t id)
    {
        if (!is_cleared(id)) {
            std::fill(std::begin(parts_[id / part_size]), std::end(parts_[id / part_size]), 0);
            cleared_ |= uint64_t{1} << id / part_size;
        }
        uint64_t &word = parts_[id / part_size][id % part_size / word_size];
        const bool is_new = (word & bit_of(id)) == 0;
        word |= bit_of(id);
        return is_new;
    }

private:
    static constexpr uint32_t part_size = 1024; // ids
    static constexpr uint32_t word_size = 64;

    bool is_cleared(uint32_t id) const { return (cleared_ >> id / part_size & 1) != 0; }
    uint64_t word_of(uint32_t id) const { return parts_[id / part_size][id % part_size / word_size]; }
    static uint64_t bit_of(uint32_t id) { return uint64_t{1} << id % word_size; }

    uint64_t cleared_ = 0;
    uint64_t parts_[65536 / part_size][part_size / word_size];
};

} // namespace zel
