// A message record from within.
#pragma once

#include "reference/kob/frame.hpp"

struct kob_msg {
    uint32_t token;
    uint32_t opcode;
    uint32_t node;
    uint32_t sap;
    uint32_t size;
    uint32_t in_parts;
    int32_t refusal;       // KOB_OK, or why the service refused the request
    uint32_t client;       // connection that a request came by
    uint32_t client_index; // index of that connection among the service's
    uint32_t pid;          // process and user at its other end
    uint32_t uid;
    void *payload; // owned; null when there is none
};

namespace zel::platform {

constexpr uint32_t default_max_message = 16 * 1024 * 1024;

// The largest KOB_ERR_* value.
constexpr uint32_t last_error_code = KOB_ERR_NO_FOLDER;

// Puts another message into a record, which then owns its payload.
void replace(kob_msg &msg, const kob_msg &from);

// Sets an output that may be null.
inline void set_error(int32_t *error, int32_t value)
{
    if (error != nullptr)
        *error = value;
}

// What is wrong with a whole payload, or null.  A request is a TLV array; a response is a
// header that a TLV array may follow.  Compares the used bytes of the array with the bytes
// that have arrived, which the readers of an array cannot do.
const char *payload_fault(FrameKind kind, const void *payload, uint32_t size);

// The frame of a reply of so many bytes.
inline Frame frame_of_reply(const kob_msg &request, uint32_t total)
{
    Frame frame{};
    frame.magic = frame_magic;
    frame.kind = FrameKind::response;
    frame.in_parts = total > KOB_PLAIN_LIMIT ? 1 : 0;
    frame.token = request.token;
    frame.opcode = request.opcode;
    frame.node = request.node;
    frame.sap = request.sap;
    frame.total = total;
    return frame;
}

} // namespace zel::platform
