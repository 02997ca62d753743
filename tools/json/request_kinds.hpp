// The kinds of request by name.
#pragma once

#include "tools/json/notation.hpp"
#include "zel.h"

#include <array>

namespace tools {

inline constexpr std::array request_kind_names{
    Name{ZEL_API_POLICY_LIST_UPDATE, "policy_list_update"},
    Name{ZEL_API_POLICY_UPDATE, "policy_update"},
    Name{ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE, "match_action_pair_group_update"},
    Name{ZEL_API_MATCH_ACTION_PAIR_UPDATE, "match_action_pair_update"},
    Name{ZEL_API_MATCH_GROUP_UPDATE, "match_group_update"},
    Name{ZEL_API_ACTION_GROUP_UPDATE, "action_group_update"},
    Name{ZEL_API_MATCH_UPDATE, "match_update"},
    Name{ZEL_API_ACTION_UPDATE, "action_update"},
    Name{ZEL_API_INTERFACE_GROUP_UPDATE, "interface_group_update"},
    Name{ZEL_API_POLICY_DELETE, "policy_delete"},
    Name{ZEL_API_STATS_PULL, "stats_pull"},
};

} // namespace tools
