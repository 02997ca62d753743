// The trace facility: every destination gets what it was asked to take, whole.
#include "bytes.hpp"
#include "zel-platform/trace_control.h"
#include "zel/platform/trace.h"

#include <cerrno>
#include <fstream>
#include <unistd.h>

namespace {

std::string record_of(uint32_t id, const std::string &text)
{
    return std::string(reinterpret_cast<const char *>(&id), sizeof id) + text + '\0';
}

void log(const std::string &record)
{
    trc_his_log_event_for_uuid_inst(648, 0x730000, 2, 0, static_cast<uint32_t>(record.size()), record.data());
}

const std::string path = testing::TempDir() + "zel-trace-" + std::to_string(getpid());

// Each of them behind the time of day.
void expect_lines(const std::vector<std::string> &expected)
{
    std::ifstream file(path);
    std::string line;
    for (const std::string &end : expected)
        ASSERT_TRUE(std::getline(file, line) && line.ends_with("Z " + end)) << line;
    EXPECT_EQ(file.get(), EOF);
    unlink(path.c_str());
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
    for (const char *ids : {"all", ""}) {
        EXPECT_EQ(zel_trace_select(ZEL_TRACE_TO_CONSOLE, ids), 0);
        EXPECT_EQ(trc_chk_int(0xffffffff, 0, 0, 1) != 0, *ids != '\0');
    }
}

TEST(Trace, HistoryKeepsTheLatestEventsInOrderAndWhole)
{
    for (int i = 0; i < 1000; ++i) {
        const std::string record = record_of(104, std::to_string(i) + "\n\n");
        trc_hist_event(0x730000, static_cast<uint32_t>(record.size()), record.data());
    }
    for (const uint32_t length : {517U, 4U + 3U, 0U})
        trc_hist_event(1, length, record_of(105, std::string(512, 'x')).data());
    FILE *const file = std::fopen(path.c_str(), "w");
    const int32_t count = zel_trace_dump(fileno(file));
    EXPECT_EQ(std::fclose(file), 0);
    ASSERT_GE(count, 100);
    std::vector<std::string> lines;
    for (int i = 1003 - count; i < 1000; ++i)
        lines.push_back("0x730000 104 " + std::to_string(i));
    for (const unsigned length : {511U, 3U, 0U})
        lines.push_back("0x1 105 " + std::string(length, 'x'));
    expect_lines(lines);
    EXPECT_EQ(zel_trace_dump(-1), -1);
}

TEST(Trace, EnvironmentDecidesAndTheLogIsAppended)
{
    setenv("ZEL_TRACE_HISTORY", "102", 1);
    setenv("ZEL_TRACE_CONSOLE", "nonsense", 1);
    setenv("ZEL_TRACE_LOG_FILE", path.c_str(), 1);
    EXPECT_EQ(zel_trace_init(), EINVAL);
    EXPECT_NE(trc_hist_event_subtype_check(0x730000, 103), 0);
    log(record_of(102, "first\n"));
    unsetenv("ZEL_TRACE_CONSOLE");
    setenv("ZEL_TRACE_LOG", "103", 1);
    EXPECT_EQ(zel_trace_init(), 0);
    log(record_of(102, "not taken"));
    log(record_of(103, "second"));
    EXPECT_EQ(zel_trace_log_open(nullptr), 0);
    log(record_of(103, "too late"));
    EXPECT_EQ(zel_trace_log_open("/no/such/folder/log"), ENOENT);
    expect_lines({"648 0x730000 2 102 first", "648 0x730000 2 103 second"});
    clearenv();
}

TEST(Trace, ConsoleLineNamesTheModuleAndEndsOnce)
{
    testing::internal::CaptureStderr();
    dbgout(1, trc_dbg_modname, 0, "%s(%d): %s\n", "function", 42, std::string(2000, 'y').c_str());
    dbgout(1, trc_dbg_modname, 0, "no newline");
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(text.starts_with("zel: function(42): yyyy") && text.ends_with("y\nzel: no newline\n")) << text;
}

} // namespace
