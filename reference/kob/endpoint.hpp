// Endpoints: the ways in which a client reaches a service, one per scheme of addresses.
//
// An endpoint carries whole messages between a service and its clients.  Tokens, handles
// and the order of responses are the business of kob/client.cpp and kob/service.cpp.
#pragma once

#include "reference/kob/deadline.hpp"
#include "reference/kob/message.hpp"
#include "zel-platform/kob_service.h"

namespace zel::platform {

// A client's connection, and a service with its connections.  An endpoint derives classes
// of its own from them, in a namespace of its own.
struct ClientLink {};
struct ServiceLink {};

// All calls that return int32_t return KOB_OK or a KOB_ERR_* value.  location is the address
// behind the scheme.

struct ClientOperations {
    // A link is of no further use after a failure of send, or after a failure of receive
    // other than KOB_ERR_TIMEOUT.  disconnect frees it.
    int32_t (*connect)(const char *location, uint32_t max_message, Deadline deadline, ClientLink *&link);
    int32_t (*send)(ClientLink &link, const Frame &frame, const void *payload, Deadline deadline);
    int32_t (*receive)(ClientLink &link, kob_msg &msg, Deadline deadline);
    void (*disconnect)(ClientLink &link);
    // As send, without waiting.  What cannot leave now is copied and leaves during later calls;
    // until then KOB_ERR_TIMEOUT, and the link stays.  Null: send does not wait.
    int32_t (*post)(ClientLink &link, const Frame &frame, const void *payload) = nullptr;
    // Null: there is no descriptor.
    int (*descriptor)(const ClientLink &link, bool &is_sending) = nullptr;
};

// The options of a service that every endpoint has.  None of the numbers is 0.
struct ServiceLimits {
    uint32_t max_message;
    uint32_t max_clients;
    uint32_t max_clients_per_user;
    uint32_t max_queued;
    uint32_t max_memory;
    uint32_t idle_ms;
    kob_refusal_cb_t on_refusal; // may be null
    void *context;
};

struct ServiceOperations {
    // own holds the caller's options, of which the endpoint reads those that only it has.
    // They may be 0, which stands for the default.  close frees the service.
    int32_t (*listen)(const char *location, const ServiceLimits &limits, const kob_service_options_t &own,
                      ServiceLink *&service);
    int (*descriptor)(const ServiceLink &service);
    int32_t (*await)(ServiceLink &service, kob_msg &msg, Deadline deadline);
    int32_t (*reply)(ServiceLink &service, const kob_msg &request, const mpkob_segment_t *segments,
                     uint32_t num_segments, uint32_t total);
    void (*close)(ServiceLink &service);
    void (*hold)(ServiceLink &service, const kob_msg &request, bool is_held) = nullptr; // null: cannot be done
    bool (*is_gone)(const ServiceLink &service, const kob_msg &request) = nullptr;
    uint32_t (*clients)(const ServiceLink &service, kob_client_info_t *infos, uint32_t capacity) = nullptr;
};

struct Endpoint {
    const char *scheme;
    bool (*is_location)(const char *location);
    const ClientOperations *client;   // null: an endpoint for services alone
    const ServiceOperations *service; // null: an endpoint for clients alone
};

// Adds an endpoint, which must stay valid.  False when the table is full or the scheme is
// taken.  May be called on any thread, at any time.
bool register_endpoint(const Endpoint &endpoint);

// The endpoint for an address and, in location, the rest of the address.  Null when there is
// none, or when the endpoint does not accept the location.
const Endpoint *find_endpoint(const char *address, const char *&location);

} // namespace zel::platform
