// Machines in a simulated world: each property is checked with many seeds, and each planted
// fault has to be found.
#include "simulation.hpp"

#include <gtest/gtest.h>

namespace {

using namespace simulation;

constexpr uint64_t steps = 3000;

// The first seed whose world ends in a violation, or 0.
uint64_t first_violation(Plant plant, uint64_t seeds, std::string &text)
{
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        World world(seed, plant);
        try {
            world.run(steps);
        } catch (const Violation &violation) {
            text = fmt::format("seed {}: {}", seed, violation.what());
            return seed;
        }
    }
    return 0;
}

TEST(Simulation, EveryNodeConvergesToTheNewestRevision)
{
    std::string text;
    EXPECT_EQ(first_violation(Plant::nothing, 40, text), 0U) << text;
}

TEST(Simulation, PlantedFaultsAreFound)
{
    const std::pair<Plant, const char *> plants[] = {
        {Plant::lost_read_back, "lost read-back"},
        {Plant::ignored_epoch, "epoch ignored"},
        {Plant::forgotten_removal, "removal forgotten"},
        {Plant::unsaved_intent, "intent not saved"},
        {Plant::unnoticed_replacement, "replacement of the service not noticed"},
    };
    for (const auto &[plant, name] : plants) {
        std::string text;
        EXPECT_NE(first_violation(plant, 40, text), 0U) << name;
    }
}

} // namespace
