// The client's half of the local socket endpoint.
#include "reference/kob/unix/endpoint.hpp"
#include "reference/kob/unix/packet.hpp"
#include "reference/kob/unix/socket.hpp"

#include <cstdlib>
#include <new>
#include <sys/time.h>
#include <unistd.h>

namespace zel::platform::unix_socket {

namespace {

struct Link : ClientLink {
    Link(int connected, uint32_t max_message)
        : socket(connected), budget{0, max_message}, inbound(FrameKind::response, max_message, &budget)
    {}

    int socket;
    Budget budget;
    Inbound inbound;
    Outbound leaving{};     // the rest of a request that was posted
    char *posted = nullptr; // its payload
};

Link &as_link(ClientLink &link) { return static_cast<Link &>(link); }

int32_t connect_error(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED:
    case EPROTOTYPE: // something listens, but not a service
        return KOB_ERR_ABSENT;
    case EACCES:
    case EPERM:
        return KOB_ERR_DENIED;
    case EAGAIN: // the service does not accept, and its queue is full
    case ETIMEDOUT:
        return KOB_ERR_TIMEOUT;
    default:
        return KOB_ERR_SYSTEM;
    }
}

// A connect() to a local socket waits only for room in the service's queue, and no longer
// than SO_SNDTIMEO.
int32_t connect_before(int socket, const char *path, const Deadline &deadline)
{
    const sockaddr_un address = socket_address(path);
    do {
        const int remaining = deadline.remaining();
        // A timeout of 0 would never end.
        const timeval timeout{remaining / 1000, remaining % 1000 * 1000 + 1};
        (void)setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return KOB_OK;
    } while (errno == EINTR && !deadline.has_passed());
    return connect_error(errno);
}

int32_t connect_to(const char *location, uint32_t max_message, Deadline deadline, ClientLink *&link)
{
    const int connected = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connected < 0)
        return KOB_ERR_SYSTEM;
    widen_send_buffer(connected);
    int32_t error = connect_before(connected, location, deadline);
    if (error == KOB_OK) {
        void *const storage = std::malloc(sizeof(Link));
        if (storage != nullptr) {
            link = new (storage) Link(connected, max_message);
            return KOB_OK;
        }
        error = KOB_ERR_MEMORY;
    }
    close(connected);
    return error;
}

int32_t send_to(ClientLink &link, const Frame &frame, const void *payload, Deadline deadline)
{
    const int socket = as_link(link).socket;
    Outbound out{frame, static_cast<const char *>(payload), 0, false};
    for (;;) {
        const int32_t error = send_packets(socket, out);
        if (error != KOB_ERR_TIMEOUT || !wait_for(socket, POLLOUT, deadline))
            return error;
        if (deadline.has_passed()) // the socket has room, but never for a whole packet
            return KOB_ERR_TIMEOUT;
    }
}

// Sends what is left of a posted request, as far as the socket takes it.
int32_t flush(Link &link)
{
    if (link.posted == nullptr)
        return KOB_OK;
    const int32_t error = send_packets(link.socket, link.leaving);
    if (error == KOB_ERR_TIMEOUT)
        return KOB_OK;
    std::free(link.posted);
    link.posted = nullptr;
    return error;
}

int32_t post_to(ClientLink &link, const Frame &frame, const void *payload)
{
    Link &self = as_link(link);
    int32_t error = flush(self);
    if (error != KOB_OK || self.posted != nullptr)
        return error != KOB_OK ? error : KOB_ERR_TIMEOUT;
    self.leaving = {frame, static_cast<const char *>(payload), 0, false};
    error = send_packets(self.socket, self.leaving);
    if (error != KOB_ERR_TIMEOUT)
        return error;
    self.posted = static_cast<char *>(std::malloc(frame.total + std::size_t{1}));
    if (self.posted == nullptr)
        return KOB_ERR_MEMORY;
    if (frame.total != 0)
        std::memcpy(self.posted, payload, frame.total);
    self.leaving.payload = self.posted;
    return KOB_OK;
}

int descriptor_of(const ClientLink &link, bool &is_sending)
{
    const auto &self = static_cast<const Link &>(link);
    is_sending = self.posted != nullptr;
    return self.socket;
}

int32_t receive_from(ClientLink &link, kob_msg &msg, Deadline deadline)
{
    Link &self = as_link(link);
    for (;;) {
        if (const int32_t error = flush(self); error != KOB_OK)
            return error;
        Fault fault{};
        switch (receive_packet(self.socket, self.inbound, msg, fault)) {
        case Step::message:
            return msg.token != 0 ? KOB_OK : msg.refusal; // without token: the service refuses the connection
        case Step::part:
            if (deadline.has_passed())
                return KOB_ERR_TIMEOUT;
            continue;
        case Step::nothing:
            if (!wait_for(self.socket, static_cast<short>(self.posted != nullptr ? POLLIN | POLLOUT : POLLIN),
                          deadline))
                return KOB_ERR_TIMEOUT;
            continue;
        case Step::refused: // reported to the caller that waits for it, as if the service had refused
            msg = {};
            msg.token = fault.token;
            msg.refusal = fault.error;
            return KOB_OK;
        case Step::hostile:
            return fault.error;
        case Step::closed:
            return KOB_ERR_PEER_GONE;
        }
    }
}

void disconnect(ClientLink &link)
{
    Link &self = as_link(link);
    close(self.socket);
    self.inbound.reset();
    std::free(self.posted);
    std::free(&self);
}

} // namespace

constinit const ClientOperations client_operations = {connect_to, send_to, receive_from,
                                                      disconnect, post_to, descriptor_of};

} // namespace zel::platform::unix_socket
