// A zeld process for a test, and a client of it.
#pragma once

#include "messages.hpp"
#include "policy_notation.hpp"
#include "reference/kob/unix/socket.hpp"
#include "tools/zeld/message.hpp"
#include "zel-platform/kob_client.h"
#include "zel/platform/tlv_array.h"
#include "zel/platform/transport.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

// A folder for one test process, removed at its end. Its name contains the process id:
// the next run removes the folders of processes that crashed. The name is short, because
// it is part of a socket's path.
class TestFolder {
public:
    explicit TestFolder(const std::string &name = "") : path(fmt::format("{}{}{}", prefix, getpid(), name))
    {
        for (const auto &entry : std::filesystem::directory_iterator("/tmp"))
            remove_if_abandoned(entry.path());
        std::filesystem::create_directory(path);
    }
    ~TestFolder() { std::filesystem::remove_all(path); }
    TestFolder(const TestFolder &) = delete;

    const std::string path;

private:
    static constexpr const char *prefix = "/tmp/zeld-test-";

    static void remove_if_abandoned(const std::string &folder)
    {
        int owner = 0;
        std::error_code ignored; // a folder of another user, or removed meanwhile
        if (sscanf(folder.c_str(), "/tmp/zeld-test-%d", &owner) == 1 && kill(owner, 0) != 0 && errno == ESRCH)
            std::filesystem::remove_all(folder, ignored);
    }
};

// A zeld and the files that it uses, in a folder of their own.
class ZeldProcess {
public:
    ZeldProcess() = default;
    ZeldProcess(const ZeldProcess &) = delete;
    ~ZeldProcess() { kill_it(); }

    // Waits until zeld serves or has exited. Returns true when it serves.
    bool start(std::vector<std::string> options = {}, const char *program = ZELD)
    {
        options.insert(options.begin(), {program, "--listen", address});
        int out[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        const pid_t test = getpid();
        pid = fork();
        if (pid == 0) {
            // zeld ends with the test, even when the test crashes.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != test)
                _exit(127);
            dup2(out[1], 1);
            dup2(log >= 0 ? log : open(log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
            std::vector<char *> args;
            for (std::string &option : options)
                args.push_back(option.data());
            args.push_back(nullptr);
            execv(program, args.data());
            _exit(127);
        }
        close(out[1]);
        std::string line;
        for (char c = 0; read(out[0], &c, 1) == 1 && c != '\n';)
            line += c;
        close(out[0]);
        return line == "ready " + address;
    }

    int exit_code()
    {
        int status = 0;
        waitpid(std::exchange(pid, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int stop()
    {
        kill(pid, SIGTERM);
        return exit_code();
    }
    void kill_it()
    {
        if (pid == 0)
            return;
        kill(pid, SIGKILL);
        exit_code();
    }

    size_t lines_logged(const std::string &with) const
    {
        std::ifstream in(log_file);
        size_t count = 0;
        for (std::string line; std::getline(in, line);)
            count += line.find(with) != std::string::npos ? 1 : 0;
        return count;
    }

    const TestFolder test_folder{};
    const std::string &folder = test_folder.path;
    std::string address = "unix:" + folder + "/sock";
    std::string log_file = folder + "/log";
    std::string state_file = folder + "/state";
    int log = -1; // a descriptor for the log, instead of the file
    pid_t pid = 0;
};

class ZeldTest : public testing::Test, protected ZeldProcess {
protected:
    ~ZeldTest() override { unsetenv("NOTIFY_SOCKET"); }

    // The system manager's socket, for services that are started from now on.
    int bind_manager() const
    {
        const std::string path = folder + "/notify";
        const sockaddr_un where = zel::platform::socket_address(path.c_str());
        const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        return manager;
    }
};

// A policy message with more elements in the policy, of an id that no record has.
inline Bytes with_unknown_elements(const Bytes &message, size_t count)
{
    const size_t size = tlv_size_get(0);
    Bytes elements(4 + count * size);
    for (size_t i = 0; i < count; ++i)
        EXPECT_EQ(tlv_array_add_tlv(elements.data(), static_cast<uint32_t>(elements.size()), 777, 0, nullptr, 0), 0);
    Bytes extended(message);
    const size_t first_field = 4 + zel_kob_header_get_tlv_sz() + tlv_size_get(sizeof zel_tlv_struct_start);
    extended.insert(extended.begin() + static_cast<ptrdiff_t>(first_field), elements.begin() + 4, elements.end());
    const auto used = static_cast<uint32_t>(extended.size() - 4);
    memcpy(extended.data(), &used, sizeof used);
    return extended;
}
inline Bytes with_unknown_element(const Bytes &message) { return with_unknown_elements(message, 1); }

template <class V> Bytes array_of(uint16_t element, const std::vector<V> &values)
{
    Bytes array(4 + values.size() * tlv_size_get(sizeof(V)));
    for (const V &value : values)
        tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), element, sizeof value, &value, 0);
    return array;
}

// The address sanitizer keeps freed memory.
#if defined(__SANITIZE_ADDRESS__)
#define ZEL_KEEPS_FREED_MEMORY 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEL_KEEPS_FREED_MEMORY 1
#endif
#endif
#ifdef ZEL_KEEPS_FREED_MEMORY
constexpr bool keeps_freed_memory = true;
#else
constexpr bool keeps_freed_memory = false;
#endif

class Client {
public:
    explicit Client(const std::string &address, uint32_t app = 1) : app_type(app)
    {
        // Milliseconds, longer than any request takes; and bytes.
        const kob_client_options_t options{60000, KOB_MESSAGE_LIMIT, 0};
        kob = kob_open(address.c_str(), &options, nullptr);
        zel_api_init(&handle, 0, app, kob, nullptr, nullptr, nullptr);
    }
    ~Client()
    {
        kob_msg_free(msg);
        kob_close(kob);
    }
    Client(const Client &) = delete;

    // The answer's error, or minus the transport's when there is no answer.
    int request(uint32_t kind, uint32_t op_code, uint16_t policy_id, const void *object)
    {
        uint32_t token = 0;
        send_to_zel(&token, kind, &handle, policy_id, object, op_code, msg);
        return receive(token);
    }
    int set(const zel_policy_t &policy)
    {
        return request(ZEL_API_POLICY_UPDATE, service::op_code_set, policy.id, &policy);
    }

    int send(uint32_t opcode, const std::vector<unsigned char> &message)
    {
        const mpkob_segment_t segment{message.data(), static_cast<uint32_t>(message.size())};
        const int32_t error = mpkob_send(kob, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, opcode, &segment, 1, msg, 0);
        return error == KOB_OK ? receive(kob_rr_token_get(msg)) : -error;
    }

    template <class V> int send_values(uint32_t opcode, uint16_t element, const std::vector<V> &values)
    {
        return send(opcode, array_of(element, values));
    }
    int traffic(const std::vector<service::PacketHeader> &packets)
    {
        return send_values(service::opcode_traffic, service::element_packet, packets);
    }

    // The messages that show returns, one for each policy; none when it is refused.
    std::vector<Bytes> shown_messages(uint32_t policy_id = service::show_all)
    {
        using service::ShowRequest;
        std::vector<Bytes> messages;
        if (send_values<ShowRequest>(service::opcode_show, service::element_show, {{app_type, policy_id}}) != 0)
            return messages;
        const auto *at = static_cast<const unsigned char *>(kob_payload_get(msg)) + ZEL_RESP_HDR_SIZE;
        const auto *const end = at + kob_msg_size(msg) - ZEL_RESP_HDR_SIZE;
        while (at < end) {
            uint32_t used = 0;
            memcpy(&used, at, sizeof used);
            messages.emplace_back(at, at + sizeof used + used);
            at += messages.back().size();
        }
        EXPECT_EQ(at, end);
        return messages;
    }

    // The application's policies in a line, or the refusal.
    std::string shown(uint32_t policy_id = service::show_all)
    {
        std::string line;
        text.clear();
        for (Bytes &message : shown_messages(policy_id)) {
            message.resize(message.size() + KOB_PAYLOAD_TAIL);
            const Request request = read_request(message.data());
            EXPECT_EQ(request.header.api_type, uint32_t{ZEL_API_POLICY_UPDATE});
            EXPECT_EQ(request.header.app_type, app_type);
            EXPECT_EQ(request.header.op_code, uint32_t{service::op_code_set});
            const auto &policy = *static_cast<const zel_policy_t *>(request.object.get());
            EXPECT_EQ(request.header.policy_id, policy.id);
            line += fmt::format("{}: {}; ", policy.id, text_of(policy));
        }
        return retval == 0 ? line : text;
    }

    // "policy/pair packets bytes, ..." or the refusal.
    std::string counters(std::vector<zel_stat_request_entry_t> queries)
    {
        std::vector<zel_stat_request_entry_t *> pointers;
        for (zel_stat_request_entry_t &query : queries)
            pointers.push_back(&query);
        const zel_stat_request_t request_record{static_cast<uint32_t>(pointers.size()), pointers.data()};
        if (request(ZEL_API_STATS_PULL, service::op_code_stats, 0, &request_record) != 0)
            return text;
        zel_stat_results_t *const results = zel_parse_stats(msg);
        std::string line;
        for (uint32_t i = 0; i < results->num_entries; ++i) {
            const zel_stat_result_entry_t &one = results->entries[i];
            const uint64_t packets = one.stats[0].counter1, bytes = one.stats[0].counter2;
            line += fmt::format("{}/{} {} {}, ", one.ids[0], one.ids[1], packets, bytes);
        }
        zel_free_stat_results(results);
        return line;
    }
    std::string counters(uint16_t policy_id, uint16_t pair_id, uint32_t flag = 0)
    {
        return counters({{0, 0, 0, policy_id, pair_id, flag}});
    }

    uint32_t app_type;
    uint32_t kob = 0;
    zel_api_handle_t handle{};
    kob_msg_t *msg = kob_msg_alloc();
    int32_t retval = 0;
    std::string text;

private:
    int receive(uint32_t token)
    {
        const int32_t error = token != 0 ? kob_receive(kob, token, msg, -1) : kob_errno_get(kob);
        if (error != KOB_OK)
            return -error;
        uint32_t status = 0, answered = 0;
        char buffer[ZEL_RESP_TEXT_SIZE];
        retval = zel_parse_response(msg, &status, &answered, buffer);
        text = buffer;
        EXPECT_EQ(status == service::status_ok, answered == service::error_none);
        EXPECT_EQ(retval < 0, answered != service::error_none);
        return static_cast<int>(answered);
    }
};

} // namespace test
