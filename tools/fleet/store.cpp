#include "tools/fleet/store.hpp"

#include <fmt/core.h>

#include <thread>

namespace fleet {

namespace {

// Short, because a request to a leader that has died is lost; everything here can be repeated.
constexpr int64_t wait_ms = 700;
constexpr int64_t history_length = 64;
constexpr std::chrono::milliseconds pause{100};
constexpr int max_rounds = 60;

[[noreturn]] void fail(const Bus &bus, const std::string &what, natsStatus status)
{
    bus.check_rights();
    const char *const detail = nats_GetLastError(nullptr);
    throw BusError(
        fmt::format("{}: {}", what, detail != nullptr && *detail != '\0' ? detail : natsStatus_GetText(status)));
}

jsOptions patient()
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = wait_ms;
    return options;
}

// Servers that elect a leader are back within seconds.
template <class Call> auto patiently(Call call)
{
    for (int round = 0;; ++round) {
        try {
            return call();
        } catch (const BusDenied &) {
            throw;
        } catch (const BusError &) {
            if (round == max_rounds)
                throw;
            std::this_thread::sleep_for(pause);
        }
    }
}

struct DestroyMessage {
    void operator()(natsMsg *message) const { natsMsg_Destroy(message); }
};
using Message = std::unique_ptr<natsMsg, DestroyMessage>;

std::string_view data_of(const natsMsg *message)
{
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

// Null when the bytes are not a manifest.
ManifestPtr to_manifest(std::string_view bytes)
{
    try {
        return std::make_shared<const Manifest>(decode_manifest(bytes));
    } catch (const BadData &) {
        return nullptr;
    }
}

} // namespace

Store::Store(Bus &bus, const SecretKey *secret_key) : bus_(bus), secret_key_(secret_key)
{
    jsOptions options = patient();
    jsCtx *context = nullptr;
    if (const natsStatus status = natsConnection_JetStream(&context, bus.native(), &options); status != NATS_OK)
        fail(bus, "the servers keep no streams", status);
    js_.reset(context);
}

Store::~Store() = default;

// ---- Making the streams

void Store::add_stream(jsStreamConfig &config)
{
    jsErrCode code{};
    jsOptions options = patient();
    natsStatus status = js_AddStream(nullptr, js_.get(), &config, &options, &code);
    if (status != NATS_OK && code == JSStreamNameExistErr)
        status = js_UpdateStream(nullptr, js_.get(), &config, &options, &code);
    if (status != NATS_OK)
        fail(bus_, fmt::format("stream {}", config.Name), status);
}

std::string Store::init(int replicas)
{
    jsRePublish republish;
    jsRePublish_Init(&republish);
    republish.Source = "zel.desired.*";
    republish.Destination = "zel.rev.{{wildcard(1)}}";
    const char *desired[] = {fleet_subject, "zel.desired.*"};
    const char *objects[] = {"zel.obj.*.*"};
    const char *statuses[] = {"zel.status.*"};
    struct Stream {
        const char *name;
        const char **subjects;
        int num_subjects;
        int64_t per_subject;
        jsStorageType storage;
        jsRePublish *republish;
    };
    // Statuses are reported again by themselves, so they are kept in memory.
    const Stream streams[] = {{desired_stream, desired, 2, history_length, js_FileStorage, &republish},
                              {object_stream, objects, 1, 1, js_FileStorage, nullptr},
                              {status_stream, statuses, 1, 1, js_MemoryStorage, nullptr}};
    for (const Stream &stream : streams) {
        jsStreamConfig config;
        jsStreamConfig_Init(&config);
        config.Name = stream.name;
        config.Subjects = stream.subjects;
        config.SubjectsLen = stream.num_subjects;
        config.MaxMsgsPerSubject = stream.per_subject;
        config.Storage = stream.storage;
        config.Replicas = replicas;
        config.AllowDirect = true;
        config.RePublish = stream.republish;
        add_stream(config);
    }
    const std::string new_epoch = random_id() + random_id();
    patiently([&] { return publish(fleet_subject, new_epoch, 0); }); // refused when there is one
    return epoch();
}

// ---- Manifests

std::string Store::epoch()
{
    if (!epoch_.empty())
        return epoch_;
    const std::optional<BusMessage> message = bus_.last(desired_stream, fleet_subject);
    if (!message)
        throw BusError("the fleet has no epoch: \"zelctl fleet init\" makes it");
    return epoch_ = message->data;
}

// From the leader: a replica may be behind, and a writer must not be.
Current Store::current(const std::string &group)
{
    return patiently([&] { return read_current(group); });
}

Current Store::read_current(const std::string &group)
{
    natsMsg *got = nullptr;
    jsErrCode code{};
    jsOptions options = patient();
    const natsStatus status =
        js_GetLastMsg(&got, js_.get(), desired_stream, group_subject(group).c_str(), &options, &code);
    const Message message(got);
    if (status == NATS_NOT_FOUND || code == JSNoMessageFoundErr)
        return {};
    if (status != NATS_OK)
        fail(bus_, "group " + group, status);
    ManifestPtr manifest = to_manifest(data_of(got));
    return {natsMsg_GetSequence(got), manifest != nullptr ? manifest : last_readable(group)};
}

// Somebody wrote what is not a manifest.  The next revision follows on the last one that can be
// read, or without policies on the newest that a node has reported.
ManifestPtr Store::last_readable(const std::string &group)
{
    if (const std::vector<ManifestPtr> kept = history(group); !kept.empty())
        return kept.back();
    Manifest newest;
    newest.group = group;
    newest.revision.epoch = epoch();
    for (const Status &status : statuses())
        for (const GroupStatus &one : status.groups)
            if (one.group == group && one.wanted.epoch == newest.revision.epoch)
                newest.revision.sequence = std::max(newest.revision.sequence, one.wanted.sequence);
    return newest.revision.sequence != 0 ? std::make_shared<const Manifest>(std::move(newest)) : nullptr;
}

// From any replica, so it may be missing for a moment.
ManifestPtr Store::after(const std::string &group, uint64_t position)
{
    const std::string subject = group_subject(group);
    for (int round = 0; round < 4; ++round) {
        jsDirectGetMsgOptions wanted;
        jsDirectGetMsgOptions_Init(&wanted);
        wanted.Sequence = position + 1;
        wanted.NextBySubject = subject.c_str();
        natsMsg *got = nullptr;
        jsOptions options = patient();
        const natsStatus status = js_DirectGetMsg(&got, js_.get(), desired_stream, &options, &wanted);
        const Message message(got);
        if (status == NATS_OK) {
            ManifestPtr manifest = to_manifest(data_of(got));
            return manifest != nullptr ? manifest : std::make_shared<const Manifest>();
        }
        std::this_thread::sleep_for(pause);
    }
    return nullptr;
}

// False when the subject is not at the position any more; throws when there is no answer.
bool Store::publish(const std::string &subject, std::string_view data, uint64_t position)
{
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = wait_ms;
    options.ExpectLastSubjectSeq = position;
    options.ExpectNoMessage = position == 0;
    jsErrCode code{};
    const auto size = static_cast<int>(data.size());
    // cppcheck-suppress invalidLifetime ; the data is read during the call
    const natsStatus status = js_Publish(nullptr, js_.get(), subject.c_str(), data.data(), size, &options, &code);
    if (status == NATS_OK)
        return true;
    if (code != JSStreamWrongLastSequenceErr)
        fail(bus_, subject, status);
    return false;
}

Attachments Store::attachments_for(const Manifest &manifest) const
{
    Attachments attachments;
    std::size_t room = std::min(max_attached, bus_.max_payload() / 2);
    for (const auto &[key, entry] : manifest.policies) {
        const auto found = fresh_.find(entry.hash);
        if (found == fresh_.end() || found->second.size() > room || !attachments.insert(*found).second)
            continue;
        room -= found->second.size();
    }
    return attachments;
}

ManifestStore::Write Store::write(const Manifest &manifest, uint64_t position)
{
    try {
        return publish(group_subject(manifest.group), encode_manifest(manifest, secret_key_, attachments_for(manifest)),
                       position)
                   ? Write::done
                   : Write::conflict;
    } catch (const BusDenied &) {
        throw;
    } catch (const BusError &) {
        std::this_thread::sleep_for(pause);
        return Write::unknown;
    }
}

std::vector<ManifestPtr> Store::history(const std::string &group)
{
    return patiently([&] {
        std::vector<ManifestPtr> manifests;
        read_all(desired_stream, group_subject(group), false, [&](std::string_view, std::string_view bytes) {
            if (ManifestPtr manifest = to_manifest(bytes); manifest != nullptr)
                manifests.push_back(std::move(manifest));
        });
        return manifests;
    });
}

// ---- Objects

Entry Store::put_object(std::string_view message)
{
    if (message.size() > max_object)
        throw BadData(fmt::format("a policy of {} bytes is too large", message.size()));
    const std::vector<std::string> parts = encode_object(message);
    const Entry entry{hash_of(message), static_cast<uint32_t>(message.size()), static_cast<uint32_t>(parts.size()), 0};
    for (uint32_t part = 0; part < entry.parts; ++part)
        patiently([&] { return publish(object_subject(entry.hash, part), parts[part], 0); });
    if (parts.size() == 1)
        fresh_[entry.hash] = parts.front();
    return entry;
}

std::string Store::object(const Entry &entry)
{
    std::string bytes;
    for (uint32_t part = 0; part < entry.parts; ++part) {
        const std::optional<BusMessage> message = bus_.last(object_stream, object_subject(entry.hash, part));
        if (!message)
            throw BusError(fmt::format("object {} is missing in the store", entry.hash.hex()));
        bytes += message->data;
    }
    return decode_object(bytes, entry);
}

// ---- Statuses

std::vector<Status> Store::statuses()
{
    return patiently([&] {
        std::vector<Status> statuses;
        read_all(status_stream, "zel.status.*", true, [&](std::string_view at, std::string_view bytes) {
            try {
                statuses.push_back(decode_status(bytes, at));
            } catch (const BadData &) { // a node can write nonsense
            }
        });
        return statuses;
    });
}

// A consumer for as long as the call takes.
void Store::read_all(const char *stream, const std::string &subject, bool only_last,
                     const std::function<void(std::string_view, std::string_view)> &take)
{
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream;
    options.Ordered = true;
    options.Config.DeliverPolicy = only_last ? js_DeliverLastPerSubject : js_DeliverAll;
    natsSubscription *made = nullptr;
    jsErrCode code{};
    if (const natsStatus status = js_SubscribeSync(&made, js_.get(), subject.c_str(), nullptr, &options, &code);
        status != NATS_OK)
        fail(bus_, fmt::format("stream {}", stream), status);
    const std::unique_ptr<natsSubscription, void (*)(natsSubscription *)> subscription(made, natsSubscription_Destroy);
    jsConsumerInfo *info = nullptr;
    uint64_t left = 0;
    if (const natsStatus status = natsSubscription_GetConsumerInfo(&info, made, nullptr, &code); status != NATS_OK)
        fail(bus_, fmt::format("stream {}", stream), status);
    left = info->NumPending + static_cast<uint64_t>(info->Delivered.Consumer);
    jsConsumerInfo_Destroy(info);
    while (left-- > 0) {
        natsMsg *got = nullptr;
        if (const natsStatus status = natsSubscription_NextMsg(&got, made, wait_ms); status != NATS_OK)
            fail(bus_, fmt::format("stream {}", stream), status);
        const Message message(got);
        take(natsMsg_GetSubject(got), data_of(got));
    }
}

} // namespace fleet
