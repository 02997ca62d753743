// Messages as packets on a connected SOCK_SEQPACKET socket.  Nothing here waits.
#pragma once

#include "reference/kob/message.hpp"

namespace zel::platform {

// Memory that several connections share.
struct Budget {
    uint64_t used;
    uint64_t limit;

    bool take(uint64_t bytes)
    {
        if (bytes > limit - used)
            return false;
        used += bytes;
        return true;
    }
    void give_back(uint64_t bytes) { used -= bytes; }
};

// What one step of receiving came to.
enum class Step {
    nothing, // no packet is there
    part,    // a packet, but no whole message yet
    message, // a whole message
    refused, // a message that is not acceptable; the rest of it will be skipped
    hostile, // a packet that no correct peer sends: the connection is to be given up
    closed   // the peer closed the connection
};

// Why a step ended as refused or hostile.
struct Fault {
    int32_t error; // KOB_ERR_*
    const char *reason;
    uint32_t token; // of a refused message
    uint32_t total; // its size
};

// The receiving half of a connection.
class Inbound {
public:
    Inbound(FrameKind expected, uint32_t max_message, Budget *budget)
        : expected_(expected), max_message_(max_message), budget_(budget)
    {}

    // Takes one packet off the socket.  The payload of a whole message becomes the caller's.
    Step step(int socket, kob_msg &msg, Fault &fault);

    // Forgets a half message.
    void reset();

    bool is_half() const { return buffer_ != nullptr; }
    uint32_t held() const { return capacity_; }

private:
    Step refuse(const Frame &frame, uint32_t end, int32_t error, const char *reason, Fault &fault);
    const char *continuation_fault(const Frame &frame) const;
    bool grow(uint32_t total, uint32_t needed);
    Step finish(const Frame &frame, kob_msg &msg, Fault &fault);

    FrameKind expected_;
    uint32_t max_message_;
    Budget *budget_;

    Frame first_{}; // of the half message
    char *buffer_ = nullptr;
    uint32_t capacity_ = 0;
    uint32_t received_ = 0;
    uint32_t skipped_token_ = 0; // further parts of this message are dropped in silence
};

// A message on its way out; sent counts the payload bytes that the socket took.
struct Outbound {
    Frame frame;
    const void *payload;
    uint32_t sent;
    bool is_done;
};

// Sends as many packets as the socket takes.  KOB_OK when all of them went,
// KOB_ERR_TIMEOUT when the socket is full, else KOB_ERR_PEER_GONE, KOB_ERR_TOO_LARGE
// or KOB_ERR_SYSTEM.
int32_t send_packets(int socket, Outbound &out);

} // namespace zel::platform
