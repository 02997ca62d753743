// JSON documents whose values keep the number of their line, for error messages.
#pragma once

#include "tools/json/bad_input.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

struct Node {
    enum class Kind { null, boolean, integer, other_number, text, array, object };

    Kind kind = Kind::null;
    uint32_t line = 0;
    uint64_t number = 0; // of an integer that is not negative; of a boolean 0 or 1
    std::string text;    // of a text; of other numbers as they were written
    std::string key;     // of a member of an object
    std::vector<Node> children;

    bool is_object() const { return kind == Kind::object; }

    // The member with a name, or null.  Takes time linear in the number of members.
    const Node *find(std::string_view name) const;

    // The value for an error message: a short value as it is, otherwise its kind.
    std::string described() const;
};

struct Document {
    std::string file;
    Node root;
};

// Reads one value from a text.  line is the number of the text's first line.  Throws
// BadInput for a text that is not JSON, for an object with two members of one name,
// and for more than 64 levels of nesting.
Document parse_json(std::string_view text, std::string file, uint32_t line = 1);

// Larger files are not read: an object of the largest message has fewer bytes as JSON.
constexpr std::size_t largest_file = std::size_t{256} * 1024 * 1024;

// The bytes of a file, of standard input for "-".
std::string read_file(const std::string &path);

Document read_json_file(const std::string &path);

// A value, its document and its path.
struct Input {
    const Document &document;
    const Node &node;
    const JsonPath &path;

    [[noreturn]] void fail(std::string_view text) const;
    // "expected X, found Y"
    [[noreturn]] void expected(std::string_view what) const;
};

} // namespace tools
