// The records by name, for the macros that make exported C functions: C names cannot come
// from a template.
#pragma once

// Fields alone, but for the header.
#define ZEL_LEAF_RECORDS(X)                                                                                            \
    X(stat_request_entry)                                                                                              \
    X(action_set_vrf)                                                                                                  \
    X(action_nat_rewrite)                                                                                              \
    X(l3_redirect_ipv4)                                                                                                \
    X(l2_redirect_ipv4)                                                                                                \
    X(action_label_param)                                                                                              \
    X(action_lisp_decapsulation)                                                                                       \
    X(if_element)                                                                                                      \
    X(match_lisp_inst)                                                                                                 \
    X(match_lisp_proto)                                                                                                \
    X(match_exp)                                                                                                       \
    X(match_arp_opcode)                                                                                                \
    X(match_eth_proto)                                                                                                 \
    X(match_service_element)                                                                                           \
    X(match_label)                                                                                                     \
    X(match_acl)

// Records that contain others, but neither matches nor actions.  Their functions take an
// application type and do not use it.
#define ZEL_PLAIN_RECORDS(X)                                                                                           \
    X(stat_request)                                                                                                    \
    X(action_param_redirect)                                                                                           \
    X(if_group)                                                                                                        \
    X(match_service)

// Matches, actions and what contains them: they pass through the object cache.
#define ZEL_CACHED_RECORDS(X)                                                                                          \
    X(action)                                                                                                          \
    X(action_grp)                                                                                                      \
    X(match)                                                                                                           \
    X(match_grp)                                                                                                       \
    X(match_action_pair)                                                                                               \
    X(match_action_pair_grp)                                                                                           \
    X(policy)                                                                                                          \
    X(policy_list)
