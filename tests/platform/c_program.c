/* The public headers are C, and the library needs nothing that the C compiler does not link. */
#include "zel-platform/kob_client.h"
#include "zel-platform/kob_service.h"
#include "zel-platform/manager.h"
#include "zel-platform/tlv_check.h"
#include "zel-platform/tlv_field.h"
#include "zel-platform/trace_control.h"
#include "zel/platform/tlv_array.h"
#include "zel/platform/trace.h"

#include <stdio.h>
#include <unistd.h>

int main(void)
{
    char address[64];
    snprintf(address, sizeof address, "unix:/tmp/zel-c-program-%d", (int)getpid());
    kob_service_t *service = kob_service_open(address, NULL, NULL);
    uint32_t kob = kob_open(address, NULL, NULL);
    kob_msg_t *msg = kob_msg_alloc();
    unsigned char array[64] = {0};
    int failures = zel_trace_init() != 0;
    failures +=
        &g_num_applications == NULL || g_num_applications == 0 || g_applications[g_num_applications - 1] == NULL;
    zel_manager_notify("READY=1");
    failures += tlv_array_add_tlv(array, sizeof array, 7, 5, "hello", 0) != TLV_OK;
    failures += fu_kob_send(kob, 1, 2, 3, array, sizeof array, msg, 0, 0) != KOB_OK;
    failures += kob_service_receive(service, msg, 20000) != KOB_OK;
    failures += tlv_array_get_num_tlvs(kob_payload_get(msg), 0) != 1;
    kob_msg_free(msg);
    kob_close(kob);
    kob_service_close(service);
    return failures;
}
