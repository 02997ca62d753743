// The verifier for a message format other than the library's own: tests play newer and
// older peers with it.
#pragma once

#include "wire/format.hpp"
#include "zel.h"

namespace zel::wire {

// Fills the report, whose size is not looked at; returns the broken rule or ZEL_VERIFY_OK.
uint32_t verify(const MessageFormat &format, const void *array, bool strict, zel_verify_report_t &report);

} // namespace zel::wire
