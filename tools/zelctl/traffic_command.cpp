// zelctl traffic: packet headers for the service to classify.
#include "tools/json/notation.hpp"
#include "tools/json/progress.hpp"
#include "tools/zelctl/connection.hpp"
#include "tools/zelctl/packet_file.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <algorithm>
#include <fmt/core.h>

#include <memory>
#include <span>

namespace zelctl {
namespace {

using service::PacketHeader;

// As many as fit in a message that is sent in one part.
std::size_t headers_at_a_time() { return (KOB_PLAIN_LIMIT - TLV_ARRAY_OVERHEAD) / tlv_size_get(sizeof(PacketHeader)); }

std::string encode_headers(std::span<const PacketHeader> headers)
{
    std::string array(TLV_ARRAY_OVERHEAD + headers.size() * tlv_size_get(sizeof(PacketHeader)), '\0');
    for (const PacketHeader &header : headers)
        tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), service::element_packet, sizeof header,
                          &header, 0);
    return array;
}

int run_traffic(const Options &options, const std::string &path)
{
    const std::vector<PacketHeader> headers = read_packet_file(path);
    Connection connection(options);
    tools::Progress progress("sending packet headers", headers.size());
    uint64_t matched = 0;
    for (std::size_t sent = 0; sent < headers.size();) {
        const auto some = std::span(headers).subspan(sent, std::min(headers_at_a_time(), headers.size() - sent));
        const Answer answer = connection.request(service::opcode_traffic, encode_headers(some));
        if (answer.refused())
            return report(options, answer, {});
        matched += static_cast<uint32_t>(answer.retval);
        sent += some.size();
        progress.reached(sent);
    }
    if (options.json)
        fmt::print("{}\n", tools::Json{{"packets", headers.size()}, {"matched", matched}}.dump());
    else
        fmt::print("{} of {} packets matched\n", matched, headers.size());
    return exit_ok;
}

} // namespace

void add_traffic_command(const CommandLine &line)
{
    const auto path = std::make_shared<std::string>();
    CLI::App *const traffic =
        line.app.add_subcommand("traffic", "Let the service classify packet headers and count them");
    traffic
        ->add_option("FILE", *path,
                     "One header a line: a JSON object, or the numbers source address, destination address, source "
                     "port, destination port, protocol; - is standard input")
        ->required();
    when_given(line, traffic, [&options = line.options, path] { return run_traffic(options, *path); });
}

} // namespace zelctl
