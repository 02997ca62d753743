// The object cache, and the compression that it serves.
#include "support/recording_platform.hpp"

#include <gtest/gtest.h>

using namespace test;

TEST(Cache, OrderOfKeys)
{
    // Ascending; every pair is compared both ways.
    const zel_mat_cache_key_t keys[] = {{0, 7, 65535},  {0, 8, 1}, {0, 8, 65535},       {0, 9, 0},
                                        {0, 14, 65535}, {1, 0, 0}, {0x80000000u, 7, 0}, {0x80000000u, 0x80000000u, 0}};
    for (const auto &a : keys)
        for (const auto &b : keys)
            EXPECT_EQ(zel_mat_cache_comp_func(&a, &b), &a == &b ? 0u : &a > &b ? 1u : 2u);
}

TEST(Cache, StoreFindDeleteEmpty)
{
    auto handle = fresh_handle();
    int first = 0;
    int second = 0;
    zel_store_mat_cache(&handle, 1, 7, 5, &first);
    zel_store_mat_cache(&handle, 1, 8, 5, &second);
    zel_store_mat_cache(&handle, 1, 7, 5, &second);
    EXPECT_EQ(platform.reported("dbg"),
              (Strings{"insert successful: type: 7, id: 5.", "insert successful: type: 8, id: 5.",
                       "insert failed: type: 7, id: 5."}));
    ASSERT_NE(zel_found_mat_cache(&handle, 1, 7, 5), nullptr);
    EXPECT_EQ(zel_found_mat_cache(&handle, 1, 7, 5)->obj, &first);
    EXPECT_EQ(zel_found_mat_cache(&handle, 2, 7, 5), nullptr);
    EXPECT_EQ(heap.live.size(), 3u); // the refused entry is not freed

    EXPECT_EQ(zel_del_mat_cache_entry(&handle, zel_found_mat_cache(&handle, 1, 7, 5)), 0);
    EXPECT_EQ(platform.reported("dbg").back(), "delete mat_cache, type: 7, id: 5");
    EXPECT_EQ(zel_found_mat_cache(&handle, 1, 7, 5), nullptr);
    platform.reports.clear();
    EXPECT_EQ(zel_empty_mat_cache(&handle), 9);
    EXPECT_EQ(zel_empty_mat_cache(&handle), 9);
    EXPECT_TRUE(platform.reports.empty());
    EXPECT_EQ(platform.log, (Strings{"delete", "delete"}));
    ASSERT_EQ(heap.live.size(), 1u);
    std::free(const_cast<void *>(heap.live.begin()->first));

    heap.fail_calloc = 1;
    handle.debug = 1;
    zel_store_mat_cache(&handle, 1, 7, 5, &first);
    EXPECT_EQ(platform.log.back(),
              "log 648 7536640 1 0 102 zel_store_mat_cache(203)[tester]: cannot allocate mat cache new_entry");
    EXPECT_EQ(platform.reported("err"), Strings{"cannot allocate mat cache new_entry"});
}

TEST(Compression, VerdictsAndReferences)
{
    auto handle = fresh_handle();
    const zel_match_t match{1, 0x55, 0, ZEL_MATCH_TYPE_NO_PARAM, {}, 0};
    const zel_action_t action{1, 0x55, 99, {}, 0};
    Bytes array(200);
    uint32_t size = 200;
    const auto compress = [&](uint32_t type, const void *record, uint32_t mode) {
        return compress_mat(&handle, array.data(), &size, type, record, mode, 1);
    };
    EXPECT_EQ(compress(8, &match, MAT_TRAVERSE_FREE), 3u);
    EXPECT_EQ(zel_found_mat_cache(&handle, 1, 8, 0x55), nullptr);
    EXPECT_EQ(compress(8, &match, 77), 3u); // any mode but free stores
    EXPECT_EQ(compress(7, &action, MAT_TRAVERSE_ENCODE), 3u);
    EXPECT_TRUE(platform.reported("err").empty());
    EXPECT_EQ(compress(8, &match, 77), 3u);
    EXPECT_EQ(platform.reported("err"), Strings{"unknown mode: 77"});

    EXPECT_EQ(compress(8, &match, MAT_TRAVERSE_ENCODE), 0u);
    EXPECT_EQ(compress(7, &action, MAT_TRAVERSE_ENCODE), 0u);
    const std::pair<uint16_t, Bytes> expected[] = {{23, {0}}, {158, {8, 0, 0, 0}}, {157, {0x55, 0}}, {24, {0}},
                                                   {96, {0}}, {158, {7, 0, 0, 0}}, {157, {0x55, 0}}, {97, {0}}};
    ASSERT_EQ(platform.writes.size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(std::pair(platform.writes[i].id, platform.writes[i].value), expected[i]);
    size = 1000;
    platform.padding = 4;
    EXPECT_EQ(compress(8, &match, MAT_TRAVERSE_SIZE), 0u);
    EXPECT_EQ(size, 1000u + 8 + 8 + 8 + 8);

    platform.reports.clear();
    for (const uint32_t type : {0u, 2u, 6u, 9u, 14u, 1u, 15u, UINT32_MAX})
        EXPECT_EQ(compress(type, nullptr, MAT_TRAVERSE_ENCODE), 3u);
    EXPECT_EQ(platform.reported("err"),
              (Strings{"unknown mat type: 1", "unknown mat type: 15", "unknown mat type: -1"}));
    zel_empty_mat_cache(&handle);
}

// What the cache cannot hold is written whole again.
TEST(Compression, WholeWhenTheCacheCannotGrow)
{
    zel_match_t match{0, 1, 0, ZEL_MATCH_TYPE_EXP, {}, 0};
    zel_match_t *matches[] = {&match, &match, &match};
    const zel_match_grp_t group{0, 0, 0, 3, matches};
    for (const int fail : {0, 1}) {
        auto handle = fresh_handle();
        Bytes array(1000);
        heap.fail_calloc = fail;
        zel_add_match_grp_to_tlv(&handle, array.data(), 1000, &group, 1);
        size_t exps = 0;
        for (const auto &element : elements_of(array))
            exps += element.id == 48;
        EXPECT_EQ(exps, fail ? 2u : 1u);
        zel_empty_mat_cache(&handle);
    }
}
