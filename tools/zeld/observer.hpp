// What the service remembers about its work: counts, the last messages, the log of
// requests, and a capture when one is asked for.
#pragma once

#include "tools/zeld/history.hpp"
#include "tools/zeld/job.hpp"
#include "tools/zeld/tally.hpp"

#include <functional>

namespace zeld {

// A request from its arrival on.
struct Arrival {
    uint64_t at_ns = 0; // of the clock that does not jump
    uint32_t number = 0;
    observe::Request request{};
};

class Observer {
public:
    struct Options {
        std::size_t max_kept = 0; // bytes of the last messages
        std::string capture{};    // file for all messages; empty: none
        std::string dump{};       // file for the last messages when they are asked for
        std::string program{};    // name and version, for the files
    };

    // Throws std::system_error when the capture file cannot be written.
    explicit Observer(Options options);

    Arrival arrived(kob_msg_t *msg);
    // job may be null.
    void answered(kob_msg_t *msg, const Arrival &arrival, const Answer &answer, const Job *job) noexcept;

    // When the service has nothing to do: the capture file gets what was written.
    void rest() { capture_.flush(); }

    // Writes the last messages to their file, or as lines to the log; then the history of
    // traces.
    void dump() const;

    const Tally &tally() const { return tally_; }
    const History &history() const { return history_; }
    uint64_t started_ns() const { return started_ns_; } // since 1970

private:
    void record(const observe::Captured &message);
    void log_answer(const kob_msg_t *msg, const Arrival &arrival, const Answer &answer, const Job *job) const;
    bool write_history() const;
    void log_history() const;

    Options options_;
    Tally tally_{};
    History history_;
    observe::CaptureWriter capture_{};
    uint64_t started_ns_;
    uint32_t last_number_ = 0;
};

// "client 3 (pid 17, uid 0)"
std::string name_of(const kob_msg_t *msg);

} // namespace zeld
