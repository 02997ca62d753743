// Running a check, or a measurement, so that a fault of the port does not end the program.
#pragma once

#include "conformance/duties.hpp"

namespace zel::conformance {

// The memory that checks and the program share.  False: there is none.
bool prepare_runs();

extern uint32_t timeout_seconds;

// In a process of its own, for at most so many seconds.
Outcome run(Outcome (*check)());

} // namespace zel::conformance
