// Files of packet headers to classify.
#pragma once

#include "tools/message/service_protocol.hpp"

#include <string>
#include <vector>

namespace zelctl {

// One header a line, in either of two formats, empty lines and lines that begin
// with # left out:
//
// - a JSON object with the fields of service::PacketHeader;
// - a trace: source address, destination address, source port, destination port,
//   protocol, and if given flags and rule number, which are not used; decimal
//   numbers with blanks between them.  It means an IPv4 packet of 64 bytes.
//
// Throws BadInput.
std::vector<service::PacketHeader> read_packet_file(const std::string &path);

} // namespace zelctl
