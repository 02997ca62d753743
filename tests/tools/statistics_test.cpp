// Tables of counters, and rates when counters have been cleared in between.
#include "tools/zelctl/statistics.hpp"

#include <gtest/gtest.h>

using namespace zelctl;

TEST(Statistics, Table)
{
    EXPECT_EQ(show_as_table(make_rows({{{1, 2}, {3, 192}}, {{1, 3}, {0, 0}}}, {})),
              "policy   pair              packets                bytes\n"
              "     1      2                    3                  192\n"
              "     1      3                    0                    0\n");
}

TEST(Statistics, Rates)
{
    struct Case {
        const char *what;
        Counters before, now;
        const char *rates; // of two seconds
    };
    const Case cases[] = {
        {"both grow", {10, 640}, {14, 960}, "            2.0          160.0\n"},
        {"nothing happens", {10, 640}, {10, 640}, "            0.0            0.0\n"},
        {"cleared", {10, 640}, {4, 256}, "            2.0          128.0\n"},
        {"cleared, and more but smaller packets since", {10, 15000}, {12, 768}, "            6.0          384.0\n"},
        {"cleared, and fewer but larger packets since", {10, 640}, {2, 3000}, "            1.0         1500.0\n"},
        {"cleared and idle", {10, 640}, {0, 0}, "            0.0            0.0\n"},
    };
    for (const Case &c : cases) {
        const Statistics before{{{1, 2}, c.before}};
        const std::string table = show_as_table(make_rows({{{1, 2}, c.now}}, {}, &before, 2), true);
        ASSERT_EQ(table.find(" packets/s        bytes/s\n"), table.find('\n') - 25) << table;
        EXPECT_EQ(table.substr(table.size() - 31), " " + std::string(c.rates).substr(1)) << c.what << "\n" << table;
    }
    // A pair that was not there before has counted from 0.
    const Statistics none;
    EXPECT_EQ(make_rows({{{1, 2}, {4, 256}}}, {}, &none, 2).front().packet_rate, 2.0);
}

TEST(Statistics, OrderAndWhatHasChanged)
{
    const Statistics before{{{1, 1}, {9, 10}}, {{1, 2}, {5, 90}}, {{1, 3}, {7, 70}}};
    const Statistics now{{{1, 1}, {9, 10}}, {{1, 2}, {6, 99}}, {{1, 3}, {8, 80}}, {{1, 4}, {3, 3}}};
    const auto order = [&](const View &view) {
        std::string ids;
        for (const Row &row : make_rows(now, view, &before, 1))
            ids += std::to_string(row.pair);
        return ids;
    };
    EXPECT_EQ(order({SortBy::id, false}), "1234");
    EXPECT_EQ(order({SortBy::packets, false}), "1324");
    EXPECT_EQ(order({SortBy::bytes, false}), "2314");
    EXPECT_EQ(order({SortBy::rate, true}), "423");
}
