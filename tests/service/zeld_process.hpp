// A zeld of one's own, and a client of it.
#pragma once

#include "platform/tlv_array.h"
#include "platform/transport.h"
#include "policy_notation.hpp"
#include "zel-platform/kob_client.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

class ZeldTest : public testing::Test {
protected:
    ~ZeldTest() override
    {
        kill_it();
        std::filesystem::remove_all(folder);
    }

    // Waits until it serves, or has exited.  True when it serves.
    bool start(std::vector<std::string> options = {})
    {
        options.insert(options.begin(), {ZELD, "--listen", address});
        int out[2];
        EXPECT_EQ(pipe(out), 0);
        pid = fork();
        if (pid == 0) {
            dup2(out[1], 1);
            dup2(open(log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
            std::vector<char *> args;
            for (std::string &option : options)
                args.push_back(option.data());
            args.push_back(nullptr);
            execv(ZELD, args.data());
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

    // Short, because a socket's path has to be.
    std::string folder = [] {
        char name[] = "/tmp/zeld-test-XXXXXX";
        return std::string(mkdtemp(name));
    }();
    std::string address = "unix:" + folder + "/sock";
    std::string log_file = folder + "/log";
    std::string state_file = folder + "/state";
    pid_t pid = 0;
};

class Client {
public:
    explicit Client(const std::string &address, uint32_t app = 1) : app_type(app)
    {
        const kob_client_options_t options{60000, 0}; // longer than anything takes that happens at all
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
        std::vector<unsigned char> array(4 + values.size() * tlv_size_get(sizeof(V)));
        for (const V &value : values)
            tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), element, sizeof value, &value, 0);
        return send(opcode, array);
    }
    int traffic(const std::vector<service::PacketHeader> &packets)
    {
        return send_values(service::opcode_traffic, service::element_packet, packets);
    }

    // The application's policies in a line, or the refusal.
    std::string shown(uint32_t policy_id = service::show_all)
    {
        using service::ShowRequest;
        if (send_values<ShowRequest>(service::opcode_show, service::element_show, {{app_type, policy_id}}) != 0)
            return text;
        const auto *const body = static_cast<const char *>(kob_payload_get(msg)) + ZEL_RESP_HDR_SIZE;
        Owned<zel_policy_list_t> list(allocate<zel_policy_list_t>(1));
        zel_kob_header_t header{};
        uint32_t cursor = 0, count = 0;
        zel_parse_kob_header_from_tlv(&handle, body, &cursor, &header, &count);
        zel_parse_policy_list_from_tlv(&handle, body, &cursor, list.get(), &count, app_type);
        zel_empty_mat_cache(&handle);
        std::string line;
        for (const auto *const policy : members(*list))
            line += fmt::format("{}: {}; ", policy->id, text_of(*policy));
        return line;
    }

    // "policy/pair packets bytes, ..." or the refusal.
    std::string counters(uint16_t policy_id, uint16_t pair_id, uint32_t flag = 0)
    {
        zel_stat_request_entry_t entry{0, 0, 0, policy_id, pair_id, flag};
        zel_stat_request_entry_t *entries[] = {&entry};
        const zel_stat_request_t query{1, entries};
        if (request(ZEL_API_STATS_PULL, service::op_code_stats, 0, &query) != 0)
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
