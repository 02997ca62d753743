// Timing, by Google Benchmark where there is one for the ABI, else by a loop of our
// own that takes the same options and prints the same JSON.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// Numbers that go with a result.
using Facts = std::vector<std::pair<const char *, double>>;

struct Measurement {
    std::string name;
    std::function<void()> run;
    Facts facts;
};

// Times each and prints the results.  options begin with the name of the program.
void measure(const std::vector<Measurement> &measurements, std::vector<char *> options);

} // namespace bench
