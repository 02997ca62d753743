// The reader reads what the writer wrote, and gets an equal graph.
#include "tools/tool_graphs.hpp"

#include "tools/message/message.hpp"
#include "tools/records/packet_record.hpp"

#include <gtest/gtest.h>

using namespace tools;
using namespace test;

TEST(JsonRoundTrip, RandomGraphsOfEveryMatType)
{
    std::size_t references = 0;
    for (uint32_t mat_type = ZEL_MAT_TYPE_STAT_REQUEST_ENTRY; mat_type <= ZEL_MAT_TYPE_POLICY_LIST; ++mat_type)
        for (uint32_t seed = 0; seed < 60; ++seed) {
            const Graph graph = random_graph(mat_type, seed);
            const std::string text = write_graph(graph).dump(1);
            const Graph read = graph_from_json(mat_type, text);
            ASSERT_TRUE(equal_graphs(graph, read)) << "MAT type " << mat_type << ", seed " << seed << "\n" << text;
            ASSERT_EQ(write_graph(read).dump(1), text);
            references += text.find("\"ref\"") != std::string::npos;
        }
    EXPECT_GT(references, 20u); // otherwise nothing of sharing was tried
}

// Every field in turn holds random bytes, with runs of zeros and of ones.
void check_random_values(const zel::wire::Record &record, std::mt19937 &random)
{
    for (int round = 0; round < 200; ++round) {
        std::vector<uint8_t> bytes(record.size);
        const uint32_t style = random() % 4;
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(style == 0 ? random() : style == 1 ? 0 : style == 2 ? 0xff : random() % 2);
        bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
        if (&record == &zel::wire::match_acl)
            bytes.back() = 0; // is never sent as anything else
        const std::string text = JsonWriter().write(record, bytes.data()).dump();
        const Document document = parse_json(text, "test.json");
        const JsonPath root;
        std::vector<uint8_t> read(record.size);
        JsonReader(0).read({document, document.root, root}, record, read.data());
        ASSERT_TRUE(zel::wire::equal(record, bytes.data(), read.data())) << text;
    }
}

TEST(JsonRoundTrip, RandomValuesOfRecordsOfFields)
{
    std::mt19937 random(7);
    const auto check = [&](const zel::wire::Record &record) {
        if (record.is_leaf())
            check_random_values(record, random);
    };
    for (const zel::wire::Record *const object : zel::wire::mat_objects)
        for_each_record(*object, check);
    check(zel::wire::kob_header);
    check(packet_header);
}

// Items with ranges become masked elements, which are shown as the same items again, and
// elements that no range makes stay what they are.
TEST(JsonRoundTrip, RangesOfPortsAreSplitAndJoined)
{
    std::mt19937 random(3);
    const auto ports = [&]() -> std::string {
        const std::array values{random() % 65536, random() % 65536};
        const auto [low, high] = std::minmax(values[0], values[1]);
        switch (random() % 4) {
        case 0:
            return "\"any\"";
        case 1:
            return std::to_string(low);
        case 2:
            return "\"" + std::to_string(low) + "/0xf0f0\"";
        default:
            return low == high ? "7" : "\"" + std::to_string(low) + "-" + std::to_string(high) + "\"";
        }
    };
    std::size_t num_elements = 0;
    for (int round = 0; round < 300; ++round) {
        std::string items;
        for (uint32_t n = random() % 4 + 1; n != 0; --n)
            items += R"({"dip":"10.0.0.)" + std::to_string(n) + R"(","sport":)" + ports() + R"(,"dport":)" + ports() +
                     (n == 1 ? "}" : "},");
        const std::string text = R"({"id":1,"service":[)" + items + "]}";
        const Graph graph = graph_from_json(ZEL_MAT_TYPE_MATCH, text);
        Json shown = write_graph(graph)["service"];
        for (Json &item : shown) {
            item.erase("sip");
            item.erase("protocol");
        }
        ASSERT_EQ(shown.dump(), "[" + items + "]");
        num_elements += graph.as<zel_match_t>().param.service.num_elements;
    }
    EXPECT_GT(num_elements, 10000u);
    const auto number_of = [](const std::string &dport) {
        const Graph graph = graph_from_json(ZEL_MAT_TYPE_MATCH, R"({"id":1,"service":[{"dport":")" + dport + "\"}]}");
        return graph.as<zel_match_t>().param.service.num_elements;
    };
    EXPECT_EQ(number_of("80-90"), 3u);
    EXPECT_EQ(number_of("80-87"), 1u);
    EXPECT_EQ(number_of("1024-65535"), 6u);
    EXPECT_EQ(number_of("1-65534"), 30u);
    EXPECT_NE(complaint([&] { number_of("90-80"); }), "");
    EXPECT_NE(
        complaint([&] { graph_from_json(ZEL_MAT_TYPE_MATCH, R"({"id":1,"service_element":{"dport":"80-90"}})"); }), "");
}

TEST(JsonRoundTrip, PeopleMayLeaveOutAndAbbreviate)
{
    const Graph graph = graph_from_json(ZEL_MAT_TYPE_MATCH, R"({"id": 5, "service": [{"dip": "10.0.0.0/8"}]})");
    const auto &read = graph.as<zel_match_t>();
    EXPECT_EQ(read.type, uint32_t{ZEL_MATCH_TYPE_SERVICE});
    ASSERT_EQ(read.param.service.num_elements, 1);
    EXPECT_EQ(read.param.service.elements[0]->dip, 0x0a000000u);
    EXPECT_EQ(read.param.service.elements[0]->dip_mask, 0xff000000u);
    EXPECT_EQ(read.param.service.elements[0]->sport_mask, 0u);

    // A record with one member may be written as an object, too.
    const Graph same = graph_from_json(
        ZEL_MAT_TYPE_MATCH, R"({"id": 5, "type": 4, "service": {"elements": [{"dip": "10.0.0.0/255.0.0.0"}]}})");
    EXPECT_TRUE(equal_graphs(graph, same));
}

TEST(JsonRoundTrip, ReferencesHaveTheContentOfWhatTheyMean)
{
    const Graph graph = graph_from_json(ZEL_MAT_TYPE_MATCH_GROUP, R"({"matches": [
        {"id": 2, "label": {"label": "blue"}}, {"ref": 2}, {"id": 2, "label": {"label": "blue", "length": 4}},
        {"id": 3, "service": [{"dport": 80}, {"dport": 443}]}, {"ref": 3}]})");
    const auto &group = graph.as<zel_match_grp_t>();
    ASSERT_EQ(group.num_match, 5);
    EXPECT_TRUE(zel::wire::equal(zel::wire::match, group.matches[0], group.matches[1]));
    EXPECT_EQ(group.matches[1]->param.label.length, 4);
    EXPECT_EQ(write_graph(graph)["matches"][1].dump(), R"({"ref":2})");
    EXPECT_EQ(write_graph(graph)["matches"][2].dump(), R"({"ref":2})");
    EXPECT_EQ(group.matches[4]->param.service.num_elements, 2);
    EXPECT_EQ(write_graph(graph)["matches"][4].dump(), R"({"ref":3})");
}

// The examples in docs/policy-format.md.
TEST(JsonRoundTrip, TheDocumentedFormatIsTheOneThatIsRead)
{
    const std::string page = read_file(EXAMPLES_DIR "/../docs/policy-format.md");
    std::vector<std::string> blocks;
    for (std::size_t at = page.find("```json\n"); at != std::string::npos; at = page.find("```json\n", at)) {
        at += 8;
        const std::size_t end = page.find("```", at);
        blocks.push_back(page.substr(at, end - at));
        at = end;
    }
    ASSERT_EQ(blocks.size(), 6u);
    EXPECT_EQ(graph_from_json(ZEL_MAT_TYPE_POLICY, blocks[0]).as<zel_policy_t>().if_group.num_if, 1);
    const Graph matches = graph_from_json(ZEL_MAT_TYPE_MATCH_GROUP, "{\"matches\": " + blocks[1] + "}");
    EXPECT_EQ(matches.as<zel_match_grp_t>().num_match, 10);
    const Graph actions = graph_from_json(ZEL_MAT_TYPE_ACTION_GROUP, "{\"actions\": " + blocks[2] + "}");
    EXPECT_EQ(actions.as<zel_action_grp_t>().num_action, 7);
    EXPECT_EQ(graph_from_json(ZEL_MAT_TYPE_STAT_REQUEST, blocks[3]).as<zel_stat_request_t>().num_requests, 1u);
    const Message message = message_from_json(parse_json(blocks[4], "test.json"), 0);
    EXPECT_EQ(message.graph.as<zel_match_t>().param.exp.exp, 6);

    // The first example shows every field, as zelctl does.
    const std::string shown = write_graph(graph_from_json(ZEL_MAT_TYPE_POLICY, blocks[0])).dump();
    EXPECT_EQ(shown, Json::parse(blocks[0]).dump());
}

TEST(JsonRoundTrip, TheCommandsApplicationStandsInForAMissingOne)
{
    const Document document = parse_json(R"([{"id": 1}, {"id": 2, "app_type": 4}])", "test.json");
    JsonReader reader(9);
    const Graph graph = read_graph(reader, zel::wire::policy_list, document);
    EXPECT_EQ(graph.as<zel_policy_list_t>().policies[0]->app_type, 9u);
    EXPECT_EQ(graph.as<zel_policy_list_t>().policies[1]->app_type, 4u);
}
