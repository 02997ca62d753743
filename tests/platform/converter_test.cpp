// The converter with the library's own tables: both ways, and every damaged body
// refused without a step outside it.
#include "bytes.hpp"
#include "zel-platform/tlv_field.h"
#include "zel.h"
#include "zel/platform/tlv_converter.h"

namespace {

using Entry = zel_stat_result_entry_t;
using Block = std::shared_ptr<zel_stat_results_t>;
const void *const results_table = &zel_stat_results_tbl;

std::vector<Entry> some_entries(uint32_t count)
{
    std::vector<Entry> entries(count);
    for (uint32_t i = 0; i < count; ++i) {
        entries[i].key = 1000 + i;
        entries[i].ids[4] = static_cast<uint16_t>(10 * i);
        entries[i].stats[2] = {uint64_t{i} << 40 | 1, ~uint64_t{i}};
    }
    return entries;
}

Bytes encode(std::vector<Entry> entries)
{
    const zel_stat_results_t record{9, static_cast<uint32_t>(entries.size()), entries.data()};
    Bytes body(TLV_ARRAY_OVERHEAD + zel_stat_results_get_tlv_sz(&record));
    uint32_t written = 0;
    EXPECT_EQ(zel_stat_results_to_tlv(&record, body.data(), body.size(), &written, 0, 0), TLVU_OK);
    EXPECT_EQ(written, body.size());
    return body;
}

int32_t decode(const Bytes &body, Block &block)
{
    void *record = &block; // not null, so that a slot left as it was is seen
    const int32_t code = tlvu_table_convert_tlv_to_struct(&record, body.data(), 0, results_table, 0);
    block.reset(static_cast<zel_stat_results_t *>(record), std::free);
    EXPECT_EQ(code == TLVU_OK, block != nullptr);
    return code;
}

TEST(Converter, RecordsComeBackInOneBlock)
{
    for (const uint32_t count : {0U, 1U, 3U, 1000U}) {
        const std::vector<Entry> entries = some_entries(count);
        const Bytes body = encode(entries);
        const std::size_t size = count * sizeof(Entry);
        Block block;
        ASSERT_EQ(decode(body, block), TLVU_OK);
        ASSERT_TRUE(block->tag == 9 && block->num_entries == count);
        EXPECT_EQ(static_cast<void *>(block->entries), count != 0 ? static_cast<void *>(block.get() + 1) : nullptr);
        EXPECT_TRUE(count == 0 || std::memcmp(block->entries, entries.data(), size) == 0);
        const std::size_t needed = sizeof *block + size;
        EXPECT_EQ(zel_stat_results_get_struct_sz(body.data()), static_cast<int32_t>(needed));
        for (const std::size_t room : {needed, needed - 1}) { // the caller's
            Bytes bytes(room, 0xee);
            void *record = bytes.data();
            EXPECT_EQ(tlvu_table_convert_tlv_to_struct(&record, body.data(), room, results_table, 1),
                      room == needed ? TLVU_OK : TLVU_NO_ROOM);
            EXPECT_EQ(bytes[0], room == needed ? 9 : 0xee);
        }
    }
}

// A body that ends early, with a correct length.
TEST(Converter, TruncationAtEveryByteIsRefused)
{
    const Bytes whole = encode(some_entries(3));
    for (uint32_t used = 0; used < whole.size() - TLV_ARRAY_OVERHEAD; ++used) {
        Bytes cut(whole.data(), whole.data() + TLV_ARRAY_OVERHEAD + used);
        std::memcpy(cut.data(), &used, sizeof used);
        Block block;
        const int32_t code = decode(cut, block);
        const bool has_no_count = used == 0 || used == 5; // and no records
        EXPECT_TRUE(has_no_count ? code == TLVU_OK : code == TLVU_DAMAGED || code == TLVU_COUNT) << used;
    }
}

TEST(Converter, OtherElementsAreUnderstoodAndOtherCountsRefused)
{
    const Bytes entry = array_with({{151, {1, 0}}, {998, {}}});
    // The records before their number, one field longer, one shorter, one unknown.
    Block block;
    ASSERT_EQ(decode(array_with({{156, entry}, {999, {1, 2, 3}}, {154, {7, 8, 9}}, {155, {1}}}), block), TLVU_OK);
    ASSERT_TRUE(block->tag == 7 && block->num_entries == 1);
    EXPECT_TRUE(block->entries[0].key == 1 && block->entries[0].ids[4] == 0);
    for (const Bytes &damaged : {Bytes{0, 0, 0}, Bytes{1, 0, 0, 0}}) // no room for an array, one that claims more
        EXPECT_EQ(decode(array_with({{156, damaged}}), block), TLVU_DAMAGED);
    for (const Bytes &count : {Bytes{}, Bytes{1}, Bytes{3}, Bytes{2, 0, 0, 0x7f}, Bytes{2, 0, 0, 0x80}, Bytes(4, 0xff)})
        EXPECT_EQ(decode(array_with({{155, count}, {156, entry}, {156, entry}}), block), TLVU_COUNT);
}

// One byte outside a field would be seen in the field's surroundings.
TEST(Converter, LongValuesStayWithinTheirFields)
{
    const std::pair<const void *, const zel_table_row_t *> tables[] = {
        {&zel_stats_tbl, zel_stats_tbl.rows},
        {&zel_stat_result_entry_tbl, zel_stat_result_entry_tbl.rows},
        {&zel_stat_results_tbl, zel_stat_results_tbl.rows},
    };
    for (const auto &[described, rows] : tables) {
        for (const auto *row = rows; row->element != ZEL_FIELD_NONE; ++row) {
            if (row->kind == ZEL_FIELD_RECORD_ARRAY)
                continue;
            SCOPED_TRACE(row->element);
            Bytes value(row->size + 100, 0xff);
            std::fill_n(value.begin(), row->size, static_cast<unsigned char>(row->element == 155 ? 0 : 1));
            const Bytes body = array_with({{static_cast<uint16_t>(row->element), value}});
            int32_t size = 0;
            ASSERT_EQ(tlvu_table_get_struct_size_from_tlv(&size, body.data(), 0, described), TLVU_OK);
            Bytes bytes(static_cast<std::size_t>(size) + 200, 0xee);
            Bytes expected = bytes;
            std::fill_n(expected.begin(), size, static_cast<unsigned char>(0));
            std::copy_n(value.begin(), row->size, expected.begin() + static_cast<std::ptrdiff_t>(row->offset));
            void *record = bytes.data();
            ASSERT_EQ(tlvu_table_convert_tlv_to_struct(&record, body.data(), bytes.size(), described, 1), TLVU_OK);
            EXPECT_EQ(bytes, expected);

            Bytes field(row->size + 200, 0xee);
            Bytes expected_field = field;
            std::copy_n(value.begin(), row->size, expected_field.begin());
            ASSERT_EQ(tlvu_get_field(body.data(), 0, row->element, field.data(), row->size, described), TLVU_OK);
            EXPECT_EQ(field, expected_field);
        }
    }
}

TEST(Converter, MissingPointersAreNamed)
{
    const Bytes body = encode({});
    void *record = nullptr;
    EXPECT_EQ(tlvu_table_convert_tlv_to_struct(&record, body.data(), 1000, results_table, 1), TLVU_ARGUMENT);
    for (const uintptr_t caller_owned : {0U, 1U})
        EXPECT_EQ(tlvu_table_convert_tlv_to_struct(&record, nullptr, 1000, results_table, caller_owned), TLVU_ARGUMENT);
    EXPECT_EQ(tlvu_field_itr_init(&record, nullptr, 0, results_table, 0, 0), TLVU_ARGUMENT);
}

TEST(Converter, WritesAllOrNothing)
{
    std::vector<Entry> entries = some_entries(2);
    const std::size_t size = encode(entries).size();
    zel_stat_results_t record{9, 2, entries.data()};
    Bytes body;
    const auto write = [&] {
        return tlvu_table_convert_struct_to_tlv(body.data(), body.size(), results_table, &record, nullptr, 0, 0);
    };
    EXPECT_EQ(write(), TLVU_ARGUMENT);
    for (body.resize(1); body.size() < size; body.push_back(0)) {
        EXPECT_EQ(write(), TLVU_NO_ROOM) << body.size();
        EXPECT_TRUE(body.size() < TLV_ARRAY_OVERHEAD || tlv_array_get_num_tlvs(body.data(), 0) == 0) << body.size();
    }
    record.entries = nullptr;
    EXPECT_EQ(write(), TLVU_COUNT);
}

std::vector<uint16_t> iterate(const Bytes &body, uint16_t element)
{
    tlvu_itr_t itr;
    tlvu_field_t field;
    std::vector<uint16_t> reached;
    EXPECT_EQ(tlvu_field_itr_init(&itr, body.data(), body.size() - 1, results_table, 0, element), TLVU_DAMAGED);
    EXPECT_EQ(zel_stat_results_field_itr_init(&itr, body.data(), body.size(), 0, element), TLVU_OK);
    int32_t code = TLVU_OK;
    while ((code = zel_stat_results_field_get_next(&itr, &field)) == TLVU_OK) {
        reached.push_back(field.element);
        EXPECT_EQ(field.size, field.element == 154 ? 1U : field.element == 155 ? 4U : sizeof(Entry));
    }
    EXPECT_EQ(code, TLVU_END);
    return reached;
}

TEST(Converter, FieldsAreReadOneByOne)
{
    const Bytes empty = array_with({});
    const Bytes body = array_with({{154, {9}}, {155, {1}}, {156, empty}, {999, {1}}, {156, empty}, {155, {2, 0, 3}}});
    uint32_t number = 0xffffffff;
    const auto get = [&](uint16_t element, std::size_t room, const Bytes &from) {
        return zel_stat_results_get_field(from.data(), from.size(), element, &number, room);
    };
    EXPECT_EQ(get(155, 4, body), TLVU_OK);
    EXPECT_EQ(number, 0x30002U) << "the last one counts";
    EXPECT_EQ(get(155, 3, body), TLVU_NO_ROOM);
    EXPECT_EQ(get(156, 4, body), TLVU_UNKNOWN);
    EXPECT_EQ(get(155, 4, empty), TLVU_ABSENT);
    EXPECT_EQ(get(155, 4, Bytes(body.begin(), body.end() - 1)), TLVU_DAMAGED);
    EXPECT_EQ(iterate(body, 0), (std::vector<uint16_t>{154, 155, 156, 156, 155}));
    EXPECT_EQ(iterate(body, 156), (std::vector<uint16_t>{156, 156}));
}

TEST(Converter, EveryByteMayLie)
{
    const Bytes whole = encode(some_entries(2));
    for (std::size_t i = 0; i < 4 * (whole.size() - TLV_ARRAY_OVERHEAD); ++i) {
        Bytes body = whole;
        body[TLV_ARRAY_OVERHEAD + i / 4] ^= Bytes{1, 2, 0x10, 0x80}[i % 4];
        Block block;
        if (decode(body, block) != TLVU_OK || block->num_entries == 0)
            continue;
        // The block reaches as far as its count says; a sanitizer knows.
        EXPECT_EQ(iterate(body, 156).size(), block->num_entries);
        Bytes last(sizeof(Entry));
        std::memcpy(last.data(), &block->entries[block->num_entries - 1], last.size());
    }
}

} // namespace
