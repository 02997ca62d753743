// zeld: a stand-in for the zel policy service, for development and tests.
#include "tools/message/tracing.hpp"
#include "tools/transport/nats_options.hpp"
#include "tools/zeld/log.hpp"
#include "tools/zeld/loop.hpp"
#include "zel-platform/manager.h"
#include "zel/platform/heartbeat.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <csignal>
#include <cstring>
#include <grp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zeld {

namespace {

enum ExitCode { exit_ok = 0, exit_failed = 1, exit_usage = 2, exit_address = 3, exit_state = 4 };

struct Options {
    std::string listen = "unix:/run/zel.sock";
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
    app.set_version_flag("--version", "zeld " ZELD_VERSION);
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
    (void)std::signal(SIGPIPE, SIG_IGN); // nobody may read the log any more
    return signalfd(-1, &stop, SFD_CLOEXEC);
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
    std::vector<Loop::Socket> sockets;
    sockets.push_back(open_socket(options, options.listen, Access::full));
    if (!options.listen_read.empty())
        sockets.push_back(open_socket(options, options.listen_read, Access::read_only));
    return sockets;
}

// Loads the policies. Returns false when the service has to stop.
bool load(Policies &policies, bool is_salvage, int stop_signals)
{
    struct Stopped {};
    try {
        policies.load(
            [&] {
                fu_keeper_update_and_send_heartbeat(0);
                pollfd stop{stop_signals, POLLIN, 0};
                if (poll(&stop, 1, 0) > 0)
                    throw Stopped();
            },
            is_salvage);
        return true;
    } catch (const Stopped &) {
        return false;
    }
}

ExitCode serve(const Options &options, Policies &policies, int stop_signals)
{
    tools::enable_nats(options.nats);
    const std::size_t max_body = options.max_message - ZEL_RESP_HDR_SIZE;
    Service service(policies, max_body);
    constexpr std::size_t most_waiting = 4; // largest requests
    Loop loop(service, open_sockets(options), most_waiting * options.max_message);
    log(LogLevel::info, "serving {} policies at {}", policies.all().size(), options.listen);
    fmt::print("ready {}\n", options.listen);
    (void)std::fflush(stdout);
    zel_manager_notify("READY=1");
    if (!loop.run(stop_signals))
        return exit_failed;
    log(LogLevel::info, "stopping");
    return exit_ok;
}

ExitCode start(const Options &options)
{
    set_log_level(options.log_level);
    umask(077);
    const int stop_signals = open_stop_signals();
    try {
        auto store = options.state.empty() ? nullptr : std::make_unique<Store>(options.state);
        Policies policies(std::move(store), {options.max_message - ZEL_RESP_HDR_SIZE, options.max_state});
        return load(policies, options.is_salvage, stop_signals) ? serve(options, policies, stop_signals) : exit_ok;
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
