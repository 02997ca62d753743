// zelctl capture and monitor: the messages of a running service, in a file and on the terminal.
#include "tools/message/message.hpp"
#include "tools/observe/request.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/exchange.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/watch.hpp"

#include <cerrno>
#include <cstring>
#include <fmt/core.h>
#include <map>
#include <memory>
#include <unistd.h>

namespace zelctl {
namespace {

void report_loss(const Watched &watched)
{
    if (watched.missed != 0)
        fmt::print(stderr, "zelctl: {} messages were missed: the service had to forget them (see its --keep)\n",
                   watched.missed);
    if (watched.cut != 0)
        fmt::print(stderr, "zelctl: {} messages were cut: they are larger than the half of what the service keeps\n",
                   watched.cut);
}

// ---- capture

struct CaptureArguments {
    WatchArguments watch;
    std::string output;
};

int run_capture(const Options &options, const CaptureArguments &arguments)
{
    if (arguments.output == "-" && isatty(STDOUT_FILENO) != 0)
        throw OutputFailure("a capture is no text for a terminal");
    observe::CaptureWriter file;
    const auto require = [&](bool is_written) {
        if (!is_written)
            throw OutputFailure(fmt::format("{}: cannot be written: {}", arguments.output, std::strerror(errno)));
    };
    require(file.open(arguments.output, "zelctl"));
    Watched watched;
    const int code = watch(
        options, arguments.watch,
        [&](std::string_view block, const observe::Recorded &) { require(file.write_blocks(block)); },
        [&] { require(file.flush()); }, watched);
    require(file.close());
    if (options.json && arguments.output != "-")
        print_json({{"captured", watched.messages}});
    else if (code == exit_ok)
        fmt::print(stderr, "{} messages captured\n", watched.messages);
    report_loss(watched);
    return code;
}

// ---- monitor

struct MonitorArguments {
    WatchArguments watch;
    bool decode = false;
};

class Monitor {
public:
    Monitor(bool is_json, bool decodes) : is_json_(is_json), decodes_(decodes) {}

    void take(const observe::Recorded &message)
    {
        if (message.is_request())
            return add(message);
        const auto found = pending_.find(message.header.number);
        if (found == pending_.end())
            return; // it came before the monitor
        found->second.take_answer(message);
        if (is_json_)
            print_json(to_json(found->second, decodes_));
        else
            fmt::print("{}\n", to_line(found->second));
        pending_.erase(found);
    }

private:
    void add(const observe::Recorded &message)
    {
        constexpr std::size_t most_pending = 4096;
        if (pending_.size() >= most_pending)
            pending_.erase(pending_.begin());
        pending_.insert_or_assign(message.header.number, Exchange(message, decodes_));
    }

    bool is_json_;
    bool decodes_;
    std::map<uint32_t, Exchange> pending_{};
};

int run_monitor(const Options &options, const MonitorArguments &arguments)
{
    Monitor monitor(options.json || arguments.decode, arguments.decode);
    Watched watched;
    const int code = watch(
        options, arguments.watch, [&](std::string_view, const observe::Recorded &message) { monitor.take(message); },
        [] { finish_output(); }, watched);
    report_loss(watched);
    return code;
}

} // namespace

void add_capture_commands(const CommandLine &line)
{
    const auto capture_arguments = std::make_shared<CaptureArguments>();
    CLI::App *const capture =
        line.app.add_subcommand("capture", "Write the messages of a running service to a file, until interrupted");
    capture->add_option("-o,--output", capture_arguments->output, "The file, in pcapng format; - is standard output")
        ->required();
    add_watch_options(capture, capture_arguments->watch);
    when_given(line, capture,
               [&options = line.options, capture_arguments] { return run_capture(options, *capture_arguments); });

    const auto monitor_arguments = std::make_shared<MonitorArguments>();
    CLI::App *const monitor =
        line.app.add_subcommand("monitor", "Show each request with its answer, as they come, until interrupted");
    monitor->add_flag("--decode", monitor_arguments->decode, "Show whole messages, as JSON");
    add_watch_options(monitor, monitor_arguments->watch);
    when_given(line, monitor,
               [&options = line.options, monitor_arguments] { return run_monitor(options, *monitor_arguments); });
}

} // namespace zelctl
