// The layout of the records is part of the contract: field tooling and peers that
// share memory dumps know it.  The product's target is 32-bit; on 64-bit, pointers
// and what follows from them are wider, and nothing else differs.
#include "zel.h"

#include <cstddef>

namespace {

constexpr std::size_t on(std::size_t bytes_on_32_bit, std::size_t bytes_on_64_bit)
{
    return sizeof(void *) == 4 ? bytes_on_32_bit : bytes_on_64_bit;
}

} // namespace

// Records without pointers.
static_assert(sizeof(zel_kob_header_t) == 16);
static_assert(sizeof(zel_stat_request_entry_t) == 20);
static_assert(sizeof(zel_action_set_vrf_t) == 4);
static_assert(sizeof(zel_action_nat_rewrite_t) == 12);
static_assert(sizeof(zel_l3_redirect_ipv4_t) == 16);
static_assert(sizeof(zel_l2_redirect_ipv4_t) == 28);
static_assert(sizeof(zel_action_label_param_t) == 65);
static_assert(sizeof(zel_action_param_redirect_t) == 108);
static_assert(offsetof(zel_action_param_redirect_t, label_param) == 12);
static_assert(offsetof(zel_action_param_redirect_t, l2_ipv4) == 80);
static_assert(offsetof(zel_action_param_redirect_t, l3_ipv4) == 80);
static_assert(sizeof(zel_action_lisp_decapsulation_t) == 4);
static_assert(sizeof(zel_action_t) == 124);
static_assert(offsetof(zel_action_t, param) == 12);
static_assert(offsetof(zel_action_t, cached) == 120);
static_assert(sizeof(zel_if_element_t) == 20);
static_assert(sizeof(zel_match_acl_t) == 65);
static_assert(sizeof(zel_match_label_t) == 84);
static_assert(sizeof(zel_match_service_element_t) == 28);
static_assert(sizeof(zel_match_eth_proto_t) == 2);
static_assert(sizeof(zel_match_arp_opcode_t) == 4);
static_assert(sizeof(zel_match_exp_t) == 1);
static_assert(sizeof(zel_match_lisp_proto_t) == 8);
static_assert(sizeof(zel_match_lisp_inst_t) == 4);

// Records with pointers.
static_assert(sizeof(zel_stat_request_t) == on(8, 16));
static_assert(sizeof(zel_action_grp_t) == on(16, 24));
static_assert(sizeof(zel_if_group_t) == on(8, 16));
static_assert(sizeof(zel_match_service_t) == on(8, 16));
static_assert(sizeof(zel_match_t) == on(100, 112));
static_assert(offsetof(zel_match_t, param) == on(12, 16));
static_assert(offsetof(zel_match_t, cached) == on(96, 104));
static_assert(sizeof(zel_match_grp_t) == on(20, 24));
static_assert(sizeof(zel_match_action_pair_t) == on(48, 64));
static_assert(sizeof(zel_match_action_pair_grp_t) == on(8, 16));
static_assert(sizeof(zel_policy_t) == on(28, 48));
static_assert(sizeof(zel_policy_list_t) == on(8, 16));

// The handle; and the cache entry, because the tree is told the offset of its key.
static_assert(offsetof(zel_api_handle_t, debug) == 8);
static_assert(offsetof(zel_api_handle_t, err_cb) == on(12, 16));
static_assert(offsetof(zel_api_handle_t, mat_cache) == on(24, 40));
static_assert(sizeof(zel_api_handle_t) <= 512); // fits on a small stack
static_assert(sizeof(zel_mat_cache_key_t) == 12);
static_assert(offsetof(zel_mat_cache_entry_t, link) == 0);
static_assert(offsetof(zel_mat_cache_entry_t, key) == 16);
static_assert(offsetof(zel_mat_cache_entry_t, obj) == on(28, 32));

// Responses and statistics.
static_assert(sizeof(zel_resp_hdr_t) == ZEL_RESP_HDR_SIZE);
static_assert(offsetof(zel_resp_hdr_t, msg) == 12);
static_assert(sizeof(zel_stats_t) == 16);
static_assert(sizeof(zel_stat_result_entry_t) == 68);
static_assert(offsetof(zel_stat_result_entry_t, ids) == 8);
static_assert(offsetof(zel_stat_result_entry_t, stats) == 20);
static_assert(sizeof(zel_stat_results_t) == on(12, 16));
static_assert(offsetof(zel_stat_results_t, entries) == 8);
static_assert(sizeof(zel_table_header_t) == on(16, 20));
static_assert(sizeof(zel_table_row_t) == on(48, 56));
