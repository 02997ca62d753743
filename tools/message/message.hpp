// Messages: a header and the graph that it announces, as the bytes that travel
// and as JSON.
#pragma once

#include "tools/json/json_document.hpp"
#include "tools/json/notation.hpp"
#include "tools/message/element_list.hpp"
#include "tools/message/graph.hpp"

#include <string>

namespace tools {

struct Message {
    zel_kob_header_t header{};
    Graph graph; // without root when the header is all
};

// The bytes that the library's send_to_zel() hands to the transport.
std::string encode_message(const Message &message);

// Reads what encode_message() writes and refuses everything else, as bad input
// with the offset of the first fault; except that elements which the description
// does not know are passed over, for a newer peer may have written them.
Message decode_message(const ElementList &list);

// {"kob_header": {...}, "policy": {...}}
Json message_to_json(const Message &message);
Message message_from_json(const Document &document, uint32_t app_type);

} // namespace tools
