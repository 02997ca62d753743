// The tables that describe the statistics records to the platform's converter.
#include "zel.h"

#include <cstddef>

namespace {

constexpr zel_table_row_t scalar(uint32_t element, uint32_t width, uint32_t offset)
{
    const uint32_t kind = width == 1 ? ZEL_FIELD_BYTE : ZEL_FIELD_UNSIGNED;
    return {element, width, offset, kind, {}, nullptr, 0, width, ZEL_FIELD_NONE, nullptr};
}

constexpr zel_table_row_t fixed_array(uint32_t element, uint32_t width, uint32_t offset, uint32_t size)
{
    return {element, width, offset, ZEL_FIELD_FIXED_ARRAY, {}, nullptr, 0, size, ZEL_FIELD_NONE, nullptr};
}

constexpr zel_table_row_t terminator = {ZEL_FIELD_NONE, ZEL_FIELD_NONE, ZEL_FIELD_NONE, 0,      {}, nullptr,
                                        ZEL_FIELD_NONE, ZEL_FIELD_NONE, ZEL_FIELD_NONE, nullptr};

} // namespace

constinit const zel_stats_tbl_t zel_stats_tbl = {
    {sizeof(zel_stats_t), "zel_stats_t", {}},
    {
        scalar(148, sizeof zel_stats_t::counter1, offsetof(zel_stats_t, counter1)),
        scalar(149, sizeof zel_stats_t::counter2, offsetof(zel_stats_t, counter2)),
        terminator,
    },
};

constinit const zel_stat_result_entry_tbl_t zel_stat_result_entry_tbl = {
    {sizeof(zel_stat_result_entry_t), "zel_stat_result_entry_t", {}},
    {
        scalar(150, sizeof zel_stat_result_entry_t::tag, offsetof(zel_stat_result_entry_t, tag)),
        scalar(151, sizeof zel_stat_result_entry_t::key, offsetof(zel_stat_result_entry_t, key)),
        fixed_array(152, sizeof(uint16_t), offsetof(zel_stat_result_entry_t, ids), sizeof zel_stat_result_entry_t::ids),
        fixed_array(153, sizeof(zel_stats_t), offsetof(zel_stat_result_entry_t, stats),
                    sizeof zel_stat_result_entry_t::stats),
        terminator,
    },
};

constinit const zel_stat_results_tbl_t zel_stat_results_tbl = {
    {sizeof(zel_stat_results_t), "zel_stat_results_t", {}},
    {
        scalar(154, sizeof zel_stat_results_t::tag, offsetof(zel_stat_results_t, tag)),
        scalar(155, sizeof zel_stat_results_t::num_entries, offsetof(zel_stat_results_t, num_entries)),
        {156,
         sizeof(zel_stat_result_entry_t),
         offsetof(zel_stat_results_t, entries),
         ZEL_FIELD_RECORD_ARRAY,
         {},
         zel_stat_results_get_num_entries,
         0,
         sizeof zel_stat_results_t::entries,
         ZEL_FIELD_NONE,
         &zel_stat_result_entry_tbl},
        terminator,
    },
};
