// Requests to the node and its groups, which reach the service through the agent.
#pragma once

#include "tools/fleet/bus.hpp"
#include "tools/zelagent/local_service.hpp"

namespace zelagent {

class Relay {
public:
    // subjects: those to serve, with commas between them.  max_message: of a request, bytes.
    Relay(const fleet::Bus &bus, LocalService &service, std::string subjects, uint32_t max_message);

    // Readable when a request is there; -1 while the subjects are not served.
    int descriptor() const { return listener_ != nullptr ? kob_service_fd(listener_.get()) : -1; }

    // Passes on what is there, but a few requests at most, because others have their turn.
    void serve(uint64_t now_ms);

private:
    void open(uint64_t now_ms);
    std::string answer_to(kob_msg_t *request);

    struct Close {
        void operator()(kob_service_t *listener) const { kob_service_close(listener); }
    };

    const fleet::Bus &bus_;
    LocalService &service_;
    std::string subjects_;
    uint32_t max_message_;
    uint64_t open_at_ = 0;
    std::unique_ptr<kob_service_t, Close> listener_{};
    MessageRecord request_{kob_msg_alloc()};
};

} // namespace zelagent
