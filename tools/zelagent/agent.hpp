// The input and output around the machine: servers, the service beside the agent, the file.
#pragma once

#include "tools/fleet/bus.hpp"
#include "tools/zelagent/relay.hpp"
#include "tools/zelagent/state.hpp"

#include <deque>

namespace zelagent {

struct Options {
    fleet::Config machine;
    std::string servers;
    std::string state;
    std::vector<fleet::PublicKey> keys; // who may sign manifests; empty: signatures are not asked for
    ServiceOptions service;
    uint32_t max_message = 16 * 1024 * 1024; // of relayed requests, bytes
};

class Agent {
public:
    explicit Agent(const Options &options);

    // Until the descriptor is readable.
    void run(int stop);

private:
    struct Fetch {
        fleet::Entry entry;
        std::vector<std::string> parts;
        std::size_t missing = 0;
    };
    struct Plan { // a question that waits for objects
        std::string reply;
        fleet::Manifest manifest;
        uint64_t until_ms;
    };

    fleet::Time now() const;
    void post(fleet::Event event) { events_.push_back(std::move(event)); }
    void turn();
    void perform(std::vector<fleet::Action> actions);
    void perform(const fleet::action::Read &read);
    void perform(const fleet::action::Fetch &fetch);
    void perform(const fleet::action::Observe &observe);
    void perform(const fleet::action::Set &set);
    void perform(const fleet::action::Remove &remove);
    void perform(const fleet::action::Save &) {} // perform(actions) does it
    void perform(const fleet::action::Drop &drop) { state_.drop(drop.hashes); }
    void perform(const fleet::action::Report &report);
    void keep_status();

    void watch_servers();
    void watch_service();

    void receive_some();
    void receive(const fleet::BusMessage &message);
    void receive_answer(const fleet::BusMessage &message, std::string_view token);
    void receive_manifest(const fleet::BusMessage &message, std::string_view token);
    void receive_part(const fleet::BusMessage &message, std::string_view token);
    void keep_attachments(std::string_view manifest);
    fleet::ManifestPtr decode(const fleet::BusMessage &message, const std::string &group);
    void finish_fetch(const Fetch &fetch);
    fleet::event::Object::Result store(const fleet::Entry &entry, std::string_view parts, std::string &text);

    void answer_question(const fleet::BusMessage &message);
    fleet::Json answer(std::string_view verb, std::string_view argument);
    fleet::Json drift();
    void answer_plans();
    void answer(const std::string &reply, fleet::Json json);

    Options options_;
    State state_;
    fleet::Machine machine_;
    LocalService service_;
    fleet::Bus bus_;
    Relay relay_;
    std::deque<fleet::Event> events_;
    std::map<std::string, Fetch> fetches_; // by hash
    fleet::Attachments attachments_;
    std::deque<fleet::Hash> attachment_order_;
    std::size_t attachment_bytes_ = 0;
    std::vector<Plan> plans_;
    std::string status_; // to be kept by the servers
    uint64_t keep_status_at_ = 0;
    uint64_t connections_ = 0;
    bool has_service_ = false;
    uint64_t look_for_service_at_ = 0;
};

} // namespace zelagent
