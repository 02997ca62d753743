// The speed of the calls, as multiples of a plain loop.
#pragma once

#include <span>
#include <stdint.h>

namespace zel::conformance {

struct Speed {
    const char *name;
    const char *what;       // one call, or one of many in it
    double (*measure)();    // ns, in this process
    double nanoseconds = 0; // 0: could not be measured
    double ratio = 0;       // to a step of the plain loop
    double reference = 0;   // that ratio of the reference platform, recorded; 0: not recorded
};

// Measures all calls, each in a process of its own.  plain_loop: ns of one of its steps.
std::span<const Speed> measure_speeds(double &plain_loop);

} // namespace zel::conformance
