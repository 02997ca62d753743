#include "tools/zeld/metrics_server.hpp"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <microhttpd.h>
#include <netdb.h>
#include <new>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace zeld {

namespace {

constexpr unsigned most_connections = 16;
constexpr unsigned idle_seconds = 5;
constexpr std::size_t connection_memory = std::size_t{16} * 1024; // for a request and its headers
constexpr uint64_t fresh_ns = 100'000'000;
constexpr std::chrono::seconds longest_wait{1};

struct FreeAddress {
    void operator()(addrinfo *address) const { freeaddrinfo(address); }
};
using Address = std::unique_ptr<addrinfo, FreeAddress>;

// Numeric addresses only: a host name would need a DNS query.
Address read_address(const std::string &text)
{
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    if (host.size() > 1 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (colon == std::string::npos || host.empty() ||
        getaddrinfo(host.c_str(), text.c_str() + colon + 1, &hints, &found) != 0)
        throw std::system_error(EINVAL, std::generic_category(),
                                text + ": the address of metrics is like 127.0.0.1:9464 or [::1]:9464");
    return Address(found);
}

MHD_Result send(MHD_Connection *connection, unsigned code, const char *type, std::string_view text)
{
    MHD_Response *const response = MHD_create_response_from_buffer(text.size(), const_cast<char *>(text.data()),
                                                                   MHD_RESPMEM_MUST_COPY); // which it does not change
    if (response == nullptr)
        return MHD_NO;
    (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    const MHD_Result result = MHD_queue_response(connection, code, response);
    MHD_destroy_response(response);
    return result;
}

MetricsFormat format_for(MHD_Connection *connection)
{
    const char *const accepted = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT);
    return accepted != nullptr && std::strstr(accepted, "application/openmetrics-text") != nullptr
               ? MetricsFormat::open_metrics
               : MetricsFormat::prometheus;
}

MHD_Result answer(MetricsServer &server, MHD_Connection *connection, const char *path, const char *method)
{
    constexpr const char *plain = "text/plain; charset=utf-8";
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0)
        return send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, plain, "GET alone\n");
    if (std::strcmp(path, "/metrics") != 0)
        return send(connection, MHD_HTTP_NOT_FOUND, plain, "The numbers are at /metrics\n");
    const std::shared_ptr<const Metrics> metrics = server.fetch();
    if (metrics == nullptr)
        return send(connection, MHD_HTTP_SERVICE_UNAVAILABLE, plain, "The service is busy\n");
    const MetricsFormat format = format_for(connection);
    return send(connection, MHD_HTTP_OK, content_type(format), show_metrics(*metrics, format));
}

// A body that somebody sends is not read.
MHD_Result handle(void *server, MHD_Connection *connection, const char *path, const char *method, const char *,
                  const char *, std::size_t *, void **) noexcept
try {
    return answer(*static_cast<MetricsServer *>(server), connection, path, method);
} catch (const std::exception &) {
    return MHD_NO; // no memory: the connection is closed
}

} // namespace

MetricsServer::MetricsServer(const std::string &address, std::function<Metrics()> take)
    : take_(std::move(take)), wanted_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    start(address);
}

MetricsServer::~MetricsServer()
{
    MHD_stop_daemon(daemon_);
    close(wanted_);
}

void MetricsServer::start(const std::string &address)
{
    const Address where = read_address(address);
    const unsigned flags =
        MHD_USE_AUTO | MHD_USE_INTERNAL_POLLING_THREAD | (where->ai_family == AF_INET6 ? unsigned{MHD_USE_IPv6} : 0U);
    errno = 0;
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &handle, this, MHD_OPTION_SOCK_ADDR, where->ai_addr,
                               MHD_OPTION_CONNECTION_LIMIT, most_connections, MHD_OPTION_CONNECTION_TIMEOUT,
                               idle_seconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_memory, MHD_OPTION_END);
    if (daemon_ == nullptr)
        throw std::system_error(errno != 0 ? errno : EADDRNOTAVAIL, std::generic_category(), address);
}

void MetricsServer::provide()
{
    uint64_t count = 0;
    (void)!read(wanted_, &count, sizeof count);
    auto metrics = std::make_shared<const Metrics>(take_());
    const std::lock_guard lock(mutex_);
    metrics_ = std::move(metrics);
    provided_ns_ = now_ns();
    provided_.notify_all();
}

std::shared_ptr<const Metrics> MetricsServer::fetch()
{
    std::unique_lock lock(mutex_);
    const uint64_t now = now_ns();
    if (metrics_ != nullptr && now - provided_ns_ < fresh_ns)
        return metrics_;
    const uint64_t one = 1;
    (void)!write(wanted_, &one, sizeof one);
    const bool is_fresh = provided_.wait_for(lock, longest_wait, [&] { return provided_ns_ >= now; });
    return is_fresh ? metrics_ : nullptr;
}

} // namespace zeld
