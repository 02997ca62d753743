// The trace procedure, seen through one site of each kind.
#include "support/recording_platform.hpp"

#include <gtest/gtest.h>

using namespace test;

namespace {

// A report with two arguments: the cache's notice of a stored object.
void store(zel_api_handle_t &handle)
{
    static int object;
    zel_store_mat_cache(&handle, 1, 8, 5, &object);
}

} // namespace

TEST(Trace, DestinationsForEverySetting)
{
    const std::string text = "zel_store_mat_cache(216)[tester]: insert successful: type: 8, id: 5.";
    for (int setting = 0; setting < 16; ++setting) {
        const bool debug = setting & 1, history = setting & 2, console = setting & 4, callback = setting & 8;
        auto handle = fresh_handle(debug);
        platform.history_check = history ? 0 : 4;
        platform.console_check = console ? 1 : 0;
        if (!callback)
            handle.dbg_cb = nullptr;
        store(handle);

        Strings expected;
        if (debug) {
            expected.push_back("subtype 7536640 104");
            if (history)
                expected.push_back("history 7536640 104 " + text);
            expected.push_back("check 104 0 0 1");
            if (console)
                expected.push_back("console 1 1 0 " + text);
            expected.push_back("log 648 7536640 1 0 104 " + text);
        }
        EXPECT_EQ(platform.log, expected) << setting;
        const Strings reports = {"dbg: insert successful: type: 8, id: 5."};
        EXPECT_EQ(platform.reports, callback ? reports : Strings{}) << setting;
        zel_empty_mat_cache(&handle);
    }
}

// The record holds 511 characters; the callback formats for itself and gets them all.
TEST(Trace, LongTextsAreCutInTheRecord)
{
    auto handle = fresh_handle(1);
    platform.fail_write = -1;
    const std::string name(600, 'x');
    const uint8_t value = 0;
    tlv_add_element(&handle, nullptr, 0, 1, 1, &value, name.c_str());
    ASSERT_EQ(platform.log.size(), 3u);
    const std::string head = "log 648 7536640 1 0 102 ";
    EXPECT_EQ(platform.log[2].size(), head.size() + 511);
    EXPECT_EQ(platform.log[2].find(head + "tlv_add_element(126)[tester]: Failed to encode xxx"), 0u);
    EXPECT_EQ(platform.reports[0], "err: Failed to encode " + name + "  tlv element: -28");
}

// An application type beyond the platform's table is printed as a number.
TEST(Trace, ApplicationsWithoutAName)
{
    for (const auto &[app_type, name] :
         {std::pair{2u, "other"}, {3u, "3"}, {100000u, "100000"}, {UINT32_MAX, "4294967295"}}) {
        auto handle = fresh_handle(1);
        handle.app_type = app_type;
        store(handle);
        ASSERT_EQ(platform.log.size(), 3u);
        EXPECT_NE(platform.log[2].find("zel_store_mat_cache(216)[" + std::string(name) + "]: "), std::string::npos);
        zel_empty_mat_cache(&handle);
    }
}

// The length that the log gets is that of the text in the record, even when formatting fails.
TEST(Trace, TextsThatCannotBeFormatted)
{
    auto handle = fresh_handle(1);
    platform.history_check = 0;
    platform.fail_formatting = true;
    store(handle);
    const Strings expected = {"subtype 7536640 104", "history 7536640 104 zel", "check 104 0 0 1",
                              "log 648 7536640 1 0 104 zel"};
    EXPECT_EQ(platform.log, expected);
    zel_empty_mat_cache(&handle);
}

// The transport's errno is asked for once per destination.
TEST(Trace, SideEffectsOncePerDestination)
{
    auto handle = fresh_handle(1);
    platform.history_check = 0;
    platform.console_check = 1;
    platform.send_result = -5;
    Message message;
    zel_policy_delete(&handle, 1, 2, &message);
    const std::string text = "fu_kob_send() fails. kob_retval: -5, errno: ";
    const std::string line = "send_to_zel(4023)[tester]: " + text;
    const Strings expected = {
        "subtype 7536640 102",
        "history 7536640 102 " + line + "100 ",
        "check 102 0 0 1",
        "console 1 1 0 " + line + "101 ",
        "log 648 7536640 1 0 102 " + line + "102 ",
    };
    ASSERT_GE(platform.log.size(), expected.size());
    EXPECT_EQ(Strings(platform.log.end() - 5, platform.log.end()), expected);
    EXPECT_EQ(platform.reported("err"), Strings{text + "103 "});
}
