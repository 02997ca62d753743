// The handle.
#include "zel.h"
#include "zel/platform/avl_tree.h"

#include <cstddef>

zel_api_handle_t zel_api_handle;
uint32_t ddb_kobops_ix_t;

int32_t zel_api_init(zel_api_handle_t *handle, uint32_t debug, uint32_t app_type, uint32_t kob_handle,
                     zel_trace_cb_t err_cb, zel_trace_cb_t warn_cb, zel_trace_cb_t dbg_cb)
{
    handle->app_type = app_type;
    handle->kob_handle = kob_handle;
    handle->debug = debug;
    handle->err_cb = err_cb;
    handle->warn_cb = warn_cb;
    handle->dbg_cb = dbg_cb;
    handle->faults = {};
    return ravl_init(&handle->mat_cache, sizeof(zel_mat_cache_key_t), offsetof(zel_mat_cache_entry_t, key),
                     zel_mat_cache_comp_func);
}

int32_t zel_event_handling() { return 0; }
