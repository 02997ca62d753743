// The heartbeat and other messages to the system manager.  The environment is read once in
// a process, so each case runs in a child of its own.
#include "bytes.hpp"
#include "zel-platform/manager.h"
#include "zel/platform/heartbeat.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void send_three_heartbeats()
{
    for (int i = 0; i < 3; ++i)
        fu_keeper_update_and_send_heartbeat(0);
}

// What a manager gets from a child with this environment.
std::vector<std::string> messages(const std::string &name, std::vector<std::string> environment,
                                  void (*send)() = send_three_heartbeats)
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
        send();
        _exit(0);
    }
    int status = -1;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);

    std::vector<std::string> received;
    char buffer[64];
    for (ssize_t size = 0; (size = recv(manager, buffer, sizeof buffer, 0)) >= 0;)
        received.emplace_back(buffer, static_cast<std::size_t>(size));
    close(manager);
    unlink(name.c_str());
    return received;
}

std::vector<std::string> heartbeats(std::size_t count) { return std::vector<std::string>(count, "WATCHDOG=1"); }

TEST(Heartbeat, ReachesTheManagerAsOftenAsItsPeriodNeeds)
{
    for (const std::string prefix : {"/tmp/zel-heartbeat-", "@zel-heartbeat-"}) {
        const std::string name = prefix + std::to_string(getpid());
        const std::string socket = "NOTIFY_SOCKET=" + name;
        EXPECT_EQ(messages(name, {socket, "WATCHDOG_USEC=0"}), heartbeats(3)) << name;
        EXPECT_EQ(messages(name, {socket, "WATCHDOG_USEC=3600000000"}), heartbeats(1)) << name;
        EXPECT_EQ(messages(name, {socket, "WATCHDOG_USEC=0", "WATCHDOG_PID=1"}), heartbeats(0))
            << "meant for another process";
        EXPECT_EQ(messages(name, {"WATCHDOG_USEC=0"}), heartbeats(0));
        for (const std::string &elsewhere : std::vector<std::string>{"", "no-path", "/nobody", std::string(200, '/')})
            EXPECT_EQ(messages(name, {"NOTIFY_SOCKET=" + elsewhere, "WATCHDOG_USEC=0"}), heartbeats(0)) << elsewhere;
    }
}

TEST(Manager, GetsWhatItIsToldBesidesTheHeartbeat)
{
    const std::string name = "/tmp/zel-manager-" + std::to_string(getpid());
    const auto send = [] {
        zel_manager_notify("READY=1");
        fu_keeper_update_and_send_heartbeat(0);
        zel_manager_notify("STOPPING=1");
    };
    const std::string socket = "NOTIFY_SOCKET=" + name;
    EXPECT_EQ(messages(name, {socket}, send), (std::vector<std::string>{"READY=1", "WATCHDOG=1", "STOPPING=1"}));
    // The watchdog may be for another process, but the state is this one's.
    EXPECT_EQ(messages(name, {socket, "WATCHDOG_PID=1"}, send), (std::vector<std::string>{"READY=1", "STOPPING=1"}));
    EXPECT_EQ(messages(name, {}, send), heartbeats(0));
}

} // namespace
