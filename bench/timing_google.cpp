#include "bench/timing.hpp"

#include <benchmark/benchmark.h>

namespace bench {

void measure(const std::vector<Measurement> &measurements, std::vector<char *> options)
{
    int count = int(options.size());
    benchmark::Initialize(&count, options.data());
    for (const Measurement &measurement : measurements)
        benchmark::RegisterBenchmark(measurement.name.c_str(), [&measurement](benchmark::State &state) {
            for (auto _ : state)
                measurement.run();
            for (const auto &[name, value] : measurement.facts)
                state.counters[name] = value;
        });
    benchmark::RunSpecifiedBenchmarks();
}

} // namespace bench
