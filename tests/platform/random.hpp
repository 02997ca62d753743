// Random numbers that are the same in every run, so that a failure comes back.
#pragma once

#include <random>
#include <stdint.h>

class Random : public std::mt19937 {
public:
    explicit Random(uint32_t seed) : std::mt19937(seed) {}
};
