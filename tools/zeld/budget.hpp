// What the work on one request may take: memory and steps.
#pragma once

#include "tools/zeld/refusal.hpp"

#include <cstddef>
#include <cstdint>

namespace zeld {

// Bytes that the heap adds to each block, approximately.
constexpr std::size_t block_overhead = 16;

// Holds for the work that is done on this thread while the object exists. Small
// messages can ask for much memory and much work: a group that is set may stand in
// 65,535 pairs, and a match that is removed may stand in all groups.
class Budget {
public:
    // A step is to look at one member of a policy or to place one, some 10 ns.
    static constexpr uint64_t max_steps = uint64_t{1} << 23;

    explicit Budget(std::size_t bytes) : limit_(bytes), outer_(current_)
    {
        current_ = this;
        ++request_;
    }
    ~Budget() { current_ = outer_; }
    Budget(const Budget &) = delete;
    Budget &operator=(const Budget &) = delete;

    // Both add to what the request has taken, and throw Refusal above the limit.
    static void charge(std::size_t bytes);
    static void step(uint64_t steps = 1);

    uint64_t steps() const { return steps_; }

    // Tells requests apart.
    static uint64_t request() { return request_; }

private:
    static uint64_t request_;
    static Budget *current_;
    std::size_t limit_;
    std::size_t taken_ = 0;
    uint64_t steps_ = 0;
    Budget *outer_;
};

} // namespace zeld
