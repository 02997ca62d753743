// zelctl replay: sends the requests of a capture again, byte by byte, and compares the answers.
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/exchange.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/status.hpp"

#include <fmt/core.h>
#include <map>
#include <memory>

namespace zelctl {
namespace {

struct ReplayArguments {
    std::string path;
    bool force = false;
    uint32_t most_shown = 20;
};

class Replay {
public:
    Replay(const Options &options, const ReplayArguments &arguments)
        : options_(options), arguments_(arguments), connection_(options)
    {}

    void run()
    {
        observe::CaptureReader file(arguments_.path);
        for (observe::Recorded message; file.next(message);)
            message.is_request() ? send(message) : compare(message);
        unanswered_ += answers_.size();
    }

    int report() const
    {
        if (options_.json)
            print_json({{"requests", requests_},
                        {"equal", equal_},
                        {"differing", differing_},
                        {"unanswered", unanswered_},
                        {"skipped", skipped_}});
        else
            fmt::print("{} requests: {} answers are equal, {} differ; {} without an answer in the capture, {} "
                       "requests could not be sent\n",
                       requests_, equal_, differing_, unanswered_, skipped_);
        return differing_ == 0 && skipped_ == 0 ? exit_ok : exit_refused;
    }

private:
    // A request that was cut cannot be sent again.
    void send(const observe::Recorded &message)
    {
        if (message.is_cut()) {
            ++skipped_;
            return;
        }
        ++requests_;
        const Answer answer = connection_.resend(message.header, message.payload);
        answers_.insert_or_assign(message.header.number,
                                  Answered{std::string(answer.payload()), Exchange(message, false)});
    }

    void compare(const observe::Recorded &message)
    {
        const auto found = answers_.find(message.header.number);
        if (found == answers_.end())
            return;
        const std::string_view now = found->second.payload;
        const bool is_equal =
            now.substr(0, message.payload.size()) == message.payload && now.size() == message.header.total;
        if (is_equal)
            ++equal_;
        else if (++differing_ <= arguments_.most_shown)
            show(found->second.request, read_outcome(message.payload), read_outcome(now));
        answers_.erase(found);
    }

    static std::string show(const Outcome &outcome)
    {
        return fmt::format("error {}, retval {}, \"{}\"", outcome.error, outcome.retval, outcome.text);
    }

    static void show(const Exchange &request, const Outcome &before, const Outcome &now)
    {
        const bool is_body = show(before) == show(now);
        fmt::print(stderr, "zelctl: request {}: {}: {}\n", request.header.number, observe::describe(request.request),
                   tools::safe_text(is_body ? fmt::format("the bodies of the answers differ: {}", show(now))
                                            : fmt::format("before {}; now {}", show(before), show(now))));
    }

    struct Answered {
        std::string payload;
        Exchange request;
    };

    const Options &options_;
    const ReplayArguments &arguments_;
    Connection connection_;
    std::map<uint32_t, Answered> answers_{}; // whose counterparts are still to come
    uint64_t requests_ = 0;
    uint64_t equal_ = 0;
    uint64_t differing_ = 0;
    uint64_t unanswered_ = 0;
    uint64_t skipped_ = 0;
};

// A replay changes what the service has. Most of all, it must not hit the service that the
// capture came from.
void require_empty_service(const Options &options)
{
    if (read_status(options).summary.policies != 0)
        throw std::runtime_error(options.service + " has policies, which a replay would change; --force does it");
}

int run_replay(const Options &options, const ReplayArguments &arguments)
{
    if (!arguments.force)
        require_empty_service(options);
    Replay replay(options, arguments);
    replay.run();
    return replay.report();
}

} // namespace

void add_replay_command(const CommandLine &line)
{
    const auto arguments = std::make_shared<ReplayArguments>();
    CLI::App *const replay = line.app.add_subcommand(
        "replay",
        "Send the requests of a capture to a test service, and compare its answers with those of the capture");
    replay->add_option("FILE", arguments->path, "The capture; - is standard input")->required();
    replay->add_flag("--force", arguments->force, "Also to a service that has policies");
    when_given(line, replay, [&options = line.options, arguments] { return run_replay(options, *arguments); });
}

} // namespace zelctl
