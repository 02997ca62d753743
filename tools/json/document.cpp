#include "tools/json/document.hpp"

#include "tools/json/progress.hpp"

#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <unordered_set>

namespace tools {
namespace {

constexpr std::size_t deepest = 64;

// The parser reads at most one character beyond a token, so the token's line is the
// line before the last character read.
struct Position {
    uint32_t line;
    uint32_t previous_line;
    const char *begin;
    Progress progress;

    void pass(const char *at)
    {
        previous_line = line;
        if (*at != '\n')
            return;
        ++line;
        progress.reached(static_cast<std::size_t>(at - begin));
    }
};

// The iterator that the parser reads with; it counts lines.
class LineCounter {
public:
    LineCounter(const char *at, Position &position) : at_(at), position_(&position) {}

    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    reference operator*() const { return *at_; }
    LineCounter &operator++()
    {
        position_->pass(at_++);
        return *this;
    }
    LineCounter operator++(int)
    {
        LineCounter old = *this;
        ++*this;
        return old;
    }
    bool operator==(const LineCounter &other) const { return at_ == other.at_; }
    bool operator!=(const LineCounter &other) const { return at_ != other.at_; }

private:
    const char *at_;
    Position *position_;
};

// Builds nodes from what the parser finds.
class Builder {
public:
    Builder(const std::string &file, Node &root, const Position &position)
        : file_(file), root_(root), position_(position)
    {}

    bool null() { return add(Node::Kind::null); }
    bool boolean(bool value) { return add(Node::Kind::boolean, value ? 1 : 0); }
    bool number_unsigned(uint64_t value) { return add(Node::Kind::integer, value); }
    bool number_integer(int64_t value) { return add(Node::Kind::other_number, 0, std::to_string(value)); }
    bool number_float(double, const std::string &written) { return add(Node::Kind::other_number, 0, written); }
    bool string(std::string &value) { return add(Node::Kind::text, 0, std::move(value)); }
    bool binary(nlohmann::json::binary_t &) { return false; }
    bool start_object(std::size_t) { return open(Node::Kind::object); }
    bool end_object() { return close(); }
    bool start_array(std::size_t) { return open(Node::Kind::array); }
    bool end_array() { return close(); }

    bool key(std::string &name)
    {
        if (!keys_.back().insert(name).second)
            throw BadInput(fmt::format("{}:{}: the member \"{}\" stands twice in one object", file_,
                                       position_.previous_line, name));
        key_ = std::move(name);
        return true;
    }

    bool parse_error(std::size_t, const std::string &, const nlohmann::json::exception &error)
    {
        // The text has a line and a column that the parser counts differently; what follows
        // them is the reason.
        const std::string_view text = error.what();
        const std::size_t column = text.find("column ");
        const std::size_t reason = text.find(": ", column == std::string_view::npos ? 0 : column);
        const std::string_view said = reason == std::string_view::npos ? text : text.substr(reason + 2);
        throw BadInput(fmt::format("{}:{}: not JSON: {}", file_, position_.previous_line, said));
    }

private:
    bool add(Node::Kind kind, uint64_t number = 0, std::string text = {})
    {
        Node node;
        node.kind = kind;
        node.line = position_.previous_line;
        node.number = number;
        node.text = std::move(text);
        add(std::move(node));
        return true;
    }

    Node &add(Node node)
    {
        node.key = std::move(key_);
        key_.clear();
        Node &to = open_.empty() ? root_ : open_.back()->children.emplace_back();
        return to = std::move(node);
    }

    bool open(Node::Kind kind)
    {
        if (open_.size() == deepest)
            throw BadInput(fmt::format("{}:{}: nested deeper than {} levels", file_, position_.previous_line, deepest));
        Node node;
        node.kind = kind;
        node.line = position_.previous_line;
        open_.push_back(&add(std::move(node)));
        keys_.emplace_back();
        return true;
    }

    bool close()
    {
        open_.pop_back();
        keys_.pop_back();
        return true;
    }

    const std::string &file_;
    Node &root_;
    const Position &position_;
    std::string key_;
    std::vector<Node *> open_;                          // stays valid: only the innermost one's children grow
    std::vector<std::unordered_set<std::string>> keys_; // that each open object has had so far
};

} // namespace

const Node *Node::find(std::string_view name) const
{
    const auto found = std::ranges::find(children, name, &Node::key);
    return found == children.end() ? nullptr : &*found;
}

std::string Node::described() const
{
    switch (kind) {
    case Kind::null:
        return "null";
    case Kind::boolean:
        return number != 0 ? "true" : "false";
    case Kind::integer:
        return std::to_string(number);
    case Kind::other_number:
        return text;
    case Kind::text:
        return text.size() <= 40 ? "\"" + text + "\"" : fmt::format("a text of {} bytes", text.size());
    case Kind::array:
        return "an array";
    case Kind::object:
        return "an object";
    }
    return "nothing";
}

Document parse_json(std::string_view text, std::string file, uint32_t line)
{
    Document document{std::move(file), {}};
    Position position{line, line, text.data(), Progress("reading " + document.file, text.size())};
    Builder builder(document.file, document.root, position);
    nlohmann::json::sax_parse(LineCounter(text.data(), position), LineCounter(text.data() + text.size(), position),
                              &builder);
    return document;
}

std::string read_file(const std::string &path)
{
    const bool standard_input = path == "-";
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(standard_input ? stdin : std::fopen(path.c_str(), "rb"),
                                                                standard_input ? std::fflush : std::fclose);
    std::string bytes;
    char piece[65536];
    while (file != nullptr) {
        const std::size_t length = std::fread(piece, 1, sizeof piece, file.get());
        bytes.append(piece, length);
        if (length < sizeof piece)
            break;
        if (bytes.size() > largest_file)
            throw BadInput(fmt::format("{}: cannot be read: it has more than {} bytes", path, largest_file));
    }
    if (file == nullptr || std::ferror(file.get()) != 0)
        throw BadInput(fmt::format("{}: cannot be read: {}", path, std::strerror(errno)));
    return bytes;
}

Document read_json_file(const std::string &path) { return parse_json(read_file(path), path == "-" ? "<stdin>" : path); }

void Input::fail(std::string_view text) const
{
    throw BadInput(fmt::format("{}:{}: {}: {}", document.file, node.line, path.text(), text));
}

void Input::expected(std::string_view what) const
{
    fail(fmt::format("expected {}, found {}", what, node.described()));
}

} // namespace tools
