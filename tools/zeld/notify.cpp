#include "tools/zeld/notify.hpp"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace zeld {

void notify_ready()
{
    constexpr char ready[] = "READY=1";
    const char *const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path == nullptr || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    if (path[0] == '@') // an abstract name
        address.sun_path[0] = '\0';
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0)
        return;
    (void)sendto(socket, ready, sizeof ready - 1, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path)));
    close(socket);
}

} // namespace zeld
