// The fields of service::PacketHeader as a record, so that its JSON is derived like
// that of all records.  A packet header is sent as one value, so its fields have no
// element ids.
#pragma once

#include "tools/records/service_protocol.hpp"
#include "wire/records.hpp"

namespace tools {

#define PACKET_FIELD(member, format)                                                                                   \
    zel::wire::field(0, offsetof(service::PacketHeader, member), sizeof(service::PacketHeader::member), #member, "",   \
                     zel::wire::Format::format)

inline constexpr zel::wire::Member packet_header_members[] = {
    PACKET_FIELD(sip, ipv4),
    PACKET_FIELD(dip, ipv4),
    PACKET_FIELD(sport, number),
    PACKET_FIELD(dport, number),
    PACKET_FIELD(ether_type, hexadecimal),
    PACKET_FIELD(protocol, number),
    PACKET_FIELD(exp, number),
    PACKET_FIELD(arp_opcode, number),
    PACKET_FIELD(lisp_instance, number),
    PACKET_FIELD(interface, number),
    PACKET_FIELD(vrf, number),
    PACKET_FIELD(vlan, number),
    PACKET_FIELD(label_length, number),
    PACKET_FIELD(label, text),
    PACKET_FIELD(bytes, number),
};
inline constexpr zel::wire::Record packet_header{"packet_header",      "", 0, 0, sizeof(service::PacketHeader),
                                                 packet_header_members};

#undef PACKET_FIELD

} // namespace tools
