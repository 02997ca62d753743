/* Sends a policy over this platform, and reads it as a service does. */
#include "port.h"
#include "zel/service.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

static void print_report(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

int main(void)
{
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

    loopback_msg_t msg = {0};
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 1, 2, print_report, print_report, NULL);
    const uint32_t token = zel_policy_update(&handle, &policy, ZEL_OP_SET, &msg);
    zel_request_t request = {.size = sizeof request};
    if (token == 0 || zel_request_read(0, &msg, NULL, &request) != ZEL_REQUEST_OK)
        return 1;

    const zel_policy_t *read = request.object;
    if (read->match_action_pair_group.num_pair != 1)
        return 1;
    const zel_match_action_pair_t *read_pair = read->match_action_pair_group.pairs[0];
    printf("token %u: policy %u sends port %u to VRF %u\n", (unsigned)token, (unsigned)read->id,
           (unsigned)read_pair->match_group.matches[0]->param.service_element.dport,
           (unsigned)read_pair->action_group.actions[0]->param.set_vrf.vrf);
    zel_request_free(&request);
    free(msg.payload);
    return 0;
}
