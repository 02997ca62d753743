/* Answers policy updates by saying what came in, and refuses everything else. */
#include "zel-platform/kob_service.h"
#include "zel.h"

#include <stdio.h>
#include <stdlib.h>

/* Clients may send any bytes. So each message is verified before it is parsed. */
static void handle_message(kob_msg_t *msg, zel_api_handle_t *handle, zel_resp_hdr_t *answer)
{
    zel_verify_report_t report = {.size = sizeof report};
    *answer = (zel_resp_hdr_t){.status = 2, .retval = -1};
    if (zel_verify_mat_obj_from_kob(0, msg, NULL, &report) != ZEL_VERIFY_OK) {
        zel_verify_report_text(&report, answer->msg, sizeof answer->msg);
        return;
    }
    uint32_t mat_type = 0, api_type = 0, app_type = 0;
    uint16_t policy_id = 0;
    void *object = parse_mat_obj_from_kob(0, handle, msg, &mat_type, &api_type, &policy_id, &app_type);
    if (object != NULL && api_type == ZEL_API_POLICY_UPDATE) {
        const zel_policy_t *policy = object;
        *answer = (zel_resp_hdr_t){.status = 1};
        snprintf(answer->msg, sizeof answer->msg, "policy %u with %u pairs", (unsigned)policy->id,
                 (unsigned)policy->match_action_pair_group.num_pair);
    } else {
        snprintf(answer->msg, sizeof answer->msg, "request kind %u is not served here", (unsigned)api_type);
    }
    free_contained_mat_obj_mem(handle, app_type, mat_type, object);
    free(object);
}

int main(int argc, char **argv)
{
    const char *address = argc > 1 ? argv[1] : "unix:/tmp/zel.sock";
    int32_t error = KOB_OK;
    kob_service_t *service = kob_service_open(address, NULL, &error);
    kob_msg_t *msg = kob_msg_alloc();
    if (service == NULL || msg == NULL) {
        fprintf(stderr, "%s: %s\n", address, kob_error_text(error));
        return 1;
    }
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 0, ZEL_KOB_NO_TRANSPORT, NULL, NULL, NULL);
    printf("ready %s\n", address);
    fflush(stdout);
    while ((error = kob_service_receive(service, msg, -1)) == KOB_OK) {
        zel_resp_hdr_t answer;
        handle_message(msg, &handle, &answer);
        const mpkob_segment_t segment = {&answer, sizeof answer};
        kob_service_reply(service, msg, &segment, 1);
    }
    fprintf(stderr, "%s: %s\n", address, kob_error_text(error));
    kob_msg_free(msg);
    kob_service_close(service);
    return 1;
}
