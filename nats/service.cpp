// The service's half.  The NATS library delivers packets on a thread of its own; that thread
// queues them and writes an eventfd.  All else happens on the thread that calls the service.
#include "nats/endpoint.hpp"
#include "reference/kob/parts.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace zel::platform;

namespace zel::nats {

namespace {

constexpr uint32_t num_requests = 1024;                          // remembered, so that a copy is recognised
constexpr uint32_t largest_kept_answer = 1024 * 1024;            // bytes
constexpr uint64_t all_kept_answers = uint64_t{4} * 1024 * 1024; // bytes
constexpr uint32_t queue_capacity = 4096;                        // packets
constexpr int64_t probe_ms = 500;                                // for an answer of the service that has the subject
constexpr int64_t rival_ms = 100;     // for the answers of services that start at the same time
constexpr std::size_t name_size = 24; // of a service, with the final NUL

// Packets between the two threads.
class Queue {
public:
    bool open()
    {
        descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        return descriptor_ >= 0;
    }

    void close()
    {
        while (natsMsg *const packet = take())
            natsMsg_Destroy(packet);
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }

    // Becomes the owner of the packet, which it drops when max_bytes wait already.
    void put(natsMsg *packet, uint64_t max_bytes)
    {
        const auto size = static_cast<uint64_t>(natsMsg_GetDataLength(packet));
        pthread_mutex_lock(&mutex_);
        const bool has_room = count_ < queue_capacity && bytes_ + size <= max_bytes;
        if (has_room) {
            packets_[(first_ + count_++) % queue_capacity] = packet;
            bytes_ += size;
        } else {
            ++dropped_;
        }
        pthread_mutex_unlock(&mutex_);
        if (!has_room)
            natsMsg_Destroy(packet);
        const uint64_t one = 1;
        (void)!write(descriptor_, &one, sizeof one);
    }

    // The oldest packet, or null.  Without one, the descriptor is not readable any more.
    natsMsg *take()
    {
        pthread_mutex_lock(&mutex_);
        natsMsg *packet = nullptr;
        uint64_t count = 0;
        if (count_ > 0) {
            packet = packets_[first_];
            first_ = (first_ + 1) % queue_capacity;
            --count_;
            bytes_ -= static_cast<uint64_t>(natsMsg_GetDataLength(packet));
        } else {
            (void)!read(descriptor_, &count, sizeof count);
        }
        pthread_mutex_unlock(&mutex_);
        return packet;
    }

    // How many packets were dropped since the last call.
    uint64_t take_dropped()
    {
        pthread_mutex_lock(&mutex_);
        const uint64_t dropped = dropped_;
        dropped_ = 0;
        pthread_mutex_unlock(&mutex_);
        return dropped;
    }

    int descriptor() const { return descriptor_; }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    int descriptor_ = -1;
    natsMsg *packets_[queue_capacity];
    uint32_t first_ = 0;
    uint32_t count_ = 0;
    uint64_t bytes_ = 0;
    uint64_t dropped_ = 0;
};

// A service that yields leaves the subject to another one.
enum class Phase { starting, serving, yielding };

enum class State { unused, arriving, passed_on, answered, refused };

// A request, from its first packet until its place is needed for another one.  Its sender made
// a reply subject for it alone, which therefore identifies it.
struct Request {
    Request(uint32_t max_message, Budget *budget) : inbound(FrameKind::request, max_message, budget) {}

    State state = State::unused;
    uint32_t serial = 0; // never used again
    char reply[max_subject]{};
    Inbound inbound;
    uint32_t arrived = 0; // bytes of the payload
    uint64_t last_part_ms = 0;
    Frame answer_frame{};
    char *answer = nullptr; // null when it is not kept
};

struct Service : ServiceLink {
    explicit Service(const ServiceLimits &given) : limits(given), budget{0, given.max_memory} {}

    ServiceLimits limits;
    Budget budget;
    Budget kept{0, all_kept_answers};
    natsConnection *connection = nullptr;
    char subject[max_subject]{}; // that no other service has
    natsSubscription *subscriptions[Location::max_subjects]{};
    Queue queue;
    sem_t is_complete{}; // the other thread has left the service
    char name[name_size]{};
    std::atomic<Phase> phase = Phase::starting;
    Request *requests = nullptr; // num_requests of them
    uint32_t next = 0;           // whose turn it is to be used again
    uint32_t last_serial = 0;
    uint64_t next_sweep_ms = 0;
};

Service &as_service(ServiceLink &service) { return static_cast<Service &>(service); }

void report(const Service &service, uint32_t client, const char *reason)
{
    if (service.limits.on_refusal != nullptr)
        service.limits.on_refusal(service.limits.context, client, reason);
}

// ---- Two services at one subject

// A packet that is shorter than a header asks who has the subject.  It holds the name of the
// service that asks.  Any answer means that the subject is taken.
bool is_probe(const natsMsg *packet) { return natsMsg_GetDataLength(packet) < static_cast<int>(name_size); }

// Compares a name with that of the service that asks.
int compare(const Service &service, const natsMsg *probe)
{
    const auto length = static_cast<std::size_t>(natsMsg_GetDataLength(probe));
    char name[name_size]{};
    std::memcpy(name, natsMsg_GetData(probe), length);
    return std::strcmp(service.name, name);
}

// Of services that start at the same time, at most one stays: one yields to a smaller name.
void answer_probe(Service &service, natsConnection *connection, const natsMsg *probe)
{
    const int order = compare(service, probe);
    Phase phase = Phase::starting;
    if (order == 0 || (order > 0 && service.phase.compare_exchange_strong(phase, Phase::yielding)))
        return;
    (void)natsConnection_PublishString(connection, natsMsg_GetReply(probe), service.name);
}

void on_packet(natsConnection *connection, natsSubscription *, natsMsg *packet, void *closure)
{
    auto &service = *static_cast<Service *>(closure);
    if (!is_probe(packet))
        return service.queue.put(packet, service.limits.max_memory);
    if (natsMsg_GetReply(packet) != nullptr && std::strcmp(natsMsg_GetSubject(packet), service.subject) == 0)
        answer_probe(service, connection, packet);
    natsMsg_Destroy(packet);
}

void on_complete(void *closure) { sem_post(&static_cast<Service *>(closure)->is_complete); }

int32_t find_owner(natsConnection *connection, const char *subject)
{
    natsMsg *answer = nullptr;
    // Above all names, so that a service that is starting answers, too.
    const natsStatus status = natsConnection_RequestString(&answer, connection, subject, "~", probe_ms);
    natsMsg_Destroy(answer);
    if (is_denied(connection))
        return KOB_ERR_DENIED;
    if (status == NATS_OK)
        return KOB_ERR_IN_USE;
    // Without an answer, the server may not have noticed yet that a service is gone.
    return status == NATS_NO_RESPONDERS || status == NATS_TIMEOUT ? int32_t{KOB_OK} : error_of(status);
}

// Asks once more, now that others can ask this service.
int32_t settle(Service &service, const char *subject)
{
    char inbox[max_subject];
    natsSubscription *answers = nullptr;
    natsMsg *answer = nullptr;
    natsStatus status = make_inbox(inbox);
    if (status == NATS_OK)
        status = natsConnection_SubscribeSync(&answers, service.connection, inbox);
    if (status == NATS_OK)
        status = natsConnection_PublishRequestString(service.connection, subject, inbox, service.name);
    if (status == NATS_OK)
        status = natsSubscription_NextMsg(&answer, answers, rival_ms);
    natsMsg_Destroy(answer);
    natsSubscription_Destroy(answers);
    Phase phase = Phase::starting;
    if (status == NATS_OK || !service.phase.compare_exchange_strong(phase, Phase::serving))
        return KOB_ERR_IN_USE;
    return status == NATS_TIMEOUT ? int32_t{KOB_OK} : error_of(status);
}

// ---- Requests

void forget(Service &service, Request &request)
{
    request.inbound.reset();
    if (request.answer != nullptr)
        service.kept.give_back(request.answer_frame.total);
    std::free(request.answer);
    request.answer = nullptr;
    request.state = State::unused;
}

Request *find(const Service &service, const char *reply)
{
    Request *const end = service.requests + num_requests;
    Request *const found = std::find_if(service.requests, end, [reply](const Request &request) {
        return request.state != State::unused && std::strcmp(request.reply, reply) == 0;
    });
    return found != end ? found : nullptr;
}

Request &enter(Service &service, const char *reply)
{
    Request &request = service.requests[service.next];
    service.next = (service.next + 1) % num_requests;
    forget(service, request);
    request.state = State::arriving;
    request.serial = ++service.last_serial;
    request.arrived = 0;
    (void)std::snprintf(request.reply, sizeof request.reply, "%s", reply);
    return request;
}

void refuse(Service &service, const Request &request, uint32_t token, int32_t error)
{
    Frame frame{};
    frame.magic = frame_magic;
    frame.kind = FrameKind::refusal;
    frame.token = token;
    frame.opcode = static_cast<uint32_t>(error);
    (void)publish(service.connection, request.reply, nullptr, frame, nullptr);
}

void refuse_and_report(Service &service, Request &request, const Fault &fault, uint32_t token)
{
    request.inbound.reset();
    request.state = State::refused;
    report(service, request.serial, fault.reason);
    if (token != 0)
        refuse(service, request, token, fault.error);
}

void answer_again(Service &service, const Request &request, const Frame &frame)
{
    if (frame.offset != 0) // once for each copy
        return;
    if (request.answer != nullptr || (request.answer_frame.total == 0 && request.answer_frame.magic != 0))
        (void)publish(service.connection, request.reply, nullptr, request.answer_frame, request.answer);
    else
        refuse(service, request, frame.token, KOB_ERR_BUSY);
}

// Takes a part of a request.  True when the request is whole.
bool take_part(Service &service, Request &request, const Frame &frame, const char *content, std::size_t length,
               kob_msg &msg)
{
    if (request.arrived != 0 && frame.offset + length <= request.arrived) // a copy of a part
        return false;
    char *room = nullptr;
    Fault fault{};
    Step step = request.inbound.accept(frame, length, room, fault);
    if (step == Step::part && room != nullptr) {
        std::memcpy(room, content, length);
        step = request.inbound.complete(frame, length, msg, fault);
    }
    request.arrived = frame.offset + static_cast<uint32_t>(length);
    request.last_part_ms = now_ms();
    service.next_sweep_ms = std::min(service.next_sweep_ms, request.last_part_ms + service.limits.idle_ms);
    if (step == Step::refused || step == Step::hostile)
        refuse_and_report(service, request, fault, frame.token);
    if (step != Step::message)
        return false;
    request.state = State::passed_on;
    request.answer_frame = {};
    msg.client = request.serial;
    msg.client_index = static_cast<uint32_t>(&request - service.requests);
    return true;
}

// Takes a packet.  True when it completed a request.
bool take(Service &service, const natsMsg *packet, kob_msg &msg)
{
    const char *const reply = natsMsg_GetReply(packet);
    const auto size = static_cast<std::size_t>(natsMsg_GetDataLength(packet));
    Frame frame;
    if (reply == nullptr || std::strlen(reply) >= max_subject || size < sizeof frame) {
        report(service, 0, "a packet without header or without address for an answer");
        return false;
    }
    std::memcpy(&frame, natsMsg_GetData(packet), sizeof frame);
    Request *request = find(service, reply);
    if (request == nullptr && frame.offset == 0)
        request = &enter(service, reply);
    if (request == nullptr) {
        report(service, 0, "a part without the beginning of its message");
        return false;
    }
    if (request->state == State::answered)
        answer_again(service, *request, frame);
    return request->state == State::arriving &&
           take_part(service, *request, frame, natsMsg_GetData(packet) + sizeof frame, size - sizeof frame, msg);
}

// Gives up half messages that have not grown for idle_ms.
void sweep(Service &service)
{
    if (const uint64_t dropped = service.queue.take_dropped(); dropped != 0) {
        char reason[64];
        (void)std::snprintf(reason, sizeof reason, "%llu packets more than the queue takes",
                            static_cast<unsigned long long>(dropped));
        report(service, 0, reason);
    }
    const uint64_t now = now_ms();
    if (now < service.next_sweep_ms)
        return;
    service.next_sweep_ms = UINT64_MAX;
    for (uint32_t i = 0; i < num_requests; ++i) {
        Request &request = service.requests[i];
        if (request.state != State::arriving)
            continue;
        const uint64_t expiry = request.last_part_ms + service.limits.idle_ms;
        if (now < expiry) {
            service.next_sweep_ms = std::min(service.next_sweep_ms, expiry);
            continue;
        }
        request.inbound.reset();
        request.state = State::refused;
        report(service, request.serial, "left a message half sent");
    }
}

// ---- Start and end

int32_t subscribe(Service &service, const Location &location)
{
    for (int i = 0; i < location.num_subjects; ++i) {
        natsSubscription *&made = service.subscriptions[i];
        const natsStatus status =
            natsConnection_Subscribe(&made, service.connection, location.subjects[i], on_packet, &service);
        if (status != NATS_OK)
            return error_of(status);
        (void)natsSubscription_SetPendingLimits(made, -1, -1); // the queue has limits
        (void)natsSubscription_SetOnCompleteCB(made, on_complete, &service);
    }
    const natsStatus flushed = natsConnection_FlushTimeout(service.connection, 2000);
    return is_denied(service.connection) ? int32_t{KOB_ERR_DENIED} : error_of(flushed);
}

int32_t start(Service &service, const Location &location, bool is_encrypted)
{
    char inbox[max_subject];
    if (!service.queue.open() || make_inbox(inbox) != NATS_OK)
        return KOB_ERR_SYSTEM;
    // The last token of an inbox is unique.
    (void)std::snprintf(service.name, sizeof service.name, "%.*s", static_cast<int>(name_size - 1),
                        std::strrchr(inbox, '.') + 1);
    (void)std::snprintf(service.subject, sizeof service.subject, "%s", location.subjects[0]);
    int32_t error = open_connection(location, is_encrypted, Reconnect::always, 2000, service.connection);
    if (error == KOB_OK)
        error = find_owner(service.connection, location.subjects[0]);
    if (error == KOB_OK)
        error = subscribe(service, location);
    if (error == KOB_OK)
        error = settle(service, location.subjects[0]);
    return error;
}

} // namespace

int32_t listen_at(const char *text, bool is_encrypted, const ServiceLimits &limits, ServiceLink *&service)
{
    Location location;
    if (!parse_location(text, is_encrypted ? "tls" : "nats", location))
        return KOB_ERR_ADDRESS;
    void *const storage = std::malloc(sizeof(Service));
    auto *const requests = static_cast<Request *>(std::malloc(num_requests * sizeof(Request)));
    if (storage == nullptr || requests == nullptr) {
        std::free(requests);
        std::free(storage);
        return KOB_ERR_MEMORY;
    }
    auto *const started = new (storage) Service(limits);
    started->requests = requests;
    for (uint32_t i = 0; i < num_requests; ++i)
        new (&requests[i]) Request(limits.max_message, &started->budget);
    sem_init(&started->is_complete, 0, 0);
    const int32_t error = start(*started, location, is_encrypted);
    if (error == KOB_OK)
        service = started;
    else
        close_service(*started);
    return error;
}

int descriptor(const ServiceLink &service) { return static_cast<const Service &>(service).queue.descriptor(); }

int32_t await_request(ServiceLink &service, kob_msg &msg, Deadline deadline)
{
    Service &self = as_service(service);
    do {
        sweep(self);
        while (natsMsg *const packet = self.queue.take()) {
            const bool is_whole = take(self, packet, msg);
            natsMsg_Destroy(packet);
            if (is_whole)
                return KOB_OK;
        }
        if (natsConnection_IsClosed(self.connection))
            return KOB_ERR_DENIED;
        pollfd entry{self.queue.descriptor(), POLLIN, 0};
        const int wait = std::min({deadline.remaining(), Deadline(self.next_sweep_ms).remaining(), 1000});
        if (poll(&entry, 1, wait) < 0)
            return errno == EINTR ? KOB_ERR_INTERRUPTED : KOB_ERR_SYSTEM;
    } while (!deadline.has_passed());
    return KOB_ERR_TIMEOUT;
}

namespace {

char *gather(const mpkob_segment_t *segments, uint32_t num_segments, uint32_t total)
{
    auto *const bytes = static_cast<char *>(std::malloc(std::size_t{total} + 1));
    char *end = bytes;
    for (uint32_t i = 0; bytes != nullptr && i < num_segments; ++i) {
        if (segments[i].length != 0)
            std::memcpy(end, segments[i].address, segments[i].length);
        end += segments[i].length;
    }
    return bytes;
}

// Drops the oldest answers until there is room for another one.
bool make_room(Service &service, uint32_t size)
{
    if (size > largest_kept_answer)
        return false;
    for (uint32_t i = 0; i < num_requests && service.kept.limit - service.kept.used < size; ++i) {
        Request &oldest = service.requests[(service.next + i) % num_requests];
        if (oldest.answer == nullptr)
            continue;
        service.kept.give_back(oldest.answer_frame.total);
        std::free(oldest.answer);
        oldest.answer = nullptr;
    }
    return service.kept.take(size);
}

// Becomes the owner of the answer.
void keep(Service &service, Request &request, const Frame &frame, char *answer)
{
    if (request.answer != nullptr)
        service.kept.give_back(request.answer_frame.total);
    std::free(request.answer);
    request.answer = make_room(service, frame.total) ? answer : nullptr;
    if (request.answer == nullptr)
        std::free(answer);
    request.answer_frame = frame;
    request.state = State::answered;
}

} // namespace

int32_t reply_to(ServiceLink &service, const kob_msg &msg, const mpkob_segment_t *segments, uint32_t num_segments,
                 uint32_t total)
{
    Service &self = as_service(service);
    if (msg.client_index >= num_requests || self.requests[msg.client_index].serial != msg.client)
        return KOB_ERR_PEER_GONE;
    Request &request = self.requests[msg.client_index];
    const Frame frame = frame_of_reply(msg, total);
    char *const bytes = gather(segments, num_segments, total);
    if (bytes == nullptr)
        return KOB_ERR_MEMORY;
    const int32_t error = publish(self.connection, request.reply, nullptr, frame, bytes);
    keep(self, request, frame, bytes);
    return error;
}

void close_service(ServiceLink &service)
{
    Service &self = as_service(service);
    for (natsSubscription *const subscription : self.subscriptions) {
        if (subscription == nullptr)
            continue;
        natsSubscription_Destroy(subscription);
        sem_wait(&self.is_complete);
    }
    if (self.connection != nullptr)
        (void)natsConnection_FlushTimeout(self.connection, 1000); // answers that are still on their way
    natsConnection_Destroy(self.connection);
    self.queue.close();
    for (uint32_t i = 0; i < num_requests; ++i)
        forget(self, self.requests[i]);
    sem_destroy(&self.is_complete);
    std::free(self.requests);
    std::free(&self);
}

} // namespace zel::nats
