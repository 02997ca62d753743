// What each kind of update does to one policy.
#pragma once

#include "tools/zeld/graph.hpp"

namespace zeld {

// Applies an update below the policy, ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE to
// ZEL_API_INTERFACE_GROUP_UPDATE, whose object it is.  Throws Refusal, and the
// policy is then half changed and to be thrown away: callers pass a copy.
void update_policy(zel_policy_t &policy, uint32_t api_type, uint32_t op_code, const void *object);

// Throws Refusal unless pair ids are unique in the policy, and matches and actions
// of one id are equal wherever they stand in it: an id names one object.
void check_policy(const zel_policy_t &policy);

} // namespace zeld
