/* Sends one policy, that sends web traffic to a VRF, and prints the service's answer. */
#include <stdarg.h>
#include <stdio.h>
#include <zel-platform/kob_client.h>
#include <zel.h>
#include <zel/protocol.h>

static void print_report(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

int main(int argc, char **argv)
{
    const char *address = argc > 1 ? argv[1] : "unix:/run/zel/zel.sock";
    int32_t error = KOB_OK;
    uint32_t kob = kob_open(address, NULL, &error);
    kob_msg_t *msg = kob_msg_alloc();
    if (kob == 0 || msg == NULL) {
        fprintf(stderr, "%s: %s\n", address, kob_error_text(error));
        return 1;
    }

    zel_match_t web = {.id = 1, .type = ZEL_MATCH_TYPE_SERVICE_ELEMENT};
    web.param.service_element = (zel_match_service_element_t){.dport = 80, .dport_mask = 0xffff, .protocol = 6};
    zel_action_t into_vrf = {.id = 1, .type = ZEL_ACTION_TYPE_SET_VRF, .param.set_vrf.vrf = 100};
    zel_match_action_pair_t pair = {
        .id = 10,
        .match_group = {.id = 1, .num_match = 1, .matches = (zel_match_t *[]){&web}},
        .action_group = {.id = 1, .num_action = 1, .actions = (zel_action_t *[]){&into_vrf}},
    };
    zel_policy_t policy = {.version = 1, .id = 7};
    policy.match_action_pair_group.num_pair = 1;
    policy.match_action_pair_group.pairs = (zel_match_action_pair_t *[]){&pair};

    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 1, kob, print_report, print_report, NULL);
    uint32_t token = zel_policy_update(&handle, &policy, ZEL_OP_SET, msg);
    error = token != 0 ? kob_receive(kob, token, msg, -1) : kob_errno_get(kob);

    int32_t retval = -1;
    if (error == KOB_OK) {
        char text[ZEL_RESP_TEXT_SIZE + 1] = {0};
        retval = zel_parse_response(msg, NULL, NULL, text);
        printf("%d: %s\n", (int)retval, text);
    } else {
        fprintf(stderr, "%s: %s\n", address, kob_error_text(error));
    }
    kob_msg_free(msg);
    kob_close(kob);
    return retval == 0 ? 0 : 1;
}
