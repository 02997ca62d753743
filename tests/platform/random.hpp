// Random numbers that are the same in every run, so that a failure comes back.
#pragma once

#include <random>

struct Random : std::mt19937 {
    explicit Random(unsigned seed) : std::mt19937(seed) {}
};
