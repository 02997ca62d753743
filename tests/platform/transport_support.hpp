// A service and a client on a socket of their own, and payloads for them.
#pragma once

#include "platform/reference/kob_client.h"
#include "platform/reference/kob_service.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

using Bytes = std::vector<unsigned char>;

struct FreeMessage {
    void operator()(kob_msg_t *msg) const { kob_msg_free(msg); }
};
using Message = std::unique_ptr<kob_msg_t, FreeMessage>;

inline Bytes payload(kob_msg_t &msg)
{
    const auto *const bytes = static_cast<const unsigned char *>(kob_payload_get(&msg));
    return {bytes, bytes + kob_msg_size(&msg)};
}

// A TLV array that fills size bytes, at least its own four, with bytes that differ.
inline Bytes array_of(uint32_t size)
{
    Bytes bytes(size);
    for (uint32_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(i * 31 + i / 251);
    const uint32_t used = size - 4;
    std::memcpy(bytes.data(), &used, sizeof used);
    return bytes;
}

// A response header with, from 272 bytes on, an array behind it.
inline Bytes response_of(uint32_t size)
{
    Bytes bytes(size, 0x55);
    if (size >= 272) {
        const Bytes body = array_of(size - 268);
        std::copy(body.begin(), body.end(), bytes.begin() + 268);
    }
    return bytes;
}

class TransportTest : public testing::Test {
protected:
    // Longer than anything takes that is going to happen at all.
    static constexpr int32_t patience = 20000;

    TransportTest()
    {
        options.on_refusal = [](void *context, uint32_t, const char *reason) {
            static_cast<TransportTest *>(context)->refusals.emplace_back(reason);
        };
        options.context = this;
        open_service();
        open_client({});
    }

    ~TransportTest() override
    {
        kob_close(kob);
        close_service();
        unlink(path.c_str());
    }

    void open_service()
    {
        close_service();
        int32_t error = 0;
        service = kob_service_open(address.c_str(), &options, &error);
        ASSERT_NE(service, nullptr) << kob_error_text(error);
    }

    void close_service()
    {
        kob_service_close(service);
        service = nullptr;
    }

    void open_client(const kob_client_options_t &client_options)
    {
        kob_close(kob);
        kob = kob_open(address.c_str(), &client_options, nullptr);
        ASSERT_GT(kob, 1U);
    }

    // Both return the token, or 0.
    uint32_t send(const Bytes &bytes)
    {
        const auto size = static_cast<uint32_t>(bytes.size());
        const int32_t error = fu_kob_send(kob, 0xfe000000, 487, 0x1cc02, bytes.data(), size, message.get(), 0, 0);
        EXPECT_EQ(error, kob_errno_get(kob));
        return error == KOB_OK ? kob_rr_token_get(message.get()) : 0;
    }

    uint32_t send_in_parts(const Bytes &bytes)
    {
        const mpkob_segment_t segment{bytes.data(), static_cast<uint32_t>(bytes.size())};
        const int32_t error = mpkob_send(kob, 0xfe000000, 487, 0x1cc04, &segment, 1, message.get(), 0);
        EXPECT_EQ(error, kob_errno_get(kob));
        return error == KOB_OK ? kob_rr_token_get(message.get()) : 0;
    }

    // For a request that is larger than the socket's buffer.
    uint32_t send_while_served(const Bytes &bytes)
    {
        std::thread server([&] { EXPECT_EQ(kob_service_receive(service, received.get(), patience), KOB_OK); });
        const uint32_t token = send_in_parts(bytes);
        server.join();
        return token;
    }

    int32_t reply(const Bytes &bytes, const kob_msg_t *request = nullptr)
    {
        const mpkob_segment_t segment{bytes.data(), static_cast<uint32_t>(bytes.size())};
        return kob_service_reply(service, request != nullptr ? request : received.get(), &segment, 1);
    }

    sockaddr_un socket_address() const
    {
        sockaddr_un result{};
        result.sun_family = AF_UNIX;
        std::memcpy(result.sun_path, path.data(), path.size());
        return result;
    }

    void leave_stale_socket() const
    {
        const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
        const sockaddr_un where = socket_address();
        ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr *>(&where), sizeof where), 0);
        close(socket);
    }

    void write_file() const { std::ofstream(path) << "not a socket"; }

    std::string path = testing::TempDir() + "zel-kob-" + std::to_string(getpid());
    std::string address = "unix:" + path;
    kob_service_options_t options{};
    std::vector<std::string> refusals;
    kob_service_t *service = nullptr;
    uint32_t kob = 0;
    Message message{kob_msg_alloc()};  // the client's
    Message received{kob_msg_alloc()}; // the service's
    Message spare{kob_msg_alloc()};
};
