// Metrics over HTTP, on a thread of its own.
//
// That thread never touches what the service works with: it asks for a copy of the
// numbers through a descriptor, and the service's loop provides one between two rounds,
// at most ten times a second. Connections, their memory and their idle time are bounded.
#pragma once

#include "tools/zeld/metrics.hpp"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

struct MHD_Daemon;

namespace zeld {

class MetricsServer {
public:
    // "127.0.0.1:9464" or "[::1]:9464". take is called by provide(). Throws
    // std::system_error when the address cannot be served.
    MetricsServer(const std::string &address, std::function<Metrics()> take);
    MetricsServer(const MetricsServer &) = delete;
    MetricsServer &operator=(const MetricsServer &) = delete;
    ~MetricsServer();

    // Readable when numbers are wanted.
    int descriptor() const { return wanted_; }
    // On the thread of the loop.
    void provide();

    // On the server's thread: numbers that are at most so old, or null.
    std::shared_ptr<const Metrics> fetch();

private:
    void start(const std::string &address);

    std::function<Metrics()> take_;
    int wanted_;
    MHD_Daemon *daemon_ = nullptr;
    std::mutex mutex_{};
    std::condition_variable provided_{};
    std::shared_ptr<const Metrics> metrics_{};
    uint64_t provided_ns_ = 0;
};

} // namespace zeld
