// The values of zel/protocol.h as types of the tools, and the requests that are zeld's own.
#pragma once

#include "zel.h"
#include "zel/protocol.h"

#include <cstdint>

namespace service {

// Where service and tools meet unless they are told otherwise.  The systemd unit makes the folder.
constexpr const char *default_address = "unix:/run/zel/zel.sock";

enum OpCode : uint32_t {
    op_code_set = ZEL_OP_SET,
    op_code_remove = ZEL_OP_REMOVE,
    op_code_stats = ZEL_OP_STATS,
};
enum OpMode : uint32_t {
    op_mode_active = ZEL_MODE_ACTIVE,
    op_mode_disabled = ZEL_MODE_DISABLED,
};
enum LogicalOp : uint32_t {
    logical_and = ZEL_LOGICAL_AND,
    logical_or = ZEL_LOGICAL_OR,
};
enum StatFlag : uint32_t {
    stat_flag_none = ZEL_STAT_FLAG_NONE,
    stat_flag_clear = ZEL_STAT_FLAG_CLEAR,
};
constexpr uint16_t stat_all = ZEL_STAT_ALL;
constexpr uint8_t stat_tag_results = ZEL_STAT_TAG_RESULTS;
constexpr uint8_t stat_tag_pair = ZEL_STAT_TAG_PAIR;
enum Status : uint32_t { status_ok = ZEL_STATUS_OK, status_failed = ZEL_STATUS_FAILED };
enum Error : uint32_t {
    error_none = ZEL_ERROR_NONE,
    error_malformed = ZEL_ERROR_MALFORMED,
    error_unsupported = ZEL_ERROR_UNSUPPORTED,
    error_not_found = ZEL_ERROR_NOT_FOUND,
    error_conflict = ZEL_ERROR_CONFLICT,
    error_storage = ZEL_ERROR_STORAGE,
    error_limit = ZEL_ERROR_LIMIT,
    error_denied = ZEL_ERROR_DENIED,
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
