// The one option is --benchmark_min_time.
#include "bench/timing.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

namespace bench {
namespace {

double cpu_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

double seconds_for(const Measurement &measurement, long iterations)
{
    const double start = cpu_seconds();
    for (long i = 0; i < iterations; ++i)
        measurement.run();
    return cpu_seconds() - start;
}

double min_time(const std::vector<char *> &options)
{
    constexpr std::string_view name = "--benchmark_min_time=";
    for (const std::string_view option : options)
        if (option.starts_with(name))
            return std::strtod(option.data() + name.size(), nullptr);
    return 0.5;
}

// More iterations until they take long enough; these count.
void measure(const Measurement &measurement, double wanted)
{
    long iterations = 1;
    double seconds = seconds_for(measurement, iterations);
    while (seconds < wanted) {
        const double factor = seconds > wanted / 10 ? 1.4 * wanted / seconds : 10;
        iterations = std::max(iterations + 1, long(double(iterations) * factor));
        seconds = seconds_for(measurement, iterations);
    }
    std::printf("{\"name\": \"%s\", \"iterations\": %ld, \"cpu_time\": %.17g, \"time_unit\": \"ns\"",
                measurement.name.c_str(), iterations, 1e9 * seconds / double(iterations));
    for (const auto &[name, value] : measurement.facts)
        std::printf(", \"%s\": %.17g", name, value);
    std::printf("}");
}

} // namespace

void measure(const std::vector<Measurement> &measurements, std::vector<char *> options)
{
    const char *separator = "";
    std::printf("{\"benchmarks\": [");
    for (const Measurement &measurement : measurements) {
        std::printf("%s\n", std::exchange(separator, ","));
        measure(measurement, min_time(options));
    }
    std::printf("\n]}\n");
}

} // namespace bench
