// Change requests: several updates of policies and of their parts, all or none.
#pragma once

#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"

namespace zeld {

class ChangeJob : public Job {
public:
    // The array must exist as long as the job. Throws Refusal.
    ChangeJob(Policies &policies, const void *array);

    void run(const Slice &slice) override;
    void apply() override;
    std::string log_text() const override { return log_text_; }

private:
    void read_head(const void *value, uint16_t length);
    void read_frame(const void *value, uint16_t length);
    void split_messages();
    bool parse(const Slice &slice);

    Policies &policies_;
    const void *array_;
    bool is_read_ = false;
    Batch batch_{};
    Bytes unread_{}; // of messages
    // Of each change in the batch; empty for a frame. The graphs refer to it.
    std::vector<Bytes> messages_{};
    std::size_t num_parsed_ = 0;
    std::string log_text_{};
};

} // namespace zeld
