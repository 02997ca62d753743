// Whatever body a response has: its statistics come as one block within bounds of
// memory or not at all, and the accessors agree with each other about it.
#include "bounds.hpp"
#include "elements.hpp"
#include "heap.hpp"
#include "received.hpp"
#include "target.hpp"

#include "zel-platform/tlv_field.h"
#include "zel/platform/tlv_array.h"

#include <iterator>
#include <vector>

using namespace fuzz;
using zel::platform::FrameKind;

// What the accessors print about failures is counted instead.
static int printed = 0;
extern "C" void __wrap_tlvu_error_print(const char *, ...) { ++printed; }

namespace {

// ---- The accessors of one table, whose names C++ cannot make

template <class R> struct Accessors {
    int32_t (*get_next)(void *, void *);
    int32_t (*itr_init)(void *, const void *, uintptr_t, uintptr_t, uint16_t);
    int32_t (*get_field)(const void *, uintptr_t, uintptr_t, void *, uintptr_t);
    int32_t (*get_struct_sz)(const void *);
    uint32_t (*get_tlv_sz)(const R *);
    int32_t (*to_tlv)(const R *, void *, uintptr_t, void *, uintptr_t, uintptr_t);
    int32_t (*to_struct)(void *, const void *, uintptr_t, uintptr_t);
    std::vector<zel_table_row_t> rows;
};

template <class Table> std::vector<zel_table_row_t> rows_of(const Table &table)
{
    return {std::begin(table.rows), std::prev(std::end(table.rows))};
}

#define ACCESSORS(name)                                                                                                \
    Accessors<name##_t>                                                                                                \
    {                                                                                                                  \
        name##_field_get_next, name##_field_itr_init, name##_get_field, name##_get_struct_sz, name##_get_tlv_sz,       \
            name##_to_tlv, name##_to_struct, rows_of(name##_tbl)                                                       \
    }

// ---- What has to hold of them

// Fields lie within the body, and there are no more than elements.
template <class R> void check_iteration(const Accessors<R> &accessors, const char *body, uint32_t size, uint16_t id)
{
    tlvu_itr_t itr{};
    if (accessors.itr_init(&itr, body, size, 0, id) != TLVU_OK)
        return;
    uint32_t left = tlv_array_get_num_tlvs(body, 0);
    for (tlvu_field_t field{}; accessors.get_next(&itr, &field) == TLVU_OK; --left) {
        REQUIRE(left != 0);
        REQUIRE(id == 0 || field.element == id);
        const auto *const value = static_cast<const char *>(field.value);
        REQUIRE(value >= body && field.length <= body + size - value);
    }
}

template <class R> void check_field(const Accessors<R> &accessors, const char *body, uint32_t size, uint32_t id)
{
    for (const zel_table_row_t &row : accessors.rows) {
        const std::unique_ptr<char[]> room(new char[row.size]);
        const int32_t code = accessors.get_field(body, size, row.element, room.get(), row.size);
        REQUIRE(row.kind != ZEL_FIELD_RECORD_ARRAY || code != TLVU_OK);
        REQUIRE(accessors.get_field(body, size, row.element, room.get(), row.size - 1) != TLVU_OK);
    }
    REQUIRE(accessors.get_field(body, size, id, nullptr, 0) != TLVU_OK);
}

void compare(const zel_stats_t &a, const zel_stats_t &b) { REQUIRE(std::memcmp(&a, &b, sizeof a) == 0); }

void compare(const zel_stat_result_entry_t &a, const zel_stat_result_entry_t &b)
{
    REQUIRE(std::memcmp(&a, &b, sizeof a) == 0);
}

void compare(const zel_stat_results_t &a, const zel_stat_results_t &b)
{
    REQUIRE(a.tag == b.tag && a.num_entries == b.num_entries);
    for (uint32_t i = 0; i < a.num_entries; ++i)
        compare(a.entries[i], b.entries[i]);
}

// A record that is written and read again is the same.
template <class R> void check_round_trip(const Accessors<R> &accessors, const R &record)
{
    const uint32_t size = accessors.get_tlv_sz(&record) + TLV_ARRAY_OVERHEAD;
    const std::unique_ptr<char[]> bytes(new char[size]());
    uint32_t written = 0;
    REQUIRE(accessors.to_tlv(&record, bytes.get(), size - 1, &written, 0, 0) == TLVU_NO_ROOM);
    REQUIRE(accessors.to_tlv(&record, bytes.get(), size, &written, 0, 0) == TLVU_OK);
    REQUIRE(written == size);
    R *again = nullptr;
    REQUIRE(accessors.to_struct(&again, bytes.get(), 0, 0) == TLVU_OK);
    compare(record, *again);
    std::free(again);
}

template <class R> void check_accessors(const Accessors<R> &accessors, const char *body, uint32_t size)
{
    check_iteration(accessors, body, size, 0);
    check_iteration(accessors, body, size, static_cast<uint16_t>(accessors.rows.back().element));
    check_field(accessors, body, size, size);

    printed = 0;
    const int32_t block_size = accessors.get_struct_sz(body);
    REQUIRE(printed == (block_size < 0 ? 1 : 0));
    R *block = nullptr;
    const int32_t code = accessors.to_struct(&block, body, 0, 0);
    REQUIRE((code == TLVU_OK) == (block != nullptr));
    REQUIRE(block_size >= 0 || code != TLVU_OK);
    if (block_size >= 0) {
        const std::unique_ptr<char[]> room(new char[static_cast<uint32_t>(block_size)]);
        void *own = room.get();
        REQUIRE(accessors.to_struct(&own, body, static_cast<uint32_t>(block_size), 1) == code);
        REQUIRE(accessors.to_struct(&own, body, static_cast<uint32_t>(block_size) - 1, 1) == TLVU_NO_ROOM);
    }
    if (block != nullptr)
        check_round_trip(accessors, *block);
    std::free(block);
}

void check_results(Received &received, std::size_t size)
{
    const Heap heap(statistics_bound(size));
    zel_stat_results_t *const results = zel_parse_stats(received.msg());
    if (results != nullptr) {
        REQUIRE(zel_stat_results_get_num_entries(results) >= 0);
        REQUIRE(heap.live_bytes() == sizeof *results + results->num_entries * sizeof *results->entries);
        REQUIRE(results->num_entries == 0 || static_cast<void *>(results->entries) == results + 1);
    }
    zel_free_stat_results(results);
    REQUIRE(heap.live_bytes() == 0);
}

} // namespace

// ---- The elements, from the tables

const std::size_t fuzz::array_offset = ZEL_RESP_HDR_SIZE;

const std::vector<ElementFacts> &fuzz::known_elements()
{
    using Role = ElementFacts::Role;
    static const auto elements = [] {
        std::vector<ElementFacts> all;
        const auto add = [&all](const auto &table) {
            for (const zel_table_row_t &row : rows_of(table)) {
                const bool is_record = row.kind == ZEL_FIELD_RECORD_ARRAY;
                all.push_back({static_cast<uint16_t>(row.element), is_record ? Role::record : Role::value,
                               is_record ? 0 : row.size, 0});
            }
        };
        add(zel_stats_tbl);
        add(zel_stat_result_entry_tbl);
        add(zel_stat_results_tbl);
        return all;
    }();
    return elements;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    Received received(FrameKind::response, data, size);
    if (!received.is_delivered() || size <= array_offset)
        return 0;
    check_results(received, size);
    static const auto stats = ACCESSORS(zel_stats);
    static const auto entry = ACCESSORS(zel_stat_result_entry);
    static const auto results = ACCESSORS(zel_stat_results);
    const char *const body = received.payload() + array_offset;
    const auto body_size = static_cast<uint32_t>(size - array_offset);
    const Heap heap;
    check_accessors(stats, body, body_size);
    check_accessors(entry, body, body_size);
    check_accessors(results, body, body_size);
    REQUIRE(heap.live_bytes() == 0);
    return 0;
}
