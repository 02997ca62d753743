// The sign of life.  What the environment says is read once in a process, so
// each case runs in a child of its own.
#include "platform/heartbeat.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Manager {
public:
    explicit Manager(std::string name) : name_(std::move(name))
    {
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name_.data(), name_.size());
        if (name_[0] == '@')
            address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), length), 0) << std::strerror(errno);
    }
    ~Manager()
    {
        close(socket_);
        unlink(name_.c_str());
    }
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    int received(const char *text)
    {
        int count = 0;
        char buffer[64];
        for (ssize_t length = 0; (length = recv(socket_, buffer, sizeof buffer, 0)) >= 0; ++count)
            EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), text);
        return count;
    }

private:
    std::string name_;
    int socket_ = -1;
};

// A child with these variables that calls three times.
void run_child(const char *socket, const char *watchdog_usec, const char *watchdog_pid)
{
    const pid_t child = fork();
    if (child == 0) {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        if (socket != nullptr)
            setenv("NOTIFY_SOCKET", socket, 1);
        if (watchdog_usec != nullptr)
            setenv("WATCHDOG_USEC", watchdog_usec, 1);
        if (watchdog_pid != nullptr)
            setenv("WATCHDOG_PID", watchdog_pid, 1);
        for (int i = 0; i < 3; ++i)
            fu_keeper_update_and_send_heartbeat(0);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

std::string unique(const char *prefix)
{
    return prefix + std::to_string(getpid());
}

TEST(Heartbeat, ReachesTheManagerByPathAndByAbstractName)
{
    for (const std::string &name : {unique("/tmp/zel-heartbeat-"), unique("@zel-heartbeat-")}) {
        Manager manager(name);
        run_child(name.c_str(), "0", nullptr);
        EXPECT_EQ(manager.received("WATCHDOG=1"), 3) << name;
    }
}

TEST(Heartbeat, IsNotSentMoreOftenThanThePeriodNeeds)
{
    const std::string name = unique("@zel-heartbeat-rare-");
    Manager manager(name);
    run_child(name.c_str(), "3600000000", nullptr);
    EXPECT_EQ(manager.received("WATCHDOG=1"), 1);
}

TEST(Heartbeat, IsSilentForAnotherProcessAndWithoutManager)
{
    const std::string name = unique("@zel-heartbeat-silent-");
    Manager manager(name);
    run_child(name.c_str(), "0", "1");
    run_child(nullptr, "0", nullptr);
    run_child("not-a-path", nullptr, nullptr);
    run_child(("/" + std::string(200, 'x')).c_str(), nullptr, nullptr);
    run_child("/nobody/listens/here", nullptr, nullptr);
    EXPECT_EQ(manager.received(""), 0);
}

} // namespace
