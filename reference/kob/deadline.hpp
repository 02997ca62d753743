// A point in time until which a call may wait.
#pragma once

#include <limits.h>
#include <stdint.h>
#include <time.h>

namespace zel::platform {

inline uint64_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

class Deadline {
public:
    explicit Deadline(uint64_t at_ms) : at_ms_(at_ms) {}

    static Deadline in(uint32_t ms) { return Deadline(now_ms() + ms); }
    static Deadline never() { return Deadline(UINT64_MAX); }

    bool has_passed() const { return now_ms() >= at_ms_; }

    // Milliseconds for poll() and epoll_wait(); never negative, which would mean no limit.
    int remaining() const
    {
        const uint64_t now = now_ms();
        if (now >= at_ms_)
            return 0;
        return at_ms_ - now < INT_MAX ? static_cast<int>(at_ms_ - now) : INT_MAX;
    }

private:
    uint64_t at_ms_;
};

} // namespace zel::platform
