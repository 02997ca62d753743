// Whatever system call or allocation fails in an exchange: the next exchange works,
// and nothing is lost on the way.
#include "transport_support.hpp"

#include <atomic>
#include <cerrno>

namespace {

enum Way { allocation, packet_send, packet_receive, num_ways };

std::atomic<int> countdowns[num_ways];
std::atomic<int> live_blocks;

bool fails(Way way) { return countdowns[way] > 0 && --countdowns[way] == 0; }

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
    for (const Way way : {allocation, packet_send, packet_receive}) {
        int n = 0;
        for (bool is_hit = true; is_hit;) {
            SCOPED_TRACE(++n);
            expect_exchange();
            drop_messages();
            const int before = live_blocks;
            countdowns[way] = n;
            const uint32_t token = send(array_of(three_packets), 1);
            if (token != 0 && serve(moment) == KOB_OK && reply(response_of(three_packets)) == KOB_OK)
                fetch(token, moment);
            is_hit = countdowns[way].exchange(0) == 0;
            drop_messages();
            expect_exchange();
            drop_messages();
            EXPECT_EQ(live_blocks, before);
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(n, way == allocation ? 4 : 6);
    }
}

} // namespace
