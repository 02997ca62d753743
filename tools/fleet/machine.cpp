#include "tools/fleet/machine.hpp"

#include <algorithm>
#include <utility>

namespace fleet {

namespace {

constexpr uint64_t first_backoff_ms = 500;
constexpr uint64_t longest_backoff_ms = 30000;
constexpr uint64_t answer_ms = 10000; // a read or a fetch without answer is repeated

} // namespace

Machine::Machine(Config config, Saved saved)
    : config_(std::move(config)), random_(config_.seed), installed_(std::move(saved.installed)),
      objects_(std::move(saved.objects))
{
    for (const std::string &name : config_.groups) {
        Group &group = groups_.emplace_back();
        group.name = name;
        if (const auto found = saved.groups.find(name); found != saved.groups.end())
            group.record = found->second;
        group.is_known = saved.groups.contains(name);
        group.newest = group.record.applied;
    }
    stale_ = objects_;
}

std::vector<Action> Machine::step(const Event &event, Time now)
{
    if (now_.steady_ms == 0) { // what is left of a timer that ran at the last end
        for (Group &group : groups_) {
            if (group.record.confirm_wall_ms == 0)
                continue;
            const uint64_t left = group.record.confirm_wall_ms - std::min(group.record.confirm_wall_ms, now.wall_ms);
            group.confirm_at = now.steady_ms + std::min(left, uint64_t{1000} * group.record.applied->confirm_s);
        }
    }
    now_ = now;
    std::visit([this](const auto &one) { on(one); }, event);
    decide();
    return std::exchange(actions_, {});
}

// ---- Events

void Machine::on(const event::Connected &)
{
    for (Group &group : groups_) {
        group.read_id = 0;
        group.read = {};
        read_soon(group, 300);
    }
    fetches_.clear();
    reported_.reset();
}

void Machine::on(const event::Pushed &pushed)
{
    Group *const group = find(pushed.manifest->group);
    if (group == nullptr)
        return;
    // Of another store, perhaps an older one: the store itself decides.
    if (group->newest != nullptr && group->newest->revision.epoch != pushed.manifest->revision.epoch)
        read_soon(*group, 300);
    else
        learn(*group, pushed.manifest);
}

// The store itself is asked, and what it has is reported.
void Machine::on(const event::Unreadable &unreadable)
{
    if (Group *const group = find(unreadable.group))
        read_soon(*group, 300);
}

void Machine::on(const event::Read &read)
{
    Group *const group = find(read.group);
    if (group == nullptr || group->read_id != read.id)
        return;
    group->read_id = 0;
    if (read.result == event::Read::Result::failed) {
        back_off(group->read);
        group->read_at = group->read.next_ms;
        return;
    }
    group->read = {};
    group->read_at = now_.steady_ms + jitter(config_.read_ms);
    group->rejection = read.text;
    if (read.result == event::Read::Result::manifest)
        learn(*group, read.manifest);
    else if (read.result == event::Read::Result::none && !std::exchange(group->is_known, true))
        save(*group);
}

void Machine::on(const event::Object &object)
{
    fetches_.erase(object.hash);
    switch (object.result) {
    case event::Object::Result::stored:
        objects_.insert(object.hash);
        break;
    case event::Object::Result::bad:
        bad_objects_[object.hash] = object.text;
        break;
    case event::Object::Result::missing:
        back_off(fetches_[object.hash]);
        break;
    }
}

void Machine::on(const event::ServiceUp &)
{
    service_ = ServiceState::unobserved;
    request_.reset();
    repair_ = {};
}

void Machine::on(const event::ServiceGone &)
{
    service_ = ServiceState::absent;
    request_.reset();
}

// The service is the truth about what is installed.
void Machine::on(const event::Observed &observed)
{
    if (service_ != ServiceState::observing || observed.id != observe_id_)
        return;
    service_ = ServiceState::observed;
    action::Save changes;
    for (auto &[key, hash] : installed_) {
        std::optional<Hash> found;
        if (observed.policies) {
            if (const auto shown = observed.policies->find(key); shown != observed.policies->end())
                found = shown->second;
            else
                changes.removed.push_back(key);
        }
        if (found != hash)
            changes.installed[key] = hash = found;
    }
    for (const PolicyKey &key : changes.removed) {
        installed_.erase(key);
        changes.installed.erase(key);
    }
    foreign_.clear();
    if (observed.policies) {
        for (const auto &[key, hash] : *observed.policies) {
            if (config_.own_apps.contains(key.app) && !installed_.contains(key))
                foreign_.insert(key);
        }
    }
    if (!changes.installed.empty() || !changes.removed.empty())
        actions_.emplace_back(std::move(changes));
}

void Machine::on(const event::Answered &answered)
{
    if (!request_ || request_->id != answered.id)
        return;
    const Request request = *std::exchange(request_, std::nullopt);
    if (answered.result == event::Answered::Result::lost) {
        service_ = ServiceState::unobserved; // what it did is not known
        back_off(repair_);
        return;
    }
    action::Save changes;
    const bool is_done = answered.result == event::Answered::Result::done;
    for (const auto &[key, after] : request.after) {
        const std::optional<Hash> &before = request.before.at(key);
        const bool was_there = is_done ? after.has_value() : true;
        if (!was_there)
            changes.removed.push_back(key);
        else if (is_done)
            changes.installed[key] = after;
        else // a refused request changes nothing, unless it was one of several
            changes.installed[key] =
                answered.result == event::Answered::Result::refused_in_part ? std::nullopt : before;
    }
    for (const auto &[key, hash] : changes.installed)
        installed_[key] = hash;
    for (const PolicyKey &key : changes.removed)
        installed_.erase(key);
    actions_.emplace_back(std::move(changes));
    if (is_done) {
        repair_ = {};
        return;
    }
    Group *const group = find(request.group);
    if (group != nullptr)
        return refuse(*group, request.revision, answered.text);
    last_text_ = answered.text;
    back_off(repair_);
}

void Machine::on(const event::Retry &)
{
    bad_objects_.clear();
    repair_ = {};
    for (Group &group : groups_) {
        group.record.refusal.reset();
        save(group);
        read_soon(group, 0);
    }
    if (service_ == ServiceState::observed && !request_)
        service_ = ServiceState::unobserved;
}

// ---- What is wanted

Machine::Group *Machine::find(const std::string &name)
{
    const auto found = std::find_if(groups_.begin(), groups_.end(), [&](const Group &g) { return g.name == name; });
    return found != groups_.end() ? &*found : nullptr;
}

// Takes a manifest unless it is older than what the node has heard of.
void Machine::learn(Group &group, const ManifestPtr &manifest)
{
    if (group.newest != nullptr && group.newest->revision.epoch == manifest->revision.epoch &&
        group.newest->revision.sequence >= manifest->revision.sequence)
        return;
    if (group.newest != nullptr)
        supersede(*group.newest);
    group.newest = manifest;
    group.rejection.clear();
    repair_ = {};
}

// The objects of a manifest are dropped once no other manifest needs them.
void Machine::supersede(const Manifest &manifest)
{
    for (const Entry &entry : needed(manifest))
        stale_.insert(entry.hash);
}

void Machine::read_soon(Group &group, uint64_t within_ms)
{
    group.read_at = std::min(group.read_at, now_.steady_ms + (within_ms != 0 ? random_() % within_ms : 0));
}

void Machine::back_off(Backoff &backoff)
{
    const uint64_t ms = std::min(first_backoff_ms << std::min(backoff.failures, 10U), longest_backoff_ms);
    ++backoff.failures;
    backoff.next_ms = now_.steady_ms + jitter(ms);
}

PolicySet Machine::policies_of(const Manifest &manifest, bool is_reverted) const
{
    const bool is_taken = !is_reverted && is_in_stage(manifest, config_.node);
    PolicySet policies = is_taken ? manifest.policies : manifest.previous;
    std::erase_if(policies, [this](const auto &one) {
        return one.second.expires != 0 && one.second.expires <= now_.wall_ms / 1000;
    });
    return policies;
}

// The policies of all groups, with a manifest in the place of one group's own.
Machine::Target Machine::target(const Group *changed, const Manifest *manifest) const
{
    Target result;
    std::map<PolicyKey, const Group *> origin;
    for (const Group &group : groups_) {
        const Manifest *const source = &group == changed ? manifest : group.record.applied.get();
        if (source == nullptr)
            continue;
        for (const auto &[key, entry] : policies_of(*source, &group != changed && group.record.is_reverted)) {
            const Group *&from = origin[key];
            if (from != nullptr)
                result.overridden.push_back(from->name + " " + std::to_string(key.app) + "/" +
                                            std::to_string(key.policy));
            from = &group;
            result.policies[key] = entry;
        }
    }
    return result;
}

bool Machine::is_wanted(const Group &group) const
{
    if (group.newest == nullptr)
        return false;
    const Revision &newest = group.newest->revision;
    return (group.record.applied == nullptr || group.record.applied->revision != newest) &&
           (!group.record.refusal || group.record.refusal->revision != newest);
}

// A group of which nothing is known yet may want what is in the service.
bool Machine::is_all_known() const
{
    return std::all_of(groups_.begin(), groups_.end(), [](const Group &group) { return group.is_known; });
}

// The objects of a manifest that this node installs, now or when it goes back.
std::vector<Entry> Machine::needed(const Manifest &manifest) const
{
    std::vector<Entry> entries;
    const auto add = [&entries](const PolicySet &set) {
        for (const auto &[key, entry] : set)
            entries.push_back(entry);
    };
    const bool is_taken = is_in_stage(manifest, config_.node);
    if (is_taken)
        add(manifest.policies);
    if (!is_taken || manifest.confirm_s != 0)
        add(manifest.previous);
    return entries;
}

Machine::Plan Machine::plan(const Manifest &manifest, Time now) const
{
    Machine copy(*this);
    copy.now_ = now;
    const Group *const group = copy.find(manifest.group);
    Plan plan{{}, {}, {}, is_in_stage(manifest, config_.node)};
    const PolicySet wanted = copy.target(group, &manifest).policies;
    for (const auto &[key, entry] : wanted) {
        const auto found = installed_.find(key);
        if (found == installed_.end() || found->second != entry.hash)
            plan.sets.push_back(key);
    }
    for (const auto &[key, hash] : installed_) {
        if (!wanted.contains(key))
            plan.removals.push_back(key);
    }
    for (const PolicyKey &key : foreign_) {
        if (!wanted.contains(key))
            plan.removals.push_back(key);
    }
    for (const Entry &entry : needed(manifest)) {
        if (!objects_.contains(entry.hash))
            plan.missing.push_back(entry);
    }
    return plan;
}

// ---- What is to be done

void Machine::decide()
{
    read_due();
    observe();
    revert_unconfirmed();
    const bool can_repair = std::all_of(groups_.begin(), groups_.end(),
                                        [](const Group &g) { return g.is_known || g.record.refusal.has_value(); });
    const bool can_request = service_ == ServiceState::observed && !request_ && now_.steady_ms >= repair_.next_ms;
    for (Group &group : groups_) {
        if (!is_wanted(group) || !has_objects(group))
            continue;
        if (can_request && !request_ && !approach(target(&group, group.newest.get()).policies, &group))
            take_over(group);
    }
    if (can_request && !request_ && can_repair && !approach(target().policies, nullptr))
        last_text_.clear();
    report_if_due();
}

void Machine::read_due()
{
    for (Group &group : groups_) {
        if (now_.steady_ms < group.read_at)
            continue;
        group.read_id = ++last_id_;
        group.read_at = now_.steady_ms + answer_ms;
        actions_.emplace_back(action::Read{group.name, group.read_id});
    }
}

void Machine::observe()
{
    if (service_ != ServiceState::unobserved || now_.steady_ms < repair_.next_ms)
        return;
    service_ = ServiceState::observing;
    observe_id_ = ++last_id_;
    action::Observe observe{observe_id_, config_.own_apps};
    for (const auto &[key, hash] : installed_)
        observe.apps.insert(key.app);
    actions_.emplace_back(std::move(observe));
}

void Machine::revert_unconfirmed()
{
    for (Group &group : groups_) {
        if (group.confirm_at == 0 || now_.steady_ms < group.confirm_at)
            continue;
        group.confirm_at = 0;
        group.record.confirm_wall_ms = 0;
        group.record.is_reverted = true;
        save(group);
    }
}

// Fetches what is missing.  False when something is, or is bad.
bool Machine::has_objects(Group &group)
{
    bool has_all = true;
    for (const Entry &entry : needed(*group.newest)) {
        if (objects_.contains(entry.hash))
            continue;
        has_all = false;
        if (const auto bad = bad_objects_.find(entry.hash); bad != bad_objects_.end()) {
            refuse(group, group.newest->revision, bad->second);
            return false;
        }
        Backoff &fetch = fetches_[entry.hash];
        if (now_.steady_ms < fetch.next_ms)
            continue;
        fetch.next_ms = now_.steady_ms + answer_ms;
        actions_.emplace_back(action::Fetch{entry});
    }
    return has_all;
}

// The next request on the way from what is installed to what is wanted: first the policies to
// set, then those to remove.  False when there is nothing to do.
bool Machine::approach(const PolicySet &wanted, Group *group)
{
    Request request{};
    if (group != nullptr) {
        request.group = group->name;
        request.revision = group->newest->revision;
    }
    std::vector<std::pair<PolicyKey, Hash>> sets;
    for (const auto &[key, entry] : wanted) {
        const auto found = installed_.find(key);
        if (found != installed_.end() && found->second == entry.hash)
            continue;
        if (sets.empty() || sets.front().first.app == key.app)
            sets.emplace_back(key, entry.hash);
    }
    if (!sets.empty()) {
        request_sets(std::move(request), std::move(sets));
        return true;
    }
    for (const auto &[key, hash] : installed_) {
        if (wanted.contains(key))
            continue;
        request_removal(std::move(request), key);
        return true;
    }
    for (const PolicyKey &key : foreign_) {
        if (wanted.contains(key) || !is_all_known())
            continue;
        request_removal(std::move(request), key);
        return true;
    }
    return false;
}

void Machine::take_over(Group &group)
{
    GroupRecord &record = group.record;
    if (record.applied != nullptr)
        supersede(*record.applied);
    group.is_known = true;
    record = {group.newest, std::nullopt, false, 0};
    group.confirm_at = 0;
    if (record.applied->confirm_s != 0 && is_in_stage(*record.applied, config_.node)) {
        const uint64_t ms = uint64_t{1000} * record.applied->confirm_s;
        record.confirm_wall_ms = now_.wall_ms + ms;
        group.confirm_at = now_.steady_ms + ms;
    }
    save(group);
    drop_unneeded();
}

void Machine::refuse(Group &group, const Revision &revision, const std::string &text)
{
    if (group.newest == nullptr || group.newest->revision != revision) // overtaken
        return;
    group.record.refusal = Refusal{revision, text};
    save(group);
}

void Machine::request_sets(Request request, std::vector<std::pair<PolicyKey, Hash>> policies)
{
    const uint32_t app = policies.front().first.app;
    for (const auto &[key, hash] : policies)
        request.after.emplace_back(key, hash);
    start_request(std::move(request));
    actions_.emplace_back(action::Set{request_->id, app, std::move(policies)});
}

void Machine::request_removal(Request request, PolicyKey key)
{
    request.after.emplace_back(key, std::nullopt);
    start_request(std::move(request));
    actions_.emplace_back(action::Remove{request_->id, key});
}

// Marks the policies of a request as uncertain.  Those that are new are saved, so that a crash
// leaves none that nobody remembers; a service is asked for the state of the others after each start.
void Machine::start_request(Request request)
{
    action::Save changes;
    for (const auto &[key, after] : request.after) {
        foreign_.erase(key);
        const auto [policy, is_new] = installed_.try_emplace(key);
        request.before[key] = std::exchange(policy->second, std::nullopt);
        if (is_new)
            changes.installed[key] = std::nullopt;
    }
    request.id = ++last_id_;
    request_ = std::move(request);
    if (!changes.installed.empty())
        actions_.emplace_back(std::move(changes));
}

void Machine::save(Group &group) { actions_.emplace_back(action::Save{{}, {}, std::pair{group.name, group.record}}); }

void Machine::drop_unneeded()
{
    for (const Group &group : groups_) {
        for (const Manifest *const manifest : {group.newest.get(), group.record.applied.get()}) {
            if (manifest == nullptr)
                continue;
            for (const Entry &entry : needed(*manifest))
                stale_.erase(entry.hash);
        }
    }
    action::Drop drop;
    for (const Hash &hash : std::exchange(stale_, {})) {
        if (objects_.erase(hash) != 0)
            drop.hashes.push_back(hash);
    }
    if (!drop.hashes.empty())
        actions_.emplace_back(std::move(drop));
}

} // namespace fleet
