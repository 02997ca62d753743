// The endpoint of local sockets, "unix:PATH".
#include "reference/kob/unix/client.hpp"
#include "reference/kob/unix/service.hpp"
#include "reference/kob/unix/socket.hpp"

namespace zel::platform {

constinit const Endpoint unix_endpoint = {
    "unix",      is_socket_path,  unix_connect, unix_send,  unix_receive, unix_disconnect,
    unix_listen, unix_descriptor, unix_await,   unix_reply, unix_close,
};

} // namespace zel::platform
