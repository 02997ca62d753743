// The endpoint of local sockets, "unix:PATH".
#pragma once

#include "reference/kob/endpoint.hpp"

namespace zel::platform::unix_socket {

extern const ClientOperations client_operations;
extern const ServiceOperations service_operations;
extern const Endpoint endpoint;

} // namespace zel::platform::unix_socket
