// The endpoints of addresses "nats://..." and "tls://...".
#pragma once

#include "nats/connection.hpp"

namespace zel::nats {

// Both kinds share all but the way to connect.
int32_t connect_link(const char *text, bool is_encrypted, uint32_t max_message, platform::Deadline deadline,
                     platform::ClientLink *&link);
int32_t send_request(platform::ClientLink &link, const platform::Frame &frame, const void *payload,
                     platform::Deadline deadline);
int32_t receive_response(platform::ClientLink &link, kob_msg &msg, platform::Deadline deadline);
void disconnect_link(platform::ClientLink &link);

int32_t listen_at(const char *text, bool is_encrypted, const platform::ServiceLimits &limits,
                  platform::ServiceLink *&service);
int descriptor(const platform::ServiceLink &service);
int32_t await_request(platform::ServiceLink &service, kob_msg &msg, platform::Deadline deadline);
int32_t reply_to(platform::ServiceLink &service, const kob_msg &msg, const mpkob_segment_t *segments,
                 uint32_t num_segments, uint32_t total);
void close_service(platform::ServiceLink &service);

} // namespace zel::nats
