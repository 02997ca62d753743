// The socket that a service listens on, and its file.
#pragma once

#include "zel-platform/kob_service.h"

#include <sys/stat.h>
#include <sys/un.h>

namespace zel::platform {

class Listener {
public:
    // Takes the place of a socket file that nobody listens on any more.  The path must fit.
    int32_t open(const char *path, uint32_t permissions, uint32_t backlog);

    // A new connection, or -1 when none is waiting.  When the process is out of
    // descriptors, connections are closed as they come instead of waiting for ever.
    int accept();

    // Removes the file, unless another service has replaced it meanwhile.
    void close();

    int socket() const { return socket_; }

private:
    int32_t bind_to(const sockaddr_un &address);

    int socket_ = -1;
    int spare_ = -1; // given up for a moment to accept a connection that cannot be kept
    sockaddr_un address_{};
    struct stat file_ {};
};

} // namespace zel::platform
