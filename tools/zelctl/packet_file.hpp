// Files of packet headers to classify.
#pragma once

#include "tools/records/service_protocol.hpp"

#include <string>
#include <vector>

namespace zelctl {

// Reads one header a line.  Empty lines and lines that begin with # are skipped.  A line
// has one of two formats:
//
// - a JSON object with the fields of service::PacketHeader;
// - a trace: source address, destination address, source port, destination port,
//   protocol, and if given flags and rule number, which are not used; decimal
//   numbers with blanks between them, addresses also as 10.1.2.3.  The packet is taken to be IPv4 of 64 bytes.
//
// Throws BadInput.
std::vector<service::PacketHeader> read_packet_file(const std::string &path);

} // namespace zelctl
