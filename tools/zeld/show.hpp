// Show requests: the messages that create policies.
#pragma once

#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"

namespace zeld {

// Shows the policies as they are when the job begins to read.
class Show : public Job {
public:
    // The answer's body has at most max_body bytes. Throws Refusal.
    Show(const Policies &policies, const void *array, std::size_t max_body);

    void run(const Slice &slice) override;

private:
    void begin();

    const Policies &policies_;
    service::ShowRequest request_{};
    std::size_t max_body_;
    bool has_begun_ = false;
    std::vector<std::shared_ptr<const Policy>> shown_{};
    std::size_t next_ = 0;
    Bytes body_{};
};

} // namespace zeld
