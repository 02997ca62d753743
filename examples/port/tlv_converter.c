/*
 * The converter, for statistics.  Each field is an element.  The elements of nested records
 * follow in the same array; a nested record begins with the first field of its table.
 */
#include "zel/platform/tlv_converter.h"
#include "port.h"
#include "zel.h"
#include "zel/platform/tlv_array.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef const zel_table_row_t *row_t;

static row_t rows_of(const void *table) { return (row_t)((const zel_table_header_t *)table + 1); }
static uint32_t size_of_record(const void *table) { return ((const zel_table_header_t *)table)->record_size; }
static int is_field(row_t row) { return row->kind != ZEL_FIELD_RECORD_ARRAY; }

/* The row of a field, or null.  The last row of a table has no element. */
static row_t find_field(const void *table, uint32_t element)
{
    row_t row = rows_of(table);
    while (row->element != ZEL_FIELD_NONE && (row->element != element || !is_field(row)))
        ++row;
    return row->element != ZEL_FIELD_NONE ? row : NULL;
}

/* The row of nested records, or null.  No table has two. */
static row_t find_nested(const void *table)
{
    row_t row = rows_of(table);
    while (row->element != ZEL_FIELD_NONE && is_field(row))
        ++row;
    return row->element != ZEL_FIELD_NONE ? row : NULL;
}

/* ---- From record to elements */

static const char *records_of(row_t nested, const void *record)
{
    const char *records;
    memcpy(&records, (const char *)record + nested->offset, sizeof records);
    return records;
}

uint32_t tlvu_table_size(const void *table, const void *record)
{
    row_t nested = find_nested(table);
    const int32_t count = nested != NULL ? nested->count(record) : 0;
    uint32_t size = count > 0 ? (uint32_t)count * tlvu_table_size(nested->nested, records_of(nested, record)) : 0;
    for (row_t row = rows_of(table); row->element != ZEL_FIELD_NONE; ++row)
        size += is_field(row) ? tlv_size_get(row->size) : 0;
    return size;
}

static int32_t append(void *tlv, uint32_t capacity, const void *table, const char *record)
{
    for (row_t row = rows_of(table); row->element != ZEL_FIELD_NONE; ++row)
        if (is_field(row) &&
            tlv_array_add_tlv(tlv, capacity, (uint16_t)row->element, (uint16_t)row->size, record + row->offset, 0) != 0)
            return -1;
    row_t nested = find_nested(table);
    const int32_t count = nested != NULL ? nested->count(record) : 0;
    for (int32_t i = 0; i < count; ++i)
        if (append(tlv, capacity, nested->nested, records_of(nested, record) + (size_t)i * nested->width) != 0)
            return -1;
    return 0;
}

int32_t tlvu_table_convert_struct_to_tlv(void *tlv, uintptr_t capacity, const void *table, const void *record,
                                         void *written, uintptr_t flags, uintptr_t reserved)
{
    (void)flags, (void)reserved;
    if (append(tlv, (uint32_t)capacity, table, record) != 0)
        return -1;
    const uint32_t bytes = 4 + tlvu_table_size(table, record); /* 4: what an array takes */
    if (written != NULL)
        memcpy(written, &bytes, sizeof bytes);
    return 0;
}

/* ---- From elements to record */

static int next_element(const void *tlv, uint32_t *cursor, loopback_field_t *field)
{
    return tlv_array_get_next_tlv(tlv, &field->element, &field->length, &field->value, 0, cursor) == 0;
}

/* The field is zero already: a shorter value leaves zeros.  The rest of a longer one is ignored. */
static void fill(void *field, row_t row, const loopback_field_t *from)
{
    memcpy(field, from->value, from->length < row->size ? from->length : row->size);
}

int32_t tlvu_table_get_struct_size_from_tlv(int32_t *size, const void *tlv, uintptr_t reserved, const void *table)
{
    (void)reserved;
    row_t nested = find_nested(table);
    uint64_t bytes = size_of_record(table);
    loopback_field_t field;
    for (uint32_t cursor = 0; nested != NULL && next_element(tlv, &cursor, &field);)
        bytes += field.element == rows_of(nested->nested)->element ? nested->width : 0;
    *size = bytes <= INT32_MAX ? (int32_t)bytes : -1;
    return bytes <= INT32_MAX ? 0 : -1;
}

/* Fills a block of zeros.  Not 0: the number of records is not what the record says. */
static int32_t fill_block(char *block, const void *tlv, const void *table)
{
    row_t nested = find_nested(table);
    char *const records = block + size_of_record(table);
    int32_t count = 0;
    loopback_field_t field;
    for (uint32_t cursor = 0; next_element(tlv, &cursor, &field);) {
        row_t row = find_field(table, field.element);
        if (row != NULL) {
            fill(block + row->offset, row, &field);
        } else if (nested != NULL && (row = find_field(nested->nested, field.element)) != NULL) {
            count += row == rows_of(nested->nested);
            if (count == 0)
                return -1;
            fill(records + (size_t)(count - 1) * nested->width + row->offset, row, &field);
        }
    }
    if (nested == NULL)
        return 0;
    if (count != 0)
        memcpy(block + nested->offset, &(char *){records}, sizeof records);
    return nested->count(block) == count ? 0 : -1;
}

int32_t tlvu_table_convert_tlv_to_struct(void *record_slot, const void *tlv, uintptr_t size, const void *table,
                                         uintptr_t caller_owned)
{
    char *block = NULL;
    int32_t needed;
    if (caller_owned == 0)
        memcpy(record_slot, &block, sizeof block); /* null, should anything fail */
    if (tlvu_table_get_struct_size_from_tlv(&needed, tlv, 0, table) != 0 ||
        (caller_owned != 0 && size < (uintptr_t)needed))
        return -1;
    if (caller_owned != 0) {
        memcpy(&block, record_slot, sizeof block);
        return fill_block(memset(block, 0, (size_t)needed), tlv, table);
    }
    block = calloc(1, (size_t)needed);
    if (block == NULL || fill_block(block, tlv, table) != 0) {
        free(block);
        return -1;
    }
    memcpy(record_slot, &block, sizeof block);
    return 0;
}

/* ---- Single fields */

int32_t tlvu_field_itr_init(void *itr, const void *tlv, uintptr_t size, const void *table, uintptr_t flags,
                            uint16_t element)
{
    (void)size, (void)flags;
    *(loopback_itr_t *)itr = (loopback_itr_t){tlv, table, 0, element};
    return 0;
}

int32_t tlvu_field_itr_get_next(void *itr, void *field)
{
    loopback_itr_t *own = itr;
    loopback_field_t *reached = field;
    while (next_element(own->tlv, &own->cursor, reached))
        if (find_field(own->table, reached->element) != NULL && (own->element == 0 || own->element == reached->element))
            return 0;
    return -1;
}

int32_t tlvu_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value, uintptr_t capacity,
                       const void *table)
{
    row_t row = find_field(table, (uint32_t)element);
    loopback_itr_t itr;
    loopback_field_t field;
    tlvu_field_itr_init(&itr, tlv, size, table, 0, (uint16_t)element);
    if (row == NULL || row->size > capacity || tlvu_field_itr_get_next(&itr, &field) != 0)
        return -1;
    memset(value, 0, row->size);
    fill(value, row, &field);
    return 0;
}

void tlvu_error_print(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    (void)vfprintf(stderr, format, arguments);
    va_end(arguments);
}
