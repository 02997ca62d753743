// The JSON format as a golden file: the members of every record, in order, with their
// notation and the names of their values.
#include "support/golden.hpp"
#include "tools/json/field_rules.hpp"
#include "tools/records/packet_record.hpp"
#include "wire/format.hpp"

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace zel::wire;

namespace {

std::string notation_of(const Member &field)
{
    constexpr const char *formats[] = {"number", "hexadecimal", "ipv4", "mac", "text"};
    const tools::FieldRule &rule = tools::rule_of(field);
    std::string text = fmt::format("{} bytes, {}", field.width, formats[static_cast<int>(field.format)]);
    if (rule.mask != nullptr)
        text += fmt::format(", with {}", rule.mask->name);
    if (rule.length != nullptr)
        text += fmt::format(", sets {}", rule.length->name);
    if (rule.reserved != 0)
        text += fmt::format(", {} reserved", rule.reserved);
    if (rule.is_required)
        text += ", required";
    if (rule.is_application)
        text += ", application";
    for (const tools::Name &name : rule.names)
        text += fmt::format("\n        {} {}", name.value, name.name);
    return text;
}

std::string line_of(const Record &record, std::string_view name)
{
    for (const Member &member : record.members) {
        if (member.name == name && member.kind == Kind::field)
            return fmt::format("    {}: {}\n", name, notation_of(member));
        if (member.name == name && member.kind == Kind::embedded)
            return fmt::format("    {}: {}\n", name, member.record->name);
        if (member.name == name && member.kind == Kind::sequence)
            return fmt::format("    {}: array of {}\n", name, member.record->name);
        for (const Option &option : member.options)
            if (option.name == name)
                return fmt::format("    {}: {}\n", name, option.record->name);
    }
    return fmt::format("    {}: no member\n", name);
}

std::string describe(const Record &record)
{
    std::string text =
        fmt::format("{}{}\n", record.name, tools::has_short_form(record) ? ", or its member's value" : "");
    for (const std::string_view name : tools::member_names(record))
        text += line_of(record, name);
    return text;
}

} // namespace

TEST(JsonMembers, Golden)
{
    std::string text = "# Every record in JSON: its members in order, their notation, the names of their values.\n";
    std::set<const Record *> seen;
    const auto add = [&](const Record &record) {
        if (seen.insert(&record).second)
            text += describe(record);
    };
    add(kob_header);
    for (const Record *const object : mat_objects)
        for_each_record(*object, add);
    add(tools::packet_header);
    test::expect_golden("json_members.txt", text);
}
