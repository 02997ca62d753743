// The simulated world for a long run: fleet_simulation STEPS [SEED [WORLDS]]
#include "simulation.hpp"

#include <fmt/core.h>

#include <cstdlib>

int main(int argc, char **argv)
{
    const uint64_t steps = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
    const uint64_t first = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
    const uint64_t worlds = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
    for (uint64_t seed = first; seed < first + worlds; ++seed) {
        simulation::World world(seed, simulation::Plant::nothing);
        try {
            world.run(steps);
        } catch (const simulation::Violation &violation) {
            fmt::print("seed {}: {}\n", seed, violation.what());
            return 1;
        }
        fmt::print("seed {}: {} steps, {} revisions, {} crashes, no violation\n", seed, steps, world.writes(),
                   world.crashes());
    }
    return 0;
}
