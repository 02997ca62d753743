/*
 * tlv_converter.h - the table-driven converter between records and TLV elements.
 *
 * The library describes its statistics records by tables: zel_table_header_t followed
 * by rows of zel_table_row_t, see zel.h.  The converter converts records by these
 * tables and decides on the wire form of the elements.  The library passes its
 * callers' arguments on unchanged.  The meanings below are those that its own call,
 * zel_parse_stats(), and the accessors in zel.h rely on.
 *
 * For each row, one element with the row's id carries the bytes of the field: width
 * bytes for a scalar, width times count for a fixed array.  A record array carries,
 * for each of its count() records, the elements of the nested table.  In the block
 * that a record is converted into, nested records follow the record directly.
 *
 * Tables are trusted, elements are not.  A call must not read or write outside the
 * memory that it is given.  Calls that return int32_t return 0, or a non-zero code on
 * failure.
 */
#ifndef ZEL_PLATFORM_TLV_CONVERTER_H
#define ZEL_PLATFORM_TLV_CONVERTER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Converts a record into elements appended in a buffer; bytes used go to *(uint32_t *)written. */
int32_t tlvu_table_convert_struct_to_tlv(void *tlv, uintptr_t capacity, const void *table, const void *record,
                                         void *written, uintptr_t flags, uintptr_t reserved);

/*
 * Converts elements into a record.  record_slot is the address of a record
 * pointer.  With caller_owned 0 the converter allocates one block with calloc()
 * or malloc(), of the size that it needs whatever size says, and stores its
 * address there; the caller frees it with free().  Otherwise the pointer leads
 * to size bytes to fill.  On a non-zero code nothing stays allocated and a slot
 * that the converter was to fill is left null.
 */
int32_t tlvu_table_convert_tlv_to_struct(void *record_slot, const void *tlv, uintptr_t size, const void *table,
                                         uintptr_t caller_owned);

/* Bytes of the elements that a record converts to. */
uint32_t tlvu_table_size(const void *table, const void *record);

/* Bytes of the block, nested records included, that elements convert to. */
int32_t tlvu_table_get_struct_size_from_tlv(int32_t *size, const void *tlv, uintptr_t reserved, const void *table);

/* Reads the field of one element out of tlv into value, which has room for capacity bytes. */
int32_t tlvu_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value, uintptr_t capacity,
                       const void *table);

/* Starts an iteration over the elements of tlv that have a row in the table; element 0: all of them. */
int32_t tlvu_field_itr_init(void *itr, const void *tlv, uintptr_t size, const void *table, uintptr_t flags,
                            uint16_t element);

/* Steps an iteration and describes the element reached in *field; non-zero at the end. */
int32_t tlvu_field_itr_get_next(void *itr, void *field);

/* Prints a conversion error, printf-like. */
void tlvu_error_print(const char *format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif
