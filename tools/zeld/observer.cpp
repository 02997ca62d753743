#include "tools/zeld/observer.hpp"

#include "tools/zeld/log.hpp"
#include "zel-platform/kob_service.h"
#include "zel-platform/trace_control.h"

#include <cerrno>
#include <cstring>
#include <numeric>
#include <random>
#include <sys/stat.h>
#include <system_error>

namespace zeld {

namespace {

observe::ByteView payload_bytes(kob_msg_t *msg)
{
    return {static_cast<const unsigned char *>(payload_of(msg)), kob_msg_size(msg)};
}

observe::CaptureHeader header_of(kob_msg_t *msg, const Arrival &arrival, uint16_t kind, std::size_t total)
{
    observe::CaptureHeader header{};
    header.magic = observe::capture_magic;
    header.kind = kind;
    header.in_parts = kind == observe::kind_request ? mpkob_is_mpkob(0, msg) != 0 : total > KOB_PLAIN_LIMIT;
    header.number = arrival.number;
    header.client = kob_msg_client(msg);
    header.pid = kob_msg_pid(msg);
    header.uid = kob_msg_uid(msg);
    header.opcode = kob_msg_opcode(msg);
    header.node = kob_msg_node(msg);
    header.sap = kob_msg_sap(msg);
    header.total = static_cast<uint32_t>(total);
    return header;
}

} // namespace

uint64_t Tally::num_requests() const
{
    return std::accumulate(requests.begin(), requests.end(), uint64_t{0}, [](uint64_t sum, const auto &kind) {
        return std::accumulate(kind.begin(), kind.end(), sum);
    });
}

uint64_t Tally::num_refusals() const
{
    return std::accumulate(requests.begin(), requests.end(), num_requests(),
                           [](uint64_t rest, const auto &kind) { return rest - kind[service::error_none]; });
}

std::string name_of(const kob_msg_t *msg)
{
    return fmt::format("client {} (pid {}, uid {})", kob_msg_client(msg), kob_msg_pid(msg), kob_msg_uid(msg));
}

Observer::Observer(Options options)
    : options_(std::move(options)), history_(options_.max_kept), started_ns_(time_of_day_ns())
{
    if (!options_.capture.empty() && !capture_.open_regular(options_.capture, options_.program))
        throw std::system_error(errno, std::generic_category(), options_.capture);
}

Arrival Observer::arrived(kob_msg_t *msg)
{
    const observe::ByteView payload = payload_bytes(msg);
    Arrival arrival{now_ns(), ++last_number_, observe::identify(kob_msg_opcode(msg), payload)};
    tally_.received_bytes += payload.size();
    if (is_logged(LogLevel::trace))
        log_about(kob_msg_uid(msg), LogLevel::trace, "{}: request {}: {}, {} bytes", name_of(msg), arrival.number,
                  observe::describe(arrival.request), payload.size());
    if ((history_.is_on() || capture_.is_open()) && arrival.request.kind != observe::kind_observation)
        record({header_of(msg, arrival, observe::kind_request, payload.size()), time_of_day_ns(), payload, {}});
    return arrival;
}

void Observer::answered(kob_msg_t *msg, const Arrival &arrival, const Answer &answer, const Job *job) noexcept
try {
    const observe::ByteView head(reinterpret_cast<const unsigned char *>(&answer.header), sizeof answer.header);
    const observe::ByteView body(answer.body.data(), answer.body.size());
    const std::size_t total = head.size() + body.size();
    tally_.add(arrival.request.kind, answer.header.error, now_ns() - arrival.at_ns);
    tally_.sent_bytes += total;
    if ((history_.is_on() || capture_.is_open()) && arrival.request.kind != observe::kind_observation)
        record({header_of(msg, arrival, observe::kind_response, total), time_of_day_ns(), head, body});
    log_answer(msg, arrival, answer, job);
} catch (const std::bad_alloc &) {
    return; // a line less
}

void Observer::record(const observe::Captured &message)
{
    if (history_.is_on())
        history_.add(message);
    if (!capture_.is_open() || capture_.write(message))
        return;
    log(LogLevel::error, "{}: cannot be written, the capture ends: {}", options_.capture, std::strerror(errno));
    capture_.close();
}

// Refusals are warnings, changes are information, and what only looks is for debugging.
void Observer::log_answer(const kob_msg_t *msg, const Arrival &arrival, const Answer &answer, const Job *job) const
{
    const uint32_t uid = kob_msg_uid(msg);
    if (job != nullptr && job->unknown_elements() != 0)
        log_about(uid, LogLevel::warn, "{}: {}: {} unknown elements were ignored", name_of(msg),
                  observe::describe(arrival.request), job->unknown_elements());
    if (answer.header.status != service::status_ok)
        return log_about(uid, LogLevel::warn, "{}: {}: refused, error {}: {}", name_of(msg),
                         observe::describe(arrival.request), answer.header.error, answer.header.msg);
    if (!is_logged(LogLevel::info))
        return;
    const std::string change = job != nullptr ? job->log_text() : std::string();
    // Observers ask a hundred times a second.
    const LogLevel level = arrival.request.kind == observe::kind_observation ? LogLevel::trace : LogLevel::debug;
    if (!change.empty())
        log_about(uid, LogLevel::info, "{}: {}: {}", name_of(msg), observe::describe(arrival.request), change);
    else if (is_logged(level))
        log_about(uid, level, "{}: {}: {}, {} bytes, {:.3f} ms", name_of(msg), observe::describe(arrival.request),
                  answer.header.msg, answer.body.size(), static_cast<double>(now_ns() - arrival.at_ns) * 1e-6);
}

// ---- On request

void Observer::dump() const
{
    if (options_.dump.empty())
        log_history();
    else if (write_history())
        log(LogLevel::info, "{} messages written to {}", history_.end() - history_.first(), options_.dump);
    else
        log(LogLevel::error, "{}: cannot be written: {}", options_.dump, std::strerror(errno));
    log(LogLevel::info, "the history of traces follows");
    if (zel_trace_dump(log_descriptor()) < 0)
        log(LogLevel::warn, "the history of traces was cut: {}", std::strerror(errno));
}

// Writes a draft and renames it, so that the file appears whole. A device or a link of the file's
// name stays what it is, and nobody can guess the name of the draft.
bool Observer::write_history() const
{
    struct stat present {};
    if (lstat(options_.dump.c_str(), &present) == 0 && !S_ISREG(present.st_mode)) {
        errno = EEXIST;
        return false;
    }
    const std::string draft = fmt::format("{}.{:08x}", options_.dump, std::random_device{}());
    observe::CaptureWriter file;
    if (!file.open_regular(draft, options_.program))
        return false;
    for (uint64_t number = history_.first(); number < history_.end(); ++number)
        file.write_blocks(history_.block(number));
    return file.close() && std::rename(draft.c_str(), options_.dump.c_str()) == 0;
}

void Observer::log_history() const
{
    for (uint64_t number = history_.first(); number < history_.end(); ++number) {
        std::string_view block = history_.block(number);
        observe::Recorded message;
        if (!observe::take_block(block, message))
            continue;
        const observe::CaptureHeader &header = message.header;
        const observe::ByteView payload(reinterpret_cast<const unsigned char *>(message.payload.data()),
                                        message.payload.size());
        log(LogLevel::info, "{} {} of client {} (pid {}, uid {}) at {}: {}, {} bytes",
            message.is_request() ? "request" : "answer", header.number, header.client, header.pid, header.uid,
            show_time(message.time_ns),
            message.is_request() ? observe::describe(observe::identify(header.opcode, payload)) : "answered",
            header.total);
    }
}

} // namespace zeld
