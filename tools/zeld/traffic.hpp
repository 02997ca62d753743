// Traffic requests: packet headers are classified in each policy, and counted there.
#pragma once

#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"
#include "tools/zeld/values.hpp"

namespace zeld {

class Traffic : public Job {
public:
    // The array must exist as long as the job.
    Traffic(const Policies &policies, const void *array);

    void run(const Slice &slice) override;

private:
    bool read(const Slice &slice);
    void begin();
    bool compile(const Slice &slice);
    void check_work() const;
    bool classify(const Slice &slice);
    void count(const Policy &policy, std::size_t i);

    const Policies &policies_;
    Values<service::PacketHeader> values_;
    std::vector<service::PacketHeader> packets_{};
    std::vector<PackedHeader> fields_{};
    std::vector<bool> is_matched_{};
    bool has_begun_ = false;
    std::vector<std::shared_ptr<const Policy>> searched_{}; // as they are when the job begins
    std::size_t num_compiled_ = 0;
    std::size_t cost_ = 0; // steps for one packet in all policies
    std::size_t policy_ = 0;
    std::size_t packet_ = 0;
};

} // namespace zeld
