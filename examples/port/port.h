/*
 * port.h - what this platform adds to the contract: the message record, and the records that
 * the users of the converter see.
 */
#ifndef LOOPBACK_PORT_H
#define LOOPBACK_PORT_H

#include "zel/platform/transport.h"

#include <stdint.h>

/*
 * A message record.  A send leaves in it what a receiver would get, because this transport
 * has no other side.  Zero-fill it first; free payload last.
 */
typedef struct {
    void *payload; /* aligned, and followed by 64 zeros; null: nothing arrived */
    uint32_t token;
    uint32_t in_parts;
} loopback_msg_t;

/* 0: sends succeed.  Any other number is the errno value with which they fail. */
extern int32_t loopback_errno;

/*
 * Puts a response into a record: a header of 268 bytes, and a TLV array or nothing behind it.
 * Returns 0, or -1 when the bytes are not that or memory is short; then msg has no payload.
 */
int32_t loopback_answer(loopback_msg_t *msg, const void *bytes, uint32_t size);

/*
 * Whether a received array lies within the bytes that arrived.  The readers of an array do not
 * have that number, so every receiver asks once.
 */
int loopback_is_array(const void *bytes, uint32_t size);

/* The state of an iteration, and what it reached. */
typedef struct {
    const void *tlv, *table;
    uint32_t cursor, element;
} loopback_itr_t;

typedef struct {
    const void *value; /* borrowed */
    uint16_t element, length;
} loopback_field_t;

#endif
