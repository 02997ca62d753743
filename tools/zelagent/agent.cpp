#include "tools/zelagent/agent.hpp"

#include "tools/fleet/commit.hpp"
#include "tools/json/bad_input.hpp"
#include "tools/message/message.hpp"
#include "tools/zelagent/log.hpp"
#include "zel-platform/manager.h"
#include "zel/platform/heartbeat.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <poll.h>

namespace zelagent {

using namespace fleet;

namespace {

constexpr int tick_ms = 100;
constexpr uint64_t look_ms = 250;  // between two looks for an absent service
constexpr uint64_t plan_ms = 5000; // for the objects of a dry run
constexpr std::size_t max_plans = 16;
constexpr std::size_t max_attachments = std::size_t{8} * 1024 * 1024; // bytes of objects that came with a manifest

template <class Clock> uint64_t milliseconds()
{
    const auto now = Clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

Json list(const std::vector<PolicyKey> &keys)
{
    Json json = Json::array();
    for (const PolicyKey &key : keys)
        json.push_back(fmt::format("{}/{}", key.app, key.policy));
    return json;
}

// Where requests to a node arrive.
std::string request_subjects(const Config &machine)
{
    std::string subjects = node_subject(machine.node);
    for (const std::string &group : machine.groups)
        subjects += "," + share_subject(group);
    return subjects;
}

} // namespace

Agent::Agent(const Options &options)
    : options_(options), state_(options.state), machine_(options.machine, state_.load()), service_(options.service),
      bus_(options.servers, Bus::Start::later),
      relay_(bus_, service_, request_subjects(options.machine), options.max_message)
{
    bus_.subscribe(ask_subject(options_.machine.node));
    for (const std::string &group : options_.machine.groups) {
        bus_.subscribe(revision_subject(group));
    }
}

Time Agent::now() const
{
    return {milliseconds<std::chrono::steady_clock>(), milliseconds<std::chrono::system_clock>()};
}

void Agent::run(int stop)
{
    zel_manager_notify("READY=1");
    for (;;) {
        pollfd waits[] = {{stop, POLLIN, 0}, {bus_.descriptor(), POLLIN, 0}, {relay_.descriptor(), POLLIN, 0}};
        (void)poll(waits, std::size(waits), tick_ms);
        fu_keeper_update_and_send_heartbeat(0);
        if (waits[0].revents != 0)
            return;
        watch_servers();
        watch_service();
        receive_some();
        post(event::Tick{});
        turn();
        answer_plans();
        keep_status();
        relay_.serve(now().steady_ms);
    }
}

// ---- The machine

void Agent::turn()
{
    while (!events_.empty()) {
        const Event event = std::move(events_.front());
        events_.pop_front();
        perform(machine_.step(event, now()));
    }
}

// Saves that follow each other are one transaction.
void Agent::perform(std::vector<Action> actions)
{
    std::vector<action::Save> saves;
    for (Action &action : actions) {
        if (auto *const save = std::get_if<action::Save>(&action)) {
            saves.push_back(std::move(*save));
            continue;
        }
        if (!saves.empty())
            state_.save(std::exchange(saves, {}));
        std::visit([this](const auto &one) { perform(one); }, action);
    }
    if (!saves.empty())
        state_.save(saves);
}

void Agent::perform(const action::Read &read)
{
    if (!bus_.is_connected())
        return post(event::Read{read.group, read.id, event::Read::Result::failed, nullptr, {}});
    bus_.publish(direct_get_subject(desired_stream, group_subject(read.group)), "",
                 fmt::format("{}.r.{}.{}", bus_.inbox(), read.id, read.group));
}

void Agent::perform(const action::Fetch &fetch)
{
    const Entry &entry = fetch.entry;
    const std::string hash = entry.hash.hex();
    if (const auto attached = attachments_.find(entry.hash); attached != attachments_.end()) {
        std::string text;
        if (store(entry, attached->second, text) == event::Object::Result::stored)
            return post(event::Object{entry.hash, event::Object::Result::stored, {}});
    }
    if (!bus_.is_connected())
        return post(event::Object{entry.hash, event::Object::Result::missing, {}});
    fetches_[hash] = {entry, std::vector<std::string>(entry.parts), entry.parts};
    for (uint32_t part = 0; part < entry.parts; ++part)
        bus_.publish(direct_get_subject(object_stream, object_subject(entry.hash, part)), "",
                     fmt::format("{}.f.{}.{}", bus_.inbox(), hash, part));
}

void Agent::perform(const action::Observe &observe)
{
    try {
        std::optional<std::map<PolicyKey, Hash>> shown = service_.show(observe.apps);
        if (service_.is_there())
            post(event::Observed{observe.id, std::move(shown)});
    } catch (const tools::BadInput &fault) { // it does not show what this library understands
        log(fault.what());
        post(event::Observed{observe.id, std::nullopt});
    }
}

void Agent::perform(const action::Set &set)
{
    LocalService::Answer answer{LocalService::Result::refused, {}, 0};
    try {
        std::vector<std::pair<PolicyKey, std::string>> messages;
        for (const auto &[key, hash] : set.policies)
            messages.emplace_back(key, state_.object(hash));
        answer = service_.set(set.app, std::move(messages));
    } catch (const tools::BadInput &fault) { // stored before by a version that verified less
        answer.text = fault.what();
    } catch (const BadData &fault) { // damaged in the file
        answer.text = fault.what();
    }
    if (answer.result == LocalService::Result::refused)
        log(fmt::format("the service refuses: {}", answer.text));
    post(event::Answered{set.id, answer.result, answer.text});
}

void Agent::perform(const action::Remove &remove)
{
    const LocalService::Answer answer = service_.remove(remove.key);
    post(event::Answered{remove.id, answer.result, answer.text});
}

void Agent::perform(const action::Report &report)
{
    status_ = encode_status(report.status);
    if (bus_.is_connected())
        bus_.publish(report_subject(options_.machine.node), status_);
    keep_status();
}

void Agent::keep_status()
{
    const uint64_t now = milliseconds<std::chrono::steady_clock>();
    if (status_.empty() || now < keep_status_at_ || !bus_.is_connected())
        return;
    keep_status_at_ = now + keep_status_ms;
    bus_.publish(status_subject(options_.machine.node), std::exchange(status_, {}));
}

// ---- Servers and service

void Agent::watch_servers()
{
    const uint64_t connections = bus_.connections();
    if (connections == connections_)
        return;
    log(connections != 0 ? "connected to the servers" : "the servers are gone");
    connections_ = connections;
    fetches_.clear();
    if (connections != 0)
        post(event::Connected{});
}

void Agent::watch_service()
{
    if (has_service_ && service_.is_there())
        return;
    if (has_service_) {
        log("the service is gone");
        has_service_ = false;
        post(event::ServiceGone{});
    }
    const uint64_t now = milliseconds<std::chrono::steady_clock>();
    if (now < look_for_service_at_)
        return;
    look_for_service_at_ = now + look_ms;
    if (!service_.find())
        return;
    log("the service is there");
    has_service_ = true;
    post(event::ServiceUp{});
}

// ---- Messages

// Then the service, the manager's sign of life and a stop have their turn, however many come.  A
// question can take as long as the service does.
void Agent::receive_some()
{
    bool has_asked = false;
    for (int i = 0; i < 64 && !has_asked; ++i) {
        const std::optional<BusMessage> message = bus_.take();
        if (!message)
            return;
        has_asked = message->subject.starts_with("zel.ask.");
        receive(*message);
    }
}

void Agent::receive(const BusMessage &message)
{
    const std::string_view subject = message.subject;
    if (subject.starts_with(bus_.inbox()))
        return receive_answer(message, subject.substr(bus_.inbox().size() + 1));
    if (subject.starts_with("zel.ask."))
        return answer_question(message);
    const std::string group(subject.substr(subject.rfind('.') + 1));
    try {
        post(event::Pushed{decode(message, group)});
    } catch (const BadData &) {
        post(event::Unreadable{group});
    }
}

ManifestPtr Agent::decode(const BusMessage &message, const std::string &group)
{
    Manifest manifest = decode_manifest(message.data, options_.keys);
    if (manifest.group != group)
        throw BadData("the manifest is that of another group");
    keep_attachments(message.data);
    return std::make_shared<const Manifest>(std::move(manifest));
}

void Agent::receive_answer(const BusMessage &message, std::string_view token)
{
    if (token.starts_with("r."))
        receive_manifest(message, token.substr(2));
    else if (token.starts_with("f."))
        receive_part(message, token.substr(2));
}

void Agent::receive_manifest(const BusMessage &message, std::string_view token)
{
    const std::size_t dot = token.find('.');
    event::Read read{std::string(token.substr(dot + 1)),
                     std::strtoull(std::string(token).c_str(), nullptr, 10),
                     event::Read::Result::failed,
                     nullptr,
                     {}};
    if (message.status == 404)
        read.result = event::Read::Result::none;
    if (message.status == 200) {
        try {
            read.manifest = decode(message, read.group);
            read.result = event::Read::Result::manifest;
        } catch (const BadData &fault) {
            read.result = event::Read::Result::rejected;
            read.text = fault.what() + rejection_mark(message.data);
        }
    }
    post(std::move(read));
}

void Agent::receive_part(const BusMessage &message, std::string_view token)
{
    const std::string hash(token.substr(0, token.find('.')));
    const auto found = fetches_.find(hash);
    if (found == fetches_.end())
        return;
    Fetch &fetch = found->second;
    const auto part = std::strtoul(std::string(token.substr(token.find('.') + 1)).c_str(), nullptr, 10);
    if (message.status != 200 || part >= fetch.parts.size() || message.data.empty()) {
        post(event::Object{fetch.entry.hash, event::Object::Result::missing, {}});
        fetches_.erase(found);
        return;
    }
    fetch.missing -= fetch.parts[part].empty() ? 1 : 0;
    fetch.parts[part] = message.data;
    if (fetch.missing != 0)
        return;
    const Fetch whole = std::move(fetch);
    fetches_.erase(found);
    finish_fetch(whole);
}

void Agent::finish_fetch(const Fetch &fetch)
{
    std::string bytes;
    for (const std::string &part : fetch.parts)
        bytes += part;
    std::string text;
    const event::Object::Result result = store(fetch.entry, bytes, text);
    post(event::Object{fetch.entry.hash, result, text});
}

// No object gets past the verifier.
event::Object::Result Agent::store(const Entry &entry, std::string_view parts, std::string &text)
{
    try {
        tools::verify_message(decode_object(parts, entry), "object " + entry.hash.hex());
    } catch (const BadData &fault) {
        text = fault.what();
        return event::Object::Result::bad;
    } catch (const tools::BadInput &fault) {
        text = fault.what();
        return event::Object::Result::bad;
    }
    state_.put_object(entry, parts);
    return event::Object::Result::stored;
}

// Objects that came with a manifest are stored, and checked, when the machine asks for them.
void Agent::keep_attachments(std::string_view manifest)
{
    for (auto &[hash, parts] : attachments_of(manifest)) {
        const std::size_t size = parts.size();
        if (size > max_attachments || !attachments_.try_emplace(hash, std::move(parts)).second)
            continue;
        attachment_order_.push_back(hash);
        attachment_bytes_ += size;
    }
    while (attachment_bytes_ > max_attachments) {
        const auto oldest = attachments_.find(attachment_order_.front());
        attachment_bytes_ -= oldest->second.size();
        attachments_.erase(oldest);
        attachment_order_.pop_front();
    }
}

// ---- Questions: a word, and in further lines what it is about

void Agent::answer_question(const BusMessage &message)
{
    if (message.reply.empty())
        return;
    const std::string_view data = message.data;
    const std::size_t line = data.find('\n');
    const std::string_view verb = data.substr(0, line);
    const std::string_view argument = line != std::string_view::npos ? data.substr(line + 1) : std::string_view();
    try {
        if (verb == "plan" && plans_.size() == max_plans)
            return answer(message.reply, {{"error", "too many dry runs at once"}});
        if (verb == "plan") {
            plans_.push_back({message.reply, decode_manifest(argument, options_.keys), now().steady_ms + plan_ms});
            for (const Entry &entry : machine_.plan(plans_.back().manifest, now()).missing)
                perform(action::Fetch{entry});
            return;
        }
        answer(message.reply, answer(verb, argument));
    } catch (const std::exception &fault) {
        answer(message.reply, {{"error", fault.what()}});
    }
}

Json Agent::answer(std::string_view verb, std::string_view argument)
{
    if (verb == "stats")
        return {{"counters",
                 service_.statistics(static_cast<uint32_t>(std::strtoul(std::string(argument).c_str(), nullptr, 10)))}};
    if (verb == "drift")
        return drift();
    if (verb != "retry")
        return {{"error", fmt::format("\"{}\" is not a question", verb.substr(0, 20))}};
    post(event::Retry{});
    return {{"retry", true}};
}

Json Agent::drift()
{
    std::set<uint32_t> apps = options_.machine.own_apps;
    for (const auto &[key, hash] : machine_.installed())
        apps.insert(key.app);
    const std::optional<std::map<PolicyKey, Hash>> shown = service_.show(apps);
    if (!shown)
        return {{"known", false}};
    std::vector<PolicyKey> missing;
    std::vector<PolicyKey> changed;
    std::vector<PolicyKey> extra;
    for (const auto &[key, hash] : machine_.installed()) {
        const auto found = shown->find(key);
        if (found == shown->end())
            missing.push_back(key);
        else if (found->second != hash)
            changed.push_back(key);
    }
    for (const auto &[key, hash] : *shown)
        if (!machine_.installed().contains(key))
            extra.push_back(key);
    return {{"known", true}, {"missing", list(missing)}, {"changed", list(changed)}, {"extra", list(extra)}};
}

// A dry run is answered when all objects are here and verified, or after a time.
void Agent::answer_plans()
{
    std::erase_if(plans_, [this](const Plan &plan) {
        const Machine::Plan steps = machine_.plan(plan.manifest, now());
        if (!steps.missing.empty() && now().steady_ms < plan.until_ms)
            return false;
        Json json{{"sets", list(steps.sets)}, {"removals", list(steps.removals)}, {"takes", steps.is_in_stage}};
        if (!steps.missing.empty())
            json["error"] = fmt::format("{} objects cannot be fetched or are not accepted", steps.missing.size());
        answer(plan.reply, std::move(json));
        return true;
    });
}

void Agent::answer(const std::string &reply, Json json)
{
    json["node"] = options_.machine.node;
    bus_.publish(reply, json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

} // namespace zelagent
