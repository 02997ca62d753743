// Messages to the system manager: datagrams to the socket that NOTIFY_SOCKET names.
#include "reference/manager/notify.hpp"

#include "zel-platform/manager.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace zel::platform {

namespace {

struct Manager {
    int socket = -1; // -1: there is no manager
    sockaddr_un address{};
    socklen_t address_length = 0;
};

constinit Manager manager;
pthread_once_t manager_once = PTHREAD_ONCE_INIT;

// False when the path is not one that the protocol allows.
bool set_address(const char *path)
{
    const std::size_t length = std::strlen(path);
    if (length < 2 || length >= sizeof manager.address.sun_path || (path[0] != '/' && path[0] != '@'))
        return false;
    manager.address.sun_family = AF_UNIX;
    std::memcpy(manager.address.sun_path, path, length);
    if (path[0] == '@') // an abstract name, which has no terminating NUL
        manager.address.sun_path[0] = '\0';
    manager.address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return true;
}

void find_manager()
{
    const char *const path = std::getenv("NOTIFY_SOCKET");
    if (path != nullptr && set_address(path))
        manager.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

} // namespace

bool has_manager()
{
    pthread_once(&manager_once, find_manager);
    return manager.socket >= 0;
}

void send_to_manager(const char *state, int flags)
{
    if (!has_manager())
        return;
    (void)sendto(manager.socket, state, std::strlen(state), flags | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr *>(&manager.address), manager.address_length);
}

} // namespace zel::platform

void zel_manager_notify(const char *state) { zel::platform::send_to_manager(state, 0); }
