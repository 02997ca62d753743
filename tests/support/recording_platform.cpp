#include "recording_platform.hpp"

#include "zel/platform/avl_tree.h"
#include "zel/platform/heartbeat.h"
#include "zel/platform/tlv_array.h"
#include "zel/platform/tlv_converter.h"
#include "zel/platform/trace.h"
#include "zel/platform/transport.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

extern "C" {
void *__real_calloc(size_t, size_t);
void __real_free(void *);
int32_t __real_tlv_array_add_tlv(void *, uint32_t, uint16_t, uint16_t, const void *, uintptr_t);
uint32_t __real_tlv_size_get(uint32_t);
uint32_t __real_tlv_array_get_num_tlvs(const void *, uintptr_t);
int32_t __real_tlv_array_get_next_tlv(const void *, uint16_t *, uint16_t *, const void **, uintptr_t, uint32_t *);
uint32_t __real_zel_mat_cache_comp_func(const void *, const void *);
int32_t __real_ravl_init(ravl_tree *, uint32_t, uint32_t, ravl_compare_t);
int32_t __real_ravl_insert(ravl_tree *, void *);
int32_t __real_ravl_is_empty(ravl_tree *);
void __real_ravl_delete(ravl_tree *, void *);
}

namespace test {

Platform platform;
Heap heap;

namespace {

std::string format_text(const char *format, va_list args)
{
    char text[2048];
    std::vsnprintf(text, sizeof text, format, args);
    return text;
}

// A call in the log: its words, with blanks between.
template <class... Words> void note(const Words &...words)
{
    std::ostringstream line;
    ((line << words << ' '), ...);
    platform.log.push_back(line.str().substr(0, line.str().size() - 1));
}

std::string record_text(uint32_t length, const void *record)
{
    uint32_t id = 0;
    std::memcpy(&id, record, sizeof id);
    const auto *text = static_cast<const char *>(record) + sizeof id;
    // The length counts id, text and NUL: a wrong one shows in the text.
    const bool terminated = text[length - 5] == '\0' && std::strlen(text) == length - 5;
    return std::to_string(id) + (terminated ? " " : " bad length ") + std::string(text, length - 5);
}

} // namespace

Strings Platform::reported(const std::string &severity) const
{
    Strings texts;
    for (const auto &report : reports)
        if (report.rfind(severity + ": ", 0) == 0)
            texts.push_back(report.substr(severity.size() + 2));
    return texts;
}

zel_api_handle_t fresh_handle(uint32_t debug)
{
    platform = {};
    zel_api_handle_t handle{};
    zel_api_init(&handle, debug, 1, 7, err_cb, warn_cb, dbg_cb);
    platform.log.clear();
    heap = {};
    return handle;
}

#define CALLBACK(severity)                                                                                             \
    void severity##_cb(const char *format, ...)                                                                        \
    {                                                                                                                  \
        va_list args;                                                                                                  \
        va_start(args, format);                                                                                        \
        platform.reports.push_back(#severity ": " + format_text(format, args));                                        \
        va_end(args);                                                                                                  \
    }
CALLBACK(err)
CALLBACK(warn)
CALLBACK(dbg)

void free_heap()
{
    while (!heap.live.empty())
        std::free(const_cast<void *>(heap.live.begin()->first));
}

Bytes array(const std::vector<ReadElement> &elements)
{
    size_t size = 4 + 64;
    for (const ReadElement &element : elements)
        size += __real_tlv_size_get(static_cast<uint32_t>(element.value.size()));
    Bytes bytes(size);
    for (const auto &[id, value] : elements)
        __real_tlv_array_add_tlv(bytes.data(), static_cast<uint32_t>(size), id, static_cast<uint16_t>(value.size()),
                                 value.data(), 0);
    return bytes;
}

Bytes array(const std::string &elements)
{
    std::vector<ReadElement> list;
    std::istringstream tokens(elements);
    for (std::string token; tokens >> token;) {
        Bytes value;
        const size_t colon = token.find(':');
        for (size_t at = colon; at != std::string::npos && at + 2 < token.size(); at += 2)
            value.push_back(static_cast<uint8_t>(std::stoi(token.substr(at + 1, 2), nullptr, 16)));
        if (colon == std::string::npos)
            value.push_back(0);
        list.push_back({static_cast<uint16_t>(std::stoi(token)), value});
    }
    return array(list);
}

Bytes message(uint32_t api_type, const std::string &elements)
{
    char kind[16];
    snprintf(kind, sizeof kind, "%02x", api_type);
    return array(std::string("1 4:") + kind + "000000 5:04000000 6:0600 7:07000000 2 " + elements);
}

std::vector<ReadElement> elements_of(const Bytes &array)
{
    std::vector<ReadElement> elements;
    uint16_t id = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    uint32_t cursor = 0;
    while (tlv_array_get_next_tlv(array.data(), &id, &length, &value, 0, &cursor) == 0) {
        const auto *p = static_cast<const uint8_t *>(value);
        elements.push_back({id, Bytes(p, p + length)});
    }
    return elements;
}

} // namespace test

using namespace test;

const char *const g_applications[] = {"none", "tester", "other"};
const uint32_t g_num_applications = 3;
const char trc_dbg_modname[] = "zel";

// The converter only remembers its arguments, as words, in order.
template <class... A> static int32_t converter(A... arguments)
{
    platform.converter_arguments = {(uintptr_t)arguments...};
    return platform.converter_result;
}

extern "C" {

static void *from_arena(size_t size)
{
    uint8_t *const block = heap.arena->data() + heap.arena_used;
    heap.arena_used += (size + 15) / 16 * 16;
    if (heap.arena_used > heap.arena->size())
        std::abort();
    std::memset(block, 0, size);
    return block;
}

static bool is_in_arena(const void *p)
{
    const auto *const block = static_cast<const uint8_t *>(p);
    return heap.arena != nullptr && block >= heap.arena->data() && block < heap.arena->data() + heap.arena->size();
}

void *__wrap_calloc(size_t n, size_t size)
{
    if (heap.is_platforms)
        return __real_calloc(n, size);
    heap.callocs.emplace_back(n, size);
    if (heap.fail_calloc > 0 && --heap.fail_calloc == 0)
        return nullptr;
    void *p = heap.arena != nullptr ? from_arena(n * size) : __real_calloc(n, size);
    heap.live[p] = n * size;
    return p;
}

void __wrap_free(void *p)
{
    if (heap.is_platforms)
        return __real_free(p);
    if (heap.order && p != nullptr)
        heap.freed.push_back(p);
    ++heap.frees;
    heap.live.erase(p);
    if (!is_in_arena(p))
        __real_free(p);
}

// Arrays and trees are the reference platform's; calls are noted, and made to fail, on their way.
int32_t __wrap_tlv_array_add_tlv(void *array, uint32_t capacity, uint16_t type, uint16_t length, const void *value,
                                 uintptr_t reserved)
{
    const auto *bytes = static_cast<const uint8_t *>(value);
    platform.writes.push_back({type, Bytes(bytes, bytes + length), capacity});
    if (platform.fail_write == -1 || (platform.fail_write > 0 && --platform.fail_write == 0))
        return -28;
    return __real_tlv_array_add_tlv(array, capacity, type, length, value, reserved);
}

uint32_t __wrap_tlv_size_get(uint32_t length)
{
    const auto size = platform.element_sizes.find(length);
    if (size != platform.element_sizes.end())
        return size->second;
    return (__real_tlv_size_get(length) + platform.padding - 1) / platform.padding * platform.padding |
           platform.size_noise;
}

uint32_t __wrap_tlv_array_get_num_tlvs(const void *array, uintptr_t reserved)
{
    return platform.extra_elements + __real_tlv_array_get_num_tlvs(array, reserved);
}

int32_t __wrap_tlv_array_get_next_tlv(const void *array, uint16_t *type, uint16_t *length, const void **value,
                                      uintptr_t reserved, uint32_t *cursor)
{
    platform.cursors.push_back(cursor);
    return __real_tlv_array_get_next_tlv(array, type, length, value, reserved, cursor);
}

uint32_t __wrap_zel_mat_cache_comp_func(const void *a, const void *b)
{
    ++platform.comparisons;
    return __real_zel_mat_cache_comp_func(a, b);
}

static int format_or_fail(char *text, size_t size, const char *format, va_list args)
{
    const int length = std::vsnprintf(text, size, format, args);
    if (!platform.fail_formatting)
        return length;
    text[3] = '\0';
    return -1;
}

int __wrap_snprintf(char *text, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = format_or_fail(text, size, format, args);
    va_end(args);
    return length;
}

// What the compiler calls instead with FORTIFY; it adds a flag and the text's size.
int __wrap___snprintf_chk(char *text, size_t size, int, size_t, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = format_or_fail(text, size, format, args);
    va_end(args);
    return length;
}

int32_t __wrap_ravl_init(ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare)
{
    note("init", key_size, key_offset);
    return 1234 + __real_ravl_init(tree, key_size, key_offset, compare);
}

int32_t __wrap_ravl_insert(ravl_tree *tree, void *entry)
{
    if (platform.fail_insert > 0 && --platform.fail_insert == 0)
        return 0;
    heap.is_platforms = true;
    const int32_t is_linked = __real_ravl_insert(tree, entry);
    heap.is_platforms = false;
    return is_linked;
}

int32_t __wrap_ravl_is_empty(ravl_tree *tree) { return __real_ravl_is_empty(tree) != 0 ? 9 : 0; }

void __wrap_ravl_delete(ravl_tree *tree, void *entry)
{
    note("delete");
    heap.is_platforms = true;
    __real_ravl_delete(tree, entry);
    heap.is_platforms = false;
}

void fu_keeper_update_and_send_heartbeat(int32_t reserved)
{
    platform.heartbeats += reserved == 0 ? 1 : 1000;
    if (platform.on_heartbeat)
        platform.on_heartbeat();
}

int32_t trc_hist_event_subtype_check(uint32_t module, uint32_t trace_id)
{
    note("subtype", module, trace_id);
    return platform.history_check;
}

void trc_hist_event(uint32_t module, uint32_t length, const void *record)
{
    note("history", module, record_text(length, record));
}

int32_t trc_chk_int(uint32_t trace_id, uint32_t a, uint32_t b, uint32_t c)
{
    note("check", trace_id, a, b, c);
    return platform.console_check;
}

void dbgout(uint32_t level, const void *module_name, uint32_t reserved, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    note("console", level, module_name == trc_dbg_modname, reserved, format_text(format, args));
    va_end(args);
}

void trc_his_log_event_for_uuid_inst(uint32_t log, uint32_t module, uint32_t instance, uint32_t reserved,
                                     uint32_t length, const void *record)
{
    note("log", log, module, instance, reserved, record_text(length, record));
}

int32_t fu_kob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *buffer,
                    uint32_t size, void *kob_msg, uintptr_t, uintptr_t)
{
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    platform.sends.push_back({false, kob_handle, node, sap, opcode, Bytes(bytes, bytes + size), 0, kob_msg});
    return platform.send_result;
}

int32_t mpkob_send(uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const mpkob_segment_t *segments,
                   uint32_t num_segments, void *kob_msg, uintptr_t)
{
    const auto *bytes = static_cast<const uint8_t *>(segments[0].address);
    platform.sends.push_back(
        {true, kob_handle, node, sap, opcode, Bytes(bytes, bytes + segments[0].length), num_segments, kob_msg});
    return platform.send_result;
}

uint32_t kob_rr_token_get(void *kob_msg) { return static_cast<Message *>(kob_msg)->token; }

int32_t kob_errno_get(uint32_t) { return platform.transport_errno++; }

void *kob_payload_get(void *kob_msg)
{
    auto *message = static_cast<Message *>(kob_msg);
    return message->empty || message->multi_part ? nullptr : message->payload.data();
}

int32_t mpkob_is_mpkob(uint32_t kob_ctx, void *kob_msg)
{
    auto *message = static_cast<Message *>(kob_msg);
    return message->multi_part && message->context == kob_ctx ? 3 : 0;
}

void *mpkob_payload_get(uint32_t kob_ctx, void *kob_msg)
{
    auto *message = static_cast<Message *>(kob_msg);
    return message->context == kob_ctx ? message->payload.data() : nullptr;
}

int32_t tlvu_table_convert_struct_to_tlv(void *tlv, uintptr_t capacity, const void *table, const void *record,
                                         void *written, uintptr_t flags, uintptr_t reserved)
{
    return converter(tlv, capacity, table, record, written, flags, reserved);
}

int32_t tlvu_table_convert_tlv_to_struct(void *record_slot, const void *tlv, uintptr_t size, const void *table,
                                         uintptr_t caller_owned)
{
    if (platform.converted != nullptr)
        std::memcpy(record_slot, &platform.converted, sizeof platform.converted);
    return converter(record_slot, tlv, size, table, caller_owned);
}

uint32_t tlvu_table_size(const void *table, const void *record)
{
    return static_cast<uint32_t>(converter(table, record));
}

int32_t tlvu_table_get_struct_size_from_tlv(int32_t *size, const void *tlv, uintptr_t reserved, const void *table)
{
    const bool starts_at_zero = *size == 0;
    *size = 77;
    return converter(starts_at_zero, tlv, reserved, table);
}

int32_t tlvu_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value, uintptr_t capacity,
                       const void *table)
{
    return converter(tlv, size, element, value, capacity, table);
}

int32_t tlvu_field_itr_init(void *itr, const void *tlv, uintptr_t size, const void *table, uintptr_t flags,
                            uint16_t element)
{
    return converter(itr, tlv, size, table, flags, element);
}

int32_t tlvu_field_itr_get_next(void *itr, void *field) { return converter(itr, field); }

void tlvu_error_print(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    platform.converter_errors.push_back(format_text(format, args));
    va_end(args);
}

} // extern "C"
