/*
 * zel/service.h - receiving requests and answering them.
 *
 * A service reads each received message with one call, which verifies it first.  It then
 * has the header and the object, or an answer that says what is wrong with the message.
 *
 *     while (kob_service_receive(service, msg, -1) == KOB_OK) {
 *         zel_request_t request = {.size = sizeof request};
 *         if (zel_request_read(0, msg, NULL, &request) == ZEL_REQUEST_OK &&
 *             request.header.api_type == ZEL_API_POLICY_UPDATE && request.header.op_code == ZEL_OP_SET) {
 *             const zel_policy_t *policy = request.object;
 *             zel_request_answer(&request, ZEL_ERROR_NONE, "policy %u is set", policy->id);
 *         }
 *         kob_service_reply(service, msg, request.reply, request.num_segments);
 *         zel_request_free(&request);
 *     }
 *
 * There is an answer at any time after zel_request_read(): a request that the service does
 * nothing about is refused as unsupported.  A record that was not read, and is 0 but for its
 * size, can be answered, too.
 *
 * The calls keep nothing between them, take no callback, and are reentrant.  A request is
 * used by one thread at a time.
 */
#ifndef ZEL_SERVICE_H
#define ZEL_SERVICE_H

#include "zel.h"
#include "zel/platform/transport.h"
#include "zel/protocol.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What zel_request_read() returns. */
enum {
    ZEL_REQUEST_OK = 0,       /* header and object have been read */
    ZEL_REQUEST_REFUSED = 1,  /* the message does not have the shape of a request; the answer says why */
    ZEL_REQUEST_NO_MEMORY = 2 /* the object could not be built; nothing stays allocated */
};

/* Options.  Null stands for all zero.  A later version may add members at the end. */
typedef struct {
    uint32_t size;            /* sizeof(zel_request_options_t), set by the caller */
    uint32_t strict;          /* not 0: an element that no record has is refused, see zel_verify_options_t */
    uint32_t is_verified;     /* not 0: the caller has verified these bytes, and they have not changed */
    zel_api_handle_t *handle; /* reads with this handle, for its debug flag and callbacks; null: with a silent one */
} zel_request_options_t;

/*
 * A request and its answer.  The caller owns the record, sets size, and does not copy it:
 * reply points into it.  Everything else is read, or written where it says so.
 */
typedef struct {
    uint32_t size;             /* sizeof(zel_request_t), set by the caller */
    uint32_t result;           /* ZEL_REQUEST_* */
    uint32_t rule;             /* the broken rule, ZEL_VERIFY_*, or ZEL_VERIFY_OK */
    uint32_t unknown_elements; /* that a newer client sent, and that were passed over */
    zel_kob_header_t header;   /* request kind, application, policy, op_code; all 0 unless ZEL_REQUEST_OK */
    uint32_t mat_type;         /* of the object */
    void *object;              /* null for a delete without object; a caller that takes it over sets it to null */
    mpkob_segment_t reply[2];  /* the answer, for the transport's reply call */
    uint32_t num_segments;     /* of reply */
    void *body;                /* what follows the answer's header, from malloc(); null for nothing */
    zel_resp_hdr_t answer;     /* the header; its retval may be changed by the caller */
} zel_request_t;

/*
 * Verifies a received message and reads it.  Allocates the object.  Whatever the result is,
 * the caller answers and calls zel_request_free().
 *
 * kob_ctx  transport context, for the multi-part accessors
 */
ZEL_EXPORT uint32_t zel_request_read(uint32_t kob_ctx, void *kob_msg, const zel_request_options_t *options,
                                     zel_request_t *request);

/* The same for a TLV array in memory, behind which 64 bytes can be read. */
ZEL_EXPORT uint32_t zel_request_read_array(const void *tlv_array, const zel_request_options_t *options,
                                           zel_request_t *request);

/*
 * Makes the answer: success with ZEL_ERROR_NONE, otherwise a refusal.  format is that of
 * printf(); the text is cut to ZEL_RESP_TEXT_SIZE bytes.  Replaces an earlier answer.
 */
ZEL_EXPORT void zel_request_answer(zel_request_t *request, uint32_t error, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/*
 * Makes a successful answer with statistics, which zel_parse_stats() reads.  The entries are
 * copied.  Returns ZEL_REQUEST_OK, or ZEL_REQUEST_NO_MEMORY; then the answer is a refusal.
 */
ZEL_EXPORT uint32_t zel_request_answer_stats(zel_request_t *request, const zel_stat_result_entry_t *entries,
                                             uint32_t num_entries);

/* Frees the object and the body.  The answer must not be sent afterwards. */
ZEL_EXPORT void zel_request_free(zel_request_t *request);

#ifdef __cplusplus
}
#endif

#endif /* ZEL_SERVICE_H */
