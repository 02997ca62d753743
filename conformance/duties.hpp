// The duties of a port, as one table: what is checked, what docs/porting.md says, and what the
// program prints.
#pragma once

#include "conformance/check.hpp"

#include <span>

namespace zel::conformance {

struct Duty {
    const char *name;
    const char *must_hold;
    const char *relied_on_for;
    const char *otherwise;
    Outcome (*check)();
    // While a duty that begins so is broken, this one cannot be checked; null: there is none.
    const char *needs = nullptr;
    const char *needs_too = nullptr;
};

std::span<const Duty> all_duties();

// A symbol that a port may lack.
struct OptionalSymbol {
    const char *name;
    const char *gives;
    bool is_present;
};

std::span<const OptionalSymbol> optional_symbols();

} // namespace zel::conformance
