// The decisions of an agent, without input or output: events go in, actions come out.
//
// A machine brings one service to the policies of its node's groups.  For each group it
// follows the newest manifest; it takes over one group's manifest at a time, with one request
// under way at a time.  Before a request it has its new policies saved as uncertain, so that a
// crash between request and answer leaves no policy that nobody remembers.
#pragma once

#include "tools/fleet/format.hpp"

#include <random>
#include <set>
#include <variant>

namespace fleet {

struct Time {
    uint64_t steady_ms; // never goes back
    uint64_t wall_ms;   // since 1970; may jump
};

// ---- What survives a restart

struct Refusal {
    Revision revision;
    std::string text;
};

struct GroupRecord {
    ManifestPtr applied;
    std::optional<Refusal> refusal;
    bool is_reverted = false;     // back at applied->previous, because nobody confirmed
    uint64_t confirm_wall_ms = 0; // when it goes back; 0: it does not
};

using Installed = std::map<PolicyKey, std::optional<Hash>>; // without hash: uncertain

struct Saved {
    Installed installed;
    std::map<std::string, GroupRecord> groups;
    std::set<Hash> objects;
};

// ---- Events

namespace event {

struct Connected {}; // to the servers, also again
struct Pushed {      // a revision, as it was committed; may be lost, repeated or late
    ManifestPtr manifest;
};
struct Unreadable { // something else than an acceptable manifest came in its place
    std::string group;
};
struct Read { // the answer to action::Read
    enum class Result { manifest, none, failed, rejected };
    std::string group;
    uint64_t id;
    Result result;
    ManifestPtr manifest;
    std::string text; // why it was rejected
};
struct Object { // the answer to action::Fetch, or an object that came by itself
    enum class Result { stored, missing, bad };
    Hash hash;
    Result result;
    std::string text;
};
struct ServiceUp {}; // a service answers, and it is another one than before
struct ServiceGone {};
struct Observed { // the answer to action::Observe
    uint64_t id;
    std::optional<std::map<PolicyKey, Hash>> policies; // absent: the service cannot show them
};
struct Answered {
    enum class Result { done, refused, refused_in_part, lost };
    uint64_t id;
    Result result;
    std::string text;
};
struct Retry {}; // a person asks for it
struct Tick {};

} // namespace event

using Event =
    std::variant<event::Connected, event::Pushed, event::Unreadable, event::Read, event::Object, event::ServiceUp,
                 event::ServiceGone, event::Observed, event::Answered, event::Retry, event::Tick>;

// ---- Actions, to be done in order

namespace action {

struct Read { // the newest manifest of a group from the store
    std::string group;
    uint64_t id;
};
struct Fetch { // an object; it is stored before the event, and durably with the next Save
    Entry entry;
};
struct Observe { // which policies of these applications the service has
    uint64_t id;
    std::set<uint32_t> apps;
};
struct Set { // create or replace policies of one application, all of them or none
    uint64_t id;
    uint32_t app;
    std::vector<std::pair<PolicyKey, Hash>> policies;
};
struct Remove {
    uint64_t id;
    PolicyKey key;
};
struct Save { // durably, before the next action
    Installed installed;
    std::vector<PolicyKey> removed;
    std::optional<std::pair<std::string, GroupRecord>> group;
};
struct Drop { // objects that nothing needs any more, durably with the next Save
    std::vector<Hash> hashes;
};
struct Report {
    Status status;
};

} // namespace action

using Action = std::variant<action::Read, action::Fetch, action::Observe, action::Set, action::Remove, action::Save,
                            action::Drop, action::Report>;

struct Config {
    std::string node;
    std::vector<std::string> groups; // where two have the same policy, the later one wins
    std::set<uint32_t> own_apps;     // applications without policies from elsewhere
    std::string start;               // random for each start
    uint64_t seed = 1;
    uint64_t read_ms = 8000;               // between two looks at the store, on average
    uint64_t report_ms = repeat_status_ms; // between two statuses, at most
};

class Machine {
public:
    Machine(Config config, Saved saved);

    std::vector<Action> step(const Event &event, Time now);

    // What a manifest would change if it were the newest of its group.
    struct Plan {
        std::vector<PolicyKey> sets;
        std::vector<PolicyKey> removals;
        std::vector<Entry> missing; // objects that are not here
        bool is_in_stage;
    };
    Plan plan(const Manifest &manifest, Time now) const;

    const Installed &installed() const { return installed_; }
    Status status(Time now) const;

private:
    struct Backoff {
        uint64_t next_ms = 0; // steady
        uint32_t failures = 0;
    };

    struct Group {
        std::string name;
        GroupRecord record;
        bool is_known = false; // the store was asked for its manifest at least once
        ManifestPtr newest;    // of which the node has heard
        std::string rejection; // why the store's manifest is not acceptable
        uint64_t read_id = 0;  // of the read under way; 0: none
        uint64_t read_at = 0;
        Backoff read;
        uint64_t confirm_at = 0; // steady; 0: nothing to confirm
    };

    struct Request { // under way
        uint64_t id;
        std::vector<std::pair<PolicyKey, std::optional<Hash>>> after; // if it is done; no hash: removed
        Installed before;
        std::string group; // whose manifest it serves; empty: a repair
        Revision revision;
    };

    struct Target {
        PolicySet policies;
        std::vector<std::string> overridden;
    };

    enum class ServiceState { absent, unobserved, observing, observed };

    void on(const event::Connected &);
    void on(const event::Pushed &);
    void on(const event::Unreadable &);
    void on(const event::Read &);
    void on(const event::Object &);
    void on(const event::ServiceUp &);
    void on(const event::ServiceGone &);
    void on(const event::Observed &);
    void on(const event::Answered &);
    void on(const event::Retry &);
    void on(const event::Tick &) {}

    Group *find(const std::string &name);
    void learn(Group &group, const ManifestPtr &manifest);
    void supersede(const Manifest &manifest);
    void read_soon(Group &group, uint64_t within_ms);
    void back_off(Backoff &backoff);
    uint64_t jitter(uint64_t ms) { return ms / 2 + random_() % (ms + 1); }

    PolicySet policies_of(const Manifest &manifest, bool is_reverted) const;
    Target target(const Group *changed = nullptr, const Manifest *manifest = nullptr) const;
    bool is_wanted(const Group &group) const;
    bool is_all_known() const;
    std::vector<Entry> needed(const Manifest &manifest) const;

    void decide();
    void read_due();
    void observe();
    void revert_unconfirmed();
    bool has_objects(Group &group);
    bool approach(const PolicySet &wanted, Group *group);
    void take_over(Group &group);
    void refuse(Group &group, const Revision &revision, const std::string &text);
    void request_sets(Request request, std::vector<std::pair<PolicyKey, Hash>> policies);
    void request_removal(Request request, PolicyKey key);
    void start_request(Request request);
    void save(Group &group);
    void drop_unneeded();
    void report_if_due();
    GroupStatus status_of(const Group &group) const;
    std::string fingerprint() const;

    Config config_;
    std::mt19937_64 random_;
    Time now_{};
    std::vector<Action> actions_;
    std::vector<Group> groups_;
    Installed installed_;
    std::set<Hash> objects_;
    std::map<Hash, std::string> bad_objects_;
    std::map<Hash, Backoff> fetches_; // next_ms: when it counts as lost
    std::set<PolicyKey> foreign_;     // in the service, of own applications, and not from here
    ServiceState service_ = ServiceState::absent;
    uint64_t observe_id_ = 0;
    std::optional<Request> request_;
    Backoff repair_;
    uint64_t last_id_ = 0;
    std::optional<Status> reported_;
    uint64_t reported_at_ = 0;
    std::string last_text_; // the service's last refusal of a repair
    std::set<Hash> stale_;  // objects of manifests that were superseded
};

} // namespace fleet
