// Progress of long work, shown on standard error when that is a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace tools {

// Writes nothing during the first 200 ms, and then at most every 200 ms.
class Progress {
public:
    Progress(const std::string &work, std::size_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void reached(std::size_t done);
    // Takes the line away, so that something else can be printed.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    std::string work_;
    std::size_t total_;
    bool watched_;
    bool shown_ = false;
    Clock::time_point next_;
};

} // namespace tools
