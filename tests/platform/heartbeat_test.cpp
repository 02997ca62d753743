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

// How many signs a manager gets when a child with these variables calls three times.
int signs(const std::string &name, const char *notify_socket, const char *watchdog_usec, const char *watchdog_pid)
{
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@')
        address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&address), length), 0);

    const pid_t child = fork();
    if (child == 0) {
        const auto set = [](const char *variable, const char *value) {
            value != nullptr ? setenv(variable, value, 1) : unsetenv(variable);
        };
        set("NOTIFY_SOCKET", notify_socket);
        set("WATCHDOG_USEC", watchdog_usec);
        set("WATCHDOG_PID", watchdog_pid);
        for (int i = 0; i < 3; ++i)
            fu_keeper_update_and_send_heartbeat(0);
        _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);

    int count = 0;
    char buffer[64];
    for (ssize_t size = 0; (size = recv(manager, buffer, sizeof buffer, 0)) >= 0; ++count)
        EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(size)), "WATCHDOG=1");
    close(manager);
    unlink(name.c_str());
    return count;
}

TEST(Heartbeat, ReachesTheManagerAsOftenAsItsPeriodNeeds)
{
    for (const std::string prefix : {"/tmp/zel-heartbeat-", "@zel-heartbeat-"}) {
        const std::string name = prefix + std::to_string(getpid());
        EXPECT_EQ(signs(name, name.c_str(), "0", nullptr), 3) << name;
        EXPECT_EQ(signs(name, name.c_str(), "3600000000", nullptr), 1) << name;
        EXPECT_EQ(signs(name, name.c_str(), "0", "1"), 0) << "meant for another process";
    }
}

TEST(Heartbeat, IsSilentWhereNobodyListens)
{
    const std::string name = "@zel-heartbeat-" + std::to_string(getpid());
    const std::string endless = "/" + std::string(200, 'x');
    for (const char *other : {static_cast<const char *>(nullptr), "", "not-a-path", "/nobody/here", endless.c_str()})
        EXPECT_EQ(signs(name, other, "0", nullptr), 0);
}

} // namespace
