// The converter with the library's own tables: both ways, and every damaged body
// refused without a step outside it.
#include "platform/reference/tlv_check.h"
#include "platform/reference/tlv_field.h"
#include "platform/tlv_array.h"
#include "platform/tlv_converter.h"
#include "zel.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace {

using Body = std::vector<unsigned char>;

struct Results {
    explicit Results(uint32_t count) : entries(count)
    {
        record.tag = 9;
        record.num_entries = count;
        record.entries = entries.data();
        for (uint32_t i = 0; i < count; ++i) {
            entries[i].tag = static_cast<uint8_t>(i);
            entries[i].key = 1000 + i;
            entries[i].ids[4] = static_cast<uint16_t>(10 * i);
            entries[i].stats[2] = {uint64_t{i} << 40 | 1, ~uint64_t{i}};
        }
    }

    Body encode() const
    {
        Body body(TLV_ARRAY_OVERHEAD + zel_stat_results_get_tlv_sz(&record));
        uint32_t written = 0;
        EXPECT_EQ(zel_stat_results_to_tlv(&record, body.data(), body.size(), &written, 0, 0), TLVU_OK);
        EXPECT_EQ(written, body.size());
        return body;
    }

    zel_stat_results_t record{};
    std::vector<zel_stat_result_entry_t> entries;
};

struct Free {
    void operator()(void *block) const { std::free(block); }
};
using Block = std::unique_ptr<zel_stat_results_t, Free>;

int32_t decode(const Body &body, Block &block, uint32_t size = 0)
{
    void *record = &block; // not null, so that a slot left as it was is seen
    const int32_t code = tlvu_table_convert_tlv_to_struct(&record, body.data(), size, &zel_stat_results_tbl, 0);
    block.reset(static_cast<zel_stat_results_t *>(record));
    EXPECT_EQ(code == TLVU_OK, block != nullptr);
    return code;
}

void append(Body &body, uint16_t element, const Body &value)
{
    body.resize(std::max<std::size_t>(body.size(), TLV_ARRAY_OVERHEAD) +
                tlv_size_get(static_cast<uint32_t>(value.size())));
    ASSERT_EQ(tlv_array_add_tlv(body.data(), static_cast<uint32_t>(body.size()), element,
                                static_cast<uint16_t>(value.size()), value.data(), 0),
              TLV_OK);
}

TEST(Converter, RecordsComeBackInOneBlock)
{
    for (const uint32_t count : {0U, 1U, 3U, 1000U}) {
        const Results results(count);
        const Body body = results.encode();
        Block block;
        ASSERT_EQ(decode(body, block), TLVU_OK);
        EXPECT_EQ(block->tag, 9);
        ASSERT_EQ(block->num_entries, count);
        EXPECT_EQ(static_cast<void *>(block->entries), count != 0 ? static_cast<void *>(block.get() + 1) : nullptr);
        EXPECT_EQ(zel_stat_results_get_struct_sz(body.data()),
                  static_cast<int32_t>(sizeof(zel_stat_results_t) + count * sizeof(zel_stat_result_entry_t)));
        for (uint32_t i = 0; i < count; ++i) {
            const zel_stat_result_entry_t &entry = block->entries[i];
            EXPECT_EQ(entry.tag, results.entries[i].tag);
            EXPECT_EQ(entry.key, results.entries[i].key);
            EXPECT_EQ(entry.ids[4], results.entries[i].ids[4]);
            EXPECT_EQ(uint64_t{entry.stats[2].counter2}, ~uint64_t{i}); // not aligned
        }
    }
}

// A body that ends early, whatever its lengths still claim.
TEST(Converter, TruncationAtEveryByteIsRefused)
{
    const Body whole = Results(3).encode();
    for (uint32_t size = 0; size < whole.size(); ++size) {
        const Body cut(whole.data(), whole.data() + size);
        Body value(64);
        EXPECT_EQ(tlvu_get_field(cut.data(), std::max(size, 1U), 154, value.data(), 1, &zel_stat_results_tbl),
                  cut.empty() ? TLVU_ARGUMENT : TLVU_DAMAGED)
            << size;
        if (size < TLV_ARRAY_OVERHEAD)
            continue;
        Body shorter = cut; // the same bytes, with a length that is honest
        const uint32_t used = size - TLV_ARRAY_OVERHEAD;
        std::memcpy(shorter.data(), &used, sizeof used);
        Block block;
        const int32_t code = decode(shorter, block);
        if (used == 0 || used == 5) {
            EXPECT_EQ(code, TLVU_OK) << "no count, no records: " << size;
        } else {
            EXPECT_TRUE(code == TLVU_DAMAGED || code == TLVU_COUNT) << size;
        }
    }
}

TEST(Converter, CountMustAgreeWithTheRecords)
{
    for (const uint32_t claimed : {0U, 1U, 3U, 0x7fffffffU, 0xffffffffU}) {
        Body body = Results(2).encode();
        std::memcpy(body.data() + TLV_ARRAY_OVERHEAD + 5 + TLV_ELEMENT_OVERHEAD, &claimed, sizeof claimed);
        Block block;
        EXPECT_EQ(decode(body, block), TLVU_COUNT) << claimed;
    }
}

TEST(Converter, NewerAndOlderPeersAreUnderstood)
{
    Body body;
    append(body, 999, {1, 2, 3}); // unknown
    append(body, 154, {7, 8, 9}); // longer
    append(body, 155, {1});       // shorter
    Body entry;
    append(entry, 151, {1, 0});
    append(entry, 998, {});
    append(body, 156, entry);
    Block block;
    ASSERT_EQ(decode(body, block), TLVU_OK);
    EXPECT_EQ(block->tag, 7);
    ASSERT_EQ(block->num_entries, 1U);
    EXPECT_EQ(block->entries[0].key, 1U);
    EXPECT_EQ(block->entries[0].ids[4], 0U);

    Body order; // the records before their number
    append(order, 156, entry);
    append(order, 155, {1, 0, 0, 0});
    EXPECT_EQ(decode(order, block), TLVU_OK);

    Body hollow; // a record without room for its array, and one that claims more
    append(hollow, 156, {0, 0, 0});
    EXPECT_EQ(decode(hollow, block), TLVU_DAMAGED);
    Body boasting;
    append(boasting, 156, {1, 0, 0, 0});
    EXPECT_EQ(decode(boasting, block), TLVU_DAMAGED);
}

TEST(Converter, CallersBlockIsNeverExceeded)
{
    const Body body = Results(2).encode();
    const auto needed = static_cast<uint32_t>(sizeof(zel_stat_results_t) + 2 * sizeof(zel_stat_result_entry_t));
    for (const uint32_t size : {needed, needed - 1, 0U}) {
        std::vector<unsigned char> room(std::max(size, 1U), 0xee);
        void *record = room.data();
        const int32_t code = tlvu_table_convert_tlv_to_struct(&record, body.data(), size, &zel_stat_results_tbl, 1);
        EXPECT_EQ(code, size == needed ? TLVU_OK : TLVU_NO_ROOM);
        EXPECT_EQ(record, room.data());
        EXPECT_EQ(room[0], code == TLVU_OK ? 9 : 0xee);
    }
}

TEST(Converter, WritesAllOrNothing)
{
    const Results results(2);
    const auto size = static_cast<uint32_t>(results.encode().size());
    for (uint32_t capacity = 0; capacity < size; ++capacity) {
        Body body(capacity);
        EXPECT_EQ(tlvu_table_convert_struct_to_tlv(body.data(), capacity, &zel_stat_results_tbl, &results.record,
                                                   nullptr, 0, 0),
                  capacity == 0 ? TLVU_ARGUMENT : TLVU_NO_ROOM)
            << capacity;
        if (capacity >= TLV_ARRAY_OVERHEAD) {
            EXPECT_EQ(tlv_array_get_num_tlvs(body.data(), 0), 0U) << capacity;
        }
    }
    zel_stat_results_t dangling = results.record;
    dangling.entries = nullptr;
    Body body(size);
    EXPECT_EQ(tlvu_table_convert_struct_to_tlv(body.data(), size, &zel_stat_results_tbl, &dangling, nullptr, 0, 0),
              TLVU_COUNT);
}

std::vector<uint16_t> iterate(const Body &body, uint16_t element)
{
    tlvu_itr_t itr;
    tlvu_field_t field;
    std::vector<uint16_t> reached;
    EXPECT_EQ(zel_stat_results_field_itr_init(&itr, body.data(), body.size(), 0, element), TLVU_OK);
    int32_t code = TLVU_OK;
    while ((code = zel_stat_results_field_get_next(&itr, &field)) == TLVU_OK) {
        reached.push_back(field.element);
        EXPECT_EQ(field.size, field.element == 154 ? 1U : field.element == 155 ? 4U : sizeof(zel_stat_result_entry_t));
    }
    EXPECT_EQ(code, TLVU_END);
    return reached;
}

TEST(Converter, FieldsAreReadOneByOne)
{
    Body body = Results(2).encode();
    append(body, 999, {1});
    const Body empty(TLV_ARRAY_OVERHEAD);
    uint32_t number = 0;
    EXPECT_EQ(zel_stat_results_get_field(body.data(), body.size(), 155, &number, sizeof number), TLVU_OK);
    EXPECT_EQ(number, 2U);
    EXPECT_EQ(zel_stat_results_get_field(body.data(), body.size(), 155, &number, 3), TLVU_NO_ROOM);
    EXPECT_EQ(zel_stat_results_get_field(body.data(), body.size(), 156, &number, sizeof number), TLVU_UNKNOWN);
    EXPECT_EQ(zel_stat_results_get_field(empty.data(), 0, 155, &number, sizeof number), TLVU_ABSENT);
    EXPECT_EQ(iterate(body, 0), (std::vector<uint16_t>{154, 155, 156, 156}));
    EXPECT_EQ(iterate(body, 156), (std::vector<uint16_t>{156, 156}));
    tlvu_itr_t itr;
    EXPECT_EQ(zel_stat_results_field_itr_init(&itr, body.data(), body.size() - 1, 0, 0), TLVU_DAMAGED);
}

TEST(Converter, EveryByteMayLie)
{
    const Body whole = Results(2).encode();
    for (std::size_t at = TLV_ARRAY_OVERHEAD; at < whole.size(); ++at) {
        for (const int bit : {1, 2, 0x10, 0x80}) {
            Body body = whole;
            body[at] = static_cast<unsigned char>(body[at] ^ bit);
            Block block;
            if (decode(body, block) == TLVU_OK && block->num_entries != 0) {
                // The block reaches as far as its count says; a sanitizer knows.
                EXPECT_EQ(iterate(body, 156).size(), block->num_entries);
                Body last(sizeof(zel_stat_result_entry_t));
                std::memcpy(last.data(), &block->entries[block->num_entries - 1], last.size());
            }
        }
    }
}

} // namespace
