// Messages: what is encoded is what the library sends, what is decoded is what the
// library's parser makes of it, and all else is refused with the place of the fault.
#include "tools/tool_graphs.hpp"

#include "tools/message/element_tree.hpp"
#include "tools/message/message.hpp"
#include "zel-platform/kob_client.h"
#include "zel-platform/kob_service.h"

#include <fmt/core.h>
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

Message decode(const std::string &bytes) { return decode_message(bytes, "m"); }

// A service that receives messages and gives their bytes.
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
            EXPECT_TRUE(zel::wire::equal(zel::wire::kob_header, &decoded.header, &message.header));
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
    const ElementList list = list_elements(bytes);
    for (const RawElement &element : list.elements) {
        std::string part = bytes.substr(0, element.offset);
        const uint32_t used = element.offset - 4;
        part.replace(0, 4, reinterpret_cast<const char *>(&used), 4);
        const std::string said = complaint([&] { decode(part); });
        const std::size_t place = said.rfind("offset ");
        ASSERT_NE(place, std::string::npos) << said;
        ASSERT_LE(std::stoul(said.substr(place + 7)), element.offset) << "cut before element " << element.id;
    }
}

// A message with any bit changed is refused or gives a graph that can be written.
TEST(Message, DamageIsNeverMoreThanRefused)
{
    const std::string bytes = encode_message(random_message(ZEL_API_POLICY_UPDATE, 9));
    std::size_t refused = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        for (const int bit : {0, 1, 7}) {
            std::string damaged = bytes;
            damaged[i] = static_cast<char>(damaged[i] ^ (1 << bit));
            show_element_tree(list_elements(damaged));
            const std::string said = complaint([&] { message_to_json(decode(damaged)).dump(); });
            ASSERT_EQ(said, complaint([&] { verify_message(damaged, "m"); }));
            refused += !said.empty();
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
    EXPECT_EQ(with(13, 99),
              "m: header: the request kind is not known: expected 11, found 99 (element 1, id 4, offset 9)");
    EXPECT_EQ(
        with(44, 999),
        "m: match: not the object that the request kind names: expected 23, found 25 (element 7, id 25, offset 49)");
    EXPECT_EQ(with(46, 2), "m: match: a value has the wrong length: expected 1, found 2 (element 6, id 23, offset 44)");
    EXPECT_EQ(with(73, ZEL_MATCH_TYPE_ACL),
              "m: match: type and parameter disagree: expected 29, found 46 (element 11, id 46, offset 77)");
    EXPECT_EQ(with(48, 1 | 25 << 8),
              "m: match: the value of a marker is not 0: expected 0, found 1 (element 6, id 23, offset 44)");
    EXPECT_EQ(with(84, 500), "m: match: an element is damaged: expected 48, found 0 (element 12, id 0, offset 82)");
    EXPECT_EQ(complaint([&] { decode(bytes + "more"); }), "m: offset 97: 4 bytes follow the last element");
    EXPECT_EQ(complaint([&] { decode(bytes.substr(0, 50)); }),
              "m: no message: its first four bytes claim more than the 50 bytes there are");
}

// An element of a newer peer is passed over, counted, and marked in the tree, wherever it
// stands.
TEST(Message, UnknownElementsAreCountedAsTheyAreShown)
{
    const std::string bytes = encode_message(random_message(ZEL_API_POLICY_UPDATE, 9));
    const Graph graph = std::move(decode(bytes).graph);
    for (const RawElement &element : list_elements(bytes).elements) {
        std::string newer = bytes;
        newer.insert(element.offset, "\xe7\x03\x02\0AB\xc8\0\0\0", 10);
        const auto used = static_cast<uint32_t>(newer.size() - 4);
        newer.replace(0, 4, reinterpret_cast<const char *>(&used), 4);
        EXPECT_EQ(verify_message(newer, "m").unknown_elements, 2u);
        EXPECT_TRUE(equal_graphs(decode(newer).graph, graph));
        const std::string tree = show_element_tree(list_elements(newer));
        EXPECT_NE(tree.find("unknown 4142\n"), std::string::npos);
        EXPECT_NE(complaint([&] { verify_message(newer, "m", true); }).find("(element "), std::string::npos);
    }
}

// A service's answer to a show request: messages one after the other.
TEST(Message, MessagesThatFollowEachOther)
{
    std::string bytes;
    std::vector<Message> sent;
    for (uint32_t seed = 0; seed < 20; ++seed)
        bytes += encode_message(sent.emplace_back(random_message(ZEL_API_POLICY_UPDATE, seed)));
    const std::vector<Message> read = decode_messages(bytes, "answer");
    ASSERT_EQ(read.size(), sent.size());
    for (std::size_t i = 0; i < read.size(); ++i) {
        EXPECT_EQ(read[i].header.policy_id, sent[i].header.policy_id);
        EXPECT_EQ(read[i].header.op_code, sent[i].header.op_code);
        EXPECT_TRUE(equal_graphs(read[i].graph, sent[i].graph));
    }
    EXPECT_TRUE(decode_messages({}, "answer").empty());

    const std::string first = encode_message(sent[0]);
    const auto said = [](const std::string &body) { return complaint([&] { decode_messages(body, "answer"); }); };
    for (std::size_t rest = 1; rest < 4; ++rest)
        EXPECT_EQ(
            said(first + std::string(rest, '\0')),
            fmt::format("answer, message 2: no message: its first four bytes claim more than the {} bytes there are",
                        rest));
    EXPECT_EQ(said(first + first.substr(0, first.size() - 1)),
              fmt::format("answer, message 2: no message: its first four bytes claim more than the {} bytes there are",
                          first.size() - 1));
    EXPECT_EQ(said(first + std::string(4, '\0')), "answer, message 2: header: the message ends too early: expected 1, "
                                                  "found 0 (element 0, id 0, offset 4)");
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
    EXPECT_EQ(verify_message(bytes, "m").unknown_elements, 1u);
    EXPECT_EQ(show_element_tree(list_elements(bytes)), "  offset     id length\n"
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
