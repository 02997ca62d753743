// Messages: what is encoded is what the library sends, and what is decoded is what
// it would make of it; anything else is refused at the place of the fault.
#include "tools/tool_graphs.hpp"

#include "tools/message/element_tree.hpp"
#include "tools/message/message.hpp"
#include "zel-platform/kob_client.h"
#include "zel-platform/kob_service.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace tools;
using namespace test;

namespace {

Message random_message(uint32_t api_type, uint32_t seed)
{
    Message message;
    message.header = {api_type, 3, static_cast<uint16_t>(seed), 1};
    if (api_type != ZEL_API_POLICY_DELETE)
        message.graph = random_graph(get_mat_obj_type(api_type), seed);
    return message;
}

Message decode(const std::string &bytes) { return decode_message(list_elements(bytes, "m")); }

// A service that keeps what it gets.
class Wire {
public:
    Wire() : address_("unix:/tmp/zelctl_message_test." + std::to_string(getpid()))
    {
        const kob_service_options_t options{};
        service_ = kob_service_open(address_.c_str(), &options, nullptr);
        kob_ = kob_open(address_.c_str(), nullptr, nullptr);
        zel_api_init(&handle_, 0, 3, kob_, nullptr, nullptr, nullptr);
    }
    ~Wire()
    {
        kob_msg_free(received_);
        kob_close(kob_);
        kob_service_close(service_);
    }

    // The bytes that the library sends.
    std::string send(const Message &message)
    {
        const zel_kob_header_t &header = message.header;
        kob_msg_t *const msg = kob_msg_alloc();
        uint32_t token = 0;
        send_to_zel(&token, header.api_type, &handle_, header.policy_id, message.graph.root(), header.op_code, msg);
        kob_msg_free(msg);
        EXPECT_NE(token, 0u);
        EXPECT_EQ(kob_service_receive(service_, received_, 1000), KOB_OK);
        return {static_cast<const char *>(kob_payload_get(received_)), kob_msg_size(received_)};
    }

    // What the library's parser makes of them.
    Graph parse()
    {
        uint32_t mat_type = 0;
        uint32_t api_type = 0;
        uint32_t app_type = 0;
        uint16_t policy_id = 0;
        void *const root = parse_mat_obj_from_kob(0, &handle_, received_, &mat_type, &api_type, &policy_id, &app_type);
        return Graph(mat_type, root);
    }

private:
    std::string address_;
    kob_service_t *service_ = nullptr;
    uint32_t kob_ = 0;
    zel_api_handle_t handle_{};
    kob_msg_t *received_ = kob_msg_alloc();
};

} // namespace

TEST(Message, EncodesWhatTheLibrarySendsAndDecodesWhatItParses)
{
    Wire wire;
    for (uint32_t api_type = ZEL_API_POLICY_LIST_UPDATE; api_type <= ZEL_API_STATS_PULL; ++api_type)
        for (uint32_t seed = 0; seed < 8; ++seed) {
            const Message message = random_message(api_type, seed);
            const std::string bytes = wire.send(message);
            ASSERT_EQ(encode_message(message), bytes) << "request kind " << api_type << ", seed " << seed;
            const Message decoded = decode(bytes);
            EXPECT_TRUE(tools::equal(decoded.header, message.header));
            if (message.graph.root() == nullptr)
                continue;
            ASSERT_TRUE(equal_graphs(decoded.graph, message.graph));
            ASSERT_TRUE(equal_graphs(decoded.graph, wire.parse()));
        }
}

TEST(Message, GoesThroughJsonUnchanged)
{
    for (uint32_t api_type = ZEL_API_POLICY_LIST_UPDATE; api_type <= ZEL_API_STATS_PULL; ++api_type)
        for (uint32_t seed = 0; seed < 20; ++seed) {
            const std::string bytes = encode_message(random_message(api_type, seed));
            const std::string json = message_to_json(decode(bytes)).dump();
            ASSERT_EQ(encode_message(message_from_json(parse_json(json, "m.json"), 0)), bytes) << json;
        }
}

TEST(Message, AnyPartOfAMessageIsRefused)
{
    const std::string bytes = encode_message(random_message(ZEL_API_POLICY_UPDATE, 5));
    const ElementList list = list_elements(bytes, "m");
    for (const RawElement &element : list.elements) {
        std::string part = bytes.substr(0, element.offset);
        const uint32_t used = element.offset - 4;
        part.replace(0, 4, reinterpret_cast<const char *>(&used), 4);
        const std::string said = complaint([&] { decode(part); });
        unsigned offset = 0;
        ASSERT_EQ(std::sscanf(said.c_str(), "m: offset %u: ", &offset), 1) << said;
        ASSERT_LE(offset, element.offset) << "cut before element " << element.id;
    }
}

// Whatever byte is wrong, the answer is a refusal or a graph that can be written.
TEST(Message, DamageIsNeverMoreThanRefused)
{
    const std::string bytes = encode_message(random_message(ZEL_API_POLICY_UPDATE, 9));
    std::size_t refused = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        for (const int bit : {0, 1, 7}) {
            std::string damaged = bytes;
            damaged[i] = static_cast<char>(damaged[i] ^ (1 << bit));
            show_element_tree(list_elements(damaged, "m"));
            refused += !complaint([&] { message_to_json(decode(damaged)).dump(); }).empty();
        }
    EXPECT_GT(refused, bytes.size());
}

TEST(Message, FaultsAreNamedWithTheirPlace)
{
    Message message;
    message.header = {ZEL_API_MATCH_UPDATE, 0, 7, 1};
    message.graph = graph_from_json(ZEL_MAT_TYPE_MATCH, R"({"id": 5, "exp": 3})");
    const std::string bytes = encode_message(message);
    // With two bytes at an offset changed.
    const auto with = [&](std::size_t offset, uint16_t value) {
        std::string changed = bytes;
        changed.replace(offset, 2, reinterpret_cast<const char *>(&value), 2);
        return complaint([&] { decode(changed); });
    };
    EXPECT_EQ(with(13, 99), "m: request kind 99 is not known");
    EXPECT_EQ(with(44, 999), "m: offset 49: expected element 23 (start of match), found element 25 (match op_mode)");
    EXPECT_EQ(with(46, 2), "m: offset 44: element 23 (start of match) should have 1 bytes and has 2");
    EXPECT_EQ(with(73, ZEL_MATCH_TYPE_ACL),
              "m: offset 77: expected element 29 (start of match_acl), found element 46 (start of match_exp)");
    EXPECT_EQ(with(84, 500), "m: offset 82: this element is cut short");
    EXPECT_EQ(complaint([&] { decode(bytes + "more"); }), "m: offset 97: 4 bytes follow the last element");
    EXPECT_EQ(complaint([&] { decode(bytes.substr(0, 50)); }),
              "m: offset 4: no message: its first four bytes claim more than the 50 bytes there are");
}

TEST(Message, ElementsOfNewerPeersArePassedOver)
{
    Message message;
    message.header = {ZEL_API_POLICY_DELETE, 0, 7, 2};
    std::string bytes = encode_message(message);
    const uint16_t newer[] = {999, 2, 0x4142};
    bytes.insert(9, reinterpret_cast<const char *>(newer), sizeof newer);
    bytes[0] = static_cast<char>(bytes[0] + 6);
    EXPECT_EQ(decode(bytes).header.policy_id, 7);
    EXPECT_EQ(show_element_tree(list_elements(bytes, "m")),
              "  offset     id length\n"
              "       4      1      1  kob_header {\n"
              "       9    999      2    unknown 4241\n"
              "      15      4      4    api_type policy_delete "
              "(0x0000000a) [kob_header api_type]\n"
              "      23      5      4    app_type 0 [kob_header app_type]\n"
              "      31      6      2    policy_id 7 [kob_header policy_id]\n"
              "      37      7      4    op_code remove (0x00000002) "
              "[kob_header op_code]\n"
              "      45      2      1  } kob_header\n");
}

TEST(Message, JsonOfAnotherObjectThanTheHeaderSays)
{
    const auto read = [](const char *text) {
        return complaint([&] { message_from_json(parse_json(text, "m.json"), 0); });
    };
    EXPECT_EQ(read(R"({"kob_header": {"api_type": "match_update"}, "action": {}})"),
              "m.json:1: .action: unknown member; expected \"kob_header\" or \"match\"");
    EXPECT_EQ(read(R"({"kob_header": {"api_type": "match_update"}})"), "m.json:1: .: the member \"match\" is missing");
    EXPECT_EQ(read(R"({"match": {}})"), "m.json:1: .: the member \"kob_header\" is missing");
    EXPECT_EQ(read(R"({"kob_header": {"api_type": 12}})"), "m.json:1: .: request kind 12 is not known");
    EXPECT_EQ(read(R"({"kob_header": {"api_type": "policy_delete", "policy_id": 3}})"), "");
}
