// Answers to statistics requests.
#pragma once

#include "tools/zeld/job.hpp"
#include "tools/zeld/policies.hpp"

namespace zeld {

class Statistics {
public:
    // The answer's body has at most max_body bytes. The request must exist as long as
    // the object. Throws Refusal for a request that no policies can make right.
    Statistics(const Policies &policies, const Request &request, std::size_t max_body, bool is_read_only);
    Statistics(const Statistics &) = delete;
    ~Statistics();

    // An entry for each pair that a query names, in the queries' order. Then clears the
    // counters that the queries tell to clear. When it throws Refusal, none is cleared.
    // All entries are of one moment, so this is not divided.
    void collect();
    bool is_collected() const { return is_collected_; }
    // What was collected, encoded. Counters that were cleared get back what they had, unless
    // there is an answer.
    Answer answer();

private:
    void add(const zel_stat_request_entry_t &query);
    void add(const Policy &policy, const zel_stat_request_entry_t &query);
    void add(const Policy &policy, const Pair &pair, uint32_t flag);
    void take_one();

    const Policies &policies_;
    const Request &request_;
    std::size_t max_entries_;
    std::size_t num_taken_ = 0;
    std::vector<zel_stat_result_entry_t> entries_{};
    std::vector<std::pair<std::shared_ptr<Counters>, Counters>> cleared_{}; // and what they were
    bool is_collected_ = false;
    bool is_answered_ = false;
};

} // namespace zeld
