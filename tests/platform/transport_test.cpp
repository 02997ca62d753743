// The transport end to end, and what its errors are called.
#include "transport_support.hpp"

#include <algorithm>
#include <barrier>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>

namespace {

TEST_F(TransportTest, MessagesOfAnySizeArriveWithEverything)
{
    for (const uint32_t size : {4U, 1000U, 65503U, 65504U, 65505U, KOB_PLAIN_LIMIT, 131008U, 5000000U}) {
        for (const uint32_t segments : {1U, 3U, 0U}) {
            if (segments == 0 && size > KOB_PLAIN_LIMIT)
                break;
            const uint32_t token = ask(array_of(size), segments);
            EXPECT_EQ(payload(received), array_of(size)) << size;
            kob_msg_t *const msg = received.get();
            EXPECT_TRUE(kob_msg_opcode(msg) == 0x1cc02 && kob_msg_node(msg) == 0xfe000000 && kob_msg_sap(msg) == 487);
            EXPECT_TRUE(kob_rr_token_get(msg) == token && token != 0);
            const auto *const bytes = static_cast<const unsigned char *>(kob_payload_get(msg));
            EXPECT_EQ(mpkob_payload_get(0, msg), segments != 0 ? bytes : nullptr);
            EXPECT_EQ(mpkob_is_mpkob(0, msg) != 0, segments != 0);
            // Decoders read beyond a payload's end, and a response header in its place.
            EXPECT_TRUE(reinterpret_cast<uintptr_t>(bytes) % 4 == 0 &&
                        Bytes(bytes + size, bytes + size + 64) == Bytes(64));

            ASSERT_EQ(reply(response_of(size)), KOB_OK);
            for (int step = 0; fetch(token, 1) == KOB_ERR_TIMEOUT && step < 10000; ++step)
                EXPECT_EQ(serve(0), KOB_ERR_TIMEOUT);
            EXPECT_EQ(payload(message), response_of(size)) << size;
        }
    }
}

// One thread plays both sides: nothing waits.  Large requests leave while the service reads.
TEST_F(TransportTest, AnEventLoopNeedsADescriptorAndSendsWithoutWaiting)
{
    open_client({0, 0, 1});
    EXPECT_EQ(kob_fd(kob, nullptr), -1);
    for (const uint32_t size : {4U, 5000000U}) {
        const uint32_t token = send(array_of(size), 1);
        ASSERT_NE(token, 0U);
        pollfd wait{-1, 0, 0};
        wait.fd = kob_fd(kob, &wait.events);
        EXPECT_EQ(wait.events, size > 4 ? POLLIN | POLLOUT : POLLIN);
        if (size > 4) {
            EXPECT_EQ(try_send(array_of(size), 1), KOB_ERR_TIMEOUT); // one at a time, and the link stays
        }
        while (serve(0) == KOB_ERR_TIMEOUT)
            EXPECT_EQ(fetch(token, 0), KOB_ERR_TIMEOUT);
        EXPECT_EQ(payload(received), array_of(size));
        EXPECT_EQ(reply(response_of(8)), KOB_OK);
        wait.fd = kob_fd(kob, &wait.events);
        EXPECT_EQ(wait.events, POLLIN);
        EXPECT_EQ(poll(&wait, 1, patience), 1);
        EXPECT_EQ(fetch(token, 0), KOB_OK);
    }
    send(array_of(5000000), 1); // what has not left is freed
    close_service();
    EXPECT_EQ(fetch(0, 0), KOB_ERR_PEER_GONE);
    EXPECT_EQ(kob_fd(kob, nullptr), -1);
    EXPECT_EQ(try_send(array_of(4)), KOB_ERR_ABSENT);
}

// One that was not sent, or not fetched, is not seen.
TEST_F(TransportTest, TheTapSeesWhatIsSentAndFetched)
{
    std::vector<std::pair<kob_tapped_t, Bytes>> seen;
    const kob_tap_cb_t tap = [](void *to, const kob_tapped_t *one) {
        const auto *const bytes = static_cast<const unsigned char *>(one->payload);
        static_cast<decltype(seen) *>(to)->emplace_back(*one, Bytes(bytes, bytes + one->size));
    };
    EXPECT_EQ(kob_tap(0, tap, &seen), KOB_ERR_HANDLE);
    ASSERT_EQ(kob_tap(kob, tap, &seen), KOB_OK);
    for (const uint32_t segments : {0U, 3U}) {
        const uint32_t token = ask(array_of(1000), segments);
        ASSERT_EQ(reply(response_of(500)), KOB_OK);
        EXPECT_EQ(fetch(token + 1, 0), KOB_ERR_TIMEOUT);
        ASSERT_EQ(seen.size(), 1U);
        ASSERT_EQ(fetch(token), KOB_OK);
        ASSERT_EQ(seen.size(), 2U);
        for (const auto &[one, bytes] : seen) {
            EXPECT_EQ(bytes, one.is_response != 0 ? response_of(500) : array_of(1000));
            EXPECT_TRUE(one.token == token && one.opcode == 0x1cc02 && one.node == 0xfe000000 && one.sap == 487);
        }
        EXPECT_EQ(seen[0].first.in_parts, segments != 0 ? 1U : 0U);
        seen.clear();
    }
    EXPECT_EQ(try_send(array_of(KOB_PLAIN_LIMIT + 4)), KOB_ERR_TOO_LARGE);
    kob_tap(kob, nullptr, nullptr);
    expect_exchange();
    EXPECT_TRUE(seen.empty());
}

TEST_F(TransportTest, AServiceListsItsClients)
{
    kob_client_info_t infos[2] = {};
    EXPECT_EQ(kob_service_clients(service, infos, 2), 0U);
    expect_exchange();
    const uint32_t other = kob_open(address.c_str(), nullptr, nullptr);
    const Bytes bytes = array_of(4);
    EXPECT_EQ(fu_kob_send(other, 0, 0, 1, bytes.data(), 4, message.get(), 0, 0), KOB_OK);
    ASSERT_EQ(serve(), KOB_OK);
    EXPECT_EQ(kob_service_clients(service, infos, 2), 2U);
    for (const kob_client_info_t &info : infos)
        EXPECT_TRUE(info.pid == static_cast<uint32_t>(getpid()) && info.uid == getuid());
    EXPECT_EQ(infos[1].client, kob_msg_client(received.get()));
    EXPECT_EQ(kob_service_clients(service, infos, 1), 2U);
    kob_close(other);
    EXPECT_EQ(serve(100), KOB_ERR_TIMEOUT);
    EXPECT_EQ(kob_service_clients(service, infos, 2), 1U);
}

TEST_F(TransportTest, ResponsesMayComeInAnyOrderAndUnfetchedOnesAreBounded)
{
    std::vector<uint32_t> tokens;
    std::vector<Message> requests;
    for (uint32_t i = 0; i < 5; ++i) {
        tokens.push_back(ask());
        requests.push_back(received);
        received = Message(kob_msg_alloc(), kob_msg_free);
    }
    for (const uint32_t i : {3U, 0U, 4U, 1U, 2U})
        ASSERT_EQ(reply(response_of(4 + i), requests[i]), KOB_OK);
    for (const uint32_t i : {2U, 4U, 0U, 3U, 1U}) { // by token, then any in the order of arrival
        ASSERT_EQ(fetch(i % 2 == 0 ? tokens[i] : 0), KOB_OK);
        EXPECT_EQ(kob_rr_token_get(message.get()), tokens[i]);
        EXPECT_EQ(payload(message), response_of(4 + i));
    }
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(reply(response_of(4), requests[0]), KOB_OK);
        EXPECT_EQ(fetch(tokens[1], 0), KOB_ERR_TIMEOUT);
    }
    for (int i = 0; i <= 64; ++i)
        EXPECT_EQ(fetch(0, 0), i < 64 ? KOB_OK : KOB_ERR_TIMEOUT);
    open_client({}); // gets the same index at the service, and no answers of the old one's
    ask();
    EXPECT_EQ(reply(response_of(4), requests[0]), KOB_ERR_PEER_GONE);
    EXPECT_EQ(fetch(0, 0), KOB_ERR_TIMEOUT);
}

TEST_F(TransportTest, UnfetchedResponsesAreBoundedInBytes)
{
    constexpr uint32_t max_message = 10000;
    open_client({0, max_message, 0});
    const uint32_t other = ask();
    const Message request = std::exchange(received, Message(kob_msg_alloc(), kob_msg_free));
    ask();
    const auto last_kept = [&](uint32_t size) { // of 10 responses whose first byte counts
        for (unsigned char i = 0; i < 10; ++i) {
            Bytes response = response_of(size - 268);
            response[0] = i;
            EXPECT_EQ(reply(response, request), KOB_OK);
            EXPECT_EQ(fetch(other + 1, 0), KOB_ERR_TIMEOUT);
        }
        std::string kept;
        while (fetch(other, 0) == KOB_OK)
            kept += std::to_string(payload(message)[0]);
        return kept;
    };
    EXPECT_EQ(last_kept(max_message), "89") << "twice the largest message, and the latest";
    EXPECT_EQ(last_kept(max_message / 2 + 1), "789");
    EXPECT_EQ(last_kept(1000), "0123456789");
}

TEST_F(TransportTest, WaitingEndsWithATimeout)
{
    const uint32_t token = ask();
    EXPECT_EQ(fetch(token, 1), KOB_ERR_TIMEOUT);
    ASSERT_EQ(reply(), KOB_OK); // late, and still good
    EXPECT_EQ(fetch(token, -1), KOB_OK);

    open_client({50, 0, 0});
    for (const uint32_t segments : {0U, 1U}) {
        for (int32_t error = KOB_OK; error != KOB_ERR_TIMEOUT; error = try_send(array_of(100000), segments))
            ASSERT_EQ(error, KOB_OK);
    }
}

TEST_F(TransportTest, RestartIsBridgedAndLostRequestsAreNamed)
{
    const uint32_t answered = ask();
    ASSERT_EQ(reply(), KOB_OK);
    open_service();
    const uint32_t lost = ask(); // does not notice, nor is the old one's answer lost
    EXPECT_EQ(fetch(answered), KOB_OK);
    close_service();
    EXPECT_EQ(fetch(lost), KOB_ERR_PEER_GONE);
    EXPECT_EQ(try_send(array_of(4)), KOB_ERR_ABSENT);
    open_service();
    EXPECT_EQ(fetch(lost), KOB_ERR_PEER_GONE);
    expect_exchange();
    EXPECT_EQ(fetch(lost), KOB_ERR_RESTARTED);
}

TEST_F(TransportTest, OversizeIsRefusedOnEitherSide)
{
    options.max_message = 150000;
    open_service();
    EXPECT_EQ(try_send(array_of(KOB_PLAIN_LIMIT + 1)), KOB_ERR_TOO_LARGE);
    uint32_t token = send(array_of(150001), 1);
    EXPECT_EQ(serve(50), KOB_ERR_TIMEOUT);
    EXPECT_EQ(refusals, Refusals{"a message above the limit: 150001 bytes"});
    EXPECT_EQ(fetch(token), KOB_ERR_TOO_LARGE);
    EXPECT_EQ(fetch(token, 0), KOB_ERR_TIMEOUT) << "told once";
    ask(array_of(150000), 1); // the connection goes on
    EXPECT_EQ(reply(Bytes(150001)), KOB_ERR_TOO_LARGE);

    open_client({0, 1000, 0});
    EXPECT_EQ(try_send(array_of(1001), 1), KOB_ERR_TOO_LARGE);
    token = ask();
    ASSERT_EQ(reply(response_of(1000)), KOB_OK);
    EXPECT_EQ(fetch(token), KOB_ERR_TOO_LARGE);
    expect_exchange();
}

TEST_F(TransportTest, PayloadThatClaimsMoreThanArrivedIsRefused)
{
    const Bytes whole = response_of(32);
    ask({});
    EXPECT_EQ(kob_payload_get(received.get()), nullptr);
    const uint32_t refused = send({1, 0, 0, 0});
    EXPECT_EQ(serve(50), KOB_ERR_TIMEOUT);
    EXPECT_EQ(refusals.size(), 1U);
    EXPECT_EQ(fetch(refused), KOB_ERR_BAD_FRAME);
    for (const uint32_t size : {267U, 268U, 271U, 299U, 300U}) {
        const uint32_t token = ask();
        ASSERT_EQ(reply(Bytes(whole.data(), whole.data() + size)), KOB_OK);
        EXPECT_EQ(fetch(token), size == 268 || size == 300 ? KOB_OK : KOB_ERR_BAD_FRAME) << size;
    }
}

TEST_F(TransportTest, HandlesAndAddressesAreChecked)
{
    int32_t error = 0;
    const std::string endless = "unix:" + std::string(108, 'x');
    for (const char *bad :
         {"", "unix", "unix:", "tcp:host", "unixx:/tmp/x", "/tmp/x", "unix:@abstract", endless.c_str()}) {
        EXPECT_TRUE(kob_open(bad, nullptr, &error) == 0 && error == KOB_ERR_ADDRESS) << bad;
        EXPECT_TRUE(kob_service_open(bad, nullptr, &error) == nullptr && error == KOB_ERR_ADDRESS) << bad;
    }
    const uint32_t closed = kob;
    open_client({});
    for (const uint32_t handle : {closed, 0U, 1U, 0xffffffffU}) {
        EXPECT_EQ(fu_kob_send(handle, 0, 0, 0, nullptr, 0, message.get(), 0, 0), KOB_ERR_HANDLE);
        EXPECT_EQ(mpkob_send(handle, 0, 0, 0, nullptr, 0, message.get(), 0), KOB_ERR_HANDLE);
        EXPECT_EQ(kob_receive(handle, 0, message.get(), 0), KOB_ERR_HANDLE);
        EXPECT_EQ(kob_errno_get(handle), KOB_ERR_HANDLE);
        kob_close(handle);
    }
    EXPECT_EQ(fu_kob_send(kob, 0, 0, 0, nullptr, 0, nullptr, 0, 0), KOB_ERR_ARGUMENT);
    EXPECT_EQ(kob_receive(kob, 0, nullptr, 0), KOB_ERR_ARGUMENT);
    EXPECT_EQ(kob_service_receive(service, nullptr, 0), KOB_ERR_ARGUMENT);

    std::vector<uint32_t> handles;
    while (const uint32_t handle = kob_open(address.c_str(), nullptr, &error))
        handles.push_back(handle);
    EXPECT_TRUE(error == KOB_ERR_MEMORY && handles.size() == 63);
    for (const uint32_t handle : handles)
        kob_close(handle);
    EXPECT_STREQ(kob_error_text(-1), kob_error_text(KOB_ERR_NO_FOLDER + 1));
    EXPECT_STRNE(kob_error_text(-1), kob_error_text(KOB_ERR_NO_FOLDER));
}

TEST_F(TransportTest, SocketFileIsPrivateReplacedWhenStaleAndRemoved)
{
    struct stat file {};
    int32_t error = 0;
    for (const uint32_t permissions : {0600U, 0660U}) {
        EXPECT_TRUE(stat(path.c_str(), &file) == 0 && (file.st_mode & 07777) == permissions);
        EXPECT_TRUE(kob_service_open(address.c_str(), nullptr, &error) == nullptr && error == KOB_ERR_IN_USE);
        close_service();
        EXPECT_NE(stat(path.c_str(), &file), 0);
        close(raw_socket(bind)); // as a service leaves it that dies
        options.permissions = 0660;
        open_service();
    }
    close_service();
    std::ofstream(path) << "not a socket";
    EXPECT_TRUE(kob_service_open(address.c_str(), nullptr, &error) == nullptr && error == KOB_ERR_IN_USE);
    EXPECT_EQ(stat(path.c_str(), &file), 0) << "it stays";
    EXPECT_TRUE(kob_service_open("unix:/no/folder/x", nullptr, &error) == nullptr && error == KOB_ERR_NO_FOLDER);
    EXPECT_TRUE(kob_open("unix:/no/folder/x", nullptr, &error) != 0) << "a client may start before its service";
}

TEST_F(TransportTest, PermissionsHoldWhateverTheUmaskIs)
{
    for (const mode_t mask : {0000U, 0022U, 0777U}) {
        const mode_t before = umask(mask);
        options.permissions = 0660;
        open_service();
        umask(before);
        struct stat file {};
        EXPECT_TRUE(stat(path.c_str(), &file) == 0 && (file.st_mode & 07777) == 0660) << std::oct << mask;
    }
}

TEST_F(TransportTest, ClosingLeavesTheSocketOfASuccessor)
{
    kob_service_t *const predecessor = std::exchange(service, nullptr);
    ASSERT_EQ(unlink(path.c_str()), 0);
    open_service();
    kob_service_close(predecessor);
    expect_exchange();
}

// At the file that a dead service left behind, and at no file.
TEST_F(TransportTest, OfServicesThatStartAtOnceOneGetsTheAddress)
{
    constexpr int num_starters = 8;
    for (int round = 0; round < 50; ++round) {
        close_service();
        if (round % 2 == 0)
            close(raw_socket(bind));
        std::barrier start(num_starters);
        std::vector<kob_service_t *> ready(num_starters);
        std::vector<int32_t> errors(num_starters);
        std::vector<std::thread> starters;
        for (std::size_t i = 0; i < num_starters; ++i)
            starters.emplace_back([&, i] {
                start.arrive_and_wait();
                ready[i] = kob_service_open(address.c_str(), &options, &errors[i]);
            });
        for (std::thread &starter : starters)
            starter.join();
        ASSERT_EQ(std::ranges::count(errors, KOB_OK), 1) << "round " << round;
        ASSERT_EQ(std::ranges::count(errors, KOB_ERR_IN_USE), num_starters - 1);
        service = *std::ranges::find_if(ready, [](const auto *one) { return one != nullptr; });
        expect_exchange();
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_NE(access((path + ".kob-lock").c_str(), F_OK), 0);
}

} // namespace
