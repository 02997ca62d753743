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

// A 16-bit count is taken as it comes.  The 32-bit count of a statistics request
// could ask for gigabytes: above a limit that a 16-bit reader of counts would
// never reach, it is held to what the message can contain.
inline uint16_t plausible_count(const void *, uint16_t count) { return count; }

inline uint32_t plausible_count(const void *array, uint32_t count)
{
    constexpr uint32_t unquestioned = 131072;
    return count <= unquestioned ? count : std::min(count, tlv_array_get_num_tlvs(array, 0));
}

} // namespace zel
