/*
 * tlv_field.h - codes of the converter's calls, and the records of its iteration.
 *
 * See zel/platform/tlv_converter.h.  A body is one TLV array (zel/platform/tlv_array.h).  Every
 * field is one element.  Every record of a record array is one element with the row's
 * id; its value is a TLV array again, with the elements of the nested table.
 *
 * A newer peer may send elements that are longer than the field: the further bytes are
 * ignored.  A shorter element leaves zeros behind it.  An element without a row in the
 * table is skipped.  The number of records must be exactly what count() returns.
 *
 * When size is 0, the calls rely on the number of bytes at the start of the body.  A
 * received body must therefore be checked when it arrives (tlv_check.h); this platform's
 * transport does so.  A size other than 0 is checked by the calls.
 */
#ifndef ZEL_PLATFORM_REFERENCE_TLV_FIELD_H
#define ZEL_PLATFORM_REFERENCE_TLV_FIELD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Codes of the calls in zel/platform/tlv_converter.h. */
enum {
    TLVU_OK = 0,
    TLVU_END = 1,     /* the iteration has no further element */
    TLVU_DAMAGED = 2, /* the body, or a record in it, is cut short or claims more than there is */
    TLVU_NO_ROOM = 3, /* the buffer, or one element, cannot hold it */
    TLVU_COUNT = 4,   /* the number of records is not what the record says */
    TLVU_NO_MEMORY = 5,
    TLVU_UNKNOWN = 6, /* the table has no field with this id */
    TLVU_ABSENT = 7,  /* the body has no element with this id */
    TLVU_ARGUMENT = 8 /* a pointer is missing */
};

/* The state of an iteration; the caller's storage, filled by tlvu_field_itr_init(). */
typedef struct {
    const void *tlv;
    const void *table;
    uint32_t cursor;
    uint32_t element; /* the only element wanted, or 0 */
} tlvu_itr_t;

/* An element that an iteration reached.  Borrowed from the body. */
typedef struct {
    const void *value; /* unaligned */
    uint16_t element;
    uint16_t length; /* of the value, which may be shorter or longer than the field */
    uint32_t kind;   /* ZEL_FIELD_*; the value of a record array's is a TLV array */
    uint32_t size;   /* bytes of the field in the record, or of one record of an array */
} tlvu_field_t;

#ifdef __cplusplus
}
#endif

#endif
