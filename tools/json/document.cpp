#include "tools/json/document.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

namespace tools {

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
        return std::string(text);
    case Kind::text:
        return text.size() <= 40 ? fmt::format("\"{}\"", text) : fmt::format("a text of {} bytes", text.size());
    case Kind::array:
        return "an array";
    case Kind::object:
        return "an object";
    }
    return "nothing";
}

std::string_view Arena::copy(std::string_view text)
{
    if (text.empty())
        return {};
    auto *const bytes = static_cast<char *>(memory_->allocate(text.size(), 1));
    return {std::copy(text.begin(), text.end(), bytes) - text.size(), text.size()};
}

std::span<Node> Arena::copy(std::span<const Node> nodes)
{
    if (nodes.empty())
        return {};
    auto *const first = static_cast<Node *>(memory_->allocate(nodes.size_bytes(), alignof(Node)));
    return {first, std::uninitialized_copy(nodes.begin(), nodes.end(), first)};
}

uint32_t Document::line_at(std::size_t offset) const
{
    return first_line +
           (text != nullptr ? static_cast<uint32_t>(std::count(text.get(), text.get() + offset, '\n')) : 0);
}

std::string read_file(const std::string &path)
{
    const bool standard_input = path == "-";
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(standard_input ? stdin : std::fopen(path.c_str(), "rb"),
                                                                standard_input ? std::fflush : std::fclose);
    std::string bytes;
    struct stat about {};
    if (file != nullptr && fstat(fileno(file.get()), &about) == 0 && S_ISREG(about.st_mode))
        bytes.reserve(std::min(static_cast<std::size_t>(about.st_size), largest_file));
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

void Input::fail(std::string_view text) const
{
    throw BadInput(fmt::format("{}:{}: {}: {}", document.file, document.line_at(node.offset), path.text(), text));
}

void Input::expected(std::string_view what) const
{
    fail(fmt::format("expected {}, found {}", what, node.described()));
}

} // namespace tools
