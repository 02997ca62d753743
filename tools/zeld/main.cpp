// zeld: a stand-in for the zel policy service, for development and tests.
#include "tools/completion/completion.hpp"
#include "tools/message/tracing.hpp"
#include "tools/observe/fingerprint.hpp"
#include "tools/transport/nats_options.hpp"
#include "tools/zeld/log.hpp"
#include "tools/zeld/loop.hpp"
#include "tools/zeld/metrics_server.hpp"
#include "zel-platform/manager.h"
#include "zel/platform/heartbeat.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <grp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zeld {

namespace {

enum ExitCode { exit_ok = 0, exit_failed = 1, exit_usage = 2, exit_address = 3, exit_state = 4 };

struct Options {
    std::string listen = service::default_address;
    std::string listen_read;
    uint32_t mode = 0600;
    std::optional<uint32_t> group;
    tools::NatsOptions nats;
    std::string state;
    bool is_salvage = false;
    uint64_t max_message = uint64_t{16} * 1024 * 1024;
    uint64_t max_state = uint64_t{256} * 1024 * 1024;
    uint32_t max_clients = 64;
    uint32_t max_clients_per_user = 0; // 0: seven eighths of max_clients
    LogLevel log_level = LogLevel::info;
    std::string log;
    std::string metrics;
    uint32_t metrics_pairs = 1000;
    Observer::Options observer{.max_kept = std::size_t{4} * 1024 * 1024};
};

// Descriptors that are readable when a signal has come.
struct Signals {
    int stop;
    int requesting;
};

class AddressError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The lower limit of --max-message: an answer must have room for a small policy.
constexpr uint64_t least_message = 4096;

// Both replace a text by the number that it stands for, and return what is wrong with it.
std::string read_mode(std::string &text)
{
    uint32_t mode = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
    if (error != std::errc() || end != text.data() + text.size() || mode == 0 || mode > 0777)
        return fmt::format("{} is not a mode from 1 to 777 in octal digits", text);
    text = std::to_string(mode);
    return {};
}

std::string read_group(std::string &text)
{
    if (const struct group *const found = getgrnam(text.c_str()))
        text = std::to_string(found->gr_gid);
    else if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return fmt::format("there is no group {}", text);
    return {};
}

void add_options(CLI::App &app, Options &options)
{
    const CLI::AsSizeValue size(false);
    app.set_version_flag("--version", "zeld " + observe::version_text(ZELD_VERSION));
    app.add_option("--listen", options.listen, "address to serve: unix:PATH, nats://HOST/SUBJECT or tls://HOST/SUBJECT")
        ->capture_default_str();
    app.add_option("--listen-read", options.listen_read, "a second address, for show and statistics alone");
    app.add_option("--mode", options.mode, "permissions of the sockets, in octal digits")
        ->transform(CLI::Validator(read_mode, "OCTAL"))
        ->default_str("600");
    app.add_option("--group", options.group, "group of the sockets, by name or number")
        ->transform(CLI::Validator(read_group, "GROUP"));
    CLI::Option *const state =
        app.add_option("--state", options.state, "file that keeps the policies; without it they end with the process");
    app.add_flag("--salvage", options.is_salvage, "remove from a damaged state file the policies that are damaged")
        ->needs(state);
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
    app.add_option("--max-clients-per-user", options.max_clients_per_user, "most connections of one user id")
        ->check(CLI::Range(1U, 4096U))
        ->default_str("seven eighths of --max-clients");
    app.add_option("--log-level", options.log_level, "error, warn, info, debug or trace; to stderr")
        ->transform(CLI::CheckedTransformer(std::map<std::string, LogLevel>{{"error", LogLevel::error},
                                                                            {"warn", LogLevel::warn},
                                                                            {"info", LogLevel::info},
                                                                            {"debug", LogLevel::debug},
                                                                            {"trace", LogLevel::trace}}))
        ->default_str("info");
    app.add_option("--log", options.log, "file for the log, instead of stderr; SIGHUP opens it anew");
    app.add_option("--keep", options.observer.max_kept, "memory for the last messages, which zelctl monitor shows")
        ->transform(size)
        ->check(CLI::Range(uint64_t{0}, uint64_t{KOB_MESSAGE_LIMIT}))
        ->capture_default_str();
    app.add_option("--capture", options.observer.capture, "file that gets all messages, in pcapng format");
    CLI::Option *const metrics =
        app.add_option("--metrics", options.metrics, "address of metrics over HTTP, such as 127.0.0.1:9464");
    app.add_option("--metrics-pairs", options.metrics_pairs, "most pairs with counters among the metrics; 0: none")
        ->needs(metrics)
        ->check(CLI::Range(0U, 10000U))
        ->capture_default_str();
    app.add_option("--dump", options.observer.dump,
                   "file that gets the last messages at SIGUSR1; without it the log gets a line for each");
    tools::add_nats_options(app, options.nats);
    app.footer(
        std::string("Exit codes: 0 stopped by SIGINT or SIGTERM, 1 failed, 2 usage, 3 address, 4 state file.\n") +
        tools::trace_help);
}

// A descriptor that is readable when one of the signals has come. They stay blocked, so
// that none is lost between a check and a wait.
int open_signals(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// Signals that stop the service, and those that ask it for something.
int open_stop_signals()
{
    // A write above the file size limit then fails, and the request is refused.
    (void)std::signal(SIGXFSZ, SIG_IGN);
    (void)std::signal(SIGPIPE, SIG_IGN); // nobody may read the log any more
    return open_signals({SIGINT, SIGTERM});
}

int open_requesting_signals() { return open_signals({SIGHUP, SIGUSR1}); }

void handle_signals(int signals, const Observer &observer)
{
    signalfd_siginfo info{};
    while (read(signals, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGUSR1)
            observer.dump();
        else if (!reopen_log())
            log(LogLevel::error, "the log cannot be opened anew: {}", std::strerror(errno));
        else
            log(LogLevel::info, "the log was opened anew");
    }
}

// The members of the status that do not change.
observe::Status fixed_status(const Options &options)
{
    observe::Status status{};
    status.max_message = options.max_message;
    status.max_policy_bytes = options.max_state;
    status.max_clients = options.max_clients;
    status.max_clients_per_user =
        options.max_clients_per_user != 0 ? options.max_clients_per_user : (7 * options.max_clients + 7) / 8;
    status.pid = static_cast<uint32_t>(getpid());
    std::string_view(ZELD_VERSION).copy(reinterpret_cast<char *>(status.version), sizeof status.version - 1);
    return status;
}

Transport open_transport(const Options &options, const std::string &address, int32_t &error)
{
    kob_service_options_t transport_options{};
    transport_options.max_message = static_cast<uint32_t>(options.max_message);
    transport_options.max_clients = options.max_clients;
    transport_options.max_clients_per_user = options.max_clients_per_user;
    transport_options.permissions = options.mode;
    transport_options.has_group = options.group ? 1 : 0;
    transport_options.group = options.group.value_or(0);
    transport_options.on_refusal = [](void *, uint32_t client, const char *reason) {
        constexpr uint32_t of_all_users = UINT32_MAX; // the reason says whose it is
        log_about(of_all_users, LogLevel::warn, "client {}: refused by the transport: {}", client, reason);
    };
    return Transport(kob_service_open(address.c_str(), &transport_options, &error));
}

// An address that is to be served.
Loop::Socket open_socket(const Options &options, const std::string &address, Access access)
{
    int32_t error = KOB_OK;
    Loop::Socket socket{open_transport(options, address, error), access};
    if (socket.transport == nullptr)
        throw AddressError(fmt::format("{}: {}", address, kob_error_text(error)));
    return socket;
}

std::vector<Loop::Socket> open_sockets(const Options &options)
{
    if (options.listen == service::default_address) { // started by hand, there is no unit that makes the folder
        std::error_code ignored;                      // opening tells what is wrong
        std::filesystem::create_directory(
            std::filesystem::path(options.listen.substr(options.listen.find('/'))).parent_path(), ignored);
    }
    std::vector<Loop::Socket> sockets;
    sockets.push_back(open_socket(options, options.listen, Access::full));
    if (!options.listen_read.empty())
        sockets.push_back(open_socket(options, options.listen_read, Access::read_only));
    return sockets;
}

// Loads the policies. Returns false when the service has to stop.
bool load(Policies &policies, bool is_salvage, int stop_signals)
{
    bool has_to_stop = false;
    const auto keeps_going = [&] {
        fu_keeper_update_and_send_heartbeat(0);
        pollfd stop{stop_signals, POLLIN, 0};
        has_to_stop = has_to_stop || poll(&stop, 1, 0) > 0;
        return !has_to_stop;
    };
    try {
        policies.load(keeps_going, is_salvage);
        return true;
    } catch (const StoreError &) {
        if (has_to_stop)
            return false;
        throw;
    }
}

// Null when nobody wants metrics. The source must exist as long as the server.
std::unique_ptr<MetricsServer> start_metrics(const Options &options, const StatusSource &source)
{
    if (options.metrics.empty())
        return nullptr;
    return std::make_unique<MetricsServer>(
        options.metrics, [&source, pairs = options.metrics_pairs] { return take_metrics(source, pairs); });
}

ExitCode serve(const Options &options, Policies &policies, Observer &observer, const Signals &signals)
{
    tools::enable_nats(options.nats);
    const std::size_t max_body = options.max_message - ZEL_RESP_HDR_SIZE;
    Service service(policies, max_body);
    constexpr std::size_t most_waiting = 4; // largest requests
    Loop loop(service, observer, open_sockets(options), most_waiting * options.max_message);
    loop.add({signals.requesting, [&] { handle_signals(signals.requesting, observer); }});
    const StatusSource source{observer, policies, fixed_status(options), [&loop] { return loop.clients(); }};
    service.show_status(source);
    const auto metrics = start_metrics(options, source);
    if (metrics != nullptr)
        loop.add({metrics->descriptor(), [&] { metrics->provide(); }});
    log(LogLevel::info, "serving {} policies at {}", policies.all().size(), options.listen);
    fmt::print("ready {}\n", options.listen);
    (void)std::fflush(stdout);
    zel_manager_notify("READY=1");
    if (!loop.run(signals.stop))
        return exit_failed;
    log(LogLevel::info, "stopping");
    return exit_ok;
}

ExitCode start(const Options &options)
{
    set_log_level(options.log_level);
    umask(077);
    if (!options.log.empty() && !open_log(options.log)) {
        log(LogLevel::error, "{}: cannot be written: {}", options.log, std::strerror(errno));
        return exit_usage;
    }
    const Signals signals{open_stop_signals(), open_requesting_signals()};
    try {
        Observer observer(options.observer);
        auto store = options.state.empty() ? nullptr : std::make_unique<Store>(options.state);
        Policies policies(std::move(store), {options.max_message - ZEL_RESP_HDR_SIZE, options.max_state});
        return load(policies, options.is_salvage, signals.stop) ? serve(options, policies, observer, signals) : exit_ok;
    } catch (const std::system_error &error) {
        log(LogLevel::error, "{}", error.what());
        return exit_usage;
    } catch (const StoreError &error) {
        log(LogLevel::error, "{}: {}", options.state, error.what());
        return exit_state;
    } catch (const AddressError &error) {
        log(LogLevel::error, "{}", error.what());
        return exit_address;
    }
}

ExitCode run_command_line(int argc, char **argv)
{
    CLI::App app("A stand-in for the zel policy service.", "zeld");
    Options options;
    options.observer.program = "zeld " ZELD_VERSION;
    add_options(app, options);
    tools::add_completion_option(app);
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
