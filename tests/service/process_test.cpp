// zeld as its clients see it: requests, limits, and hostile clients.
#include "reference/kob/frame.hpp"
#include "reference/kob/unix/socket.hpp"
#include "support/failing_calls.hpp"
#include "support/graphs.hpp"
#include "tools/zeld/log.hpp"
#include "zeld_process.hpp"

#include <atomic>
#include <deque>
#include <random>
#include <set>
#include <sys/resource.h>
#include <thread>

using namespace test;
using service::PacketHeader;

namespace {

// A socket to the service, for packets that the client's library would not send.
int connect_raw(const std::string &address)
{
    const sockaddr_un where = zel::platform::socket_address(address.c_str() + 5);
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    (void)connect(socket, reinterpret_cast<const sockaddr *>(&where), sizeof where);
    return socket;
}

size_t status_kilobytes(pid_t pid, const char *row)
{
    std::ifstream in(fmt::format("/proc/{}/status", pid));
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(row))
            return std::stoul(line.substr(strlen(row)));
    return 0;
}
size_t resident_kilobytes(pid_t pid) { return status_kilobytes(pid, "VmRSS:"); }

// How many messages the system manager has got since it was asked last.
size_t signs_of_life(int manager)
{
    size_t count = 0;
    for (char text[64]; recv(manager, text, sizeof text, MSG_DONTWAIT) > 0;)
        ++count;
    return count;
}

} // namespace

TEST_F(ZeldTest, AnswersEveryKindOfRequest)
{
    ASSERT_TRUE(start());
    Client client(address);
    EXPECT_EQ(client.set(*policy(7, "1@1:1=80/1=9 2@1:1=80/ |3")), 0);
    EXPECT_EQ(client.text, "policy 7 has 2 pairs");
    EXPECT_EQ(client.shown(), "7: 1@1:1=80/1=9 2@1:1=80/ |3; ");
    auto part = policy(7, "2@4:2=81/ |5");
    for (const uint32_t kind : {4u, 9u})
        EXPECT_EQ(client.request(kind, service::op_code_set, 7, part_of(*part, kind)), 0);
    EXPECT_EQ(client.shown(7), "7: 1@1:1=80/1=9 2@4:2=81/ |5; ");
    // Policies are independent: match 1 and action 1 are other objects in each.
    EXPECT_EQ(client.set(*policy(8, "1@1:1=90/1=8 2@1:1=90/1=8 ")), 0);
    EXPECT_EQ(client.shown(), "7: 1@1:1=80/1=9 2@4:2=81/ |5; 8: 1@1:1=90/1=8 2@1:1=90/1=8 |; ");
    // Another application sees its own.
    Client other(address, 2);
    EXPECT_EQ(other.shown(), "");
    EXPECT_EQ(other.shown(7), "application 2 has no policy 7");

    std::vector<PacketHeader> packets(3);
    packets[0].ether_type = 81, packets[1].ether_type = 90, packets[2].ether_type = 91;
    packets[0].interface = 5, packets[0].bytes = 100, packets[1].bytes = 50;
    EXPECT_EQ(client.traffic(packets), 0);
    EXPECT_EQ(client.retval, 2);
    EXPECT_EQ(client.counters(7, service::stat_all, service::stat_flag_clear), "7/1 0 0, 7/2 1 100, ");
    EXPECT_EQ(client.counters(service::stat_all, service::stat_all), "7/1 0 0, 7/2 0 0, 8/1 1 50, 8/2 0 0, ");
    EXPECT_EQ(client.counters(8, 1), "8/1 1 50, ");
    EXPECT_EQ(client.counters(8, 3), "policy 8 has no pair 3");
    EXPECT_EQ(client.counters(8, 1, 6), "flag 0x6 of a statistics query is not known");

    EXPECT_EQ(client.request(ZEL_API_POLICY_DELETE, 0, 7, nullptr), 0);
    EXPECT_EQ(client.request(ZEL_API_POLICY_DELETE, 0, 7, nullptr), service::error_not_found);
    EXPECT_EQ(client.request(12, 1, 7, nullptr), service::error_unsupported);
    EXPECT_EQ(client.request(ZEL_API_MATCH_UPDATE, 1, 8, nullptr), service::error_malformed);
    EXPECT_EQ(client.text, "match: the message ends too early: expected 23, found 0 (element 6, id 0, offset 44)");
    EXPECT_EQ(client.send(99, {0, 0, 0, 0}), service::error_unsupported);
    EXPECT_EQ(client.send(service::opcode_show, {0, 0, 0, 0}), service::error_malformed);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(lines_logged("refused"), 8u);
}

// A policy, a request and answers that travel in several packets.
TEST_F(ZeldTest, CountsForManyPairs)
{
    ASSERT_TRUE(start());
    Client client(address);
    constexpr uint32_t num_pairs = 8000;
    std::string pairs;
    for (uint32_t id = 0; id < num_pairs; ++id)
        pairs += fmt::format("{}@1:{}={}/ ", id, id, id);
    ASSERT_EQ(client.set(*policy(0, pairs)), 0);

    std::mt19937 random(3);
    std::vector<std::pair<uint64_t, uint64_t>> expected(num_pairs);
    std::vector<PacketHeader> packets(20000);
    for (PacketHeader &packet : packets) {
        packet.ether_type = static_cast<uint16_t>(random() % (num_pairs + 100));
        packet.bytes = static_cast<uint32_t>(random() % 1500);
        if (packet.ether_type < num_pairs) {
            ++expected[packet.ether_type].first;
            expected[packet.ether_type].second += packet.bytes;
        }
    }
    ASSERT_EQ(client.traffic(packets), 0);
    std::string line;
    for (uint32_t id = 0; id < num_pairs; ++id)
        line += fmt::format("0/{} {} {}, ", id, expected[id].first, expected[id].second);
    EXPECT_EQ(client.counters(0, service::stat_all), line);
    EXPECT_EQ(client.shown(), fmt::format("0: {}|; ", pairs));
}

// A query that clears is followed by one that is refused: no counter is cleared.
TEST_F(ZeldTest, RefusedStatisticsClearNothing)
{
    ASSERT_TRUE(start());
    Client client(address);
    ASSERT_EQ(client.set(*policy(1, "1@1:1=1/ 2@1:2=2/")), 0);
    std::vector<PacketHeader> packets(3);
    packets[0].ether_type = 1, packets[1].ether_type = packets[2].ether_type = 2;
    ASSERT_EQ(client.traffic(packets), 0);
    const zel_stat_request_entry_t clearing{0, 0, 0, service::stat_all, service::stat_all, service::stat_flag_clear};
    const std::pair<zel_stat_request_entry_t, const char *> refused[] = {
        {{0, 0, 0, 1, 3, 0}, "policy 1 has no pair 3"},
        {{0, 0, 0, 9, 1, 0}, "application 1 has no policy 9"},
        {{0, 0, 0, 1, 1, 6}, "flag 0x6 of a statistics query is not known"},
    };
    for (const auto &[query, text] : refused)
        EXPECT_EQ(client.counters({clearing, query}), text);
    EXPECT_EQ(client.counters({clearing, clearing}), "1/1 1 0, 1/2 2 0, 1/1 1 0, 1/2 2 0, ");
    EXPECT_EQ(client.counters({clearing}), "1/1 0 0, 1/2 0 0, ");
    EXPECT_EQ(lines_logged("refused"), 3u);
}

// A whole policy comes back as the bytes that arrived; other policies as the library encodes them.
TEST_F(ZeldTest, ShowsTheBytesThatArrived)
{
    ASSERT_TRUE(start({"--state", state_file, "--log-level", "warn"}));
    Client client(address);
    const auto send = [&](const Bytes &message) { return client.send(ZEL_KOB_OPC_MP_REQUEST, message); };
    // An ACL's last byte is not kept in a graph, so only the bytes themselves have it.
    const auto one = policy(5, "1@1:1=1,2=2/1=1 2@2:1=1/1=1 |4");
    zel_match_t &acl = *one->match_action_pair_group.pairs[0]->match_group.matches[1];
    acl.type = ZEL_MATCH_TYPE_ACL;
    memset(acl.param.acl.acl, 'a', sizeof acl.param.acl.acl);
    const Bytes original = write_policy(1, *one);
    ASSERT_EQ(send(original), 0) << client.text;
    EXPECT_EQ(client.shown_messages(), (std::vector<Bytes>{original}));

    // A policy with an unknown element is encoded without it. Their number is logged.
    const Bytes known = write_policy(1, *policy(6, "1@1:1=1/"));
    ASSERT_EQ(send(with_unknown_element(known)), 0) << client.text;
    EXPECT_EQ(client.shown_messages(6), (std::vector<Bytes>{known}));
    EXPECT_EQ(lines_logged(" 1 unknown elements were ignored"), 1u);
    const auto part = policy(6, "2@1:1=2/");
    EXPECT_EQ(client.request(ZEL_API_MATCH_UPDATE, service::op_code_set, 6, part_of(*part, ZEL_API_MATCH_UPDATE)), 0);
    std::vector<Bytes> expected{original, write_policy(1, *policy(6, "1@1:1=2/"))};
    EXPECT_EQ(client.shown_messages(), expected);

    // Each policy of a list becomes a message of its own.
    const auto first = policy(7, "1@1:1=8/");
    const auto second = policy(8, "1@1:1=8/ 2@1:1=8/");
    zel_policy_t *policies[] = {first.get(), second.get()};
    const zel_policy_list_t list{2, policies};
    EXPECT_EQ(client.request(ZEL_API_POLICY_LIST_UPDATE, service::op_code_set, 0, &list), 0);
    expected.insert(expected.end(), {write_policy(1, *first), write_policy(1, *second)});
    EXPECT_EQ(client.shown_messages(), expected);

    EXPECT_EQ(stop(), 0);
    ASSERT_TRUE(start({"--state", state_file}));
    EXPECT_EQ(Client(address).shown_messages(), expected);
}

// Each policy that is accepted can be shown, up to the last byte of an answer.
TEST_F(ZeldTest, AcceptedPoliciesCanBeShown)
{
    constexpr uint32_t max_message = 4096;
    ASSERT_TRUE(start({"--max-message", std::to_string(max_message)}));
    Client client(address);
    std::string interfaces = "|1";
    size_t size = 0;
    int error = 0;
    while ((error = client.set(*policy(1, interfaces))) == 0) {
        const std::vector<Bytes> shown = client.shown_messages(1);
        ASSERT_EQ(shown.size(), 1u) << client.text;
        size = shown[0].size();
        interfaces += " 1";
    }
    EXPECT_EQ(error, service::error_limit);
    EXPECT_GT(size, max_message - ZEL_RESP_HDR_SIZE - 100);
    EXPECT_EQ(client.set(*policy(2, "")), 0);
    EXPECT_EQ(client.shown().substr(0, 18), "the policies take ");
    EXPECT_EQ(client.shown(2), "2: |; ");
}

TEST_F(ZeldTest, HostileClientsHarmNobody)
{
    ASSERT_TRUE(start({"--log-level", "warn"}));
    Client good(address, 9);
    ASSERT_EQ(good.set(*policy(1, "1@1:1=1/")), 0);
    std::mt19937 random(5);
    const auto below = [&](uint32_t n) { return [&random, n] { return static_cast<uint32_t>(random() % n); }; };

    size_t num_refused = 0;
    size_t resident = 0;
    for (int round = 0; round < 1200; ++round) {
        if (round == 400) // all buffers have been allocated by then
            resident = resident_kilobytes(pid);
        // A message of any kind with some bits changed.
        const uint32_t kind = 1 + below(11)();
        const uint32_t mat_type = get_mat_obj_type(kind);
        const AnyGraph graph(Graphs(below(4), below(40)).make(mat_type), FreeAnyGraph{mat_type});
        Client bad(address, 8);
        const zel_kob_header_t header{kind, 8, static_cast<uint16_t>(below(3)()), 1 + below(3)()};
        Bytes message(4 + zel_kob_header_get_tlv_sz() +
                      get_mat_obj_size_for_kob(&bad.handle, 8, mat_type, graph.get()));
        const auto size = static_cast<uint32_t>(message.size());
        zel_add_kob_header_to_tlv(&bad.handle, message.data(), size, &header);
        assemble_mat_obj_for_kob(&bad.handle, 8, message.data(), size, mat_type, graph.get());
        for (uint32_t changes = below(4)(); changes != 0; --changes)
            message[4 + below(size - 4)()] ^= static_cast<unsigned char>(1 << below(8)());
        const int error = bad.send(ZEL_KOB_OPC_MP_REQUEST, message);
        EXPECT_GE(error, 0); // each message is answered
        num_refused += error > 0 ? 1 : 0;

        // Bytes that are not a packet; a message that is not finished; a connection without bytes.
        const int socket = connect_raw(address);
        const zel::platform::Frame half{
            zel::platform::frame_magic, zel::platform::FrameKind::request, 1, 1, 0, 0, 0, 1 << 20, 0};
        if (round % 3 != 0) {
            std::string bytes(reinterpret_cast<const char *>(&half), sizeof half);
            for (uint32_t n = below(5000)() + 1; n != 0; --n)
                bytes += static_cast<char>(random());
            (void)::send(socket, bytes.data() + round % 3 - 1, bytes.size() - 1, MSG_NOSIGNAL);
        }
        close(socket);
    }
    EXPECT_GT(num_refused, 400u);
    std::vector<int> sockets(100);
    std::generate(sockets.begin(), sockets.end(), [&] { return connect_raw(address); });
    std::for_each(sockets.begin(), sockets.end(), close);

    EXPECT_EQ(good.shown(), "1: 1@1:1=1/ |; ");
    if (!keeps_freed_memory) {
        EXPECT_LT(resident_kilobytes(pid), resident + 4096);
    }
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(lines_logged(": refused, error"), num_refused);
}

// A client whose request takes long: many packets against as many policies.
class LongRequest {
public:
    explicit LongRequest(const std::string &address)
    {
        Client client(address, 50);
        std::vector<Owned<zel_policy_t>> policies;
        std::vector<zel_policy_t *> pointers;
        for (uint16_t id = 0; id < 20000; ++id) {
            policies.push_back(policy(id, "1@1:1=1,2=2/"));
            pointers.push_back(policies.back().get());
        }
        const zel_policy_list_t list{static_cast<uint16_t>(pointers.size()), pointers.data()};
        EXPECT_EQ(client.request(ZEL_API_POLICY_LIST_UPDATE, service::op_code_set, 0, &list), 0) << client.text;
        thread_ = std::thread([this, address] {
            Client asking(address, 50);
            is_sent_ = true;
            error_ = asking.traffic(std::vector<PacketHeader>(10000));
            is_answered_ = true;
        });
        while (!is_sent_)
            usleep(1000);
    }
    ~LongRequest() { wait(); }
    LongRequest(const LongRequest &) = delete;

    bool is_answered() const { return is_answered_; }
    int wait()
    {
        if (thread_.joinable())
            thread_.join();
        return error_;
    }

private:
    std::atomic<bool> is_sent_{false};
    std::atomic<bool> is_answered_{false};
    int error_ = 0;
    std::thread thread_;
};

// While a long request is done, others are served and the service sends its heartbeats.
TEST_F(ZeldTest, NobodyWaitsForALongRequest)
{
    const int manager = bind_manager();
    setenv("WATCHDOG_USEC", "40000", 1); // a message in 10 ms
    ASSERT_TRUE(start());
    unsetenv("WATCHDOG_USEC");
    LongRequest long_request(address);
    Client client(address);
    size_t num_served = 0;
    for (uint16_t id = 0; id < 100; ++id) {
        EXPECT_EQ(client.set(*policy(id, "1@1:1=1/")), 0);
        EXPECT_NE(client.shown(id), "");
        num_served += long_request.is_answered() ? 0 : 1;
    }
    EXPECT_EQ(num_served, 100u);
    while (signs_of_life(manager) > 0) // those from before
        continue;
    size_t num_signs = 0;
    for (int i = 0; i < 100 && !long_request.is_answered(); ++i) {
        usleep(10000);
        num_signs += signs_of_life(manager);
    }
    EXPECT_FALSE(long_request.is_answered()); // there was no other reason for the signs
    EXPECT_GT(num_signs, 20u);
    // It stops at once.
    EXPECT_EQ(stop(), 0);
    EXPECT_LT(long_request.wait(), 0);
    close(manager);
}

// The answer comes, although the client sends more requests than are looked at at a time.
TEST_F(ZeldTest, RequestsOfOneClientAreAnsweredInTheirOrder)
{
    ASSERT_TRUE(start());
    Client client(address);
    std::vector<uint32_t> tokens(200);
    for (uint16_t id = 0; id < tokens.size(); ++id)
        send_to_zel(&tokens[id], ZEL_API_POLICY_UPDATE, &client.handle, id, policy(id, "").get(), 1, client.msg);
    for (const uint32_t token : tokens) {
        ASSERT_EQ(kob_receive(client.kob, 0, client.msg, -1), KOB_OK);
        EXPECT_EQ(kob_rr_token_get(client.msg), token);
    }
    EXPECT_EQ(client.shown_messages().size(), tokens.size());
}

// Changes of several clients share a sync. Each client has its own answer.
TEST_F(ZeldTest, ChangesShareASync)
{
    FailingCalls calls(folder + "/calls");
    ASSERT_TRUE(start({"--state", state_file, "--log-level", "warn"}));
    constexpr uint32_t num_clients = 20;
    constexpr uint16_t num_changes = 50;
    const uint64_t before = calls->syncs;
    std::vector<std::thread> threads;
    std::atomic<int> num_refused{0};
    for (uint32_t app = 1; app <= num_clients; ++app)
        threads.emplace_back([&, app] {
            Client client(address, app);
            for (uint16_t id = 0; id < num_changes; ++id) {
                num_refused += client.set(*policy(id, "1@1:1=1/")) != 0 ? 1 : 0;
                num_refused += client.request(ZEL_API_POLICY_DELETE, 1, 999, nullptr) != 0 ? 1 : 0;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(num_refused, static_cast<int>(num_clients * num_changes));
    EXPECT_LT(calls->syncs - before, num_clients * num_changes / 2);
    kill_it();
    ASSERT_TRUE(start({"--state", state_file}));
    for (uint32_t app = 1; app <= num_clients; ++app)
        EXPECT_EQ(Client(address, app).shown_messages().size(), num_changes);
}

// Connections that say nothing make room for those that do.
TEST_F(ZeldTest, SilentConnectionsShutNobodyOut)
{
    ASSERT_TRUE(start({"--max-clients", "8"}));
    Client good(address);
    ASSERT_EQ(good.set(*policy(1, "")), 0);
    std::vector<int> sockets(20);
    std::generate(sockets.begin(), sockets.end(), [&] { return connect_raw(address); });
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Client(address).shown(), "1: |; ");
    EXPECT_EQ(good.set(*policy(2, "")), 0);
    EXPECT_GT(lines_logged("refused by the transport: idle, and others came (pid "), 10u);
    std::for_each(sockets.begin(), sockets.end(), close);
}

TEST_F(ZeldTest, ClientsWithoutDescriptorAreTold)
{
    ASSERT_TRUE(start());
    const rlimit few{16, 16};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &few, nullptr), 0);
    std::deque<Client> clients;
    int num_busy = 0;
    for (int i = 0; i < 20; ++i) {
        const int error = clients.emplace_back(address).set(*policy(1, "1@1:1=1/"));
        EXPECT_TRUE(error == 0 || error == -KOB_ERR_BUSY) << error;
        num_busy += error != 0 ? 1 : 0;
    }
    EXPECT_GT(num_busy, 0);
    EXPECT_LT(num_busy, 20);
    EXPECT_GE(lines_logged("no descriptor for a connection"), 1u);
}

// The service goes on when its log is not read, when the log's reader has ended, and when one
// client causes very many lines.
TEST_F(ZeldTest, NobodyWaitsForTheLog)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
    log = ends[1];
    ASSERT_TRUE(start());
    Client client(address);
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(client.set(*policy(1, "")), 0);
    char text[4096];
    EXPECT_GT(read(ends[0], text, sizeof text), 1000);
    ASSERT_EQ(client.set(*policy(1, "")), 0);
    const auto size = static_cast<size_t>(read(ends[0], text, sizeof text));
    EXPECT_NE(std::string_view(text, size).find(" lines were dropped\n"), std::string_view::npos);
    close(ends[0]);
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(client.set(*policy(1, "")), 0);
    EXPECT_EQ(stop(), 0);
    close(ends[1]);

    log = -1;
    ASSERT_TRUE(start());
    for (uint32_t i = 0; i < lines_at_once + 3000; ++i)
        ASSERT_EQ(Client(address).request(ZEL_API_POLICY_DELETE, 1, 7, nullptr), service::error_not_found);
    EXPECT_LT(lines_logged("refused, error"), lines_at_once + 2000);
    EXPECT_EQ(lines_logged(fmt::format("(pid {}, uid {}): policy_delete set, application 1, policy 7: refused, error 3",
                                       getpid(), getuid())),
              lines_logged("refused, error"));
    usleep(100000);
    (void)client.request(ZEL_API_POLICY_DELETE, 1, 7, nullptr);
    EXPECT_GT(lines_logged(fmt::format(" lines about user {} were left out", getuid())), 0u);
}

// The sockets' files, and what the second one is for.
TEST_F(ZeldTest, ReadersHaveASocketOfTheirOwn)
{
    const std::string readers = "unix:" + folder + "/read";
    const uint32_t group = getuid() == 0 ? 12345 : getgid();
    ASSERT_TRUE(start({"--listen-read", readers, "--mode", "660", "--group", std::to_string(group)}));
    for (const char *const name : {"/sock", "/read"}) {
        struct stat file {};
        ASSERT_EQ(stat((folder + name).c_str(), &file), 0);
        EXPECT_EQ(file.st_mode & 07777, 0660u);
        EXPECT_EQ(file.st_gid, group);
    }
    EXPECT_EQ(Client(address).set(*policy(1, "1@1:1=1/")), 0);
    Client reader(readers);
    EXPECT_EQ(reader.shown(), "1: 1@1:1=1/ |; ");
    EXPECT_EQ(reader.counters(1, 1), "1/1 0 0, ");
    EXPECT_EQ(reader.counters(1, 1, service::stat_flag_clear), "counters cannot be cleared at this address");
    EXPECT_EQ(reader.set(*policy(1, "")), service::error_denied);
    EXPECT_EQ(reader.request(ZEL_API_POLICY_DELETE, 1, 1, nullptr), service::error_denied);
    EXPECT_EQ(reader.traffic({PacketHeader{}}), service::error_denied);
    EXPECT_EQ(reader.shown(), "1: 1@1:1=1/ |; ");
    EXPECT_EQ(stop(), 0);
    EXPECT_FALSE(start({"--mode", "8"}));
    EXPECT_EQ(exit_code(), 2);
    EXPECT_FALSE(start({"--group", "no-such-group"}));
    EXPECT_EQ(exit_code(), 2);
    EXPECT_FALSE(start({"--listen-read", "unix:" + folder + "/no/such/folder"}));
    EXPECT_EQ(exit_code(), 3);
}

// What is refused because it is large is not made first.
TEST_F(ZeldTest, RefusedAnswersTakeNoMemory)
{
    ASSERT_TRUE(start({"--log-level", "error"}));
    Client client(address);
    std::string pairs;
    for (int id = 0; id < 4000; ++id)
        pairs += fmt::format("{}@1:{}=1/ ", id, id);
    for (uint16_t id = 0; id < 30; ++id) {
        ASSERT_EQ(client.set(*policy(id, pairs)), 0);
        const auto part = policy(id, "1@1:7=2/"); // so that the message is not there
        ASSERT_EQ(client.request(ZEL_API_MATCH_UPDATE, 1, id, part_of(*part, ZEL_API_MATCH_UPDATE)), 0);
    }
    const size_t before = status_kilobytes(pid, "VmHWM:");
    EXPECT_EQ(client.shown().substr(0, 18), "the policies take ");
    if (!keeps_freed_memory) {
        EXPECT_LT(status_kilobytes(pid, "VmHWM:"), before + 1024);
    }
    EXPECT_EQ(client.shown(3).substr(0, 9), "3: 0@1:0=");
}

TEST_F(ZeldTest, TellsTheSystemManager)
{
    const int manager = bind_manager();
    ASSERT_TRUE(start());
    std::set<std::string> told;
    while (told.size() < 2) {
        char text[64];
        told.emplace(text, static_cast<size_t>(recv(manager, text, sizeof text, 0)));
    }
    close(manager);
    EXPECT_EQ(told, (std::set<std::string>{"READY=1", "WATCHDOG=1"}));
    kill(pid, SIGINT);
    EXPECT_EQ(exit_code(), 0);
    EXPECT_FALSE(std::filesystem::exists(folder + "/sock"));
}
