// The ways in which a service can be reached: one row per scheme of addresses.
// Tokens, handles and the order of responses are not an endpoint's business; it
// carries whole messages between one service and its clients.
#pragma once

#include "reference/kob/deadline.hpp"
#include "reference/kob/message.hpp"
#include "zel-platform/kob_service.h"

namespace zel::platform {

struct ClientLink;      // a connection to a service; each endpoint has its own
struct ServiceEndpoint; // a service and its clients; each endpoint has its own

// All of these return KOB_OK or a KOB_ERR_* value.  place is the address behind
// the scheme.
struct Endpoint {
    const char *scheme;

    bool (*is_place)(const char *place);

    // A link that fails with anything but KOB_ERR_TIMEOUT while receiving is of no
    // further use, nor is one that failed while sending.
    int32_t (*connect)(const char *place, uint32_t max_message, Deadline deadline, ClientLink *&link);
    int32_t (*send)(ClientLink *link, const Frame &frame, const void *payload, Deadline deadline);
    int32_t (*receive)(ClientLink *link, kob_msg &msg, Deadline deadline);
    void (*disconnect)(ClientLink *link);

    // The options are complete: none of them is 0.
    int32_t (*listen)(const char *place, const kob_service_options_t &options, ServiceEndpoint *&service);
    int (*descriptor)(const ServiceEndpoint *service);
    int32_t (*await)(ServiceEndpoint *service, kob_msg &msg, Deadline deadline);
    int32_t (*reply)(ServiceEndpoint *service, const kob_msg &request, const mpkob_segment_t *segments,
                     uint32_t num_segments, uint32_t total);
    void (*close)(ServiceEndpoint *service);
};

extern const Endpoint unix_endpoint;

// The row for an address and, in place, the rest of the address; null when there
// is none or the rest is not acceptable.
const Endpoint *find_endpoint(const char *address, const char *&place);

} // namespace zel::platform
