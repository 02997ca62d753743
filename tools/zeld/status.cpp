#include "tools/zeld/status.hpp"

#include "tools/observe/fingerprint.hpp"
#include "tools/zeld/records.hpp"
#include "tools/zeld/values.hpp"

#include <cstdio>
#include <unistd.h>

namespace zeld {

namespace {

// Bytes of memory that the process has.
uint64_t resident_bytes()
{
    unsigned long pages = 0;
    if (std::FILE *const file = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(file, "%*u %lu", &pages) != 1) // NOLINT(cert-err34-c): the kernel writes a number
            pages = 0;
        (void)std::fclose(file);
    }
    return uint64_t{pages} * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// Counts that are not 0. Stops when there is no room.
void add_counts(Records &records, const Tally &tally)
{
    for (uint32_t kind = 0; kind < observe::num_kinds; ++kind) {
        for (uint32_t error = 0; error < Tally::num_errors; ++error) {
            observe::RequestCount count{};
            observe::kind_name(kind).copy(reinterpret_cast<char *>(count.kind), sizeof count.kind - 1);
            count.error = error;
            count.requests = tally.requests[kind][error];
            if (count.requests != 0 && !records.add(observe::element_count, count))
                return;
        }
    }
}

} // namespace

observe::Status StatusSource::summary() const
{
    observe::Status status = limits;
    status.fingerprint = observe::wire_fingerprint();
    status.started_ns = observer.started_ns();
    status.uptime_ns = time_of_day_ns() - std::min(time_of_day_ns(), observer.started_ns());
    status.requests = observer.tally().num_requests();
    status.refusals = observer.tally().num_refusals();
    status.policies = policies.all().size();
    status.policy_bytes = policies.held();
    status.process_bytes = resident_bytes();
    status.kept_messages = observer.history().end() - observer.history().first();
    status.kept_bytes = observer.history().bytes();
    status.max_kept_bytes = observer.history().capacity();
    return status;
}

std::vector<observe::ApplicationStatus> StatusSource::applications() const
{
    std::vector<observe::ApplicationStatus> found;
    for (const auto &[key, policy] : policies.all()) { // ordered by application
        if (found.empty() || found.back().app_type != key.app_type)
            found.push_back({key.app_type, 0, 0});
        ++found.back().policies;
        found.back().pairs += policy->num_pairs();
    }
    return found;
}

void StatusJob::run(const Slice &)
{
    const std::vector<observe::ApplicationStatus> applications = source_.applications();
    const std::vector<observe::ClientStatus> clients = source_.clients();
    observe::Status status = source_.summary();
    for (const observe::ApplicationStatus &application : applications)
        status.pairs += application.pairs;
    status.applications = static_cast<uint32_t>(applications.size());
    status.clients = static_cast<uint32_t>(clients.size());

    Records records(max_body_);
    records.add(observe::element_status, status);
    add_counts(records, source_.observer.tally());
    for (const observe::ClientStatus &client : clients)
        if (!records.add(observe::element_client, client))
            break;
    for (const observe::ApplicationStatus &application : applications)
        if (!records.add(observe::element_application, application))
            break;
    Answer given = success("status");
    given.body = records.take();
    finish(std::move(given));
}

WatchJob::WatchJob(const History &history, const void *array, std::size_t max_body)
    : Job(State::reading), history_(history), max_body_(max_body)
{
    Values<observe::WatchRequest> requests(array, observe::element_watch);
    if (requests.size() != 1)
        throw Refusal(service::error_malformed, "{} elements where one watch request belongs", requests.size());
    requests.next(request_);
    if (!history.is_on())
        throw Refusal(service::error_unsupported, "the service keeps no messages (--keep 0)");
}

void WatchJob::run(const Slice &)
{
    constexpr std::size_t most_at_once = std::size_t{1024} * 1024;
    const std::size_t head = TLV_ARRAY_OVERHEAD + tlv_size_get(sizeof(observe::WatchAnswer));
    Bytes blocks;
    observe::WatchAnswer watched{request_.first, 0};
    if (watched.next > history_.end()) // those from now on, or numbers of a service before this one
        watched.next = history_.end();
    if (watched.next < history_.first())
        watched = {history_.first(), history_.first() - watched.next};
    for (; watched.next < history_.end() && blocks.size() < most_at_once; ++watched.next) {
        const std::string_view block = history_.block(watched.next);
        if (head + block.size() > max_body_) { // never fits
            ++watched.missed;
            continue;
        }
        if (head + blocks.size() + block.size() > max_body_)
            break;
        blocks.insert(blocks.end(), block.begin(), block.end());
    }
    Records records(max_body_);
    records.add(observe::element_watched, watched);
    Answer given = success("watched");
    given.body = records.take();
    given.body.insert(given.body.end(), blocks.begin(), blocks.end());
    finish(std::move(given));
}

} // namespace zeld
