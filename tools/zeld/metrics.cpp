#include "tools/zeld/metrics.hpp"

#include "tools/json/names.hpp"
#include "tools/observe/fingerprint.hpp"

#include <iterator>

namespace zeld {

namespace {

// A number as both formats want it: 1.0, 0.25, 1e-05.
std::string show_bound(uint64_t ns)
{
    const double seconds = static_cast<double>(ns) * 1e-9;
    return ns % 1'000'000'000 == 0 ? fmt::format("{:.1f}", seconds) : fmt::format("{:g}", seconds);
}

class Page {
public:
    explicit Page(MetricsFormat format) : format_(format) {}

    // The samples of a family follow.
    void counter(std::string_view name, std::string_view help) { head(name, "counter", "_total", help); }
    void gauge(std::string_view name, std::string_view help) { head(name, "gauge", "", help); }
    void histogram(std::string_view name, std::string_view help) { head(name, "histogram", "", help); }

    template <class V> void sample(std::string_view name, std::string_view labels, const V &value)
    {
        if (labels.empty())
            append("{} {}\n", name, value);
        else
            append("{}{{{}}} {}\n", name, labels, value);
    }

    template <class V> void only_gauge(std::string_view name, std::string_view help, const V &value)
    {
        gauge(name, help);
        sample(name, "", value);
    }
    void only_counter(const std::string &name, std::string_view help, uint64_t value)
    {
        counter(name, help);
        sample(name + "_total", "", value);
    }

    std::string take()
    {
        if (format_ == MetricsFormat::open_metrics)
            text_ += "# EOF\n";
        return std::move(text_);
    }

private:
    template <class... Args> void append(fmt::format_string<Args...> format, const Args &...args)
    {
        fmt::vformat_to(std::back_inserter(text_), format, fmt::make_format_args(args...));
    }

    // Prometheus names a counter with its suffix, OpenMetrics without.
    void head(std::string_view name, std::string_view type, std::string_view suffix, std::string_view help)
    {
        const std::string_view shown = format_ == MetricsFormat::prometheus ? suffix : std::string_view{};
        append("# HELP {}{} {}\n# TYPE {}{} {}\n", name, shown, help, name, shown, type);
    }

    MetricsFormat format_;
    std::string text_{};
};

std::string_view result_name(std::size_t error)
{
    constexpr std::array<std::string_view, Tally::num_errors> results{
        "done", "malformed", "unsupported", "not_found", "conflict", "storage", "limit", "denied"};
    return results[error];
}

// Each kind is shown from the start on, and other results once they have occurred.
void add_requests(Page &page, const Tally &tally)
{
    page.counter("zel_requests", "Requests that were answered, by kind and result.");
    for (uint32_t kind = 0; kind < observe::num_kinds; ++kind)
        for (std::size_t error = 0; error < Tally::num_errors; ++error)
            if (error == service::error_none || tally.requests[kind][error] != 0)
                page.sample("zel_requests_total",
                            fmt::format(R"(kind="{}",result="{}")", observe::kind_name(kind), result_name(error)),
                            tally.requests[kind][error]);
}

void add_latency(Page &page, std::string_view kind, const Latency &latency)
{
    uint64_t count = 0;
    for (std::size_t i = 0; i < latency.counts.size(); ++i) {
        count += latency.counts[i];
        page.sample("zel_request_duration_seconds_bucket",
                    fmt::format(R"(kind="{}",le="{}")", kind,
                                i < Latency::bounds.size() ? show_bound(Latency::bounds[i]) : "+Inf"),
                    count);
    }
    const std::string label = fmt::format(R"(kind="{}")", kind);
    page.sample("zel_request_duration_seconds_count", label, count);
    page.sample("zel_request_duration_seconds_sum", label, static_cast<double>(latency.sum_ns) * 1e-9);
}

void add_latencies(Page &page, const Tally &tally)
{
    page.histogram("zel_request_duration_seconds", "Time from the arrival of a request to its answer.");
    for (uint32_t kind = 0; kind < observe::num_kinds; ++kind)
        if (tally.latencies[kind].sum_ns != 0)
            add_latency(page, observe::kind_name(kind), tally.latencies[kind]);
}

void add_service(Page &page, const Metrics &metrics)
{
    const observe::Status &status = metrics.status;
    const std::string version = reinterpret_cast<const char *>(status.version);
    page.gauge("zel_build_info", "Version of the service, and fingerprint of its wire description.");
    page.sample("zel_build_info",
                fmt::format(R"(version="{}",wire="{}")", version, observe::show_fingerprint(status.fingerprint)), 1);
    page.only_gauge("zel_start_time_seconds", "When the service started, since 1970.",
                    static_cast<double>(status.started_ns) * 1e-9);
    page.only_counter("zel_received_bytes", "Bytes of requests.", metrics.tally.received_bytes);
    page.only_counter("zel_sent_bytes", "Bytes of answers.", metrics.tally.sent_bytes);
    page.only_gauge("zel_clients", "Connections.", status.clients);
    page.only_gauge("zel_clients_limit", "Most connections at a time.", status.max_clients);
    page.only_gauge("zel_policies", "Policies of all applications.", status.policies);
    page.only_gauge("zel_pairs", "Pairs of all policies.", metrics.num_pairs);
    page.only_gauge("zel_policy_memory_bytes", "Memory that policies hold.", status.policy_bytes);
    page.only_gauge("zel_policy_memory_limit_bytes", "Memory that policies may hold.", status.max_policy_bytes);
    page.only_gauge("zel_resident_memory_bytes", "Resident memory of the process.", status.process_bytes);
    page.only_gauge("zel_kept_messages", "Messages that the service keeps for observers.", status.kept_messages);
    page.only_gauge("zel_pairs_omitted", "Pairs without counters on this page.",
                    metrics.num_pairs - metrics.pairs.size());
}

void add_pairs(Page &page, std::string_view name, std::string_view help, const std::vector<Metrics::Pair> &pairs,
               uint64_t Metrics::Pair::*counter)
{
    page.counter(name, help);
    for (const Metrics::Pair &pair : pairs)
        page.sample(std::string(name) + "_total",
                    fmt::format(R"(app="{}",policy="{}",pair="{}")", pair.app_type, pair.policy, pair.pair),
                    pair.*counter);
}

void take_pairs(Metrics &metrics, uint32_t app_type, const Policy &policy, std::size_t max_pairs)
{
    for (const Pair *const pair : policy.pairs_in_order()) {
        if (metrics.pairs.size() == max_pairs)
            return;
        metrics.pairs.push_back(
            {app_type, policy.id(), pair->record.id, pair->counters->packets, pair->counters->bytes});
    }
}

} // namespace

Metrics take_metrics(const StatusSource &source, std::size_t max_pairs)
{
    Metrics metrics;
    metrics.status = source.summary();
    metrics.status.clients = static_cast<uint32_t>(source.clients().size());
    metrics.tally = source.observer.tally();
    for (const auto &[key, policy] : source.policies.all()) {
        metrics.num_pairs += policy->num_pairs();
        if (metrics.pairs.size() < max_pairs)
            take_pairs(metrics, key.app_type, *policy, max_pairs);
    }
    return metrics;
}

std::string show_metrics(const Metrics &metrics, MetricsFormat format)
{
    Page page(format);
    add_service(page, metrics);
    add_requests(page, metrics.tally);
    add_latencies(page, metrics.tally);
    if (!metrics.pairs.empty()) {
        add_pairs(page, "zel_pair_packets", "Packets that matched a pair.", metrics.pairs, &Metrics::Pair::packets);
        add_pairs(page, "zel_pair_bytes", "Bytes of packets that matched a pair.", metrics.pairs,
                  &Metrics::Pair::bytes);
    }
    return page.take();
}

} // namespace zeld
