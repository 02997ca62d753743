// The heartbeat: tells the system manager's watchdog that the process is alive.
#include "reference/contract.hpp"
#include "reference/manager/notify.hpp"

#include <atomic>
#include <cstdlib>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

using namespace zel::platform;

namespace {

constexpr uint64_t default_watchdog_us = 1'000'000;

bool is_enabled = false;
uint32_t interval_ms = 0; // a message that would follow another sooner than this is not sent
pthread_once_t environment_once = PTHREAD_ONCE_INIT;
std::atomic<uint32_t> last_sent_ms{0}; // 0: none was sent

bool is_meant_for_another_process()
{
    const char *const pid = std::getenv("WATCHDOG_PID");
    return pid != nullptr && std::strtol(pid, nullptr, 10) != getpid();
}

// Four messages in each watchdog period, so that one of them may be late.
uint32_t interval_from_environment()
{
    const char *const text = std::getenv("WATCHDOG_USEC");
    const uint64_t period_us = text != nullptr ? std::strtoull(text, nullptr, 10) : default_watchdog_us;
    const uint64_t interval = period_us / 4000;
    return interval < INT32_MAX ? static_cast<uint32_t>(interval) : INT32_MAX;
}

void read_environment()
{
    is_enabled = has_manager() && !is_meant_for_another_process();
    interval_ms = interval_from_environment();
}

// Milliseconds of a clock that is read without a system call; wraps.
uint32_t coarse_now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000 +
                                 static_cast<uint64_t>(now.tv_nsec) / 1000000);
}

} // namespace

void fu_keeper_update_and_send_heartbeat(int32_t)
{
    pthread_once(&environment_once, read_environment);
    if (!is_enabled)
        return;
    const uint32_t now = coarse_now_ms() | 1; // never 0
    const uint32_t last = last_sent_ms.load(std::memory_order_relaxed);
    if (last != 0 && now - last < interval_ms)
        return;
    last_sent_ms.store(now, std::memory_order_relaxed);
    send_to_manager("WATCHDOG=1", MSG_DONTWAIT);
}
