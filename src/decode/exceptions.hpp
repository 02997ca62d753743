// Fields whose decoding is more than a copy of their bytes.
#pragma once

#include "model/trace.hpp"
#include "wire/records.hpp"

namespace zel {

// An ACL travels 65 bytes wide and is read 64 bytes wide: the last byte of the
// zero-filled record then terminates the text, whatever the peer sent.
constexpr std::size_t read_width(uint16_t id, uint16_t width)
{
    return id == wire::match_acl_members[0].id ? ZEL_ACL_SIZE - 1 : width;
}

// Fields whose decoded value is reported.  An EXP value is reported with the text of the
// ARP opcode; field tooling expects it so.
struct ValueReport {
    const char *format;
    uint16_t id;
    uint32_t mask = 0xffffffff; // the bits of the value that are printed
};

inline constexpr ValueReport value_reports[] = {
    {"Match Lisp inst : %d\n"_trace, wire::match_lisp_inst_members[0].id},
    {"Match Lisp proto dport: 0x%x\n"_trace, wire::match_lisp_proto_members[0].id},
    {"Match Lisp proto drloc: 0x%x\n"_trace, wire::match_lisp_proto_members[1].id},
    {"Match ARP Opcode: 0x%x\n"_trace, wire::match_exp_members[0].id, 0x7},
    {"Match ARP Opcode: 0x%x\n"_trace, wire::match_arp_opcode_members[0].id},
    {"Match Eth proto type: 0x%x\n"_trace, wire::match_eth_proto_members[0].id},
};

} // namespace zel
