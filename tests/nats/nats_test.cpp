// Clients and services that meet at a real NATS server.
#include "../platform/transport_support.hpp"
#include "nats_server.hpp"
#include "reference/kob/frame.hpp"
#include "zel-nats.h"

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <random>

namespace {

using Clock = std::chrono::steady_clock;

int64_t ms_since(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

struct Service {
    explicit Service(const std::string &address, const kob_service_options_t &given = {}) : options(given)
    {
        options.on_refusal = [](void *to, uint32_t, const char *why) { static_cast<Refusals *>(to)->push_back(why); };
        options.context = &refusals;
        service = kob_service_open(address.c_str(), &options, &error);
    }
    ~Service() { close(); }

    void close() { kob_service_close(std::exchange(service, nullptr)); }

    int32_t receive(int32_t timeout_ms = 5000) { return kob_service_receive(service, msg.get(), timeout_ms); }
    int32_t reply(const Bytes &bytes)
    {
        const mpkob_segment_t segments[] = {{bytes.data(), 4},
                                            {bytes.data() + 4, static_cast<uint32_t>(bytes.size() - 4)}};
        return kob_service_reply(service, msg.get(), segments, 2);
    }

    kob_service_options_t options;
    Refusals refusals;
    int32_t error = KOB_OK;
    kob_service_t *service = nullptr;
    Message msg{kob_msg_alloc(), kob_msg_free};
};

struct Client {
    explicit Client(const std::string &address, const kob_client_options_t &options = {3000, 0, 0})
        : kob(kob_open(address.c_str(), &options, &error))
    {}
    ~Client() { kob_close(kob); }

    int32_t send(const Bytes &bytes)
    {
        const mpkob_segment_t whole{bytes.data(), static_cast<uint32_t>(bytes.size())};
        return bytes.size() > KOB_PLAIN_LIMIT ? mpkob_send(kob, 1, 2, 3, &whole, 1, msg.get(), 0)
                                              : fu_kob_send(kob, 1, 2, 3, bytes.data(), whole.length, msg.get(), 0, 0);
    }
    int32_t receive() { return kob_receive(kob, kob_rr_token_get(msg.get()), msg.get(), -1); }
    int32_t request(const Bytes &bytes)
    {
        const int32_t result = send(bytes);
        return result == KOB_OK ? receive() : result;
    }

    int32_t error = KOB_OK;
    uint32_t kob;
    Message msg{kob_msg_alloc(), kob_msg_free};
};

// Serves a number of requests, each with an answer of its own size.
void serve(Service &service, int count)
{
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(service.receive(), KOB_OK);
        ASSERT_EQ(service.reply(response_of(kob_msg_size(service.msg.get()))), KOB_OK);
    }
}

struct NatsTest : testing::Test {
    NatsTest() { EXPECT_EQ(zel_nats_enable(nullptr), KOB_OK); }
};

TEST_F(NatsTest, AddressesThatAreUnderstood)
{
    const std::pair<const char *, bool> cases[] = {
        {"nats://h/s", true},          {"tls://a.example:4222,b:1/zel.node.7", true},
        {"nats://[::1]:4222/s", true}, {"nats:/h/s", false},
        {"nats://h", false},           {"nats://h/", false},
        {"nats:///s", false},          {"nats://h,/s", false},
        {"nats://h/a..b", false},      {"nats://h/a.", false},
        {"nats://h/a.*", false},       {"nats://h/>", false},
        {"nats://h/a b", false},       {"nats://user:secret@h/s", false},
        {"nats://h/s@x", false},       {"nats://1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16/s", true},
        {"nats://h/a,b", true},        {"nats://h/a,", false},
        {"ftp://h/s", false},          {"nats://1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17/s", false},
    };
    for (const auto &[address, is_understood] : cases)
        EXPECT_EQ(Client(address).error, is_understood ? KOB_OK : KOB_ERR_ADDRESS) << address;
    EXPECT_EQ(Client(("nats://h/" + std::string(200, 's')).c_str()).error, KOB_ERR_ADDRESS);
}

// The second server's limit is below a plain message, and below a part of a local socket.
TEST_F(NatsTest, MessagesOfAllSizesTravelBothWays)
{
    for (const char *const config : {"", "max_payload: 40000\n"}) {
        const NatsServer server(config);
        Service service(server.address("zel.sizes"));
        Client client(server.address("zel.sizes"), {20000, 0, 0});
        for (const uint32_t size :
             {4U, 100U, 40000U, KOB_PLAIN_LIMIT - 268, KOB_PLAIN_LIMIT, KOB_PLAIN_LIMIT + 1, 9000000U}) {
            std::thread serving(serve, std::ref(service), 1);
            EXPECT_EQ(client.request(array_of(size)), KOB_OK) << size;
            serving.join();
            EXPECT_TRUE(payload(service.msg) == array_of(size)) << size;
            EXPECT_TRUE(payload(client.msg) == response_of(size)) << size;
            EXPECT_EQ(kob_msg_opcode(service.msg.get()), 3U);
        }
        EXPECT_EQ(service.refusals, Refusals{});
    }
}

TEST_F(NatsTest, AnAbsentServiceIsReportedAtOnceAndFoundLater)
{
    NatsServer server;
    Client client(server.address("zel.late"));
    const auto start = Clock::now();
    EXPECT_EQ(client.request(array_of(3000000)), KOB_ERR_ABSENT) << "one report for all parts";
    EXPECT_EQ(client.request(array_of(4)), KOB_ERR_ABSENT);
    EXPECT_LT(ms_since(start), 2000);
    Service service(server.address("zel.late"));
    std::thread serving(serve, std::ref(service), 1);
    EXPECT_EQ(client.request(array_of(4)), KOB_OK);
    serving.join();
}

TEST_F(NatsTest, FailuresHaveTheCodesOfTheTransport)
{
    NatsServer server;
    const std::string address = server.address("zel.fail");
    Service service(address, {5000, 0, 0, 0, 0, 0, nullptr, nullptr, 0, 0, 0});
    Client client(address, {300, 0, 0});
    EXPECT_EQ(client.request(array_of(4)), KOB_ERR_TIMEOUT) << "nobody takes the request";
    ASSERT_EQ(service.receive(), KOB_OK);
    EXPECT_EQ(client.send(array_of(6000)), KOB_OK);
    EXPECT_EQ(service.receive(100), KOB_ERR_TIMEOUT);
    EXPECT_EQ(client.receive(), KOB_ERR_TOO_LARGE);
    EXPECT_EQ(client.send(Bytes(100, 0xff)), KOB_OK);
    EXPECT_EQ(service.receive(100), KOB_ERR_TIMEOUT);
    EXPECT_EQ(client.receive(), KOB_ERR_BAD_FRAME);

    EXPECT_EQ(client.send(array_of(4)), KOB_OK);
    server.kill_it();
    EXPECT_EQ(client.receive(), KOB_ERR_PEER_GONE);
    EXPECT_EQ(client.request(array_of(4)), KOB_ERR_ABSENT) << "no server";
    EXPECT_EQ(Service(address).error, KOB_ERR_ABSENT);
    server.start();
    int32_t result = KOB_ERR_ABSENT;
    std::atomic<bool> is_done = false;
    std::thread serving([&] {
        while (!is_done) {
            if (service.receive(50) == KOB_OK)
                (void)service.reply(response_of(4));
        }
    });
    for (const auto start = Clock::now(); result != KOB_OK && ms_since(start) < 5000;)
        result = client.request(array_of(4));
    is_done = true;
    serving.join();
    EXPECT_EQ(result, KOB_OK) << "both have found the server again";
}

TEST_F(NatsTest, ASubjectHasOneServiceAndFurtherOnesAreShared)
{
    const NatsServer server;
    const std::string address = server.address("zel.one");
    {
        Service first(address);
        EXPECT_EQ(first.error, KOB_OK);
        EXPECT_EQ(Service(address).error, KOB_ERR_IN_USE);
    }
    EXPECT_EQ(Service(address).error, KOB_OK) << "free again";
    for (int round = 0; round < 5; ++round) {
        std::vector<std::unique_ptr<Service>> services(4);
        std::vector<std::thread> starts;
        for (auto &service : services)
            starts.emplace_back([&] { service = std::make_unique<Service>(address); });
        for (std::thread &start : starts)
            start.join();
        EXPECT_LE(std::count_if(services.begin(), services.end(), [](auto &s) { return s->error == KOB_OK; }), 1);
    }
    Service one(server.address("zel.node.1,zel.group.g")), two(server.address("zel.node.2,zel.group.g"));
    EXPECT_TRUE(one.error == KOB_OK && two.error == KOB_OK);
    Client client(server.address("zel.group.g"));
    ASSERT_EQ(client.send(array_of(4)), KOB_OK);
    serve(one, 1);
    serve(two, 1);
    EXPECT_TRUE(client.receive() == KOB_OK);
}

// ---- What an unfriendly or confused participant can do

struct Raw {
    explicit Raw(const NatsServer &server)
    {
        EXPECT_EQ(natsConnection_ConnectTo(&connection, server.url().c_str()), NATS_OK);
    }
    ~Raw() { natsConnection_Destroy(connection); }

    void send(const char *subject, const char *reply, const Bytes &bytes)
    {
        EXPECT_EQ(
            natsConnection_PublishRequest(connection, subject, reply, bytes.data(), static_cast<int>(bytes.size())),
            NATS_OK);
    }
    natsConnection *connection = nullptr;
};

Bytes packet_of(const Bytes &payload, uint32_t offset, uint32_t length, uint32_t token)
{
    zel::platform::Frame frame{zel::platform::frame_magic,
                               zel::platform::FrameKind::request,
                               1,
                               token,
                               3,
                               1,
                               2,
                               static_cast<uint32_t>(payload.size()),
                               offset};
    Bytes bytes(sizeof frame + length);
    std::memcpy(bytes.data(), &frame, sizeof frame);
    std::memcpy(bytes.data() + sizeof frame, payload.data() + offset, length);
    return bytes;
}

TEST_F(NatsTest, ACopyOfARequestIsAnsweredAgainAndNotPassedOnAgain)
{
    const NatsServer server;
    Service service(server.address("zel.copy"));
    Raw raw(server);
    natsSubscription *answers = nullptr;
    ASSERT_EQ(natsConnection_SubscribeSync(&answers, raw.connection, "answers.*"), NATS_OK);
    const auto next_answer = [&](int wait = 2000) {
        natsMsg *msg = nullptr;
        std::string bytes = natsSubscription_NextMsg(&msg, answers, wait) == NATS_OK
                                ? std::string(natsMsg_GetData(msg), static_cast<size_t>(natsMsg_GetDataLength(msg)))
                                : "none";
        natsMsg_Destroy(msg);
        return bytes;
    };
    // In two parts, each of them and the whole repeated in between.
    const Bytes request = array_of(1000);
    for (const uint32_t offset : {0U, 0U, 600U, 0U, 600U})
        raw.send("zel.copy", "answers.1", packet_of(request, offset, offset == 0 ? 600 : 400, 1));
    ASSERT_EQ(service.receive(), KOB_OK);
    EXPECT_TRUE(payload(service.msg) == request);
    EXPECT_EQ(service.receive(200), KOB_ERR_TIMEOUT);
    ASSERT_EQ(service.reply(response_of(70)), KOB_OK);
    const std::string first = next_answer();
    EXPECT_EQ(first.size(), sizeof(zel::platform::Frame) + 268 + 70);
    for (const uint32_t offset : {0U, 600U})
        raw.send("zel.copy", "answers.1", packet_of(request, offset, offset == 0 ? 600 : 400, 1));
    EXPECT_EQ(service.receive(200), KOB_ERR_TIMEOUT);
    EXPECT_EQ(next_answer(), first);
    EXPECT_EQ(next_answer(100), "none");

    raw.send("zel.copy", "answers.2", packet_of(array_of(8), 0, 8, 2));
    ASSERT_EQ(service.receive(), KOB_OK);
    ASSERT_EQ(service.reply(response_of(2000000)), KOB_OK); // too large to be kept
    while (next_answer(300) != "none")
        continue;
    raw.send("zel.copy", "answers.2", packet_of(array_of(8), 0, 8, 2));
    EXPECT_EQ(service.receive(200), KOB_ERR_TIMEOUT);
    const std::string refusal = next_answer();
    ASSERT_EQ(refusal.size(), sizeof(zel::platform::Frame));
    EXPECT_EQ(reinterpret_cast<const zel::platform::Frame *>(refusal.data())->opcode, uint32_t{KOB_ERR_BUSY});
    natsSubscription_Destroy(answers);
}

TEST_F(NatsTest, HostilePacketsDoNoHarm)
{
    const NatsServer server;
    Service service(server.address("zel.hostile"), {100000, 0, 0, 300000, 200, 0, nullptr, nullptr, 0, 0, 0});
    Raw raw(server);
    std::mt19937 random(7);
    const Bytes request = array_of(50000);
    for (uint32_t i = 0; i < 20000; ++i) {
        const std::string reply = "nobody." + std::to_string(random() % 3000);
        Bytes bytes = packet_of(request, static_cast<uint32_t>(random() % 3) * 100,
                                static_cast<uint32_t>(random() % 300), static_cast<uint32_t>(random()));
        if (random() % 2 == 0)
            bytes[random() % bytes.size()] ^= static_cast<unsigned char>(1U << random() % 8);
        if (random() % 8 == 0)
            bytes.resize(random() % bytes.size());
        raw.send("zel.hostile", random() % 10 == 0 ? "zel.hostile" : reply.c_str(), bytes);
    }
    EXPECT_EQ(natsConnection_FlushTimeout(raw.connection, 5000), NATS_OK);
    for (const auto start = Clock::now(); ms_since(start) < 600;)
        (void)service.receive(10);
    EXPECT_FALSE(service.refusals.empty());
    Client client(server.address("zel.hostile"));
    std::thread serving(serve, std::ref(service), 1);
    EXPECT_EQ(client.request(array_of(5000)), KOB_OK);
    serving.join();
}

TEST_F(NatsTest, RightsThatTheServerDenies)
{
    const NatsServer server(R"(authorization { users = [
        { user: node, password: n, permissions: { publish: ["zel.node", "_INBOX.>"], subscribe: ["zel.node", "_INBOX.>"] } }
        { user: client, password: c, permissions: { publish: ["zel.node"], subscribe: ["mine.>"] } } ] })");
    const auto enable = [](const char *user, const char *password, const char *inbox) {
        zel_nats_options_t options{};
        options.user = user;
        options.password = password;
        options.inbox_prefix = inbox;
        EXPECT_EQ(zel_nats_enable(&options), KOB_OK);
    };
    enable("node", "wrong", nullptr);
    EXPECT_EQ(Service(server.address("zel.node")).error, KOB_ERR_DENIED);
    EXPECT_EQ(Client(server.address("zel.node")).request(array_of(4)), KOB_ERR_DENIED);
    enable("node", "n", nullptr);
    EXPECT_EQ(Service(server.address("zel.other")).error, KOB_ERR_DENIED);
    Service service(server.address("zel.node"));
    EXPECT_EQ(service.error, KOB_OK);
    enable("client", "c", nullptr);
    EXPECT_EQ(Client(server.address("zel.node")).request(array_of(4)), KOB_ERR_DENIED) << "answers elsewhere";
    enable("client", "c", "mine");
    EXPECT_EQ(Client(server.address("zel.other")).request(array_of(4)), KOB_ERR_DENIED);
    while (service.receive(100) == KOB_OK)
        continue;
    Client client(server.address("zel.node"));
    EXPECT_EQ(client.send(array_of(4)), KOB_OK);
    EXPECT_EQ(service.receive(), KOB_OK);
}

} // namespace
