// The socket that a service listens on, and its file.
#include "reference/kob/unix/listener.hpp"

#include "reference/kob/unix/socket.hpp"

#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

namespace zel::platform::unix_socket {

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
        return KOB_ERR_NO_FOLDER;
    case EADDRINUSE:
    case EWOULDBLOCK: // another service is starting
        return KOB_ERR_IN_USE;
    default:
        return KOB_ERR_SYSTEM;
    }
}

const sockaddr *generic(const sockaddr_un &address) { return reinterpret_cast<const sockaddr *>(&address); }

bool is_same_file(const struct stat &a, const struct stat &b) { return a.st_ino == b.st_ino && a.st_dev == b.st_dev; }

// A lock on starting a service at a path: a file beside the socket, which exists only while a
// service starts.  Between bind() and listen(), a socket refuses connections like the socket
// of a dead service.  Without the lock, a second service would then replace it.
class StartLock {
public:
    explicit StartLock(const char *path) { (void)std::snprintf(name_, sizeof name_, "%s.kob-lock", path); }
    StartLock(const StartLock &) = delete;
    StartLock &operator=(const StartLock &) = delete;
    ~StartLock()
    {
        if (file_ < 0)
            return;
        unlink(name_); // before the lock is released; see has_name()
        ::close(file_);
    }

    // Does not wait.
    int32_t take()
    {
        for (;;) {
            file_ = ::open(name_, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
            if (file_ < 0)
                return open_error(errno);
            const bool is_locked = flock(file_, LOCK_EX | LOCK_NB) == 0;
            const int32_t error = is_locked ? KOB_OK : open_error(errno);
            if (is_locked && has_name())
                return KOB_OK;
            ::close(file_);
            file_ = -1;
            if (error != KOB_OK)
                return error;
        }
    }

private:
    // False when the previous owner of the lock has removed the file since it was opened here:
    // then another file may be there, and locked by another service.
    bool has_name() const
    {
        struct stat opened {
        }, named{};
        return fstat(file_, &opened) == 0 && lstat(name_, &named) == 0 && is_same_file(opened, named);
    }

    char name_[sizeof(sockaddr_un::sun_path) + 16];
    int file_ = -1;
};

// True for the socket file of a service that is gone.
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

int32_t Listener::bind_to_path()
{
    if (bind(socket_, generic(address_), sizeof address_) == 0)
        return KOB_OK;
    if (errno != EADDRINUSE)
        return open_error(errno);
    if (!is_left_behind(address_) || unlink(address_.sun_path) != 0)
        return KOB_ERR_IN_USE;
    return bind(socket_, generic(address_), sizeof address_) == 0 ? KOB_OK : open_error(errno);
}

// The file has the permissions of the socket at bind(), less the umask: none for the group
// while that is not the right one.  This adds what is missing.  It works on a descriptor of the file: chmod() with the
// path would follow a symbolic link that has replaced the file.
int32_t Listener::set_rights(const FileRights &rights)
{
    const int file = ::open(address_.sun_path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0)
        return KOB_ERR_SYSTEM;
    bool is_set = fstat(file, &file_) == 0 && S_ISSOCK(file_.st_mode);
    if (is_set && rights.has_group)
        is_set = fchownat(file, "", static_cast<uid_t>(-1), rights.group, AT_EMPTY_PATH) == 0;
    if (is_set && (file_.st_mode & 07777) != rights.permissions) {
        char name[32]; // fchmod() does not take such a descriptor
        (void)std::snprintf(name, sizeof name, "/proc/self/fd/%d", file);
        is_set = chmod(name, rights.permissions) == 0;
    }
    const int32_t error = is_set ? KOB_OK : open_error(errno);
    ::close(file);
    return error;
}

int32_t Listener::open(const char *path, const FileRights &rights, uint32_t backlog)
{
    address_ = socket_address(path);
    StartLock lock(path);
    if (const int32_t error = lock.take(); error != KOB_OK)
        return error;
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket_ < 0)
        return KOB_ERR_SYSTEM;
    const uint32_t first = rights.has_group ? rights.permissions & 0700 : rights.permissions;
    int32_t error = fchmod(socket_, first) == 0 ? bind_to_path() : KOB_ERR_SYSTEM;
    if (error == KOB_OK)
        error = set_rights(rights);
    if (error == KOB_OK && listen(socket_, static_cast<int>(backlog)) != 0)
        error = open_error(errno);
    if (error == KOB_OK)
        spare_ = open_spare();
    else
        close();
    return error;
}

int Listener::accept(bool &is_last)
{
    is_last = false;
    const int client = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client >= 0 || (errno != EMFILE && errno != ENFILE) || spare_ < 0)
        return client;
    is_last = true;
    ::close(std::exchange(spare_, -1));
    return accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

void Listener::restore_spare() { spare_ = open_spare(); }

void Listener::close()
{
    // While the socket is open, its file's inode number is not given to another file.
    struct stat file {};
    const bool was_bound = file_.st_ino != 0;
    if (was_bound && lstat(address_.sun_path, &file) == 0 && is_same_file(file, file_))
        unlink(address_.sun_path);
    if (socket_ >= 0)
        ::close(socket_);
    if (spare_ >= 0)
        ::close(spare_);
    socket_ = -1;
    spare_ = -1;
}

} // namespace zel::platform::unix_socket
