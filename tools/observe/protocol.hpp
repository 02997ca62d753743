// What zeld says about itself: its requests for that, and the header of a captured message.
// Numbers are in host byte order, like those of all messages.
#pragma once

#include <cstdint>

namespace observe {

// Requests, by transport opcode.  The payload and the answer's body are TLV arrays, and
// each record is the value of one element.
constexpr uint32_t opcode_status = 0x1cc20; // payload: no element
constexpr uint32_t opcode_watch = 0x1cc22;  // payload: one element_watch
constexpr uint32_t last_opcode = 0x1cc26;   // of this kind; messages with such an opcode are not captured

constexpr uint16_t element_status = 210;      // a Status; one in each answer
constexpr uint16_t element_client = 211;      // a ClientStatus
constexpr uint16_t element_application = 212; // an ApplicationStatus
constexpr uint16_t element_count = 213;       // a RequestCount
constexpr uint16_t element_watch = 214;       // a WatchRequest
constexpr uint16_t element_watched = 215;     // a WatchAnswer; blocks of a capture file follow the array

constexpr bool is_about_observation(uint32_t opcode) { return opcode >= opcode_status && opcode <= last_opcode; }

// A later version may append members; a reader takes those that it has.
struct Status {
    uint64_t fingerprint; // of the wire description
    uint64_t started_ns;  // since 1970
    uint64_t uptime_ns;
    uint64_t requests; // since the start, refused ones included
    uint64_t refusals;
    uint64_t policies;
    uint64_t pairs;
    uint64_t policy_bytes;  // memory that policies hold
    uint64_t process_bytes; // resident memory of the process
    uint64_t max_message;
    uint64_t max_policy_bytes;
    uint64_t kept_messages; // of the last messages
    uint64_t kept_bytes;
    uint64_t max_kept_bytes;
    uint32_t max_clients;
    uint32_t max_clients_per_user;
    uint32_t pid;
    uint32_t clients;      // connections; the answer may have room for fewer
    uint32_t applications; // the same
    uint32_t reserved;
    uint8_t version[32];
};

struct ClientStatus {
    uint32_t client;
    uint32_t pid;
    uint32_t uid;
    uint32_t reserved;
    uint64_t requests;
    uint64_t refusals;
    uint64_t served_ns; // time that the service has worked for it
};

struct ApplicationStatus {
    uint32_t app_type;
    uint32_t policies;
    uint64_t pairs;
};

// Requests of one kind with one result.
struct RequestCount {
    uint8_t kind[32];
    uint32_t error;
    uint32_t reserved;
    uint64_t requests;
};

// Messages are numbered from 0 in the order in which they arrived or left.
struct WatchRequest {
    uint64_t first; // number of the first one wanted
};
constexpr uint64_t watch_new = UINT64_MAX; // those from now on

struct WatchAnswer {
    uint64_t next;   // number behind the last message of this answer
    uint64_t missed; // messages from first on that are not kept any more
};

// Stands before the payload in a capture file.  A reader recognises byte order and
// version by the magic number.
struct CaptureHeader {
    uint32_t magic;
    uint16_t kind;     // request or response, as in the header of a packet
    uint16_t in_parts; // 1: a multi-part message
    uint32_t number;   // of the request at the one that captured; its response has the same
    uint32_t client;   // number of the connection
    uint32_t pid;      // process and user at the other end of it
    uint32_t uid;
    uint32_t opcode;
    uint32_t node;
    uint32_t sap;
    uint32_t total; // bytes of the payload; fewer follow when it was cut
};
constexpr uint32_t capture_magic = 0x5a454c01;
constexpr uint16_t kind_request = 1;
constexpr uint16_t kind_response = 2;

} // namespace observe
