#include "tools/describe/description.hpp"

#include "tools/json/document.hpp"
#include "tools/json/field_rules.hpp"
#include "tools/observe/records.hpp"
#include "tools/observe/request.hpp"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <sstream>

namespace describe {

namespace {

using namespace zel::wire;
using tools::Name;

constexpr std::array packet_kinds{Name{1, "request"}, Name{2, "response"}, Name{3, "refusal"}};
constexpr std::array statuses{Name{service::status_ok, "ok"}, Name{service::status_failed, "failed"}};
// Of the library's requests, and of the service's own.
constexpr auto opcode_names = [] {
    std::array<Name, 2 + std::size(observe::own_requests)> names{Name{ZEL_KOB_OPC_REQUEST, "request"},
                                                                 Name{ZEL_KOB_OPC_MP_REQUEST, "multi-part request"}};
    std::ranges::transform(observe::own_requests, names.begin() + 2, [](const observe::OwnRequest &own) {
        return Name{own.opcode, own.name};
    });
    return names;
}();
constexpr std::array verdict_names{
    Name{service::verdict_took, "took"},   Name{service::verdict_no_pair, "no_pair"},
    Name{service::verdict_never, "never"}, Name{service::verdict_field, "field"},
    Name{service::verdict_label, "label"}, Name{service::verdict_interface, "interface"},
    Name{service::verdict_vlan, "vlan"},   Name{service::verdict_vrf, "vrf"},
};

// Names of numbers in records that travel whole.
struct Naming {
    std::string_view record, member;
    Names names;
};
constexpr Naming namings[] = {
    {"frame", "kind", packet_kinds},
    {"capture", "kind", packet_kinds},
    {"frame", "opcode", opcode_names},
    {"capture", "opcode", opcode_names},
    {"response", "status", statuses},
    {"response", "error", tools::error_names},
    {"request_count", "error", tools::error_names},
    {"reason", "verdict", verdict_names},
    {"summary", "op_mode", tools::op_modes},
    {"policy_frame", "op_mode", tools::op_modes},
};

Names names_of(const Record &record, const Member &member)
{
    for (const Naming &naming : namings)
        if (naming.record == record.name && naming.member == member.name)
            return naming.names;
    return tools::rule_of(member).names;
}

Field field_of(const Record &record, const Member &member)
{
    Field field{.record = record.name, .name = member.name, .id = member.id, .offset = member.offset};
    field.width = member.width;
    field.format = member.format;
    field.is_count = member.kind == zel::wire::Kind::sequence;
    field.is_signed = std::string_view(record.name) == "response" && field.name == "retval";
    if (field.is_count)
        field.name = member.count;
    else
        field.names = names_of(record, member);
    return field;
}

Layout layout_of(const Record &record)
{
    Layout layout{record.name, record.size, {}};
    for (const Member &member : record.members)
        layout.fields.push_back(field_of(record, member));
    return layout;
}

// ---- Statistics: the converter's tables have no names for members, so these follow from
// the members' places.

struct MemberName {
    const char *name;
    const char *layout;
    uint32_t offset;
    uint32_t item; // bytes of an item of an array; 0: no array
};
#define STATISTICS_MEMBER(R, member, item, layout)                                                                     \
    MemberName { #member, layout, offsetof(R, member), item }
constexpr MemberName stats_members[] = {STATISTICS_MEMBER(zel_stats_t, counter1, 0, ""),
                                        STATISTICS_MEMBER(zel_stats_t, counter2, 0, "")};
constexpr MemberName entry_members[] = {
    STATISTICS_MEMBER(zel_stat_result_entry_t, tag, 0, ""),
    STATISTICS_MEMBER(zel_stat_result_entry_t, key, 0, ""),
    STATISTICS_MEMBER(zel_stat_result_entry_t, ids, sizeof(uint16_t), ""),
    STATISTICS_MEMBER(zel_stat_result_entry_t, stats, sizeof(zel_stats_t), "stats"),
};
constexpr MemberName results_members[] = {
    STATISTICS_MEMBER(zel_stat_results_t, tag, 0, ""),
    STATISTICS_MEMBER(zel_stat_results_t, num_entries, 0, ""),
    STATISTICS_MEMBER(zel_stat_results_t, entries, 0, "stat_result_entry"),
};
#undef STATISTICS_MEMBER

template <class Table>
Layout statistics_layout(const char *name, const Table &table, std::span<const MemberName> members)
{
    Layout layout{name, table.header.record_size, {}};
    for (const zel_table_row_t &row : table.rows) {
        const uint32_t offset = row.offset;
        const auto member = std::ranges::find(members, offset, &MemberName::offset);
        if (row.element == ZEL_FIELD_NONE || member == members.end())
            continue;
        Field field{.record = name, .name = member->name, .id = row.element, .offset = offset};
        field.is_array = row.kind == ZEL_FIELD_RECORD_ARRAY;
        field.layout = member->layout;
        const uint32_t size = row.size;
        field.width = field.is_array ? 0 : std::max(member->item, member->item != 0 ? 0 : size);
        field.count = member->item != 0 ? size / member->item : 1;
        layout.fields.push_back(field);
    }
    return layout;
}

} // namespace

std::vector<const Record *> message_records()
{
    std::vector<const Record *> records;
    const auto add = [&](const Record &record) {
        if (std::ranges::find(records, &record) == records.end())
            records.push_back(&record);
    };
    add(kob_header);
    for (auto object = std::rbegin(mat_objects); object != std::rend(mat_objects); ++object)
        for_each_record(**object, add);
    return records;
}

std::vector<Layout> layouts()
{
    std::vector<Layout> all{layout_of(observe::frame_record), layout_of(observe::capture_record),
                            layout_of(observe::response_record)};
    const auto add = [&](const Record &record) -> Layout & {
        if (const auto known = std::ranges::find(all, record.name, &Layout::name); known != all.end())
            return *known;
        return all.emplace_back(layout_of(record));
    };
    for (const auto &element : observe::record_elements) {
        add(*element.record).rest = element.rest != nullptr ? element.rest->name : "";
        if (element.rest != nullptr)
            add(*element.rest);
    }
    return all;
}

std::vector<Layout> statistics()
{
    return {statistics_layout("stats", zel_stats_tbl, stats_members),
            statistics_layout("stat_result_entry", zel_stat_result_entry_tbl, entry_members),
            statistics_layout("stat_results", zel_stat_results_tbl, results_members)};
}

std::vector<Element> elements()
{
    std::vector<Element> all;
    for (uint16_t id = 0; id < num_element_ids; ++id) {
        const zel::wire::Element element = zel::wire::element(id);
        if (element.kind == zel::wire::Element::Kind::value)
            all.push_back({Element::Kind::value, id, element.record->name, field_of(*element.record, *element.member)});
        else if (element.kind != zel::wire::Element::Kind::unknown)
            all.push_back({element.kind == zel::wire::Element::Kind::start ? Element::Kind::start : Element::Kind::end,
                           id, element.record->name});
    }
    for (const Layout &layout : statistics())
        for (const Field &field : layout.fields)
            all.push_back({Element::Kind::value, field.id, layout.name, field});
    for (const auto &[id, record, rest] : observe::record_elements) {
        Field field{.record = record->name, .name = record->name, .id = id};
        field.width = record->size;
        field.layout = record->name;
        all.push_back({Element::Kind::value, id, record->name, field});
    }
    std::ranges::sort(all, {}, &Element::id);
    return all;
}

std::vector<Opcode> opcodes()
{
    std::vector<Opcode> all(opcode_names.size());
    std::ranges::transform(opcode_names, all.begin(), [](const Name &name) {
        return Opcode{name.value, std::string(name.name)};
    });
    return all;
}

const char *name_of(Format format)
{
    switch (format) {
    case Format::number:
        return "number";
    case Format::hexadecimal:
        return "hexadecimal";
    case Format::ipv4:
        return "ipv4";
    case Format::mac:
        return "mac";
    case Format::text:
        return "text";
    }
    return "";
}

std::string class_name(std::string_view record)
{
    std::string name;
    bool is_first = true;
    for (const char c : record) {
        if (c != '_')
            name += is_first ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        is_first = c == '_';
    }
    return name;
}

std::string read_golden(const std::string &path)
{
    std::istringstream lines(tools::read_file(path));
    std::string message(4, '\0');
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        unsigned id = 0;
        unsigned length = 0;
        std::string digits;
        if (!(words >> id >> length >> digits) || digits.size() != std::size_t{2} * length)
            continue; // a comment
        for (const unsigned number : {id, length})
            message.append({static_cast<char>(number), static_cast<char>(number >> 8)});
        for (std::size_t i = 0; i < digits.size(); i += 2)
            message += static_cast<char>(std::stoul(digits.substr(i, 2), nullptr, 16));
    }
    const auto used = static_cast<uint32_t>(message.size() - 4);
    message.replace(0, 4, reinterpret_cast<const char *>(&used), 4);
    return message;
}

} // namespace describe
