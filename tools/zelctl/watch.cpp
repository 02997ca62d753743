#include "tools/zelctl/watch.hpp"

#include "tools/zelctl/output.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

namespace zelctl {
namespace {

volatile std::sig_atomic_t is_interrupted = 0;

void catch_interrupts()
{
    struct sigaction action {};
    action.sa_handler = [](int) { is_interrupted = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND); // the second one ends the program
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::string watch_request(uint64_t first)
{
    const observe::WatchRequest request{first};
    std::string array(TLV_ARRAY_OVERHEAD + tlv_size_get(sizeof request), '\0');
    tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), observe::element_watch, sizeof request,
                      &request, 0);
    return array;
}

// Takes the array at the front of an answer's body; what remains are blocks.
observe::WatchAnswer take_answer(const Options &options, std::string_view &body)
{
    constexpr std::size_t head = TLV_ARRAY_OVERHEAD + TLV_ELEMENT_OVERHEAD;
    observe::WatchAnswer answer{};
    if (body.size() < head + sizeof answer)
        throw NoService(options.service + ": an answer to a watch request that cannot be read");
    std::memcpy(&answer, body.data() + head, sizeof answer);
    body.remove_prefix(head + sizeof answer);
    return answer;
}

class End {
public:
    explicit End(const WatchArguments &arguments) : arguments_(arguments), start_(Clock::now()) {}

    bool has_come(const Watched &watched) const
    {
        const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
        return (arguments_.count != 0 && watched.messages >= arguments_.count) ||
               (arguments_.seconds > 0 && seconds >= arguments_.seconds);
    }

private:
    using Clock = std::chrono::steady_clock;
    const WatchArguments &arguments_;
    Clock::time_point start_;
};

void take_blocks(std::string_view blocks, const End &end, const TakeBlock &take, Watched &watched)
{
    observe::Recorded message;
    const char *block = blocks.data();
    while (!end.has_come(watched) && observe::take_block(blocks, message)) {
        ++watched.messages;
        watched.cut += message.is_cut() ? 1 : 0;
        take({block, static_cast<std::size_t>(blocks.data() - block)}, message);
        block = blocks.data();
    }
}

} // namespace

void add_watch_options(CLI::App *command, WatchArguments &arguments)
{
    command->add_flag("--last", arguments.last, "The last messages, which the service keeps, and then end");
    command->add_option("--count", arguments.count, "End after so many messages")->type_name("NUMBER");
    command->add_option("--seconds", arguments.seconds, "End after so long")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e9));
}

int watch(const Options &options, const WatchArguments &arguments, const TakeBlock &take,
          const std::function<void()> &pause, Watched &watched)
{
    catch_interrupts();
    Connection connection(options);
    const End end(arguments);
    uint64_t next = arguments.last ? 0 : observe::watch_new;
    for (;;) {
        const bool is_interrupted_before = is_interrupted != 0; // what came before it is still taken
        const Answer answer = connection.request(observe::opcode_watch, watch_request(next));
        if (answer.refused())
            return report(options, answer, {});
        std::string_view blocks = answer.body();
        const observe::WatchAnswer given = take_answer(options, blocks);
        watched.missed += next == 0 ? 0 : given.missed; // at first, all that came before
        next = given.next;
        const bool is_idle = blocks.empty();
        take_blocks(blocks, end, take, watched);
        if (is_interrupted_before || end.has_come(watched) || (arguments.last && is_idle))
            return exit_ok;
        if (is_idle) {
            pause();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

} // namespace zelctl
