// Answers to statistics requests.
#pragma once

#include "tools/zeld/policies.hpp"

namespace zeld {

// The body of the answer, of at most so many bytes: an entry for each pair that
// a query names, in the queries' order.  Then sets to zero the counters that are
// to be.  Throws Refusal before it has.
Bytes answer_statistics(const Policies &policies, uint32_t app_type, const zel_stat_request_t &request,
                        std::size_t max_size);

} // namespace zeld
