// Statistics results: from a response to one block, and back to the heap.
#include "zel.h"
#include "zel/platform/transport.h"

#include <cstdlib>

namespace {

// The service's status words under which a body of statistics follows.
constexpr uint32_t status_complete = 10;
constexpr uint32_t status_answered = 1;

bool carries_statistics(const zel_resp_hdr_t &header)
{
    return header.status == status_complete || (header.status == status_answered && header.error == 0);
}

} // namespace

int32_t zel_stat_results_get_num_entries(const void *results)
{
    return static_cast<int32_t>(static_cast<const zel_stat_results_t *>(results)->num_entries);
}

zel_stat_results_t *zel_parse_stats(void *kob_msg)
{
    const zel_resp_hdr_t *const header = zel_get_resp_hdr(kob_msg);
    if (header == nullptr || !carries_statistics(*header))
        return nullptr;
    const void *const body = static_cast<const char *>(kob_payload_get(kob_msg)) + sizeof *header;
    zel_stat_results_t *results = nullptr;
    zel_stat_results_to_struct(&results, body, 0, 0);
    if (results != nullptr && results->num_entries != 0)
        results->entries = reinterpret_cast<zel_stat_result_entry_t *>(results + 1);
    return results;
}

void zel_free_stat_results(zel_stat_results_t *results)
{
    if (results != nullptr)
        std::free(results);
}
