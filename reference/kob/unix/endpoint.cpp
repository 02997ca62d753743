#include "reference/kob/unix/endpoint.hpp"

#include "reference/kob/unix/socket.hpp"

namespace zel::platform::unix_socket {

constinit const Endpoint endpoint = {"unix", is_socket_path, &client_operations, &service_operations};

} // namespace zel::platform::unix_socket
