// The service's half of the local socket endpoint: many clients, none of which
// is trusted and none of which is waited for.
#include "reference/kob/unix/service.hpp"

#include "reference/kob/unix/listener.hpp"
#include "reference/kob/unix/packet.hpp"
#include "reference/kob/unix/socket.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sys/epoll.h>
#include <unistd.h>

namespace zel::platform {

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
    uint32_t queued = 0; // bytes of them
    bool wants_room = false;

    uint64_t held() const { return uint64_t{inbound.held()} + queued; }
};

// What epoll says of the listener instead of an index.
constexpr uint64_t listener_tag = UINT64_MAX;

uint32_t cost(const Reply *reply) { return static_cast<uint32_t>(sizeof *reply) + reply->out.frame.total; }

} // namespace

struct ServiceEndpoint {
    explicit ServiceEndpoint(const kob_service_options_t &given) : options(given), budget{0, given.max_memory} {}

    kob_service_options_t options;
    Budget budget;
    Listener listener;
    int epoll = -1;
    Connection **connections = nullptr; // max_clients places, null where vacant
    uint32_t last_serial = 0;
    uint64_t next_sweep_ms = UINT64_MAX; // no half message grows too old before
};

namespace {

void report(const ServiceEndpoint &service, uint32_t client, const char *reason)
{
    if (service.options.on_refusal != nullptr)
        service.options.on_refusal(service.options.context, client, reason);
}

// ---- Connections

void drop_replies(ServiceEndpoint &service, Connection &connection)
{
    while (Reply *const reply = connection.first) {
        connection.first = reply->next;
        service.budget.give_back(cost(reply));
        std::free(reply);
    }
    connection.last = nullptr;
    connection.queued = 0;
}

void hang_up(ServiceEndpoint &service, uint32_t index)
{
    Connection *const connection = service.connections[index];
    service.connections[index] = nullptr;
    drop_replies(service, *connection);
    connection->inbound.reset();
    close(connection->socket);
    std::free(connection);
}

void cut_off(ServiceEndpoint &service, uint32_t index, const char *reason)
{
    const uint32_t client = service.connections[index]->serial;
    hang_up(service, index);
    report(service, client, reason);
}

bool watch(const ServiceEndpoint &service, int operation, int socket, uint32_t events, uint64_t tag)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag;
    return epoll_ctl(service.epoll, operation, socket, &event) == 0;
}

void set_wants_room(ServiceEndpoint &service, uint32_t index, bool wants_room)
{
    Connection &connection = *service.connections[index];
    if (connection.wants_room == wants_room)
        return;
    connection.wants_room = wants_room;
    const uint32_t events = wants_room ? EPOLLIN | EPOLLOUT : EPOLLIN;
    watch(service, EPOLL_CTL_MOD, connection.socket, events, index);
}

// Puts a new connection in a vacant place; closes it when there is none.
void admit(ServiceEndpoint &service, int socket)
{
    const uint32_t serial = ++service.last_serial;
    Connection **const end = service.connections + service.options.max_clients;
    Connection **const place = std::find(service.connections, end, nullptr);
    void *const storage = place != end ? std::malloc(sizeof(Connection)) : nullptr;
    if (storage == nullptr) {
        close(socket);
        report(service, serial, "too many clients");
        return;
    }
    widen_send_buffer(socket);
    const auto index = static_cast<uint32_t>(place - service.connections);
    *place = new (storage) Connection(socket, serial, service.options.max_message, &service.budget);
    if (!watch(service, EPOLL_CTL_ADD, socket, EPOLLIN, index))
        cut_off(service, index, "too many clients for the system");
}

// Cuts off the client that holds most of the memory.  False when none holds any.
bool make_room(ServiceEndpoint &service)
{
    uint32_t largest = 0;
    uint64_t held = 0;
    for (uint32_t i = 0; i < service.options.max_clients; ++i) {
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
bool flush(ServiceEndpoint &service, uint32_t index)
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
    set_wants_room(service, index, connection.first != nullptr);
    return true;
}

// A reply with room for the payload; null when out of memory.
Reply *new_reply(const Frame &frame)
{
    auto *const reply = static_cast<Reply *>(std::malloc(sizeof(Reply) + frame.total));
    if (reply != nullptr)
        *reply = {nullptr, {frame, reply + 1, 0, false}};
    return reply;
}

// Queues a reply, which becomes the connection's.  May cut off clients, this one included.
int32_t enqueue(ServiceEndpoint &service, uint32_t index, Reply *reply)
{
    Connection &connection = *service.connections[index];
    if (cost(reply) > service.options.max_queued - std::min(connection.queued, service.options.max_queued)) {
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
void refuse(ServiceEndpoint &service, uint32_t index, const Fault &fault)
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
bool read_packet(ServiceEndpoint &service, uint32_t index, kob_msg &msg)
{
    Connection &connection = *service.connections[index];
    Fault fault{};
    switch (connection.inbound.step(connection.socket, msg, fault)) {
    case Step::message:
        msg.client = connection.serial;
        msg.client_index = index;
        return true;
    case Step::part:
        connection.last_part_ms = now_ms();
        service.next_sweep_ms = std::min(service.next_sweep_ms, connection.last_part_ms + service.options.idle_ms);
        return false;
    case Step::refused:
        refuse(service, index, fault);
        if (fault.error == KOB_ERR_BUSY) // too late for this message, but its sender may try again
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

// Gives up half messages that have stopped growing.  One whose next part waits to
// be read is not to blame: it was this service that did not come.
void sweep(ServiceEndpoint &service)
{
    const uint64_t now = now_ms();
    if (now < service.next_sweep_ms)
        return;
    service.next_sweep_ms = UINT64_MAX;
    for (uint32_t i = 0; i < service.options.max_clients; ++i) {
        const Connection *const connection = service.connections[i];
        if (connection == nullptr || !connection->inbound.is_half())
            continue;
        const uint64_t expiry = connection->last_part_ms + service.options.idle_ms;
        if (now < expiry)
            service.next_sweep_ms = std::min(service.next_sweep_ms, expiry);
        else if (wait_for(connection->socket, POLLIN, Deadline::in(0)))
            service.next_sweep_ms = now + service.options.idle_ms;
        else
            cut_off(service, i, "left a message half sent");
    }
}

// Serves one event.  True when it completed a request.
bool serve(ServiceEndpoint &service, const epoll_event &event, kob_msg &msg)
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

} // namespace

int32_t unix_listen(const char *place, const kob_service_options_t &options, ServiceEndpoint *&service)
{
    void *const storage = std::malloc(sizeof(ServiceEndpoint));
    // An array of pointers, so the size of one is meant.
    auto *const connections = static_cast<Connection **>(
        std::calloc(options.max_clients, sizeof(Connection *))); // NOLINT(bugprone-sizeof-expression)
    if (storage == nullptr || connections == nullptr) {
        std::free(connections);
        std::free(storage);
        return KOB_ERR_MEMORY;
    }
    service = new (storage) ServiceEndpoint(options);
    service->connections = connections;
    service->epoll = epoll_create1(EPOLL_CLOEXEC);
    int32_t error = service->epoll >= 0 ? KOB_OK : KOB_ERR_SYSTEM;
    if (error == KOB_OK)
        error = service->listener.open(place, options.permissions, options.max_clients);
    if (error == KOB_OK && !watch(*service, EPOLL_CTL_ADD, service->listener.socket(), EPOLLIN, listener_tag))
        error = KOB_ERR_SYSTEM;
    if (error != KOB_OK)
        unix_close(service);
    return error;
}

int unix_descriptor(const ServiceEndpoint *service) { return service->epoll; }

// One event at a time: the system takes turns among the clients that have one.
int32_t unix_await(ServiceEndpoint *service, kob_msg &msg, Deadline deadline)
{
    do {
        sweep(*service);
        const int wait = std::min(deadline.remaining(), Deadline(service->next_sweep_ms).remaining());
        epoll_event event{};
        const int ready = epoll_wait(service->epoll, &event, 1, wait);
        if (ready < 0)
            return errno == EINTR ? KOB_ERR_INTERRUPTED : KOB_ERR_SYSTEM;
        if (ready > 0 && serve(*service, event, msg))
            return KOB_OK;
    } while (!deadline.has_passed());
    return KOB_ERR_TIMEOUT;
}

int32_t unix_reply(ServiceEndpoint *service, const kob_msg &request, const mpkob_segment_t *segments,
                   uint32_t num_segments, uint32_t total)
{
    const uint32_t index = request.client_index;
    if (index >= service->options.max_clients || service->connections[index] == nullptr ||
        service->connections[index]->serial != request.client)
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
    return enqueue(*service, index, reply);
}

void unix_close(ServiceEndpoint *service)
{
    for (uint32_t i = 0; i < service->options.max_clients; ++i) {
        if (service->connections[i] != nullptr)
            hang_up(*service, i);
    }
    service->listener.close();
    if (service->epoll >= 0)
        close(service->epoll);
    std::free(service->connections);
    std::free(service);
}

} // namespace zel::platform
