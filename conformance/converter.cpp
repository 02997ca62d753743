// The duties of the converter, with the library's tables of statistics records.  What the
// elements look like is the port's decision.
#include "conformance/check.hpp"
#include "zel/platform/tlv_array.h"
#include "zel/platform/tlv_converter.h"

#include <algorithm>
#include <cstdlib>

namespace zel::conformance {
namespace {

constexpr uint32_t most_results = 300;

const void *const table = &zel_stat_results_tbl;

// Results, and room for their elements.
struct Sample {
    explicit Sample(uint32_t count) : block(65536), results{7, count, count != 0 ? entries : nullptr}
    {
        for (uint32_t i = 0; i < count; ++i) { // padding stays 0
            entries[i].tag = static_cast<uint8_t>(i);
            entries[i].key = 0x01020304 + i;
            for (uint16_t j = 0; j < 5; ++j)
                entries[i].ids[j] = static_cast<uint16_t>(i + j * 100);
            entries[i].stats[1] = {uint64_t{i} << 40 | 5, ~uint64_t{i}};
        }
        elements_size = tlvu_table_size(table, &results);
    }
    Sample(const Sample &) = delete;
    Sample &operator=(const Sample &) = delete;
    ~Sample() { std::free(entries); }

    int32_t write(uint32_t capacity)
    {
        body = block.last(capacity);
        std::memset(body, 0, capacity);
        return tlvu_table_convert_struct_to_tlv(body, capacity, table, &results, &written, 0, 0);
    }

    // Into a buffer of the computed size.
    bool write_all() { return write(overhead + elements_size) == 0; }

    zel_stat_result_entry_t *entries =
        static_cast<zel_stat_result_entry_t *>(std::calloc(most_results, sizeof(zel_stat_result_entry_t)));
    GuardedBlock block;
    zel_stat_results_t results;
    uint32_t elements_size = 0;
    uint32_t written = 0;
    unsigned char *body = nullptr;
};

constexpr std::size_t size_for(uint32_t count)
{
    return sizeof(zel_stat_results_t) + count * sizeof(zel_stat_result_entry_t);
}

// The library takes the entries to follow the record, and the caller reads as many as it says.
bool is_equal(const zel_stat_results_t &read, const Sample &sample)
{
    const uint32_t count = sample.results.num_entries;
    return read.tag == sample.results.tag && read.num_entries == count &&
           std::memcmp(&read + 1, sample.entries, count * sizeof(zel_stat_result_entry_t)) == 0;
}

zel_stat_results_t *convert(const void *body, int32_t &status)
{
    static char not_null;
    void *slot = &not_null;
    status = tlvu_table_convert_tlv_to_struct(&slot, body, 0, table, 0);
    return static_cast<zel_stat_results_t *>(slot);
}

Outcome not_written() { return broken("a record could not be converted to elements"); }

// Fields of the two flat tables, one by one.
template <class Visit> Outcome for_each_field(Visit visit)
{
    const std::pair<const void *, const zel_table_row_t *> tables[] = {
        {&zel_stats_tbl, zel_stats_tbl.rows},
        {&zel_stat_result_entry_tbl, zel_stat_result_entry_tbl.rows},
    };
    static unsigned char record[sizeof(zel_stat_result_entry_t)];
    for (std::size_t i = 0; i < sizeof record; ++i)
        record[i] = static_cast<unsigned char>(i + 1);
    const GuardedBlock block(1024);
    for (const auto &[described, rows] : tables) {
        const uint32_t capacity = overhead + tlvu_table_size(described, record);
        unsigned char *const body = block.last(capacity);
        std::memset(body, 0, capacity);
        uint32_t written = 0;
        if (tlvu_table_convert_struct_to_tlv(body, capacity, described, record, &written, 0, 0) != 0)
            return not_written();
        for (const zel_table_row_t *row = rows; row->element != ZEL_FIELD_NONE; ++row)
            if (const Outcome one = visit(described, *row, body, written, record); one.state == State::broken)
                return one;
    }
    return kept("");
}

} // namespace

Outcome check_converter_records()
{
    for (const uint32_t count : {0U, 1U, 3U, most_results}) {
        now("results with %u entries", count);
        Sample sample(count);
        if (!sample.write_all())
            return not_written();
        // What a service sends are the bytes that were written.
        const GuardedBlock sent(sample.written);
        unsigned char *const body = sent.last(sample.written);
        std::memcpy(body, sample.body, sample.written);
        int32_t status = 0;
        zel_stat_results_t *const read = convert(body, status);
        if (status != 0 || read == nullptr)
            return broken("%s: found status %d and %s, expected 0 and a block", progress->doing, status,
                          read == nullptr ? "null" : "a block");
        if (!is_equal(*read, sample))
            return broken("%s: came back different", progress->doing);
        std::free(read);
    }
    return kept("results with 0 to %u entries came back in one block", most_results);
}

Outcome check_converter_size()
{
    for (const uint32_t count : {0U, 1U, most_results}) {
        now("results with %u entries", count);
        Sample sample(count);
        if (!sample.write_all())
            return broken("%s do not fit in 4 bytes and what tlvu_table_size() says, %u", progress->doing,
                          sample.elements_size);
        if (sample.written > overhead + sample.elements_size)
            return broken("%s: found %u bytes written, expected at most %u", progress->doing, sample.written,
                          overhead + sample.elements_size);
        int32_t size = 0;
        const int32_t status = tlvu_table_get_struct_size_from_tlv(&size, sample.body, 0, table);
        if (status != 0 || static_cast<std::size_t>(size) != size_for(count))
            return broken("%s: found a block of %d bytes, expected %zu", progress->doing, size, size_for(count));
    }
    return kept("both sizes fit exactly");
}

Outcome check_converter_room()
{
    Sample sample(3);
    for (uint32_t capacity = overhead; capacity < overhead + sample.elements_size; ++capacity) {
        now("elements for %u bytes in a buffer of %u", overhead + sample.elements_size, capacity);
        if (sample.write(capacity) == 0)
            return broken("%s: found 0, expected another status", progress->doing);
    }
    if (!sample.write_all())
        return not_written();
    const GuardedBlock block(1024);
    for (const std::size_t room : {size_for(3), size_for(3) - 1, sizeof(zel_stat_results_t)}) {
        now("a record for %zu bytes in %zu of the caller's", size_for(3), room);
        void *record = block.last(room);
        const int32_t status = tlvu_table_convert_tlv_to_struct(&record, sample.body, room, table, 1);
        if ((status == 0) != (room == size_for(3)))
            return broken("%s: found status %d", progress->doing, status);
        if (status == 0 && !is_equal(*static_cast<zel_stat_results_t *>(record), sample))
            return broken("%s: came back different", progress->doing);
    }
    return kept("what has no room is refused, in both directions");
}

Outcome check_converter_failure()
{
    Sample sample(2);
    if (!sample.write_all())
        return not_written();
    int32_t status = 0;
    uint32_t failures = 0;
    for (const bool is_exhausted : {false, true}) {
        if (is_exhausted && !heap_is_watched())
            break;
        for (uint32_t i = overhead; i < sample.written; ++i) {
            now("byte %u of %u changed%s", i, sample.written, is_exhausted ? ", without memory" : "");
            const unsigned char before = sample.body[i];
            const int32_t live = live_blocks();
            sample.body[i] ^= 0x81;
            exhaust_heap(is_exhausted);
            zel_stat_results_t *const read = convert(sample.body, status);
            exhaust_heap(false);
            sample.body[i] = before;
            if ((status == 0) != (read != nullptr))
                return broken("%s: found status %d and %s", progress->doing, status,
                              read != nullptr ? "a pointer" : "null");
            if (is_exhausted && status == 0)
                return broken("%s: found status 0, expected another", progress->doing);
            failures += status != 0 ? 1 : 0;
            std::free(read);
            if (live_blocks() != live)
                return broken("%s: found %d blocks left, expected 0", progress->doing, live_blocks() - live);
        }
    }
    return kept("the slot was null after each of %u failures", failures);
}

Outcome check_converter_damaged()
{
    constexpr unsigned char changes[] = {0x01, 0x02, 0x10, 0x80, 0xff};
    Sample sample(2);
    if (!sample.write_all())
        return not_written();
    uint32_t understood = 0;
    for (uint32_t i = overhead; i < sample.written; ++i) {
        for (const unsigned char change : changes) {
            now("byte %u of %u changed by 0x%02x", i, sample.written, change);
            sample.body[i] ^= change;
            int32_t status = 0;
            int32_t size = 0;
            zel_stat_results_t *const read = convert(sample.body, status);
            const bool is_measured = tlvu_table_get_struct_size_from_tlv(&size, sample.body, 0, table) == 0;
            sample.body[i] ^= change;
            if (status != 0)
                continue;
            if (!is_measured || read == nullptr || static_cast<std::size_t>(size) < size_for(read->num_entries))
                return broken("%s: the record says %u entries, and the block has %d bytes", progress->doing,
                              read != nullptr ? read->num_entries : 0, size);
            std::free(read);
            ++understood;
        }
    }
    return kept("%zu changed bytes: no step outside, and %u were understood otherwise",
                (sample.written - overhead) * std::size(changes), understood);
}

Outcome check_converter_field()
{
    const Outcome found = for_each_field([](const void *described, const zel_table_row_t &row, const void *body,
                                            uint32_t size, const unsigned char *record) {
        unsigned char value[sizeof(zel_stat_result_entry_t) + 1];
        std::memset(value, 0xee, sizeof value);
        now("field %u", row.element);
        if (tlvu_get_field(body, size, row.element, value, row.size - 1, described) == 0)
            return broken("%s of %u bytes: found 0 for room of %u", progress->doing, row.size, row.size - 1);
        if (value[row.size - 1] != 0xee)
            return broken("%s: was written beyond the room given", progress->doing);
        const int32_t status = tlvu_get_field(body, size, row.element, value, row.size, described);
        if (status != 0 || std::memcmp(value, record + row.offset, row.size) != 0 || value[row.size] != 0xee)
            return broken("%s: found status %d and another value, expected 0 and the record's", progress->doing,
                          status);
        if (tlvu_get_field(body, size, 9999, value, sizeof value, described) == 0)
            return broken("a field that no table has: found 0, expected another status");
        return kept("");
    });
    return found.state == State::broken ? found : kept("6 fields read one by one");
}

Outcome check_converter_iteration()
{
    // The records of an iteration are the port's; a caller takes them from its headers.
    alignas(16) static unsigned char state[512];
    alignas(16) static unsigned char field[512];
    const Outcome found = for_each_field([](const void *described, const zel_table_row_t &row, const void *body,
                                            uint32_t size, const unsigned char *) {
        const uint32_t num_fields = described == &zel_stats_tbl ? 2 : 4;
        for (const uint32_t element : {0U, row.element}) {
            now("an iteration over %s %u", element == 0 ? "all fields, element" : "element", element);
            if (tlvu_field_itr_init(state, body, size, described, 0, static_cast<uint16_t>(element)) != 0)
                return broken("%s: cannot be started", progress->doing);
            uint32_t steps = 0;
            while (steps < 10 && tlvu_field_itr_get_next(state, field) == 0)
                ++steps;
            if (steps != (element == 0 ? num_fields : 1))
                return broken("%s: found %u steps, expected %u", progress->doing, steps, element == 0 ? num_fields : 1);
        }
        return kept("");
    });
    return found.state == State::broken ? found : kept("each field was reached once, or the one asked for");
}

} // namespace zel::conformance
