// Numbers that have names in JSON and on the command line.
#pragma once

#include "tools/records/service_protocol.hpp"
#include "zel.h"

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace tools {

struct Name {
    uint32_t value;
    std::string_view name;
};

// Numbers without a name are written as numbers.
using Names = std::span<const Name>;

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

inline constexpr std::array op_codes{Name{service::op_code_set, "set"}, Name{service::op_code_remove, "remove"},
                                     Name{service::op_code_stats, "stats"}};
inline constexpr std::array op_modes{Name{service::op_mode_active, "active"},
                                     Name{service::op_mode_disabled, "disabled"}};
inline constexpr std::array logical_ops{Name{service::logical_and, "and"}, Name{service::logical_or, "or"}};
inline constexpr std::array all_or_id{Name{service::stat_all, "all"}};
inline constexpr std::array stat_flags{Name{service::stat_flag_none, "none"}, Name{service::stat_flag_clear, "clear"}};

inline constexpr std::array error_names{
    Name{service::error_none, "none"},
    Name{service::error_malformed, "malformed"},
    Name{service::error_unsupported, "unsupported"},
    Name{service::error_not_found, "not found"},
    Name{service::error_conflict, "conflict"},
    Name{service::error_storage, "storage"},
    Name{service::error_limit, "limit"},
    Name{service::error_denied, "denied"},
};

// A five-tuple has no mask for its protocol; 0 stands for any.
inline constexpr std::array protocols{Name{0, "any"},   Name{1, "icmp"},  Name{2, "igmp"},  Name{6, "tcp"},
                                      Name{17, "udp"},  Name{47, "gre"},  Name{50, "esp"},  Name{51, "ah"},
                                      Name{89, "ospf"}, Name{103, "pim"}, Name{132, "sctp"}};

} // namespace tools
