// From a received message to the job that answers it.
#pragma once

#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"

namespace zeld {

// Which requests a socket takes.
enum class Access { full, read_only };

class Service {
public:
    // An answer's body has at most so many bytes.
    Service(Policies &policies, std::size_t max_body) : policies_(policies), max_body_(max_body) {}

    // The message must exist as long as the job. Throws Refusal.
    std::unique_ptr<Job> start(kob_msg_t *msg, Access access);

    Policies &policies() { return policies_; }
    std::size_t max_body() const { return max_body_; }

private:
    Policies &policies_;
    std::size_t max_body_;
};

} // namespace zeld
