// A service's side: one call reads a request, and others make its answer.
#include "zel/service.h"

#include "model/elements.hpp"
#include "model/options.hpp"
#include "receive/payload.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace zel {
namespace {

// Makes an answer with a text that the caller puts into the record.
void begin_answer(zel_request_t &request, uint32_t error)
{
    std::free(request.body);
    request.body = nullptr;
    const bool is_success = error == ZEL_ERROR_NONE;
    request.answer = {
        is_success ? uint32_t{ZEL_STATUS_OK} : uint32_t{ZEL_STATUS_FAILED}, error, is_success ? 0 : -1, {}};
    request.reply[0] = {&request.answer, sizeof request.answer};
    request.num_segments = 1;
}

uint32_t fail(zel_request_t &request, uint32_t result)
{
    request.result = result;
    if (result == ZEL_REQUEST_NO_MEMORY)
        zel_request_answer(&request, ZEL_ERROR_LIMIT, "out of memory");
    return result;
}

bool verify(const void *array, const zel_request_options_t &options, zel_request_t &request)
{
    const zel_verify_options_t verify_options{sizeof verify_options, options.strict};
    zel_verify_report_t report{};
    report.size = sizeof report;
    request.rule = zel_verify_tlv_array(array, &verify_options, &report);
    request.unknown_elements = report.unknown_elements;
    if (request.rule == ZEL_VERIFY_OK)
        return true;
    begin_answer(request, request.rule == ZEL_VERIFY_REQUEST_KIND ? ZEL_ERROR_UNSUPPORTED : ZEL_ERROR_MALFORMED);
    (void)zel_verify_report_text(&report, request.answer.msg, sizeof request.answer.msg);
    return false;
}

// What was verified can only fail for lack of memory.  The decoders report that and go on,
// so the object is then incomplete.
bool build(const void *array, zel_api_handle_t &handle, zel_request_t &request)
{
    const uint32_t faults_before = handle.faults.count;
    request.object = zel_parse_tlv_array(&handle, array, &request.header);
    request.mat_type = get_mat_obj_type(request.header.api_type);
    if (handle.faults.count == faults_before)
        return true;
    zel_request_free(&request);
    request.header = {};
    return false;
}

} // namespace
} // namespace zel

using namespace zel;

uint32_t zel_request_read(uint32_t kob_ctx, void *kob_msg, const zel_request_options_t *options, zel_request_t *request)
{
    return zel_request_read_array(payload_of(kob_ctx, kob_msg), options, request);
}

uint32_t zel_request_read_array(const void *tlv_array, const zel_request_options_t *given, zel_request_t *request)
{
    const zel_request_options_t options = read_options(given);
    const uint32_t size = request->size;
    *request = {};
    request->size = size;
    if (options.is_verified == 0 && !verify(tlv_array, options, *request))
        return fail(*request, ZEL_REQUEST_REFUSED);

    zel_api_handle_t silent;
    zel_api_init(&silent, 0, 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    if (!build(tlv_array, options.handle != nullptr ? *options.handle : silent, *request))
        return fail(*request, ZEL_REQUEST_NO_MEMORY);
    zel_request_answer(request, ZEL_ERROR_UNSUPPORTED, "request kind %u with op_code %u is not served here",
                       request->header.api_type, request->header.op_code);
    return ZEL_REQUEST_OK;
}

void zel_request_answer(zel_request_t *request, uint32_t error, const char *format, ...)
{
    begin_answer(*request, error);
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is not
    (void)std::vsnprintf(request->answer.msg, sizeof request->answer.msg, format, args);
    va_end(args);
}

uint32_t zel_request_answer_stats(zel_request_t *request, const zel_stat_result_entry_t *entries, uint32_t num_entries)
{
    zel_stat_results_t results{};
    results.tag = ZEL_STAT_TAG_RESULTS;
    results.num_entries = num_entries;
    results.entries = const_cast<zel_stat_result_entry_t *>(entries); // converting only reads them
    const uint32_t capacity = array_overhead + zel_stat_results_get_tlv_sz(&results);
    begin_answer(*request, ZEL_ERROR_NONE);
    request->body = std::calloc(1, capacity);
    uint32_t written = 0;
    if (request->body == nullptr || zel_stat_results_to_tlv(&results, request->body, capacity, &written, 0, 0) != 0)
        return fail(*request, ZEL_REQUEST_NO_MEMORY);
    request->reply[1] = {request->body, written};
    request->num_segments = 2;
    return ZEL_REQUEST_OK;
}

void zel_request_free(zel_request_t *request)
{
    if (request->object != nullptr) {
        zel_api_handle_t silent;
        zel_api_init(&silent, 0, 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
        free_contained_mat_obj_mem(&silent, request->header.app_type, request->mat_type, request->object);
    }
    std::free(request->object);
    std::free(request->body);
    request->object = nullptr;
    request->body = nullptr;
    request->num_segments = 0;
}
