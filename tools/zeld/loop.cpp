#include "tools/zeld/loop.hpp"

#include "tools/zeld/log.hpp"
#include "zel/platform/heartbeat.h"

#include <algorithm>
#include <poll.h>

namespace zeld {

namespace {

// The longest wait for a request. Short, because the system manager's watchdog gets
// a heartbeat after each wait.
constexpr int tick_ms = 250;

// Events of one socket in one round. They take some 10 us each.
constexpr int events_per_round = 128;

// Of a client, while the first one is being done. More stay in its socket.
constexpr std::size_t most_turns = 2;

// Requests above this size are read one at a time: their graphs are much larger.
constexpr std::size_t large_request = std::size_t{1024} * 1024;

bool is_large(const kob_msg_t *msg) { return kob_msg_size(msg) > large_request; }

bool is_readable(int descriptor)
{
    pollfd entry{descriptor, POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

} // namespace

bool Loop::run(int stop)
{
    for (;;) {
        try {
            if (wait(stop))
                return true;
            if (!receive_all())
                return false;
            const bool has_waste = done_large_.has_value();
            work(false);
            commit();
            work(true);
            if (has_waste) // of the round before: others have had their turn meanwhile
                free_large();
            forget_idle_clients();
        } catch (const std::bad_alloc &) {
            log(LogLevel::error, "out of memory");
        }
    }
}

// Waits unless there is work. Returns true when the service has to stop.
bool Loop::wait(int stop)
{
    std::vector<pollfd> waits{{stop, POLLIN, 0}};
    for (const Socket &socket : sockets_)
        waits.push_back({kob_service_fd(socket.transport.get()), POLLIN, 0});
    const std::size_t first_event = waits.size();
    for (const Event &event : events_)
        waits.push_back({event.descriptor, POLLIN, 0});
    if (poll(waits.data(), waits.size(), num_waiting_ != 0 ? 0 : tick_ms) == 0 && num_waiting_ == 0)
        observer_.rest();
    fu_keeper_update_and_send_heartbeat(0);
    for (std::size_t i = 0; i < events_.size(); ++i)
        if (waits[first_event + i].revents != 0)
            events_[i].handle();
    return waits[0].revents != 0;
}

std::vector<observe::ClientStatus> Loop::clients() const
{
    std::vector<observe::ClientStatus> found;
    for (const Socket &socket : sockets_)
        add_clients(socket, found);
    return found;
}

// Where the transport cannot say who is connected, those that have asked for something.
void Loop::add_clients(const Socket &socket, std::vector<observe::ClientStatus> &found) const
{
    constexpr uint32_t most_clients = 4096;
    std::vector<kob_client_info_t> infos(most_clients);
    const uint32_t count =
        std::min(most_clients, kob_service_clients(socket.transport.get(), infos.data(), most_clients));
    for (const kob_client_info_t &info : std::span(infos).first(count)) {
        const auto known = clients_.find({&socket, info.client});
        found.push_back(known != clients_.end() ? known->second.status
                                                : observe::ClientStatus{info.client, info.pid, info.uid, 0, 0, 0, 0});
    }
    for (const auto &[key, client] : clients_)
        if (count == 0 && key.first == &socket)
            found.push_back(client.status);
}

// ---- Receiving

// Also without an event: the transport gives up half messages meanwhile.
bool Loop::receive_all()
{
    for (Socket &socket : sockets_) {
        int events = 0;
        do {
            if (!receive(socket))
                return false;
        } while (++events < events_per_round && is_readable(kob_service_fd(socket.transport.get())));
    }
    return true;
}

bool Loop::receive(Socket &socket)
{
    Turn turn{&socket, decltype(Turn::msg)(kob_msg_alloc())};
    if (turn.msg == nullptr)
        return true;
    switch (const int32_t error = kob_service_receive(socket.transport.get(), turn.msg.get(), 0)) {
    case KOB_OK:
        try {
            turn.arrival = observer_.arrived(turn.msg.get());
            enter(turn);
        } catch (const std::bad_alloc &) {
            deliver(turn, failure(service::error_limit, "out of memory"));
        }
        return true;
    case KOB_ERR_TIMEOUT:
    case KOB_ERR_INTERRUPTED:
        return true;
    default:
        log(LogLevel::error, "the transport failed: {}", kob_error_text(error));
        return false;
    }
}

// Takes the turn, unless it throws.
void Loop::enter(Turn &turn)
{
    const std::size_t size = kob_msg_size(turn.msg.get());
    if (is_large(turn.msg.get()) && waiting_ + size > max_waiting_)
        return deliver(turn, failure(service::error_limit, "too many large requests wait; try again"));
    Client &client = clients_[{turn.socket, kob_msg_client(turn.msg.get())}];
    const kob_msg_t *const msg = turn.msg.get();
    client.status.client = kob_msg_client(msg);
    client.status.pid = kob_msg_pid(msg);
    client.status.uid = kob_msg_uid(msg);
    client.turns.push_back(std::move(turn));
    waiting_ += size;
    if (client.turns.size() == 1) {
        ++num_waiting_;
        client.served_ns = std::max(client.served_ns, least_served_ns_);
    }
    if (client.turns.size() < most_turns)
        return;
    client.is_held = true;
    kob_service_hold(client.turns.back().socket->transport.get(), client.turns.back().msg.get(), 1);
}

// ---- Working

// Lets clients work, for about a slice in all, or for one step. is_reading: those whose
// jobs look at policies. The client that has had the least time is first.
void Loop::work(bool is_reading)
{
    std::vector<Client *> clients;
    for (auto &[key, client] : clients_)
        if (can_go_on(client, is_reading))
            clients.push_back(&client);
    std::sort(clients.begin(), clients.end(),
              [](const Client *a, const Client *b) { return a->served_ns < b->served_ns; });
    const Slice slice;
    for (Client *const client : clients) {
        if (!can_go_on(*client, is_reading)) // a large request has begun
            continue;
        least_served_ns_ = std::max(least_served_ns_, client->served_ns);
        const uint64_t start = now_ns();
        work_on(*client);
        const uint64_t taken = now_ns() - start;
        client->served_ns += taken;
        client->status.served_ns += taken;
        if (slice.is_over())
            break;
    }
}

bool Loop::can_go_on(const Client &client, bool is_reading) const
{
    if (client.turns.empty() || client.is_committing)
        return false;
    const Turn &turn = client.turns.front();
    const bool reads = turn.job != nullptr && turn.job->state() == Job::State::reading;
    return reads == is_reading && (large_ == nullptr || large_ == &client || !is_large(turn.msg.get()));
}

void Loop::work_on(Client &client)
{
    Turn &turn = client.turns.front();
    try {
        step(client);
    } catch (const Refusal &refusal) {
        return finish(client, failure(refusal.error(), refusal.what()));
    } catch (const std::bad_alloc &) {
        return finish(client, failure(service::error_limit, "out of memory"));
    }
    if (turn.job->state() == Job::State::done && !client.is_committing)
        finish(client, turn.job->answer());
}

void Loop::step(Client &client)
{
    Turn &turn = client.turns.front();
    if (is_large(turn.msg.get()))
        large_ = &client;
    if (turn.job == nullptr)
        turn.job = service_.start(turn.msg.get(), turn.socket->access);
    const Slice slice;
    if (turn.job->state() == Job::State::reading) {
        if (kob_service_is_gone(turn.socket->transport.get(), turn.msg.get()) != 0)
            throw Refusal(service::error_limit, "the client has gone");
        return turn.job->run(slice);
    }
    const bool has_prepared = turn.job->state() == Job::State::preparing;
    while (turn.job->state() == Job::State::preparing && !slice.is_over())
        turn.job->run(slice);
    if (turn.job->state() != Job::State::ready || (has_prepared && slice.is_over()))
        return;
    committing_.reserve(committing_.size() + 1);
    turn.job->apply();
    client.is_committing = true;
    committing_.push_back(&client);
}

// ---- Committing: all changes of a round with one sync

void Loop::commit()
{
    const std::vector<Client *> clients = std::exchange(committing_, {});
    if (clients.empty())
        return;
    try {
        service_.policies().commit();
    } catch (const std::exception &error) { // also without memory
        // One by one, so that no change is refused for the sake of another.
        for (Client *const client : clients)
            commit_one(*client, clients.size() > 1 ? nullptr : error.what());
    }
    for (Client *const client : clients) {
        client->is_committing = false;
        finish(*client, client->turns.front().job->answer());
    }
}

// Commits a change by itself, unless it is known why that fails.
void Loop::commit_one(Client &client, const char *fault)
{
    Job &job = *client.turns.front().job;
    try {
        if (fault != nullptr)
            throw StoreError(fault);
        job.apply();
        service_.policies().commit();
    } catch (const Refusal &refusal) {
        job.fail(refusal.error(), refusal.what());
    } catch (const StoreError &error) {
        job.fail(service::error_storage, error.what());
    } catch (const std::bad_alloc &) {
        job.fail(service::error_limit, "out of memory");
    }
}

// ---- Answering

// Answers a client's first turn, and goes on to the next one.
void Loop::finish(Client &client, const Answer &answer) noexcept
{
    ++client.status.requests;
    client.status.refusals += answer.header.error != service::error_none ? 1 : 0;
    deliver(client.turns.front(), answer);
    Turn turn = std::move(client.turns.front());
    client.turns.pop_front();
    waiting_ -= kob_msg_size(turn.msg.get());
    num_waiting_ -= client.turns.empty() ? 1 : 0;
    if (std::exchange(client.is_held, false))
        kob_service_hold(turn.socket->transport.get(), turn.msg.get(), 0);
    if (large_ == &client)
        done_large_ = std::move(turn);
}

void Loop::deliver(const Turn &turn, const Answer &answer) noexcept
{
    kob_msg_t *const msg = turn.msg.get();
    observer_.answered(msg, turn.arrival, answer, turn.job.get());
    const mpkob_segment_t segments[] = {
        {&answer.header, sizeof answer.header},
        {answer.body.data(), static_cast<uint32_t>(answer.body.size())},
    };
    // A reply that cannot be delivered ends the connection.
    (void)kob_service_reply(turn.socket->transport.get(), msg, segments, answer.body.empty() ? 1 : 2);
}

// The graph of a large request takes some 10 ms to free.
void Loop::free_large() noexcept
{
    done_large_.reset();
    large_ = nullptr;
}

// Clients that have gone leave an entry. One that has had no more time than others says
// nothing.
void Loop::forget_idle_clients()
{
    constexpr std::size_t most_clients = 1000;
    if (clients_.size() > most_clients)
        std::erase_if(clients_, [&](const auto &entry) {
            return entry.second.turns.empty() && entry.second.served_ns <= least_served_ns_;
        });
}

} // namespace zeld
