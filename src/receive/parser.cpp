// The message parser: the service's side of send_to_zel().
#include "decode/expected.hpp"
#include "receive/payload.hpp"

#include <array>
#include <cstdlib>
#include <unistd.h>

namespace zel {
namespace {

// The parser's lines in the history log are told apart by this instance.
constexpr uint32_t history_log_instance = 2;

constexpr auto process_id = [] { return getpid(); };

struct Parse {
    zel_api_handle_t &handle;
    uint32_t &app_type;
    uint32_t *api_type_out;
    uint16_t *policy_id_out;

    const void *payload = nullptr;
    uint32_t num_tlvs = 0;
    uint32_t consumed = 0;
    uint32_t cursor = 0;
    Claims claims{};
    zel_kob_header_t header{};
    std::array<void *, num_mat_types> last_objects{}; // by MAT type
};

template <class... Args> void report(const Parse &parse, Severity severity, int line, const char *text, Args... args)
{
    trace(parse.handle, severity, {"parse_mat_obj_from_kob", line, history_log_instance}, text, args...);
}

template <class... Args> void report(const Parse &parse, int line, const char *text, Args... args)
{
    report(parse, Severity::detail, line, text, args...);
}

// What is worth a line of its own when it has been decoded.
template <class R> void describe(const Parse &, const R &) {}

void describe(const Parse &parse, const zel_match_t &match)
{
    report(parse, 4243, "PID %d: type: TLV_ZEL_MATCH, id: %d type: %d\n"_trace, process_id, match.id, match.type);
}

void describe(const Parse &parse, const zel_action_grp_t &group)
{
    report(parse, 4271, "PID %d: type: TLV_ZEL_ACTION_GROUP, id: %d\n"_trace, process_id, group.id);
}

void describe(const Parse &parse, const zel_action_t &action)
{
    report(parse, 4286, "PID %d: type: TLV_ZEL_ACTION, id: %d, a_type: %d\n"_trace, process_id, action.id, action.type);
}

void describe(const Parse &parse, const zel_match_grp_t &group)
{
    report(parse, 4229, "PID %d: type: TLV_ZEL_MATCH_GROUP, mg id: %d, num_matches: %d\n"_trace, process_id, group.id,
           group.num_match);
}

// A policy also answers for the groups that it embeds.
template <class R> void publish(Parse &parse, R &record) { parse.last_objects[MatObjectOf<R>::type] = &record; }

void publish(Parse &parse, zel_policy_t &policy)
{
    parse.last_objects[ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP] = &policy.match_action_pair_group;
    parse.last_objects[ZEL_MAT_TYPE_IF_GROUP] = &policy.if_group;
    parse.last_objects[ZEL_MAT_TYPE_POLICY] = &policy;
}

template <class R> void read(Parse &parse, R &record)
{
    uint32_t subtotal = 0;
    decode({parse.handle, parse.payload, parse.cursor, parse.app_type, parse.claims}, record, subtotal);
    parse.consumed += subtotal;
}

// Builds the object whose start marker has just been read.  False: out of memory.
template <class R> bool build(Parse &parse)
{
    auto *const record = static_cast<R *>(std::calloc(1, sizeof(R)));
    if (record == nullptr) {
        report(parse, Severity::error, __builtin_LINE(), "cannot allocate, count: %d, size: %d"_trace, 1,
               static_cast<uint32_t>(sizeof(R)));
        return false;
    }
    read(parse, *record);
    describe(parse, *record);
    publish(parse, *record);
    return true;
}

bool build_header(Parse &parse)
{
    const zel_kob_header_t &header = parse.header;
    read(parse, parse.header);
    *parse.api_type_out = header.api_type;
    parse.app_type = header.app_type;
    *parse.policy_id_out = header.policy_id;
    report(parse, 4136,
           "PID %d: type: TLV_ZEL_KOB_HEADER, api_type: %d, app_type: %d, policy_id: %d, op_code: %d"_trace, process_id,
           header.api_type, header.app_type, header.policy_id, header.op_code);
    return true;
}

// An object that may stand at the top of a message.
struct Row {
    const char *name;
    int line; // of the report of the name
    uint16_t start;
    bool (*build)(Parse &);
};

template <class R> consteval Row row(int line)
{
    return {c_str<trace_prefix + MatObjectOf<R>::tlv_name + FixedString("\n")>, line, Wire<R>::start, build<R>};
}

constexpr Row rows[] = {
    {"TLV_ZEL_KOB_HEADER\n"_trace, 4123, Wire<zel_kob_header_t>::start, build_header},
    row<zel_policy_list_t>(4142),
    row<zel_policy_t>(4155),
    row<zel_if_group_t>(4171),
    row<zel_if_element_t>(4182),
    row<zel_match_action_pair_grp_t>(4194),
    row<zel_match_action_pair_t>(4206),
    row<zel_match_grp_t>(4219),
    row<zel_match_t>(4234),
    row<zel_match_service_element_t>(4249),
    row<zel_action_grp_t>(4261),
    row<zel_action_t>(4277),
    row<zel_stat_request_t>(4291),
    row<zel_stat_request_entry_t>(4303),
};

const Row *find_row(uint16_t type)
{
    for (const Row &row : rows)
        if (row.start == type)
            return &row;
    return nullptr;
}

void read_objects(Parse &parse)
{
    while (parse.consumed < parse.num_tlvs) {
        uint16_t type = 0;
        uint16_t length = 0;
        const void *value = nullptr;
        const int32_t status = tlv_array_get_next_tlv(parse.payload, &type, &length, &value, 0, &parse.cursor);
        ++parse.consumed;
        if (status != 0) {
            report(parse, 4117, "tlv-get failed, i: %d, num_tlvs: %d\n"_trace, parse.consumed, parse.num_tlvs);
            return;
        }
        const Row *const row = find_row(type);
        if (row == nullptr) {
            report(parse, 4317, "Unsupported TLV type: %d, length: %d. Ok if ISSU\n"_trace, type, length);
            continue;
        }
        report(parse, row->line, row->name);
        if (!row->build(parse))
            return;
    }
}

} // namespace
} // namespace zel

using namespace zel;

void *parse_mat_obj_from_kob(uint32_t kob_ctx, zel_api_handle_t *handle, void *kob_msg, uint32_t *mat_type_out,
                             uint32_t *api_type_out, uint16_t *policy_id_out, uint32_t *app_type_inout)
{
    Parse parse{*handle, *app_type_inout, api_type_out, policy_id_out};
    report(parse, 4092, "parse_mat_obj_from_kob() begins.\n"_trace);
    parse.payload = payload_of(kob_ctx, kob_msg);
    parse.claims.array = parse.payload;
    if (parse.payload != nullptr)
        parse.num_tlvs = tlv_array_get_num_tlvs(parse.payload, 0);
    report(parse, 4104, "num_tlvs: %d\n"_trace, parse.num_tlvs);

    read_objects(parse);

    const uint32_t mat_type = get_mat_obj_type(parse.header.api_type);
    *mat_type_out = mat_type;
    zel_empty_mat_cache(handle);
    report(parse, 4372, "parse_mat_obj_from_kob() ends.\n"_trace);
    return parse.last_objects[mat_type];
}
