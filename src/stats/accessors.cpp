// The accessors: the platform's converter bound to each table.
#include "zel.h"
#include "zel/platform/tlv_converter.h"

namespace {

int32_t checked(const char *function, int32_t code)
{
    if (code != 0)
        tlvu_error_print("%s: ERR 0x%x\n", function, static_cast<unsigned>(code));
    return code;
}

int32_t record_size(const char *function, const void *tlv, const void *table)
{
    int32_t size = 0;
    return checked(function, tlvu_table_get_struct_size_from_tlv(&size, tlv, 0, table)) == 0 ? size : -1;
}

} // namespace

// C names cannot come from a template, so this makes them.
#define ACCESSORS(record_name)                                                                                         \
    int32_t record_name##_field_get_next(void *itr, void *field) { return tlvu_field_itr_get_next(itr, field); }       \
    int32_t record_name##_field_itr_init(void *itr, const void *tlv, uintptr_t size, uintptr_t flags,                  \
                                         uint16_t element)                                                             \
    {                                                                                                                  \
        return tlvu_field_itr_init(itr, tlv, size, &record_name##_tbl, flags, element);                                \
    }                                                                                                                  \
    int32_t record_name##_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value,                   \
                                    uintptr_t capacity)                                                                \
    {                                                                                                                  \
        return tlvu_get_field(tlv, size, element, value, capacity, &record_name##_tbl);                                \
    }                                                                                                                  \
    int32_t record_name##_get_struct_sz(const void *tlv) { return record_size(__func__, tlv, &record_name##_tbl); }    \
    uint32_t record_name##_get_tlv_sz(const record_name##_t *record)                                                   \
    {                                                                                                                  \
        return tlvu_table_size(&record_name##_tbl, record);                                                            \
    }                                                                                                                  \
    int32_t record_name##_to_tlv(const record_name##_t *record, void *tlv, uintptr_t capacity, void *written,          \
                                 uintptr_t flags, uintptr_t reserved)                                                  \
    {                                                                                                                  \
        return checked(__func__, tlvu_table_convert_struct_to_tlv(tlv, capacity, &record_name##_tbl, record, written,  \
                                                                  flags, reserved));                                   \
    }                                                                                                                  \
    int32_t record_name##_to_struct(void *record_slot, const void *tlv, uintptr_t size, uintptr_t caller_owned)        \
    {                                                                                                                  \
        return checked(__func__,                                                                                       \
                       tlvu_table_convert_tlv_to_struct(record_slot, tlv, size, &record_name##_tbl, caller_owned));    \
    }

ACCESSORS(zel_stats)
ACCESSORS(zel_stat_result_entry)
ACCESSORS(zel_stat_results)
