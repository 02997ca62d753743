// Packets on a connected SOCK_SEQPACKET socket.  Nothing here waits.
#pragma once

#include "reference/kob/parts.hpp"

namespace zel::platform::unix_socket {

// Takes one packet off the socket.  The payload of a whole message becomes the caller's.
Step receive_packet(int socket, Inbound &in, kob_msg &msg, Fault &fault);

// Sends as many packets as the socket takes.  KOB_OK when all of them have gone,
// KOB_ERR_TIMEOUT when the socket is full, else KOB_ERR_PEER_GONE, KOB_ERR_TOO_LARGE
// or KOB_ERR_SYSTEM.
int32_t send_packets(int socket, Outbound &out);

} // namespace zel::platform::unix_socket
