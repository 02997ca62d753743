#include "tools/fleet/bus.hpp"

#include "nats/connection.hpp"
#include "zel-platform/kob.h"

#include <fmt/core.h>

#include <cstdlib>
#include <poll.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace fleet {

namespace {

constexpr std::size_t max_queued = std::size_t{64} * 1024 * 1024; // bytes; more is dropped, as by the servers
constexpr std::chrono::milliseconds patience{2000};

void check(natsStatus status, const std::string &what)
{
    if (status != NATS_OK)
        throw BusError(fmt::format("{}: {}", what, natsStatus_GetText(status)));
}

BusMessage to_message(natsMsg *message)
{
    const char *const reply = natsMsg_GetReply(message);
    const char *status = nullptr;
    BusMessage result{natsMsg_GetSubject(message),
                      reply != nullptr ? reply : "",
                      {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))},
                      200};
    if (natsMsgHeader_Get(message, "Status", &status) == NATS_OK)
        result.status = static_cast<int>(std::strtol(status, nullptr, 10));
    return result;
}

// An empty message takes memory, too.
std::size_t size_of(const BusMessage &message)
{
    return sizeof message + message.subject.size() + message.reply.size() + message.data.size();
}

std::string last_error(natsConnection *connection)
{
    const char *text = nullptr;
    (void)natsConnection_GetLastError(connection, &text);
    return text != nullptr ? text : "";
}

} // namespace

std::string direct_get_subject(const char *stream, const std::string &subject)
{
    return fmt::format("$JS.API.DIRECT.GET.{}.{}", stream, subject);
}

Bus::Bus(const std::string &servers, Start start) : servers_(servers)
{
    using namespace zel::nats;
    const std::size_t colon = servers.find(':');
    const std::string scheme = servers.substr(0, colon);
    const std::string rest = colon != std::string::npos ? servers.substr(colon + 1) + "/x" : "";
    Location location;
    if ((scheme != "nats" && scheme != "tls") || !parse_location(rest.c_str(), scheme.c_str(), location))
        throw BusError(servers + ": not an address of servers, nats://HOST[:PORT][,HOST...] or tls://...");
    const Reconnect reconnect = start == Start::later ? Reconnect::from_the_start : Reconnect::always;
    if (const int32_t error = open_connection(location, scheme == "tls", reconnect, patience.count(), connection_);
        error != KOB_OK)
        throw BusError(
            fmt::format("{}: {}", servers, error == KOB_ERR_ABSENT ? "no server there" : kob_error_text(error)));
    descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    char inbox[max_subject];
    check(make_inbox(inbox), servers);
    inbox_ = inbox;
    subscribe(inbox_ + ".>");
}

// The library's thread may be in a callback until the subscription is complete.
Bus::~Bus()
{
    sem_t complete;
    sem_init(&complete, 0, 0);
    for (natsSubscription *const subscription : subscriptions_) {
        natsSubscription_SetOnCompleteCB(
            subscription, [](void *done) { sem_post(static_cast<sem_t *>(done)); }, &complete);
        natsSubscription_Destroy(subscription);
        sem_wait(&complete);
    }
    if (is_connected())
        natsConnection_FlushTimeout(connection_, patience.count());
    natsConnection_Destroy(connection_);
    sem_destroy(&complete);
    close(descriptor_);
}

void Bus::subscribe(const std::string &subject)
{
    natsSubscription *subscription = nullptr;
    check(natsConnection_Subscribe(&subscription, connection_, subject.c_str(), on_message, this), subject);
    natsSubscription_SetPendingLimits(subscription, -1, -1); // the queue has a limit
    subscriptions_.push_back(subscription);
}

void Bus::on_message(natsConnection *, natsSubscription *, natsMsg *message, void *bus)
{
    static_cast<Bus *>(bus)->put(message);
    natsMsg_Destroy(message);
}

void Bus::put(natsMsg *message)
{
    BusMessage received = to_message(message);
    const std::scoped_lock lock(mutex_);
    if (queued_ + size_of(received) > max_queued)
        return;
    queued_ += size_of(received);
    queue_.push_back(std::move(received));
    const uint64_t one = 1;
    (void)!write(descriptor_, &one, sizeof one);
}

std::optional<BusMessage> Bus::take()
{
    const std::scoped_lock lock(mutex_);
    if (queue_.empty()) {
        uint64_t count = 0;
        (void)!read(descriptor_, &count, sizeof count);
        return std::nullopt;
    }
    BusMessage message = std::move(queue_.front());
    queue_.pop_front();
    queued_ -= size_of(message);
    return message;
}

std::optional<BusMessage> Bus::take(std::chrono::milliseconds wait)
{
    const auto end = std::chrono::steady_clock::now() + wait;
    for (;;) {
        if (std::optional<BusMessage> message = take())
            return message;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd entry{descriptor_, POLLIN, 0};
        (void)poll(&entry, 1, static_cast<int>(left.count()) + 1);
    }
}

void Bus::publish(const std::string &subject, std::string_view data, const std::string &reply)
{
    const int size = static_cast<int>(data.size());
    check(reply.empty() ? natsConnection_Publish(connection_, subject.c_str(), data.data(), size)
                        : natsConnection_PublishRequest(connection_, subject.c_str(), reply.c_str(), data.data(), size),
          subject);
}

void Bus::flush()
{
    check(natsConnection_FlushTimeout(connection_, patience.count()), servers_);
    check_rights();
}

void Bus::check_rights() const
{
    if (zel::nats::is_denied(connection_))
        throw BusDenied(last_error(connection_));
}

std::optional<BusMessage> Bus::request(const std::string &subject, std::string_view data,
                                       std::chrono::milliseconds wait)
{
    natsMsg *answer = nullptr;
    const natsStatus status = natsConnection_Request(&answer, connection_, subject.c_str(), data.data(),
                                                     static_cast<int>(data.size()), wait.count());
    if (status == NATS_TIMEOUT)
        check_rights();
    if (status == NATS_TIMEOUT || status == NATS_NO_RESPONDERS || status == NATS_CONNECTION_DISCONNECTED)
        return std::nullopt;
    check(status, subject);
    BusMessage message = to_message(answer);
    natsMsg_Destroy(answer);
    return message;
}

std::optional<BusMessage> Bus::last(const char *stream, const std::string &subject)
{
    for (int round = 0; round < 20; ++round) {
        std::optional<BusMessage> message =
            request(direct_get_subject(stream, subject), "", std::chrono::milliseconds(500));
        if (message && message->status == 404)
            return std::nullopt;
        if (message && message->status == 200)
            return message;
        usleep(100000); // a leader is being elected
    }
    throw BusError(fmt::format("{}: the store does not answer", subject));
}

bool Bus::is_connected() const { return natsConnection_Status(connection_) == NATS_CONN_STATUS_CONNECTED; }

uint64_t Bus::connections() const
{
    if (!is_connected())
        return 0;
    natsStatistics *statistics = nullptr;
    uint64_t reconnects = 0;
    if (natsStatistics_Create(&statistics) == NATS_OK && natsConnection_GetStats(connection_, statistics) == NATS_OK)
        natsStatistics_GetCounts(statistics, nullptr, nullptr, nullptr, nullptr, &reconnects);
    natsStatistics_Destroy(statistics);
    return reconnects + 1;
}

std::size_t Bus::max_payload() const { return static_cast<std::size_t>(natsConnection_GetMaxPayload(connection_)); }

} // namespace fleet
