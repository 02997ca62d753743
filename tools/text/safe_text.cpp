#include "tools/text/safe_text.hpp"

#include "tools/text/utf8.hpp"

#include <fmt/format.h>

namespace tools {

namespace {

bool is_harmless(uint32_t character)
{
    const auto is_in = [character](uint32_t first, uint32_t last) { return character >= first && character <= last; };
    const bool is_control = character < 0x20 || is_in(0x7f, 0x9f);
    const bool separates_lines = is_in(0x2028, 0x2029);
    const bool changes_direction =
        character == 0x061c || is_in(0x200e, 0x200f) || is_in(0x202a, 0x202e) || is_in(0x2066, 0x2069);
    return !is_control && !separates_lines && !changes_direction;
}

// Removes a character, or a byte that is none, and returns it as it may be shown.
std::string take_shown(std::string_view &text)
{
    uint32_t character = 0;
    const std::size_t length = decode_utf8(text, character);
    const std::string_view bytes = text.substr(0, length == 0 ? 1 : length);
    text.remove_prefix(bytes.size());
    if (length == 0)
        return fmt::format("\\x{:02x}", static_cast<unsigned char>(bytes.front()));
    return is_harmless(character) ? std::string(bytes) : fmt::format("\\u{:04x}", character);
}

} // namespace

std::string safe_text(std::string_view text, std::size_t max_bytes)
{
    std::string shown;
    while (!text.empty()) {
        const std::string next = take_shown(text);
        if (shown.size() + next.size() > max_bytes)
            return shown + "...";
        shown += next;
    }
    return shown;
}

std::string safe_json(std::string_view json)
{
    std::string shown;
    while (!json.empty()) {
        if (json.front() != '\n') {
            shown += take_shown(json);
            continue;
        }
        shown += '\n';
        json.remove_prefix(1);
    }
    return shown;
}

} // namespace tools
