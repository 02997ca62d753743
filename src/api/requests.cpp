// The request calls: each is a request kind and what goes into the header.
#include "zel.h"

namespace {

// The operation that a statistics pull always asks for.
constexpr uint32_t op_code_stats_pull = 3;

uint32_t request(zel_api_handle_t *handle, uint32_t api_type, uint16_t policy_id, const void *obj, uint32_t op_code,
                 void *kob_msg)
{
    uint32_t token = 0;
    send_to_zel(&token, api_type, handle, policy_id, obj, op_code, kob_msg);
    return token;
}

} // namespace

uint32_t zel_policy_list_update(zel_api_handle_t *handle, const zel_policy_list_t *list, uint32_t op_code,
                                void *kob_msg)
{
    return request(handle, ZEL_API_POLICY_LIST_UPDATE, 0, list, op_code, kob_msg);
}

uint32_t zel_policy_update(zel_api_handle_t *handle, const zel_policy_t *policy, uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_POLICY_UPDATE, policy->id, policy, op_code, kob_msg);
}

uint32_t zel_policy_update_match_action_pair_group(zel_api_handle_t *handle, uint16_t policy_id,
                                                   const zel_match_action_pair_grp_t *group, uint32_t op_code,
                                                   void *kob_msg)
{
    return request(handle, ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE, policy_id, group, op_code, kob_msg);
}

uint32_t zel_policy_update_match_action_pair(zel_api_handle_t *handle, uint16_t policy_id,
                                             const zel_match_action_pair_t *pair, uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_MATCH_ACTION_PAIR_UPDATE, policy_id, pair, op_code, kob_msg);
}

uint32_t zel_policy_update_match_group(zel_api_handle_t *handle, uint16_t policy_id, const zel_match_grp_t *group,
                                       uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_MATCH_GROUP_UPDATE, policy_id, group, op_code, kob_msg);
}

uint32_t zel_policy_update_action_group(zel_api_handle_t *handle, uint16_t policy_id, const zel_action_grp_t *group,
                                        uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_ACTION_GROUP_UPDATE, policy_id, group, op_code, kob_msg);
}

uint32_t zel_policy_update_match(zel_api_handle_t *handle, uint16_t policy_id, const zel_match_t *match,
                                 uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_MATCH_UPDATE, policy_id, match, op_code, kob_msg);
}

uint32_t zel_policy_update_action(zel_api_handle_t *handle, uint16_t policy_id, const zel_action_t *action,
                                  uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_ACTION_UPDATE, policy_id, action, op_code, kob_msg);
}

uint32_t zel_policy_update_interface_group(zel_api_handle_t *handle, uint16_t policy_id, const zel_if_group_t *if_group,
                                           uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_INTERFACE_GROUP_UPDATE, policy_id, if_group, op_code, kob_msg);
}

uint32_t zel_policy_delete(zel_api_handle_t *handle, uint16_t policy_id, uint32_t op_code, void *kob_msg)
{
    return request(handle, ZEL_API_POLICY_DELETE, policy_id, nullptr, op_code, kob_msg);
}

uint32_t zel_stats_pull(zel_api_handle_t *handle, const zel_stat_request_t *stat_request, void *kob_msg)
{
    return request(handle, ZEL_API_STATS_PULL, 0, stat_request, op_code_stats_pull, kob_msg);
}
