// Text from others, for a terminal or a log.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// The longest text from somebody else in a line that a person reads, in bytes.
constexpr std::size_t longest_foreign_text = 1000;

// Makes a text harmless: control characters (C0, DEL, C1), line and paragraph separators
// and marks that change the direction of writing become \u and four hexadecimal digits,
// bytes that are not UTF-8 \x and two. What is longer than the limit is cut at a
// character and ends with "...".
std::string safe_text(std::string_view text, std::size_t max_bytes = longest_foreign_text);

// The same without a limit for JSON, which stays the same document: the characters can
// only stand in its strings. Line feeds between its members stay.
std::string safe_json(std::string_view json);

} // namespace tools
