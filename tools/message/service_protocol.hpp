// What zelctl and zeld agree on beyond the library: the values that libzel
// leaves to its service, and the two requests that are zeld's own.
#pragma once

#include "zel.h"

#include <cstdint>

namespace service {

// op_code of an update.  A statistics pull always carries op_code_stats.
enum OpCode : uint32_t {
    op_code_set = 1,    // create the object, or replace the one with its id
    op_code_remove = 2, // remove the objects that the graph names by id
    op_code_stats = 3,
};

// op_mode of any object.
enum OpMode : uint32_t {
    op_mode_active = 0,
    op_mode_disabled = 1, // kept and shown, but never matches
};

// logical_op of a match group.
enum LogicalOp : uint32_t {
    logical_and = 0, // all matches; a group without matches matches everything
    logical_or = 1,  // any match
};

// flag of a statistics query.  A policy id or pair id of 0xffff asks for all.
enum StatFlag : uint32_t {
    stat_flag_none = 0,
    stat_flag_clear = 1, // set the counters to zero after reading them
};
constexpr uint16_t stat_all = 0xffff;

// An entry of the answer: ids[0] is the policy id, ids[1] the pair id; stats[0]
// counts matched packets (counter1) and their bytes (counter2).
constexpr uint8_t stat_tag_results = 1;
constexpr uint8_t stat_tag_pair = 2;

// status and error of a response.  retval is 0 on success, -1 otherwise.
enum Status : uint32_t { status_ok = 1, status_failed = 2 };
enum Error : uint32_t {
    error_none = 0,
    error_malformed = 1,   // the message could not be understood; the text says where
    error_unsupported = 2, // request kind, op_code or opcode that the service does not know
    error_not_found = 3,   // no such policy, pair or object
    error_conflict = 4,    // a duplicate id, or an object that cannot take the change
    error_storage = 5,     // the change could not be made durable, and was not made
    error_limit = 6,       // too large, or too much work
    error_denied = 7,      // not at this address, which is for reading
};

// zeld's own requests, by transport opcode.  The transport carries TLV arrays and
// nothing else, so each record is the value of one element.  Numbers are in host
// byte order, like everything that the library sends; both sides run on one machine.
constexpr uint32_t opcode_show = 0x1cc12;    // payload: one element_show
constexpr uint32_t opcode_traffic = 0x1cc14; // payload: any number of element_packet
constexpr uint16_t element_show = 201;       // a ShowRequest
constexpr uint16_t element_packet = 202;     // a PacketHeader

// The answer's body has one message for each policy, ordered by policy id.  A message is
// the TLV array that send_to_zel() builds for a policy update with op_code_set.  The
// arrays follow each other without a gap; the first four bytes of each say how many
// bytes of it follow.
struct ShowRequest {
    uint32_t app_type;
    uint32_t policy_id; // show_all for every policy of the application
};
constexpr uint32_t show_all = 0xffffffff;

// A packet header to classify.  Fields that a packet does not have are 0.  The
// answer's retval is the number of packets that matched a pair.
struct PacketHeader {
    uint32_t sip;
    uint32_t dip;
    uint16_t sport;
    uint16_t dport;
    uint16_t ether_type; // 0x0800 for IPv4
    uint8_t protocol;
    uint8_t exp;
    uint32_t arp_opcode;
    uint32_t lisp_instance;
    uint32_t interface;
    uint32_t vrf;
    uint16_t vlan;
    uint16_t label_length;
    uint8_t label[ZEL_LABEL_SIZE];
    uint32_t bytes; // of the packet
};
static_assert(sizeof(PacketHeader) == 104);

} // namespace service
