#include "tools/json/progress.hpp"

#include "tools/text/safe_text.hpp"

#include <fmt/core.h>

#include <cstdio>
#include <unistd.h>

namespace tools {

constexpr std::chrono::milliseconds step{200};

Progress::Progress(const std::string &work, std::size_t total)
    : work_(safe_text(work, 100)), total_(total), watched_(isatty(STDERR_FILENO) != 0), next_(Clock::now() + step)
{}

Progress::~Progress() { clear(); }

void Progress::clear()
{
    if (!shown_)
        return;
    fmt::print(stderr, "\r\x1b[K");
    (void)std::fflush(stderr);
    shown_ = false;
}

void Progress::reached(std::size_t done)
{
    if (!watched_ || Clock::now() < next_)
        return;
    fmt::print(stderr, "\r{}: {} of {} ({} %)", work_, done, total_, total_ == 0 ? 100 : 100 * done / total_);
    (void)std::fflush(stderr);
    shown_ = true;
    next_ = Clock::now() + step;
}

} // namespace tools
