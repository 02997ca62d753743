// What every fuzz target is: a function over bytes, which ends the process when a
// promise of the library is broken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);

namespace fuzz {

[[noreturn]] inline void fail(const char *condition, const char *file, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    std::abort();
}

} // namespace fuzz

#define REQUIRE(condition) (static_cast<bool>(condition) ? void() : fuzz::fail(#condition, __FILE__, __LINE__))
