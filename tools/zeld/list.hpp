// List requests: a page of the policies that there are, without their content.
#pragma once

#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"

namespace zeld {

class List : public Job {
public:
    // The answer's body has at most max_body bytes. Throws Refusal.
    List(const Policies &policies, const void *array, std::size_t max_body);

    void run(const Slice &slice) override;

private:
    const Policies &policies_;
    service::ListRequest request_{};
    std::size_t max_body_;
};

} // namespace zeld
