// What a machine reports of its groups, and when.
#include "tools/fleet/machine.hpp"

#include <sodium.h>

#include <algorithm>

namespace fleet {

namespace {

constexpr uint64_t settle_ms = 1000; // a change that takes longer is reported before it is done

} // namespace

GroupStatus Machine::status_of(const Group &group) const
{
    GroupStatus status{group.name, {}, {}, Verdict::none, {}};
    const GroupRecord &record = group.record;
    if (group.newest != nullptr)
        status.wanted = group.newest->revision;
    if (record.applied != nullptr)
        status.applied = record.applied->revision;
    if (!group.rejection.empty()) {
        status.verdict = Verdict::rejected;
        status.text = group.rejection;
    } else if (group.newest != nullptr && record.refusal && record.refusal->revision == status.wanted) {
        status.verdict = Verdict::refused;
        status.text = record.refusal->text;
    } else if (is_wanted(group)) {
        status.verdict = Verdict::pending;
        status.text = service_ == ServiceState::absent ? "the service is absent" : "under way";
    } else if (record.applied != nullptr) {
        status.verdict = record.is_reverted                           ? Verdict::reverted
                         : is_in_stage(*record.applied, config_.node) ? Verdict::applied
                                                                      : Verdict::held;
        // What is installed differs as long as a repair is under way.
        if (service_ != ServiceState::observed || request_ || !last_text_.empty()) {
            status.verdict = Verdict::pending;
            status.text = service_ == ServiceState::absent ? "the service is absent"
                          : last_text_.empty()             ? "under way"
                                                           : last_text_;
        }
    }
    return status;
}

std::string Machine::fingerprint() const
{
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, crypto_generichash_BYTES_MIN);
    for (const auto &[key, hash] : installed_) {
        const std::array<uint32_t, 2> numbers{key.app, key.policy};
        crypto_generichash_update(&state, reinterpret_cast<const unsigned char *>(numbers.data()), sizeof numbers);
        const Hash bytes = hash.value_or(Hash{});
        crypto_generichash_update(&state, bytes.bytes.data(), bytes.bytes.size());
    }
    std::array<unsigned char, crypto_generichash_BYTES_MIN> digest;
    crypto_generichash_final(&state, digest.data(), digest.size());
    return to_hex(digest);
}

Status Machine::status(Time now) const
{
    Status status{config_.node,        config_.start, service_ != ServiceState::absent,
                  installed_.size(),   fingerprint(), {},
                  target().overridden, now.wall_ms};
    for (const Group &group : groups_)
        status.groups.push_back(status_of(group));
    return status;
}

// Reports a change once it is done, or takes long.
void Machine::report_if_due()
{
    const uint64_t since = now_.steady_ms - reported_at_;
    const bool is_under_way =
        request_ || service_ == ServiceState::observing ||
        std::any_of(groups_.begin(), groups_.end(), [this](const Group &g) { return is_wanted(g); });
    if (reported_ && since < settle_ms && is_under_way)
        return;
    Status status = this->status(now_);
    if (reported_ && since < config_.report_ms) {
        status.time = reported_->time;
        if (status == *reported_)
            return;
        status.time = now_.wall_ms;
    }
    reported_ = status;
    reported_at_ = now_.steady_ms;
    actions_.emplace_back(action::Report{std::move(status)});
}

} // namespace fleet
