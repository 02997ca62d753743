// The client's half of the local socket endpoint.
#include "reference/kob/unix/client.hpp"

#include "reference/kob/unix/packet.hpp"
#include "reference/kob/unix/socket.hpp"

#include <cstdlib>
#include <new>
#include <sys/time.h>
#include <unistd.h>

namespace zel::platform {

struct ClientLink {
    ClientLink(int connected, uint32_t max_message)
        : socket(connected), budget{0, max_message}, inbound(FrameKind::response, max_message, &budget)
    {}

    int socket;
    Budget budget;
    Inbound inbound;
};

namespace {

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

// A local connect() waits only for room in the service's queue, and as long as a send would.
int32_t connect_before(int socket, const char *path, const Deadline &deadline)
{
    const sockaddr_un address = socket_address(path);
    do {
        const int remaining = deadline.remaining();
        // Zero would stand for ever.
        const timeval timeout{remaining / 1000, remaining % 1000 * 1000 + 1};
        (void)setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return KOB_OK;
    } while (errno == EINTR && !deadline.has_passed());
    return connect_error(errno);
}

} // namespace

int32_t unix_connect(const char *place, uint32_t max_message, Deadline deadline, ClientLink *&link)
{
    const int connected = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connected < 0)
        return KOB_ERR_SYSTEM;
    widen_send_buffer(connected);
    int32_t error = connect_before(connected, place, deadline);
    if (error == KOB_OK) {
        void *const storage = std::malloc(sizeof(ClientLink));
        if (storage != nullptr) {
            link = new (storage) ClientLink(connected, max_message);
            return KOB_OK;
        }
        error = KOB_ERR_MEMORY;
    }
    close(connected);
    return error;
}

int32_t unix_send(ClientLink *link, const Frame &frame, const void *payload, Deadline deadline)
{
    Outbound out{frame, payload, 0, false};
    for (;;) {
        const int32_t error = send_packets(link->socket, out);
        if (error != KOB_ERR_TIMEOUT || !wait_for(link->socket, POLLOUT, deadline))
            return error;
        if (deadline.has_passed()) // ready again and again, but never for a whole packet
            return KOB_ERR_TIMEOUT;
    }
}

int32_t unix_receive(ClientLink *link, kob_msg &msg, Deadline deadline)
{
    for (;;) {
        Fault fault{};
        switch (link->inbound.step(link->socket, msg, fault)) {
        case Step::message:
            return KOB_OK;
        case Step::part:
            if (deadline.has_passed())
                return KOB_ERR_TIMEOUT;
            continue;
        case Step::nothing:
            if (!wait_for(link->socket, POLLIN, deadline))
                return KOB_ERR_TIMEOUT;
            continue;
        case Step::refused: // for the one who waits for it, as if the service had refused
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

void unix_disconnect(ClientLink *link)
{
    close(link->socket);
    link->inbound.reset();
    std::free(link);
}

} // namespace zel::platform
