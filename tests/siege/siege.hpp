// What every attack has: a service, a well-behaved client that is measured meanwhile, and
// a row of the table.
#pragma once

#include "support/failing_calls.hpp"
#include "zeld_process.hpp"

#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace siege {

using namespace test;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

inline double seconds_since(Clock::time_point start) { return Seconds(Clock::now() - start).count(); }

// A line of the table. What does not apply is left 0 or empty.
struct Row {
    std::string attack;
    uint64_t attempts = 0;
    uint64_t refused = 0;
    uint64_t lost = 0; // acknowledged and not there, altered in silence, crashed or left waiting: never
    std::string waited{};
    uint64_t missed = 0; // limits of time that an idle machine has to keep
};

// Attacks for some seconds.
struct Attack {
    const char *name;
    std::function<Row(double seconds)> run;
    bool has_limits = false; // promises a client's wait, signs of life and a quick stop
};
std::vector<Attack> attacks_on_state();
std::vector<Attack> attacks_by_clients();
std::vector<Attack> attacks_by_faults();

} // namespace siege
