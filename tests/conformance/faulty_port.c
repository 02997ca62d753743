/*
 * The platform of examples/port with one fault, that the environment variable FAULT names.  The
 * linker puts these functions before those of the platform.
 */
#include "port.h"
#include "zel.h"
#include "zel/platform/avl_tree.h"
#include "zel/platform/tlv_array.h"

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static const char *planted = "";

static int has(const char *fault) { return strcmp(planted, fault) == 0; }

/* WRAP(type, name, parameters): the function in the place of name, and the real one. */
#define WRAP(type, name, ...)                                                                                          \
    type __real_##name(__VA_ARGS__);                                                                                   \
    type __wrap_##name(__VA_ARGS__);                                                                                   \
    type __wrap_##name(__VA_ARGS__)

/* ---- Arrays */

WRAP(uint32_t, tlv_size_get, uint32_t length) { return __real_tlv_size_get(length) - (has("size") && length > 1); }

WRAP(int32_t, tlv_array_add_tlv, void *array, uint32_t capacity, uint16_t type, uint16_t length, const void *value,
     uintptr_t reserved)
{
    const char *from = value;
    static char changed[65536];
    if (has("address") && length == 16)
        from = (const char *)((uintptr_t)from & ~(uintptr_t)3);
    if (has("content") && length > 4096)
        from = memset(changed, 0, sizeof changed);
    if (has("message") && type == TLV_ZEL_POLICY)
        return -1;
    const int32_t status = __real_tlv_array_add_tlv(array, capacity, type, length, from, reserved);
    if (has("full") && status != 0 && length == 65)
        memset((char *)array + 4, 0, 1);
    return status;
}

WRAP(int32_t, tlv_array_get_next_tlv, const void *array, uint16_t *type, uint16_t *length, const void **value,
     uintptr_t reserved, uint32_t *cursor)
{
    static const void *last;
    static uint32_t position;
    if (has("cursor") && array == last && *cursor != 0)
        *cursor = position;
    int32_t status = __real_tlv_array_get_next_tlv(array, type, length, value, reserved, cursor);
    last = array;
    position = *cursor;
    if (has("damaged") && status == 2) { /* reads on in spite of the damage */
        *value = (const char *)array + 8 + *cursor;
        memcpy(length, (const char *)*value - 2, sizeof *length);
        *cursor += 4u + *length;
        status = 0;
    }
    return status;
}

WRAP(uint32_t, tlv_array_get_num_tlvs, const void *array, uintptr_t reserved)
{
    const uint32_t count = __real_tlv_array_get_num_tlvs(array, reserved);
    return has("count") ? count & 0xff : count + (has("empty") && count == 0);
}

/* ---- Tree */

static uint16_t id_of(const void *entry) { return ((const zel_mat_cache_entry_t *)entry)->key.mat_id; }
static const void *key_of(const void *entry) { return &((const zel_mat_cache_entry_t *)entry)->key; }

WRAP(int32_t, ravl_init, struct ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare)
{
    void *const before = tree->root;
    const int32_t status = __real_ravl_init(tree, key_size, key_offset, compare);
    if (has("tree"))
        tree->root = before;
    return status;
}

WRAP(void *, ravl_lookup, struct ravl_tree *tree, const void *key)
{
    const uint16_t id = ((const zel_mat_cache_key_t *)key)->mat_id;
    for (int i = 0; has("cost") && i < 60; ++i)
        (void)((uint32_t(**)(const void *, const void *))tree)[1](key, key);
    return has("lookup") && id == 1999 ? NULL : __real_ravl_lookup(tree, key);
}

void __real_ravl_delete(struct ravl_tree *tree, void *entry);

WRAP(int32_t, ravl_insert, struct ravl_tree *tree, void *entry)
{
    if (has("equal") && __real_ravl_lookup(tree, key_of(entry)) != NULL)
        __real_ravl_delete(tree, __real_ravl_lookup(tree, key_of(entry)));
    if (has("memory")) {
        void *volatile block = malloc(1); /* volatile: a compiler leaves out an allocation that nothing needs */
        if (block == NULL)
            return 0;
    }
    if (has("links"))
        ((zel_mat_cache_entry_t *)entry)->obj = NULL;
    return __real_ravl_insert(tree, entry);
}

WRAP(void, ravl_delete, struct ravl_tree *tree, void *entry)
{
    zel_mat_cache_key_t other = {0};
    memcpy(&other, key_of(entry), sizeof other);
    other.mat_id = (uint16_t)(other.mat_id + 1);
    if (has("drain") && id_of(entry) >= 3000 && __real_ravl_lookup(tree, &other) != NULL)
        __real_ravl_delete(tree, __real_ravl_lookup(tree, &other));
    void *found = has("delete") ? __real_ravl_lookup(tree, key_of(entry)) : entry;
    if (found != NULL)
        __real_ravl_delete(tree, found);
}

WRAP(int32_t, ravl_is_empty, struct ravl_tree *tree)
{
    const void *const *links = tree->root; /* of the root: none, when it is the only entry */
    return __real_ravl_is_empty(tree) || (has("root") && links[0] == NULL && links[1] == NULL);
}

/* ---- Converter */

WRAP(int32_t, tlvu_table_convert_struct_to_tlv, void *tlv, uintptr_t capacity, const void *table, const void *record,
     void *written, uintptr_t flags, uintptr_t reserved)
{
    return __real_tlvu_table_convert_struct_to_tlv(tlv, capacity + (has("room") ? 8 : 0), table, record, written, flags,
                                                   reserved);
}

WRAP(int32_t, tlvu_table_convert_tlv_to_struct, void *record_slot, const void *tlv, uintptr_t size, const void *table,
     uintptr_t caller_owned)
{
    zel_stat_results_t **slot = record_slot;
    int32_t status = __real_tlvu_table_convert_tlv_to_struct(record_slot, tlv, size, table, caller_owned);
    if (has("record") && status == 0)
        (*slot)->tag ^= 1;
    if (has("slot") && status != 0)
        *slot = record_slot;
    if (has("entries") && status != 0 && caller_owned == 0 && (*slot = calloc(1, sizeof **slot)) != NULL) {
        (*slot)->num_entries = 1000;
        status = 0;
    }
    return status;
}

WRAP(int32_t, tlvu_table_get_struct_size_from_tlv, int32_t *size, const void *tlv, uintptr_t reserved,
     const void *table)
{
    const int32_t status = __real_tlvu_table_get_struct_size_from_tlv(size, tlv, reserved, table);
    *size += has("block") ? 4 : 0;
    return status;
}

WRAP(int32_t, tlvu_get_field, const void *tlv, uintptr_t size, uintptr_t element, void *value, uintptr_t capacity,
     const void *table)
{
    return __real_tlvu_get_field(tlv, size, element, value, has("field") ? 100 : capacity, table);
}

WRAP(int32_t, tlvu_field_itr_get_next, void *itr, void *field)
{
    const int32_t status = __real_tlvu_field_itr_get_next(itr, field);
    return has("iteration") ? 0 : status;
}

/* ---- Transport */

static const void *last_buffer; /* that was sent, and is copied too late */
static uint32_t last_size;

WRAP(int32_t, fu_kob_send, uint32_t kob_handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *buffer,
     uint32_t size, void *kob_msg, uintptr_t reserved1, uintptr_t reserved2)
{
    last_buffer = buffer;
    last_size = size;
    if (has("plain") && size > 100000)
        return -1;
    return __real_fu_kob_send(kob_handle, node, sap, opcode, buffer, size, kob_msg, reserved1, reserved2);
}

WRAP(int32_t, loopback_answer, loopback_msg_t *msg, const void *bytes, uint32_t size)
{
    last_buffer = bytes;
    last_size = size;
    return has("response") && size > 100000 ? -1 : __real_loopback_answer(msg, bytes, size);
}

WRAP(int, loopback_is_array, const void *bytes, uint32_t size)
{
    return has("claim") || __real_loopback_is_array(bytes, size);
}

/* A copy of a payload: offset bytes behind an aligned address, or before memory that cannot be read. */
static void *moved(const void *payload, uint32_t offset)
{
    const size_t page = (size_t)sysconf(_SC_PAGESIZE), room = (last_size / page + 2) * page;
    char *pages = mmap(NULL, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char *copy = offset != 0 ? pages + offset : pages + room - last_size;
    if (offset == 0)
        mprotect(pages + room, page, PROT_NONE);
    return memcpy(copy, payload, last_size);
}

WRAP(void *, kob_payload_get, void *kob_msg)
{
    unsigned char *const payload = __real_kob_payload_get(kob_msg);
    if (payload == NULL)
        return NULL;
    if (has("copy"))
        memcpy(payload, last_buffer, last_size);
    if (has("zeros"))
        payload[last_size + 63] = 1;
    if (has("aligned") || has("tail"))
        return moved(payload, has("aligned") ? 2 : 0);
    return payload;
}

WRAP(int32_t, mpkob_is_mpkob, uint32_t kob_ctx, void *kob_msg)
{
    return has("parts") ? 0 : __real_mpkob_is_mpkob(kob_ctx, kob_msg);
}

WRAP(uint32_t, kob_rr_token_get, void *kob_msg) { return has("token") ? 7 : __real_kob_rr_token_get(kob_msg); }

WRAP(int32_t, kob_errno_get, uint32_t kob_handle)
{
    const int32_t error = __real_kob_errno_get(kob_handle);
    if (has("errno"))
        loopback_errno = 0; /* asking takes it */
    return error;
}

/* ---- Trace and heartbeat; g_num_applications is missing */

const char *g_applications[] = {"none", "example"};
const char trc_dbg_modname[] = "zel";

__attribute__((constructor)) static void plant(void)
{
    if (getenv("FAULT") != NULL)
        planted = getenv("FAULT");
    if (has("names"))
        g_applications[0] = NULL;
}

int32_t trc_hist_event_subtype_check(uint32_t module, uint32_t trace_id) { return module == trace_id; }

void trc_hist_event(uint32_t module, uint32_t length, const void *record)
{
    static char kept[516];
    memcpy(kept, record, has("record-length") ? sizeof kept : length + 0 * module);
    __asm__ volatile("" : : "r"(kept) : "memory"); /* which a compiler would leave out */
}

int32_t trc_chk_int(uint32_t trace_id, uint32_t reserved1, uint32_t reserved2, uint32_t level)
{
    return (trace_id | reserved1 | reserved2 | level) == 0;
}

void dbgout(uint32_t level, const void *module_name, uint32_t reserved, const char *format, ...)
{
    (void)level, (void)module_name, (void)reserved, (void)format;
}

void trc_his_log_event_for_uuid_inst(uint32_t log, uint32_t module, uint32_t instance, uint32_t reserved,
                                     uint32_t length, const void *record)
{
    (void)log, (void)module, (void)instance, (void)reserved, (void)length, (void)record;
}

void fu_keeper_update_and_send_heartbeat(int32_t reserved)
{
    static int count = 0;
    if (has("heartbeat") && ++count > 1000 + reserved)
        pause();
}
