#include "tools/json/port_ranges.hpp"

#include "tools/json/text_values.hpp"
#include "zel.h"

#include <fmt/core.h>

#include <array>
#include <span>

namespace tools {

std::vector<MaskedPort> expand(PortRange range)
{
    std::array<zel_port_mask_t, ZEL_PORT_RANGE_MAX> split{};
    const uint32_t number = zel_split_port_range(range.first, range.last, split.data());
    std::vector<MaskedPort> ports;
    for (const zel_port_mask_t &port : std::span(split).first(number))
        ports.push_back({port.value, port.mask});
    return ports;
}

std::optional<PortRange> range_of(MaskedPort port)
{
    const auto others = static_cast<uint16_t>(~port.mask);
    if ((others & (others + 1)) != 0 || (port.value & others) != 0)
        return std::nullopt;
    return PortRange{port.value, static_cast<uint16_t>(port.value | others)};
}

std::optional<PortRange> read_port_range(std::string_view text)
{
    const std::size_t dash = text.find('-');
    if (dash == std::string_view::npos)
        return std::nullopt;
    const auto first = read_number(text.substr(0, dash));
    const auto last = read_number(text.substr(dash + 1));
    if (!first || !last || *first >= *last || *last > UINT16_MAX)
        return std::nullopt;
    return PortRange{static_cast<uint16_t>(*first), static_cast<uint16_t>(*last)};
}

std::string show_port_range(PortRange range)
{
    if (range == PortRange{0, UINT16_MAX})
        return "any";
    return range.first == range.last ? fmt::format("{}", range.first) : fmt::format("{}-{}", range.first, range.last);
}

} // namespace tools
