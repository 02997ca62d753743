// The header of every packet of the transport, and the check of a received one.
#pragma once

#include "zel-platform/kob.h"

#include <cstddef>
#include <stdint.h>

namespace zel::platform {

// Changes when the layout changes, so that a peer with another layout is refused.
constexpr uint32_t frame_magic = 0x4b4f4201;

enum class FrameKind : uint16_t { request = 1, response = 2, refusal = 3 };

// A message is one packet, or several in order.  Each holds the bytes of the payload from
// its offset on.  The message is whole when total bytes have arrived.
struct Frame {
    uint32_t magic; // frame_magic
    FrameKind kind;
    uint16_t in_parts; // 1: sent as a multi-part message, even if it fits in one packet
    uint32_t token;    // pairs a request with its response; 0: a refusal of the connection
    uint32_t opcode;   // of a refusal: the KOB_ERR_* value
    uint32_t node;
    uint32_t sap;
    uint32_t total;  // bytes of the whole payload
    uint32_t offset; // bytes of it in earlier packets
};
static_assert(sizeof(Frame) == 32);

// Payload bytes in a packet of a multi-part message.
constexpr uint32_t part_size = 65536 - sizeof(Frame);

// What is wrong with a frame that came with length bytes of payload, or null.
inline const char *frame_fault(const Frame &frame, std::size_t length, FrameKind expected)
{
    if (frame.magic != frame_magic)
        return "not a packet of this transport";
    if (frame.kind != expected && (frame.kind != FrameKind::refusal || expected != FrameKind::response))
        return "a packet of the wrong kind";
    if (frame.kind == FrameKind::refusal && frame.total != 0)
        return "a refusal with content";
    if (frame.token == 0 && frame.kind != FrameKind::refusal)
        return "a packet without token";
    if (frame.in_parts > 1)
        return "a packet with unknown flags";
    if (frame.in_parts == 0 && frame.total > KOB_PLAIN_LIMIT)
        return "a plain message above the limit of plain messages";
    if (frame.in_parts == 0 && (frame.offset != 0 || length != frame.total))
        return "a plain message that is not whole";
    if (frame.offset > frame.total || length > frame.total - frame.offset)
        return "a part that exceeds its message";
    if (length == 0 && frame.total != 0)
        return "a part without content";
    return nullptr;
}

} // namespace zel::platform
