// Messages: a header and the graph that it announces, as the bytes that are sent and
// as JSON.
#pragma once

#include "tools/json/document.hpp"
#include "tools/json/notation.hpp"
#include "tools/records/graph.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tools {

struct Message {
    zel_kob_header_t header{};
    Graph graph; // without root when the header is all
};

// The bytes that the library's send_to_zel() hands to the transport.
std::string encode_message(const Message &message);

// Both throw BadInput with the report of the library's verifier when the bytes are not
// exactly one message.  The error text begins with source.  The library's parser builds
// the graph.
zel_verify_report_t verify_message(std::string_view bytes, const std::string &source, bool is_strict = false);
Message decode_message(std::string_view bytes, const std::string &source);

// The same for messages that follow each other without a gap, as in the answer to a show
// request.
std::vector<Message> decode_messages(std::string_view bytes, const std::string &source);

// The first of such messages; whether the array is whole is not checked.
std::string_view first_message(std::string_view bytes);

// Of a verified message: its header, without the graph, and another operation in its header.
zel_kob_header_t read_header(std::string_view bytes);
void change_operation(std::string &bytes, uint32_t op_code);

// {"kob_header": {...}, "policy": {...}}
Json message_to_json(const Message &message);
Message message_from_json(const Document &document, uint32_t app_type);

} // namespace tools
