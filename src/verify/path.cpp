// The text of a path.
#include "verify/path.hpp"

#include <algorithm>
#include <cstdio>

namespace zel {

uint32_t write_path(zel_verify_report_t &report, const PathStep *step)
{
    if (step == nullptr)
        return 0;
    const uint32_t used = write_path(report, step->container);
    char *const end = report.path + used;
    const std::size_t room = sizeof report.path - used;
    const char *const separator = used != 0 ? " / " : "";
    const int written = step->position != 0 ? std::snprintf(end, room, "%s%s %u", separator, step->noun, step->position)
                                            : std::snprintf(end, room, "%s%s", separator, step->noun);
    return std::min<uint32_t>(used + static_cast<uint32_t>(written), sizeof report.path - 1);
}

} // namespace zel
