// A service and a client on a socket of their own, and payloads for them.
#pragma once

#include "bytes.hpp"
#include "zel-platform/kob_client.h"
#include "zel-platform/kob_service.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using Message = std::shared_ptr<kob_msg_t>;
using Refusals = std::vector<std::string>;

inline Bytes payload(const Message &msg)
{
    const auto *const bytes = static_cast<const unsigned char *>(kob_payload_get(msg.get()));
    return {bytes, bytes + kob_msg_size(msg.get())};
}

// A TLV array that fills size bytes, at least its own four; a response has a header before it.
inline Bytes array_of(uint32_t size, uint32_t header = 0)
{
    Bytes bytes(header + size);
    for (uint32_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<unsigned char>(i * 31 + i / 251);
    const uint32_t used = size - 4;
    std::memcpy(bytes.data() + header, &used, sizeof used);
    return bytes;
}

inline Bytes response_of(uint32_t size) { return array_of(size, 268); }

struct TransportTest : testing::Test {
    // Longer than anything takes that is going to happen at all.
    static constexpr int32_t patience = 20000;

    TransportTest()
    {
        // Every reason ends with whom it is about, which is this process.
        options.on_refusal = [](void *to, uint32_t, const char *why) {
            const std::string peer = " (pid " + std::to_string(getpid()) + ", uid " + std::to_string(getuid()) + ")";
            const std::string reason = why;
            EXPECT_TRUE(reason.ends_with(peer)) << reason;
            static_cast<Refusals *>(to)->push_back(
                reason.substr(0, reason.size() - std::min(reason.size(), peer.size())));
        };
        options.context = &refusals;
        open_service();
        open_client({});
    }

    ~TransportTest() override
    {
        kob_close(kob);
        close_service();
        unlink(path.c_str());
    }

    void close_service() { kob_service_close(std::exchange(service, nullptr)); }

    void open_service()
    {
        close_service();
        service = kob_service_open(address.c_str(), &options, nullptr);
        ASSERT_NE(service, nullptr);
    }

    void open_client(const kob_client_options_t &client_options)
    {
        kob_close(kob);
        kob = kob_open(address.c_str(), &client_options, nullptr);
        ASSERT_GT(kob, 1U);
    }

    // Plainly when there are no segments.  Returns the token, or 0.
    uint32_t send(const Bytes &bytes, uint32_t num_segments = 0)
    {
        const auto size = static_cast<uint32_t>(bytes.size());
        const uint32_t first = num_segments > 1 ? size / 3 : size;
        const mpkob_segment_t segments[] = {{bytes.data(), first}, {nullptr, 0}, {bytes.data() + first, size - first}};
        const int32_t error = num_segments == 0
                                  ? fu_kob_send(kob, 0xfe000000, 487, 0x1cc02, bytes.data(), size, message.get(), 0, 0)
                                  : mpkob_send(kob, 0xfe000000, 487, 0x1cc02, segments, num_segments, message.get(), 0);
        EXPECT_EQ(error, kob_errno_get(kob));
        return error == KOB_OK ? kob_rr_token_get(message.get()) : 0;
    }

    int32_t try_send(const Bytes &bytes, uint32_t n = 0) { return send(bytes, n) != 0 ? KOB_OK : kob_errno_get(kob); }
    int32_t serve(int32_t timeout = patience) { return kob_service_receive(service, received.get(), timeout); }

    // The service receives meanwhile, because a request may be larger than the socket's buffer.
    uint32_t ask(const Bytes &bytes = array_of(4), uint32_t num_segments = 0)
    {
        std::thread server([&] { EXPECT_EQ(serve(), KOB_OK); });
        const uint32_t token = send(bytes, num_segments);
        server.join();
        return token;
    }

    int32_t reply(const Bytes &bytes = response_of(4), const Message &request = nullptr)
    {
        const mpkob_segment_t segment{bytes.data(), static_cast<uint32_t>(bytes.size())};
        return kob_service_reply(service, (request ? request : received).get(), &segment, 1);
    }

    int32_t fetch(uint32_t token, int32_t timeout = patience)
    {
        const int32_t error = kob_receive(kob, token, message.get(), timeout);
        EXPECT_EQ(error, kob_errno_get(kob));
        return error;
    }

    void expect_exchange()
    {
        const uint32_t token = ask();
        EXPECT_EQ(reply(), KOB_OK);
        EXPECT_EQ(fetch(token), KOB_OK);
    }

    // A socket of the transport's kind, which enters by bind() or connect().
    int raw_socket(int (*enter)(int, const sockaddr *, socklen_t)) const
    {
        sockaddr_un where{AF_UNIX, {}};
        std::memcpy(where.sun_path, path.data(), path.size());
        const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
        EXPECT_EQ(enter(socket, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
        return socket;
    }

    std::string path = testing::TempDir() + "zel-kob-" + std::to_string(getpid());
    std::string address = "unix:" + path;
    kob_service_options_t options{};
    Refusals refusals;
    kob_service_t *service = nullptr;
    uint32_t kob = 0;
    Message message{kob_msg_alloc(), kob_msg_free};  // the client's
    Message received{kob_msg_alloc(), kob_msg_free}; // the service's
};
