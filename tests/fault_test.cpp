// Whatever fails, wherever: what is left is consistent, and nothing of it is lost.
#include "support/graphs.hpp"
#include "support/recording_platform.hpp"

#include <gtest/gtest.h>

using namespace test;

namespace {

enum FailingCall { allocation, element_write, tree_insert, num_ways };

int &countdown(FailingCall call)
{
    int *const countdowns[] = {&heap.fail_calloc, &platform.fail_write, &platform.fail_insert};
    return *countdowns[call];
}

// Lets the n-th one fail, for every n that the work reaches, and returns how many
// those are.  The work says whether it got through.
template <class Work> int each(FailingCall call, const Work &work)
{
    Strings errors_without;
    for (int n = 0;; ++n) {
        SCOPED_TRACE(n);
        auto handle = fresh_handle();
        countdown(call) = n;
        const bool is_through = work(handle);
        const bool is_hit = n != 0 && countdown(call) == 0;
        if (n == 0)
            errors_without = platform.reported("err");
        // By contract, nobody frees an entry that the tree refuses.  It also refuses the second of two
        // objects whose references were not resolved: both have id 0.
        const auto details = platform.reported("dbg");
        const auto refused = std::count_if(details.begin(), details.end(),
                                           [](const auto &text) { return text.find("insert failed") == 0; });
        EXPECT_EQ(heap.live.size(), static_cast<size_t>(refused));
        EXPECT_EQ(handle.mat_cache.root, nullptr);
        EXPECT_EQ(handle.faults.count, platform.reported("err").size());
        EXPECT_EQ(!is_through || platform.reported("err") != errors_without || refused != 0, is_hit);
        free_heap();
        if ((n != 0 && !is_hit) || testing::Test::HasFailure())
            return n - 1;
    }
}

// A list with two members of everything, in which matches and actions come again.
zel_policy_list_t *make_list()
{
    return Graphs([] { return 2; }, [n = 2u]() mutable { return ++n % 13; }).make<zel_policy_list_t>();
}

} // namespace

TEST(Fault, OnTheWayOut)
{
    const auto send = [](zel_api_handle_t &handle, FailingCall call) {
        const int n = std::exchange(countdown(call), 0); // the graph itself is not at stake
        auto *const list = make_list();
        countdown(call) = n;
        Message message;
        uint32_t token = 0;
        const uint32_t result = send_to_zel(&token, ZEL_API_POLICY_LIST_UPDATE, &handle, 0, list, 1, &message);
        EXPECT_EQ(platform.sends.size(), result == ZEL_SEND_DONE ? 1u : 0u);
        free_graph(ZEL_MAT_TYPE_POLICY_LIST, list);
        return result == ZEL_SEND_DONE;
    };
    int reached[num_ways];
    for (const FailingCall call : {allocation, element_write, tree_insert})
        reached[call] = each(call, [&](auto &handle) { return send(handle, call); });
    EXPECT_EQ(reached[allocation], 2 * 14 + 1); // an entry for every object in either pass, and the buffer
    EXPECT_EQ(reached[tree_insert], 2 * 14);
    EXPECT_GT(reached[element_write], 200);
}

TEST(Fault, OnTheWayIn)
{
    auto sender = fresh_handle();
    auto *const list = make_list();
    Message sent;
    zel_policy_list_update(&sender, list, 1, &sent);
    free_graph(ZEL_MAT_TYPE_POLICY_LIST, list);
    Message received{platform.sends[0].message};
    received.payload.resize(received.payload.size() + 64);

    for (const FailingCall call : {allocation, tree_insert}) {
        const int reached = each(call, [&](auto &handle) {
            uint32_t mat_type = 0, api_type = 0, app_type = 0;
            uint16_t policy_id = 0;
            void *const object =
                parse_mat_obj_from_kob(0, &handle, &received, &mat_type, &api_type, &policy_id, &app_type);
            if (object != nullptr)
                free_graph(mat_type, object);
            return object != nullptr;
        });
        EXPECT_GT(reached, call == allocation ? 50 : 10);
    }
}
