// The service's half of the local socket endpoint.  It has many clients, does not trust
// them and waits for none of them.
#include "reference/kob/unix/endpoint.hpp"
#include "reference/kob/unix/listener.hpp"
#include "reference/kob/unix/packet.hpp"
#include "reference/kob/unix/socket.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sys/epoll.h>
#include <unistd.h>

namespace zel::platform::unix_socket {

namespace {

// A reply that a client has not read yet; its payload follows.
struct Reply {
    Reply *next;
    Outbound out;
};

struct Connection {
    Connection(int accepted, uint32_t number, const ucred &other, uint32_t max_message, Budget *budget)
        : socket(accepted), serial(number), peer(other), inbound(FrameKind::request, max_message, budget)
    {}

    int socket;
    uint32_t serial; // never used again, so that a late reply does not reach another client
    ucred peer;
    Inbound inbound;
    uint64_t last_part_ms = 0;
    uint64_t last_active_ms = now_ms(); // last request or reply
    bool has_spoken = false;            // there was a request
    bool is_held = false;               // its requests are not read
    uint32_t unanswered = 0;            // requests
    Reply *first = nullptr;             // replies that wait, oldest first
    Reply *last = nullptr;
    uint32_t queued = 0;          // bytes of them
    bool is_room_watched = false; // epoll reports when the socket has room
    bool is_watched = true;       // epoll reports something

    uint64_t held() const { return uint64_t{inbound.held()} + queued; }
};

// The listener's tag at epoll; a connection's is its index.
constexpr uint64_t listener_tag = UINT64_MAX;

constexpr uint32_t default_permissions = 0600; // of the socket file

uint32_t cost(const Reply *reply) { return static_cast<uint32_t>(sizeof *reply) + reply->out.frame.total; }

struct Service : ServiceLink {
    explicit Service(const ServiceLimits &given) : limits(given), budget{0, given.max_memory} {}

    ServiceLimits limits;
    Budget budget;
    Listener listener;
    int epoll = -1;
    Connection **connections = nullptr; // max_clients of them, null where there is none
    uint32_t last_serial = 0;
    uint64_t next_sweep_ms = UINT64_MAX; // before that time no half message expires
};

Service &as_service(ServiceLink &service) { return static_cast<Service &>(service); }

void report(const Service &service, uint32_t client, const ucred &peer, const char *reason)
{
    if (service.limits.on_refusal == nullptr)
        return;
    char text[160];
    (void)std::snprintf(text, sizeof text, "%s (pid %d, uid %u)", reason, peer.pid, peer.uid);
    service.limits.on_refusal(service.limits.context, client, text);
}

// The process that connected.  Without rights of its own when the system does not say.
ucred peer_of(int socket)
{
    ucred peer{0, UINT32_MAX, UINT32_MAX};
    socklen_t size = sizeof peer;
    (void)getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    return peer;
}

// Says KOB_ERR_BUSY to a client and closes its connection.  Requests that it has sent are
// discarded: otherwise the system would report them lost, and the refusal with them.
void turn_away(int socket)
{
    Frame frame{};
    frame.magic = frame_magic;
    frame.kind = FrameKind::refusal;
    frame.opcode = KOB_ERR_BUSY;
    (void)send(socket, &frame, sizeof frame, MSG_DONTWAIT | MSG_NOSIGNAL);
    char byte = 0;
    for (int packets = 0; packets < 16 && recv(socket, &byte, sizeof byte, MSG_DONTWAIT) > 0;)
        ++packets;
    close(socket);
}

// ---- Connections

void drop_replies(Service &service, Connection &connection)
{
    while (Reply *const reply = connection.first) {
        connection.first = reply->next;
        service.budget.give_back(cost(reply));
        std::free(reply);
    }
    connection.last = nullptr;
    connection.queued = 0;
}

void hang_up(
    Service &service, uint32_t index, void (*close_socket)(int) = [](int socket) { close(socket); })
{
    Connection *const connection = service.connections[index];
    const bool is_in_reply = connection->first != nullptr; // a refusal cannot come within it
    service.connections[index] = nullptr;
    drop_replies(service, *connection);
    connection->inbound.reset();
    if (is_in_reply)
        close(connection->socket);
    else
        close_socket(connection->socket);
    std::free(connection);
}

void cut_off(Service &service, uint32_t index, const char *reason)
{
    const uint32_t client = service.connections[index]->serial;
    const ucred peer = service.connections[index]->peer;
    hang_up(service, index);
    report(service, client, peer, reason);
}

bool watch(const Service &service, int operation, int socket, uint32_t events, uint64_t tag)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag;
    return epoll_ctl(service.epoll, operation, socket, &event) == 0;
}

// Nothing is reported of a connection whose requests are held and whose replies are gone,
// not even its end.
void watch_as_needed(Service &service, uint32_t index)
{
    Connection &connection = *service.connections[index];
    const uint32_t input = connection.is_held ? 0 : uint32_t{EPOLLIN};
    const uint32_t events = connection.is_room_watched ? input | EPOLLOUT : input;
    if (connection.is_watched == (events != 0)) {
        watch(service, EPOLL_CTL_MOD, connection.socket, events, index);
        return;
    }
    connection.is_watched = events != 0;
    if (!watch(service, events != 0 ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, connection.socket, events, index))
        cut_off(service, index, "too many clients for the system");
}

void watch_for_room(Service &service, uint32_t index, bool is_watched)
{
    Connection &connection = *service.connections[index];
    if (connection.is_room_watched == is_watched)
        return;
    connection.is_room_watched = is_watched;
    watch_as_needed(service, index);
}

void hold_connection(Service &service, uint32_t index, bool is_held)
{
    Connection &connection = *service.connections[index];
    if (connection.is_held == is_held)
        return;
    connection.is_held = is_held;
    watch_as_needed(service, index);
}

uint32_t count_of_user(const Service &service, uid_t user)
{
    uint32_t count = 0;
    for (uint32_t i = 0; i < service.limits.max_clients; ++i)
        count += service.connections[i] != nullptr && service.connections[i]->peer.uid == user ? 1 : 0;
    return count;
}

// The user with the most connections.  There are max_clients of them.
uid_t find_largest_user(const Service &service)
{
    uid_t largest = 0;
    uint32_t most = 0;
    for (uint32_t i = 0; i < service.limits.max_clients; ++i) {
        const uid_t user = service.connections[i]->peer.uid;
        if (user == largest && most != 0)
            continue;
        const uint32_t count = count_of_user(service, user);
        if (count > most) {
            largest = user;
            most = count;
        }
        if (2 * most >= service.limits.max_clients)
            break;
    }
    return largest;
}

// The connection of a user that others may have: the one that has been idle longest, and
// first one that never sent a request.  max_clients when there is none.
uint32_t find_idle(const Service &service, uid_t user)
{
    uint32_t found = service.limits.max_clients;
    for (uint32_t i = 0; i < service.limits.max_clients; ++i) {
        const Connection *const one = service.connections[i];
        if (one == nullptr || one->peer.uid != user || one->unanswered != 0)
            continue;
        const Connection *const best = found < service.limits.max_clients ? service.connections[found] : nullptr;
        if (best == nullptr ||
            (one->has_spoken != best->has_spoken ? best->has_spoken : one->last_active_ms < best->last_active_ms))
            found = i;
    }
    return found;
}

// Room for one more connection of a user; max_clients when there is none.
uint32_t find_room(Service &service, uid_t user)
{
    const uint32_t max_clients = service.limits.max_clients;
    Connection **const vacant = std::find(service.connections, service.connections + max_clients, nullptr);
    const auto index = static_cast<uint32_t>(vacant - service.connections);
    const bool has_too_many = count_of_user(service, user) >= service.limits.max_clients_per_user;
    if (index < max_clients && !has_too_many)
        return index;
    const uint32_t idle = find_idle(service, has_too_many ? user : find_largest_user(service));
    if (idle == max_clients)
        return max_clients;
    const uint32_t client = service.connections[idle]->serial;
    const ucred peer = service.connections[idle]->peer;
    hang_up(service, idle, turn_away);
    report(service, client, peer, "idle, and others came");
    return idle;
}

// Enters a new connection, or turns it away.
void admit(Service &service, int socket)
{
    const uint32_t serial = ++service.last_serial;
    const ucred peer = peer_of(socket);
    const uint32_t index = find_room(service, peer.uid);
    void *const storage = index < service.limits.max_clients ? std::malloc(sizeof(Connection)) : nullptr;
    if (storage == nullptr) {
        turn_away(socket);
        report(service, serial, peer, "too many clients");
        return;
    }
    widen_send_buffer(socket);
    service.connections[index] =
        new (storage) Connection(socket, serial, peer, service.limits.max_message, &service.budget);
    if (!watch(service, EPOLL_CTL_ADD, socket, EPOLLIN, index))
        cut_off(service, index, "too many clients for the system");
}

// Cuts off the client that holds most of the memory.  False when none holds any.
bool make_room(Service &service)
{
    uint32_t largest = 0;
    uint64_t held = 0;
    for (uint32_t i = 0; i < service.limits.max_clients; ++i) {
        if (service.connections[i] != nullptr && service.connections[i]->held() > held) {
            largest = i;
            held = service.connections[i]->held();
        }
    }
    if (held == 0)
        return false;
    cut_off(service, largest, "holds most of the memory, which ran out");
    return true;
}

// ---- Replies

// Sends what the client takes.  False when the connection is of no further use.
bool flush(Service &service, uint32_t index)
{
    Connection &connection = *service.connections[index];
    while (Reply *const reply = connection.first) {
        const int32_t error = send_packets(connection.socket, reply->out);
        if (error == KOB_ERR_TIMEOUT)
            break;
        if (error != KOB_OK)
            return false;
        connection.first = reply->next;
        if (connection.first == nullptr)
            connection.last = nullptr;
        connection.queued -= cost(reply);
        service.budget.give_back(cost(reply));
        std::free(reply);
    }
    watch_for_room(service, index, connection.first != nullptr);
    return true;
}

// A reply with room for the payload; null when out of memory.
Reply *new_reply(const Frame &frame)
{
    auto *const reply = static_cast<Reply *>(std::malloc(sizeof(Reply) + frame.total));
    if (reply != nullptr)
        *reply = {nullptr, {frame, reinterpret_cast<const char *>(reply + 1), 0, false}};
    return reply;
}

// Queues a reply, which the connection then owns.  May cut off clients, this one included.
int32_t enqueue(Service &service, uint32_t index, Reply *reply)
{
    Connection &connection = *service.connections[index];
    if (cost(reply) > service.limits.max_queued - std::min(connection.queued, service.limits.max_queued)) {
        std::free(reply);
        cut_off(service, index, "does not read its replies");
        return KOB_ERR_BUSY;
    }
    while (!service.budget.take(cost(reply))) {
        if (!make_room(service) || service.connections[index] == nullptr) {
            std::free(reply);
            return KOB_ERR_BUSY;
        }
    }
    connection.queued += cost(reply);
    (connection.last != nullptr ? connection.last->next : connection.first) = reply;
    connection.last = reply;
    if (flush(service, index))
        return KOB_OK;
    hang_up(service, index);
    return KOB_ERR_PEER_GONE;
}

// ---- Requests

// Reports a refused message, and tells its sender.
void refuse(Service &service, uint32_t index, const Fault &fault)
{
    char reason[128];
    (void)std::snprintf(reason, sizeof reason, "%s: %u bytes", fault.reason, fault.total);
    report(service, service.connections[index]->serial, service.connections[index]->peer, reason);
    Frame frame{};
    frame.magic = frame_magic;
    frame.kind = FrameKind::refusal;
    frame.token = fault.token;
    frame.opcode = static_cast<uint32_t>(fault.error);
    if (Reply *const reply = new_reply(frame))
        enqueue(service, index, reply);
    else
        cut_off(service, index, "no memory for a refusal");
}

// Takes one packet from a client.  True when it completed a request.
bool read_packet(Service &service, uint32_t index, kob_msg &msg)
{
    Connection &connection = *service.connections[index];
    Fault fault{};
    switch (receive_packet(connection.socket, connection.inbound, msg, fault)) {
    case Step::message:
        msg.client = connection.serial;
        msg.client_index = index;
        msg.pid = static_cast<uint32_t>(connection.peer.pid);
        msg.uid = connection.peer.uid;
        connection.has_spoken = true;
        connection.last_active_ms = now_ms();
        ++connection.unanswered;
        return true;
    case Step::part:
        connection.last_part_ms = now_ms();
        service.next_sweep_ms = std::min(service.next_sweep_ms, connection.last_part_ms + service.limits.idle_ms);
        return false;
    case Step::refused:
        refuse(service, index, fault);
        if (fault.error == KOB_ERR_BUSY) // this message is lost, but its sender may try again
            make_room(service);
        return false;
    case Step::hostile:
        cut_off(service, index, fault.reason);
        return false;
    case Step::closed:
        hang_up(service, index);
        return false;
    case Step::nothing:
        return false;
    }
    return false;
}

// Cuts off clients whose half messages have not grown for idle_ms.  A client whose next part
// is there to be read stays: the delay is this service's.
void sweep(Service &service)
{
    const uint64_t now = now_ms();
    if (now < service.next_sweep_ms)
        return;
    service.next_sweep_ms = UINT64_MAX;
    for (uint32_t i = 0; i < service.limits.max_clients; ++i) {
        const Connection *const connection = service.connections[i];
        if (connection == nullptr || connection->is_held || !connection->inbound.is_half())
            continue;
        const uint64_t expiry = connection->last_part_ms + service.limits.idle_ms;
        if (now < expiry)
            service.next_sweep_ms = std::min(service.next_sweep_ms, expiry);
        else if (wait_for(connection->socket, POLLIN, Deadline::in(0)))
            service.next_sweep_ms = now + service.limits.idle_ms;
        else
            cut_off(service, i, "left a message half sent");
    }
}

// The client whose connection has taken the last descriptor.
void refuse_last(const Service &service, int socket)
{
    report(service, 0, peer_of(socket), "no descriptor for a connection");
    turn_away(socket);
}

// Serves one event.  True when it completed a request.
bool serve(Service &service, epoll_event event, kob_msg &msg)
{
    if (event.data.u64 == listener_tag) {
        bool is_last = false;
        const int socket = service.listener.accept(is_last);
        if (socket >= 0 && is_last)
            refuse_last(service, socket);
        else if (socket >= 0)
            admit(service, socket);
        if (is_last)
            service.listener.restore_spare();
        return false;
    }
    const auto index = static_cast<uint32_t>(event.data.u64);
    if (service.connections[index]->is_held) // its end is reported, too, and waits like its requests
        event.events &= uint32_t{EPOLLOUT};
    if ((event.events & EPOLLOUT) != 0 && !flush(service, index)) {
        hang_up(service, index);
        return false;
    }
    return (event.events & ~uint32_t{EPOLLOUT}) != 0 && read_packet(service, index, msg);
}

void close_service(ServiceLink &service)
{
    Service &self = as_service(service);
    for (uint32_t i = 0; i < self.limits.max_clients; ++i) {
        if (self.connections[i] != nullptr)
            hang_up(self, i);
    }
    self.listener.close();
    if (self.epoll >= 0)
        close(self.epoll);
    std::free(self.connections);
    std::free(&self);
}

int32_t start(Service &service, const char *path, const FileRights &rights)
{
    service.epoll = epoll_create1(EPOLL_CLOEXEC);
    if (service.epoll < 0)
        return KOB_ERR_SYSTEM;
    if (const int32_t error = service.listener.open(path, rights, service.limits.max_clients); error != KOB_OK)
        return error;
    return watch(service, EPOLL_CTL_ADD, service.listener.socket(), EPOLLIN, listener_tag) ? KOB_OK : KOB_ERR_SYSTEM;
}

int32_t listen_at(const char *path, const ServiceLimits &limits, const kob_service_options_t &own,
                  ServiceLink *&service)
{
    void *const storage = std::malloc(sizeof(Service));
    auto *const connections = static_cast<Connection **>(std::calloc(limits.max_clients, sizeof(Connection *)));
    if (storage == nullptr || connections == nullptr) {
        std::free(connections);
        std::free(storage);
        return KOB_ERR_MEMORY;
    }
    auto *const started = new (storage) Service(limits);
    started->connections = connections;
    const int32_t error = start(
        *started, path, {own.permissions != 0 ? own.permissions : default_permissions, own.has_group != 0, own.group});
    if (error == KOB_OK)
        service = started;
    else
        close_service(*started);
    return error;
}

int descriptor(const ServiceLink &service) { return static_cast<const Service &>(service).epoll; }

// One event at a time: the system takes turns among the clients that have one.
int32_t await_request(ServiceLink &service, kob_msg &msg, Deadline deadline)
{
    Service &self = as_service(service);
    do {
        sweep(self);
        const int wait = std::min(deadline.remaining(), Deadline(self.next_sweep_ms).remaining());
        epoll_event event{};
        const int ready = epoll_wait(self.epoll, &event, 1, wait);
        if (ready < 0)
            return errno == EINTR ? KOB_ERR_INTERRUPTED : KOB_ERR_SYSTEM;
        if (ready > 0 && serve(self, event, msg))
            return KOB_OK;
    } while (!deadline.has_passed());
    return KOB_ERR_TIMEOUT;
}

// The connection that a request came by; null when it is closed.
Connection *find_sender(const Service &service, const kob_msg &request)
{
    Connection *const connection =
        request.client_index < service.limits.max_clients ? service.connections[request.client_index] : nullptr;
    return connection != nullptr && connection->serial == request.client ? connection : nullptr;
}

void hold_sender(ServiceLink &service, const kob_msg &request, bool is_held)
{
    if (find_sender(as_service(service), request) != nullptr)
        hold_connection(as_service(service), request.client_index, is_held);
}

bool is_sender_gone(const ServiceLink &service, const kob_msg &request)
{
    const Connection *const connection = find_sender(static_cast<const Service &>(service), request);
    if (connection == nullptr)
        return true;
    pollfd entry{connection->socket, 0, 0}; // without events that one asks for, the end is reported
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

uint32_t list_clients(const ServiceLink &service, kob_client_info_t *infos, uint32_t capacity)
{
    const auto &self = static_cast<const Service &>(service);
    uint32_t count = 0;
    for (uint32_t i = 0; i < self.limits.max_clients; ++i) {
        const Connection *const one = self.connections[i];
        if (one == nullptr)
            continue;
        if (count < capacity)
            infos[count] = {one->serial, static_cast<uint32_t>(one->peer.pid), one->peer.uid};
        ++count;
    }
    return count;
}

int32_t reply_to(ServiceLink &service, const kob_msg &request, const mpkob_segment_t *segments, uint32_t num_segments,
                 uint32_t total)
{
    Service &self = as_service(service);
    Connection *const connection = find_sender(self, request);
    if (connection == nullptr)
        return KOB_ERR_PEER_GONE;
    const uint32_t index = request.client_index;
    connection->last_active_ms = now_ms();
    connection->unanswered -= connection->unanswered != 0 ? 1 : 0;
    const Frame frame = frame_of_reply(request, total);
    Reply *const reply = new_reply(frame);
    if (reply == nullptr) { // the client would wait for it
        cut_off(self, index, "no memory for a reply");
        return KOB_ERR_MEMORY;
    }
    char *end = reinterpret_cast<char *>(reply + 1);
    for (uint32_t i = 0; i < num_segments; ++i) {
        if (segments[i].length != 0)
            std::memcpy(end, segments[i].address, segments[i].length);
        end += segments[i].length;
    }
    return enqueue(self, index, reply);
}

} // namespace

constinit const ServiceOperations service_operations = {listen_at,     descriptor,  await_request,  reply_to,
                                                        close_service, hold_sender, is_sender_gone, list_clients};

} // namespace zel::platform::unix_socket
