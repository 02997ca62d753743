// Whatever packets arrive: the transport delivers payloads that keep the rules or
// nothing, within its limits of memory, and goes on.  The input is a script: steps,
// each with the packet that a peer of the service, or a false service, sends.
#include "heap.hpp"
#include "target.hpp"

#include "frames_script.hpp"
#include "reference/kob/message.hpp"
#include "reference/kob/unix/socket.hpp"
#include "zel-platform/kob_client.h"
#include "zel-platform/kob_service.h"
#include "zel.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

using namespace fuzz;
using namespace zel::platform;

namespace {

// ---- Limits, small enough that packets reach them

constexpr uint32_t max_message = 200000;
constexpr uint32_t max_queued = 250000;
constexpr uint32_t max_memory = 300000;
constexpr uint32_t large_reply = 100000;

// A service keeps what its option says, besides the request that it has just
// delivered and the reply that it is about to queue; a client, half a message, a
// queue of twice as much and what it has delivered.  The rest is small records.
constexpr std::size_t records = 65536;
constexpr std::size_t memory_bound = max_memory + max_message + large_reply + 4 * max_message + records;

// ---- Sockets in a folder of their own

struct Folder {
    Folder() { REQUIRE(mkdtemp(path.data()) != nullptr); }
    Folder(const Folder &) = delete;
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string path = std::filesystem::temp_directory_path() / "zel-frames-XXXXXX";
};

int raw_socket(const std::string &path, int (*enter)(int, const sockaddr *, socklen_t))
{
    const int entered = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socket_address(path.c_str());
    REQUIRE(enter(entered, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
    widen_send_buffer(entered);
    return entered;
}

// A socket that somebody may not hold yet.
class Peer {
public:
    Peer() = default;
    Peer(const Peer &) = delete;
    ~Peer() { hang_up(); }

    bool is_connected() const { return socket_ >= 0; }
    void connect_as(int socket) { socket_ = socket; }

    void hang_up()
    {
        if (is_connected())
            close(socket_);
        socket_ = -1;
    }

    void send(const std::vector<char> &packet) const
    {
        (void)::send(socket_, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    void read_all() const
    {
        char byte;
        while (recv(socket_, &byte, sizeof byte, MSG_DONTWAIT) > 0)
            continue;
    }

private:
    int socket_ = -1;
};

// ---- What must hold of all that is delivered

void check_payload(FrameKind kind, kob_msg_t *msg)
{
    const auto *const payload = static_cast<const char *>(kob_payload_get(msg));
    const uint32_t size = kob_msg_size(msg);
    REQUIRE((payload != nullptr) == (size != 0));
    REQUIRE(size <= max_message);
    REQUIRE(payload_fault(kind, payload, size) == nullptr);
    REQUIRE(payload == nullptr ||
            std::all_of(payload + size, payload + size + KOB_PAYLOAD_TAIL, [](char byte) { return byte == 0; }));
}

// ---- The service under test, and its peers

class Service {
public:
    explicit Service(const std::string &path) : path_(path)
    {
        kob_service_options_t options{};
        options.max_message = max_message;
        options.max_queued = max_queued;
        options.max_memory = max_memory;
        options.on_refusal = [](void *, uint32_t, const char *reason) { REQUIRE(reason[0] != '\0'); };
        service_ = kob_service_open(("unix:" + path).c_str(), &options, nullptr);
        REQUIRE(service_ != nullptr);
    }
    Service(const Service &) = delete;
    ~Service()
    {
        kob_msg_free(msg_);
        kob_service_close(service_);
    }

    void receive(const Step &step, const std::vector<char> &packet)
    {
        Peer &peer = peers_[step.peer % std::size(peers_)];
        if (!peer.is_connected())
            peer.connect_as(raw_socket(path_, connect));
        peer.send(packet);
        serve_all((step.flags & step_large_reply) != 0 ? large_reply : ZEL_RESP_HDR_SIZE);
        if ((step.flags & step_read_replies) != 0)
            peer.read_all();
        if ((step.flags & step_hang_up) != 0)
            peer.hang_up();
        serve_all(0);
    }

private:
    // Until there is nothing left to do; a packet gives rise to a few events only.
    void serve_all(uint32_t reply_size)
    {
        int events = 0;
        for (pollfd entry{kob_service_fd(service_), POLLIN, 0}; poll(&entry, 1, 0) > 0; ++events) {
            REQUIRE(events < 1000);
            if (kob_service_receive(service_, msg_, 0) != KOB_OK)
                continue;
            check_payload(FrameKind::request, msg_);
            const std::vector<char> zeros(reply_size);
            const mpkob_segment_t segment{zeros.data(), reply_size};
            (void)kob_service_reply(service_, msg_, &segment, 1);
        }
    }

    std::string path_;
    kob_service_t *service_ = nullptr;
    kob_msg_t *msg_ = kob_msg_alloc();
    Peer peers_[3];
};

// ---- The client under test, and a false service

class Client {
public:
    explicit Client(const std::string &path) : listener_(raw_socket(path, bind)), path_(path)
    {
        REQUIRE(listen(listener_, 1) == 0);
        const kob_client_options_t options{1, max_message, 0};
        kob_ = kob_open(("unix:" + path).c_str(), &options, nullptr);
        REQUIRE(kob_ != 0);
    }
    Client(const Client &) = delete;
    ~Client()
    {
        kob_msg_free(msg_);
        kob_close(kob_);
        close(listener_);
        unlink(path_.c_str());
    }

    void receive(const Step &step, const std::vector<char> &packet)
    {
        if (!service_.is_connected()) {
            if (fu_kob_send(kob_, 0, 0, 0, nullptr, 0, msg_, 0, 0) != KOB_OK)
                return;
            service_.connect_as(accept(listener_, nullptr, nullptr));
        }
        service_.send(packet);
        if ((step.flags & step_hang_up) != 0)
            service_.hang_up();
        const uint32_t token = (step.flags & step_read_replies) != 0 ? 0 : kob_rr_token_get(msg_);
        int32_t error = KOB_OK;
        while ((error = kob_receive(kob_, token, msg_, 0)) == KOB_OK)
            check_payload(FrameKind::response, msg_);
        if (error != KOB_ERR_TIMEOUT)
            service_.hang_up();
    }

private:
    int listener_;
    std::string path_;
    uint32_t kob_ = 0;
    kob_msg_t *msg_ = kob_msg_alloc();
    Peer service_;
};

void play(Script script)
{
    static const Folder folder;
    Service service(folder.path + "/service");
    Client client(folder.path + "/client");
    constexpr int most_steps = 64;
    for (int steps = 0; steps < most_steps && !script.is_at_end(); ++steps) {
        const Step step = script.take<Step>();
        const std::vector<char> packet = script.take_packet(step);
        if ((step.flags & step_to_client) != 0)
            client.receive(step, packet);
        else
            service.receive(step, packet);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    const Heap heap(memory_bound);
    play({data, size});
    REQUIRE(heap.live_bytes() == 0);
    return 0;
}
