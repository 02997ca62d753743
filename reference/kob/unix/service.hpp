// The service's half of the local socket endpoint: rows of unix_endpoint.
#pragma once

#include "reference/kob/endpoint.hpp"

namespace zel::platform {

int32_t unix_listen(const char *place, const kob_service_options_t &options, ServiceEndpoint *&service);
int unix_descriptor(const ServiceEndpoint *service);
int32_t unix_await(ServiceEndpoint *service, kob_msg &msg, Deadline deadline);
int32_t unix_reply(ServiceEndpoint *service, const kob_msg &request, const mpkob_segment_t *segments,
                   uint32_t num_segments, uint32_t total);
void unix_close(ServiceEndpoint *service);

} // namespace zel::platform
