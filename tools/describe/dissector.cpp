// The tables of the Wireshark dissector, in Lua.
#include "tools/describe/description.hpp"

#include "tools/json/document.hpp"
#include "tools/observe/fingerprint.hpp"

#include <fmt/format.h>

namespace describe {

namespace {

std::string print_names(Names names)
{
    std::string text;
    for (const tools::Name &name : names)
        text += fmt::format("{}[{}] = \"{}\"", text.empty() ? "" : ", ", name.value, name.name);
    return text.empty() ? text : fmt::format(", names = {{{}}}", text);
}

std::string print_field(const Field &field)
{
    std::string text = fmt::format("record = \"{}\", name = \"{}\", width = {}, count = {}, format = \"{}\"",
                                   field.record, field.name, field.width, field.count, name_of(field.format));
    if (!field.layout.empty())
        text += fmt::format(", layout = \"{}\"", field.layout);
    if (field.is_array)
        text += ", is_array = true";
    if (field.is_signed)
        text += ", is_signed = true";
    return text + print_names(field.names);
}

std::string print_element(const Element &element)
{
    if (element.kind == Element::Kind::value)
        return fmt::format("    [{}] = {{kind = \"value\", {}}},\n", element.id, print_field(element.field));
    return fmt::format("    [{}] = {{kind = \"{}\", record = \"{}\"}},\n", element.id,
                       element.kind == Element::Kind::start ? "start" : "end", element.record);
}

std::string print_layout(const Layout &layout)
{
    std::string text = fmt::format("    {} = {{size = {}, fields = {{\n", layout.name, layout.size);
    for (const Field &field : layout.fields)
        text += fmt::format("        {{offset = {}, {}}},\n", field.offset, print_field(field));
    return text + fmt::format("    }}{}}},\n", layout.rest.empty() ? "" : fmt::format(", rest = \"{}\"", layout.rest));
}

} // namespace

std::string print_dissector(const std::string &program)
{
    std::string text = "-- Printed from the wire description by scripts/generate. Do not edit.\n\n";
    text += fmt::format("local FINGERPRINT = \"{}\"\n", observe::show_fingerprint(observe::wire_fingerprint()));
    text += "\nlocal ELEMENTS = {\n";
    for (const Element &element : elements())
        text += print_element(element);
    text += "}\n\n-- Records that travel whole.\nlocal LAYOUTS = {\n";
    for (const auto &group : {layouts(), statistics()})
        for (const Layout &layout : group)
            text += print_layout(layout);
    text += "}\n\nlocal OPCODES = {\n";
    for (const Opcode &opcode : opcodes())
        text += fmt::format("    [{}] = \"{}\",\n", opcode.value, opcode.name);
    return text + "}\n\n" + program;
}

} // namespace describe
