// Graphs as C++ values: what goes in comes out, ids follow from contents, and a client and a
// service understand each other.
#include "../support/graphs.hpp"
#include "zel.hpp"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <thread>
#include <unistd.h>

using namespace test;

namespace {

std::vector<unsigned char> encoded(const zel::Policy &policy)
{
    const auto message = zel::encode(policy, 3);
    EXPECT_TRUE(message) << message.error().text;
    return message ? *message : std::vector<unsigned char>();
}

std::vector<unsigned char> encoded(const zel_policy_t &policy)
{
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 3, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    const zel_kob_header_t header{ZEL_API_POLICY_UPDATE, 3, policy.id, ZEL_OP_SET};
    uint32_t size = 0;
    const std::unique_ptr<void, decltype(&std::free)> message(zel_encode_message(&handle, &header, &policy, &size),
                                                              std::free);
    const auto *const bytes = static_cast<const unsigned char *>(message.get());
    return {bytes, bytes + size};
}

zel::Policy decoded(const std::vector<unsigned char> &message)
{
    const zel::Request request = zel::Request::read(message);
    EXPECT_TRUE(request.is(ZEL_API_POLICY_UPDATE, ZEL_OP_SET)) << request.error().text;
    return request ? request.policy() : zel::Policy();
}

// Every type and field of the description, with ids given: values hold all of it.
TEST(Values, HoldEverythingThatTravels)
{
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        const auto below = [&](uint32_t n) { return [&random, n] { return static_cast<uint32_t>(random() % n); }; };
        // The type follows from the id: two of them do not travel.
        const auto id = [&] {
            uint32_t made = 0;
            do
                made = 1 + below(90)();
            while (made % 12 + 1 == ZEL_MATCH_TYPE_ACL_IPV6 || made % 12 + 1 > ZEL_MATCH_TYPE_NO_PARAM);
            return made;
        };
        auto *const policy = Graphs(below(4), id).make<zel_policy_t>();
        const auto message = encoded(*policy);
        free_graph(ZEL_MAT_TYPE_POLICY, policy);
        ASSERT_EQ(encoded(decoded(message)), message) << round;
    }
}

// Without ids: equal matches and actions have one, different ones differ, whatever other ids are kept.
TEST(Values, IdsFollowFromContents)
{
    std::mt19937 random(8);
    for (int round = 0; round < 100; ++round) {
        zel::Policy policy{7};
        for (int p = 0; p < 30; ++p) {
            const auto port = static_cast<uint16_t>(random() % 5);
            zel::Match range = zel::udp().to_ports(port, static_cast<uint16_t>(port + random() % 9));
            policy.pairs.push_back({{zel::tcp().to_port(port), range}, {zel::set_vrf(port % 3U)}});
            if (random() % 4 == 0)
                policy.pairs.back().matches[0].id = static_cast<uint16_t>(1 + port);
        }
        std::map<std::vector<unsigned char>, uint16_t> id_of;
        std::map<uint16_t, std::vector<unsigned char>> content_of;
        for (const zel::Pair &pair : decoded(encoded(policy)).pairs) {
            for (zel::Match match : pair.matches) {
                const uint16_t id = std::exchange(match.id, 1);
                zel::Policy alone{1};
                alone.pairs.push_back({{match}, {}});
                const auto content = encoded(alone);
                EXPECT_EQ(content_of.emplace(id, content).first->second, content) << id;
                id_of.emplace(content, id);
            }
        }
        // A match that keeps an id is another object than one that was given its own.
        EXPECT_LE(id_of.size(), content_of.size());
        EXPECT_LE(content_of.size(), id_of.size() + 5);
    }
}

TEST(Values, FaultsAreNamed)
{
    const struct {
        zel::Match match;
        const char *text;
    } cases[] = {
        {zel::tcp().to("10.0.0.256"), "policy 7 / pair 2 / match 1: not an IPv4 address or prefix: 10.0.0.256"},
        {zel::tcp().to("10.0.0.0/33"), "policy 7 / pair 2 / match 1: not an IPv4 address or prefix: 10.0.0.0/33"},
        {zel::tcp().to_ports(90, 80), "policy 7 / pair 2 / match 1: not a range of ports: 90 to 80"},
        {zel::Match(zel::NoParam{ZEL_MATCH_TYPE_ACL_IPV6}),
         "policy / pair 2 / match 1: a type does not travel: expected 0, found 2 (id 28)"},
    };
    for (const auto &c : cases) {
        zel::Policy policy{7};
        policy.pairs.push_back({{zel::everything()}, {}});
        policy.pairs.push_back({{c.match}, {}});
        const auto message = zel::encode(policy);
        ASSERT_FALSE(message);
        EXPECT_EQ(message.error().text, c.text);
        EXPECT_EQ(message.error().kind, zel::Error::Kind::value);
    }
    zel::Policy wide{7};
    for (uint32_t i = 0; i < 65536; ++i)
        wide.pairs.push_back({});
    EXPECT_FALSE(zel::encode(wide));
    const auto mask = zel::parse_prefix("10.1.2.3/255.0.255.0");
    EXPECT_TRUE(mask && mask->address == 0x0a010203 && mask->mask == 0xff00ff00);
    EXPECT_EQ(zel::Request::read(std::vector<unsigned char>{9, 0, 0, 0}).error().kind, zel::Error::Kind::message);
}

TEST(Values, ClientAndService)
{
    const std::string address = "unix:" + testing::TempDir() + "zel-values-" + std::to_string(getpid());
    auto client = zel::Client::open(address);
    ASSERT_TRUE(client);
    EXPECT_EQ(client->remove(1).error().kind, zel::Error::Kind::transport);

    auto service = zel::Service::open(address);
    ASSERT_TRUE(service) << service.error().text;
    std::thread server([&] {
        for (int i = 0; i < 4; ++i) {
            auto request = service->receive();
            ASSERT_TRUE(request && *request);
            if (request->is(ZEL_API_POLICY_UPDATE, ZEL_OP_SET))
                request->answer("policy " + std::to_string(request->policy().id));
            else if (request->is(ZEL_API_STATS_PULL, ZEL_OP_STATS))
                request->answer({{ZEL_STAT_TAG_PAIR, 0, {7, 2}, {{5, 500}}}});
            else if (request->header().api_type == ZEL_API_MATCH_ACTION_PAIR_UPDATE)
                request->refuse(ZEL_ERROR_CONFLICT, "pair " + std::to_string(request->header().policy_id));
            EXPECT_TRUE(service->reply(*request)); // a delete is refused as unsupported
        }
    });
    zel::Policy policy{7};
    policy.pairs.push_back({{zel::ether_type(0x800)}, {}, 4});
    EXPECT_EQ(client->set(policy)->text, "policy 7");
    const auto refused = client->set(9, policy.pairs[0]);
    EXPECT_TRUE(refused.error().kind == zel::Error::Kind::refused && refused.error().code == ZEL_ERROR_CONFLICT);
    EXPECT_EQ(refused.error().text, "pair 9");
    const auto counters = client->statistics();
    EXPECT_TRUE(counters && counters->size() == 1 && counters->front().pair_id == 2 && counters->front().bytes == 500);
    EXPECT_EQ(client->remove(7).error().code, ZEL_ERROR_UNSUPPORTED);
    server.join();
}

} // namespace
