// The message parser: the service's side of send_to_zel().
#include "decode/decode.hpp"
#include "model/trace.hpp"
#include "receive/payload.hpp"
#include "wire/format.hpp"

#include <array>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace zel {
namespace {

using wire::Record;

// The parser's lines in the history log are told apart by this instance.
constexpr uint32_t history_log_instance = 2;

constexpr auto process_id = [] { return getpid(); };

struct Parse {
    zel_api_handle_t &handle;
    uint32_t app_type; // the caller's until the header comes
    Marks marks{handle, app_type};

    const void *array = nullptr;
    uint32_t num_tlvs = 0;
    bool is_counted = false;
    uint32_t consumed = 0;
    uint32_t cursor = 0;
    AllocationBudget budget{};
    bool has_header = false;
    zel_kob_header_t header{};
    std::array<void *, wire::num_mat_types> last_objects{}; // by MAT type
};

template <class... Args> void report(const Parse &parse, Severity severity, int line, const char *text, Args... args)
{
    trace(parse.handle, severity, {"parse_mat_obj_from_kob", line, history_log_instance}, text, args...);
}

template <class... Args> void report(const Parse &parse, int line, const char *text, Args... args)
{
    report(parse, Severity::detail, line, text, args...);
}

// ---- Records at the top of a message

void read(Parse &parse, const Record &record, void *object)
{
    uint32_t subtotal = 0;
    decode({{&parse.handle, parse.app_type, &parse.marks}, parse.array, &parse.cursor, parse.budget}, record, object,
           subtotal);
    parse.consumed += subtotal;
}

void read_header(Parse &parse)
{
    zel_kob_header_t &header = parse.header;
    read(parse, wire::kob_header, &header);
    parse.has_header = true;
    parse.app_type = header.app_type;
    parse.marks.set_application(header.app_type);
    report(parse, 4136,
           "PID %d: type: TLV_ZEL_KOB_HEADER, api_type: %d, app_type: %d, policy_id: %d, op_code: %d"_trace, process_id,
           header.api_type, header.app_type, header.policy_id, header.op_code);
}

void report_contents(const Parse &parse, const zel_match_t &match)
{
    report(parse, 4243, "PID %d: type: TLV_ZEL_MATCH, id: %d type: %d\n"_trace, process_id, match.id, match.type);
}

void report_contents(const Parse &parse, const zel_action_grp_t &group)
{
    report(parse, 4271, "PID %d: type: TLV_ZEL_ACTION_GROUP, id: %d\n"_trace, process_id, group.id);
}

void report_contents(const Parse &parse, const zel_action_t &action)
{
    report(parse, 4286, "PID %d: type: TLV_ZEL_ACTION, id: %d, a_type: %d\n"_trace, process_id, action.id, action.type);
}

void report_contents(const Parse &parse, const zel_match_grp_t &group)
{
    report(parse, 4229, "PID %d: type: TLV_ZEL_MATCH_GROUP, mg id: %d, num_matches: %d\n"_trace, process_id, group.id,
           group.num_match);
}

// Some objects have a report of their own after they have been decoded.
void report_contents(const Parse &parse, const Record &record, const void *object)
{
    switch (record.mat_type) {
    case ZEL_MAT_TYPE_MATCH:
        return report_contents(parse, *static_cast<const zel_match_t *>(object));
    case ZEL_MAT_TYPE_ACTION_GROUP:
        return report_contents(parse, *static_cast<const zel_action_grp_t *>(object));
    case ZEL_MAT_TYPE_ACTION:
        return report_contents(parse, *static_cast<const zel_action_t *>(object));
    case ZEL_MAT_TYPE_MATCH_GROUP:
        return report_contents(parse, *static_cast<const zel_match_grp_t *>(object));
    }
}

// A policy also stands for the groups that it embeds.
void publish(Parse &parse, const Record &record, void *object)
{
    if (record.mat_type == ZEL_MAT_TYPE_POLICY) {
        auto &policy = *static_cast<zel_policy_t *>(object);
        parse.last_objects[ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP] = &policy.match_action_pair_group;
        parse.last_objects[ZEL_MAT_TYPE_IF_GROUP] = &policy.if_group;
    }
    parse.last_objects[record.mat_type] = object;
}

// Builds the object whose start marker has just been read.  False: out of memory.
bool build(Parse &parse, const Record &record)
{
    void *const object = std::calloc(1, record.size);
    if (object == nullptr) {
        report(parse, Severity::error, __builtin_LINE(), "cannot allocate, count: %d, size: %d"_trace, 1, record.size);
        return false;
    }
    read(parse, record, object);
    report_contents(parse, record, object);
    publish(parse, record, object);
    return true;
}

// A record that may stand at the top of a message, and the report of its name.
struct Row {
    const Record *record;
    const char *name;
    int line;
};

template <const Record &R> consteval Row row(int line)
{
    constexpr std::size_t size = std::string_view(R.tlv_name).size() + 1;
    return {&R, c_str<trace_prefix + fixed_string<size>(R.tlv_name) + FixedString("\n")>, line};
}

constexpr Row rows[] = {
    row<wire::kob_header>(4123),
    row<wire::policy_list>(4142),
    row<wire::policy>(4155),
    row<wire::if_group>(4171),
    row<wire::if_element>(4182),
    row<wire::match_action_pair_grp>(4194),
    row<wire::match_action_pair>(4206),
    row<wire::match_grp>(4219),
    row<wire::match>(4234),
    row<wire::match_service_element>(4249),
    row<wire::action_grp>(4261),
    row<wire::action>(4277),
    row<wire::stat_request>(4291),
    row<wire::stat_request_entry>(4303),
};

const Row *find_row(uint16_t start)
{
    for (const Row &row : rows)
        if (row.record->start == start)
            return &row;
    return nullptr;
}

// Reads the next element at the top of the message.  False: the message ends here.
bool read_next(Parse &parse, uint16_t &type, uint16_t &length)
{
    const void *value = nullptr;
    const int32_t status = tlv_array_get_next_tlv(parse.array, &type, &length, &value, 0, &parse.cursor);
    ++parse.consumed;
    if (status != 0)
        report(parse, 4117, "tlv-get failed, i: %d, num_tlvs: %d\n"_trace, parse.consumed, parse.num_tlvs);
    return status == 0;
}

void count_elements(Parse &parse)
{
    if (!parse.is_counted && parse.array != nullptr)
        parse.num_tlvs = tlv_array_get_num_tlvs(parse.array, 0);
    parse.is_counted = true;
}

// Whether the message has more elements.  In one program with its platform, the end of the
// array says so, and the elements are counted only for reports.
bool has_more(Parse &parse)
{
#ifdef ZEL_INLINE_ELEMENTS
    if (is_quiet(parse.handle))
        return parse.array != nullptr && parse.cursor < platform::used_bytes(parse.array);
#endif
    count_elements(parse);
    return parse.consumed < parse.num_tlvs;
}

// False: out of memory.
bool read_records(Parse &parse)
{
    uint16_t type = 0;
    uint16_t length = 0;
    while (has_more(parse) && read_next(parse, type, length)) {
        const Row *const row = find_row(type);
        if (row == nullptr) {
            report(parse, 4317, "Unsupported TLV type: %d, length: %d. Ok if ISSU\n"_trace, type, length);
            continue;
        }
        report(parse, row->line, row->name);
        if (row->record == &wire::kob_header)
            read_header(parse);
        else if (!build(parse, *row->record))
            return false;
    }
    return true;
}

// Frees what was built when there is not enough memory for all of it.
void discard_objects(Parse &parse)
{
    if (parse.last_objects[ZEL_MAT_TYPE_POLICY] != nullptr) {
        auto &policy = *static_cast<zel_policy_t *>(parse.last_objects[ZEL_MAT_TYPE_POLICY]);
        for (void *&group : parse.last_objects)
            if (group == &policy.match_action_pair_group || group == &policy.if_group)
                group = nullptr; // freed with the policy
    }
    for (uint32_t mat_type = 0; mat_type < wire::num_mat_types; ++mat_type) {
        void *&object = parse.last_objects[mat_type];
        if (object != nullptr)
            free_contained_mat_obj_mem(&parse.handle, parse.app_type, mat_type, object);
        std::free(object);
        object = nullptr;
    }
}

void *parse_array(Parse &parse, const void *array)
{
    parse.array = array;
    parse.budget.array = array;
    if (!platform_is_inline || !is_quiet(parse.handle))
        count_elements(parse);
    report(parse, 4104, "num_tlvs: %d\n"_trace, parse.num_tlvs);

    const bool is_complete = read_records(parse);

    zel_empty_mat_cache(&parse.handle);
    if (!is_complete)
        discard_objects(parse);
    report(parse, 4372, "parse_mat_obj_from_kob() ends.\n"_trace);
    return parse.last_objects[get_mat_obj_type(parse.header.api_type)];
}

void begin(const Parse &parse) { report(parse, 4092, "parse_mat_obj_from_kob() begins.\n"_trace); }

} // namespace
} // namespace zel

using namespace zel;

void *parse_mat_obj_from_kob(uint32_t kob_ctx, zel_api_handle_t *handle, void *kob_msg, uint32_t *mat_type_out,
                             uint32_t *api_type_out, uint16_t *policy_id_out, uint32_t *app_type_inout)
{
    Parse parse{*handle, *app_type_inout};
    begin(parse);
    void *const object = parse_array(parse, payload_of(kob_ctx, kob_msg));
    *mat_type_out = get_mat_obj_type(parse.header.api_type);
    if (parse.has_header) {
        *api_type_out = parse.header.api_type;
        *policy_id_out = parse.header.policy_id;
        *app_type_inout = parse.header.app_type;
    }
    return object;
}

void *zel_parse_tlv_array(zel_api_handle_t *handle, const void *tlv_array, zel_kob_header_t *header)
{
    Parse parse{*handle, header->app_type};
    begin(parse);
    void *const object = parse_array(parse, tlv_array);
    if (parse.has_header)
        *header = parse.header;
    return object;
}
