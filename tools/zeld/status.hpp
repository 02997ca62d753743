// What the service says about itself: status, and the last messages as they come.
#pragma once

#include "tools/zeld/observer.hpp"
#include "tools/zeld/policies.hpp"

#include <functional>

namespace zeld {

// Where the numbers come from. Everything that it refers to must exist as long as it does.
struct StatusSource {
    const Observer &observer;
    const Policies &policies;
    observe::Status limits; // the members that do not change: limits, process, version
    std::function<std::vector<observe::ClientStatus>()> clients;

    observe::Status summary() const;
    std::vector<observe::ApplicationStatus> applications() const;
};

// A summary, then applications, clients and counts as far as an answer has room.
class StatusJob : public Job {
public:
    StatusJob(const StatusSource &source, std::size_t max_body)
        : Job(State::reading), source_(source), max_body_(max_body)
    {}
    void run(const Slice &slice) override;

private:
    const StatusSource &source_;
    std::size_t max_body_;
};

// Messages from a number on, as blocks of a capture file. Answers at once, also when there
// are none.
class WatchJob : public Job {
public:
    // Throws Refusal.
    WatchJob(const History &history, const void *array, std::size_t max_body);
    void run(const Slice &slice) override;

private:
    const History &history_;
    observe::WatchRequest request_{};
    std::size_t max_body_;
};

} // namespace zeld
