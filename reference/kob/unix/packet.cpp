// Messages as packets: parts are received right where they belong in the message.
#include "reference/kob/unix/packet.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace zel::platform {

namespace {

bool would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// Takes a packet off the socket without looking at it.
void discard(int socket)
{
    char byte;
    (void)recv(socket, &byte, sizeof byte, MSG_DONTWAIT);
}

} // namespace

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

// What is wrong with a packet behind the first of a message.
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

// A message's size is a claim: the buffer grows with what really arrives, and has
// room for the tail.
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
    else if (frame.opcode != KOB_OK && frame.opcode <= KOB_ERR_SYSTEM)
        msg.refusal = static_cast<int32_t>(frame.opcode);
    else // not a code that this side knows
        msg.refusal = KOB_ERR_BAD_FRAME;
    if (received_ != 0) {
        msg.payload = buffer_;
        buffer_ = nullptr;
    }
    reset();
    return Step::message;
}

Step Inbound::step(int socket, kob_msg &msg, Fault &fault)
{
    Frame frame;
    const ssize_t size = recv(socket, &frame, sizeof frame, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (size < 0)
        return would_block(errno) ? Step::nothing : Step::closed;
    if (size == 0)
        return Step::closed;
    const auto hostile = [&](const char *reason) {
        fault = {KOB_ERR_BAD_FRAME, reason, 0, 0};
        return Step::hostile;
    };
    if (static_cast<std::size_t>(size) < sizeof frame)
        return hostile("a packet shorter than a header");
    const std::size_t length = static_cast<std::size_t>(size) - sizeof frame;
    if (const char *const reason = frame_fault(frame, length, expected_))
        return hostile(reason);

    const uint32_t end = frame.offset + static_cast<uint32_t>(length);
    if (frame.offset != 0 && frame.token == skipped_token_) {
        discard(socket);
        return Step::part;
    }
    if (frame.offset != 0) {
        if (const char *const reason = continuation_fault(frame))
            return hostile(reason);
    } else if (is_half()) {
        return hostile("a message within another");
    } else if (frame.total > max_message_) {
        discard(socket);
        return refuse(frame, end, KOB_ERR_TOO_LARGE, "a message above the limit", fault);
    }
    if (!grow(frame.total, end)) {
        discard(socket);
        return refuse(frame, end, KOB_ERR_BUSY, "no memory for a message", fault);
    }

    iovec pieces[] = {{&frame, sizeof frame}, {buffer_ + frame.offset, length}};
    msghdr packet{};
    packet.msg_iov = pieces;
    packet.msg_iovlen = 2;
    if (recvmsg(socket, &packet, MSG_DONTWAIT) != size)
        return Step::closed;
    first_ = frame;
    received_ = end;
    skipped_token_ = 0;
    return received_ == frame.total ? finish(frame, msg, fault) : Step::part;
}

int32_t send_packets(int socket, Outbound &out)
{
    const uint32_t largest = out.frame.in_parts != 0 ? part_size : KOB_PLAIN_LIMIT;
    while (!out.is_done) {
        const uint32_t length = std::min(out.frame.total - out.sent, largest);
        out.frame.offset = out.sent;
        // sendmsg() has no pointers to const.
        auto *const payload = static_cast<char *>(const_cast<void *>(out.payload));
        iovec pieces[] = {{&out.frame, sizeof out.frame}, {payload + out.sent, length}};
        msghdr packet{};
        packet.msg_iov = pieces;
        packet.msg_iovlen = length != 0 ? 2 : 1;
        if (sendmsg(socket, &packet, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            switch (errno) {
            case EAGAIN:
            case EINTR:
            case ENOBUFS:
            case ENOMEM:
                return KOB_ERR_TIMEOUT;
            case EPIPE:
            case ECONNRESET:
            case ENOTCONN:
                return KOB_ERR_PEER_GONE;
            case EMSGSIZE:
                return KOB_ERR_TOO_LARGE;
            default:
                return KOB_ERR_SYSTEM;
            }
        }
        out.sent += length;
        out.is_done = out.sent == out.frame.total;
    }
    return KOB_OK;
}

} // namespace zel::platform
