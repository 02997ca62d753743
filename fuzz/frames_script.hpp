// The script that an input of the frames target is: steps, each followed by a frame
// and, as far as there are any, the bytes of its content.
#pragma once

#include "reference/kob/frame.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

namespace fuzz {

enum : uint8_t {
    step_to_client = 1,     // the false service sends, else a peer of the service
    step_is_zeros = 2,      // the content is zeros that need not be in the input: an empty array
    step_is_whole = 4,      // the frame's size is made to fit
    step_large_reply = 8,   // requests are answered at length
    step_read_replies = 16, // the peer reads what was sent to it; the client takes any response
    step_hang_up = 32       // afterwards
};

struct Step {
    uint8_t peer;
    uint8_t flags;
    uint16_t length; // of the content, in pairs of bytes when it is zeros
};

class Script {
public:
    Script(const uint8_t *data, std::size_t size) : at_(data), left_(size) {}

    bool is_at_end() const { return left_ == 0; }

    // The next bytes as one of these, zeros behind the end.
    template <class T> T take()
    {
        T taken{};
        take(&taken, sizeof taken);
        return taken;
    }

    // The magic number is written as the difference from the right one.
    std::vector<char> take_packet(const Step &step)
    {
        auto frame = take<zel::platform::Frame>();
        frame.magic ^= zel::platform::frame_magic;
        const bool is_zeros = (step.flags & step_is_zeros) != 0;
        const std::size_t length = is_zeros ? 2U * step.length : std::min<std::size_t>(step.length, left_);
        if ((step.flags & step_is_whole) != 0)
            frame.total = frame.offset + static_cast<uint32_t>(length);
        std::vector<char> packet(sizeof frame + length);
        std::memcpy(packet.data(), &frame, sizeof frame);
        if (!is_zeros)
            take(packet.data() + sizeof frame, length);
        return packet;
    }

private:
    void take(void *to, std::size_t size)
    {
        const std::size_t taken = std::min(size, left_);
        if (taken != 0)
            std::memcpy(to, at_, taken);
        at_ += taken;
        left_ -= taken;
    }

    const uint8_t *at_;
    std::size_t left_;
};

} // namespace fuzz
