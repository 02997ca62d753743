// zeld's own requests for operators: explain a packet, list policies, change policies
// in part.  As with the other requests of zeld, each record is the value of one
// element of a TLV array, in host byte order.
#pragma once

#include "tools/records/service_protocol.hpp"

namespace service {

constexpr uint32_t opcode_explain = 0x1cc16; // payload: one element_explain; answer: element_reason
constexpr uint32_t opcode_list = 0x1cc18;    // payload: one element_list; answer: element_summary
constexpr uint32_t opcode_change = 0x1cc1a;  // payload: one element_change, then the parts of the change
constexpr uint16_t element_explain = 203;    // an ExplainRequest
constexpr uint16_t element_reason = 204;     // a Reason
constexpr uint16_t element_list = 205;       // a ListRequest
constexpr uint16_t element_summary = 206;    // a Summary
constexpr uint16_t element_change = 207;     // a ChangeRequest
constexpr uint16_t element_message = 208;    // bytes of messages of the library, see ChangeRequest
constexpr uint16_t element_frame = 209;      // a PolicyFrame, then the ids of the policy's pairs in order

// ---- Why a packet matches

struct ExplainRequest {
    uint32_t app_type;
    uint32_t policy_id; // show_all for every policy of the application
    PacketHeader packet;
};

// What became of a packet at one pair.  The reasons of a policy follow each other: the
// pairs above the one that takes the packet, in the policy's order, and then that pair.
enum Verdict : uint8_t {
    verdict_took = 0,      // the pair takes the packet
    verdict_no_pair = 1,   // the policy's last reason: none of its pairs takes the packet
    verdict_never = 2,     // the pair matches no packet; field says why
    verdict_field = 3,     // a field of the packet is not what the match needs
    verdict_label = 4,     // the packet's label is not the match's
    verdict_interface = 5, // the policy is not bound to the packet's interface, VLAN or VRF;
    verdict_vlan = 6,      // about the policy, and there is no other reason of it
    verdict_vrf = 7,
};

struct Reason {
    uint16_t policy_id;
    uint16_t pair_id;  // of all but verdict_no_pair and those about the policy
    uint16_t match_id; // whose condition failed
    uint8_t verdict;
    uint8_t field;         // index in classify::fields_in_order, or a classify::Never
    uint32_t found;        // in the packet
    uint32_t wanted;       // under the mask; or the first port of a range
    uint32_t mask;         // 0: wanted and last are a range
    uint32_t last;         // port of a range
    uint32_t num_elements; // of the match; or interfaces of the policy.  The reason is of the closest
    uint16_t label_length; // of the label that the match needs
    uint8_t label[ZEL_LABEL_SIZE];
    uint8_t reserved[2];
};
static_assert(sizeof(Reason) == 96);

// ---- Which policies there are, in pages

struct ListRequest {
    uint32_t app_type;
    uint32_t first_id; // policies of that application with lower ids are left out
    uint32_t most;     // entries at most; 0: as many as an answer has room for
    uint32_t flags;    // list_flag_all: those of the applications with higher numbers, too
};
constexpr uint32_t list_flag_all = 1;

struct Summary {
    uint64_t revision; // equal ones mean equal policies; never 0
    uint32_t op_mode;
    uint32_t app_type; // inside the policy
    uint32_t bytes;    // of the message that creates the policy
    uint16_t policy_id;
    uint16_t version;
    uint16_t num_pairs;
    uint16_t num_interfaces;
    uint32_t application; // of the policy's key
};
static_assert(sizeof(Summary) == 32);

// ---- Changes that keep the counters of the pairs that stay

// The values of the elements element_message, one behind the other, are messages of the
// library: updates of policies and of their parts, which are made in order.  Elements
// element_frame stand between the messages at their place.  All changes are made, or
// none.
enum ChangeFlag : uint32_t {
    change_flag_none = 0,
    change_flag_dry_run = 1, // check all, and change nothing
};
struct ChangeRequest {
    uint32_t app_type;
    uint32_t flags;
    uint32_t num_expected; // entries behind this record
    uint32_t reserved;
};
// A policy that must be as it was when it was read.
struct Expected {
    uint64_t revision; // 0: the policy must not exist
    uint32_t policy_id;
    uint32_t reserved;
};

// The fields of a policy itself.  The ids of all its pairs follow in their new order, or
// none, and the order stays.
struct PolicyFrame {
    uint32_t op_mode;
    uint32_t app_type;
    uint16_t policy_id;
    uint16_t version;
};

} // namespace service
