// The socket that a service listens on, and its file.
#include "reference/kob/unix/listener.hpp"

#include "reference/kob/unix/socket.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace zel::platform {

namespace {

int32_t open_error(int error)
{
    switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
        return KOB_ERR_DENIED;
    case ENOENT:
    case ENOTDIR:
        return KOB_ERR_ADDRESS;
    case EADDRINUSE:
        return KOB_ERR_IN_USE;
    default:
        return KOB_ERR_SYSTEM;
    }
}

const sockaddr *generic(const sockaddr_un &address) { return reinterpret_cast<const sockaddr *>(&address); }

// True for the socket file of a service that is no more.
bool is_left_behind(const sockaddr_un &address)
{
    struct stat file {};
    if (lstat(address.sun_path, &file) != 0 || !S_ISSOCK(file.st_mode))
        return false;
    const int probe = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0)
        return false;
    const bool refused = connect(probe, generic(address), sizeof address) != 0 && errno == ECONNREFUSED;
    ::close(probe);
    return refused;
}

int open_spare() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

} // namespace

int32_t Listener::bind_to(const sockaddr_un &address)
{
    if (bind(socket_, generic(address), sizeof address) == 0)
        return KOB_OK;
    if (errno != EADDRINUSE)
        return open_error(errno);
    if (!is_left_behind(address) || unlink(address.sun_path) != 0)
        return KOB_ERR_IN_USE;
    return bind(socket_, generic(address), sizeof address) == 0 ? KOB_OK : open_error(errno);
}

int32_t Listener::open(const char *path, uint32_t permissions, uint32_t backlog)
{
    address_ = socket_address(path);
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket_ < 0)
        return KOB_ERR_SYSTEM;
    // The file takes its mode from the socket, less the umask, so that it is never
    // more open than asked for, not even before the second call.
    int32_t error = fchmod(socket_, permissions) == 0 ? bind_to(address_) : KOB_ERR_SYSTEM;
    if (error == KOB_OK) {
        if (chmod(path, permissions) != 0 || lstat(path, &file_) != 0 ||
            listen(socket_, static_cast<int>(backlog)) != 0)
            error = open_error(errno);
        spare_ = open_spare();
        if (error != KOB_OK)
            unlink(path);
    }
    if (error != KOB_OK)
        close();
    return error;
}

int Listener::accept()
{
    int client = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client >= 0 || (errno != EMFILE && errno != ENFILE) || spare_ < 0)
        return client;
    ::close(spare_);
    client = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0)
        ::close(client);
    spare_ = open_spare();
    return -1;
}

void Listener::close()
{
    struct stat file {};
    const bool was_bound = file_.st_ino != 0;
    if (was_bound && lstat(address_.sun_path, &file) == 0 && file.st_ino == file_.st_ino && file.st_dev == file_.st_dev)
        unlink(address_.sun_path);
    if (socket_ >= 0)
        ::close(socket_);
    if (spare_ >= 0)
        ::close(spare_);
    socket_ = -1;
    spare_ = -1;
}

} // namespace zel::platform
