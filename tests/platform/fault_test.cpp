// Whatever system call or allocation fails in an exchange: the next exchange works,
// and nothing is lost on the way.  The tree works without memory of its own.
#include "transport_support.hpp"
#include "zel-platform/tlv_field.h"
#include "zel.h"
#include "zel/platform/avl_tree.h"
#include "zel/platform/tlv_converter.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <utility>

namespace {

enum FailingCall { allocation, packet_send, packet_receive, num_ways };

std::atomic<int> countdowns[num_ways];
std::atomic<int> live_blocks;

constexpr int always = -1;

bool fails(FailingCall call) { return countdowns[call] == always || (countdowns[call] > 0 && --countdowns[call] == 0); }

// What another process does at the moment of a call; once.
std::function<void()> at_listen, at_flock;

void run_once(std::function<void()> &action)
{
    if (const auto taken = std::exchange(action, nullptr))
        taken();
}

template <class P> P counted(P block, int change)
{
    live_blocks += block != nullptr ? change : 0;
    return block;
}

} // namespace

extern "C" {

void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
void __real_free(void *);
ssize_t __real_sendmsg(int, const msghdr *, int);
ssize_t __real_recvmsg(int, msghdr *, int);
ssize_t __real_recv(int, void *, size_t, int);
int __real_listen(int, int);
int __real_flock(int, int);

void *__wrap_malloc(size_t size) { return fails(allocation) ? nullptr : counted(__real_malloc(size), 1); }
void *__wrap_calloc(size_t n, size_t size) { return fails(allocation) ? nullptr : counted(__real_calloc(n, size), 1); }
void *__wrap_realloc(void *block, size_t size)
{
    return fails(allocation) ? nullptr : counted(__real_realloc(block, size), block == nullptr ? 1 : 0);
}
void __wrap_free(void *block) { __real_free(counted(block, -1)); }

ssize_t __wrap_sendmsg(int socket, const msghdr *packet, int flags)
{
    return fails(packet_send) ? (errno = ECONNRESET, -1) : __real_sendmsg(socket, packet, flags);
}
ssize_t __wrap_recvmsg(int socket, msghdr *packet, int flags)
{
    return fails(packet_receive) ? (errno = ENOMEM, -1) : __real_recvmsg(socket, packet, flags);
}
int __wrap_listen(int socket, int backlog)
{
    run_once(at_listen);
    return __real_listen(socket, backlog);
}
int __wrap_flock(int file, int operation)
{
    run_once(at_flock);
    return __real_flock(file, operation);
}
ssize_t __wrap_recv(int socket, void *bytes, size_t size, int flags)
{
    return fails(packet_receive) ? (errno = ENOMEM, -1) : __real_recv(socket, bytes, size, flags);
}
}

namespace {

TEST_F(TransportTest, AnyCallFails)
{
    constexpr uint32_t three_packets = 150000;
    constexpr int32_t moment = 50; // for what does not arrive
    // A message, its tail, and all that either side keeps of one.
    const auto drop_messages = [&] {
        message.reset(kob_msg_alloc(), kob_msg_free);
        received.reset(kob_msg_alloc(), kob_msg_free);
    };
    for (const FailingCall call : {allocation, packet_send, packet_receive}) {
        int n = 0;
        for (bool is_hit = true; is_hit;) {
            SCOPED_TRACE(++n);
            expect_exchange();
            drop_messages();
            const int before = live_blocks;
            countdowns[call] = n;
            const uint32_t token = send(array_of(three_packets), 1);
            if (token != 0 && serve(moment) == KOB_OK && reply(response_of(three_packets)) == KOB_OK)
                fetch(token, moment);
            is_hit = countdowns[call].exchange(0) == 0;
            drop_messages();
            expect_exchange();
            drop_messages();
            EXPECT_EQ(live_blocks, before);
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(n, call == allocation ? 4 : 6);
    }
}

// Between bind() and listen() a socket looks like that of a dead service.
TEST_F(TransportTest, ServiceThatIsStartingIsNotReplaced)
{
    const auto expect_in_use = [&] {
        int32_t error = KOB_OK;
        EXPECT_EQ(kob_service_open(address.c_str(), &options, &error), nullptr);
        EXPECT_EQ(error, KOB_ERR_IN_USE);
    };
    for (const bool another_comes_and_goes : {false, true}) {
        close_service();
        close(raw_socket(bind));    // left behind by a dead service
        if (another_comes_and_goes) // which removes the file of the lock that is about to be taken
            at_flock = [&] {
                at_listen = nullptr;
                kob_service_close(kob_service_open(address.c_str(), &options, nullptr));
                at_listen = expect_in_use;
            };
        at_listen = expect_in_use;
        open_service();
        EXPECT_TRUE(at_listen == nullptr && at_flock == nullptr) << "not called";
        expect_exchange();
    }
}

TEST(Converter, TellsThatMemoryRanOut)
{
    const Bytes body = array_with({{154, {9}}});
    for (const bool is_out_of_memory : {true, false}) {
        void *record = &record;
        countdowns[allocation] = is_out_of_memory ? 1 : 0;
        EXPECT_EQ(tlvu_table_convert_tlv_to_struct(&record, body.data(), 0, &zel_stat_results_tbl, 0),
                  is_out_of_memory ? TLVU_NO_MEMORY : TLVU_OK);
        EXPECT_EQ(record == nullptr, is_out_of_memory);
        std::free(record);
    }
}

TEST(AvlTree, WorksWithoutMemoryAndReturnsWhatItTook)
{
    struct Entry {
        uint64_t link[2];
        uint32_t key;
    };
    constexpr uint32_t n = 5000; // four growths
    const ravl_compare_t compare = [](const void *a, const void *b) -> uint32_t {
        const uint32_t x = *static_cast<const uint32_t *>(a), y = *static_cast<const uint32_t *>(b);
        return x > y ? 1 : x < y ? 2 : 0;
    };
    ravl_tree_t tree;
    ravl_init(&tree, sizeof(uint32_t), offsetof(Entry, key), compare);
    std::vector<Entry> entries(n);
    int most_blocks = 0;
    for (const int failing : {0, 1, 2, 3, always}) {
        SCOPED_TRACE(failing);
        const int before = live_blocks;
        countdowns[allocation] = failing;
        for (uint32_t i = 0; i < n; ++i) {
            entries[i].key = i * 7919 % n; // no factor in common
            ASSERT_NE(ravl_insert(&tree, &entries[i]), 0);
        }
        most_blocks = std::max(most_blocks, live_blocks - before);
        for (Entry &entry : entries)
            ASSERT_EQ(ravl_lookup(&tree, &entry.key), &entry);
        for (uint32_t i = 0; i < n; ++i) {
            ASSERT_NE(tree.root, nullptr);
            ravl_delete(&tree, tree.root);
        }
        EXPECT_TRUE(ravl_is_empty(&tree) != 0 && tree.root == nullptr);
        EXPECT_EQ(live_blocks, before);
        EXPECT_EQ(countdowns[allocation].exchange(0), failing == always ? always : 0);
    }
    EXPECT_EQ(most_blocks, 1);
}

} // namespace
