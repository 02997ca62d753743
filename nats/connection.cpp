#include "nats/connection.hpp"

#include "reference/kob/parts.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zel::nats {

constinit Settings settings{};

namespace {

bool is_host_character(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || std::strchr(".-_:[]", c) != nullptr;
}

bool is_host(const char *begin, const char *end) { return begin != end && std::all_of(begin, end, is_host_character); }

// A subject without wildcards and empty tokens.
bool is_subject(const char *begin, const char *end)
{
    if (begin == end || end - begin >= static_cast<std::ptrdiff_t>(max_subject))
        return false;
    char before = '.';
    for (const char *at = begin; at != end; before = *at++) {
        if (*at <= ' ' || *at >= 127 || std::strchr("*>/@", *at) != nullptr || (*at == '.' && before == '.'))
            return false;
    }
    return before != '.';
}

// Strings, one after the other.
struct Writer {
    char *room;
    char *end;

    // Null when there is no room.
    const char *write(const char *prefix, const char *begin, const char *stop)
    {
        const auto size = static_cast<std::size_t>(end - room);
        const int length = std::snprintf(room, size, "%s%.*s", prefix, static_cast<int>(stop - begin), begin);
        if (length < 0 || static_cast<std::size_t>(length) >= size)
            return nullptr;
        const char *const written = room;
        room += length + 1;
        return written;
    }
};

// The pieces between commas, each with a prefix; 0 when one is not right.
template <int Capacity>
int split(const char *begin, const char *end, const char *prefix, bool (*is_right)(const char *, const char *),
          Writer &writer, const char *(&pieces)[Capacity])
{
    for (int count = 0; count < Capacity;) {
        const char *const stop = std::find(begin, end, ',');
        const char *const piece = is_right(begin, stop) ? writer.write(prefix, begin, stop) : nullptr;
        if (piece == nullptr)
            return 0;
        pieces[count++] = piece;
        if (stop == end)
            return count;
        begin = stop + 1;
    }
    return 0;
}

// Reports come through return values; without a handler the library prints to stderr.
void ignore_error(natsConnection *, natsSubscription *, natsStatus, void *) {}

// A connection that may come later needs a callback.
void ignore_connection(natsConnection *, void *) {}

// Calls each setter until one fails.
natsStatus set_options(natsOptions *options, const Location &location, bool is_encrypted, Reconnect reconnect,
                       int64_t timeout_ms)
{
    natsStatus s = natsOptions_SetServers(options, const_cast<const char **>(location.servers), location.num_servers);
    const auto then = [&s](natsStatus next) { s = s == NATS_OK ? next : s; };
    then(natsOptions_SetSendAsap(options, true));
    then(natsOptions_SetTimeout(options, std::max<int64_t>(timeout_ms, 1)));
    then(natsOptions_SetErrorHandler(options, ignore_error, nullptr));
    then(natsOptions_SetAllowReconnect(options, reconnect != Reconnect::never));
    if (reconnect == Reconnect::from_the_start)
        then(natsOptions_SetRetryOnFailedConnect(options, true, ignore_connection, nullptr));
    then(natsOptions_SetMaxReconnect(options, -1));
    then(natsOptions_SetReconnectWait(options, 100));
    then(natsOptions_SetReconnectJitter(options, 400, 400));
    then(natsOptions_SetPingInterval(options, 5000));
    if (settings.user != nullptr)
        then(natsOptions_SetUserInfo(options, settings.user, settings.password != nullptr ? settings.password : ""));
    if (settings.inbox_prefix != nullptr)
        then(natsOptions_SetCustomInboxPrefix(options, settings.inbox_prefix));
    if (!is_encrypted)
        return s;
    then(natsOptions_SetSecure(options, true));
    if (settings.ca != nullptr)
        then(natsOptions_LoadCATrustedCertificates(options, settings.ca));
    if (settings.certificate != nullptr && settings.key != nullptr)
        then(natsOptions_LoadCertificatesChain(options, settings.certificate, settings.key));
    return s;
}

} // namespace

bool parse_location(const char *text, const char *scheme, Location &location)
{
    if (std::strncmp(text, "//", 2) != 0)
        return false;
    const char *const hosts = text + 2;
    const char *const slash = std::strchr(hosts, '/');
    if (slash == nullptr)
        return false;
    char url[16];
    (void)std::snprintf(url, sizeof url, "%s://", scheme);
    Writer writer{location.bytes, location.bytes + sizeof location.bytes};
    location.num_servers = split(hosts, slash, url, is_host, writer, location.servers);
    location.num_subjects = split(slash + 1, text + std::strlen(text), "", is_subject, writer, location.subjects);
    return location.num_servers != 0 && location.num_subjects != 0;
}

int32_t open_connection(const Location &location, bool is_encrypted, Reconnect reconnect, int64_t timeout_ms,
                        natsConnection *&connection)
{
    natsOptions *options = nullptr;
    natsStatus status = natsOptions_Create(&options);
    if (status == NATS_OK)
        status = set_options(options, location, is_encrypted, reconnect, timeout_ms);
    if (status == NATS_OK)
        status = natsConnection_Connect(&connection, options);
    natsOptions_Destroy(options);
    return status == NATS_NOT_YET_CONNECTED ? int32_t{KOB_OK} : error_of(status);
}

int32_t error_of(natsStatus status)
{
    switch (status) {
    case NATS_OK:
        return KOB_OK;
    case NATS_NO_SERVER:
    case NATS_NO_RESPONDERS:
        return KOB_ERR_ABSENT;
    case NATS_CONNECTION_AUTH_FAILED:
    case NATS_NOT_PERMITTED:
    case NATS_SSL_ERROR:
    case NATS_SECURE_CONNECTION_WANTED:
    case NATS_SECURE_CONNECTION_REQUIRED:
        return KOB_ERR_DENIED;
    case NATS_TIMEOUT:
        return KOB_ERR_TIMEOUT;
    case NATS_IO_ERROR:
    case NATS_CONNECTION_CLOSED:
    case NATS_CONNECTION_DISCONNECTED:
    case NATS_STALE_CONNECTION:
    case NATS_INVALID_SUBSCRIPTION: // closed with its connection
        return KOB_ERR_PEER_GONE;
    case NATS_MAX_PAYLOAD:
        return KOB_ERR_TOO_LARGE;
    case NATS_SLOW_CONSUMER:
        return KOB_ERR_BUSY;
    case NATS_NO_MEMORY:
        return KOB_ERR_MEMORY;
    case NATS_INVALID_SUBJECT:
    case NATS_ADDRESS_MISSING:
        return KOB_ERR_ADDRESS;
    default:
        return KOB_ERR_SYSTEM;
    }
}

bool is_denied(natsConnection *connection)
{
    const char *text = nullptr;
    return natsConnection_GetLastError(connection, &text) == NATS_NOT_PERMITTED;
}

natsStatus make_inbox(char (&inbox)[max_subject])
{
    static constexpr char library_prefix[] = "_INBOX.";
    natsInbox *made = nullptr;
    const natsStatus status = natsInbox_Create(&made);
    if (status == NATS_OK)
        (void)std::snprintf(inbox, sizeof inbox, "%s.%s",
                            settings.inbox_prefix != nullptr ? settings.inbox_prefix : "_INBOX",
                            made + sizeof library_prefix - 1);
    natsInbox_Destroy(made);
    return status;
}

uint32_t part_limit(natsConnection *connection)
{
    constexpr int64_t most = int64_t{512} * 1024;
    const int64_t allowed = natsConnection_GetMaxPayload(connection) - static_cast<int64_t>(sizeof(platform::Frame));
    return static_cast<uint32_t>(std::clamp<int64_t>(allowed, 1, most));
}

int32_t publish(natsConnection *connection, const char *subject, const char *reply, platform::Frame frame,
                const void *payload)
{
    const uint32_t limit = part_limit(connection);
    if (frame.total > limit)
        frame.in_parts = 1;
    platform::Outbound out{frame, static_cast<const char *>(payload), 0, false};
    auto *const packet = static_cast<char *>(std::malloc(sizeof frame + std::min(frame.total, limit)));
    if (packet == nullptr)
        return KOB_ERR_MEMORY;
    natsStatus status = NATS_OK;
    while (status == NATS_OK && !out.is_done) {
        const uint32_t length = out.next_length(limit);
        std::memcpy(packet, &out.frame, sizeof out.frame);
        if (length != 0)
            std::memcpy(packet + sizeof out.frame, out.payload + out.sent, length);
        const int size = static_cast<int>(sizeof out.frame + length);
        status = reply != nullptr ? natsConnection_PublishRequest(connection, subject, reply, packet, size)
                                  : natsConnection_Publish(connection, subject, packet, size);
        out.advance(length);
    }
    std::free(packet);
    return error_of(status);
}

} // namespace zel::nats
