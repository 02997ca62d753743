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
bool is_subject(const char *subject)
{
    const std::size_t length = std::strlen(subject);
    if (length == 0 || length >= max_subject || subject[0] == '.' || subject[length - 1] == '.' ||
        std::strstr(subject, "..") != nullptr)
        return false;
    return std::all_of(subject, subject + length, [](char c) { return c > ' ' && c < 127 && !std::strchr("*>/@", c); });
}

// Reports come through return values; without a handler the library prints to stderr.
void ignore_error(natsConnection *, natsSubscription *, natsStatus, void *) {}

// Calls each setter until one fails.
natsStatus set_options(natsOptions *options, const Location &location, bool is_encrypted, Reconnect reconnect,
                       int64_t timeout_ms)
{
    natsStatus s = natsOptions_SetServers(options, const_cast<const char **>(location.servers), location.num_servers);
    const auto then = [&s](natsStatus next) { s = s == NATS_OK ? next : s; };
    then(natsOptions_SetSendAsap(options, true));
    then(natsOptions_SetTimeout(options, std::max<int64_t>(timeout_ms, 1)));
    then(natsOptions_SetErrorHandler(options, ignore_error, nullptr));
    then(natsOptions_SetAllowReconnect(options, reconnect == Reconnect::always));
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
    location.num_servers = 0;
    if (std::strncmp(text, "//", 2) != 0)
        return false;
    const char *host = text + 2;
    const char *const slash = std::strchr(host, '/');
    if (slash == nullptr || !is_subject(slash + 1))
        return false;
    (void)std::snprintf(location.subject, sizeof location.subject, "%s", slash + 1);
    char *room = location.bytes;
    const char *const end = location.bytes + sizeof location.bytes;
    for (;;) {
        const char *const stop = std::find(host, slash, ',');
        const auto needed = static_cast<std::size_t>(stop - host) + std::strlen(scheme) + std::strlen("://") + 1;
        if (!is_host(host, stop) || location.num_servers == Location::max_servers ||
            needed > static_cast<std::size_t>(end - room))
            return false;
        location.servers[location.num_servers++] = room;
        room += std::snprintf(room, needed, "%s://%.*s", scheme, static_cast<int>(stop - host), host) + 1;
        if (stop == slash)
            return true;
        host = stop + 1;
    }
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
    return error_of(status);
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
    constexpr int64_t most = 512 * 1024;
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
