// One contender, one workload and one purpose per run, so that no row finds the heap
// as another one left it.
//
//   list                                     rows and workloads, a line each
//   time ROW WORKLOAD [OPTIONS]              times all directions
//   repeat ROW WORKLOAD DIRECTION COUNT      repeats one direction in measured(), for
//                                            tools that watch a function
#include "bench/case.hpp"
#include "bench/timing.hpp"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace bench {

// Looked up by its name.
extern "C" [[gnu::noinline]] void measured(const std::function<void()> &run, long count)
{
    for (long i = 0; i < count; ++i)
        run();
}

namespace {

// Rows that claim to write the same bytes are held against each other by this.
uint32_t checksum(Bytes bytes)
{
    uint32_t sum = 2166136261;
    for (const unsigned char byte : bytes)
        sum = (sum ^ byte) * 16777619;
    return sum;
}

void list()
{
    for (const Row &row : rows())
        for (const Workload &workload : workloads())
            if (row.in_growth_curves || !workload.is_growth_curve)
                std::printf("%s\t%s\n", row.name.c_str(), workload.name.c_str());
}

void time(Case &the_case, std::vector<char *> options)
{
    const Facts facts{{"objects", double(the_case.objects())},
                      {"bytes", double(the_case.bytes().size())},
                      {"checksum", double(checksum(the_case.bytes()))}};
    std::vector<Measurement> measurements;
    for (const std::string &name : the_case.directions())
        measurements.push_back({name, the_case.direction(name), facts});
    measure(measurements, std::move(options));
}

// The first run tidies the heap up after the check, and is not counted.
void repeat(const std::function<void()> &direction, long count)
{
    direction();
    measured(direction, count);
}

void run(const std::vector<char *> &arguments)
{
    const std::string_view mode = arguments.size() < 2 ? "" : arguments[1];
    if (mode == "list")
        return list();
    if (arguments.size() < 4)
        throw std::runtime_error("list, or time or repeat with a row and a workload");
    Case the_case(arguments[2], arguments[3]);
    if (mode == "time")
        time(the_case, {arguments.begin() + 3, arguments.end()});
    else if (mode == "repeat" && arguments.size() == 6)
        repeat(the_case.direction(arguments[4]), std::strtol(arguments[5], nullptr, 10));
    else
        throw std::runtime_error("not understood: " + std::string(mode));
}

} // namespace
} // namespace bench

int main(int argc, char **argv)
{
    try {
        bench::run({argv, argv + argc});
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
