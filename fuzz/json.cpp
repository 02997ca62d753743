// Whatever somebody writes as JSON: the tools refuse it, or make a message of it
// that is in order and can be shown as JSON of the same message.
#include "heap.hpp"
#include "target.hpp"

#include "tools/message/message.hpp"
#include "zel-platform/tlv_check.h"

#include <optional>

using namespace tools;

namespace {

std::optional<Message> read(std::string_view text)
{
    try {
        return message_from_json(parse_json(text, "input.json"), 1);
    } catch (const BadInput &) {
        return std::nullopt;
    }
}

void check_message(const Message &message)
{
    const std::string bytes = encode_message(message);
    const zel_verify_options_t strict{sizeof strict, 1};
    REQUIRE(tlv_array_check(bytes.data(), static_cast<uint32_t>(bytes.size())) == TLV_OK);
    REQUIRE(zel_verify_tlv_array(bytes.data(), &strict, nullptr) == ZEL_VERIFY_OK);

    const Message decoded = decode_message(bytes, "message");
    const std::optional<Message> again = read(message_to_json(decoded).dump());
    REQUIRE(again.has_value());
    REQUIRE(encode_message(*again) == bytes);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    const fuzz::Heap heap;
    if (const std::optional<Message> message = read({reinterpret_cast<const char *>(data), size}))
        check_message(*message);
    REQUIRE(heap.live_bytes() == 0);
    return 0;
}
