// The path from the root of a message or graph to the object that a report is about.
#pragma once

#include "zel.h"

#include <stdint.h>

namespace zel {

// An object on the path.  The steps lie in the frames of the functions that visit them.
struct PathStep {
    const PathStep *container;
    const char *noun;
    uint32_t position; // among the members of a sequence, from 1; 0 for others
};

// Writes the path behind the first used bytes; returns how many are used then.
uint32_t write_path(zel_verify_report_t &report, const PathStep *step);

} // namespace zel
