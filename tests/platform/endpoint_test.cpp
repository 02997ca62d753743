// An endpoint of another kind, registered at run time: it answers every request by itself.
#include "bytes.hpp"
#include "reference/kob/endpoint.hpp"
#include "zel-platform/kob_client.h"

#include <utility>

using namespace zel::platform;

namespace {

struct EchoLink : ClientLink {
    kob_msg answer{};
};

EchoLink &as_echo(ClientLink &link) { return static_cast<EchoLink &>(link); }

bool is_location(const char *location) { return std::strcmp(location, "here") == 0; }

int32_t connect_to(const char *, uint32_t, Deadline, ClientLink *&link)
{
    link = new EchoLink;
    return KOB_OK;
}

int32_t send_to(ClientLink &link, const Frame &frame, const void *, Deadline)
{
    kob_msg &answer = as_echo(link).answer;
    answer = {};
    answer.token = frame.token;
    answer.opcode = frame.opcode;
    return KOB_OK;
}

int32_t receive_from(ClientLink &link, kob_msg &msg, Deadline)
{
    msg = std::exchange(as_echo(link).answer, {});
    return msg.token != 0 ? KOB_OK : KOB_ERR_TIMEOUT;
}

void disconnect(ClientLink &link) { delete &as_echo(link); }

constexpr ClientOperations echo_client = {connect_to, send_to, receive_from, disconnect};
constexpr Endpoint echo = {"echo", is_location, &echo_client, nullptr};
constexpr Endpoint another_unix = {"unix", is_location, &echo_client, nullptr};

TEST(Endpoint, IsFoundByItsSchemeOnceItIsRegistered)
{
    int32_t error = KOB_OK;
    EXPECT_TRUE(kob_open("echo:here", nullptr, &error) == 0 && error == KOB_ERR_ADDRESS);
    EXPECT_TRUE(register_endpoint(echo));
    EXPECT_FALSE(register_endpoint(echo));
    EXPECT_FALSE(register_endpoint(another_unix));
    EXPECT_TRUE(kob_open("echo:there", nullptr, &error) == 0 && error == KOB_ERR_ADDRESS);
    EXPECT_TRUE(kob_service_open("echo:here", nullptr, &error) == nullptr && error == KOB_ERR_ADDRESS)
        << "it has no service's half";

    const uint32_t kob = kob_open("echo:here", nullptr, &error);
    kob_msg_t *const msg = kob_msg_alloc();
    ASSERT_NE(kob, 0U);
    EXPECT_EQ(fu_kob_send(kob, 0, 0, 42, nullptr, 0, msg, 0, 0), KOB_OK);
    EXPECT_EQ(kob_receive(kob, kob_rr_token_get(msg), msg, 0), KOB_OK);
    EXPECT_EQ(kob_msg_opcode(msg), 42U);
    EXPECT_EQ(kob_receive(kob, 0, msg, 0), KOB_ERR_TIMEOUT);
    kob_msg_free(msg);
    kob_close(kob);
}

} // namespace
