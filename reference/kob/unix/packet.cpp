// Packets on a socket: content is received right into its place in the message.
#include "reference/kob/unix/packet.hpp"

#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>

namespace zel::platform::unix_socket {

namespace {

bool would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// Takes a packet off the socket without looking at it.
void discard(int socket)
{
    char byte;
    (void)recv(socket, &byte, sizeof byte, MSG_DONTWAIT);
}

int32_t send_error(int error)
{
    switch (error) {
    case EAGAIN:
    case EINTR:
    case ENOBUFS:
    case ENOMEM:
        return KOB_ERR_TIMEOUT;
    case EPIPE:
    case ECONNRESET:
    case ENOTCONN:
        return KOB_ERR_PEER_GONE;
    case EMSGSIZE:
        return KOB_ERR_TOO_LARGE;
    default:
        return KOB_ERR_SYSTEM;
    }
}

} // namespace

Step receive_packet(int socket, Inbound &in, kob_msg &msg, Fault &fault)
{
    Frame frame;
    const ssize_t size = recv(socket, &frame, sizeof frame, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (size < 0)
        return would_block(errno) ? Step::nothing : Step::closed;
    if (size == 0)
        return Step::closed;
    if (static_cast<std::size_t>(size) < sizeof frame) {
        fault = {KOB_ERR_BAD_FRAME, "a packet shorter than a header", 0, 0};
        return Step::hostile;
    }
    const std::size_t length = static_cast<std::size_t>(size) - sizeof frame;
    char *room = nullptr;
    const Step step = in.accept(frame, length, room, fault);
    if (step == Step::hostile)
        return step;
    if (room == nullptr) {
        discard(socket);
        return step;
    }
    iovec pieces[] = {{&frame, sizeof frame}, {room, length}};
    msghdr packet{};
    packet.msg_iov = pieces;
    packet.msg_iovlen = 2;
    if (recvmsg(socket, &packet, MSG_DONTWAIT) != size)
        return Step::closed;
    return in.complete(frame, length, msg, fault);
}

int32_t send_packets(int socket, Outbound &out)
{
    while (!out.is_done) {
        const uint32_t length = out.next_length();
        // sendmsg() has no pointers to const.
        iovec pieces[] = {{&out.frame, sizeof out.frame}, {const_cast<char *>(out.payload) + out.sent, length}};
        msghdr packet{};
        packet.msg_iov = pieces;
        packet.msg_iovlen = length != 0 ? 2 : 1;
        if (sendmsg(socket, &packet, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            return send_error(errno);
        out.advance(length);
    }
    return KOB_OK;
}

} // namespace zel::platform::unix_socket
