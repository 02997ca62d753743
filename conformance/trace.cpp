// The duties of the trace facility and the heartbeat.
#include "zel/platform/trace.h"
#include "conformance/check.hpp"
#include "zel/platform/heartbeat.h"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace zel::conformance {
namespace {

constexpr std::size_t longest_text = 511;

// What the console prints goes nowhere, for as long as this lives.
class QuietConsole {
public:
    QuietConsole() : kept_(dup(STDERR_FILENO))
    {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        (void)dup2(nowhere, STDERR_FILENO);
        (void)close(nowhere);
    }
    QuietConsole(const QuietConsole &) = delete;
    QuietConsole &operator=(const QuietConsole &) = delete;
    ~QuietConsole()
    {
        (void)dup2(kept_, STDERR_FILENO);
        (void)close(kept_);
    }

private:
    int kept_;
};

// A record as the library gives it, with nothing behind it.
void report(const void *record, std::size_t text_length)
{
    uint32_t id = 0;
    std::memcpy(&id, record, sizeof id);
    const auto length = static_cast<uint32_t>(text_length + 5);
    if (trc_hist_event_subtype_check(ZEL_TRACE_MODULE_ID, id) == 0)
        trc_hist_event(ZEL_TRACE_MODULE_ID, length, record);
    trc_hist_event(ZEL_TRACE_MODULE_ID, length, record);
    if (trc_chk_int(id, 0, 0, 1) != 0)
        dbgout(1, trc_dbg_modname, 0, "%s(%d)[%s]: %s", "function", 17, "application", "text");
    dbgout(1, trc_dbg_modname, 0, "%s(%d)[%s]: %s", "function", 17, "application", "text");
    for (const uint32_t instance : {1U, 2U})
        trc_his_log_event_for_uuid_inst(ZEL_TRACE_HISLOG_ID, ZEL_TRACE_MODULE_ID, instance, 0, length, record);
}

} // namespace

Outcome check_trace_record()
{
    const QuietConsole quiet;
    const GuardedBlock block(1024);
    std::array<unsigned char, 4 + longest_text + 1> copy{};
    for (uint32_t id = ZEL_TRACE_ERROR; id <= ZEL_TRACE_DEBUG; ++id) {
        for (const std::size_t text_length : {std::size_t{0}, std::size_t{3}, std::size_t{100}, longest_text}) {
            now("a record with a text of %zu characters", text_length);
            const std::size_t size = sizeof id + text_length + 1;
            unsigned char *const record = block.last(size);
            std::memcpy(record, &id, sizeof id);
            std::memset(record + sizeof id, '%', text_length);
            record[size - 1] = 0;
            std::memcpy(copy.data(), record, size);
            report(record, text_length);
            if (std::memcmp(copy.data(), record, size) != 0)
                return broken("%s was changed", progress->doing);
        }
    }
    return kept("texts of 0 to %zu characters: nothing behind the record was read", longest_text);
}

Outcome check_trace_names()
{
    if (trc_dbg_modname[0] == 0)
        return broken("trc_dbg_modname is empty");
    if (&g_num_applications == nullptr)
        return g_applications[0] != nullptr
                   ? kept("module \"%.20s\"; row 0 is \"%.20s\", and the number of rows is not told", trc_dbg_modname,
                          g_applications[0])
                   : broken("row 0 of g_applications is null");
    for (uint32_t row = 0; row < g_num_applications; ++row) {
        now("row %u of %u of g_applications", row, g_num_applications);
        if (g_applications[row] == nullptr || std::strlen(g_applications[row]) > longest_text)
            return broken("%s is no name", progress->doing);
    }
    return g_num_applications != 0 ? kept("module \"%.20s\", %u applications", trc_dbg_modname, g_num_applications)
                                   : broken("g_num_applications is 0, expected 1 or more");
}

Outcome check_trace_threads() { return unchecked("this program has one thread; a thread sanitizer sees more"); }

Outcome check_heartbeat()
{
    constexpr uint32_t num_beats = 100000;
    now("%u heartbeats", num_beats);
    for (uint32_t i = 0; i < num_beats; ++i)
        fu_keeper_update_and_send_heartbeat(0);
    return kept("%u calls came back", num_beats);
}

} // namespace zel::conformance
