// Connections to NATS servers: addresses, credentials and errors.
#pragma once

#include "reference/kob/endpoint.hpp"

#include <nats/nats.h>

namespace zel::nats {

// Credentials and subjects, as zel_nats_enable() left them.  A null member is absent.
struct Settings {
    char *user;
    char *password;
    char *ca;
    char *certificate;
    char *key;
    char *inbox_prefix;
};
extern Settings settings;

constexpr std::size_t max_subject = 200; // bytes, with the final NUL

// An address without its scheme, "//HOST[:PORT][,HOST[:PORT]...]/SUBJECT[,SUBJECT...]", taken
// apart.
struct Location {
    static constexpr int max_servers = 16;
    static constexpr int max_subjects = 16;

    char bytes[4096];                 // the strings that the pointers lead to
    const char *servers[max_servers]; // URLs
    int num_servers;
    const char *subjects[max_subjects];
    int num_subjects;
};

// False when the text is not such an address.  scheme is "nats" or "tls".
bool parse_location(const char *text, const char *scheme, Location &location);

// What a connection does when it breaks; from_the_start: also when no server is there at first.
enum class Reconnect { never, always, from_the_start };

// KOB_OK with a connection that the caller closes, or a KOB_ERR_* value.
int32_t open_connection(const Location &location, bool is_encrypted, Reconnect reconnect, int64_t timeout_ms,
                        natsConnection *&connection);

// The KOB_ERR_* value that stands for a status.
int32_t error_of(natsStatus status);

// True when the server has forbidden a subject on this connection.
bool is_denied(natsConnection *connection);

// A new subject for answers, below the configured prefix.
natsStatus make_inbox(char (&inbox)[max_subject]);

// Content bytes of one packet on this connection: at most 512 kB, and less than the server's
// max_payload.
uint32_t part_limit(natsConnection *connection);

// Publishes all packets of a message.  reply may be null.
int32_t publish(natsConnection *connection, const char *subject, const char *reply, platform::Frame frame,
                const void *payload);

} // namespace zel::nats
