// Where decoding a field is more than copying its bytes.
#pragma once

#include "model/trace.hpp"
#include "platform/tlv_array.h"
#include "zel.h"

#include <algorithm>
#include <cstddef>
#include <stdint.h>

namespace zel {

// An ACL travels 65 bytes wide and is read 64 bytes wide: the last byte of the
// zero-filled record then terminates the text, whatever the peer sent.
template <auto Member> inline constexpr std::size_t shortened_width = 0;
template <> inline constexpr std::size_t shortened_width<&zel_match_acl_t::acl> = ZEL_ACL_SIZE - 1;

// Fields whose decoded value is reported, with the bits that show.  An EXP value
// goes out under the ARP opcode's text; field tooling expects it there.
struct ValueReport {
    bool wanted = false;
    const char *format = nullptr;
    uint32_t bits = 0xffffffff;
};

template <auto Member> inline constexpr ValueReport value_report{};
template <>
inline constexpr ValueReport value_report<&zel_match_lisp_inst_t::inst_id>{true, "Match Lisp inst : %d\n"_trace};
template <>
inline constexpr ValueReport value_report<&zel_match_lisp_proto_t::udp_port>{true,
                                                                             "Match Lisp proto dport: 0x%x\n"_trace};
template <>
inline constexpr ValueReport value_report<&zel_match_lisp_proto_t::destination_rloc>{
    true, "Match Lisp proto drloc: 0x%x\n"_trace};
template <>
inline constexpr ValueReport value_report<&zel_match_exp_t::exp>{true, "Match ARP Opcode: 0x%x\n"_trace, 0x7};
template <>
inline constexpr ValueReport value_report<&zel_match_arp_opcode_t::opcode>{true, "Match ARP Opcode: 0x%x\n"_trace};
template <>
inline constexpr ValueReport value_report<&zel_match_eth_proto_t::type>{true, "Match Eth proto type: 0x%x\n"_trace};

// How many members a message may claim.  A count costs the sender a few bytes and
// the reader an array.  So the counts of a message are taken as they come only up
// to a sum that is generous for any one of them; what they claim beyond that is
// held, all together, to what the message can contain.
struct Claims {
    const void *array;
    uint32_t unquestioned = 131072;
    uint32_t contained = 0;
    bool is_counted = false;
};

inline uint32_t grant(Claims &claims, uint32_t count)
{
    if (count <= claims.unquestioned) {
        claims.unquestioned -= count;
        return count;
    }
    if (!claims.is_counted) {
        claims.is_counted = true;
        claims.contained = tlv_array_get_num_tlvs(claims.array, 0);
    }
    const uint32_t granted = std::min(count, claims.contained);
    claims.contained -= granted;
    return granted;
}

} // namespace zel
