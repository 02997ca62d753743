// The transport end to end: a client, a service, and peers that speak to either
// of them as no correct one would.
#include "platform/reference/kob_client.h"
#include "platform/reference/kob_service.h"
#include "transport_support.hpp"

#include <gtest/gtest.h>
#include <numeric>
#include <sys/stat.h>
#include <thread>

namespace {

// Decoders read beyond a payload's end, and a response header in its place.
void expect_room_behind(kob_msg_t &msg)
{
    const auto *const bytes = static_cast<const unsigned char *>(kob_payload_get(&msg));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % 4, 0U);
    EXPECT_EQ(Bytes(bytes + kob_msg_size(&msg), bytes + kob_msg_size(&msg) + 64), Bytes(64));
}

TEST_F(TransportTest, PlainMessageArrivesWithEverything)
{
    const Bytes request = array_of(1000);
    const uint32_t token = send(request);
    ASSERT_NE(token, 0U);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    EXPECT_EQ(payload(*received), request);
    EXPECT_EQ(kob_msg_opcode(received.get()), 0x1cc02U);
    EXPECT_EQ(kob_msg_node(received.get()), 0xfe000000U);
    EXPECT_EQ(kob_msg_sap(received.get()), 487U);
    EXPECT_EQ(kob_rr_token_get(received.get()), token);
    EXPECT_EQ(mpkob_is_mpkob(0, received.get()), 0);
    EXPECT_EQ(mpkob_payload_get(0, received.get()), nullptr);
    expect_room_behind(*received);

    const Bytes answer = response_of(300);
    ASSERT_EQ(reply(answer), KOB_OK);
    ASSERT_EQ(kob_receive(kob, token, message.get(), -1), KOB_OK);
    EXPECT_EQ(kob_rr_token_get(message.get()), token);
    EXPECT_EQ(payload(*message), answer);
    EXPECT_EQ(kob_errno_get(kob), KOB_OK);
}

TEST_F(TransportTest, MessageInPartsIsPutTogether)
{
    for (const uint32_t size : {4U, 65503U, 65504U, 65505U, 131008U, 5000000U}) {
        const Bytes request = array_of(size);
        const uint32_t token = send_while_served(request);
        ASSERT_NE(token, 0U) << size;
        EXPECT_NE(mpkob_is_mpkob(0, received.get()), 0);
        EXPECT_EQ(mpkob_payload_get(0, received.get()), kob_payload_get(received.get()));
        EXPECT_EQ(payload(*received), request) << size;
        expect_room_behind(*received);

        const Bytes answer = response_of(size + 268);
        ASSERT_EQ(reply(answer), KOB_OK);
        std::thread flusher([&] { EXPECT_EQ(kob_service_receive(service, spare.get(), 300), KOB_ERR_TIMEOUT); });
        EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_OK) << size;
        flusher.join();
        EXPECT_EQ(payload(*message), answer) << size;
    }
}

TEST_F(TransportTest, SegmentsAreOneMessage)
{
    const Bytes request = array_of(100);
    const mpkob_segment_t segments[] = {{request.data(), 7}, {nullptr, 0}, {request.data() + 7, 93}};
    ASSERT_EQ(mpkob_send(kob, 0, 0, 0, segments, 3, message.get(), 0), KOB_OK);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    EXPECT_EQ(payload(*received), request);
    ASSERT_EQ(mpkob_send(kob, 0, 0, 0, nullptr, 0, message.get(), 0), KOB_OK);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    EXPECT_EQ(kob_payload_get(received.get()), nullptr);
}

TEST_F(TransportTest, ResponsesMayComeInAnyOrder)
{
    std::vector<uint32_t> tokens;
    std::vector<Message> requests;
    for (uint32_t i = 0; i < 5; ++i) {
        tokens.push_back(send(array_of(4 + i)));
        requests.emplace_back(kob_msg_alloc());
        ASSERT_EQ(kob_service_receive(service, requests[i].get(), patience), KOB_OK);
    }
    for (const uint32_t i : {3U, 0U, 4U, 1U, 2U})
        ASSERT_EQ(reply(response_of(268 + 4 + i), requests[i].get()), KOB_OK);
    for (const uint32_t i : {2U, 4U, 0U}) {
        ASSERT_EQ(kob_receive(kob, tokens[i], message.get(), patience), KOB_OK);
        EXPECT_EQ(kob_msg_size(message.get()), 268 + 4 + i);
    }
    for (const uint32_t i : {3U, 1U}) { // any, in the order of arrival
        ASSERT_EQ(kob_receive(kob, 0, message.get(), patience), KOB_OK);
        EXPECT_EQ(kob_rr_token_get(message.get()), tokens[i]);
    }
    EXPECT_EQ(kob_receive(kob, 0, message.get(), 0), KOB_ERR_TIMEOUT);
}

TEST_F(TransportTest, ResponsesThatNobodyFetchesAreBounded)
{
    const uint32_t first = send(array_of(4));
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(reply(response_of(268)), KOB_OK);
        EXPECT_EQ(kob_receive(kob, first + 1, message.get(), 0), KOB_ERR_TIMEOUT);
    }
    int fetched = 0;
    while (kob_receive(kob, 0, message.get(), 0) == KOB_OK)
        ++fetched;
    EXPECT_EQ(fetched, 64);
}

// ---- What goes wrong, and what it is called

TEST_F(TransportTest, AbsentServiceIsToldApart)
{
    close_service();
    EXPECT_EQ(send(array_of(4)), 0U);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_ABSENT);
    open_service();
    EXPECT_NE(send(array_of(4)), 0U);
    EXPECT_EQ(kob_errno_get(kob), KOB_OK);
}

TEST_F(TransportTest, SilentServiceIsATimeout)
{
    const uint32_t token = send(array_of(4));
    EXPECT_EQ(kob_receive(kob, token, message.get(), 1), KOB_ERR_TIMEOUT);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_TIMEOUT);
    EXPECT_EQ(kob_payload_get(message.get()), nullptr);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    ASSERT_EQ(reply(response_of(268)), KOB_OK); // late, and still good
    EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_OK);
}

TEST_F(TransportTest, SendingToAServiceThatDoesNotReadTimesOut)
{
    open_client({50, 0});
    uint32_t accepted = 0;
    while (send(array_of(100000)) != 0)
        ASSERT_LT(++accepted, 100U);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_TIMEOUT);
    EXPECT_EQ(send_in_parts(array_of(4000000)), 0U);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_TIMEOUT);
}

TEST_F(TransportTest, RestartIsBridgedAndLostRequestsAreNamed)
{
    const uint32_t lost = send(array_of(4));
    ASSERT_NE(lost, 0U);
    close_service();
    EXPECT_EQ(kob_receive(kob, lost, message.get(), patience), KOB_ERR_PEER_GONE);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_PEER_GONE);
    open_service();
    EXPECT_EQ(kob_receive(kob, lost, message.get(), patience), KOB_ERR_PEER_GONE);
    const uint32_t token = send(array_of(4));
    ASSERT_NE(token, 0U);
    EXPECT_EQ(kob_receive(kob, lost, message.get(), patience), KOB_ERR_RESTARTED);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    ASSERT_EQ(reply(response_of(268)), KOB_OK);
    EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_OK);
}

TEST_F(TransportTest, RestartBetweenTwoRequestsIsNotNoticed)
{
    const uint32_t answered = send(array_of(4));
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    ASSERT_EQ(reply(response_of(268)), KOB_OK);
    close_service();
    open_service();
    EXPECT_NE(send(array_of(8)), 0U);
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    EXPECT_EQ(kob_msg_size(received.get()), 8U);
    // What the old one had answered is not lost with it.
    EXPECT_EQ(kob_receive(kob, answered, message.get(), patience), KOB_OK);
}

TEST_F(TransportTest, OversizeIsRefusedOnEitherSide)
{
    EXPECT_EQ(fu_kob_send(kob, 0, 0, 0, array_of(KOB_PLAIN_LIMIT + 1).data(), KOB_PLAIN_LIMIT + 1, message.get(), 0, 0),
              KOB_ERR_TOO_LARGE);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_TOO_LARGE);
    open_client({0, 200000});
    EXPECT_EQ(send_in_parts(array_of(200001)), 0U);
    EXPECT_EQ(kob_errno_get(kob), KOB_ERR_TOO_LARGE);

    // The service's limit is lower than this client's.
    options.max_message = 100000;
    open_service();
    open_client({});
    const uint32_t token = send_in_parts(array_of(150000));
    ASSERT_NE(token, 0U);
    EXPECT_EQ(kob_service_receive(service, received.get(), 50), KOB_ERR_TIMEOUT);
    ASSERT_EQ(refusals.size(), 1U);
    EXPECT_NE(refusals[0].find("above the limit: 150000"), std::string::npos);
    EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_ERR_TOO_LARGE);
    // And the connection goes on.
    EXPECT_NE(send_in_parts(array_of(90000)), 0U);
    EXPECT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    EXPECT_EQ(reply(response_of(100001)), KOB_ERR_TOO_LARGE);

    // The client's limit is lower than the service's.
    open_client({0, 1000});
    const uint32_t small = send(array_of(4));
    ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
    ASSERT_EQ(reply(response_of(1001)), KOB_OK);
    EXPECT_EQ(kob_receive(kob, small, message.get(), patience), KOB_ERR_TOO_LARGE);
}

TEST_F(TransportTest, PayloadThatClaimsMoreThanArrivedIsRefused)
{
    Bytes request = array_of(100);
    ++request[0];
    uint32_t token = send(request);
    EXPECT_EQ(kob_service_receive(service, received.get(), 50), KOB_ERR_TIMEOUT);
    ASSERT_EQ(refusals.size(), 1U);
    EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_ERR_BAD_FRAME);

    for (const uint32_t size : {267U, 271U, 300U}) {
        Bytes answer = response_of(size);
        if (size == 300)
            ++answer[268];
        token = send(array_of(4));
        ASSERT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK);
        ASSERT_EQ(reply(answer), KOB_OK);
        EXPECT_EQ(kob_receive(kob, token, message.get(), patience), KOB_ERR_BAD_FRAME) << size;
    }
}

TEST_F(TransportTest, HandlesAndAddressesAreChecked)
{
    for (const char *bad : {"", "unix", "unix:", "tcp:host", "unixx:/tmp/x", "/tmp/x"}) {
        int32_t error = 0;
        EXPECT_EQ(kob_open(bad, nullptr, &error), 0U) << bad;
        EXPECT_EQ(error, KOB_ERR_ADDRESS);
        EXPECT_EQ(kob_service_open(bad, nullptr, &error), nullptr);
        EXPECT_EQ(error, KOB_ERR_ADDRESS);
    }
    EXPECT_EQ(kob_open(("unix:" + std::string(108, 'x')).c_str(), nullptr, nullptr), 0U);

    const uint32_t closed = kob;
    open_client({});
    EXPECT_NE(kob, closed);
    for (const uint32_t handle : {closed, 0U, 1U, 0xffffffffU}) {
        EXPECT_EQ(fu_kob_send(handle, 0, 0, 0, nullptr, 0, message.get(), 0, 0), KOB_ERR_HANDLE);
        EXPECT_EQ(kob_receive(handle, 0, message.get(), 0), KOB_ERR_HANDLE);
        EXPECT_EQ(kob_errno_get(handle), KOB_ERR_HANDLE);
        kob_close(handle);
    }
    EXPECT_EQ(fu_kob_send(kob, 0, 0, 0, nullptr, 0, nullptr, 0, 0), KOB_ERR_ARGUMENT);

    std::vector<uint32_t> handles;
    int32_t error = 0;
    while (const uint32_t handle = kob_open(address.c_str(), nullptr, &error)) {
        EXPECT_GT(handle, 1U);
        handles.push_back(handle);
    }
    EXPECT_EQ(error, KOB_ERR_MEMORY);
    EXPECT_EQ(handles.size(), 63U);
    for (const uint32_t handle : handles)
        kob_close(handle);
}

TEST_F(TransportTest, SocketFileIsPrivateReplacedWhenStaleAndRemoved)
{
    struct stat file {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0600U);
    int32_t error = 0;
    EXPECT_EQ(kob_service_open(address.c_str(), nullptr, &error), nullptr);
    EXPECT_EQ(error, KOB_ERR_IN_USE);
    close_service();
    EXPECT_NE(stat(path.c_str(), &file), 0);

    leave_stale_socket();
    options.permissions = 0660;
    open_service();
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0660U);
    close_service();

    write_file();
    EXPECT_EQ(kob_service_open(address.c_str(), nullptr, &error), nullptr);
    EXPECT_EQ(error, KOB_ERR_IN_USE);
    EXPECT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(kob_service_open("unix:/no/such/folder/socket", nullptr, &error), nullptr);
    EXPECT_EQ(error, KOB_ERR_ADDRESS);
}

TEST(TransportErrors, EveryCodeHasItsOwnText)
{
    for (int32_t a = KOB_OK; a <= KOB_ERR_SYSTEM; ++a) {
        for (int32_t b = a + 1; b <= KOB_ERR_SYSTEM + 1; ++b)
            EXPECT_STRNE(kob_error_text(a), kob_error_text(b));
    }
    EXPECT_STREQ(kob_error_text(-1), kob_error_text(99));
}

} // namespace
