// From a received message to the job that answers it.
#pragma once

#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"
#include "tools/zeld/status.hpp"

#include <optional>

namespace zeld {

// Which requests a socket takes.
enum class Access { full, read_only };

class Service {
public:
    // An answer's body has at most so many bytes.
    Service(Policies &policies, std::size_t max_body) : policies_(policies), max_body_(max_body) {}

    // The message must exist as long as the job. Throws Refusal.
    std::unique_ptr<Job> start(kob_msg_t *msg, Access access);

    // From now on the service answers requests for status and for the last messages.
    void show_status(StatusSource source) { status_.emplace(std::move(source)); }

    Policies &policies() { return policies_; }
    std::size_t max_body() const { return max_body_; }

private:
    std::unique_ptr<Job> start_observation(uint32_t opcode, const void *array, Access access) const;

    Policies &policies_;
    std::size_t max_body_;
    std::optional<StatusSource> status_{};
};

} // namespace zeld
