// Progress of long work, for whoever is watching standard error.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace tools {

// Says nothing when standard error is no terminal, nor in the first moments.
class Progress {
public:
    Progress(std::string work, std::size_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void reached(std::size_t done);

private:
    using Clock = std::chrono::steady_clock;

    std::string work_;
    std::size_t total_;
    bool watched_;
    bool shown_ = false;
    Clock::time_point next_;
};

} // namespace tools
