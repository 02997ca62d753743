// zeld: a stand-in for the zel policy service, for development and tests.
#include "platform/heartbeat.h"
#include "tools/message/tracing.hpp"
#include "tools/transport/nats_options.hpp"
#include "tools/zeld/log.hpp"
#include "tools/zeld/service.hpp"
#include "zel-platform/manager.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zeld {

namespace {

enum ExitCode { exit_ok = 0, exit_failed = 1, exit_usage = 2, exit_address = 3, exit_state = 4 };

struct Options {
    std::string listen;
    tools::NatsOptions nats;
    std::string state;
    uint64_t max_message = uint64_t{16} * 1024 * 1024;
    uint64_t max_state = uint64_t{256} * 1024 * 1024;
    uint32_t max_clients = 64;
    LogLevel log_level = LogLevel::info;
};

// The longest wait for a request. Short, because the system manager's watchdog gets
// a heartbeat after each wait.
constexpr int tick_ms = 250;

// The lower limit of --max-message: an answer must have room for a small policy.
constexpr uint64_t least_message = 4096;

void add_options(CLI::App &app, Options &options)
{
    const CLI::AsSizeValue size(false);
    app.set_version_flag("--version", "zeld " ZELD_VERSION);
    app.add_option("--listen", options.listen, "address to serve: unix:PATH, nats://HOST/SUBJECT or tls://HOST/SUBJECT")
        ->required();
    app.add_option("--state", options.state, "file that keeps the policies; without it they end with the process");
    app.add_option("--max-message", options.max_message, "largest request and answer")
        ->transform(size)
        ->check(CLI::Range(least_message, uint64_t{KOB_MESSAGE_LIMIT}))
        ->capture_default_str();
    app.add_option("--max-state", options.max_state,
                   "memory for all policies together, and again for the work of one request")
        ->transform(size)
        ->capture_default_str();
    app.add_option("--max-clients", options.max_clients, "most connections at a time")
        ->check(CLI::Range(1U, 4096U))
        ->capture_default_str();
    app.add_option("--log-level", options.log_level, "error, warn, info, debug or trace; to stderr")
        ->transform(CLI::CheckedTransformer(std::map<std::string, LogLevel>{{"error", LogLevel::error},
                                                                            {"warn", LogLevel::warn},
                                                                            {"info", LogLevel::info},
                                                                            {"debug", LogLevel::debug},
                                                                            {"trace", LogLevel::trace}}))
        ->default_str("info");
    tools::add_nats_options(app, options.nats);
    app.footer(
        std::string("Exit codes: 0 stopped by SIGINT or SIGTERM, 1 failed, 2 usage, 3 address, 4 state file.\n") +
        tools::trace_help);
}

// A descriptor that is readable when the process has to stop. The signals stay
// blocked, so that none is lost between a check and a wait.
int open_stop_signals()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);
    // A write above the file size limit then fails, and the request is refused.
    (void)std::signal(SIGXFSZ, SIG_IGN);
    return signalfd(-1, &stop, SFD_CLOEXEC);
}

struct CloseTransport {
    void operator()(kob_service_t *transport) const { kob_service_close(transport); }
};
using Transport = std::unique_ptr<kob_service_t, CloseTransport>;

Transport open_transport(const Options &options, int32_t &error)
{
    kob_service_options_t transport_options{};
    transport_options.max_message = static_cast<uint32_t>(options.max_message);
    transport_options.max_clients = options.max_clients;
    transport_options.on_refusal = [](void *, uint32_t client, const char *reason) {
        log(LogLevel::warn, "client {}: refused by the transport: {}", client, reason);
    };
    return Transport(kob_service_open(options.listen.c_str(), &transport_options, &error));
}

ExitCode run(Service &service, kob_service_t *transport, int stop_signals)
{
    const std::unique_ptr<kob_msg_t, decltype(&kob_msg_free)> msg(kob_msg_alloc(), kob_msg_free);
    if (msg == nullptr)
        throw std::bad_alloc();
    for (;;) {
        pollfd waits[] = {{stop_signals, POLLIN, 0}, {kob_service_fd(transport), POLLIN, 0}};
        (void)poll(waits, std::size(waits), tick_ms);
        fu_keeper_update_and_send_heartbeat(0);
        if (waits[0].revents != 0) {
            log(LogLevel::info, "stopping");
            return exit_ok;
        }
        // Called after a timeout, too: the transport gives up half messages in it.
        switch (const int32_t error = kob_service_receive(transport, msg.get(), 0)) {
        case KOB_OK:
            service.serve(transport, msg.get());
            break;
        case KOB_ERR_TIMEOUT:
        case KOB_ERR_INTERRUPTED:
            break;
        default:
            log(LogLevel::error, "the transport failed: {}", kob_error_text(error));
            return exit_failed;
        }
    }
}

ExitCode start(const Options &options)
{
    set_log_level(options.log_level);
    umask(077);
    const int stop_signals = open_stop_signals();
    const std::size_t max_body = options.max_message - ZEL_RESP_HDR_SIZE;
    std::optional<Policies> policies;
    try {
        auto store = options.state.empty() ? nullptr : std::make_unique<Store>(options.state);
        policies.emplace(std::move(store), Policies::Limits{max_body, options.max_state});
    } catch (const StoreError &error) {
        log(LogLevel::error, "{}: {}", options.state, error.what());
        return exit_state;
    }
    tools::enable_nats(options.nats);
    int32_t error = KOB_OK;
    const Transport transport = open_transport(options, error);
    if (transport == nullptr) {
        log(LogLevel::error, "{}: {}", options.listen, kob_error_text(error));
        return exit_address;
    }
    Service service(*policies, max_body);
    log(LogLevel::info, "serving {} policies at {}", policies->all().size(), options.listen);
    fmt::print("ready {}\n", options.listen);
    (void)std::fflush(stdout);
    zel_manager_notify("READY=1");
    return run(service, transport.get(), stop_signals);
}

ExitCode run_command_line(int argc, char **argv)
{
    CLI::App app("A stand-in for the zel policy service.", "zeld");
    Options options;
    add_options(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_ok : exit_usage;
    }
    if (const int32_t error = zel_trace_init(); error != 0) {
        log(LogLevel::error, "the ZEL_TRACE variables cannot be followed: {}", std::strerror(error));
        return exit_usage;
    }
    return start(options);
}

} // namespace
} // namespace zeld

int main(int argc, char **argv)
{
    try {
        return zeld::run_command_line(argc, argv);
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "zeld: error: %s\n", error.what());
        return zeld::exit_failed;
    }
}
