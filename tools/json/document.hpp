// JSON documents whose values keep their place, for error messages.
#pragma once

#include "tools/json/bad_input.hpp"

#include <cstdint>
#include <memory>
#include <memory_resource>
#include <span>
#include <string>
#include <string_view>

namespace tools {

// A value.  Its texts and children belong to its document.
struct Node {
    enum class Kind { null, boolean, integer, other_number, text, array, object };

    Kind kind = Kind::null;
    uint32_t offset = 0;     // in the document's text
    uint64_t number = 0;     // of an integer that is not negative; of a boolean 0 or 1
    std::string_view text{}; // of a text; of other numbers as they were written
    std::string_view key{};  // of a member of an object
    std::span<Node> children{};

    bool is_object() const { return kind == Kind::object; }

    // The member with a name, or null.  Takes time linear in the number of members.
    const Node *find(std::string_view name) const;

    // The value for an error message: a short value as it is, otherwise its kind.
    std::string described() const;
};

// Memory for texts and children, which is freed as a whole.
class Arena {
public:
    std::string_view copy(std::string_view text);
    std::span<Node> copy(std::span<const Node> nodes);

private:
    // Stays where it is when the arena is moved.
    std::unique_ptr<std::pmr::monotonic_buffer_resource> memory_ =
        std::make_unique<std::pmr::monotonic_buffer_resource>();
};

struct Document {
    std::string file;
    uint32_t first_line = 1;
    std::unique_ptr<const char[]> text{}; // nodes refer to it; null when they were not read
    Arena arena{};
    Node root{};

    // Takes time linear in the offset.
    uint32_t line_at(std::size_t offset) const;
};

// Finds members of an object by name, fast when they are asked for in the order in which they stand.
class Members {
public:
    explicit Members(const Node &object) : members_(object.children) {}

    const Node *find(std::string_view name)
    {
        for (std::size_t i = 0; i < members_.size(); ++i) {
            const std::size_t place = next_ + i < members_.size() ? next_ + i : next_ + i - members_.size();
            if (members_[place].key != name)
                continue;
            next_ = place + 1 < members_.size() ? place + 1 : 0;
            return &members_[place];
        }
        return nullptr;
    }

private:
    std::span<const Node> members_;
    std::size_t next_ = 0;
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
