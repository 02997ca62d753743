// The client's half.  A link does not reconnect: its owner makes a new one, to any server of
// the address, and reports the requests that the old one has lost.
#include "nats/endpoint.hpp"
#include "reference/kob/parts.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace zel::platform;

namespace zel::nats {

namespace {

// A forbidden subject is reported to no call of ours, so a wait looks for it so often.
constexpr int slice_ms = 100;

struct Link : ClientLink {
    explicit Link(uint32_t max_message) : budget{0, max_message}, inbound(FrameKind::response, max_message, &budget) {}

    natsConnection *connection = nullptr;
    natsSubscription *answers = nullptr;
    char subject[max_subject]{};
    char inbox[max_subject]{}; // answers to a request arrive at INBOX.TOKEN
    uint32_t absent_token = 0; // of the request that was last reported as without service
    Budget budget;
    Inbound inbound;
};

Link &as_link(ClientLink &link) { return static_cast<Link &>(link); }

int32_t subscribe(Link &link)
{
    natsStatus status = make_inbox(link.inbox);
    char pattern[max_subject + 2];
    (void)std::snprintf(pattern, sizeof pattern, "%s.*", link.inbox);
    if (status == NATS_OK)
        status = natsConnection_SubscribeSync(&link.answers, link.connection, pattern);
    if (status == NATS_OK)
        status = natsSubscription_SetPendingLimits(link.answers, -1, -1);
    return error_of(status);
}

uint32_t token_of(const char *subject)
{
    const char *const dot = std::strrchr(subject, '.');
    return dot != nullptr ? static_cast<uint32_t>(std::strtoul(dot + 1, nullptr, 10)) : 0;
}

// A refusal for one request, as if the service had refused it.
int32_t refuse(kob_msg &msg, uint32_t token, int32_t error)
{
    msg = {};
    msg.token = token;
    msg.refusal = error;
    return KOB_OK;
}

// The server answers each part of a request that nobody listens for.
bool report_absent(Link &link, uint32_t token, kob_msg &msg)
{
    if (token == 0 || token == link.absent_token)
        return false;
    link.absent_token = token;
    refuse(msg, token, KOB_ERR_ABSENT);
    return true;
}

// Takes a packet.  KOB_OK: msg is a whole response; KOB_ERR_TIMEOUT: not yet.
int32_t take(Link &link, natsMsg *packet, kob_msg &msg)
{
    if (natsMsg_IsNoResponders(packet))
        return report_absent(link, token_of(natsMsg_GetSubject(packet)), msg) ? KOB_OK : KOB_ERR_TIMEOUT;
    const int size = natsMsg_GetDataLength(packet);
    Frame frame;
    if (size < static_cast<int>(sizeof frame))
        return KOB_ERR_BAD_FRAME;
    std::memcpy(&frame, natsMsg_GetData(packet), sizeof frame);
    const std::size_t length = static_cast<std::size_t>(size) - sizeof frame;
    char *room = nullptr;
    Fault fault{};
    Step step = link.inbound.accept(frame, length, room, fault);
    if (step == Step::part && room != nullptr) {
        std::memcpy(room, natsMsg_GetData(packet) + sizeof frame, length);
        step = link.inbound.complete(frame, length, msg, fault);
    }
    switch (step) {
    case Step::message:
        return KOB_OK;
    case Step::refused:
        return refuse(msg, fault.token, fault.error);
    case Step::hostile:
        return fault.error;
    default:
        return KOB_ERR_TIMEOUT;
    }
}

} // namespace

int32_t connect_link(const char *text, bool is_encrypted, uint32_t max_message, Deadline deadline, ClientLink *&link)
{
    Location location;
    if (!parse_location(text, is_encrypted ? "tls" : "nats", location) || location.num_subjects != 1)
        return KOB_ERR_ADDRESS;
    void *const storage = std::malloc(sizeof(Link));
    if (storage == nullptr)
        return KOB_ERR_MEMORY;
    auto *const made = new (storage) Link(max_message);
    (void)std::snprintf(made->subject, sizeof made->subject, "%s", location.subjects[0]);
    int32_t error = open_connection(location, is_encrypted, Reconnect::never, deadline.remaining(), made->connection);
    if (error == KOB_OK)
        error = subscribe(*made);
    if (error == KOB_OK)
        link = made;
    else
        disconnect_link(*made);
    return error;
}

int32_t send_request(ClientLink &link, const Frame &frame, const void *payload, Deadline)
{
    Link &self = as_link(link);
    char reply[max_subject + 12];
    (void)std::snprintf(reply, sizeof reply, "%s.%u", self.inbox, frame.token);
    return publish(self.connection, self.subject, reply, frame, payload);
}

int32_t receive_response(ClientLink &link, kob_msg &msg, Deadline deadline)
{
    Link &self = as_link(link);
    for (;;) {
        if (is_denied(self.connection))
            return KOB_ERR_DENIED;
        natsMsg *packet = nullptr;
        const int wait = std::clamp(deadline.remaining(), 1, slice_ms);
        const natsStatus status = natsSubscription_NextMsg(&packet, self.answers, wait);
        const int32_t error = status == NATS_OK ? take(self, packet, msg) : error_of(status);
        natsMsg_Destroy(packet);
        if (error != KOB_ERR_TIMEOUT)
            return error;
        if (deadline.has_passed())
            return is_denied(self.connection) ? KOB_ERR_DENIED : KOB_ERR_TIMEOUT;
    }
}

void disconnect_link(ClientLink &link)
{
    Link &self = as_link(link);
    natsSubscription_Destroy(self.answers);
    natsConnection_Destroy(self.connection);
    self.inbound.reset();
    std::free(&self);
}

} // namespace zel::nats
