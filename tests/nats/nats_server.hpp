// A NATS server on a port of loopback that it chooses itself, for one test.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

class NatsServer {
public:
    explicit NatsServer(std::string config = {}) : config_(std::move(config))
    {
        std::filesystem::create_directory(folder_);
        start();
    }
    ~NatsServer()
    {
        kill_it();
        std::filesystem::remove_all(folder_);
    }
    NatsServer(const NatsServer &) = delete;

    void kill_it()
    {
        if (pid_ == 0)
            return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }

    // At the port of the last start.
    void start()
    {
        std::ofstream(folder_ + "/conf") << "listen: \"127.0.0.1:" << port_ << "\"\nports_file_dir: \"" << folder_
                                         << "\"\n"
                                         << config_;
        const pid_t test = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != test)
                _exit(127);
            const int log = open((folder_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
            dup2(log, 1);
            dup2(log, 2);
            execlp("nats-server", "nats-server", "-c", (folder_ + "/conf").c_str(), nullptr);
            _exit(127);
        }
        read_port();
    }

    std::string address(const std::string &subject) const
    {
        return "nats://127.0.0.1:" + std::to_string(port_) + "/" + subject;
    }

    std::string url() const { return "nats://127.0.0.1:" + std::to_string(port_); }

private:
    void read_port()
    {
        const std::string name = folder_ + "/nats-server_" + std::to_string(pid_) + ".ports";
        for (int i = 0; i < 1000; ++i) {
            std::ifstream in(name);
            const std::string text{std::istreambuf_iterator<char>(in), {}};
            std::smatch match;
            if (std::regex_search(text, match, std::regex("127\\.0\\.0\\.1:([0-9]+)")) &&
                text.find('}') != std::string::npos) {
                port_ = std::stoi(match[1]);
                return;
            }
            usleep(10000);
        }
        FAIL() << "nats-server does not start";
    }

    std::string config_;
    std::string folder_ = "/tmp/zel-nats-" + std::to_string(getpid()) + "-" + std::to_string(next_++);
    pid_t pid_ = 0;
    int port_ = -1;
    static inline int next_ = 0;
};
