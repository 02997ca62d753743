// The sign of life: the system manager's watchdog protocol, which is a datagram
// to the socket that NOTIFY_SOCKET names.
#include "reference/contract.hpp"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr char alive[] = "WATCHDOG=1";
constexpr uint64_t default_watchdog_us = 1'000'000;

struct Watchdog {
    int socket = -1; // -1: nobody listens
    sockaddr_un address{};
    socklen_t address_length = 0;
    uint32_t interval_ms = 0; // a sign that follows another sooner than this is not sent
};

constinit Watchdog watchdog;
pthread_once_t watchdog_once = PTHREAD_ONCE_INIT;
std::atomic<uint32_t> last_sent_ms{0};

// False when the path is not one that the protocol allows.
bool set_address(const char *path)
{
    const std::size_t length = std::strlen(path);
    if (length < 2 || length >= sizeof watchdog.address.sun_path || (path[0] != '/' && path[0] != '@'))
        return false;
    watchdog.address.sun_family = AF_UNIX;
    std::memcpy(watchdog.address.sun_path, path, length);
    if (path[0] == '@') // an abstract name, which has no terminating NUL
        watchdog.address.sun_path[0] = '\0';
    watchdog.address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return true;
}

bool is_meant_for_another_process()
{
    const char *const pid = std::getenv("WATCHDOG_PID");
    return pid != nullptr && std::strtol(pid, nullptr, 10) != getpid();
}

// Four signs per watchdog period keep it quiet however late one of them is.
uint32_t interval_from_environment()
{
    const char *const text = std::getenv("WATCHDOG_USEC");
    const uint64_t period_us = text != nullptr ? std::strtoull(text, nullptr, 10) : default_watchdog_us;
    const uint64_t interval_ms = period_us / 4000;
    return interval_ms < INT32_MAX ? static_cast<uint32_t>(interval_ms) : INT32_MAX;
}

void read_environment()
{
    const char *const path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || is_meant_for_another_process() || !set_address(path))
        return;
    watchdog.interval_ms = interval_from_environment();
    watchdog.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Milliseconds of a clock that is read without a system call; wraps.
uint32_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                 static_cast<uint64_t>(now.tv_nsec) / 1000000);
}

} // namespace

void fu_keeper_update_and_send_heartbeat(int32_t)
{
    pthread_once(&watchdog_once, read_environment);
    if (watchdog.socket < 0)
        return;
    const uint32_t now = now_ms() | 1; // never 0, which says that none was sent
    const uint32_t last = last_sent_ms.load(std::memory_order_relaxed);
    if (last != 0 && now - last < watchdog.interval_ms)
        return;
    last_sent_ms.store(now, std::memory_order_relaxed);
    // A manager that does not listen, or does not keep up, is not worth a report.
    (void)sendto(watchdog.socket, alive, sizeof alive - 1, MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr *>(&watchdog.address), watchdog.address_length);
}
