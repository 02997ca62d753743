// Explain requests: why a packet matches a pair, and none of those above it.
#pragma once

#include "tools/classify/explain.hpp"
#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"
#include "tools/zeld/records.hpp"

namespace zeld {

// Explains with the policies as they are when the job begins to read.
class Explain : public Job {
public:
    // The answer's body has at most max_body bytes. Throws Refusal.
    Explain(const Policies &policies, const void *array, std::size_t max_body);

    void run(const Slice &slice) override;

private:
    void begin();
    bool explain(const Slice &slice);

    const Policies &policies_;
    service::ExplainRequest request_{};
    Records reasons_;
    std::size_t num_reasons_ = 0;
    bool has_begun_ = false;
    std::vector<std::shared_ptr<const Policy>> explained_{};
    std::size_t cost_ = 0;
    std::size_t next_ = 0;
    std::optional<PolicyGraph> graph_{}; // of the policy that is being explained
    std::optional<classify::Explanation> explanation_{};
};

} // namespace zeld
