// The client's half of the local socket endpoint: rows of unix_endpoint.
#pragma once

#include "reference/kob/endpoint.hpp"

namespace zel::platform {

int32_t unix_connect(const char *place, uint32_t max_message, Deadline deadline, ClientLink *&link);
int32_t unix_send(ClientLink *link, const Frame &frame, const void *payload, Deadline deadline);
int32_t unix_receive(ClientLink *link, kob_msg &msg, Deadline deadline);
void unix_disconnect(ClientLink *link);

} // namespace zel::platform
