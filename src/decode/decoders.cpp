// The exported decoders.
#include "decode/expected.hpp"

using namespace zel;

// C names cannot come from a template, so these make them: one macro per shape
// of signature.
#define DECODER(object)                                                                                                \
    int32_t zel_parse_##object##_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,           \
                                          zel_##object##_t *record, uint32_t *tlv_subtotal)                            \
    {                                                                                                                  \
        Claims claims{tlv_array};                                                                                      \
        return decode({*handle, tlv_array, *cursor, 0, claims}, *record, *tlv_subtotal);                               \
    }
#define DECODER_WITH_APP(object)                                                                                       \
    int32_t zel_parse_##object##_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,           \
                                          zel_##object##_t *record, uint32_t *tlv_subtotal, uint32_t app_type)         \
    {                                                                                                                  \
        Claims claims{tlv_array};                                                                                      \
        return decode({*handle, tlv_array, *cursor, app_type, claims}, *record, *tlv_subtotal);                        \
    }

DECODER(kob_header)
DECODER(stat_request_entry)
DECODER(action_set_vrf)
DECODER(action_nat_rewrite)
DECODER(l3_redirect_ipv4)
DECODER(l2_redirect_ipv4)
DECODER(action_label_param)
DECODER(action_lisp_decapsulation)
DECODER(if_element)
DECODER(match_lisp_inst)
DECODER(match_lisp_proto)
DECODER(match_exp)
DECODER(match_arp_opcode)
DECODER(match_eth_proto)
DECODER(match_service_element)
DECODER(match_label)
DECODER(match_acl)

DECODER_WITH_APP(stat_request)
DECODER_WITH_APP(action_param_redirect)
DECODER_WITH_APP(if_group)
DECODER_WITH_APP(match_service)
DECODER_WITH_APP(action)
DECODER_WITH_APP(action_grp)
DECODER_WITH_APP(match)
DECODER_WITH_APP(match_grp)
DECODER_WITH_APP(match_action_pair)
DECODER_WITH_APP(match_action_pair_grp)
DECODER_WITH_APP(policy)
DECODER_WITH_APP(policy_list)
