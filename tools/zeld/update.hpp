// What each kind of update changes in one policy.
#pragma once

#include "tools/zeld/graph.hpp"

namespace zeld {

// Applies an update of a part of a policy, ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE
// to ZEL_API_INTERFACE_GROUP_UPDATE. object is the record that the kind carries.
// When it throws Refusal, the policy may be changed in part: give it a copy.
void update_policy(zel_policy_t &policy, uint32_t api_type, uint32_t op_code, const void *object);

// Throws Refusal unless pair ids are unique in the policy, and each match id and
// each action id names one object: records of one id are equal.
void check_policy(const zel_policy_t &policy);

} // namespace zeld
