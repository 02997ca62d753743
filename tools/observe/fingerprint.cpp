#include "tools/observe/fingerprint.hpp"

#include "wire/format.hpp"

#include <fmt/format.h>

namespace observe {

namespace {

using namespace zel::wire;

// FNV-1a.  Detects accidental differences; it is not a cryptographic hash.
class Hash {
public:
    constexpr void add(uint64_t number)
    {
        for (int i = 0; i < 8; ++i)
            add_byte(static_cast<uint8_t>(number >> 8 * i));
    }
    constexpr void add(std::string_view text)
    {
        add(text.size());
        for (const char c : text)
            add_byte(static_cast<uint8_t>(c));
    }
    constexpr uint64_t value() const { return value_; }

private:
    constexpr void add_byte(uint8_t byte) { value_ = (value_ ^ byte) * 0x100000001b3; }
    uint64_t value_ = 0xcbf29ce484222325;
};

// No offsets and no sizes of records: they are those of an ABI and do not travel.
constexpr void add(Hash &hash, const Member &member)
{
    hash.add(static_cast<uint64_t>(member.kind));
    hash.add(member.id);
    hash.add(member.width);
    hash.add(member.since);
    hash.add(member.name);
    hash.add(member.count != nullptr ? member.count : "");
    for (const Option &option : member.options) {
        hash.add(option.value);
        hash.add(option.name);
    }
}

constexpr void add(Hash &hash, const Record &top)
{
    for_each_record(top, [&](const Record &record) {
        hash.add(record.name);
        hash.add(record.start);
        hash.add(record.end);
        hash.add(record.mat_type);
        hash.add(record.members.size());
        for (const Member &member : record.members)
            add(hash, member);
    });
}

constexpr Hash hash_of_messages()
{
    Hash hash;
    add(hash, kob_header);
    add(hash, reference);
    for (const Record *const object : mat_objects)
        add(hash, *object);
    return hash;
}

template <class Table> void add_table(Hash &hash, const Table &table)
{
    hash.add(table.header.type_name);
    for (const zel_table_row_t &row : table.rows) {
        hash.add(row.element);
        hash.add(row.kind);
        hash.add(row.kind == ZEL_FIELD_RECORD_ARRAY ? 0 : row.size); // there, the size of a pointer
    }
}

} // namespace

uint64_t wire_fingerprint()
{
    Hash hash = hash_of_messages();
    add_table(hash, zel_stats_tbl);
    add_table(hash, zel_stat_result_entry_tbl);
    add_table(hash, zel_stat_results_tbl);
    return hash.value();
}

std::string show_fingerprint(uint64_t fingerprint) { return fmt::format("{:016x}", fingerprint); }

std::string version_text(const char *version)
{
    return fmt::format("{} (wire {})", version, show_fingerprint(wire_fingerprint()));
}

} // namespace observe
