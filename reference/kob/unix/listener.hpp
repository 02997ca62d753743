// The socket that a service listens on, and its file.
#pragma once

#include "zel-platform/kob_service.h"

#include <sys/stat.h>
#include <sys/un.h>

namespace zel::platform::unix_socket {

// Of the socket file.
struct FileRights {
    uint32_t permissions;
    bool has_group; // false: the group of the process
    uint32_t group;
};

class Listener {
public:
    // Binds to a path, which must be one that is_socket_path() accepts, and listens.  Replaces
    // the socket file of a service that is gone.  Of several services that start at one path
    // at a time, one gets it.
    int32_t open(const char *path, const FileRights &rights, uint32_t backlog);

    // A new connection, or -1 when none is waiting.  When the process has no descriptor left, it
    // gets one that was kept for this: is_last.  Then the caller tells the client, closes the
    // connection and calls restore_spare().
    int accept(bool &is_last);
    void restore_spare();

    // Removes the file, unless it is another service's by now.
    void close();

    int socket() const { return socket_; }

private:
    int32_t bind_to_path();
    int32_t set_rights(const FileRights &rights);

    int socket_ = -1;
    int spare_ = -1; // closed for a moment to accept a connection when descriptors run out
    sockaddr_un address_{};
    struct stat file_ {}; // of the socket file, once there is one
};

} // namespace zel::platform::unix_socket
