/* Answers requests that set or remove a policy by saying what came in, and refuses all others. */
#include <stdio.h>
#include <zel-platform/kob_service.h>
#include <zel/service.h>

static void serve(zel_request_t *request)
{
    const zel_kob_header_t *header = &request->header;
    const zel_policy_t *policy = request->object;
    if (header->api_type == ZEL_API_POLICY_UPDATE && header->op_code == ZEL_OP_SET)
        zel_request_answer(request, ZEL_ERROR_NONE, "policy %u is set, with %u pairs", policy->id,
                           policy->match_action_pair_group.num_pair);
    else if (header->api_type == ZEL_API_POLICY_DELETE || header->op_code == ZEL_OP_REMOVE)
        zel_request_answer(request, ZEL_ERROR_NONE, "policy %u is removed", header->policy_id);
}

int main(int argc, char **argv)
{
    const char *address = argc > 1 ? argv[1] : "unix:/run/zel/zel.sock";
    int32_t error = KOB_OK;
    kob_service_t *service = kob_service_open(address, NULL, &error);
    kob_msg_t *msg = kob_msg_alloc();
    if (service != NULL && msg != NULL) {
        printf("ready %s\n", address);
        fflush(stdout);
        while ((error = kob_service_receive(service, msg, -1)) == KOB_OK) {
            zel_request_t request = {.size = sizeof request};
            if (zel_request_read(0, msg, NULL, &request) == ZEL_REQUEST_OK)
                serve(&request);
            kob_service_reply(service, msg, request.reply, request.num_segments);
            zel_request_free(&request);
        }
    }
    fprintf(stderr, "%s: %s\n", address, kob_error_text(error));
    kob_msg_free(msg);
    kob_service_close(service);
    return 1;
}
