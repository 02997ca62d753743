#include "tools/zelctl/packet_file.hpp"

#include "tools/json/progress.hpp"
#include "tools/json/reader.hpp"
#include "tools/json/text_values.hpp"
#include "tools/records/packet_record.hpp"

#include <fmt/core.h>

#include <array>

namespace zelctl {
namespace {

using service::PacketHeader;

constexpr uint16_t ether_type_ipv4 = 0x0800;
constexpr uint32_t trace_packet_bytes = 64;

// The columns of a trace and their largest values.
struct Column {
    std::string_view name;
    uint64_t most;
    bool is_address = false;
};
constexpr std::array columns{Column{"source address", UINT32_MAX, true},
                             Column{"destination address", UINT32_MAX, true},
                             Column{"source port", UINT16_MAX},
                             Column{"destination port", UINT16_MAX},
                             Column{"protocol", UINT8_MAX},
                             Column{"flags", UINT32_MAX},
                             Column{"rule number", UINT32_MAX}};
constexpr std::size_t columns_needed = 5;

constexpr std::string_view separators = " \t\r";

std::string_view trim_front(std::string_view text)
{
    return text.substr(std::min(text.find_first_not_of(separators), text.size()));
}

std::optional<uint64_t> read_column(std::string_view text, bool is_address)
{
    if (is_address && text.find('.') != std::string_view::npos)
        return tools::read_ipv4(text);
    return text.starts_with("0x") ? std::nullopt : tools::read_number(text);
}

PacketHeader read_trace_line(std::string_view text, const std::string &where)
{
    std::array<uint64_t, columns.size()> values{};
    std::size_t column = 0;
    for (; !text.empty() && column < columns.size(); ++column) {
        const std::string_view digits = text.substr(0, text.find_first_of(separators));
        const auto value = read_column(digits, columns[column].is_address);
        if (!value || *value > columns[column].most)
            throw tools::BadInput(fmt::format(
                "{}: {}: expected an integer from 0 to {}{}, found \"{}\"", where, columns[column].name,
                columns[column].most, columns[column].is_address ? " or an address such as 10.1.2.3" : "", digits));
        values[column] = *value;
        text = trim_front(text.substr(digits.size()));
    }
    if (column < columns_needed || !text.empty())
        throw tools::BadInput(
            fmt::format("{}: expected {} to {} numbers, found {}", where, columns_needed, columns.size(),
                        text.empty() ? fmt::format("{}", column) : fmt::format("more behind them: \"{}\"", text)));
    PacketHeader header{};
    header.sip = static_cast<uint32_t>(values[0]);
    header.dip = static_cast<uint32_t>(values[1]);
    header.sport = static_cast<uint16_t>(values[2]);
    header.dport = static_cast<uint16_t>(values[3]);
    header.protocol = static_cast<uint8_t>(values[4]);
    header.ether_type = ether_type_ipv4;
    header.bytes = trace_packet_bytes;
    return header;
}

PacketHeader read_json_line(std::string_view text, const std::string &path, uint32_t line)
{
    const tools::Document document = tools::parse_json(text, path, line);
    const tools::JsonPath root;
    PacketHeader header{};
    tools::JsonReader(0).read({document, document.root, root}, tools::packet_header, &header);
    return header;
}

} // namespace

std::vector<PacketHeader> read_packet_file(const std::string &path)
{
    const std::string bytes = tools::read_file(path);
    tools::Progress progress("reading packet headers", bytes.size());
    std::vector<PacketHeader> headers;
    uint32_t line = 1;
    for (std::size_t at = 0; at < bytes.size(); ++line) {
        const std::size_t end = std::min(bytes.find('\n', at), bytes.size());
        const std::string_view text = trim_front(std::string_view(bytes).substr(at, end - at));
        at = end + 1;
        if (text.empty() || text.front() == '#')
            continue;
        headers.push_back(text.front() == '{' ? read_json_line(text, path, line)
                                              : read_trace_line(text, fmt::format("{}:{}", path, line)));
        progress.reached(at);
    }
    return headers;
}

} // namespace zelctl
