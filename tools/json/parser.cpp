// From a text to a document.  simdjson reads it; when it refuses the text, nlohmann/json, which
// is slower, says what is wrong and where.
#include "tools/json/document.hpp"
#include "tools/json/progress.hpp"

#include <fmt/core.h>
#include <nlohmann/json.hpp>
#include <simdjson.h>

#include <algorithm>
#include <unordered_set>
#include <vector>

namespace tools {
namespace {

using simdjson::ondemand::json_type;

constexpr std::size_t deepest = 64;

// Without the white space at its end.
std::string_view trim_back(std::string_view text)
{
    const auto is_space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && is_space(text.back()))
        text.remove_suffix(1);
    return text;
}

// The keys of an object, to find those that stand twice.
class SeenKeys {
public:
    // False when one of the members before has this key.
    bool enter(std::string_view key, std::span<const Node> before)
    {
        constexpr std::size_t few = 16;
        if (before.size() < few)
            return std::ranges::find(before, key, &Node::key) == before.end();
        for (std::size_t i = many_.empty() ? 0 : before.size(); i < before.size(); ++i)
            many_.insert(before[i].key);
        return many_.insert(key).second;
    }

private:
    std::unordered_set<std::string_view> many_;
};

// Builds the nodes of a document.
class Builder {
public:
    Builder(Document &document, std::size_t size) : document_(document), progress_("reading " + document.file, size) {}

    // V: a value, or a document that is one.
    template <class V> Node build(V &&value)
    {
        const std::string_view token(value.raw_json_token()); // white space may follow
        Node node;
        node.offset = offset_of(token.data());
        switch (json_type(value.type())) {
        case json_type::array:
        case json_type::object:
            open(node);
            if (token.front() == '[')
                build_array(value, node);
            else
                build_object(value, node);
            --depth_;
            break;
        case json_type::string:
            node.kind = Node::Kind::text;
            node.text = text_of(
                token.data() + 1, [&] { (void)simdjson::ondemand::raw_json_string(value.get_raw_json_string()); },
                [&] { return std::string_view(value.get_string()); });
            break;
        case json_type::number:
            build_number(value, trim_back(token), node);
            break;
        case json_type::boolean:
            node.kind = Node::Kind::boolean;
            node.number = bool(value.get_bool()) ? 1 : 0;
            break;
        case json_type::null:
            if (!bool(value.is_null()))
                throw simdjson::simdjson_error(simdjson::N_ATOM_ERROR);
            break;
        }
        return node;
    }

private:
    uint32_t offset_of(const char *place) const { return static_cast<uint32_t>(place - document_.text.get()); }

    [[noreturn]] void fail(std::size_t offset, std::string_view text) const
    {
        throw BadInput(fmt::format("{}:{}: {}", document_.file, document_.line_at(offset), text));
    }

    void open(const Node &node)
    {
        if (depth_++ == deepest)
            fail(node.offset, fmt::format("nested deeper than {} levels", deepest));
        progress_.reached(node.offset);
    }

    template <class V> void build_array(V &value, Node &node)
    {
        node.kind = Node::Kind::array;
        const std::size_t first = open_.size();
        for (auto item : value.get_array())
            open_.push_back(build(item.value()));
        close(first, node);
    }

    template <class V> void build_object(V &value, Node &node)
    {
        node.kind = Node::Kind::object;
        const std::size_t first = open_.size();
        SeenKeys keys;
        for (auto member : value.get_object()) {
            const char *const place = simdjson::ondemand::raw_json_string(member.key()).raw();
            const std::string_view key = text_of(
                place, [] {}, [&] { return std::string_view(member.unescaped_key()); });
            if (!keys.enter(key, std::span(open_).subspan(first)))
                fail(offset_of(place), fmt::format("the member \"{}\" stands twice in one object", key));
            open_.push_back(build(member.value()));
            open_.back().key = key;
        }
        close(first, node);
    }

    template <class V> void build_number(V &value, std::string_view token, Node &node)
    {
        node.kind = Node::Kind::other_number;
        const bool is_natural = std::ranges::all_of(token, [](char c) { return c >= '0' && c <= '9'; });
        if (is_natural && value.get_uint64().get(node.number) == simdjson::SUCCESS) {
            node.kind = Node::Kind::integer;
            return;
        }
        if (!is_natural || token.front() == '0') // else it has more digits than any field
            (void)double(value.get_double());
        node.text = token;
    }

    // The text up to the quotation mark, where it stands unless it has escapes.
    template <class Pass, class Unescape> std::string_view text_of(const char *begin, Pass pass, Unescape unescape)
    {
        const char *end = begin;
        while (*end != '"' && *end != '\\')
            ++end;
        if (*end == '\\')
            return document_.arena.copy(unescape());
        pass();
        return {begin, static_cast<std::size_t>(end - begin)};
    }

    // The children of a value are complete: they move to where they stay.
    void close(std::size_t first, Node &node)
    {
        node.children = document_.arena.copy(std::span(open_).subspan(first));
        open_.resize(first);
    }

    Document &document_;
    Progress progress_;
    std::size_t depth_ = 0;
    std::vector<Node> open_; // children of the values that are not complete
};

// Keeps the first fault only.
class FaultFinder : public nlohmann::json_sax<nlohmann::json> {
public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(int64_t) override { return true; }
    bool number_unsigned(uint64_t) override { return true; }
    bool number_float(double, const std::string &) override { return true; }
    bool string(std::string &) override { return true; }
    bool binary(nlohmann::json::binary_t &) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(std::string &) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t position, const std::string &, const nlohmann::json::exception &error) override
    {
        place = position;
        // The text has a line and a column, which count otherwise; what follows them is the reason.
        reason = error.what();
        const std::size_t column = reason.find("column ");
        const std::size_t colon = reason.find(": ", column == std::string::npos ? 0 : column);
        reason.erase(0, colon == std::string::npos ? 0 : colon + 2);
        return false;
    }

    std::size_t place = 0; // bytes read
    std::string reason;
};

[[noreturn]] void explain(const Document &document, std::string_view text, std::string_view otherwise)
{
    FaultFinder fault;
    if (nlohmann::json::sax_parse(text, &fault))
        fault.reason = otherwise;
    const std::size_t read = trim_back(text.substr(0, fault.place)).size();
    throw BadInput(fmt::format("{}:{}: not JSON: {}", document.file, document.line_at(read), fault.reason));
}

} // namespace

Document parse_json(std::string_view text, std::string file, uint32_t line)
{
    Document document{std::move(file), line};
    if (text.size() > UINT32_MAX)
        throw BadInput(fmt::format("{}: a document of {} bytes is too large", document.file, text.size()));
    const std::size_t capacity = text.size() + simdjson::SIMDJSON_PADDING;
    auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
    std::fill(std::copy(text.begin(), text.end(), bytes.get()), bytes.get() + capacity, '\0');
    const simdjson::padded_string_view padded(bytes.get(), text.size(), capacity);
    document.text = std::move(bytes);
    simdjson::ondemand::parser parser;
    try {
        simdjson::ondemand::document value = parser.iterate(padded);
        Builder builder(document, text.size());
        document.root = bool(value.is_scalar()) ? builder.build(value)
                                                : builder.build(simdjson::ondemand::value(value.get_value()));
        if (value.current_location().error() == simdjson::SUCCESS)
            throw simdjson::simdjson_error(simdjson::TRAILING_CONTENT);
    } catch (const simdjson::simdjson_error &error) {
        explain(document, text, error.what());
    }
    return document;
}

Document read_json_file(const std::string &path) { return parse_json(read_file(path), path == "-" ? "<stdin>" : path); }

} // namespace tools
