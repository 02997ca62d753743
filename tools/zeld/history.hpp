// The last messages, kept in memory as blocks of a capture file.
#pragma once

#include "tools/observe/capture.hpp"

#include <deque>
#include <memory>

namespace zeld {

class History {
public:
    // Keeps so many bytes; 0: nothing. A message takes at most half of them, and is cut
    // otherwise.
    explicit History(std::size_t capacity)
        : capacity_(capacity), ring_(std::make_unique_for_overwrite<unsigned char[]>(capacity))
    {}

    bool is_on() const { return capacity_ != 0; }
    void add(const observe::Captured &message);

    // Messages are numbered in the order in which they were added.
    uint64_t first() const { return first_; } // oldest one that is kept
    uint64_t end() const { return first_ + places_.size(); }
    std::size_t bytes() const { return used_; }
    std::size_t capacity() const { return capacity_; }
    std::string_view block(uint64_t number) const;

private:
    struct Block {
        std::size_t offset;
        std::size_t size;
    };

    void forget_oldest();
    std::size_t make_room(std::size_t size);

    std::size_t capacity_;
    std::unique_ptr<unsigned char[]> ring_; // its pages take memory once they are used
    std::deque<Block> places_{};            // oldest first; a block does not go beyond the end of the ring
    uint64_t first_ = 0;
    std::size_t used_ = 0;
};

} // namespace zeld
