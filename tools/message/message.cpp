#include "tools/message/message.hpp"

#include "tools/json/json_reader.hpp"
#include "tools/json/json_writer.hpp"
#include "tools/message/element_facts.hpp"
#include "tools/message/message_decoder.hpp"
#include "tools/message/tracing.hpp"
#include "zel-platform/tlv_check.h"

namespace tools {
namespace {

// "element 28 (match type)"
std::string name_of(uint16_t id)
{
    using Kind = ElementFacts::Kind;
    const ElementFacts &facts = facts_of_element(id);
    switch (facts.kind) {
    case Kind::start:
        return fmt::format("element {} (start of {})", id, facts.record);
    case Kind::end:
        return fmt::format("element {} (end of {})", id, facts.record);
    default:
        return fmt::format("element {} ({})", id, facts.text);
    }
}

constexpr std::string_view header_name = zel::Wire<zel_kob_header_t>::name.text;

// The name of the object of a request kind; empty when there is none.
std::string_view name_of_object(uint32_t api_type)
{
    std::string_view name;
    visit_mat_type(get_mat_obj_type(api_type), [&]<class R>(R *) { name = zel::Wire<R>::name.text; });
    return name;
}

// Whether a request of this kind is complete without an object.
bool may_lack_object(uint32_t api_type) { return api_type == ZEL_API_POLICY_DELETE; }

} // namespace

const RawElement *MessageDecoder::peek()
{
    while (next_ < list_.elements.size() &&
           facts_of_element(list_.elements[next_].id).kind == ElementFacts::Kind::unknown)
        ++next_;
    return next_ < list_.elements.size() ? &list_.elements[next_] : nullptr;
}

void MessageDecoder::fail(const std::string &text)
{
    const RawElement *const element = peek();
    throw BadInput(fmt::format("{}: offset {}: {}", list_.source, element != nullptr ? element->offset : list_.end,
                               element == nullptr && !list_.fault.empty() ? list_.fault : text));
}

const RawElement &MessageDecoder::expect(uint16_t id, std::size_t length)
{
    const RawElement *const element = peek();
    if (element == nullptr)
        fail(fmt::format("expected {}, found the end of the message", name_of(id)));
    if (element->id != id)
        fail(fmt::format("expected {}, found {}", name_of(id), name_of(element->id)));
    if (element->value.size() != length)
        fail(fmt::format("{} should have {} bytes and has {}", name_of(id), length, element->value.size()));
    ++next_;
    return *element;
}

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

Message decode_message(const ElementList &list)
{
    MessageDecoder decoder(list);
    Message message;
    decoder.decode(message.header);
    const uint32_t api_type = message.header.api_type;
    if (name_of_object(api_type).empty())
        throw BadInput(fmt::format("{}: request kind {} is not known", list.source, api_type));
    if (decoder.peek() != nullptr || !may_lack_object(api_type))
        visit_mat_type(get_mat_obj_type(api_type), [&]<class R>(R *) {
            message.graph = Graph::make<R>();
            decoder.decode(message.graph.as<R>());
        });
    if (const RawElement *const further = decoder.peek())
        decoder.fail(fmt::format("expected the end of the message, found {}", name_of(further->id)));
    if (!list.fault.empty())
        decoder.fail(list.fault);
    return message;
}

Json message_to_json(const Message &message)
{
    Json json{{header_name, JsonWriter().write(message.header)}};
    if (message.graph.root() != nullptr)
        json[std::string(name_of_object(message.header.api_type))] = write_graph(message.graph);
    return json;
}

Message message_from_json(const Document &document, uint32_t app_type)
{
    const Place root;
    const Input in{document, document.root, root};
    if (!in.node.is_object())
        in.expected("an object");
    Message message;
    JsonReader reader(app_type);
    if (!with_member(in, header_name, [&](const Input &header) { reader.read(header, message.header); }))
        in.fail(fmt::format("the member \"{}\" is missing", header_name));

    const uint32_t api_type = message.header.api_type;
    const std::string_view object_name = name_of_object(api_type);
    if (object_name.empty())
        in.fail(fmt::format("request kind {} is not known", api_type));
    for (const Node &child : in.node.children)
        if (child.key != header_name && child.key != object_name) {
            const Place place = root.in(child.key);
            Input{document, child, place}.fail("unknown member; expected " + enumerated({header_name, object_name}));
        }
    const bool has_object = with_member(in, object_name, [&](const Input &object) {
        message.graph = read_graph(reader, get_mat_obj_type(api_type), object);
    });
    if (!has_object && !may_lack_object(api_type))
        in.fail(fmt::format("the member \"{}\" is missing", object_name));
    return message;
}

} // namespace tools
