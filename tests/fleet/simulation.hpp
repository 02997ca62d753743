// A world for machines: a store with writers, a network that loses, repeats and reorders,
// services that refuse and restart, agents that crash between any two actions, and clocks
// that jump.  Everything follows from one seed.
#pragma once

#include "tools/fleet/commit.hpp"
#include "tools/fleet/machine.hpp"

#include <fmt/format.h>

#include <deque>
#include <map>
#include <optional>
#include <queue>
#include <random>

namespace simulation {

using namespace fleet;

// What a machine could do wrong, done by the world in its place.
enum class Plant { nothing, lost_read_back, ignored_epoch, forgotten_removal, unsaved_intent, unnoticed_replacement };

class Violation : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A policy is its hash alone.  Policies of this kind are refused by every service.
inline bool is_poison(const Hash &hash) { return hash.bytes[0] < 8; }

class Store : public ManifestStore {
public:
    explicit Store(std::mt19937_64 &random) : random_(random) { recreate(); }

    void recreate()
    {
        epoch_ = fmt::format("{:x}", random_());
        history_.clear();
        ++generation;
    }

    std::string epoch() override { return epoch_; }

    Current current(const std::string &group) override
    {
        const auto &all = history_[group];
        return all.empty() ? Current{} : Current{all.size(), all.back()};
    }

    ManifestPtr after(const std::string &group, uint64_t position) override
    {
        const auto &all = history_[group];
        return position < all.size() ? all[position] : nullptr;
    }

    // The answer may get lost, before or after the write, and another writer may be faster.
    Write write(const Manifest &manifest, uint64_t position) override
    {
        if (is_unreliable && random_() % 8 == 0 && rival)
            rival(manifest.group);
        if (is_unreliable && random_() % 8 == 0)
            return Write::unknown;
        auto &all = history_[manifest.group];
        if (all.size() != position)
            return Write::conflict;
        all.push_back(std::make_shared<const Manifest>(manifest));
        ++writes;
        if (on_write)
            on_write(all.back());
        return is_unreliable && random_() % 6 == 0 ? Write::unknown : Write::done;
    }

    // A replica may be behind.
    ManifestPtr read(const std::string &group)
    {
        const auto &all = history_[group];
        if (all.empty())
            return nullptr;
        const size_t behind = is_unreliable && random_() % 5 == 0 ? random_() % 3 : 0;
        return all[all.size() - 1 - std::min(behind, all.size() - 1)];
    }

    bool is_unreliable = true;
    uint64_t writes = 0;
    uint64_t generation = 0;
    std::function<void(const std::string &)> rival;
    std::function<void(const ManifestPtr &)> on_write;

private:
    std::mt19937_64 &random_;
    std::string epoch_;
    std::map<std::string, std::vector<ManifestPtr>> history_;
};

struct Service {
    bool is_up = true;
    bool keeps_policies = true;
    bool shows_policies = true;
    uint64_t serial = 1; // counts restarts
    std::map<PolicyKey, Hash> policies;
};

struct Delivery {
    uint64_t at;
    uint64_t order;
    Event event;
    uint64_t life; // of the agent that it is for
    bool operator>(const Delivery &other) const { return std::tie(at, order) > std::tie(other.at, other.order); }
};

struct Node {
    std::string name;
    std::vector<std::string> groups;
    std::set<uint32_t> own_apps;
    Service service;
    Saved disk;
    std::set<Hash> objects; // in the file; on the disk after the next save
    std::optional<Machine> machine;
    uint64_t life = 1;
    uint64_t seen_serial = 0; // of the service that the machine has last heard of
    int64_t clock_skew = 0;
    bool is_connected = true;
    std::deque<Action> actions; // not done yet
    std::priority_queue<Delivery, std::vector<Delivery>, std::greater<>> deliveries;
    std::map<std::string, Revision> applied; // on the disk
};

class World {
public:
    World(uint64_t seed, Plant plant) : random_(seed), plant_(plant), store_(random_)
    {
        for (int i = 0; i < 4; ++i) {
            Node &node = nodes_.emplace_back();
            node.name = fmt::format("node{}", i);
            node.groups =
                i % 2 == 0 ? std::vector<std::string>{"all", "edge"} : std::vector<std::string>{"edge", "all"};
            if (i == 3)
                node.groups = {"all"};
            if (i == 2)
                node.own_apps = {1};
            node.service.keeps_policies = chance(2);
            node.service.shows_policies = chance(2) || i == 2;
            start(node);
        }
        store_.on_write = [this](const ManifestPtr &manifest) { publish(manifest); };
        store_.rival = [this](const std::string &group) { write(group, true); };
    }

    void run(uint64_t steps)
    {
        for (uint64_t i = 0; i < steps; ++i) {
            disturb();
            advance(nodes_[random_() % nodes_.size()]);
        }
        settle();
    }

    uint64_t writes() const { return store_.writes; }
    uint64_t crashes() const { return crashes_; }

private:
    bool chance(uint64_t one_in) { return random_() % one_in == 0; }
    Time time_of(const Node &node) const
    {
        return {now_, 1'700'000'000'000ULL + now_ + static_cast<uint64_t>(node.clock_skew)};
    }

    // ---- Writers

    PolicySet random_policies()
    {
        PolicySet set;
        for (uint64_t n = random_() % 4; n > 0; --n) {
            Entry entry;
            entry.hash.bytes[0] = static_cast<unsigned char>(chance(12) ? random_() % 8 : 8 + random_() % 248);
            entry.hash.bytes[1] = static_cast<unsigned char>(random_() % 4);
            entry.size = 100;
            entry.parts = 1;
            if (chance(10))
                entry.expires = time_of(nodes_[0]).wall_ms / 1000 + random_() % 60;
            set[{static_cast<uint32_t>(1 + random_() % 2), static_cast<uint16_t>(random_() % 4)}] = entry;
        }
        return set;
    }

    void write(const std::string &group, bool is_rival)
    {
        const auto rival = std::exchange(store_.rival, nullptr);
        const uint64_t before = store_.writes;
        try {
            commit(store_, {group, "simulation", "", {}}, [&](const Manifest *current) {
                Manifest next;
                next.policies = random_policies();
                if (current != nullptr && chance(3)) {
                    next.previous = current->policies;
                    next.salt = "s";
                    if (chance(2))
                        next.stage = whole_fleet / 2;
                    else
                        next.confirm_s = 1 + static_cast<uint32_t>(random_() % 20);
                }
                return next;
            });
            if (store_.writes != before + 1)
                throw Violation(fmt::format("one commit made {} writes", store_.writes - before));
        } catch (const Conflict &) {
            throw Violation("a commit without expectation gave up");
        }
        if (!is_rival)
            store_.rival = rival;
    }

    ManifestPtr planted(const ManifestPtr &manifest) const
    {
        if (plant_ != Plant::ignored_epoch || manifest == nullptr)
            return manifest;
        Manifest changed = *manifest;
        changed.revision.epoch = "one";
        return std::make_shared<const Manifest>(changed);
    }

    void publish(const ManifestPtr &manifest)
    {
        for (Node &node : nodes_) {
            if (!node.is_connected)
                continue;
            for (uint64_t copies = chance(6) ? 0 : 1 + random_() % 2; copies > 0; --copies)
                deliver(node, event::Pushed{planted(manifest)}, random_() % (chance(10) ? 20000 : 200));
        }
    }

    // ---- Nodes

    void deliver(Node &node, Event event, uint64_t delay)
    {
        node.deliveries.push({now_ + delay, ++order_, std::move(event), node.life});
    }

    void start(Node &node)
    {
        node.actions.clear();
        ++node.life;
        node.seen_serial = 0;
        node.objects = node.disk.objects;
        node.machine.emplace(Config{node.name, node.groups, node.own_apps, fmt::format("{}", node.life), random_()},
                             node.disk);
        deliver(node, event::Connected{}, 1);
    }

    void crash(Node &node)
    {
        ++crashes_;
        start(node);
    }

    void restart(Service &service)
    {
        service.is_up = true;
        ++service.serial;
        if (!service.keeps_policies)
            service.policies.clear();
    }

    void disturb()
    {
        if (!is_disturbed_)
            return;
        Node &node = nodes_[random_() % nodes_.size()];
        switch (random_() % 400) {
        case 0:
        case 1:
        case 2:
            return write(chance(2) ? "all" : "edge", false);
        case 3:
            return crash(node);
        case 4:
            return restart(node.service);
        case 5:
            node.service.is_up = !node.service.is_up;
            if (node.service.is_up)
                restart(node.service);
            return;
        case 6:
            node.clock_skew += static_cast<int64_t>(random_() % 100000) - 50000;
            return;
        case 7:
            node.is_connected = !node.is_connected;
            if (node.is_connected)
                deliver(node, event::Connected{}, 1);
            return;
        case 8:
            if (chance(8))
                store_.recreate();
            return;
        case 9:
            return deliver(node, event::Retry{}, 1);
        default:
            return;
        }
    }

    // Time passes, and one thing happens at a node.
    void advance(Node &node)
    {
        now_ += random_() % 20;
        if (is_disturbed_ && !node.actions.empty() && chance(300))
            return crash(node);
        if (!node.actions.empty()) {
            const Action action = std::move(node.actions.front());
            node.actions.pop_front();
            return std::visit([&](const auto &one) { perform(node, one); }, action);
        }
        if (!node.deliveries.empty() && node.deliveries.top().at <= now_) {
            const Delivery delivery = node.deliveries.top();
            node.deliveries.pop();
            // Pushes outlive the agent that they were for; answers do not.
            if (delivery.life == node.life || std::holds_alternative<event::Pushed>(delivery.event))
                step(node, delivery.event);
            return;
        }
        watch_service(node);
        step(node, event::Tick{});
    }

    void watch_service(Node &node)
    {
        const uint64_t serial = node.service.is_up ? node.service.serial : 0;
        if (serial == node.seen_serial || chance(3))
            return;
        if (plant_ == Plant::unnoticed_replacement && serial != 0 && node.seen_serial != 0) {
            node.seen_serial = serial;
            return;
        }
        if (node.seen_serial != 0)
            step(node, event::ServiceGone{});
        node.seen_serial = serial;
        if (serial != 0)
            step(node, event::ServiceUp{});
    }

    void step(Node &node, const Event &event)
    {
        for (Action &action : node.machine->step(event, time_of(node))) {
            if (const auto *const report = std::get_if<action::Report>(&action))
                check_claim(node, report->status);
            node.actions.push_back(std::move(action));
        }
    }

    // A status that calls every group applied describes what the service has.
    void check_claim(const Node &node, const Status &status) const
    {
        if (!reaches_service(node) || !node.actions.empty() ||
            std::any_of(status.groups.begin(), status.groups.end(),
                        [](const GroupStatus &group) { return group.verdict != Verdict::applied; }))
            return;
        std::map<PolicyKey, Hash> claimed;
        for (const auto &[key, hash] : node.machine->installed())
            claimed[key] = hash.value_or(Hash{});
        if (claimed != node.service.policies)
            throw Violation(
                fmt::format("{} reports what its service does not have: {}", node.name, encode_status(status)));
    }

    // ---- Actions

    void perform(Node &node, const action::Read &read)
    {
        if (plant_ == Plant::lost_read_back)
            return;
        using Result = event::Read::Result;
        if (is_disturbed_ && (!node.is_connected || chance(10))) {
            if (chance(2)) // else there is no answer at all
                deliver(node, event::Read{read.group, read.id, Result::failed, nullptr, {}}, random_() % 3000);
            return;
        }
        const ManifestPtr manifest = planted(store_.read(read.group));
        deliver(node, event::Read{read.group, read.id, manifest ? Result::manifest : Result::none, manifest, {}},
                random_() % 300);
    }

    void perform(Node &node, const action::Fetch &fetch)
    {
        using Result = event::Object::Result;
        if (is_disturbed_ && (!node.is_connected || chance(10))) {
            deliver(node, event::Object{fetch.entry.hash, Result::missing, {}}, random_() % 2000);
            return;
        }
        node.objects.insert(fetch.entry.hash);
        deliver(node, event::Object{fetch.entry.hash, Result::stored, {}}, random_() % 200);
    }

    bool reaches_service(const Node &node) const
    {
        if (node.service.is_up && node.service.serial == node.seen_serial)
            return true;
        if (plant_ == Plant::unnoticed_replacement && node.service.is_up)
            return true;
        return false;
    }

    void perform(Node &node, const action::Observe &observe)
    {
        if (!reaches_service(node)) {
            node.seen_serial = 0;
            return deliver(node, event::ServiceGone{}, 1);
        }
        event::Observed observed{observe.id, {}};
        if (node.service.shows_policies) {
            observed.policies.emplace();
            for (const auto &[key, hash] : node.service.policies)
                if (observe.apps.contains(key.app))
                    observed.policies->emplace(key, hash);
        }
        deliver(node, observed, random_() % 50);
    }

    // The answer to a request that changes the service by a function.
    template <class Apply> void answer(Node &node, uint64_t id, bool is_refused, Apply apply)
    {
        using Result = event::Answered::Result;
        if (!reaches_service(node))
            return deliver(node, event::Answered{id, Result::lost, {}}, 1);
        const bool is_lost = is_disturbed_ && chance(30);
        if (!is_refused && !(is_lost && chance(2)))
            apply();
        if (is_lost)
            return deliver(node, event::Answered{id, Result::lost, {}}, random_() % 5000);
        deliver(node, event::Answered{id, is_refused ? Result::refused : Result::done, is_refused ? "poison" : ""},
                random_() % 100);
    }

    void perform(Node &node, const action::Set &set)
    {
        bool is_refused = false;
        for (const auto &[key, hash] : set.policies) {
            if (!node.objects.contains(hash))
                throw Violation(node.name + " sets a policy without its object");
            is_refused |= is_poison(hash);
        }
        answer(node, set.id, is_refused, [&] {
            for (const auto &[key, hash] : set.policies)
                node.service.policies[key] = hash;
        });
    }

    void perform(Node &node, const action::Remove &remove)
    {
        answer(node, remove.id, false, [&] {
            if (plant_ != Plant::forgotten_removal)
                node.service.policies.erase(remove.key);
        });
    }

    void perform(Node &node, const action::Save &save)
    {
        node.disk.objects = node.objects;
        for (const auto &[key, hash] : save.installed)
            if (hash || plant_ != Plant::unsaved_intent)
                node.disk.installed[key] = hash;
        for (const PolicyKey &key : save.removed)
            node.disk.installed.erase(key);
        if (!save.group)
            return;
        const auto &[name, record] = *save.group;
        if (record.applied != nullptr) {
            Revision &before = node.applied[name];
            const Revision &after = record.applied->revision;
            if (before.epoch == after.epoch && after.sequence < before.sequence)
                throw Violation(fmt::format("{}: group {} went from revision {} back to {}", node.name, name,
                                            before.sequence, after.sequence));
            before = after;
        }
        node.disk.groups[name] = record;
    }

    void perform(Node &node, const action::Drop &drop)
    {
        for (const Hash &hash : drop.hashes)
            node.objects.erase(hash);
    }

    void perform(Node &, const action::Report &) {}

    // ---- The end: nothing disturbs, and every node converges

    void settle()
    {
        is_disturbed_ = false;
        store_.is_unreliable = false;
        for (Node &node : nodes_) {
            node.is_connected = true;
            if (!node.service.is_up)
                restart(node.service);
        }
        const uint64_t end = now_ + 240000;
        while (now_ < end)
            advance(nodes_[random_() % nodes_.size()]);
        for (Node &node : nodes_)
            check(node);
    }

    PolicySet policies_of(Node &node, const GroupStatus &group, const Manifest &manifest) const
    {
        const bool is_taken = !node.disk.groups[group.group].is_reverted && is_in_stage(manifest, node.name);
        PolicySet set = is_taken ? manifest.policies : manifest.previous;
        std::erase_if(set, [&](const auto &one) {
            return one.second.expires != 0 && one.second.expires <= time_of(node).wall_ms / 1000;
        });
        return set;
    }

    bool holds_poison(const Manifest &manifest) const
    {
        for (const PolicySet *const set : {&manifest.policies, &manifest.previous})
            for (const auto &[key, entry] : *set)
                if (is_poison(entry.hash))
                    return true;
        return false;
    }

    // The newest revision, unless the service refuses it: then the last one that it took.
    ManifestPtr expected_manifest(Node &node, const GroupStatus &status)
    {
        const ManifestPtr newest = planted(store_.current(status.group).manifest);
        if (newest == nullptr || status.applied == newest->revision)
            return newest;
        if (status.wanted != newest->revision)
            throw Violation(fmt::format("{}: group {} follows {} of {}, not {} of {}", node.name, status.group,
                                        status.wanted.text(), status.wanted.epoch, newest->revision.text(),
                                        newest->revision.epoch));
        if (status.verdict != Verdict::refused)
            throw Violation(fmt::format("{}: group {} does not reach revision {}: {} {}", node.name, status.group,
                                        newest->revision.text(), name_of(status.verdict), status.text));
        return node.disk.groups[status.group].applied;
    }

    void check(Node &node)
    {
        std::map<PolicyKey, Hash> expected;
        bool is_refused = false;
        for (const GroupStatus &status : node.machine->status(time_of(node)).groups) {
            ManifestPtr manifest = expected_manifest(node, status);
            if (manifest == nullptr) // a new store without the group: what was there stays
                manifest = node.disk.groups[status.group].applied;
            if (manifest == nullptr)
                continue;
            is_refused |= holds_poison(*manifest);
            for (const auto &[key, entry] : policies_of(node, status, *manifest))
                expected[key] = entry.hash;
        }
        if (is_refused) // by its service, in a combination that changes with time
            return;
        if (node.service.policies != expected)
            throw Violation(fmt::format("{} has {} policies, and should have {}: {}", node.name,
                                        node.service.policies.size(), expected.size(),
                                        encode_status(node.machine->status(time_of(node)))));
    }

    std::mt19937_64 random_;
    Plant plant_;
    Store store_;
    std::vector<Node> nodes_;
    uint64_t now_ = 1;
    uint64_t order_ = 0;
    uint64_t crashes_ = 0;
    bool is_disturbed_ = true;
};

} // namespace simulation
