// The duties of the transport.  They need a client and a service: the port gives them in
// zel_check_loopback_open().
#include "zel/platform/transport.h"
#include "conformance/check.hpp"
#include "zel/platform/tlv_array.h"
#include "zel/platform_check.h"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

namespace zel::conformance {
namespace {

constexpr uint32_t plain_limit = ZEL_KOB_MP_THRESHOLD;
constexpr uint32_t header_size = ZEL_RESP_HDR_SIZE;
constexpr uint32_t tail = 64;

using Payload = const unsigned char *;

// A client and its service.  The process of a check ends without closing them.
struct Loopback {
    zel_check_loopback_t hooks{};
    Outcome closed = kept(""); // unchecked: there is no loopback, and why

    Loopback()
    {
        hooks.size = sizeof hooks;
        if (&zel_check_loopback_open == nullptr)
            closed = unchecked("needs a peer: define zel_check_loopback_open(), see zel/platform_check.h");
        else if (const int32_t status = zel_check_loopback_open(loopback_address, &hooks); status != 0)
            closed = unchecked("there is no loopback at %s: zel_check_loopback_open() gives %d",
                               loopback_address != nullptr ? loopback_address : "(no --loopback)", status);
        else if (hooks.receive == nullptr)
            closed = unchecked("zel_check_loopback_open() sets no receive()");
    }

    bool is_open() const { return closed.state == State::kept; }

    int32_t send(const void *bytes, uint32_t size) const
    {
        now("sending %u bytes", size);
        if (size <= plain_limit)
            return fu_kob_send(hooks.kob_handle, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, ZEL_KOB_OPC_REQUEST, bytes, size,
                               hooks.request, 0, 0);
        const mpkob_segment_t whole{bytes, size};
        return mpkob_send(hooks.kob_handle, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, ZEL_KOB_OPC_MP_REQUEST, &whole, 1,
                          hooks.request, 0);
    }

    // As the library gets the payload of a request.
    Payload payload_of_request(void *message) const
    {
        void *const payload = mpkob_is_mpkob(hooks.kob_ctx, message) != 0 ? mpkob_payload_get(hooks.kob_ctx, message)
                                                                          : kob_payload_get(message);
        return static_cast<Payload>(payload);
    }

    // The payload of a message as it is received; null when none comes.
    Payload exchange(const void *bytes, uint32_t size) const
    {
        if (send(bytes, size) != 0)
            return nullptr;
        now("receiving %u bytes", size);
        void *const message = hooks.receive(hooks.context);
        return message != nullptr ? payload_of_request(message) : nullptr;
    }

    // The payload of a response; null when none comes.
    Payload answer(const void *bytes, uint32_t size) const
    {
        now("a response of %u bytes", size);
        void *const message = hooks.answer(hooks.context, bytes, size);
        return message != nullptr ? static_cast<Payload>(kob_payload_get(message)) : nullptr;
    }
};

// A buffer with an array of at most size bytes.
struct Message {
    explicit Message(uint32_t given, uint32_t before_array = 0)
        : size(given), bytes(static_cast<unsigned char *>(std::calloc(1, given)))
    {
        static const unsigned char value[64] = {1, 2, 3, 4, 5};
        while (size > before_array &&
               tlv_array_add_tlv(bytes + before_array, size - before_array, 7, sizeof value, value, 0) == 0) {
        }
    }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
    ~Message() { std::free(bytes); }

    uint32_t size;
    unsigned char *bytes;
};

// Sends messages of these sizes and holds them against what arrives.
Outcome exchange_all(const Loopback &loopback, std::initializer_list<uint32_t> sizes, bool in_parts)
{
    for (const uint32_t size : sizes) {
        const Message message(size);
        if (const int32_t status = loopback.send(message.bytes, size); status != 0)
            return broken("%u bytes: found status %d, expected 0", size, status);
        now("receiving %u bytes", size);
        void *const received = loopback.hooks.receive(loopback.hooks.context);
        if (received == nullptr)
            return broken("%u bytes were taken, and did not arrive", size);
        if ((mpkob_is_mpkob(loopback.hooks.kob_ctx, received) != 0) != in_parts)
            return broken("%u bytes: mpkob_is_mpkob() is %s", size, in_parts ? "0" : "not 0");
        const Payload payload = loopback.payload_of_request(received);
        if (payload == nullptr || std::memcmp(payload, message.bytes, size) != 0)
            return broken("%u bytes arrived %s", size, payload == nullptr ? "without payload" : "different");
        // The library asks more than once.
        (void)loopback.payload_of_request(received);
        if (std::memcmp(payload, message.bytes, size) != 0)
            return broken("%u bytes changed when the payload was asked for again", size);
    }
    return kept("up to %u bytes arrived as they were sent", *(sizes.end() - 1));
}

} // namespace

Outcome check_transport_plain()
{
    const Loopback loopback;
    return loopback.is_open() ? exchange_all(loopback, {16, 1000, plain_limit}, false) : loopback.closed;
}

Outcome check_transport_parts()
{
    const Loopback loopback;
    return loopback.is_open() ? exchange_all(loopback, {plain_limit + 1, 150000}, true) : loopback.closed;
}

Outcome check_transport_copy()
{
    const Loopback loopback;
    if (!loopback.is_open())
        return loopback.closed;
    for (const uint32_t size : {1000U, plain_limit + 1}) {
        const Message message(size);
        const Message original(size);
        if (loopback.send(message.bytes, size) != 0)
            return broken("%u bytes were not taken", size);
        std::memset(message.bytes, 0xdd, size);
        now("receiving %u bytes whose buffer has changed since", size);
        void *const received = loopback.hooks.receive(loopback.hooks.context);
        const Payload payload = received != nullptr ? loopback.payload_of_request(received) : nullptr;
        if (payload == nullptr || std::memcmp(payload, original.bytes, size) != 0)
            return broken("the buffer of %u bytes was changed after the call, and so was the message", size);
    }
    return kept("messages do not change with their buffers");
}

Outcome check_transport_token()
{
    const Loopback loopback;
    if (!loopback.is_open())
        return loopback.closed;
    const Message message(1000);
    const Message response(header_size);
    uint32_t last = 0;
    for (int round = 0; round < 3; ++round) {
        if (loopback.send(message.bytes, message.size) != 0)
            return broken("1000 bytes were not taken");
        const uint32_t token = kob_rr_token_get(loopback.hooks.request);
        if (token == 0 || token == last)
            return broken("found token %u after token %u, expected another, and not 0", token, last);
        last = token;
        if (loopback.hooks.receive(loopback.hooks.context) == nullptr || loopback.hooks.answer == nullptr)
            continue;
        void *const answer = loopback.hooks.answer(loopback.hooks.context, response.bytes, response.size);
        if (answer != nullptr && kob_rr_token_get(answer) != token)
            return broken("found token %u at the response, expected %u", kob_rr_token_get(answer), token);
    }
    return kept("token %u at the last request%s", last, loopback.hooks.answer != nullptr ? " and at its response" : "");
}

Outcome check_transport_response()
{
    const Loopback loopback;
    if (!loopback.is_open())
        return loopback.closed;
    if (loopback.hooks.answer == nullptr)
        return unchecked("zel_check_loopback_open() sets no answer()");
    const Message request(1000);
    for (const uint32_t size : {header_size, header_size + 200, header_size + plain_limit}) {
        const Message response(size, header_size);
        if (loopback.exchange(request.bytes, request.size) == nullptr)
            return broken("1000 bytes did not arrive");
        const Payload payload = loopback.answer(response.bytes, size);
        if (payload == nullptr || std::memcmp(payload, response.bytes, size) != 0)
            return broken("kob_payload_get() of a response of %u bytes: %s", size,
                          payload == nullptr ? "found null, expected the response" : "found other bytes");
    }
    if (loopback.exchange(request.bytes, request.size) == nullptr)
        return broken("1000 bytes did not arrive");
    const Message half(header_size / 2);
    if (loopback.answer(half.bytes, half.size) != nullptr)
        return broken("a response of %u bytes has a payload, expected none below %u", half.size, header_size);
    return kept("responses arrived, and half a header has no payload");
}

Outcome check_transport_refusal()
{
    const Loopback loopback;
    if (!loopback.is_open())
        return loopback.closed;
    if (loopback.hooks.refuse == nullptr)
        return unchecked("zel_check_loopback_open() sets no refuse()");
    const Message message(plain_limit + 1);
    loopback.hooks.refuse(loopback.hooks.context);
    for (const uint32_t size : {1000U, message.size}) {
        if (loopback.send(message.bytes, size) == 0)
            return broken("%u bytes that cannot be sent: found 0, expected another status", size);
        const int32_t first = kob_errno_get(loopback.hooks.kob_handle);
        const int32_t second = kob_errno_get(loopback.hooks.kob_handle);
        if (first == 0 || first != second)
            return broken("kob_errno_get() gives %d, then %d, expected the same, and not 0", first, second);
    }
    return kept("refused with errno %d", kob_errno_get(loopback.hooks.kob_handle));
}

Outcome check_payload_array()
{
    const Loopback loopback;
    if (!loopback.is_open())
        return loopback.closed;
    uint32_t arrived = 0;
    // The array's own four bytes, and all bytes.
    for (uint32_t i = 0; i <= 4; ++i) {
        const Message message(300);
        std::memset(message.bytes + (i < 4 ? i : 0), 0xff, i < 4 ? 1 : message.size);
        const Payload payload = loopback.exchange(message.bytes, message.size);
        if (payload == nullptr)
            continue;
        ++arrived;
        now("reading an array that claims more than the 300 bytes that arrived");
        if (const char *const fault = fault_of_reading(payload, message.size))
            return broken("300 bytes with a damaged array arrived, and %s", fault);
    }
    return kept("of 5 damaged arrays %u arrived, and their readers stay inside", arrived);
}

namespace {

// Calls visit with payloads of many sizes, of which some end with a page.
template <class Visit> Outcome for_each_payload(Visit visit)
{
    const Loopback loopback;
    if (!loopback.is_open())
        return loopback.closed;
    constexpr uint32_t page = 4096;
    constexpr uint32_t large = 131000; // allocators give pages to such sizes
    for (uint32_t size = 16; size < large + 2 * page; size = size + 52 < page || size >= large ? size + 52 : large) {
        // What lies in the heap is not 0, so that zeros are the transport's.
        void *volatile dirt = std::memset(std::malloc(size + 200), 0xa5, size + 200);
        std::free(dirt);
        const Message message(size);
        const Payload payload = loopback.exchange(message.bytes, size);
        if (payload == nullptr)
            return broken("%u bytes did not arrive", size);
        if (const Outcome one = visit(payload, size); one.state != State::kept)
            return one;
    }
    return kept("");
}

// The kernel says whether memory can be read.
bool can_be_read(const void *bytes, std::size_t size)
{
    int ends[2];
    if (pipe(ends) != 0)
        return true;
    const bool is_readable = write(ends[1], bytes, size) == static_cast<ssize_t>(size);
    (void)close(ends[0]);
    (void)close(ends[1]);
    return is_readable;
}

Outcome with_text(const Outcome &found, const char *text) { return found.state == State::kept ? kept(text) : found; }

} // namespace

Outcome check_payload_aligned()
{
    return with_text(for_each_payload([](Payload payload, uint32_t size) {
                         const auto address = reinterpret_cast<uintptr_t>(payload);
                         return address % 4 == 0 ? kept("")
                                                 : broken("a payload of %u bytes is %u bytes behind a multiple of 4",
                                                          size, static_cast<uint32_t>(address % 4));
                     }),
                     "payloads of 16 to 139000 bytes are aligned to 4");
}

Outcome check_payload_tail()
{
    return with_text(for_each_payload([](Payload payload, uint32_t size) {
                         return can_be_read(payload + size, tail)
                                    ? kept("")
                                    : broken("the 64 bytes behind a payload of %u cannot be read", size);
                     }),
                     "64 bytes can be read behind payloads of 16 to 139000 bytes");
}

Outcome check_payload_zeros()
{
    return with_text(for_each_payload([](Payload payload, uint32_t size) {
                         const unsigned char *const behind = payload + size;
                         if (!can_be_read(behind, tail))
                             return unchecked("they cannot be read");
                         const auto *const other =
                             std::find_if(behind, behind + tail, [](unsigned char byte) { return byte != 0; });
                         return other == behind + tail
                                    ? kept("")
                                    : outcome(State::advised, "byte %u behind a payload of %u is 0x%02x",
                                              static_cast<uint32_t>(other - behind), size, *other);
                     }),
                     "the 64 bytes behind payloads are 0");
}

} // namespace zel::conformance
