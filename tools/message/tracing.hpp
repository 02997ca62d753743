// The library's traces in the tools: on when one of the environment variables of
// zel-platform/trace_control.h is set.
#pragma once

#include "zel-platform/trace_control.h"

#include <cstdlib>
#include <initializer_list>

namespace tools {

constexpr const char *trace_help = "Traces of the library: ZEL_TRACE_CONSOLE, ZEL_TRACE_LOG and ZEL_TRACE_HISTORY name "
                                   "trace ids (102 to 105, or all), ZEL_TRACE_LOG_FILE a file.";

// The debug flag for handles.
inline uint32_t trace_flag()
{
    for (const char *name : {"ZEL_TRACE_CONSOLE", "ZEL_TRACE_LOG", "ZEL_TRACE_LOG_FILE", "ZEL_TRACE_HISTORY"})
        if (std::getenv(name) != nullptr)
            return 1;
    return 0;
}

} // namespace tools
