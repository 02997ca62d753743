// A service's calls: a request is read or refused with an answer, and nothing is lost.
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"
#include "zel/service.h"

#include <gtest/gtest.h>

using namespace test;

namespace {

Message received(const Bytes &payload)
{
    Message message{payload};
    message.payload.resize(payload.size() + 64);
    return message;
}

Message received(uint32_t kind, uint32_t op_code, void *graph)
{
    auto handle = fresh_handle();
    Message slot;
    uint32_t token = 0;
    send_to_zel(&token, kind, &handle, 5, graph, op_code, &slot);
    EXPECT_EQ(platform.sends[0].message.size(), zel_message_size(&handle, kind, graph));
    return received(platform.sends[0].message);
}

struct Request : zel_request_t {
    Request() : zel_request_t{} { size = sizeof(zel_request_t); }
    ~Request() { zel_request_free(this); }

    const zel_resp_hdr_t &sent() const { return *static_cast<const zel_resp_hdr_t *>(reply[0].address); }
};

} // namespace

TEST(ServiceCalls, EveryKindIsReadAndOwned)
{
    for (uint32_t kind = ZEL_API_POLICY_LIST_UPDATE; kind <= ZEL_API_STATS_PULL; ++kind) {
        SCOPED_TRACE(kind);
        const uint32_t mat_type = get_mat_obj_type(kind);
        void *const graph = Graphs([] { return 2; }, counted()).make(mat_type);
        Message message = received(kind, ZEL_OP_SET, graph);
        free_graph(mat_type, graph);
        {
            Request request;
            ASSERT_EQ(zel_request_read(0, &message, nullptr, &request), ZEL_REQUEST_OK) << request.answer.msg;
            const zel_kob_header_t &header = request.header;
            EXPECT_EQ(std::tie(header.api_type, header.policy_id, header.op_code, request.mat_type),
                      std::make_tuple(kind, 5, uint32_t{ZEL_OP_SET}, mat_type));
            auto again = fresh_handle();
            EXPECT_EQ(zel_message_size(&again, kind, request.object), message.payload.size() - 64);
            EXPECT_EQ(request.num_segments, 1U);
            EXPECT_EQ(request.sent().error, ZEL_ERROR_UNSUPPORTED); // until the service says something else
            zel_request_answer(&request, ZEL_ERROR_NONE, "%u done", kind);
            EXPECT_TRUE(request.sent().status == ZEL_STATUS_OK && request.sent().retval == 0);
            EXPECT_EQ(request.sent().msg, std::to_string(kind) + " done");
        }
        EXPECT_TRUE(heap.live.empty());
    }
}

TEST(ServiceCalls, BadMessagesAreAnswered)
{
    const struct {
        Bytes payload;
        bool strict;
        uint32_t rule, error;
        const char *text;
    } cases[] = {
        {message(7, "23 26:0500 24"), false, ZEL_VERIFY_PLACE, ZEL_ERROR_MALFORMED, "match: an element is not in"},
        {message(12, "23 24"), false, ZEL_VERIFY_REQUEST_KIND, ZEL_ERROR_UNSUPPORTED, "the request kind is not known"},
        {message(10, "250:00"), true, ZEL_VERIFY_UNKNOWN, ZEL_ERROR_MALFORMED, "an element is not known"},
        {message(10, "250:00"), false, ZEL_VERIFY_OK, ZEL_ERROR_UNSUPPORTED, "request kind 10 with op_code 7 is not"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        fresh_handle();
        Message message = received(c.payload);
        Request request;
        const zel_request_options_t options{sizeof options, c.strict, 0, nullptr};
        EXPECT_EQ(zel_request_read(0, &message, &options, &request),
                  c.rule == ZEL_VERIFY_OK ? ZEL_REQUEST_OK : ZEL_REQUEST_REFUSED);
        EXPECT_EQ(request.rule, c.rule);
        EXPECT_EQ(request.unknown_elements, c.rule == ZEL_VERIFY_OK ? 1U : 0U);
        EXPECT_TRUE(request.sent().error == c.error && request.sent().status == ZEL_STATUS_FAILED);
        EXPECT_NE(std::string(request.sent().msg).find(c.text), std::string::npos) << request.sent().msg;
        EXPECT_EQ(request.object, nullptr);
    }
    Request none;
    Message empty;
    empty.empty = true;
    EXPECT_EQ(zel_request_read(0, &empty, nullptr, &none), ZEL_REQUEST_REFUSED);
    EXPECT_EQ(none.rule, ZEL_VERIFY_NO_MESSAGE);
}

// Every allocation fails once; with a handle of the caller's, its callback is told.
TEST(ServiceCalls, OutOfMemory)
{
    auto *const policy = Graphs([] { return 2; }, counted()).make<zel_policy_t>();
    Message message = received(ZEL_API_POLICY_UPDATE, ZEL_OP_SET, policy);
    free_graph(ZEL_MAT_TYPE_POLICY, policy);
    int failed = 0;
    for (bool is_read = false; !is_read; ++failed) {
        auto handle = fresh_handle();
        heap.fail_calloc = failed + 1;
        const zel_request_options_t options{sizeof options, 0, 1, failed % 2 != 0 ? &handle : nullptr};
        Request request;
        is_read = zel_request_read(0, &message, &options, &request) == ZEL_REQUEST_OK;
        EXPECT_EQ(platform.reported("err").empty(), is_read || failed % 2 == 0);
        if (!is_read) {
            EXPECT_EQ(request.result, ZEL_REQUEST_NO_MEMORY);
            EXPECT_EQ(request.sent().error, ZEL_ERROR_LIMIT);
            EXPECT_EQ(request.object, nullptr);
            EXPECT_TRUE(heap.live.empty());
        }
    }
    EXPECT_GT(failed, 20);
    EXPECT_TRUE(heap.live.empty());
}
