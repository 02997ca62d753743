/* What the preloaded library does; the layout of the file that FAILING_CALLS names. */
#ifndef TESTS_SUPPORT_FAILING_CALLS_H
#define TESTS_SUPPORT_FAILING_CALLS_H

#include <stdint.h>

struct failing_calls {
    uint64_t fail_sync_every; /* 0: never */
    uint64_t sync_delay_us;   /* a slow disk */
    uint64_t fail_allocation_every;
    uint64_t is_full;    /* not 0: files grow by free_bytes in all */
    uint64_t free_bytes; /* grows when a file is removed */
    char copies[256];    /* a folder that gets each file as it is when it was synced; or empty */

    uint64_t syncs; /* calls so far */
    uint64_t allocations;
    uint64_t failures;
};

#endif
