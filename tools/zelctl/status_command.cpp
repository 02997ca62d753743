// zelctl status: what a running service says about itself.
#include "tools/json/names.hpp"
#include "tools/message/element_list.hpp"
#include "tools/observe/fingerprint.hpp"
#include "tools/observe/records.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/exchange.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/status.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <algorithm>
#include <cstring>
#include <fmt/core.h>

namespace zelctl {
namespace {

// A record as it came: a later version's may be longer, an earlier one's shorter.
template <class R> R record_of(const tools::RawElement &raw)
{
    R record{};
    std::memcpy(&record, raw.value.data(), std::min(raw.value.size(), sizeof record));
    return record;
}

std::string text_of(std::span<const uint8_t> bytes)
{
    const auto end = std::ranges::find(bytes, uint8_t{0});
    return {bytes.begin(), end};
}

uint64_t number_in(const zel::wire::Member &member, const void *record)
{
    uint64_t number = 0;
    std::memcpy(&number, zel::wire::part(record, member.offset), member.width);
    return number;
}

// All members of a record, by its description.
tools::Json show_record(const zel::wire::Record &record, const void *value)
{
    tools::Json json = tools::Json::object();
    for (const zel::wire::Member &member : record.members) {
        const auto *const bytes = static_cast<const uint8_t *>(zel::wire::part(value, member.offset));
        if (member.format == zel::wire::Format::text)
            json[member.name] = text_of({bytes, member.width});
        else if (member.format == zel::wire::Format::hexadecimal)
            json[member.name] = observe::show_fingerprint(number_in(member, value));
        else
            json[member.name] = number_in(member, value);
    }
    return json;
}

template <class R> tools::Json show_records(const zel::wire::Record &record, const std::vector<R> &values)
{
    tools::Json list = tools::Json::array();
    for (const R &value : values)
        list.push_back(show_record(record, &value));
    return list;
}

tools::Json to_json(const ServiceStatus &status)
{
    tools::Json json = show_record(observe::status_record, &status.summary);
    json["requests_by_kind"] = show_records(observe::request_count_record, status.counts);
    json["clients_now"] = show_records(observe::client_record, status.clients);
    json["applications_now"] = show_records(observe::application_record, status.applications);
    return json;
}

std::string name_of_result(uint32_t error) { return error == service::error_none ? "done" : name_of_error(error); }

std::string show_megabytes(uint64_t bytes) { return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / (1 << 20)); }

std::string show_duration(uint64_t ns)
{
    const uint64_t seconds = ns / 1'000'000'000;
    return fmt::format("{} d {:02}:{:02}:{:02}", seconds / 86400, seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
}

std::string show_summary(const observe::Status &status)
{
    const bool is_same = status.fingerprint == observe::wire_fingerprint();
    std::string text;
    const auto row = [&](std::string_view name, const std::string &value) {
        text += fmt::format("{:<14}{}\n", name, value);
    };
    row("version", fmt::format("{} (wire {}{})", text_of(status.version), observe::show_fingerprint(status.fingerprint),
                               is_same ? "" : ", another one than that of zelctl"));
    row("process",
        fmt::format("{}, since {}, up {}", status.pid, show_time(status.started_ns), show_duration(status.uptime_ns)));
    row("requests", fmt::format("{}, {} of them refused", status.requests, status.refusals));
    row("policies",
        fmt::format("{} with {} pairs, of {} applications", status.policies, status.pairs, status.applications));
    row("memory", fmt::format("{} of {} for policies, {} in all", show_megabytes(status.policy_bytes),
                              show_megabytes(status.max_policy_bytes), show_megabytes(status.process_bytes)));
    row("messages",
        fmt::format("{} kept, {} of {}; largest {}", status.kept_messages, show_megabytes(status.kept_bytes),
                    show_megabytes(status.max_kept_bytes), show_megabytes(status.max_message)));
    row("clients", fmt::format("{} of {}, at most {} of one user", status.clients, status.max_clients,
                               status.max_clients_per_user));
    return text;
}

std::string show_tables(const ServiceStatus &status)
{
    std::string text;
    if (!status.counts.empty())
        text += fmt::format("\n{:<34}{:<14}{:>12}\n", "requests of kind", "result", "number");
    for (const observe::RequestCount &count : status.counts)
        text += fmt::format("{:<34}{:<14}{:>12}\n", text_of(count.kind), name_of_result(count.error), count.requests);
    if (!status.clients.empty())
        text += fmt::format("\n{:>8}{:>10}{:>12}{:>12}{:>12}{:>14}\n", "client", "pid", "uid", "requests", "refused",
                            "served ms");
    for (const observe::ClientStatus &client : status.clients)
        text += fmt::format("{:>8}{:>10}{:>12}{:>12}{:>12}{:>14.1f}\n", client.client, client.pid, client.uid,
                            client.requests, client.refusals, static_cast<double>(client.served_ns) * 1e-6);
    if (!status.applications.empty())
        text += fmt::format("\n{:>12}{:>12}{:>12}\n", "application", "policies", "pairs");
    for (const observe::ApplicationStatus &application : status.applications)
        text += fmt::format("{:>12}{:>12}{:>12}\n", application.app_type, application.policies, application.pairs);
    return text;
}

int run_status(const Options &options)
{
    const ServiceStatus status = read_status(options);
    if (options.json)
        print_json(to_json(status));
    else
        fmt::print("{}", tools::safe_json(show_summary(status.summary) + show_tables(status)));
    return exit_ok;
}

} // namespace

ServiceStatus read_status(const Options &options)
{
    Connection connection(options);
    const Answer answer = connection.request(observe::opcode_status, std::string(TLV_ARRAY_OVERHEAD, '\0'));
    if (answer.refused())
        throw NoService(fmt::format("{}: no status: {}", options.service, answer.text));
    const tools::ElementList list = tools::list_elements(answer.body());
    ServiceStatus status;
    for (const tools::RawElement &raw : list.elements) {
        if (raw.id == observe::element_status)
            status.summary = record_of<observe::Status>(raw);
        else if (raw.id == observe::element_client)
            status.clients.push_back(record_of<observe::ClientStatus>(raw));
        else if (raw.id == observe::element_application)
            status.applications.push_back(record_of<observe::ApplicationStatus>(raw));
        else if (raw.id == observe::element_count)
            status.counts.push_back(record_of<observe::RequestCount>(raw));
    }
    if (!list.fault.empty() || status.summary.fingerprint == 0)
        throw NoService(fmt::format("{}: a status that cannot be read: {}", options.service, list.fault));
    return status;
}

void add_status_command(const CommandLine &line)
{
    CLI::App *const status =
        line.app.add_subcommand("status", "Show version, load, limits, clients and applications of a running service");
    when_given(line, status, [&options = line.options] { return run_status(options); });
}

} // namespace zelctl
