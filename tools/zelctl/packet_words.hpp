// Packets on the command line, in words and in JSON.
#pragma once

#include "tools/json/notation.hpp"
#include "tools/records/operator_protocol.hpp"

#include <string>
#include <vector>

namespace zelctl {

// A packet of words: one JSON object, or "dip=192.0.2.80 dport=443 protocol=tcp".  Fields
// that are not given are 0.  Throws BadInput.
service::PacketHeader read_packet(const std::vector<std::string> &words);

// The fields of a packet that are not 0.
tools::Json packet_to_json(const service::PacketHeader &packet);

// Why a pair did not take a packet: "dport 443 is not 80 (match 7)".
std::string text_of(const service::Reason &reason);

} // namespace zelctl
