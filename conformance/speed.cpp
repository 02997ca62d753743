#include "conformance/speed.hpp"
#include "conformance/library.hpp"
#include "conformance/run.hpp"
#include "zel/platform/avl_tree.h"
#include "zel/platform/heartbeat.h"
#include "zel/platform/tlv_array.h"
#include "zel/platform/tlv_converter.h"
#include "zel/platform/trace.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ctime>

namespace zel::conformance {
namespace {

constexpr uint32_t rounds = 9;

double now_ns()
{
    timespec time{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// The least time of several rounds, for one of count steps.
template <class Before, class Step> double least(uint32_t count, Before before, Step step)
{
    double best = 1e18;
    for (uint32_t round = 0; round < rounds; ++round) {
        before();
        const double start = now_ns();
        step();
        best = std::min(best, now_ns() - start);
    }
    return best / count;
}

// Each step loads from an address that the step before it computed.
double time_plain_loop()
{
    constexpr uint32_t steps = 200000;
    static uint32_t table[1024];
    for (uint32_t i = 0; i < 1024; ++i)
        table[i] = i * 37 + 11;
    return least(
        steps, [] {},
        [] {
            uint32_t at = 1;
            for (uint32_t i = 0; i < steps; ++i)
                at = table[at & 1023] + 1;
            volatile uint32_t kept = at;
            (void)kept;
        });
}

// ---- Arrays

constexpr uint32_t num_elements = 10000;
constexpr uint32_t array_capacity = num_elements * 64;
alignas(16) unsigned char array[array_capacity];

void fill_array()
{
    const uint32_t value = 7;
    for (uint32_t i = 0; i < num_elements; ++i)
        (void)tlv_array_add_tlv(array, array_capacity, 130, sizeof value, &value, 0);
}

void clear_array() { std::memset(array, 0, sizeof array); }

double time_add() { return least(num_elements, clear_array, fill_array); }

double time_next()
{
    fill_array();
    return least(
        num_elements, [] {},
        [] {
            uint16_t type = 0;
            uint16_t length = 0;
            const void *value = nullptr;
            uint32_t cursor = 0;
            while (tlv_array_get_next_tlv(array, &type, &length, &value, 0, &cursor) == 0) {
            }
        });
}

double time_count()
{
    fill_array();
    return least(
        num_elements, [] {}, [] { (void)tlv_array_get_num_tlvs(array, 0); });
}

double time_size()
{
    constexpr uint32_t calls = 100000;
    return least(
        calls, [] {},
        [] {
            for (uint32_t i = 0; i < calls; ++i)
                (void)tlv_size_get(i & 63);
        });
}

// ---- Tree

constexpr uint32_t largest_tree = 65536;
ravl_tree_t tree;
zel_mat_cache_entry_t entries[largest_tree];

void empty_tree()
{
    std::memset(entries, 0, sizeof entries);
    (void)ravl_init(&tree, sizeof(zel_mat_cache_key_t), offsetof(zel_mat_cache_entry_t, key), zel_mat_cache_comp_func);
    for (uint32_t i = 0; i < largest_tree; ++i) {
        entries[i].key.mat_type = ZEL_MAT_TYPE_MATCH;
        entries[i].key.mat_id = static_cast<uint16_t>(i);
    }
}

void fill_tree(uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        if (ravl_lookup(&tree, &entries[i].key) == nullptr)
            (void)ravl_insert(&tree, &entries[i]);
}

void drain_tree()
{
    while (ravl_is_empty(&tree) == 0)
        ravl_delete(&tree, tree.root);
}

double time_lookups(uint32_t count)
{
    constexpr uint32_t lookups = 65536;
    empty_tree();
    fill_tree(count);
    return least(
        lookups, [] {},
        [count] {
            for (uint32_t i = 0; i < lookups; ++i)
                (void)ravl_lookup(&tree, &entries[i * 2683 % count].key);
        });
}

constexpr uint32_t message_entries = 4096;

double time_insert()
{
    return least(message_entries, empty_tree, [] { fill_tree(message_entries); });
}
double time_lookup_few() { return time_lookups(64); }
double time_lookup_many() { return time_lookups(largest_tree); }
double time_delete()
{
    return least(
        message_entries, [] { empty_tree(), fill_tree(message_entries); }, drain_tree);
}

// ---- Converter

constexpr uint32_t num_results = 300;

zel_stat_results_t results()
{
    static auto *const records =
        static_cast<zel_stat_result_entry_t *>(std::calloc(num_results, sizeof(zel_stat_result_entry_t)));
    return {1, num_results, records};
}

void write_results()
{
    const zel_stat_results_t record = results();
    clear_array();
    (void)tlvu_table_convert_struct_to_tlv(array, sizeof array, &zel_stat_results_tbl, &record, nullptr, 0, 0);
}

double time_to_elements()
{
    return least(num_results, clear_array, [] {
        const zel_stat_results_t record = results();
        (void)tlvu_table_convert_struct_to_tlv(array, sizeof array, &zel_stat_results_tbl, &record, nullptr, 0, 0);
    });
}

double time_to_record()
{
    write_results();
    return least(
        num_results, [] {},
        [] {
            void *record = nullptr;
            (void)tlvu_table_convert_tlv_to_struct(&record, array, 0, &zel_stat_results_tbl, 0);
            std::free(record);
        });
}

// ---- Trace, heartbeat, and the library on all of it

constexpr uint32_t calls = 20000;

double time_trace()
{
    return least(
        calls, [] {},
        [] {
            for (uint32_t i = 0; i < calls; ++i) {
                (void)trc_hist_event_subtype_check(ZEL_TRACE_MODULE_ID, ZEL_TRACE_DEBUG);
                (void)trc_chk_int(ZEL_TRACE_DEBUG, 0, 0, 1);
            }
        });
}

double time_heartbeat()
{
    return least(
        calls, [] {},
        [] {
            for (uint32_t i = 0; i < calls; ++i)
                fu_keeper_update_and_send_heartbeat(0);
        });
}

double time_encoding()
{
    const SamplePolicy policy;
    zel_api_handle_t handle = counting_handle();
    return least(
        SamplePolicy::num_objects, [] {},
        [&] {
            uint32_t size = 0;
            std::free(zel_encode_message(&handle, &SamplePolicy::header, policy.get(), &size));
        });
}

double time_decoding()
{
    const SamplePolicy policy;
    zel_api_handle_t handle = counting_handle();
    uint32_t size = 0;
    void *const message = zel_encode_message(&handle, &SamplePolicy::header, policy.get(), &size);
    if (message == nullptr || size + 64 > sizeof array)
        return 0;
    std::memcpy(array, message, size);
    std::free(message);
    return least(
        SamplePolicy::num_objects, [] {},
        [&] {
            zel_kob_header_t header{};
            void *const graph = zel_parse_tlv_array(&handle, array, &header);
            free_contained_mat_obj_mem(&handle, 3, ZEL_MAT_TYPE_POLICY, graph);
            std::free(graph);
        });
}

// The order is that of what a call brings when it is made faster.
Speed speeds[] = {
    {"ravl_lookup, ravl_insert", "entry, 4096 in all", time_insert},
    {"ravl_delete", "root, 4096 in all", time_delete},
    {"ravl_lookup", "call, 64 entries", time_lookup_few},
    {"ravl_lookup", "call, 65536 entries", time_lookup_many},
    {"tlv_array_add_tlv", "element of 4 bytes", time_add},
    {"tlv_array_get_next_tlv", "element of 4 bytes", time_next},
    {"tlv_array_get_num_tlvs", "element of 4 bytes", time_count},
    {"tlv_size_get", "call", time_size},
    {"tlvu_table_convert_struct_to_tlv", "entry of statistics", time_to_elements},
    {"tlvu_table_convert_tlv_to_struct", "entry of statistics", time_to_record},
    {"trace checks", "both, of one report", time_trace},
    {"heartbeat", "call", time_heartbeat},
    {"library: encoding", "match or action", time_encoding},
    {"library: decoding", "match or action", time_decoding},
};

constexpr double recorded[2][std::size(speeds)] = {
#include "conformance/reference_ratios.inc"
};

// A measurement as a check: a number is its outcome.
double (*measured)();

Outcome measure_here()
{
    const double nanoseconds = measured();
    Outcome made = kept("");
    std::memcpy(made.text, &nanoseconds, sizeof nanoseconds);
    return made;
}

// 0: the port did not survive it.
double measure(double (*measurement)())
{
    measured = measurement;
    const Outcome made = run(measure_here);
    double nanoseconds = 0;
    if (made.state == State::kept)
        std::memcpy(&nanoseconds, made.text, sizeof nanoseconds);
    return nanoseconds;
}

} // namespace

std::span<const Speed> measure_speeds(double &plain_loop)
{
    plain_loop = measure(time_plain_loop);
    for (std::size_t i = 0; i < std::size(speeds); ++i) {
        speeds[i].nanoseconds = measure(speeds[i].measure);
        speeds[i].ratio = plain_loop > 0 ? speeds[i].nanoseconds / plain_loop : 0;
        speeds[i].reference = recorded[sizeof(void *) == 8 ? 0 : 1][i];
    }
    return speeds;
}

} // namespace zel::conformance
