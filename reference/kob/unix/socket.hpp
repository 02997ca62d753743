// Local sockets: addresses, and waiting for one of them.
#pragma once

#include "reference/kob/deadline.hpp"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace zel::platform {

// A path that begins with '@' is refused: elsewhere that means an abstract name, which has
// no permissions.
inline bool is_socket_path(const char *path)
{
    const std::size_t length = std::strlen(path);
    return length > 0 && length < sizeof(sockaddr_un::sun_path) && path[0] != '@';
}

// For a path that is_socket_path() accepts.
inline sockaddr_un socket_address(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    return address;
}

// Asks for room for the largest packet.  If the system grants less, sending such a packet
// fails with KOB_ERR_TOO_LARGE.
inline void widen_send_buffer(int socket)
{
    const int bytes = 256 * 1024;
    (void)setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

// False when the deadline passed before the socket was ready.
inline bool wait_for(int socket, short events, const Deadline &deadline)
{
    pollfd entry{socket, events, 0};
    for (;;) {
        const int ready = poll(&entry, 1, deadline.remaining());
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

} // namespace zel::platform
