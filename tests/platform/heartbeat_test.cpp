// The sign of life.  What the environment says is read once in a process, so
// each case runs in a child of its own.
#include "bytes.hpp"
#include "platform/heartbeat.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// How many signs a manager gets when a child with this environment calls three times.
int signs(const std::string &name, std::vector<std::string> environment)
{
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{AF_UNIX, {}};
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@')
        address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&address), length), 0);

    const pid_t child = fork();
    if (child == 0) {
        clearenv();
        for (std::string &variable : environment)
            putenv(variable.data());
        for (int i = 0; i < 3; ++i)
            fu_keeper_update_and_send_heartbeat(0);
        _exit(0);
    }
    int status = -1;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);

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
        const std::string socket = "NOTIFY_SOCKET=" + name;
        EXPECT_EQ(signs(name, {socket, "WATCHDOG_USEC=0"}), 3) << name;
        EXPECT_EQ(signs(name, {socket, "WATCHDOG_USEC=3600000000"}), 1) << name;
        EXPECT_EQ(signs(name, {socket, "WATCHDOG_USEC=0", "WATCHDOG_PID=1"}), 0) << "meant for another process";
        EXPECT_EQ(signs(name, {"WATCHDOG_USEC=0"}), 0);
        for (const std::string &elsewhere : std::vector<std::string>{"", "no-path", "/nobody", std::string(200, '/')})
            EXPECT_EQ(signs(name, {"NOTIFY_SOCKET=" + elsewhere, "WATCHDOG_USEC=0"}), 0) << elsewhere;
    }
}

} // namespace
