// Peers that break the rules: the other side says so, and goes on with the rest.
#include "platform/reference/kob_frame.hpp"
#include "random.hpp"
#include "transport_support.hpp"

#include <functional>
#include <poll.h>

using zel::platform::Frame;
using zel::platform::frame_magic;
using zel::platform::FrameKind;

namespace {

// A bare socket that sends what it likes.
class Peer {
public:
    explicit Peer(int connected) : socket_(connected) {}
    ~Peer() { close(); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    void close()
    {
        if (socket_ >= 0)
            ::close(socket_);
        socket_ = -1;
    }

    bool send(const Bytes &packet)
    {
        return ::send(socket_, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
    }

    bool send(const Frame &frame, const Bytes &content = {})
    {
        Bytes packet(sizeof frame);
        std::memcpy(packet.data(), &frame, sizeof frame);
        packet.insert(packet.end(), content.begin(), content.end());
        return send(packet);
    }

    // True when the other side has closed the connection and nothing is left to read.
    bool is_cut_off() const
    {
        pollfd entry{socket_, POLLIN, 0};
        char byte = 0;
        return poll(&entry, 1, 0) > 0 && recv(socket_, &byte, 1, MSG_DONTWAIT) <= 0 && errno != EAGAIN;
    }

    // The refusal that waits to be read, as the code that it carries.
    int32_t refusal() const
    {
        Frame frame{};
        if (recv(socket_, &frame, sizeof frame, MSG_DONTWAIT) != sizeof frame || frame.kind != FrameKind::refusal)
            return -1;
        return static_cast<int32_t>(frame.opcode);
    }

private:
    int socket_;
};

Frame part(uint32_t total, uint32_t offset, uint32_t token = 7)
{
    return {frame_magic, FrameKind::request, 1, token, 0, 0, 0, total, offset};
}

Frame plain(uint32_t total)
{
    Frame frame = part(total, 0);
    frame.in_parts = 0;
    return frame;
}

class HostilePeerTest : public TransportTest {
protected:
    std::unique_ptr<Peer> connect_peer() const
    {
        const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
        const sockaddr_un where = socket_address();
        EXPECT_EQ(connect(socket, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
        return std::make_unique<Peer>(socket);
    }

    // Serves until there is nothing left to do; expects no request among it.
    void serve()
    {
        pollfd entry{kob_service_fd(service), POLLIN, 0};
        while (poll(&entry, 1, 0) > 0)
            EXPECT_EQ(kob_service_receive(service, spare.get(), 0), KOB_ERR_TIMEOUT);
    }

    void expect_service_is_well()
    {
        const uint32_t token = send(array_of(40));
        ASSERT_NE(token, 0U);
        ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
        EXPECT_EQ(payload(*received), array_of(40));
        ASSERT_EQ(reply(response_of(268)), KOB_OK);
        EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_OK);
    }
};

TEST_F(HostilePeerTest, PacketsThatNoClientSendsAreRefusedByName)
{
    struct Case {
        const char *reason;
        std::function<void(Peer &)> misbehave;
    };
    const auto with = [](auto change) {
        return [change](Peer &peer) {
            Frame frame = plain(8);
            change(frame);
            peer.send(frame, array_of(8));
        };
    };
    const Case table[] = {
        {"shorter than a header", [](Peer &peer) { peer.send(Bytes(31)); }},
        {"not a packet", [](Peer &peer) { peer.send(Bytes(100, 0xff)); }},
        {"not a packet", with([](Frame &frame) { ++frame.magic; })},
        {"wrong kind", with([](Frame &frame) { frame.kind = FrameKind::response; })},
        {"wrong kind", with([](Frame &frame) { frame.kind = FrameKind::refusal; })},
        {"wrong kind", with([](Frame &frame) { frame.kind = FrameKind{77}; })},
        {"without token", with([](Frame &frame) { frame.token = 0; })},
        {"unknown flags", with([](Frame &frame) { frame.in_parts = 2; })},
        {"plain messages", with([](Frame &frame) { frame.total = KOB_PLAIN_LIMIT + 1; })},
        {"not whole", with([](Frame &frame) { frame.total = 9; })},
        {"not whole", with([](Frame &frame) { frame.total = 7; })},
        {"not whole", with([](Frame &frame) { frame.offset = 4; })},
        {"exceeds", [](Peer &peer) { peer.send(part(7, 0), array_of(8)); }},
        {"exceeds", [](Peer &peer) { peer.send(part(7, 0xffffffff), array_of(8)); }},
        {"without content", [](Peer &peer) { peer.send(part(7, 0)); }},
        {"without the beginning", [](Peer &peer) { peer.send(part(100, 8), array_of(8)); }},
        {"out of order",
         [](Peer &peer) { peer.send(part(100, 0), array_of(8)) && peer.send(part(100, 9), array_of(8)); }},
        {"another message",
         [](Peer &peer) { peer.send(part(100, 0), array_of(8)) && peer.send(part(99, 8), array_of(8)); }},
        {"another message",
         [](Peer &peer) { peer.send(part(100, 0), array_of(8)) && peer.send(part(100, 8, 8), array_of(8)); }},
        {"within another",
         [](Peer &peer) { peer.send(part(100, 0), array_of(8)) && peer.send(plain(8), array_of(8)); }},
    };
    for (const Case &hostile : table) {
        refusals.clear();
        const auto peer = connect_peer();
        hostile.misbehave(*peer);
        serve();
        ASSERT_EQ(refusals.size(), 1U) << hostile.reason;
        EXPECT_NE(refusals[0].find(hostile.reason), std::string::npos) << refusals[0];
        EXPECT_TRUE(peer->is_cut_off()) << hostile.reason;
        expect_service_is_well();
    }
}

TEST_F(HostilePeerTest, RandomPacketsDoNoHarm)
{
    Random random(4);
    for (int round = 0; round < 300; ++round) {
        const auto peer = connect_peer();
        for (int packet = 0; packet < 10; ++packet) {
            Frame frame = part(static_cast<uint32_t>(random() % 64), static_cast<uint32_t>(random() % 16),
                               static_cast<uint32_t>(random() % 3));
            frame.in_parts = static_cast<uint16_t>(random() % 8 == 0 ? 0 : 1);
            Bytes content(random() % 32);
            for (auto &byte : content)
                byte = static_cast<unsigned char>(random() % 4);
            if (!peer->send(frame, content))
                break;
        }
        pollfd entry{kob_service_fd(service), POLLIN, 0};
        while (poll(&entry, 1, 0) > 0)
            kob_service_receive(service, spare.get(), 0);
    }
    EXPECT_GT(refusals.size(), 100U);
    expect_service_is_well();
}

TEST_F(HostilePeerTest, HalfMessageIsGivenUpAndItsSenderToo)
{
    options.idle_ms = 20;
    open_service();
    const auto peer = connect_peer();
    ASSERT_TRUE(peer->send(part(100, 0), array_of(8)));
    while (refusals.empty())
        ASSERT_EQ(kob_service_receive(service, received.get(), patience / 100), KOB_ERR_TIMEOUT);
    EXPECT_NE(refusals[0].find("half sent"), std::string::npos);
    EXPECT_TRUE(peer->is_cut_off());
    expect_service_is_well();
}

TEST_F(HostilePeerTest, TooLargeIsToldOnceWhateverFollows)
{
    options.max_message = 1000;
    open_service();
    const auto peer = connect_peer();
    for (uint32_t offset = 0; offset < 2000; offset += 500)
        ASSERT_TRUE(peer->send(part(2000, offset), array_of(500)));
    ASSERT_TRUE(peer->send(part(8, 0, 9), array_of(8)));
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    EXPECT_EQ(kob_rr_token_get(received.get()), 9U);
    EXPECT_EQ(refusals.size(), 1U);
    EXPECT_EQ(peer->refusal(), KOB_ERR_TOO_LARGE);
    EXPECT_EQ(peer->refusal(), -1);
}

TEST_F(HostilePeerTest, MemoryForHalfMessagesIsBoundedInTotal)
{
    options.max_message = 100000;
    options.max_memory = 250000;
    open_service();
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 6; ++i) {
        peers.push_back(connect_peer());
        ASSERT_TRUE(peers.back()->send(part(100000, 0), array_of(60000)));
        serve();
    }
    int refused = 0;
    int cut_off = 0;
    for (const auto &peer : peers) {
        refused += peer->refusal() == KOB_ERR_BUSY ? 1 : 0;
        cut_off += peer->is_cut_off() ? 1 : 0;
    }
    EXPECT_EQ(refused, 1); // the fifth did not fit, and the sixth has the place of the one that went
    EXPECT_EQ(cut_off, 1);
    expect_service_is_well();
}

TEST_F(HostilePeerTest, ClientThatDoesNotReadIsCutOffAndDelaysNobody)
{
    options.max_message = 200000;
    // Whichever limit it meets first: its own, or that of all clients.
    for (const uint32_t max_queued : {500000U, 1000000U}) {
        options.max_queued = max_queued;
        options.max_memory = 800000;
        open_service();
        refusals.clear();
        const auto peer = connect_peer();
        int32_t status = KOB_OK;
        int answered = 0;
        for (; status == KOB_OK && answered < 100; ++answered) {
            ASSERT_TRUE(peer->send(plain(8), array_of(8)));
            ASSERT_EQ(kob_service_receive(service, spare.get(), patience), KOB_OK);
            status = reply(response_of(150000), spare.get());
            expect_service_is_well();
        }
        EXPECT_EQ(status, KOB_ERR_BUSY);
        EXPECT_GT(answered, 3);
        ASSERT_EQ(refusals.size(), 1U);
        EXPECT_NE(refusals[0].find(max_queued == 500000 ? "does not read" : "most of the memory"), std::string::npos);
        EXPECT_EQ(reply(response_of(268), spare.get()), KOB_ERR_PEER_GONE);
    }
}

TEST_F(HostilePeerTest, TooManyClientsAreTurnedAway)
{
    options.max_clients = 2;
    open_service();
    const auto first = connect_peer();
    const auto second = connect_peer();
    const auto third = connect_peer();
    serve();
    EXPECT_TRUE(third->is_cut_off());
    EXPECT_FALSE(second->is_cut_off());
    EXPECT_EQ(refusals, std::vector<std::string>{"too many clients"});
    ASSERT_TRUE(first->send(part(1000000, 0), array_of(50000))); // and leaves in the middle
    first->close();
    serve();
    expect_service_is_well();
    EXPECT_EQ(refusals.size(), 1U);
}

TEST_F(HostilePeerTest, ReplyReachesOnlyTheConnectionThatAsked)
{
    ASSERT_NE(send(array_of(8)), 0U);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    const uint32_t asked = kob_msg_client(received.get());
    open_client({}); // takes the same place at the service
    ASSERT_NE(send(array_of(8)), 0U);
    ASSERT_EQ(kob_service_receive(service, spare.get(), patience), KOB_OK);
    EXPECT_NE(kob_msg_client(spare.get()), asked);
    EXPECT_EQ(reply(response_of(268)), KOB_ERR_PEER_GONE);
    EXPECT_EQ(kob_receive(kob, 0, message.get(), 0), KOB_ERR_TIMEOUT);
}

// The same rules hold the other way round.
TEST_F(HostilePeerTest, ServiceThatBreaksTheRulesIsDropped)
{
    close_service();
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const sockaddr_un where = socket_address();
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
    ASSERT_EQ(listen(listener, 5), 0);
    Frame frame = part(1000, 0);
    frame.kind = FrameKind::response;
    const Frame request = plain(8);
    Frame orphan = frame;
    orphan.offset = 5;
    Frame refusal = frame; // of total 1000
    refusal.kind = FrameKind::refusal;
    for (const Frame &bad : {request, orphan, refusal}) {
        const uint32_t token = send(array_of(8));
        ASSERT_NE(token, 0U);
        Peer impostor(accept(listener, nullptr, nullptr));
        ASSERT_TRUE(impostor.send(bad, array_of(8)));
        EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_ERR_BAD_FRAME);
        EXPECT_EQ(kob_errno_get(kob), KOB_ERR_BAD_FRAME);
        EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_ERR_PEER_GONE);
    }
    // Half a response, and gone.
    const uint32_t token = send(array_of(8));
    Peer impostor(accept(listener, nullptr, nullptr));
    ASSERT_TRUE(impostor.send(frame, array_of(8)));
    EXPECT_EQ(kob_receive(kob, token, message.get(), 1), KOB_ERR_TIMEOUT);
    impostor.close();
    EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_ERR_PEER_GONE);
    close(listener);
}

} // namespace
