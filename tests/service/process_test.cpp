// zeld as its clients see it: requests, restarts, and company of the worst kind.
#include "reference/kob/frame.hpp"
#include "reference/kob/unix/socket.hpp"
#include "support/graphs.hpp"
#include "tools/zeld/store.hpp"
#include "zeld_process.hpp"

#include <map>
#include <random>
#include <set>
#include <sys/resource.h>
#include <thread>

using namespace test;
using service::PacketHeader;

namespace {

// Raw packets to the service's socket, as no library of ours would send them.
int connect_raw(const std::string &address)
{
    const sockaddr_un where = zel::platform::socket_address(address.c_str() + 5);
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    (void)connect(socket, reinterpret_cast<const sockaddr *>(&where), sizeof where);
    return socket;
}

// As the address sanitizer does.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool keeps_freed_memory = true;
#else
constexpr bool keeps_freed_memory = false;
#endif

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
    EXPECT_EQ(client.set(*policy(8, "1@1:9=90/9=8 2@1:9=90/9=8 ")), 0);
    EXPECT_EQ(client.shown(), "7: 1@1:1=80/1=9 2@4:2=81/ |5; 8: 1@1:9=90/9=8 2@1:9=90/9=8 |; ");
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

TEST_F(ZeldTest, CountsAsTheRulesSay)
{
    ASSERT_TRUE(start());
    Client client(address);
    std::mt19937 random(3);
    const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    struct Rule {
        uint32_t sip, sip_mask, dip, dip_mask;
        uint16_t dport;
    };
    std::vector<Rule> rules;
    Owned<zel_policy_t> filter(allocate<zel_policy_t>(1));
    for (uint16_t id = 0; id < 8000; ++id) {
        const auto mask = [&] { return ~0u << below(20); };
        rules.push_back({below(1 << 16), mask(), below(1 << 16), mask(), static_cast<uint16_t>(below(3))});
        const Rule &rule = rules.back();
        Owned<zel_match_action_pair_t> pair(allocate<zel_match_action_pair_t>(1));
        Owned<zel_match_t> match(allocate<zel_match_t>(1));
        pair->id = match->id = id;
        match->type = ZEL_MATCH_TYPE_SERVICE_ELEMENT;
        const auto port_mask = static_cast<uint16_t>(rule.dport == 0 ? 0 : 0xffff);
        match->param.service_element = {rule.sip,   rule.sip_mask, rule.dip, rule.dip_mask, 0, 0,
                                        rule.dport, port_mask,     6};
        append(pair->match_group, std::move(match));
        append(filter->match_action_pair_group, std::move(pair));
    }
    ASSERT_EQ(client.set(*filter), 0);

    std::map<size_t, std::pair<uint64_t, uint64_t>> expected;
    std::vector<PacketHeader> packets(20000);
    for (PacketHeader &packet : packets) {
        packet.sip = below(1 << 16), packet.dip = below(1 << 16), packet.dport = static_cast<uint16_t>(below(4));
        packet.protocol = below(4) == 0 ? 17 : 6, packet.bytes = below(1500);
        const auto matches = [&](const Rule &rule) {
            return packet.protocol == 6 && (packet.sip & rule.sip_mask) == (rule.sip & rule.sip_mask) &&
                   (packet.dip & rule.dip_mask) == (rule.dip & rule.dip_mask) &&
                   (rule.dport == 0 || rule.dport == packet.dport);
        };
        const auto first = std::find_if(rules.begin(), rules.end(), matches);
        if (first == rules.end())
            continue;
        auto &[count, bytes] = expected[static_cast<size_t>(first - rules.begin())];
        ++count, bytes += packet.bytes;
    }
    ASSERT_EQ(client.traffic(packets), 0);
    std::string line;
    for (size_t id = 0; id < rules.size(); ++id)
        line += fmt::format("0/{} {} {}, ", id, expected[id].first, expected[id].second);
    EXPECT_EQ(client.counters(0, service::stat_all), line);
    EXPECT_GT(expected.size(), 100u);
}

TEST_F(ZeldTest, StateOutlivesTheProcess)
{
    ASSERT_TRUE(start({"--state", state_file}));
    const auto kept = policy(1, "1@1:1=1/ 2@1:1=1/ |4");
    EXPECT_EQ(Client(address).set(*kept), 0);
    EXPECT_EQ(Client(address).set(*policy(2, "")), 0);
    EXPECT_EQ(Client(address).request(ZEL_API_POLICY_DELETE, 1, 2, nullptr), 0);
    // The file is this process's, and so is the address.
    const pid_t first = std::exchange(pid, 0);
    EXPECT_FALSE(start({"--state", state_file}));
    EXPECT_EQ(exit_code(), 4);
    EXPECT_FALSE(start());
    EXPECT_EQ(exit_code(), 3);
    pid = first;
    EXPECT_EQ(stop(), 0);

    ASSERT_TRUE(start({"--state", state_file}));
    Client client(address);
    EXPECT_EQ(client.shown(), "1: 1@1:1=1/ 2@1:1=1/ |4; ");
    // The disk is full: the change is refused, and is not there afterwards either.
    rlimit limit{0, RLIM_INFINITY};
    ASSERT_EQ(prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
    EXPECT_EQ(client.set(*policy(1, "9@9:/")), service::error_storage);
    EXPECT_EQ(client.request(ZEL_API_POLICY_DELETE, 1, 1, nullptr), service::error_storage);
    EXPECT_EQ(client.shown(), "1: 1@1:1=1/ 2@1:1=1/ |4; ");
    limit.rlim_cur = RLIM_INFINITY;
    ASSERT_EQ(prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
    EXPECT_EQ(client.set(*policy(3, "")), 0);
    EXPECT_EQ(stop(), 0);

    const Bytes garbage(40, 1);
    Store(state_file).apply({{{1, 4}, &garbage}});
    EXPECT_FALSE(start({"--state", state_file}));
    EXPECT_EQ(exit_code(), 4);
    EXPECT_EQ(lines_logged("policy 4 of application 1 is damaged"), 1u);
}

// Policy i of round r has the pair r: what was acknowledged is there after the
// kill, and the one request that was not answered is done whole or not at all.
TEST_F(ZeldTest, AcknowledgedIsKeptWhenKilled)
{
    std::mt19937 random(11);
    std::map<uint16_t, std::set<std::string>> possible; // the texts that a policy may have
    for (uint16_t round = 1; round <= 12; ++round) {
        ASSERT_TRUE(start({"--state", state_file, "--log-level", "error"}));
        Client client(address);
        for (const auto &[id, texts] : possible)
            EXPECT_TRUE(texts.contains(client.shown(id))) << id << " is " << client.shown(id);
        std::thread killer([&, delay = random() % 60] {
            usleep(static_cast<useconds_t>(delay * 1000));
            kill(pid, SIGKILL);
        });
        int error = 0;
        for (uint16_t i = 0; error == 0; i = static_cast<uint16_t>((i + 1) % 40)) {
            const auto one = policy(i, fmt::format("{}@1:{}=1/", round, i));
            error = client.set(*one);
            EXPECT_LE(error, 0) << client.text; // without an answer, the transport says so
            if (error == 0)
                possible[i].clear();
            else if (possible[i].empty())
                possible[i].insert(fmt::format("application 1 has no policy {}", i));
            possible[i].insert(fmt::format("{}: {}; ", i, text_of(*one)));
        }
        killer.join();
        EXPECT_EQ(exit_code(), -SIGKILL);
    }
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
        if (round == 400) // by when everything has been in use once
            resident = resident_kilobytes(pid);
        // A message of any kind, in which some bytes have been changed.
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
        EXPECT_GE(error, 0); // it is answered in any case
        num_refused += error > 0 ? 1 : 0;

        // Bytes that are no packet; a message that is never finished; somebody who is just gone.
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

TEST_F(ZeldTest, TwoClientsAtOnce)
{
    ASSERT_TRUE(start({"--log-level", "warn"}));
    const auto work = [&](uint32_t app) {
        Client client(address, app);
        for (uint16_t i = 0; i < 300; ++i)
            EXPECT_EQ(client.set(*policy(i % 3, fmt::format("{}@{}:{}={}/", i, app, i, app))), 0);
    };
    std::thread one(work, 1);
    std::thread two(work, 2);
    one.join();
    two.join();
    EXPECT_EQ(Client(address, 1).shown(), "0: 297@1:297=1/ |; 1: 298@1:298=1/ |; 2: 299@1:299=1/ |; ");
    EXPECT_EQ(Client(address, 2).shown(), "0: 297@2:297=2/ |; 1: 298@2:298=2/ |; 2: 299@2:299=2/ |; ");
    EXPECT_EQ(stop(), 0);
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
