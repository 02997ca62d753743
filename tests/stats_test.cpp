// Statistics: the tables word by word, the accessors' arguments, and parsed results.
#include "support/recording_platform.hpp"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

using namespace test;

namespace {

// A table as the words that it is made of; pointers take the room of one.
template <class Table> std::vector<uintptr_t> words(const Table &table)
{
    std::vector<uintptr_t> words;
    const auto *at = reinterpret_cast<const char *>(&table);
    const auto take = [&](size_t count, size_t width) {
        for (; count > 0; --count, at += width) {
            uintptr_t word = 0;
            memcpy(&word, at, width);
            words.push_back(word);
        }
    };
    take(1, 4), take(1, sizeof(void *)), take(2, 4);
    for (size_t rows = 0; rows < std::size(table.rows); ++rows)
        take(7, 4), take(1, sizeof(void *)), take(3, 4), take(1, sizeof(void *));
    EXPECT_EQ(at, reinterpret_cast<const char *>(&table + 1));
    return words;
}

uintptr_t word(const void *pointer) { return reinterpret_cast<uintptr_t>(pointer); }

constexpr uintptr_t none = 0xffffffff;
const std::vector<uintptr_t> last_row = {none, none, none, 0, 0, 0, 0, 0, none, none, none, 0};

std::vector<uintptr_t> joined(std::initializer_list<std::vector<uintptr_t>> rows)
{
    std::vector<uintptr_t> all;
    for (const auto &row : rows)
        all.insert(all.end(), row.begin(), row.end());
    return all;
}

} // namespace

TEST(Statistics, Tables)
{
    EXPECT_EQ(words(zel_stats_tbl), joined({{16, word(zel_stats_tbl.header.type_name), 0, 0},
                                            {148, 8, 0, 1, 0, 0, 0, 0, 0, 8, none, 0},
                                            {149, 8, 8, 1, 0, 0, 0, 0, 0, 8, none, 0},
                                            last_row}));
    EXPECT_EQ(words(zel_stat_result_entry_tbl), joined({{68, word(zel_stat_result_entry_tbl.header.type_name), 0, 0},
                                                        {150, 1, 0, 0, 0, 0, 0, 0, 0, 1, none, 0},
                                                        {151, 4, 4, 1, 0, 0, 0, 0, 0, 4, none, 0},
                                                        {152, 2, 8, 3, 0, 0, 0, 0, 0, 10, none, 0},
                                                        {153, 16, 20, 3, 0, 0, 0, 0, 0, 48, none, 0},
                                                        last_row}));
    const auto count = reinterpret_cast<uintptr_t>(zel_stat_results_get_num_entries);
    EXPECT_EQ(words(zel_stat_results_tbl),
              joined({{sizeof(zel_stat_results_t), word(zel_stat_results_tbl.header.type_name), 0, 0},
                      {154, 1, 0, 0, 0, 0, 0, 0, 0, 1, none, 0},
                      {155, 4, 4, 1, 0, 0, 0, 0, 0, 4, none, 0},
                      {156, 68, 8, 4, 0, 0, 0, count, 0, sizeof(void *), none, word(&zel_stat_result_entry_tbl)},
                      last_row}));
    EXPECT_STREQ(zel_stats_tbl.header.type_name, "zel_stats_t");
    EXPECT_STREQ(zel_stat_result_entry_tbl.header.type_name, "zel_stat_result_entry_t");
    EXPECT_STREQ(zel_stat_results_tbl.header.type_name, "zel_stat_results_t");
}

#define EXPECT_FORWARDED(...) EXPECT_EQ(platform.converter_arguments, (std::vector<uintptr_t>{__VA_ARGS__}))
#define TEST_ACCESSORS(record)                                                                                         \
    TEST(Statistics, AccessorsOf_##record)                                                                             \
    {                                                                                                                  \
        platform = {};                                                                                                 \
        const uintptr_t table = word(&record##_tbl);                                                                   \
        void *a = &platform;                                                                                           \
        void *b = &heap;                                                                                               \
        const auto *rec = static_cast<const record##_t *>(a);                                                          \
        EXPECT_EQ(record##_field_get_next(a, b), 0);                                                                   \
        EXPECT_FORWARDED(word(a), word(b));                                                                            \
        EXPECT_EQ(record##_field_itr_init(a, b, 3, 4, 65535), 0);                                                      \
        EXPECT_FORWARDED(word(a), word(b), 3, table, 4, 65535);                                                        \
        EXPECT_EQ(record##_get_field(a, 2, 3, b, UINTPTR_MAX), 0);                                                     \
        EXPECT_FORWARDED(word(a), 2, 3, word(b), UINTPTR_MAX, table);                                                  \
        EXPECT_EQ(record##_get_struct_sz(b), 77);                                                                      \
        EXPECT_FORWARDED(1, word(b), 0, table);                                                                        \
        EXPECT_EQ(record##_get_tlv_sz(rec), 0u);                                                                       \
        EXPECT_FORWARDED(table, word(a));                                                                              \
        EXPECT_EQ(record##_to_tlv(rec, b, 3, a, 5, 6), 0);                                                             \
        EXPECT_FORWARDED(word(b), 3, table, word(a), word(a), 5, 6);                                                   \
        EXPECT_EQ(record##_to_struct(a, b, 3, 4), 0);                                                                  \
        EXPECT_FORWARDED(word(a), word(b), 3, table, 4);                                                               \
        EXPECT_TRUE(platform.converter_errors.empty());                                                                \
        platform.converter_result = 0x2a;                                                                              \
        EXPECT_EQ(record##_get_struct_sz(b), -1);                                                                      \
        EXPECT_EQ(record##_to_tlv(rec, b, 3, a, 5, 6), 0x2a);                                                          \
        EXPECT_EQ(record##_to_struct(a, b, 3, 4), 0x2a);                                                               \
        EXPECT_EQ(record##_get_field(a, 2, 3, b, 5), 0x2a);                                                            \
        EXPECT_EQ(platform.converter_errors,                                                                           \
                  (Strings{#record "_get_struct_sz: ERR 0x2a\n", #record "_to_tlv: ERR 0x2a\n",                        \
                           #record "_to_struct: ERR 0x2a\n"}));                                                        \
    }
TEST_ACCESSORS(zel_stats)
TEST_ACCESSORS(zel_stat_result_entry)
TEST_ACCESSORS(zel_stat_results)

TEST(Statistics, ParsedResults)
{
    const struct {
        uint32_t status, error;
        bool parsed;
    } cases[] = {{10, 0, true}, {10, 5, true}, {1, 0, true}, {1, 5, false}, {0, 0, false}, {2, 0, false}};
    for (const auto &c : cases)
        for (const uint32_t entries : {0u, 3u}) {
            fresh_handle();
            Message message;
            message.payload.resize(ZEL_RESP_HDR_SIZE + 4);
            memcpy(message.payload.data(), &c.status, 4);
            memcpy(message.payload.data() + 4, &c.error, 4);
            auto *block = static_cast<zel_stat_results_t *>(
                calloc(1, sizeof(zel_stat_results_t) + entries * sizeof(zel_stat_result_entry_t)));
            block->num_entries = entries;
            platform.converted = block;
            zel_stat_results_t *results = zel_parse_stats(&message);
            ASSERT_EQ(results, c.parsed ? block : nullptr) << c.status;
            if (!c.parsed) {
                EXPECT_TRUE(platform.converter_arguments.empty());
                free(block);
                continue;
            }
            EXPECT_EQ(platform.converter_arguments[1], word(message.payload.data() + 268));
            EXPECT_EQ(platform.converter_arguments[2], 0u);
            EXPECT_EQ(platform.converter_arguments[4], 0u);
            EXPECT_EQ(word(results->entries), entries == 0 ? 0 : word(results + 1));
            EXPECT_EQ(zel_stat_results_get_num_entries(results), static_cast<int32_t>(entries));
            zel_free_stat_results(results);
            EXPECT_TRUE(heap.live.empty());
        }
    // The converter gave no block, or there is no payload at all.
    fresh_handle();
    Message message;
    message.payload.resize(ZEL_RESP_HDR_SIZE + 4);
    message.payload[0] = 10;
    EXPECT_EQ(zel_parse_stats(&message), nullptr);
    message.empty = true;
    EXPECT_EQ(zel_parse_stats(&message), nullptr);
    const int frees = heap.frees;
    zel_free_stat_results(nullptr);
    EXPECT_EQ(heap.frees, frees);
}
