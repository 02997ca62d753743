#include "tools/zeld/traffic.hpp"

#include <algorithm>

namespace zeld {

namespace {

// The largest number of steps for the packets of one request, in the worst case. A step
// compares a packet with a pattern. A policy takes some cache misses besides.
constexpr std::size_t max_work = std::size_t{1} << 31;
constexpr std::size_t steps_of_policy = 100;

// A look at the clock takes as long as some steps.
constexpr std::size_t steps_between_looks = 1000;

} // namespace

Traffic::Traffic(const Policies &policies, const void *array)
    : Job(State::reading), policies_(policies), values_(array, service::element_packet)
{}

void Traffic::run(const Slice &slice)
{
    if (!read(slice))
        return;
    if (!has_begun_)
        begin();
    if (!compile(slice) || !classify(slice))
        return;
    const auto num_matched = static_cast<std::size_t>(std::count(is_matched_.begin(), is_matched_.end(), true));
    finish(success(fmt::format("{} of {} packets matched", num_matched, packets_.size()), num_matched));
}

bool Traffic::read(const Slice &slice)
{
    packets_.reserve(values_.size());
    fields_.reserve(values_.size());
    while (packets_.size() < values_.size()) {
        if (packets_.size() % steps_between_looks == 0 && slice.is_over())
            return false;
        values_.next(packets_.emplace_back());
        fields_.push_back(classify::pack(packets_.back()));
    }
    return true;
}

void Traffic::begin()
{
    searched_.reserve(policies_.all().size());
    for (const auto &[key, policy] : policies_.all())
        searched_.push_back(policy);
    is_matched_.resize(packets_.size());
    has_begun_ = true;
}

// Compiles the classifiers that do not exist yet, and adds up what they cost.
bool Traffic::compile(const Slice &slice)
{
    const std::size_t first = num_compiled_;
    for (; num_compiled_ < searched_.size(); ++num_compiled_) {
        if (num_compiled_ != first && slice.is_over())
            return false;
        cost_ += searched_[num_compiled_]->classifier().cost();
        if (num_compiled_ + 1 == searched_.size())
            check_work();
    }
    return true;
}

void Traffic::check_work() const
{
    const std::size_t fixed = steps_of_policy * searched_.size();
    const std::size_t most = fixed < max_work ? (max_work - fixed) / std::max<std::size_t>(cost_, 1) : 0;
    if (packets_.size() > most)
        throw Refusal(service::error_limit, "{} packets are too many at once for the policies there are; send up to {}",
                      packets_.size(), most);
}

// Policy by policy, because a classifier is then in the processor's cache for all packets.
bool Traffic::classify(const Slice &slice)
{
    std::size_t steps = 0; // since the last look at the clock
    while (policy_ < searched_.size()) {
        const Policy &policy = *searched_[policy_];
        const Classifier &classifier = policy.classifier();
        if (packet_ == packets_.size() || classifier.is_empty()) {
            ++policy_;
            packet_ = 0;
            steps += steps_of_policy;
        } else {
            count(policy, packet_++);
            steps += classifier.cost();
        }
        if (steps < steps_between_looks)
            continue;
        steps = 0;
        if (slice.is_over())
            return false;
    }
    return true;
}

void Traffic::count(const Policy &policy, std::size_t i)
{
    const Pair *const pair = policy.classify(packets_[i], fields_[i]);
    if (pair == nullptr)
        return;
    ++pair->counters->packets;
    pair->counters->bytes += packets_[i].bytes;
    is_matched_[i] = true;
}

} // namespace zeld
