// Cutting messages into parts and putting them together.
#include "reference/kob/parts.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zel::platform {

void Inbound::reset()
{
    std::free(buffer_);
    budget_->give_back(capacity_);
    buffer_ = nullptr;
    capacity_ = 0;
    received_ = 0;
}

Step Inbound::refuse(const Frame &frame, uint32_t end, int32_t error, const char *reason, Fault &fault)
{
    reset();
    skipped_token_ = end < frame.total ? frame.token : 0;
    fault = {error, reason, frame.token, frame.total};
    return Step::refused;
}

// What is wrong with a packet that is not the first of its message, or null.
const char *Inbound::continuation_fault(const Frame &frame) const
{
    if (!is_half())
        return "a part without the beginning of its message";
    if (frame.token != first_.token || frame.total != first_.total || frame.kind != first_.kind ||
        frame.in_parts != first_.in_parts)
        return "a part of another message";
    if (frame.offset != received_)
        return "a part out of order";
    return nullptr;
}

const char *Inbound::fault_of(const Frame &frame, std::size_t length) const
{
    if (const char *const reason = frame_fault(frame, length, expected_))
        return reason;
    if (frame.offset == 0)
        return is_half() ? "a message within another" : nullptr;
    return frame.token == skipped_token_ ? nullptr : continuation_fault(frame);
}

// The size in a header is only a claim.  The buffer grows with the bytes that arrive, and
// has room for the tail.
bool Inbound::grow(uint32_t total, uint32_t needed)
{
    if (is_half() && needed <= capacity_)
        return true;
    const uint32_t twice = capacity_ <= total / 2 ? 2 * capacity_ : total;
    const uint32_t capacity = std::max(needed, twice);
    if (!budget_->take(capacity - capacity_))
        return false;
    auto *const buffer = static_cast<char *>(std::realloc(buffer_, std::size_t{capacity} + KOB_PAYLOAD_TAIL));
    if (buffer == nullptr) {
        budget_->give_back(capacity - capacity_);
        return false;
    }
    buffer_ = buffer;
    capacity_ = capacity;
    return true;
}

Step Inbound::accept(const Frame &frame, std::size_t length, char *&room, Fault &fault)
{
    room = nullptr;
    if (const char *const reason = fault_of(frame, length)) {
        fault = {KOB_ERR_BAD_FRAME, reason, 0, 0};
        return Step::hostile;
    }
    if (frame.offset != 0 && frame.token == skipped_token_)
        return Step::part;
    const uint32_t end = frame.offset + static_cast<uint32_t>(length);
    if (frame.total > max_message_)
        return refuse(frame, end, KOB_ERR_TOO_LARGE, "a message above the limit", fault);
    if (!grow(frame.total, end))
        return refuse(frame, end, KOB_ERR_BUSY, "no memory for a message", fault);
    room = buffer_ + frame.offset;
    return Step::part;
}

Step Inbound::complete(const Frame &frame, std::size_t length, kob_msg &msg, Fault &fault)
{
    first_ = frame;
    received_ = frame.offset + static_cast<uint32_t>(length);
    skipped_token_ = 0;
    return received_ == frame.total ? finish(frame, msg, fault) : Step::part;
}

Step Inbound::finish(const Frame &frame, kob_msg &msg, Fault &fault)
{
    std::memset(buffer_ + received_, 0, KOB_PAYLOAD_TAIL);
    if (frame.kind != FrameKind::refusal) {
        if (const char *const reason = payload_fault(frame.kind, buffer_, received_))
            return refuse(frame, frame.total, KOB_ERR_BAD_FRAME, reason, fault);
    }
    msg = {};
    msg.token = frame.token;
    msg.node = frame.node;
    msg.sap = frame.sap;
    msg.size = received_;
    msg.in_parts = frame.in_parts;
    if (frame.kind != FrameKind::refusal)
        msg.opcode = frame.opcode;
    else if (frame.opcode != KOB_OK && frame.opcode <= last_error_code)
        msg.refusal = static_cast<int32_t>(frame.opcode);
    else // a code that this side does not have
        msg.refusal = KOB_ERR_BAD_FRAME;
    if (received_ != 0) {
        msg.payload = buffer_;
        buffer_ = nullptr;
    }
    reset();
    return Step::message;
}

uint32_t Outbound::next_length(uint32_t largest_part)
{
    const uint32_t largest = frame.in_parts != 0 ? largest_part : KOB_PLAIN_LIMIT;
    frame.offset = sent;
    return std::min(frame.total - sent, largest);
}

void Outbound::advance(uint32_t length)
{
    sent += length;
    is_done = sent == frame.total;
}

} // namespace zel::platform
