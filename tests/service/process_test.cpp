// zeld as its clients see it: requests, limits, and hostile clients.
#include "reference/kob/frame.hpp"
#include "reference/kob/unix/socket.hpp"
#include "support/graphs.hpp"
#include "zeld_process.hpp"

#include <random>
#include <set>

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

size_t resident_kilobytes(pid_t pid)
{
    std::ifstream in(fmt::format("/proc/{}/status", pid));
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("VmRSS:"))
            return std::stoul(line.substr(6));
    return 0;
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

    // A policy with an unknown element is encoded without it. The element is logged once.
    const Bytes known = write_policy(1, *policy(6, "1@1:1=1/"));
    ASSERT_EQ(send(with_unknown_element(known)), 0) << client.text;
    EXPECT_EQ(client.shown_messages(6), (std::vector<Bytes>{known}));
    EXPECT_EQ(lines_logged("warn: libzel: "), 1u);
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

TEST_F(ZeldTest, TellsTheSystemManager)
{
    const std::string path = folder + "/notify";
    const sockaddr_un where = zel::platform::socket_address(path.c_str());
    const int manager = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    ASSERT_TRUE(start());
    unsetenv("NOTIFY_SOCKET");
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
