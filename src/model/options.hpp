// Options records and reports begin with the size that their caller knows.
#pragma once

#include "zel.h"

#include <algorithm>
#include <cstring>

namespace zel {

// The options of a caller that knows fewer members, or more; null stands for all zero.
template <class Options> Options read_options(const Options *given)
{
    Options options{};
    if (given != nullptr)
        std::memcpy(&options, given, std::min<std::size_t>(given->size, sizeof options));
    return options;
}

// Fills as much of a caller's report as the caller knows; null is ignored.
inline void hand_out(const zel_verify_report_t &report, zel_verify_report_t *out)
{
    if (out == nullptr)
        return;
    const uint32_t size = out->size;
    std::memcpy(out, &report, std::min<std::size_t>(size, sizeof report));
    out->size = size;
}

} // namespace zel
