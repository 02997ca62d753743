// Messages in packets: how a message is cut into parts and put together again.  Has nothing
// to do with the way in which packets travel.
#pragma once

#include "reference/kob/message.hpp"

namespace zel::platform {

// A limit on the memory of several connections together.
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

// The outcome of receiving one packet.
enum class Step {
    nothing, // there is no packet
    part,    // a packet, but no whole message yet
    message, // a whole message
    refused, // a message that is not acceptable; the rest of it will be skipped
    hostile, // a packet that no correct peer sends: the connection is to be closed
    closed   // the peer closed the connection
};

// The reason for Step::refused or Step::hostile.
struct Fault {
    int32_t error; // KOB_ERR_*
    const char *reason;
    uint32_t token; // of a refused message
    uint32_t total; // its size
};

// The message that a connection is receiving.  A packet takes two calls: accept() with its
// header, and complete() when its content is in place.
class Inbound {
public:
    Inbound(FrameKind expected, uint32_t max_message, Budget *budget)
        : expected_(expected), max_message_(max_message), budget_(budget)
    {}

    // Decides on a packet with length bytes of content.  Step::part: put the content at room
    // and call complete(), or discard the packet if room is null.  Step::refused: discard the
    // packet.  Step::hostile: as above.
    Step accept(const Frame &frame, std::size_t length, char *&room, Fault &fault);

    // Step::message, with a payload that becomes the caller's; Step::part or Step::refused.
    Step complete(const Frame &frame, std::size_t length, kob_msg &msg, Fault &fault);

    // Frees a half message.
    void reset();

    bool is_half() const { return buffer_ != nullptr; }
    uint32_t held() const { return capacity_; } // bytes

private:
    Step refuse(const Frame &frame, uint32_t end, int32_t error, const char *reason, Fault &fault);
    const char *fault_of(const Frame &frame, std::size_t length) const;
    const char *continuation_fault(const Frame &frame) const;
    bool grow(uint32_t total, uint32_t needed);
    Step finish(const Frame &frame, kob_msg &msg, Fault &fault);

    FrameKind expected_;
    uint32_t max_message_;
    Budget *budget_;

    Frame first_{}; // header of the half message
    char *buffer_ = nullptr;
    uint32_t capacity_ = 0;
    uint32_t received_ = 0;
    uint32_t skipped_token_ = 0; // further parts of this message are discarded without a report
};

// A message that is being sent, packet by packet.
struct Outbound {
    Frame frame; // of the next packet, once next_length() was called
    const char *payload;
    uint32_t sent; // bytes of the payload in packets that have gone
    bool is_done;

    // Prepares the header of the next packet; returns the length of its content, which
    // begins at payload + sent.  A part has at most largest_part bytes of content.
    uint32_t next_length(uint32_t largest_part = part_size);

    // Notes that the packet has gone.
    void advance(uint32_t length);
};

} // namespace zel::platform
