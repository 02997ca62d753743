// The tables of the Python package.
#include "tools/describe/description.hpp"

#include "tools/observe/fingerprint.hpp"
#include "tools/observe/protocol.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace describe {

namespace {

using namespace zel::wire;

constexpr const char *head = R"("""Printed from the wire description by scripts/generate. Do not edit."""

from __future__ import annotations

from dataclasses import dataclass, field
from ipaddress import IPv4Address
from typing import ClassVar, Dict, List, Optional, Union

from .rows import Choice, Embedded, Field, Layout, Part, Row, Sequence

)";

struct PythonType {
    const char *name;
    const char *initial;
};

PythonType type_of(Format format)
{
    switch (format) {
    case Format::ipv4:
        return {"IPv4Address", "IPv4Address(0)"};
    case Format::mac:
        return {"bytes", "bytes(6)"};
    case Format::text:
        return {"bytes", "b\"\""};
    case Format::number:
    case Format::hexadecimal:
        break;
    }
    return {"int", "0"};
}

std::string print_names_of(Names names)
{
    std::string text;
    for (const tools::Name &name : names)
        text += fmt::format("{}{}: \"{}\"", text.empty() ? "" : ", ", name.value, name.name);
    return "{" + text + "}";
}

// ---- Records of messages: a data class each

const Field &value_of(const std::vector<Element> &all, uint32_t id)
{
    return std::ranges::find(all, id, &Element::id)->field;
}

std::string print_attribute(const Member &member)
{
    switch (member.kind) {
    case Kind::field:
        return fmt::format("    {}: {} = {}\n", member.name, type_of(member.format).name,
                           type_of(member.format).initial);
    case Kind::embedded:
        return fmt::format("    {0}: {1} = field(default_factory=lambda: {1}())\n", member.name,
                           class_name(member.record->name));
    case Kind::sequence:
        return fmt::format("    {}: List[{}] = field(default_factory=list)\n", member.name,
                           class_name(member.record->name));
    case Kind::choice:
        break;
    }
    std::string classes;
    for (const Option &option : member.options)
        classes += fmt::format("{}{}", classes.empty() ? "" : ", ", class_name(option.record->name));
    return fmt::format("    param: Optional[Union[{}]] = None\n", classes);
}

std::string print_row(const std::vector<Element> &all, const Member &member)
{
    switch (member.kind) {
    case Kind::field:
        return fmt::format("        Field(\"{}\", {}, {}, \"{}\", {}, {}),\n", member.name, member.id, member.width,
                           name_of(member.format), print_names_of(value_of(all, member.id).names), member.since);
    case Kind::embedded:
        return fmt::format("        Embedded(\"{}\", {}),\n", member.name, class_name(member.record->name));
    case Kind::sequence:
        return fmt::format("        Sequence(\"{}\", \"{}\", {}, {}, {}),\n", member.name, member.count, member.id,
                           member.width, class_name(member.record->name));
    case Kind::choice:
        break;
    }
    std::string options;
    for (const Option &option : member.options)
        options += fmt::format("{}{}: {}", options.empty() ? "" : ", ", option.value, class_name(option.record->name));
    return fmt::format("        Choice(\"param\", \"{}\", {{{}}}),\n", member.name, options);
}

std::string print_class(const std::vector<Element> &all, const Record &record)
{
    std::string text = fmt::format("\n@dataclass\nclass {}(Row):\n", class_name(record.name));
    text +=
        fmt::format("    name: ClassVar[str] = \"{}\"\n    start: ClassVar[int] = {}\n    end: ClassVar[int] = {}\n"
                    "    mat_type: ClassVar[int] = {}\n    is_shareable: ClassVar[bool] = {}\n",
                    record.name, record.start, record.end, record.mat_type, record.is_shareable() ? "True" : "False");
    for (const Member &member : record.members)
        text += print_attribute(member);
    text += fmt::format("\n\n{}.members = (\n", class_name(record.name));
    for (const Member &member : record.members)
        text += print_row(all, member).substr(4);
    return text + ")\n\n";
}

// A choice's class stands before the class that has the choice.
void add_inner_first(std::vector<const Record *> &ordered, const Record &record)
{
    for (const Member &member : record.members) {
        if (member.has_record())
            add_inner_first(ordered, *member.record);
        for (const Option &option : member.options)
            add_inner_first(ordered, *option.record);
    }
    if (std::ranges::find(ordered, &record) == ordered.end())
        ordered.push_back(&record);
}

// ---- Records that travel whole, and statistics

std::string print_parts(const Layout &layout)
{
    std::string text = fmt::format("    \"{}\": Layout({}, (\n", layout.name, layout.size);
    for (const Field &field : layout.fields)
        text += fmt::format("        Part(\"{}\", {}, {}, {}, {}, \"{}\", \"{}\", {}, {}, {}),\n", field.name, field.id,
                            field.offset, field.width, field.count, name_of(field.format), field.layout,
                            field.is_array ? "True" : "False", field.is_signed ? "True" : "False",
                            print_names_of(field.names));
    return text + fmt::format("    ){}),\n", layout.rest.empty() ? "" : fmt::format(", \"{}\"", layout.rest));
}

std::string print_layouts()
{
    std::string text = "\nLAYOUTS: Dict[str, Layout] = {\n";
    for (const auto &group : {layouts(), statistics()})
        for (const Layout &layout : group)
            text += print_parts(layout);
    text += "}\n\n# Elements whose value is a record.\nRECORD_ELEMENTS: Dict[int, str] = {\n";
    for (const Element &element : elements())
        if (!element.field.layout.empty() && element.field.layout == element.record)
            text += fmt::format("    {}: \"{}\",\n", element.id, element.record);
    return text + "}\n";
}

std::string print_objects()
{
    std::string text = "\nOBJECTS: Dict[int, type[Row]] = {\n";
    for (const tools::Name &kind : tools::request_kind_names)
        if (const Record *const record = object_of(get_mat_obj_type(kind.value)))
            text += fmt::format("    {}: {}, # {}\n", kind.value, class_name(record->name), kind.name);
    text += "}\n\n# The class of each start marker.\nSTARTS: Dict[int, type[Row]] = {\n";
    for (const Record *const record : message_records())
        text += fmt::format("    {}: {},\n", record->start, class_name(record->name));
    return text + "}\n";
}

} // namespace

std::string print_python()
{
    std::vector<const Record *> ordered;
    for (const Record *const record : message_records())
        add_inner_first(ordered, *record);
    const std::vector<Element> all = elements();
    std::string text = head;
    text += fmt::format("FINGERPRINT = \"{}\"\n", observe::show_fingerprint(observe::wire_fingerprint()));
    text += fmt::format("CAPTURE_MAGIC = {:#x}\nREFERENCE_TYPE = {}\nREFERENCE_ID = {}\n", observe::capture_magic,
                        reference_mat_type.id, reference_mat_id.id);
    text += "\nOPCODES: Dict[int, str] = {\n";
    for (const Opcode &opcode : opcodes())
        text += fmt::format("    {:#x}: \"{}\",\n", opcode.value, opcode.name);
    text += "}\n\n";
    for (const Record *const record : ordered)
        text += print_class(all, *record);
    return text + print_objects() + print_layouts();
}

} // namespace describe
