// The trace facility: every destination gets what it was asked to take, whole.
#include "platform/reference/trace_control.h"
#include "platform/trace.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

struct Record {
    Record(uint32_t trace_id, const std::string &content) : id(trace_id)
    {
        std::memcpy(text, content.data(), std::min(content.size(), sizeof text - 1));
    }
    uint32_t length() const { return static_cast<uint32_t>(std::strlen(text)) + 5; }

    uint32_t id;
    char text[512] = {};
};

void log(uint32_t id, const std::string &text)
{
    const Record record(id, text);
    trc_his_log_event_for_uuid_inst(648, 0x730000, 2, 0, record.length(), &record);
}

std::string content_of(const std::string &path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::string dump(int32_t &count)
{
    const std::string path = testing::TempDir() + "zel-dump-" + std::to_string(getpid());
    FILE *const file = std::fopen(path.c_str(), "w");
    count = zel_trace_dump(fileno(file));
    EXPECT_EQ(std::fclose(file), 0);
    std::string text = content_of(path);
    unlink(path.c_str());
    return text;
}

TEST(Trace, SelectionIsPerDestinationAndId)
{
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_HISTORY, "102, 104"), 0);
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, "103"), 0);
    for (const char *bad : {"x", "102x", "102,y", "-1", "1024", "99999999999", "all,102"})
        EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, bad), EINVAL) << bad;
    EXPECT_EQ(zel_trace_select(3, "102"), EINVAL);
    for (uint32_t id = 100; id < 110; ++id) {
        EXPECT_EQ(trc_hist_event_subtype_check(0x730000, id) == 0, id == 102 || id == 104) << id;
        EXPECT_EQ(trc_chk_int(id, 0, 0, 1) != 0, id == 103) << id;
    }
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, "all"), 0);
    EXPECT_NE(trc_chk_int(0xffffffff, 0, 0, 1), 0);
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, ""), 0);
    EXPECT_EQ(trc_chk_int(103, 0, 0, 1), 0);
}

TEST(Trace, HistoryKeepsTheLatestEventsInOrderAndWhole)
{
    const std::string longest(511, 'x');
    for (int i = 0; i < 1000; ++i) {
        const Record record(104, std::to_string(i) + "\n\n");
        trc_hist_event(0x730000, record.length(), &record);
    }
    const Record record(105, longest + "y");
    trc_hist_event(1, record.length(), &record);
    trc_hist_event(1, 4 + 3, &record);
    trc_hist_event(1, 0, &record);

    int32_t count = 0;
    std::istringstream lines(dump(count));
    std::string line;
    for (int expected = 1003 - count; expected < 1000; ++expected) {
        ASSERT_TRUE(std::getline(lines, line));
        ASSERT_TRUE(line.ends_with(" 0x730000 104 " + std::to_string(expected))) << line;
    }
    for (const std::string &text : {longest, std::string("xxx"), std::string()}) {
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_TRUE(line.ends_with("Z 0x1 105 " + text)) << line;
    }
    EXPECT_EQ(zel_trace_dump(-1), -1);
}

TEST(Trace, EnvironmentDecidesAndTheLogIsAppended)
{
    const std::string path = testing::TempDir() + "zel-trace-" + std::to_string(getpid());
    setenv("ZEL_TRACE_HISTORY", "102", 1);
    setenv("ZEL_TRACE_CONSOLE", "nonsense", 1);
    setenv("ZEL_TRACE_LOG_FILE", path.c_str(), 1);
    EXPECT_EQ(zel_trace_init(), EINVAL);
    EXPECT_NE(trc_hist_event_subtype_check(0x730000, 103), 0);
    log(102, "first\n");
    setenv("ZEL_TRACE_CONSOLE", "", 1);
    setenv("ZEL_TRACE_LOG", "103", 1);
    EXPECT_EQ(zel_trace_init(), 0);
    log(102, "not taken");
    log(103, "second");
    EXPECT_EQ(zel_trace_log_open(nullptr), 0);
    log(103, "too late");
    EXPECT_EQ(zel_trace_log_open("/no/such/folder/log"), ENOENT);

    std::istringstream lines(content_of(path));
    for (const char *expected : {"Z 648 0x730000 2 102 first", "Z 648 0x730000 2 103 second"}) {
        std::string line;
        ASSERT_TRUE(std::getline(lines, line));
        EXPECT_TRUE(line.ends_with(expected)) << line;
    }
    EXPECT_EQ(lines.get(), EOF);
    unlink(path.c_str());
    for (const char *name : {"ZEL_TRACE_HISTORY", "ZEL_TRACE_CONSOLE", "ZEL_TRACE_LOG", "ZEL_TRACE_LOG_FILE"})
        unsetenv(name);
}

TEST(Trace, ConsoleLineNamesTheModuleAndEndsOnce)
{
    testing::internal::CaptureStderr();
    dbgout(1, trc_dbg_modname, 0, "%s(%d): %s\n", "function", 42, std::string(2000, 'y').c_str());
    dbgout(1, trc_dbg_modname, 0, "no newline");
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(text.starts_with("zel: function(42): yyyy"));
    EXPECT_TRUE(text.ends_with("y\nzel: no newline\n"));
    EXPECT_STREQ(g_applications[15], "app15");
}

} // namespace
