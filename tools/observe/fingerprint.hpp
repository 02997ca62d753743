// The fingerprint of the wire description: a number that changes when what travels changes.
#pragma once

#include <cstdint>
#include <string>

namespace observe {

// Covers the records of messages and of statistics: names, ids, widths and nesting.  The
// same on every machine.  Two programs with one fingerprint read and write the same bytes.
uint64_t wire_fingerprint();

// 16 hexadecimal digits.
std::string show_fingerprint(uint64_t fingerprint);

// "1.0.0 (wire 0123456789abcdef)"
std::string version_text(const char *version);

} // namespace observe
