// Peers that break the rules: the other side says so, and goes on with the rest.
#include "reference/kob/frame.hpp"
#include "transport_support.hpp"

#include <list>
#include <poll.h>

using namespace zel::platform;

namespace {

// By itself a correct plain request.
struct Packet {
    uint32_t total = 8;
    uint32_t offset = 0;
    uint16_t in_parts = 0;
    uint32_t token = 7;
    FrameKind kind = FrameKind::request;
    Bytes content = array_of(8);

    operator Bytes() const
    {
        const Frame frame{frame_magic, kind, in_parts, token, 0, 0, 0, total, offset};
        Bytes bytes(sizeof frame);
        std::memcpy(bytes.data(), &frame, sizeof frame);
        bytes.insert(bytes.end(), content.begin(), content.end());
        return bytes;
    }
};

Packet part(uint32_t total, uint32_t offset, Bytes content = array_of(8))
{
    return {.total = total, .offset = offset, .in_parts = 1, .content = std::move(content)};
}

// A bare socket that sends what it likes.
struct Peer {
    explicit Peer(int connected) : socket(connected) {}
    Peer(const Peer &) = delete;
    ~Peer() { close(socket); }

    bool send(const Bytes &bytes) const { return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0; }

    // What the other side says to it: a refusal's code, 0 when it has closed the connection, or -1 for nothing.
    int32_t verdict() const
    {
        Frame frame{};
        const ssize_t size = recv(socket, &frame, sizeof frame, MSG_DONTWAIT);
        if (size <= 0)
            return size == 0 || errno == ECONNRESET ? 0 : -1;
        return frame.kind == FrameKind::refusal ? static_cast<int32_t>(frame.opcode) : -1;
    }

    int socket;
};

struct HostilePeerTest : TransportTest {
    // Until there is nothing left to do.  Returns the number of requests among it.
    int serve_all()
    {
        int requests = 0;
        for (pollfd entry{kob_service_fd(service), POLLIN, 0}; poll(&entry, 1, 0) > 0;)
            requests += serve(0) == KOB_OK ? 1 : 0;
        return requests;
    }
};

TEST_F(HostilePeerTest, PacketsThatNoClientSendsAreRefusedByName)
{
    const std::pair<const char *, std::vector<Bytes>> table[] = {
        {"shorter than a header", {Bytes(31)}},
        {"not a packet", {Bytes(100, 0xff)}},
        {"wrong kind", {Packet{.kind = FrameKind::response}}},
        {"wrong kind", {Packet{.kind = FrameKind{77}}}},
        {"without token", {Packet{.token = 0}}},
        {"unknown flags", {Packet{.in_parts = 2}}},
        {"plain messages", {Packet{.total = KOB_PLAIN_LIMIT + 1}}},
        {"not whole", {Packet{.total = 9}}},
        {"not whole", {Packet{.offset = 4}}},
        {"exceeds", {part(7, 0)}},
        {"exceeds", {part(7, 0xffffffff)}},
        {"without content", {part(7, 0, {})}},
        {"without the beginning", {part(100, 8)}},
        {"out of order", {part(100, 0), part(100, 9)}},
        {"another message", {part(100, 0), part(99, 8)}},
        {"another message", {part(100, 0), Packet{.total = 100, .offset = 8, .in_parts = 1, .token = 8}}},
        {"within another", {part(100, 0), Packet{}}},
    };
    for (const auto &[reason, packets] : table) {
        refusals.clear();
        const Peer peer(raw_socket(connect));
        for (const Bytes &packet : packets)
            ASSERT_TRUE(peer.send(packet));
        EXPECT_EQ(serve_all(), 0);
        ASSERT_TRUE(refusals.size() == 1 && refusals[0].find(reason) != std::string::npos) << reason;
        EXPECT_EQ(peer.verdict(), 0) << reason;
        expect_exchange();
    }
}

// Most of them begin as they should, so that they get further.
TEST_F(HostilePeerTest, RandomPacketsDoNoHarm)
{
    Random random(4);
    const auto below = [&](unsigned limit) { return static_cast<uint32_t>(random() % limit); };
    for (int round = 0; round < 300; ++round) {
        const Peer peer(raw_socket(connect));
        for (int i = 0; i < 10; ++i) {
            Bytes noise(below(64));
            for (auto &byte : noise)
                byte = static_cast<unsigned char>(below(4));
            Packet likely = part(below(64), below(16), noise);
            likely.token = below(3);
            peer.send(below(32) == 0 ? noise : likely);
        }
        serve_all();
    }
    EXPECT_GT(refusals.size(), 100U);
    expect_exchange();
}

TEST_F(HostilePeerTest, MemoryForHalfMessagesIsBoundedInTotal)
{
    options.max_message = 100000;
    options.max_memory = 250000;
    open_service();
    std::list<Peer> peers;
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(peers.emplace_back(raw_socket(connect)).send(part(100000, 0, array_of(60000))));
        EXPECT_EQ(serve_all(), 0);
    }
    std::vector<int32_t> verdicts;
    for (const Peer &peer : peers)
        verdicts.push_back(peer.verdict());
    // The fifth did not fit, and the sixth has the place of the one that went.
    EXPECT_EQ(verdicts, (std::vector<int32_t>{0, -1, -1, -1, KOB_ERR_BUSY, -1}));
    expect_exchange();
}

TEST_F(HostilePeerTest, ClientThatDoesNotReadIsCutOffAndDelaysNobody)
{
    options.max_message = 200000;
    options.max_memory = 800000;
    // Whichever limit it meets first: its own, or that of all clients.
    for (const uint32_t max_queued : {500000U, 1000000U}) {
        options.max_queued = max_queued;
        open_service();
        for (int round = 0; round < 2; ++round) { // what the first one held is free again
            refusals.clear();
            const Peer peer(raw_socket(connect));
            for (int step = 0; step < 100 && refusals.empty(); ++step, expect_exchange()) {
                ASSERT_TRUE(peer.send(Packet{}) && serve() == KOB_OK);
                const int32_t status = reply(response_of(150000));
                EXPECT_EQ(status, refusals.empty() ? KOB_OK : KOB_ERR_BUSY);
            }
            EXPECT_EQ(refusals, Refusals{max_queued == 500000 ? "does not read its replies"
                                                              : "holds most of the memory, which ran out"});
        }
    }
}

// Whoever has been idle longest makes room, and those without a request so far go first.
// A client whose request is not answered yet stays. All that have to go are told.
TEST_F(HostilePeerTest, ClientsThatCrowdMakeRoom)
{
    for (const bool is_full : {false, true}) { // the user has too many, or all have
        options.max_clients_per_user = is_full ? 3 : 2;
        options.max_clients = is_full ? 2 : 3;
        open_service();
        refusals.clear();
        std::list<Peer> peers;
        const auto come = [&] {
            peers.emplace_back(raw_socket(connect));
            serve_all();
        };
        come();
        ASSERT_TRUE(peers.front().send(Packet{}));
        EXPECT_EQ(serve(), KOB_OK);
        EXPECT_EQ(reply(), KOB_OK);
        char bytes[100];
        EXPECT_GT(recv(peers.front().socket, bytes, sizeof bytes, 0), 0);
        come();
        come(); // takes the place of the second, which has said nothing
        EXPECT_EQ(std::next(peers.begin())->verdict(), KOB_ERR_BUSY);
        EXPECT_EQ(peers.front().verdict(), -1);
        ASSERT_TRUE(peers.back().send(Packet{}));
        EXPECT_EQ(serve(), KOB_OK);
        come(); // takes the place of the first: the third waits for its answer
        EXPECT_EQ(peers.front().verdict(), KOB_ERR_BUSY);
        ASSERT_TRUE(peers.back().send(Packet{}));
        EXPECT_EQ(serve(), KOB_OK);
        come(); // now all wait for answers
        EXPECT_EQ(peers.back().verdict(), KOB_ERR_BUSY);
        EXPECT_EQ(refusals, (Refusals{"idle, and others came", "idle, and others came", "too many clients"}));
        const uint32_t token = send(array_of(4));
        EXPECT_EQ(serve_all(), 0);
        EXPECT_EQ(fetch(token), KOB_ERR_BUSY);
        peers.clear();
        serve_all();
        expect_exchange();
    }
}

// A held client's requests wait in its connection, and so does its end.
TEST_F(HostilePeerTest, HeldClientsWait)
{
    open_service();
    auto peer = std::make_unique<Peer>(raw_socket(connect));
    ASSERT_TRUE(peer->send(Packet{}) && peer->send(Packet{.token = 8}) && peer->send(Packet{.token = 9}));
    ASSERT_EQ(serve(), KOB_OK);
    EXPECT_EQ(kob_msg_pid(received.get()), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(kob_msg_uid(received.get()), getuid());
    kob_service_hold(service, received.get(), 1);
    EXPECT_EQ(kob_service_is_gone(service, received.get()), 0);
    EXPECT_EQ(serve_all(), 0);
    EXPECT_EQ(reply(response_of(150000)), KOB_OK); // in parts, so that it waits for room
    kob_service_hold(service, received.get(), 0);
    ASSERT_EQ(serve(), KOB_OK);
    kob_service_hold(service, received.get(), 1);
    peer.reset();
    EXPECT_EQ(serve_all(), 0);
    EXPECT_EQ(kob_service_is_gone(service, received.get()), 1);
    kob_service_hold(service, received.get(), 0);
    EXPECT_EQ(serve_all(), 0);
    EXPECT_EQ(reply(), KOB_ERR_PEER_GONE);
    kob_service_hold(service, received.get(), 1); // nobody is there
    expect_exchange();
}

TEST_F(HostilePeerTest, ClientsThatVanishOrFallSilentAreGivenUp)
{
    options.idle_ms = 20;
    open_service();
    std::list<Peer> peers;
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(peers.emplace_back(raw_socket(connect)).send(part(1000000, 0, array_of(50000))));
    peers.pop_front();
    for (int step = 0; step < 100 && refusals.empty(); ++step)
        ASSERT_EQ(serve(patience / 100), KOB_ERR_TIMEOUT);
    EXPECT_EQ(refusals, Refusals{"left a message half sent"});
    EXPECT_EQ(peers.back().verdict(), 0);
    expect_exchange();
}

// The same rules hold the other way round.
TEST_F(HostilePeerTest, ServiceThatBreaksTheRulesIsDropped)
{
    close_service();
    const int listener = raw_socket(bind);
    ASSERT_EQ(listen(listener, 5), 0);
    const Packet orphan{.total = 1000, .offset = 5, .in_parts = 1, .kind = FrameKind::response};
    const Packet half{.total = 1000, .in_parts = 1, .kind = FrameKind::response};
    for (const Packet &packet : {Packet{}, orphan, Packet{.kind = FrameKind::refusal}, half}) {
        const uint32_t token = send(array_of(8));
        auto impostor = std::make_unique<Peer>(accept(listener, nullptr, nullptr));
        ASSERT_TRUE(impostor->send(packet));
        const bool is_half = packet.kind == half.kind && packet.offset == 0;
        EXPECT_EQ(fetch(token, is_half ? 1 : patience), is_half ? KOB_ERR_TIMEOUT : KOB_ERR_BAD_FRAME);
        impostor.reset();
        EXPECT_EQ(fetch(token), KOB_ERR_PEER_GONE);
    }
    close(listener);
}

} // namespace
