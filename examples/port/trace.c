/* Trace facility and heartbeat: silent. */
#include "zel/platform/trace.h"
#include "zel/platform/heartbeat.h"

const char *const g_applications[] = {"none", "example"};
const uint32_t g_num_applications = sizeof g_applications / sizeof *g_applications;
const char trc_dbg_modname[] = "zel";

int32_t trc_hist_event_subtype_check(uint32_t module, uint32_t trace_id) { return (void)module, (void)trace_id, 1; }

void trc_hist_event(uint32_t module, uint32_t length, const void *record) { (void)module, (void)length, (void)record; }

int32_t trc_chk_int(uint32_t trace_id, uint32_t reserved1, uint32_t reserved2, uint32_t level)
{
    return (void)trace_id, (void)reserved1, (void)reserved2, (void)level, 0;
}

void dbgout(uint32_t level, const void *module_name, uint32_t reserved, const char *format, ...)
{
    (void)level, (void)module_name, (void)reserved, (void)format;
}

void trc_his_log_event_for_uuid_inst(uint32_t log, uint32_t module, uint32_t instance, uint32_t reserved,
                                     uint32_t length, const void *record)
{
    (void)log, (void)module, (void)instance, (void)reserved, (void)length, (void)record;
}

void fu_keeper_update_and_send_heartbeat(int32_t reserved) { (void)reserved; }
