// A request while it is being done.
#pragma once

#include "tools/zeld/message.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <time.h>

namespace zeld {

inline uint64_t read_clock_ns(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

inline uint64_t now_ns() { return read_clock_ns(CLOCK_MONOTONIC); }
inline uint64_t time_of_day_ns() { return read_clock_ns(CLOCK_REALTIME); } // since 1970

// The time that a job has until others get their turn.
class Slice {
public:
    static constexpr uint64_t length_ns = 2'000'000;

    Slice() : end_ns_(now_ns() + length_ns) {}
    bool is_over() const { return now_ns() >= end_ns_; }

private:
    uint64_t end_ns_;
};

struct Answer {
    zel_resp_hdr_t header{};
    Bytes body{};
};

Answer success(std::string_view text, std::size_t retval = 0);
Answer failure(service::Error error, std::string_view text);

class Job {
public:
    // reading: from here on the job looks at policies, so these have to be committed.
    // ready: the job waits for apply().
    enum class State { preparing, reading, ready, done };

    Job() = default;
    Job(const Job &) = delete;
    Job &operator=(const Job &) = delete;
    virtual ~Job() = default;

    State state() const { return state_; }
    const Answer &answer() const { return answer_; }

    // Works for about a slice of time, and at most until the state changes. Both throw
    // Refusal.
    virtual void run(const Slice &slice) = 0;
    // Makes the change, which is not durable yet. May be called again when the first one
    // was undone.
    virtual void apply() {}
    // What was changed, for the log; empty when nothing was.
    virtual std::string log_text() const { return {}; }
    // Of the request, ignored because this version does not know them.
    uint64_t unknown_elements() const { return unknown_elements_; }

    void fail(service::Error error, std::string_view text)
    {
        answer_ = failure(error, text);
        state_ = State::done;
    }

protected:
    explicit Job(State state) : state_(state) {}
    void finish(Answer answer)
    {
        answer_ = std::move(answer);
        state_ = State::done;
    }
    State state_ = State::preparing;
    Answer answer_{};
    uint64_t unknown_elements_ = 0;
};

} // namespace zeld
