// Answers to statistics requests.
#pragma once

#include "tools/zeld/policies.hpp"

namespace zeld {

// Returns the body of the answer, at most max_size bytes: an entry for each pair
// that a query names, in the queries' order. Clears the counters that the queries
// tell to clear, after all queries were answered. When it throws Refusal, no counter
// is cleared.
Bytes answer_statistics(const Policies &policies, uint32_t app_type, const zel_stat_request_t &request,
                        std::size_t max_size);

} // namespace zeld
