// The trace facility: every destination gets what it was asked to take, whole.
#include "platform/reference/trace_control.h"
#include "platform/trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

struct Record {
    explicit Record(uint32_t trace_id, const std::string &content) : id(trace_id)
    {
        std::strncpy(text, content.c_str(), sizeof text - 1);
    }
    uint32_t length() const { return static_cast<uint32_t>(std::strlen(text)) + 5; }

    uint32_t id;
    char text[512] = {};
};

class TraceTest : public testing::Test {
protected:
    ~TraceTest() override
    {
        for (const char *name : {"ZEL_TRACE_HISTORY", "ZEL_TRACE_CONSOLE", "ZEL_TRACE_LOG", "ZEL_TRACE_LOG_FILE"})
            unsetenv(name);
        zel_trace_select(ZEL_TRACE_TO_HISTORY, "all");
        zel_trace_select(ZEL_TRACE_TO_CONSOLE, "");
        zel_trace_select(ZEL_TRACE_TO_LOG, "");
        unlink(path.c_str());
    }

    std::string content() const
    {
        std::ifstream file(path);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    std::string dump(int32_t &count)
    {
        FILE *const file = std::tmpfile();
        count = zel_trace_dump(fileno(file));
        std::rewind(file);
        std::string text(1 << 20, '\0');
        text.resize(std::fread(text.data(), 1, text.size(), file));
        EXPECT_EQ(std::fclose(file), 0);
        return text;
    }

    std::string path = testing::TempDir() + "zel-trace-" + std::to_string(getpid());
};

TEST_F(TraceTest, SelectionIsPerDestinationAndId)
{
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_HISTORY, "102, 104"), 0);
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, "103"), 0);
    for (uint32_t id = 100; id < 110; ++id) {
        EXPECT_EQ(trc_hist_event_subtype_check(0x730000, id) == 0, id == 102 || id == 104) << id;
        EXPECT_EQ(trc_chk_int(id, 0, 0, 1) != 0, id == 103) << id;
    }
    for (const char *bad : {"x", "102x", "102,y", "-1", "1024", "99999999999", "all,102"})
        EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, bad), EINVAL) << bad;
    EXPECT_EQ(zel_trace_select(3, "102"), EINVAL);
    EXPECT_NE(trc_chk_int(103, 0, 0, 1), 0);
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, "all"), 0);
    EXPECT_NE(trc_chk_int(0xffffffff, 0, 0, 1), 0);
    EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, ""), 0);
    EXPECT_EQ(trc_chk_int(103, 0, 0, 1), 0);
}

TEST_F(TraceTest, HistoryKeepsTheLatestEventsInOrder)
{
    for (int i = 0; i < 1000; ++i) {
        const Record record(104, "event " + std::to_string(i) + "\n\n");
        trc_hist_event(0x730000, record.length(), &record);
    }
    int32_t count = 0;
    std::istringstream lines(dump(count));
    ASSERT_GT(count, 0);
    int expected = 1000 - count;
    for (std::string line; std::getline(lines, line); ++expected)
        EXPECT_TRUE(line.ends_with(" 0x730000 104 event " + std::to_string(expected))) << line;
    EXPECT_EQ(expected, 1000);
    EXPECT_EQ(zel_trace_dump(-1), -1);
}

TEST_F(TraceTest, LongestTextAndWrongLengthsStayInside)
{
    const Record longest(104, std::string(600, 'x'));
    trc_hist_event(1, longest.length(), &longest);
    const Record record(105, "cut here");
    trc_hist_event(1, 4 + 3, &record);
    trc_hist_event(1, 0, &record);
    int32_t count = 0;
    const std::string text = dump(count);
    EXPECT_NE(text.find(" 104 " + std::string(511, 'x') + "\n"), std::string::npos);
    EXPECT_NE(text.find(" 105 cut\n"), std::string::npos);
    EXPECT_TRUE(text.ends_with(" 105 \n"));
}

TEST_F(TraceTest, EnvironmentDecidesAndTheLogIsAppended)
{
    setenv("ZEL_TRACE_HISTORY", "102", 1);
    setenv("ZEL_TRACE_CONSOLE", "nonsense", 1);
    setenv("ZEL_TRACE_LOG_FILE", path.c_str(), 1);
    EXPECT_EQ(zel_trace_init(), EINVAL);
    EXPECT_NE(trc_hist_event_subtype_check(0x730000, 103), 0);

    const Record first(102, "first\n");
    trc_his_log_event_for_uuid_inst(648, 0x730000, 1, 0, first.length(), &first);
    setenv("ZEL_TRACE_CONSOLE", "", 1);
    setenv("ZEL_TRACE_LOG", "103", 1);
    EXPECT_EQ(zel_trace_init(), 0);
    trc_his_log_event_for_uuid_inst(648, 0x730000, 1, 0, first.length(), &first);
    const Record second(103, "second");
    trc_his_log_event_for_uuid_inst(648, 0x730000, 2, 0, second.length(), &second);

    std::istringstream lines(content());
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_TRUE(line.ends_with("Z 648 0x730000 1 102 first")) << line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_TRUE(line.ends_with("Z 648 0x730000 2 103 second")) << line;
    EXPECT_FALSE(std::getline(lines, line));

    EXPECT_EQ(zel_trace_log_open(nullptr), 0);
    const std::string closed = content();
    trc_his_log_event_for_uuid_inst(648, 0x730000, 2, 0, second.length(), &second);
    EXPECT_EQ(content(), closed);
    EXPECT_EQ(zel_trace_log_open("/no/such/folder/log"), ENOENT);
}

TEST_F(TraceTest, ConsoleLineNamesTheModuleAndEndsOnce)
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
