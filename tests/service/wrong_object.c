/* Sends a message whose header announces a pair group and that carries a policy. Prints the answer. */
#include "zel-platform/kob_client.h"
#include "zel.h"
#include "zel/platform/transport.h"

#include <stdio.h>

int main(int argc, char **argv)
{
    const uint32_t kob = argc > 1 ? kob_open(argv[1], NULL, NULL) : 0;
    kob_msg_t *const msg = kob_msg_alloc();
    if (kob == 0 || msg == NULL)
        return 1;
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 1, kob, NULL, NULL, NULL);
    const zel_kob_header_t header = {ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE, 1, 7, 1};
    const zel_policy_t policy = {.id = 7};
    char message[1024] = {0};
    const uint32_t size =
        4 + zel_kob_header_get_tlv_sz() + get_mat_obj_size_for_kob(&handle, 1, ZEL_MAT_TYPE_POLICY, &policy);
    if (size > sizeof message)
        return 1;
    zel_add_kob_header_to_tlv(&handle, message, size, &header);
    assemble_mat_obj_for_kob(&handle, 1, message, size, ZEL_MAT_TYPE_POLICY, &policy);

    char text[ZEL_RESP_TEXT_SIZE + 1] = {0};
    if (fu_kob_send(kob, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, ZEL_KOB_OPC_REQUEST, message, size, msg, 0, 0) != KOB_OK ||
        kob_receive(kob, kob_rr_token_get(msg), msg, 10000) != KOB_OK) {
        fprintf(stderr, "no answer: %s\n", kob_error_text(kob_errno_get(kob)));
        return 1;
    }
    const int32_t retval = zel_parse_response(msg, NULL, NULL, text);
    printf("%d: %s\n", (int)retval, text);
    kob_msg_free(msg);
    kob_close(kob);
    return 0;
}
