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
    Connection(int accepted, uint32_t number, uint32_t max_message, Budget *budget)
        : socket(accepted), serial(number), inbound(FrameKind::request, max_message, budget)
    {}

    int socket;
    uint32_t serial; // never used again, so that a late reply does not reach another client
    Inbound inbound;
    uint64_t last_part_ms = 0;
    Reply *first = nullptr; // replies that wait, oldest first
    Reply *last = nullptr;
    uint32_t queued = 0;          // bytes of them
    bool is_room_watched = false; // epoll reports when the socket has room

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

void report(const Service &service, uint32_t client, const char *reason)
{
    if (service.limits.on_refusal != nullptr)
        service.limits.on_refusal(service.limits.context, client, reason);
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

void hang_up(Service &service, uint32_t index)
{
    Connection *const connection = service.connections[index];
    service.connections[index] = nullptr;
    drop_replies(service, *connection);
    connection->inbound.reset();
    close(connection->socket);
    std::free(connection);
}

void cut_off(Service &service, uint32_t index, const char *reason)
{
    const uint32_t client = service.connections[index]->serial;
    hang_up(service, index);
    report(service, client, reason);
}

bool watch(const Service &service, int operation, int socket, uint32_t events, uint64_t tag)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag;
    return epoll_ctl(service.epoll, operation, socket, &event) == 0;
}

void watch_for_room(Service &service, uint32_t index, bool is_watched)
{
    Connection &connection = *service.connections[index];
    if (connection.is_room_watched == is_watched)
        return;
    connection.is_room_watched = is_watched;
    const uint32_t events = is_watched ? EPOLLIN | EPOLLOUT : EPOLLIN;
    watch(service, EPOLL_CTL_MOD, connection.socket, events, index);
}

// Enters a new connection; closes it when there are max_clients already.
void admit(Service &service, int socket)
{
    const uint32_t serial = ++service.last_serial;
    Connection **const end = service.connections + service.limits.max_clients;
    Connection **const vacant = std::find(service.connections, end, nullptr);
    void *const storage = vacant != end ? std::malloc(sizeof(Connection)) : nullptr;
    if (storage == nullptr) {
        close(socket);
        report(service, serial, "too many clients");
        return;
    }
    widen_send_buffer(socket);
    const auto index = static_cast<uint32_t>(vacant - service.connections);
    *vacant = new (storage) Connection(socket, serial, service.limits.max_message, &service.budget);
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
    report(service, service.connections[index]->serial, reason);
    Frame frame{};
    frame.magic = frame_magic;
    frame.kind = FrameKind::refusal;
    frame.token = fault.token;
    frame.opcode = static_cast<uint32_t>(fault.error);
    if (Reply *const reply = new_reply(frame))
        enqueue(service, index, reply);
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
        if (connection == nullptr || !connection->inbound.is_half())
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

// Serves one event.  True when it completed a request.
bool serve(Service &service, const epoll_event &event, kob_msg &msg)
{
    if (event.data.u64 == listener_tag) {
        const int socket = service.listener.accept();
        if (socket >= 0)
            admit(service, socket);
        return false;
    }
    const auto index = static_cast<uint32_t>(event.data.u64);
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

int32_t start(Service &service, const char *path, uint32_t permissions)
{
    service.epoll = epoll_create1(EPOLL_CLOEXEC);
    if (service.epoll < 0)
        return KOB_ERR_SYSTEM;
    if (const int32_t error = service.listener.open(path, permissions, service.limits.max_clients); error != KOB_OK)
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
    const int32_t error = start(*started, path, own.permissions != 0 ? own.permissions : default_permissions);
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

int32_t reply_to(ServiceLink &service, const kob_msg &request, const mpkob_segment_t *segments, uint32_t num_segments,
                 uint32_t total)
{
    Service &self = as_service(service);
    const uint32_t index = request.client_index;
    if (index >= self.limits.max_clients || self.connections[index] == nullptr ||
        self.connections[index]->serial != request.client)
        return KOB_ERR_PEER_GONE;

    Frame frame{};
    frame.magic = frame_magic;
    frame.kind = FrameKind::response;
    frame.in_parts = total > KOB_PLAIN_LIMIT ? 1 : 0;
    frame.token = request.token;
    frame.opcode = request.opcode;
    frame.node = request.node;
    frame.sap = request.sap;
    frame.total = total;
    Reply *const reply = new_reply(frame);
    if (reply == nullptr)
        return KOB_ERR_MEMORY;
    char *end = reinterpret_cast<char *>(reply + 1);
    for (uint32_t i = 0; i < num_segments; ++i) {
        if (segments[i].length != 0)
            std::memcpy(end, segments[i].address, segments[i].length);
        end += segments[i].length;
    }
    return enqueue(self, index, reply);
}

} // namespace

constinit const ServiceOperations service_operations = {listen_at, descriptor, await_request, reply_to, close_service};

} // namespace zel::platform::unix_socket
