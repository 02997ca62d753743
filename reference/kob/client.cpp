// Transport handles: tokens, responses in any order, and connections that break.
#include "zel-platform/kob_client.h"

#include "reference/contract.hpp"
#include "reference/kob/endpoint.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <poll.h>

using namespace zel::platform;

namespace {

constexpr uint32_t default_timeout_ms = 5000;

// Responses that have arrived and have not been fetched, oldest first.
class Inbox {
public:
    explicit Inbox(uint64_t max_bytes) : max_bytes_(max_bytes) {}

    void put(const kob_msg &msg)
    {
        bytes_ += msg.size;
        while (count_ == capacity || (count_ > 0 && bytes_ > max_bytes_))
            std::free(remove(0).payload);
        messages_[count_++] = msg;
    }

    // The first response with a token, or the first of all for token 0.
    bool take(uint32_t token, kob_msg &msg)
    {
        for (uint32_t i = 0; i < count_; ++i) {
            if (token == 0 || messages_[i].token == token) {
                msg = remove(i);
                return true;
            }
        }
        return false;
    }

    void clear()
    {
        while (count_ > 0)
            std::free(remove(0).payload);
    }

private:
    kob_msg remove(uint32_t index)
    {
        const kob_msg msg = messages_[index];
        bytes_ -= msg.size;
        --count_;
        std::memmove(&messages_[index], &messages_[index + 1], (count_ - index) * sizeof msg);
        return msg;
    }

    static constexpr uint32_t capacity = 64;

    uint64_t max_bytes_;
    uint64_t bytes_ = 0;
    uint32_t count_ = 0;
    kob_msg messages_[capacity]{};
};

struct Client {
    const ClientOperations *operations;
    char *location; // owned
    kob_client_options_t options;
    Inbox inbox;
    ClientLink *link = nullptr;
    uint32_t last_token = 0;
    uint32_t tokens_before_link = 0; // the last one that went over an earlier connection
    int32_t last_error = KOB_OK;
    kob_tap_cb_t tap = nullptr;
    void *tap_context = nullptr;
};

// ---- Handles: an index into a table of slots and, above it, how often the slot was used

constexpr uint32_t num_handles = 64;
constexpr uint32_t index_bits = 8;
constexpr uint32_t first_index = 2; // 0 is a failure, and 1 says that there is no transport

struct Slot {
    std::atomic<Client *> client;
    std::atomic<uint32_t> uses;
};

constinit Slot slots[num_handles]{};

uint32_t enter(Client *client)
{
    for (uint32_t i = 0; i < num_handles; ++i) {
        Client *vacant = nullptr;
        if (slots[i].client.compare_exchange_strong(vacant, client))
            return slots[i].uses.load() << index_bits | (first_index + i);
    }
    return 0;
}

Slot *find_slot(uint32_t handle)
{
    const uint32_t index = (handle & ((1U << index_bits) - 1)) - first_index;
    if (index >= num_handles || (slots[index].uses.load() << index_bits) != (handle & ~((1U << index_bits) - 1)))
        return nullptr;
    return &slots[index];
}

Client *find_client(uint32_t handle)
{
    const Slot *const slot = find_slot(handle);
    return slot != nullptr ? slot->client.load() : nullptr;
}

// ---- Connections

int32_t keep_error(Client &client, int32_t error)
{
    client.last_error = error;
    return error;
}

void disconnect(Client &client)
{
    if (client.link == nullptr)
        return;
    client.operations->disconnect(*client.link);
    client.link = nullptr;
}

// Gives up a broken connection; the responses that it still holds go to the inbox.  Returns
// what comes behind them.
int32_t abandon(Client &client)
{
    kob_msg msg{};
    int32_t error = KOB_OK;
    while ((error = client.operations->receive(*client.link, msg, Deadline::in(0))) == KOB_OK)
        client.inbox.put(msg);
    disconnect(client);
    return error;
}

int32_t send_once(Client &client, const Frame &frame, const void *payload, const Deadline &deadline)
{
    if (client.link == nullptr) {
        client.tokens_before_link = client.last_token;
        const int32_t error =
            client.operations->connect(client.location, client.options.max_message, deadline, client.link);
        if (error != KOB_OK)
            return error;
    }
    const bool is_posted = client.options.no_wait != 0 && client.operations->post != nullptr;
    const int32_t error = is_posted ? client.operations->post(*client.link, frame, payload)
                                    : client.operations->send(*client.link, frame, payload, deadline);
    if (error == KOB_OK || (is_posted && error == KOB_ERR_TIMEOUT))
        return error;
    // The connection may hold half a message, and it may say why the service closed it.
    return abandon(client) == KOB_ERR_BUSY ? KOB_ERR_BUSY : error;
}

void show_to_tap(const Client &client, const kob_tapped_t &message)
{
    if (client.tap != nullptr)
        client.tap(client.tap_context, &message);
}

// Sends a request.  If the connection turns out to be broken, connects again, once.
int32_t send_request(Client &client, Frame frame, const void *payload, kob_msg_t *msg)
{
    const Deadline deadline = Deadline::in(client.options.no_wait != 0 ? 0 : client.options.timeout_ms);
    frame.magic = frame_magic;
    frame.kind = FrameKind::request;
    frame.token = client.last_token + 1 != 0 ? client.last_token + 1 : 1;
    const bool was_connected = client.link != nullptr;
    int32_t error = send_once(client, frame, payload, deadline);
    if ((error == KOB_ERR_PEER_GONE || error == KOB_ERR_BUSY) && was_connected)
        error = send_once(client, frame, payload, deadline);
    if (error == KOB_OK) {
        client.last_token = frame.token;
        msg->token = frame.token;
        show_to_tap(client,
                    {0, frame.in_parts, frame.token, frame.opcode, frame.node, frame.sap, frame.total, payload});
    }
    return keep_error(client, error);
}

bool went_over_an_earlier_connection(const Client &client, uint32_t token)
{
    return token != 0 && static_cast<int32_t>(token - client.tokens_before_link) <= 0;
}

int32_t await_response(Client &client, uint32_t token, kob_msg &response, const Deadline &deadline)
{
    while (!client.inbox.take(token, response)) {
        if (client.link == nullptr)
            return KOB_ERR_PEER_GONE;
        if (went_over_an_earlier_connection(client, token))
            return KOB_ERR_RESTARTED;
        kob_msg arrived{};
        const int32_t error = client.operations->receive(*client.link, arrived, deadline);
        if (error == KOB_OK)
            client.inbox.put(arrived);
        else if (error != KOB_ERR_TIMEOUT)
            disconnect(client);
        if (error != KOB_OK)
            return error;
    }
    return response.refusal;
}

// All segments in one piece; null when out of memory.  Freed by the caller.
char *gather(const mpkob_segment_t *segments, uint32_t num_segments, uint32_t total)
{
    auto *const bytes = static_cast<char *>(std::malloc(std::size_t{total} + 1));
    if (bytes == nullptr)
        return nullptr;
    char *end = bytes;
    for (uint32_t i = 0; i < num_segments; ++i) {
        if (segments[i].length != 0)
            std::memcpy(end, segments[i].address, segments[i].length);
        end += segments[i].length;
    }
    return bytes;
}

} // namespace

uint32_t kob_open(const char *address, const kob_client_options_t *options, int32_t *error)
{
    const char *location = nullptr;
    const Endpoint *const endpoint = find_endpoint(address, location);
    if (endpoint == nullptr || endpoint->client == nullptr) {
        set_error(error, KOB_ERR_ADDRESS);
        return 0;
    }
    kob_client_options_t complete = options != nullptr ? *options : kob_client_options_t{};
    if (complete.timeout_ms == 0)
        complete.timeout_ms = default_timeout_ms;
    if (complete.max_message == 0)
        complete.max_message = default_max_message;
    complete.max_message = std::min(complete.max_message, KOB_MESSAGE_LIMIT);

    uint32_t handle = 0;
    void *const storage = std::malloc(sizeof(Client));
    char *const own_location = strdup(location);
    if (storage != nullptr && own_location != nullptr)
        handle = enter(new (storage)
                           Client{endpoint->client, own_location, complete, Inbox(uint64_t{2} * complete.max_message)});
    set_error(error, handle != 0 ? KOB_OK : KOB_ERR_MEMORY);
    if (handle == 0) {
        std::free(own_location);
        std::free(storage);
    }
    return handle; // cppcheck-suppress memleak ; the client owns its location
}

void kob_close(uint32_t kob_handle)
{
    Slot *const slot = find_slot(kob_handle);
    Client *const client = slot != nullptr ? slot->client.load() : nullptr;
    if (client == nullptr)
        return;
    slot->uses.fetch_add(1);
    slot->client.store(nullptr);
    disconnect(*client);
    client->inbox.clear();
    std::free(client->location);
    std::free(client);
}

int32_t kob_tap(uint32_t kob_handle, kob_tap_cb_t tap, void *context)
{
    Client *const client = find_client(kob_handle);
    if (client == nullptr)
        return KOB_ERR_HANDLE;
    client->tap = tap;
    client->tap_context = context;
    return KOB_OK;
}

int32_t kob_receive(uint32_t kob_handle, uint32_t token, kob_msg_t *msg, int32_t timeout_ms)
{
    Client *const client = find_client(kob_handle);
    if (client == nullptr)
        return KOB_ERR_HANDLE;
    if (msg == nullptr)
        return keep_error(*client, KOB_ERR_ARGUMENT);
    const uint32_t wait = timeout_ms < 0 ? client->options.timeout_ms : static_cast<uint32_t>(timeout_ms);
    kob_msg response{};
    const int32_t error = await_response(*client, token, response, Deadline::in(wait));
    if (error == KOB_OK) {
        replace(*msg, response);
        show_to_tap(*client, {1, msg->in_parts, msg->token, msg->opcode, msg->node, msg->sap, msg->size, msg->payload});
    }
    return keep_error(*client, error);
}

int32_t fu_kob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *buffer,
                    uint32_t size, void *kob_msg, uintptr_t, uintptr_t)
{
    Client *const client = find_client(kob_handle);
    if (client == nullptr)
        return KOB_ERR_HANDLE;
    if (kob_msg == nullptr || (buffer == nullptr && size != 0))
        return keep_error(*client, KOB_ERR_ARGUMENT);
    if (size > KOB_PLAIN_LIMIT || size > client->options.max_message)
        return keep_error(*client, KOB_ERR_TOO_LARGE);
    const Frame frame{0, FrameKind::request, 0, 0, opcode, node, sap, size, 0};
    return send_request(*client, frame, buffer, static_cast<kob_msg_t *>(kob_msg));
}

int32_t mpkob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const mpkob_segment_t *segments,
                   uint32_t num_segments, void *kob_msg, uintptr_t)
{
    Client *const client = find_client(kob_handle);
    if (client == nullptr)
        return KOB_ERR_HANDLE;
    if (kob_msg == nullptr || (segments == nullptr && num_segments != 0))
        return keep_error(*client, KOB_ERR_ARGUMENT);
    uint64_t total = 0;
    for (uint32_t i = 0; i < num_segments; ++i)
        total += segments[i].length;
    if (total > client->options.max_message)
        return keep_error(*client, KOB_ERR_TOO_LARGE);

    const Frame frame{0, FrameKind::request, 1, 0, opcode, node, sap, static_cast<uint32_t>(total), 0};
    auto *const msg = static_cast<kob_msg_t *>(kob_msg);
    if (num_segments == 1)
        return send_request(*client, frame, segments[0].address, msg);
    char *const bytes = gather(segments, num_segments, frame.total);
    if (bytes == nullptr)
        return keep_error(*client, KOB_ERR_MEMORY);
    const int32_t error = send_request(*client, frame, bytes, msg);
    std::free(bytes);
    return error;
}

int kob_fd(uint32_t kob_handle, short *events)
{
    const Client *const client = find_client(kob_handle);
    bool is_sending = false;
    int descriptor = -1;
    if (client != nullptr && client->link != nullptr && client->operations->descriptor != nullptr)
        descriptor = client->operations->descriptor(*client->link, is_sending);
    if (events != nullptr)
        *events = static_cast<short>(is_sending ? POLLIN | POLLOUT : POLLIN);
    return descriptor;
}

int32_t kob_errno_get(uint32_t kob_handle)
{
    const Client *const client = find_client(kob_handle);
    return client != nullptr ? client->last_error : KOB_ERR_HANDLE;
}
