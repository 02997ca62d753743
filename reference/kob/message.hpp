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
    uint32_t client_index; // and its place among the service's clients
    void *payload;         // owned; null when there is none
};

namespace zel::platform {

// Gives a record another message.  The record takes over from's payload.
void replace(kob_msg &msg, const kob_msg &from);

// Sets an error that the caller may not want to know.
inline void set_error(int32_t *error, int32_t value)
{
    if (error != nullptr)
        *error = value;
}

// What is wrong with a whole payload, or null.  Requests are a TLV array;
// responses a header, after which a TLV array may follow.  Its used length is
// held against the bytes that are there: no reader of the array could do that.
const char *payload_fault(FrameKind kind, const void *payload, uint32_t size);

} // namespace zel::platform
