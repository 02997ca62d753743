#include "tools/message/message.hpp"

#include "tools/json/reader.hpp"
#include "tools/json/writer.hpp"
#include "tools/message/tracing.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstring>

namespace tools {

using namespace zel::wire;

namespace {

// The record of the object of a request kind; null when the kind is not known.
const Record *object_of_kind(uint32_t api_type) { return object_of(get_mat_obj_type(api_type)); }

// Whether a request of this kind is complete without an object.
bool may_lack_object(uint32_t api_type) { return api_type == ZEL_API_POLICY_DELETE; }

// The size of the first array, or of all bytes when the array claims more.
std::size_t array_size(std::string_view bytes)
{
    uint32_t used = 0;
    std::memcpy(&used, bytes.data(), std::min(bytes.size(), sizeof used));
    return std::min(TLV_ARRAY_OVERHEAD + std::size_t{used}, bytes.size());
}

// The verifier reads as many bytes as the array claims to have.
void require_whole_array(std::string_view bytes, const std::string &source)
{
    if (bytes.size() > UINT32_MAX || tlv_array_check(bytes.data(), static_cast<uint32_t>(bytes.size())) != TLV_OK)
        throw BadInput(fmt::format("{}: no message: its first four bytes claim more than the {} bytes there are",
                                   source, bytes.size()));
    if (const std::size_t end = array_size(bytes); end != bytes.size())
        throw BadInput(fmt::format("{}: offset {}: {} bytes follow the last element", source, end, bytes.size() - end));
}

// Without memory, the library reports an error and leaves a part of the graph out.
bool has_library_failed = false;
void note_failure(const char *, ...) { has_library_failed = true; } // NOLINT(cert-dcl50-cpp): the callback's type

} // namespace

std::string encode_message(const Message &message)
{
    const zel_kob_header_t &header = message.header;
    const uint32_t mat_type = get_mat_obj_type(header.api_type);
    zel_api_handle_t handle{};
    zel_api_init(&handle, trace_flag(), header.app_type, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    const uint32_t size = TLV_ARRAY_OVERHEAD + zel_kob_header_get_tlv_sz() +
                          get_mat_obj_size_for_kob(&handle, header.app_type, mat_type, message.graph.root());
    std::string bytes(size, '\0');
    zel_add_kob_header_to_tlv(&handle, bytes.data(), size, &header);
    assemble_mat_obj_for_kob(&handle, header.app_type, bytes.data(), size, mat_type, message.graph.root());
    return bytes;
}

zel_verify_report_t verify_message(std::string_view bytes, const std::string &source, bool is_strict)
{
    require_whole_array(bytes, source);
    const zel_verify_options_t options{sizeof options, is_strict};
    zel_verify_report_t report{};
    report.size = sizeof report;
    if (zel_verify_tlv_array(bytes.data(), &options, &report) == ZEL_VERIFY_OK)
        return report;
    char text[ZEL_VERIFY_TEXT_SIZE];
    zel_verify_report_text(&report, text, sizeof text);
    throw BadInput(source + ": " + text);
}

Message decode_message(std::string_view bytes, const std::string &source)
{
    verify_message(bytes, source);
    std::string padded(bytes);
    padded.resize(bytes.size() + ZEL_LABEL_SIZE); // the parser may read that far
    Message message;
    zel_api_handle_t handle{};
    zel_api_init(&handle, trace_flag(), 0, ZEL_KOB_NO_TRANSPORT, note_failure, nullptr, nullptr);
    has_library_failed = false;
    void *const root = zel_parse_tlv_array(&handle, padded.data(), &message.header);
    message.graph = Graph(get_mat_obj_type(message.header.api_type), root);
    if (has_library_failed)
        throw std::bad_alloc();
    return message;
}

std::vector<Message> decode_messages(std::string_view bytes, const std::string &source)
{
    std::vector<Message> messages;
    while (!bytes.empty()) {
        const std::string_view first = first_message(bytes);
        messages.push_back(decode_message(first, fmt::format("{}, message {}", source, messages.size() + 1)));
        bytes.remove_prefix(first.size());
    }
    return messages;
}

std::string_view first_message(std::string_view bytes) { return bytes.substr(0, array_size(bytes)); }

zel_kob_header_t read_header(std::string_view bytes)
{
    zel_api_handle_t handle{};
    zel_api_init(&handle, trace_flag(), 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    zel_kob_header_t header{};
    uint32_t cursor = 0;
    uint32_t num_elements = 0;
    zel_parse_kob_header_from_tlv(&handle, bytes.data(), &cursor, &header, &num_elements);
    return header;
}

void change_operation(std::string &bytes, uint32_t op_code)
{
    constexpr const Member &operation = kob_header.members[3];
    static_assert(operation.offset == offsetof(zel_kob_header_t, op_code));
    uint32_t cursor = 0;
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    while (tlv_array_get_next_tlv(bytes.data(), &type, &length, &value, 0, &cursor) == TLV_OK) {
        if (type == operation.id)
            return (void)std::memcpy(const_cast<void *>(value), &op_code, operation.width);
    }
}

Json message_to_json(const Message &message)
{
    Json json{{kob_header.name, JsonWriter().write(kob_header, &message.header)}};
    if (message.graph.root() != nullptr)
        json[message.graph.record()->name] = write_graph(message.graph);
    return json;
}

Message message_from_json(const Document &document, uint32_t app_type)
{
    const JsonPath root;
    const Input in{document, document.root, root};
    if (!in.node.is_object())
        in.expected("an object");
    Message message;
    JsonReader reader(app_type);
    if (!with_member(in, kob_header.name,
                     [&](const Input &header) { reader.read(header, kob_header, &message.header); }))
        in.fail(fmt::format("the member \"{}\" is missing", kob_header.name));

    const uint32_t api_type = message.header.api_type;
    const Record *const object = object_of_kind(api_type);
    if (object == nullptr)
        in.fail(fmt::format("request kind {} is not known", api_type));
    refuse_unknown_members(in, {kob_header.name, object->name});
    const bool has_object =
        with_member(in, object->name, [&](const Input &value) { message.graph = read_graph(reader, *object, value); });
    if (!has_object && !may_lack_object(api_type))
        in.fail(fmt::format("the member \"{}\" is missing", object->name));
    return message;
}

} // namespace tools
