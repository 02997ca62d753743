// docs/wire-format.md.
#include "tools/describe/description.hpp"

#include "tools/json/notation.hpp"
#include "tools/message/element_list.hpp"
#include "tools/observe/fingerprint.hpp"
#include "tools/text/safe_text.hpp"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>

namespace describe {

namespace {

using namespace zel::wire;
using ElementKind = zel::wire::Element::Kind;

constexpr const char *introduction = R"(# The wire format

Printed from the wire description by `scripts/generate`. A test fails when this page is older than the
description. Fingerprint of the description: `{}`. Two programs that show the same fingerprint with
`--version` read and write the same bytes.

## Arrays and elements

A message is one array. An array is a number of 4 bytes, then as many bytes of elements as the number says.
An element is an id of 2 bytes, a length of 2 bytes, and a value of as many bytes as the length says. There is
no padding. Numbers have the byte order of the machine that sends: both ends of a local socket are one machine.
On the network, all machines of a fleet have to have the same one.

A message has a `kob_header`, and then the object that the header's `api_type` names. A record begins with its
start marker and ends with its end marker; both are elements with one byte of value, 0. Between them stand all
members of the record, each once, in the order of its table:

| member | on the wire |
|---|---|
| field | one element with the bytes of the value |
| record | the record, with its markers |
| sequence | one element with the number of records, then the records |
| choice | the record that the selector's value names, or nothing when none is named |

Text fills its field; zeros stand behind it. An IPv4 address is a number: 10.1.2.3 is 0x0a010203. An Ethernet
address is six bytes in the order in which people write them. A reader passes over elements with ids that it
does not have; they may come from a newer peer.
)";

constexpr const char *about_references = R"(
## References

A match or an action that the message has carried in full before travels as a reference: its start marker, the
two elements below, its end marker. The numbers are the object's type and its `id`.

| id | member | bytes | format |
|---|---|---|---|
)";

constexpr const char *about_responses = R"(
## Answers

The payload of an answer is the record `response`, which travels whole, and then the answer's body, if it has one.

)";

constexpr const char *about_statistics = R"(
## Statistics

The body of an answer to a statistics request is an array with the elements of `stat_results`. Each `entries`
element is an array by itself, with the elements of `stat_result_entry`. A reader takes the elements in any order.
)";

constexpr const char *about_service = R"(
## The service's own requests

The payload is an array; each of these records is the value of one element. Opcodes and rules are in
[service.md](service.md), [operators.md](operators.md) and [observe.md](observe.md).
)";

constexpr const char *about_transport = R"(
## Packets

A packet of the transport is the record `frame` and then payload. On a local socket it is one datagram of the
connection, and over NATS one published message. A message above 120,832 bytes travels in several packets: each
has the bytes from its `offset` on, and the message is whole when `total` bytes have arrived.
)";

constexpr const char *about_captures = R"(
## Captures

A capture is a pcapng file with the link type 147 (`USER0`). A packet in it is the record `capture` and then the
payload of a whole message. Fewer than `total` bytes follow when the message was cut. The name of the
application in the section header ends with the fingerprint of the description.
)";

constexpr const char *about_golden = R"(
## Messages, byte by byte

From a machine with the least significant byte first. Longer values are cut at 16 bytes.
)";

std::string notes(const Field &field)
{
    std::string text;
    for (const tools::Name &name : field.names)
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name.value, name.name);
    return text;
}

std::string row(const std::string &id, const std::string &member, const std::string &bytes, const std::string &format,
                const std::string &meaning)
{
    return fmt::format("| {} | {} | {} | {} | {} |\n", id, member, bytes, format, meaning);
}

constexpr const char *table_head = "\n| id | member | bytes | format | values |\n|---|---|---|---|---|\n";
constexpr const char *layout_head = "\n| offset | member | bytes | format | values |\n|---|---|---|---|---|\n";

Field value_of(uint16_t id)
{
    const auto all = elements();
    return std::ranges::find(all, id, &Element::id)->field;
}

std::string print_member(const Member &member)
{
    switch (member.kind) {
    case Kind::field: {
        const Field field = value_of(member.id);
        const std::string since = member.may_be_absent() ? fmt::format(" (since {})", member.since) : "";
        return row(std::to_string(member.id), fmt::format("`{}`{}", member.name, since), std::to_string(member.width),
                   name_of(member.format), notes(field));
    }
    case Kind::embedded:
        return row("", fmt::format("`{}`", member.name), "", "record", fmt::format("`{}`", member.record->name));
    case Kind::sequence:
        return row(std::to_string(member.id), fmt::format("`{}`", member.count), std::to_string(member.width), "number",
                   fmt::format("then as many `{}`", member.record->name));
    case Kind::choice:
        break;
    }
    std::string options;
    for (const Option &option : member.options)
        options += fmt::format("{}{} `{}`", options.empty() ? "" : ", ", option.value, option.record->name);
    return row("", fmt::format("by `{}`", member.name), "", "choice", options);
}

std::string print_record(const Record &record)
{
    std::string text = fmt::format("\n### {}\n\nMarkers {} and {}.{}\n", record.name, record.start, record.end,
                                   record.mat_type != 0 ? fmt::format(" Type {}.", record.mat_type) : "");
    text += table_head;
    for (const Member &member : record.members)
        text += print_member(member);
    return text;
}

std::string print_layout(const Layout &layout, bool has_elements)
{
    std::string text =
        fmt::format("\n### {}\n\n{}", layout.name, has_elements ? "" : fmt::format("{} bytes.\n", layout.size));
    if (layout.fields.empty())
        return fmt::format("\n### {}\n\nBytes of messages, which may begin and end in other elements.\n", layout.name);
    text += has_elements ? table_head + 1 : layout_head;
    for (const Field &field : layout.fields) {
        const std::string bytes = field.is_array     ? ""
                                  : field.count == 1 ? std::to_string(field.width)
                                                     : fmt::format("{} x {}", field.count, field.width);
        const std::string format = field.is_array ? "array" : !field.layout.empty() ? "record" : name_of(field.format);
        text += row(std::to_string(has_elements ? field.id : field.offset), fmt::format("`{}`", field.name), bytes,
                    format, field.layout.empty() ? notes(field) : fmt::format("`{}`", field.layout));
    }
    if (!layout.rest.empty())
        text += fmt::format("\nRecords `{}` follow, to the end of the element.\n", layout.rest);
    return text;
}

const Layout &named(const std::vector<Layout> &all, std::string_view name)
{
    return *std::ranges::find(all, name, &Layout::name);
}

// An element whose value is a record, and the record behind that if no other element has it.
std::string print_element(const Element &element, const std::vector<Layout> &whole)
{
    const Layout &layout = named(whole, element.record);
    std::string text = fmt::format("\nElement {}:\n", element.id) + print_layout(layout, false);
    const auto is_of_rest = [&](const Element &other) { return other.record == layout.rest; };
    if (!layout.rest.empty() && std::ranges::none_of(elements(), is_of_rest))
        text += print_layout(named(whole, layout.rest), false);
    return text;
}

// ---- Golden messages

std::string show_bytes(std::span<const uint8_t> bytes)
{
    constexpr std::size_t most = 16;
    std::string text;
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), most)))
        text += fmt::format("{}{:02x}", text.empty() ? "" : " ", byte);
    return bytes.size() > most ? text + " .." : text;
}

std::string meaning_of(const tools::RawElement &raw, const zel::wire::Element &element)
{
    if (element.kind == ElementKind::start)
        return fmt::format("{} {{", element.record->name);
    if (element.kind == ElementKind::end)
        return fmt::format("}} {}", element.record->name);
    if (element.kind == ElementKind::unknown || raw.value.size() != element.member->width)
        return "unknown";
    const Member &member = *element.member;
    std::string name = member.kind == Kind::sequence ? member.count : member.name;
    if (member.format == Format::text) // too long for a line
        return name;
    return fmt::format("{} {}", name, tools::safe_json(tools::show_value(member, raw.value.data()).dump()));
}

std::string print_golden(const std::string &path)
{
    const std::string message = read_golden(path);
    const tools::ElementList list = tools::list_elements(message);
    const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t *>(message.data()), message.size());
    std::string text =
        fmt::format("\n### {}\n\n```\noffset  id    length  value\n{:6}  {}  {} bytes follow\n",
                    std::filesystem::path(path).stem().string(), 0, show_bytes(bytes.first(4)), bytes.size() - 4);
    std::size_t depth = 0;
    for (const tools::RawElement &raw : list.elements) {
        const zel::wire::Element element = zel::wire::element(raw.id);
        depth -= element.kind == ElementKind::end ? 1 : 0;
        text += fmt::format("{:6}  {} {}  {:{}}{}  {}\n", raw.offset, show_bytes(bytes.subspan(raw.offset, 2)),
                            show_bytes(bytes.subspan(raw.offset + 2, 2)), "", 2 * depth, show_bytes(raw.value),
                            meaning_of(raw, element));
        depth += element.kind == ElementKind::start ? 1 : 0;
    }
    return text + "```\n";
}

} // namespace

std::string print_wire_format(const std::vector<std::string> &golden_files)
{
    const std::vector<Layout> whole = layouts();
    std::string text = fmt::format(fmt::runtime(introduction), observe::show_fingerprint(observe::wire_fingerprint()));
    text += "\n## Records\n";
    for (const Record *const record : message_records())
        text += print_record(*record);
    text += about_references;
    for (const Member &member : reference.members)
        text += fmt::format("| {} | `{}` | {} | number |\n", member.id, member.name, member.width);
    text += about_responses + print_layout(named(whole, "response"), false).substr(1);
    text += about_statistics;
    for (const Layout &layout : statistics())
        text += print_layout(layout, layout.name != "stats");
    text += about_service;
    for (const Element &element : elements())
        if (!element.field.layout.empty() && element.field.layout == element.record)
            text += print_element(element, whole);
    text += about_transport + print_layout(named(whole, "frame"), false);
    text += about_captures + print_layout(named(whole, "capture"), false);
    text += about_golden;
    for (const std::string &file : golden_files)
        text += print_golden(file);
    return text;
}

} // namespace describe
