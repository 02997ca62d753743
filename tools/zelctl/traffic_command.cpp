// zelctl traffic: packet headers for the service to classify.
#include "tools/json/notation.hpp"
#include "tools/json/progress.hpp"
#include "tools/zelctl/connection.hpp"
#include "tools/zelctl/packet_file.hpp"
#include "tools/zelctl/service_policies.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <algorithm>
#include <csignal>
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

// An interrupt ends the wait for an answer, so that what has been sent can be told.
void let_interrupt_wait()
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    (void)sigaction(SIGINT, &action, nullptr);
}

// Packets of which the service has said that they are counted.
struct Sent {
    std::size_t packets = 0;
    uint64_t matched = 0;
};

Answer send_some(Connection &connection, std::span<const PacketHeader> some, const Sent &sent)
{
    try {
        return connection.request(service::opcode_traffic, encode_headers(some), Effect::changes);
    } catch (const OutcomeUnknown &unknown) {
        throw OutcomeUnknown(fmt::format("{}; {} packets were counted before, of which {} matched, and up to {} more "
                                         "may have been",
                                         unknown.what(), sent.packets, sent.matched, some.size()));
    }
}

Sent send_all(Connection &connection, std::span<const PacketHeader> headers)
{
    tools::Progress progress("sending packet headers", headers.size());
    Sent sent;
    while (sent.packets < headers.size()) {
        const auto rest = headers.subspan(sent.packets);
        const auto some = rest.first(std::min(headers_at_a_time(), rest.size()));
        const Answer answer = accepted(send_some(connection, some, sent));
        sent.matched += static_cast<uint32_t>(answer.retval);
        sent.packets += some.size();
        progress.reached(sent.packets);
    }
    return sent;
}

int run_traffic(const Options &options, const std::string &path)
{
    const std::vector<PacketHeader> headers = read_packet_file(path);
    Connection connection(options);
    let_interrupt_wait();
    const uint64_t matched = send_all(connection, headers).matched;
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
    CLI::App *const traffic = line.app.add_subcommand(
        "traffic", "Let the service classify packet headers, and count them in the policies of all applications");
    traffic
        ->add_option("FILE", *path,
                     "One header a line: a JSON object, or the numbers source address, destination address, source "
                     "port, destination port, protocol; - is standard input")
        ->required();
    when_given(line, traffic, [&options = line.options, path] { return run_traffic(options, *path); });
}

} // namespace zelctl
