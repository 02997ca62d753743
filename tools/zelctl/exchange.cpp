#include "tools/zelctl/exchange.hpp"

#include "tools/json/names.hpp"
#include "tools/message/message.hpp"
#include "tools/text/safe_text.hpp"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <fmt/format.h>

namespace zelctl {
namespace {

// The message, or why it cannot be shown.
tools::Json show_message(const std::string &payload)
{
    try {
        return tools::message_to_json(tools::decode_message(payload, "message"));
    } catch (const tools::BadInput &fault) {
        return fault.what();
    }
}

} // namespace

std::string name_of_error(uint32_t error)
{
    const tools::Json name = tools::show_named(error, tools::error_names);
    return name.is_string() ? name.get<std::string>() : name.dump();
}

std::string show_time(uint64_t ns)
{
    constexpr uint64_t second = 1'000'000'000;
    const auto seconds = static_cast<time_t>(ns / second);
    tm date{};
    char text[32];
    gmtime_r(&seconds, &date);
    (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &date);
    return fmt::format("{}.{:06}Z", text, ns % second / 1000);
}

Outcome read_outcome(std::string_view payload)
{
    zel_resp_hdr_t header{};
    std::memcpy(&header, payload.data(), std::min(payload.size(), sizeof header));
    return {header.status, header.error, header.retval, {header.msg, strnlen(header.msg, sizeof header.msg)}};
}

Exchange::Exchange(const observe::Recorded &given, bool keeps_payload) : header(given.header), time_ns(given.time_ns)
{
    const observe::ByteView bytes(reinterpret_cast<const unsigned char *>(given.payload.data()), given.payload.size());
    request = observe::identify(header.opcode, bytes);
    if (keeps_payload)
        payload = given.payload;
}

void Exchange::take_answer(const observe::Recorded &answer)
{
    latency_ns = answer.time_ns - std::min(answer.time_ns, time_ns);
    answer_bytes = answer.header.total;
    outcome = read_outcome(answer.payload);
}

std::string to_line(const Exchange &exchange)
{
    const observe::CaptureHeader &header = exchange.header;
    const std::string result =
        exchange.outcome.error == service::error_none
            ? exchange.outcome.text
            : fmt::format("refused, {}: {}", name_of_error(exchange.outcome.error), exchange.outcome.text);
    return tools::safe_text(fmt::format("{} client {} (pid {}, uid {}) {}: {} [{} and {} bytes, {:.3f} ms]",
                                        show_time(exchange.time_ns), header.client, header.pid, header.uid,
                                        observe::describe(exchange.request), result, header.total,
                                        exchange.answer_bytes, static_cast<double>(exchange.latency_ns) * 1e-6));
}

tools::Json to_json(const Exchange &exchange, bool has_message)
{
    const observe::CaptureHeader &header = exchange.header;
    tools::Json json{{"time", show_time(exchange.time_ns)},
                     {"number", header.number},
                     {"client", header.client},
                     {"pid", header.pid},
                     {"uid", header.uid},
                     {"kind", observe::kind_name(exchange.request.kind)},
                     {"opcode", header.opcode}};
    if (exchange.request.has_header) {
        json["op_code"] = tools::show_named(exchange.request.header.op_code, tools::op_codes);
        json["app"] = exchange.request.header.app_type;
        json["policy_id"] = exchange.request.header.policy_id;
    }
    json["bytes"] = header.total;
    json["answer_bytes"] = exchange.answer_bytes;
    json["latency_us"] = static_cast<double>(exchange.latency_ns) / 1000;
    json["error"] = name_of_error(exchange.outcome.error);
    json["retval"] = exchange.outcome.retval;
    json["text"] = exchange.outcome.text;
    if (has_message && exchange.request.has_header)
        json["message"] = show_message(exchange.payload);
    return json;
}

} // namespace zelctl
