// A packet's fields packed into 64-bit numbers, which are compared under masks.
#pragma once

#include "tools/records/service_protocol.hpp"

#include <array>

namespace classify {

// The parts of a packed header.
inline uint64_t addresses(uint32_t sip, uint32_t dip) { return uint64_t{sip} << 32 | dip; }

inline uint64_t transport(uint16_t sport, uint16_t dport, uint8_t protocol, uint8_t exp, uint16_t ether_type)
{
    return uint64_t{sport} << 48 | uint64_t{dport} << 32 | uint64_t{protocol} << 24 | uint64_t{exp} << 16 | ether_type;
}

inline uint64_t overlay(uint32_t arp_opcode, uint32_t lisp_instance)
{
    return uint64_t{arp_opcode} << 32 | lisp_instance;
}

// Addresses; ports, protocol, EXP and Ethernet type; ARP opcode and LISP instance.
using PackedHeader = std::array<uint64_t, 3>;

inline PackedHeader pack(const service::PacketHeader &packet)
{
    return {addresses(packet.sip, packet.dip),
            transport(packet.sport, packet.dport, packet.protocol, packet.exp, packet.ether_type),
            overlay(packet.arp_opcode, packet.lisp_instance)};
}

// The other way: a packet whose other fields are 0.
service::PacketHeader unpack(const PackedHeader &fields);

// A packet matches a pattern when its fields under the mask equal the value, and its
// label equals the pattern's, if that has one.
struct Pattern {
    static constexpr uint32_t no_label = UINT32_MAX;

    PackedHeader value{};
    PackedHeader mask{};
    uint32_t label = no_label; // index in the classifier's labels
};

// A field in a packed header.
struct Field {
    const char *name;
    uint32_t word;
    uint32_t shift;
    uint32_t bits;

    uint32_t of(const PackedHeader &fields) const
    {
        return static_cast<uint32_t>(fields.at(word) >> shift & ~uint64_t{0} >> (64 - bits));
    }
};

// In the order in which people look at a packet.
inline constexpr std::array fields_in_order{
    Field{"ether_type", 1, 0, 16}, Field{"protocol", 1, 24, 8},    Field{"sip", 0, 32, 32},
    Field{"dip", 0, 0, 32},        Field{"sport", 1, 48, 16},      Field{"dport", 1, 32, 16},
    Field{"exp", 1, 16, 8},        Field{"arp_opcode", 2, 32, 32}, Field{"lisp_instance", 2, 0, 32},
};

} // namespace classify
