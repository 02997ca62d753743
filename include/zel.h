/*
 * zel.h - codec and client library of the zel policy service.
 *
 * A client builds a graph of match and action (MAT) records, hands its root to
 * one of the request calls, and the library sends it to the service as one
 * message of TLV elements.  The service hands the received message to
 * parse_mat_obj_from_kob() and gets the same graph back.  Statistics travel as
 * table-described records.
 *
 *     zel_api_handle_t handle;
 *     zel_api_init(&handle, 0, my_app, my_kob, on_error, on_warning, NULL);
 *
 *     zel_match_t web = {.id = 1, .type = ZEL_MATCH_TYPE_ETH_PROTO};
 *     web.param.eth_proto.type = 0x0800;
 *     uint32_t token = zel_policy_update_match(&handle, 7, &web, op, kob_msg);
 *     if (token == 0) { ... nothing was sent: no transport, no memory, or refused ... }
 *
 * Rules that hold for every call, unless its own comment says otherwise:
 *
 * - Units.  Sizes, lengths and capacities are bytes.  Integers are unsigned and
 *   in host byte order, in the records and in the message; addresses, masks and
 *   ports are plain integers that the library never converts.
 * - Pointers.  Pointer arguments are trusted and not tested for null, except
 *   where a comment allows null.  Callbacks may be null.  So may the root of a
 *   graph, except for zel_policy_update(), which reads the policy's id.
 * - Ownership.  A call borrows its arguments.  The caller owns every graph that
 *   it builds and every graph that a decoder or the parser gives it.  Within a
 *   graph every array and every record reached through one has one owner: a
 *   record that two groups point to is sent correctly, but the free traversal
 *   would free it twice.  Give each group a copy, or remove one pointer first.
 * - Reports.  A diagnostic goes to the platform's trace facility when the
 *   handle's debug flag is set and, whatever the flag, to the callback of its
 *   severity.  Failures are reported and, as a rule, not propagated: a field
 *   that does not fit is missing from the message, and the message still goes.
 * - Threads.  There are no locks.  A handle is used by one thread at a time;
 *   different handles are independent.  Calls without a handle are reentrant.
 * - Untrusted bytes.  Everything in a received message is untrusted; handles,
 *   graphs, tables and the platform are trusted.
 *
 * The library calls the platform that it is linked with through the operations
 * declared under zel/platform/, and of the C library calloc, free, snprintf, strncpy,
 * strlen, getpid, memcmp, memcpy, memmove, memset and vsnprintf.
 */
#ifndef ZEL_H
#define ZEL_H

#include <stdint.h>

#define ZEL_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Limits and fixed values
 * ------------------------------------------------------------------------ */

#define ZEL_ACL_SIZE 65        /* an ACL reference on the wire; readers keep 64 bytes and a NUL */
#define ZEL_LABEL_SIZE 64      /* a label */
#define ZEL_MAC_SIZE 6         /* an Ethernet address */
#define ZEL_RESP_TEXT_SIZE 256 /* the text of a response; NUL-terminated only when shorter */
#define ZEL_RESP_HDR_SIZE 268  /* the response header; a response body begins right after it */

/* Where requests go, and how. */
#define ZEL_KOB_DEST_NODE 0xfe000000u   /* destination node address */
#define ZEL_KOB_SAP 487u                /* destination service access point */
#define ZEL_KOB_OPC_REQUEST 0x1cc02u    /* opcode of a plain message */
#define ZEL_KOB_OPC_MP_REQUEST 0x1cc04u /* opcode of a multi-part message */
#define ZEL_KOB_MP_THRESHOLD 120832u    /* largest message that is sent plainly */
#define ZEL_KOB_NO_TRANSPORT 1u         /* kob_handle of a caller that cannot send */

/* The library's space at the trace facility. */
#define ZEL_TRACE_MODULE_ID 0x730000u
#define ZEL_TRACE_HISLOG_ID 648u

/* Trace ids.  The id decides the callback, and the callback is always the same for an id. */
enum {
    ZEL_TRACE_ERROR = 102,   /* err_cb: an element, an object or a message failed */
    ZEL_TRACE_WARNING = 103, /* warn_cb: something unknown was tolerated */
    ZEL_TRACE_NOTICE = 104,  /* dbg_cb: message sizes, cache insertions and deletions */
    ZEL_TRACE_DEBUG = 105    /* dbg_cb: detail of decoding, a line per element */
};

/* What send_to_zel() returns. */
enum {
    ZEL_SEND_DONE = 1,            /* a send was attempted; the result slot tells how it went */
    ZEL_SEND_ERR_NO_MEMORY = 7,   /* the message buffer could not be allocated */
    ZEL_SEND_ERR_NO_TRANSPORT = 9 /* kob_handle is ZEL_KOB_NO_TRANSPORT */
};

/* What compress_mat() returns. */
enum {
    ZEL_COMPRESS_DONE = 0, /* dealt with as a reference */
    ZEL_COMPRESS_WHOLE = 3 /* the caller writes or counts the object whole */
};

/* ------------------------------------------------------------------------
 * Enumerations.  The fields that hold them are 32 bits wide.
 * ------------------------------------------------------------------------ */

/* Kinds of MAT object.  1, and 15 upward, are unknown to every operation. */
enum {
    ZEL_MAT_TYPE_NONE = 0, /* no object; traversing it does nothing and succeeds */
    ZEL_MAT_TYPE_STAT_REQUEST_ENTRY = 2,
    ZEL_MAT_TYPE_STAT_REQUEST = 3,
    ZEL_MAT_TYPE_IF_ELEMENT = 4,
    ZEL_MAT_TYPE_IF_GROUP = 5,
    ZEL_MAT_TYPE_MATCH_SERVICE_ELEMENT = 6,
    ZEL_MAT_TYPE_ACTION = 7,
    ZEL_MAT_TYPE_MATCH = 8,
    ZEL_MAT_TYPE_ACTION_GROUP = 9,
    ZEL_MAT_TYPE_MATCH_GROUP = 10,
    ZEL_MAT_TYPE_MATCH_ACTION_PAIR = 11,
    ZEL_MAT_TYPE_MATCH_ACTION_PAIR_GROUP = 12,
    ZEL_MAT_TYPE_POLICY = 13,
    ZEL_MAT_TYPE_POLICY_LIST = 14
};

/* Request kinds: the api_type of a message header. */
enum {
    ZEL_API_POLICY_LIST_UPDATE = 1,
    ZEL_API_POLICY_UPDATE = 2,
    ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE = 3,
    ZEL_API_MATCH_ACTION_PAIR_UPDATE = 4,
    ZEL_API_MATCH_GROUP_UPDATE = 5,
    ZEL_API_ACTION_GROUP_UPDATE = 6,
    ZEL_API_MATCH_UPDATE = 7,
    ZEL_API_ACTION_UPDATE = 8,
    ZEL_API_INTERFACE_GROUP_UPDATE = 9,
    ZEL_API_POLICY_DELETE = 10,
    ZEL_API_STATS_PULL = 11
};

/* Match types: which parameter record a zel_match_t carries. */
enum {
    ZEL_MATCH_TYPE_ACL = 1,
    ZEL_MATCH_TYPE_ACL_IPV6 = 2, /* not supported: travels without a parameter and is reported */
    ZEL_MATCH_TYPE_LABEL = 3,
    ZEL_MATCH_TYPE_SERVICE = 4,         /* a list of service elements */
    ZEL_MATCH_TYPE_SERVICE_ELEMENT = 5, /* one service element, held directly */
    ZEL_MATCH_TYPE_ETH_PROTO = 6,
    ZEL_MATCH_TYPE_ARP_OPCODE = 7,
    ZEL_MATCH_TYPE_EXP = 8,
    ZEL_MATCH_TYPE_LISP_PROTO = 9,
    ZEL_MATCH_TYPE_LISP_INST = 10,
    ZEL_MATCH_TYPE_NO_PARAM = 11 /* travels without a parameter, silently */
};

/* Action types that carry a parameter record.  Any other value is valid and carries none. */
enum {
    ZEL_ACTION_TYPE_REDIRECT = 3,
    ZEL_ACTION_TYPE_NAT_REWRITE = 6,
    ZEL_ACTION_TYPE_SET_VRF = 7,
    ZEL_ACTION_TYPE_LISP_DECAPSULATION = 8
};

/* Redirect types that carry an address record.  Any other value carries none. */
enum { ZEL_REDIRECT_TYPE_L2_IPV4 = 1, ZEL_REDIRECT_TYPE_L3_IPV4 = 2 };

/* What a traversal does with the graph. */
enum {
    MAT_TRAVERSE_SIZE = 1,  /* add up the encoded size */
    MAT_TRAVERSE_FREE = 2,  /* release what the records own */
    MAT_TRAVERSE_ENCODE = 3 /* write the elements */
};

/* TLV type names: the id of the start marker of an object; its end marker is the next id. */
enum {
    TLV_ZEL_KOB_HEADER = 1,
    TLV_ZEL_MATCH_SERVICE_ELE = 9,
    TLV_ZEL_MATCH = 23,
    TLV_ZEL_ACTION_GROUP = 60,
    TLV_ZEL_ACTION = 96,
    TLV_ZEL_MATCH_GROUP = 101,
    TLV_ZEL_MATCH_ACTION_PAIR = 107,
    TLV_ZEL_MATCH_ACTION_PAIR_GROUP = 113,
    TLV_ZEL_POLICY = 116,
    TLV_ZEL_POLICY_LIST = 122,
    TLV_ZEL_IF_GROUP = 125,
    TLV_ZEL_IF_ELEMENT = 128,
    TLV_ZEL_STAT_REQUEST = 135,
    TLV_ZEL_STAT_REQ_ENTRY = 138
};

/* ------------------------------------------------------------------------
 * MAT records
 *
 * Plain records.  A group owns a count and an array of pointers to separately
 * allocated members, all from calloc() or malloc(); with a count of 0 the array
 * is not consulted and may be null.  The free traversal frees a group's array even
 * when the count is 0; the array of a statistics request with a count of 0 it leaves
 * alone, so one that is not on the heap is safe there and nowhere else.  Pairs and policies embed their groups.
 * op_mode, logical_op, app_type, direction, flag, encap_flag, insert_label and
 * etype mean what the service says; the library carries them.
 * ------------------------------------------------------------------------ */

/* Message header: one per message, written by send_to_zel(). */
typedef struct {
    uint32_t api_type;  /* request kind, ZEL_API_* */
    uint32_t app_type;  /* application type of the sender */
    uint16_t policy_id; /* policy that the request concerns */
    uint32_t op_code;   /* operation code given by the caller */
} zel_kob_header_t;

/* One statistics query. */
typedef struct {
    /* Interface whose counters are asked for; 0 for any. */
    uint32_t interface;
    /* VLAN; 0 for any. */
    uint16_t vlan;
    /* VRF; 0 for any. */
    uint32_t vrf;
    /* Policy. */
    uint16_t policy_id;
    /* Pair of that policy. */
    uint16_t match_action_pair_id;
    /* What else to do; means what the service says. */
    uint32_t flag;
} zel_stat_request_entry_t;

/* Statistics queries.  The one count in the model that is 32 bits wide. */
typedef struct {
    uint32_t num_requests;
    zel_stat_request_entry_t **requests;
} zel_stat_request_t;

/* Action: put the packet into a VRF. */
typedef struct {
    uint32_t vrf;
} zel_action_set_vrf_t;

/* Action: rewrite addresses and ports. */
typedef struct {
    /* New source address. */
    uint32_t src_ip;
    /* New destination address. */
    uint32_t dst_ip;
    /* New source port. */
    uint16_t src_port;
    /* New destination port. */
    uint16_t dst_port;
} zel_action_nat_rewrite_t;

/* Redirect to a layer-3 next hop. */
typedef struct {
    /* VRF in which the next hop is looked up. */
    uint32_t vrf;
    /* Routing table of that VRF. */
    uint32_t r_table_id;
    /* Source address of the redirected packet. */
    uint32_t sip;
    /* Address of the next hop. */
    uint32_t dip;
} zel_l3_redirect_ipv4_t;

/* Redirect to a layer-2 next hop. */
typedef struct {
    /* VRF in which the next hop is looked up. */
    uint32_t vrf;
    /* Routing table of that VRF. */
    uint32_t r_table_id;
    /* Address of the next hop. */
    uint32_t dip;
    /* Source Ethernet address. */
    uint8_t smac[ZEL_MAC_SIZE];
    /* Destination Ethernet address. */
    uint8_t dmac[ZEL_MAC_SIZE];
    /* Interface by which the packet leaves. */
    uint32_t dest_if;
} zel_l2_redirect_ipv4_t;

/* Label that a redirect inserts. */
typedef struct {
    /* Bytes of the label that count. */
    uint8_t label_length;
    /* The label; always travels whole. */
    uint8_t label[ZEL_LABEL_SIZE];
} zel_action_label_param_t;

/* Action: redirect.  The label always travels; type selects the address record. */
typedef struct {
    uint32_t type; /* ZEL_REDIRECT_TYPE_*; any other value has no address record */
    uint32_t encap_flag;
    uint32_t insert_label;
    zel_action_label_param_t label_param;
    uint16_t etype;
    union {
        zel_l2_redirect_ipv4_t l2_ipv4;
        zel_l3_redirect_ipv4_t l3_ipv4;
    };
} zel_action_param_redirect_t;

/* Action: LISP decapsulation. */
typedef struct {
    uint32_t if_index;
} zel_action_lisp_decapsulation_t;

/* Parameter of an action, selected by its type. */
typedef union {
    zel_action_param_redirect_t redirect;
    zel_action_nat_rewrite_t nat_rewrite;
    zel_action_set_vrf_t set_vrf;
    zel_action_lisp_decapsulation_t lisp_decapsulation;
} zel_action_param_t;

/*
 * An action.  Within one message two actions with the same id are the same
 * action: the second is sent as a reference to the first, whatever it holds.
 */
typedef struct {
    uint32_t op_mode;
    uint16_t id;
    uint32_t type; /* ZEL_ACTION_TYPE_*; any other value has no parameter */
    zel_action_param_t param;
    uint32_t cached; /* set by the decoders: a copy of an earlier object, which owns the parameter */
} zel_action_t;

/*
 * The actions of a pair, in the order in which they are carried out.  Another group may point
 * to the same action: see free_contained_mat_obj_mem().
 */
typedef struct {
    uint16_t id;
    uint32_t op_mode;
    uint16_t num_action;
    zel_action_t **actions;
} zel_action_grp_t;

/* One interface that a policy is bound to. */
typedef struct {
    /* Whether the binding is in force; means what the service says. */
    uint32_t op_mode;
    /* Direction of the packets; means what the service says. */
    uint32_t direction;
    /* Interface. */
    uint32_t interface;
    /* VLAN of that interface. */
    uint16_t vlan;
    /* VRF of that interface. */
    uint32_t vrf;
} zel_if_element_t;

/* The interfaces that a policy is bound to.  An element that two policies point to is freed twice. */
typedef struct {
    uint16_t num_if;
    zel_if_element_t **if_elements;
} zel_if_group_t;

/* Match on an ACL reference. */
typedef struct {
    uint8_t acl[ZEL_ACL_SIZE];
} zel_match_acl_t;

/* Match on a label. */
typedef struct {
    /* Ethernet type of the packet. */
    uint16_t eth_type;
    /* Whether the packet comes through a tunnel; means what the service says. */
    uint32_t encap_flag;
    /* Source address of the tunnel. */
    uint32_t encap_tunnel_sip;
    /* Destination address of the tunnel. */
    uint32_t encap_tunnel_dip;
    /* Bytes of the label that count. */
    uint16_t length;
    /* The label; always travels whole. */
    uint8_t label[ZEL_LABEL_SIZE];
} zel_match_label_t;

/* A five-tuple with masks. */
typedef struct {
    /* Source address, compared under sip_mask: a packet matches when (address & mask) is equal. */
    uint32_t sip;
    /* Bits of the source address that count; 0 for any address. */
    uint32_t sip_mask;
    /* Destination address, compared under dip_mask. */
    uint32_t dip;
    /* Bits of the destination address that count. */
    uint32_t dip_mask;
    /* Source port, compared under sport_mask. */
    uint16_t sport;
    /* Bits of the source port that count; 0 for any port. */
    uint16_t sport_mask;
    /* Destination port, compared under dport_mask. */
    uint16_t dport;
    /* Bits of the destination port that count. */
    uint16_t dport_mask;
    /* IP protocol; 0 for any. */
    uint8_t protocol;
} zel_match_service_element_t;

/* Match on a list of five-tuples: the one match parameter that owns memory. */
typedef struct {
    uint16_t num_elements;
    zel_match_service_element_t **elements;
} zel_match_service_t;

/* Match on an Ethernet type. */
typedef struct {
    uint16_t type; /* Ethernet type */
} zel_match_eth_proto_t;

/* Match on the opcode of an ARP packet. */
typedef struct {
    uint32_t opcode;
} zel_match_arp_opcode_t;

/* Match on the EXP bits of an MPLS label: the low three bits of the value. */
typedef struct {
    uint8_t exp;
} zel_match_exp_t;

/* Match on LISP encapsulation. */
typedef struct {
    /* UDP port of the encapsulation. */
    uint16_t udp_port;
    /* Address of the destination locator. */
    uint32_t destination_rloc;
} zel_match_lisp_proto_t;

/* Match on a LISP instance. */
typedef struct {
    uint32_t inst_id;
} zel_match_lisp_inst_t;

/* Parameter of a match, selected by its type. */
typedef union {
    zel_match_acl_t acl;
    zel_match_label_t label;
    zel_match_service_t service;
    zel_match_service_element_t service_element;
    zel_match_eth_proto_t eth_proto;
    zel_match_arp_opcode_t arp_opcode;
    zel_match_exp_t exp;
    zel_match_lisp_proto_t lisp_proto;
    zel_match_lisp_inst_t lisp_inst;
} zel_match_param_t;

/* A match.  Identity within a message as for zel_action_t. */
typedef struct {
    uint32_t op_mode;
    uint16_t id;
    uint16_t pre_match_id; /* id of the preceding match */
    uint32_t type;         /* ZEL_MATCH_TYPE_* */
    zel_match_param_t param;
    uint32_t cached; /* as in zel_action_t */
} zel_match_t;

/*
 * The matches of a pair.  Another group may point to the same match: see
 * free_contained_mat_obj_mem().
 */
typedef struct {
    uint16_t id;
    uint32_t op_mode;
    uint32_t logical_op; /* how the matches combine */
    uint16_t num_match;
    zel_match_t **matches;
} zel_match_grp_t;

/* What to match, and what to do then. */
typedef struct {
    uint16_t id;
    uint32_t op_mode;
    uint16_t pre_pair_id; /* id of the preceding pair */
    zel_match_grp_t match_group;
    zel_action_grp_t action_group;
} zel_match_action_pair_t;

/* The pairs of a policy, in the order in which they are tried.  A pair may be in one group only. */
typedef struct {
    uint16_t num_pair;
    zel_match_action_pair_t **pairs;
} zel_match_action_pair_grp_t;

/* A policy: the unit that is created, replaced and deleted. */
typedef struct {
    /* Version of the policy, for the service and people. */
    uint16_t version;
    /* Names the policy within its application. */
    uint16_t id;
    /* Whether the policy is in force; means what the service says. */
    uint32_t op_mode;
    /* Application that the policy belongs to. */
    uint32_t app_type;
    /* What is matched and done, in the order in which it is tried. */
    zel_match_action_pair_grp_t match_action_pair_group;
    /* Where the policy applies. */
    zel_if_group_t if_group;
} zel_policy_t;

/* Several policies of one request. */
typedef struct {
    uint16_t num_policy;
    zel_policy_t **policies;
} zel_policy_list_t;

/* ------------------------------------------------------------------------
 * Handle
 * ------------------------------------------------------------------------ */

/* A report: a printf format without line prefix, and its arguments.  The return value is void. */
typedef void (*zel_trace_cb_t)(const char *format, ...);

/*
 * Storage of the platform's tree.  The first word is the root: null when the tree
 * is empty, otherwise the address of an entry.  The other words are the platform's.
 */
typedef struct ravl_tree {
    void *root;
    uintptr_t own[7];
} ravl_tree_t;

/*
 * Faults since zel_api_init(), or since the caller set the record to 0: for callers without
 * err_cb, and for those that ask after each request.
 */
typedef struct {
    uint32_t count;         /* reports with the severity of an error */
    uint32_t first_element; /* id of the first element that could not be written; 0: none */
    int32_t first_status;   /* the platform's status for it */
} zel_faults_t;

/* The handle.  Filled by zel_api_init(); nothing has to be torn down. */
typedef struct {
    uint32_t app_type;      /* row of the platform's g_applications; sent in every header */
    uint32_t kob_handle;    /* transport handle, or ZEL_KOB_NO_TRANSPORT */
    uint32_t debug;         /* non-zero: reports also go to the trace facility */
    zel_trace_cb_t err_cb;  /* trace id 102; each of the three may be null */
    zel_trace_cb_t warn_cb; /* trace id 103 */
    zel_trace_cb_t dbg_cb;  /* trace ids 104 and 105 */
    ravl_tree_t mat_cache;  /* object cache; empty between messages */
    zel_faults_t faults;    /* what went to err_cb, if it is set or not (addition) */
} zel_api_handle_t;

/* A zero-filled handle for callers that want one per process.  The library never touches it. */
ZEL_EXPORT extern zel_api_handle_t zel_api_handle;

/*
 * Fills the handle and initialises its cache.  The debug flag comes before the
 * application type, unlike in the record.  Stores what it is given, unchecked.
 * Returns what the platform's ravl_init() returns.
 */
ZEL_EXPORT int32_t zel_api_init(zel_api_handle_t *handle, uint32_t debug, uint32_t app_type, uint32_t kob_handle,
                                zel_trace_cb_t err_cb, zel_trace_cb_t warn_cb, zel_trace_cb_t dbg_cb);

/* A hook for event loops; there is nothing to handle.  Returns 0. */
ZEL_EXPORT int32_t zel_event_handling(void);

/* ------------------------------------------------------------------------
 * Request calls
 *
 * Each sends one request and returns the transport's request/response token,
 * which zel_req_id_get() finds again in the answer, or 0 when nothing was sent:
 * no transport, no memory, or refused by the transport (reported to err_cb with
 * the transport's errno).  The calls are synchronous: on return the message has
 * been handed over and the graph may be changed or freed.  The graph is never
 * changed or freed by them.  It must be consistent: counts that fit their arrays
 * and no null member.  op_code travels in the header, for the service; kob_msg
 * is the caller's transport message record, passed to the transport.
 * ------------------------------------------------------------------------ */

/* A policy list; the header's policy id is 0. */
ZEL_EXPORT uint32_t zel_policy_list_update(zel_api_handle_t *handle, const zel_policy_list_t *list, uint32_t op_code,
                                           void *kob_msg);

/* A policy; the header's policy id is the policy's own id. */
ZEL_EXPORT uint32_t zel_policy_update(zel_api_handle_t *handle, const zel_policy_t *policy, uint32_t op_code,
                                      void *kob_msg);

/* The pair group of a policy. */
ZEL_EXPORT uint32_t zel_policy_update_match_action_pair_group(zel_api_handle_t *handle, uint16_t policy_id,
                                                              const zel_match_action_pair_grp_t *group,
                                                              uint32_t op_code, void *kob_msg);

/* One pair of a policy. */
ZEL_EXPORT uint32_t zel_policy_update_match_action_pair(zel_api_handle_t *handle, uint16_t policy_id,
                                                        const zel_match_action_pair_t *pair, uint32_t op_code,
                                                        void *kob_msg);

/* A match group of a policy. */
ZEL_EXPORT uint32_t zel_policy_update_match_group(zel_api_handle_t *handle, uint16_t policy_id,
                                                  const zel_match_grp_t *group, uint32_t op_code, void *kob_msg);

/* An action group of a policy. */
ZEL_EXPORT uint32_t zel_policy_update_action_group(zel_api_handle_t *handle, uint16_t policy_id,
                                                   const zel_action_grp_t *group, uint32_t op_code, void *kob_msg);

/* A match of a policy. */
ZEL_EXPORT uint32_t zel_policy_update_match(zel_api_handle_t *handle, uint16_t policy_id, const zel_match_t *match,
                                            uint32_t op_code, void *kob_msg);

/* An action of a policy. */
ZEL_EXPORT uint32_t zel_policy_update_action(zel_api_handle_t *handle, uint16_t policy_id, const zel_action_t *action,
                                             uint32_t op_code, void *kob_msg);

/* The interface group of a policy. */
ZEL_EXPORT uint32_t zel_policy_update_interface_group(zel_api_handle_t *handle, uint16_t policy_id,
                                                      const zel_if_group_t *if_group, uint32_t op_code, void *kob_msg);

/* Deletes a policy.  The message is the header alone: policy_id names the policy. */
ZEL_EXPORT uint32_t zel_policy_delete(zel_api_handle_t *handle, uint16_t policy_id, uint32_t op_code, void *kob_msg);

/* Asks for statistics.  Always sends policy id 0 and op_code 3. */
ZEL_EXPORT uint32_t zel_stats_pull(zel_api_handle_t *handle, const zel_stat_request_t *stat_request, void *kob_msg);

/* ------------------------------------------------------------------------
 * Responses, and a first look at requests
 * ------------------------------------------------------------------------ */

/* Header of a response payload. */
typedef struct {
    uint32_t status; /* first status word */
    uint32_t error;  /* second status word */
    int32_t retval;  /* the service's result for the request */
    char msg[ZEL_RESP_TEXT_SIZE];
} zel_resp_hdr_t;

/* The payload of a received message as a response header; borrowed, may be null.  No check. */
ZEL_EXPORT zel_resp_hdr_t *zel_get_resp_hdr(void *kob_msg);

/* The request/response token of a received message. */
ZEL_EXPORT uint32_t zel_req_id_get(void *kob_msg);

/*
 * Reads a response.  status, error and text may each be null.  text receives up
 * to ZEL_RESP_TEXT_SIZE bytes, must have room for them all, and is not
 * NUL-terminated when the text fills them.  Returns the service's retval, or -1
 * when the message has no payload; then nothing is written.
 */
ZEL_EXPORT int32_t zel_parse_response(void *kob_msg, uint32_t *status, uint32_t *error, char *text);

/*
 * The application type and the request kind of a message whose header travels as
 * one element of type 3.  0 for every other message, requests of send_to_zel()
 * included.  The first reads multi-part messages too, through the transport
 * context mp_ctx.
 */
ZEL_EXPORT uint32_t zel_get_app_type(uint32_t mp_ctx, void *kob_msg);
ZEL_EXPORT uint32_t zel_get_api_type(void *kob_msg);

/* ------------------------------------------------------------------------
 * Graphs
 *
 * What both sides do with a graph of MAT records.
 * ------------------------------------------------------------------------ */

/* The MAT type of the object that a request kind carries; ZEL_MAT_TYPE_NONE for unknown kinds. */
ZEL_EXPORT uint32_t get_mat_obj_type(uint32_t api_type);

/*
 * Releases everything that a root record owns, bottom-up, and nulls the released
 * pointers.  The root itself stays the caller's; free() it if it was allocated.
 * This frees a client's graph and a graph that parse_mat_obj_from_kob() returned.
 *
 * It follows every pointer.  A match that two groups point to is sent correctly, and would be
 * freed twice.  So either each group has a copy of its own, with the same id and content, or
 * all pointers but one go before:
 *
 *     pair1.match_group.matches[0] = web;      (web is on the heap, and in two groups)
 *     pair2.match_group.matches[0] = web;
 *     zel_policy_update(&handle, policy, ZEL_OP_SET, kob_msg);
 *     pair2.match_group.num_match = 0;         (its array is freed, the match is not)
 *     free_contained_mat_obj_mem(&handle, app, ZEL_MAT_TYPE_POLICY, policy);
 *
 * zel_check_graph() finds such pointers when it is asked to.
 */
ZEL_EXPORT uint32_t free_contained_mat_obj_mem(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type,
                                               void *obj);

/*
 * Bytes of the message that carries a graph, with header and array (addition).  api_type says
 * what obj is; null gives a message of the header alone.
 */
ZEL_EXPORT uint32_t zel_message_size(zel_api_handle_t *handle, uint32_t api_type, const void *obj);

#define ZEL_PORT_RANGE_MAX 30 /* most pairs that a range takes */

/* A port and its mask, as the port members of a zel_match_service_element_t. */
typedef struct {
    uint16_t value;
    uint16_t mask;
} zel_port_mask_t;

/*
 * Splits the ports from first to last, both included, into the fewest pairs of value and mask
 * that match exactly them (addition), in ascending order.  pairs has room for
 * ZEL_PORT_RANGE_MAX.  Returns the number of pairs; 0 when first is above last.
 */
ZEL_EXPORT uint32_t zel_split_port_range(uint16_t first, uint16_t last, zel_port_mask_t *pairs);

/* ------------------------------------------------------------------------
 * Message parser
 * ------------------------------------------------------------------------ */

/*
 * Rebuilds the object of a received request.
 *
 * kob_ctx        transport context, for the multi-part accessors
 * mat_type_out   out, always: MAT type of the request kind, 0 when no header came
 * api_type_out   out, when a header came: request kind
 * policy_id_out  out, when a header came: policy id
 * app_type_inout in: application type until the header comes; out, when it came: the header's
 *
 * Returns the last top-level record of the MAT type that the request kind names,
 * or null when there is none (a delete request carries none) and when memory for
 * a record ran out, which err_cb is told; then nothing stays allocated.  The record is
 * the caller's: free_contained_mat_obj_mem(), then free().  One exception: when
 * a message of a kind that names a pair group or an interface group carries a
 * policy instead, the result lies within that policy and must not be freed.
 *
 * Tolerant like the decoders: unknown elements are skipped, an unreadable element
 * ends the message where it stands.  Neither is an error; dbg_cb is told.  Any
 * further top-level objects that a message carries are built and not released.
 * The handle's cache is left empty.
 */
ZEL_EXPORT void *parse_mat_obj_from_kob(uint32_t kob_ctx, zel_api_handle_t *handle, void *kob_msg,
                                        uint32_t *mat_type_out, uint32_t *api_type_out, uint16_t *policy_id_out,
                                        uint32_t *app_type_inout);

/*
 * The same for a TLV array in memory (addition).  The array must be followed by 64
 * readable bytes, as a received payload is.  *header: in, app_type alone, as
 * app_type_inout above; out, the message's header, operation code included, or what
 * it was when no header came.
 */
ZEL_EXPORT void *zel_parse_tlv_array(zel_api_handle_t *handle, const void *tlv_array, zel_kob_header_t *header);

/* ------------------------------------------------------------------------
 * Verifier (addition)
 *
 * The parser above makes the best of what it gets.  The verifier answers the
 * other question, before anything is built: does this message have exactly the
 * shape that send_to_zel() gives messages?  A service verifies first and parses
 * what passed: that is then read without a report, owns what it says it owns,
 * and can be encoded again and freed.
 *
 *     zel_verify_report_t report = {.size = sizeof report};
 *     if (zel_verify_mat_obj_from_kob(ctx, kob_msg, NULL, &report) != ZEL_VERIFY_OK) {
 *         char text[ZEL_VERIFY_TEXT_SIZE];
 *         zel_verify_report_text(&report, text, sizeof text);
 *         ... refuse the message and say why ...
 *     }
 *
 * What passes: one header; then one object of the kind that the header's request
 * kind names (a delete may lack it); every record with its markers and all of its
 * members, each once and in the order of encoding; every value as wide as its
 * field; as many members as their count says; the parameter that the type
 * selects, and no other; a match or action in full once, and references only to
 * such a one of the same kind, before them; and nothing after the object.
 *
 * An element whose id no record has may come from a newer peer.  Wherever it
 * stands, it is passed over and counted; the parser will warn of each.  An element
 * that is newer than the first release may be missing, because older peers do not
 * send it.  A release note names such elements; the first release has none.
 *
 * Nothing is allocated, traced or changed; time is linear in the message and
 * some 17 KiB of stack are used.  Reentrant.
 * ------------------------------------------------------------------------ */

/* The rules, and what expected and found are when one is broken. */
enum {
    ZEL_VERIFY_OK = 0,
    ZEL_VERIFY_NO_MESSAGE = 1,      /* there is no payload */
    ZEL_VERIFY_DAMAGED = 2,         /* an element that cannot be read; id that was expected, 0 */
    ZEL_VERIFY_INCOMPLETE = 3,      /* the message ends early; id that was expected, 0 */
    ZEL_VERIFY_HEADER = 4,          /* the header does not come first; its id, id found */
    ZEL_VERIFY_REQUEST_KIND = 5,    /* an unknown request kind; largest known kind, kind found */
    ZEL_VERIFY_OBJECT = 6,          /* not the object of the request kind; ids */
    ZEL_VERIFY_PLACE = 7,           /* an element missing, repeated, misplaced or badly nested; ids */
    ZEL_VERIFY_WIDTH = 8,           /* a value of the wrong length; bytes */
    ZEL_VERIFY_MARKER = 9,          /* a marker whose value is not 0; values */
    ZEL_VERIFY_COUNT = 10,          /* a count that is not the number of members; numbers */
    ZEL_VERIFY_PARAMETER = 11,      /* a type and a parameter that disagree; ids, 0 for no parameter */
    ZEL_VERIFY_REFERENCE = 12,      /* a reference to an object that has not come; MAT type, MAT id */
    ZEL_VERIFY_REFERENCE_KIND = 13, /* a reference to an object of another kind; MAT types */
    ZEL_VERIFY_REPEATED = 14,       /* an object that has come in full before; MAT type, MAT id */
    ZEL_VERIFY_UNKNOWN = 15,        /* an unknown element, when strict; id that was expected, id found */
    ZEL_VERIFY_TRAILING = 16        /* an element after the object; 0, id found */
};

/* Options.  Null stands for all zero.  A later version may add members at the end. */
typedef struct {
    uint32_t size;   /* sizeof(zel_verify_options_t), set by the caller */
    uint32_t strict; /* not 0: an unknown element breaks a rule */
} zel_verify_options_t;

#define ZEL_VERIFY_PATH_SIZE 96  /* longest object path, with its NUL */
#define ZEL_VERIFY_TEXT_SIZE 256 /* longest text of a report, with its NUL */

/* What was found.  The first fault wins. */
typedef struct {
    uint32_t size;          /* sizeof(zel_verify_report_t), set by the caller; no more is written */
    uint32_t rule;          /* the broken rule, or ZEL_VERIFY_OK */
    uint32_t offset;        /* bytes from the start of the array to the element at fault, or to where there is none */
    uint32_t element_index; /* of that element in the array, from 0 */
    uint32_t element_id;    /* its id; 0 where there is none */
    uint32_t expected;      /* as the rule says */
    uint32_t found;         /* as the rule says */
    uint32_t unknown_elements;       /* that were passed over so far */
    char path[ZEL_VERIFY_PATH_SIZE]; /* the object that it belongs to: "policy / pair 7 / match 2"; members from 1 */
} zel_verify_report_t;

/*
 * Verifies a received message, given as the parser gets it.  options and report
 * may be null.  Returns ZEL_VERIFY_OK or the broken rule.
 */
ZEL_EXPORT uint32_t zel_verify_mat_obj_from_kob(uint32_t kob_ctx, void *kob_msg, const zel_verify_options_t *options,
                                                zel_verify_report_t *report);

/* The same for a TLV array. */
ZEL_EXPORT uint32_t zel_verify_tlv_array(const void *tlv_array, const zel_verify_options_t *options,
                                         zel_verify_report_t *report);

/* A rule in words; never null. */
ZEL_EXPORT const char *zel_verify_rule_text(uint32_t rule);

/*
 * A report in one line, without line feed:
 * "policy / pair 7 / match 2: type and parameter disagree: expected 20, found 40 (element 31, id 40, offset 190)".
 * Cut to size bytes with the NUL; returns the whole length without it, like snprintf().
 */
ZEL_EXPORT int32_t zel_verify_report_text(const zel_verify_report_t *report, char *text, uint32_t size);

/* ------------------------------------------------------------------------
 * Check of a graph (addition)
 *
 * Looks for faults in a graph that its message does not show.  The first one is reported in
 * the form of the verifier, with its path.
 *
 *     zel_verify_report_t report = {.size = sizeof report};
 *     if (zel_check_graph(ZEL_MAT_TYPE_POLICY, &policy, NULL, &report) != ZEL_VERIFY_OK) {
 *         char text[ZEL_VERIFY_TEXT_SIZE];
 *         zel_verify_report_text(&report, text, sizeof text);
 *         ... "policy / pair 2 / match 1: two different objects have one id: ..." ...
 *     }
 *
 * Counts are trusted: C does not say how long an array is.  Returns ZEL_VERIFY_OK or what is
 * wrong.  expected and found of the report are as given here; element_id is the element of
 * the member, and offset and element_index are 0.  Time is linear in the graph, which is not
 * changed; memory is allocated for each match and action, and freed.
 * ------------------------------------------------------------------------ */

enum {
    ZEL_CHECK_TYPE = 32,     /* a MAT type without record, or a match type that does not travel; 0, type */
    ZEL_CHECK_NULL = 33,     /* a null root, member or array; count, position from 1 */
    ZEL_CHECK_LENGTH = 34,   /* a length beyond its array; bytes of the array, length */
    ZEL_CHECK_MASK = 35,     /* an address or port under a mask of 0, which matches any; 0, value */
    ZEL_CHECK_CONFLICT = 36, /* two different objects have one id: the first would be sent twice; MAT type, id */
    ZEL_CHECK_SHARED = 37,   /* two places point to one member or array, which would be freed twice; 0, MAT type */
    ZEL_CHECK_NO_MEMORY = 38 /* not enough memory to look at all of it; 0, 0 */
};

/* Options.  Null stands for all zero.  A later version may add members at the end. */
typedef struct {
    uint32_t size;  /* sizeof(zel_check_options_t), set by the caller */
    uint32_t freed; /* not 0: free_contained_mat_obj_mem() will free the graph, so nothing in it may be shared */
} zel_check_options_t;

ZEL_EXPORT uint32_t zel_check_graph(uint32_t mat_type, const void *obj, const zel_check_options_t *options,
                                    zel_verify_report_t *report);

/* ------------------------------------------------------------------------
 * Statistics records
 *
 * Offsets are the same on every ABI: natural alignment would move fields on
 * 64-bit, hence the packing.  Only pointers widen there.
 * ------------------------------------------------------------------------ */

#pragma pack(push, 4)

typedef struct {
    uint64_t counter1; /* element 148 */
    uint64_t counter2; /* element 149 */
} zel_stats_t;

typedef struct {
    uint8_t tag;          /* element 150 */
    uint32_t key;         /* element 151 */
    uint16_t ids[5];      /* element 152 */
    zel_stats_t stats[3]; /* element 153, moved as three values of 16 bytes */
} zel_stat_result_entry_t;

typedef struct {
    uint8_t tag;                      /* element 154 */
    uint32_t num_entries;             /* element 155 */
    zel_stat_result_entry_t *entries; /* element 156; right after the record in one block */
} zel_stat_results_t;

/* How a field row of a description table is converted. */
enum {
    ZEL_FIELD_BYTE = 0,        /* one byte */
    ZEL_FIELD_UNSIGNED = 1,    /* an integer of 4 or 8 bytes */
    ZEL_FIELD_FIXED_ARRAY = 3, /* a fixed number of values */
    ZEL_FIELD_RECORD_ARRAY = 4 /* as many records as count() says */
};

#define ZEL_FIELD_NONE 0xffffffffu /* no value in this column */

/* Header of a description table. */
typedef struct {
    uint32_t record_size;  /* bytes */
    const char *type_name; /* of the record */
    uint32_t reserved[2];  /* 0 */
} zel_table_header_t;

/* Row of a description table: one field.  The last row has ZEL_FIELD_NONE as its element. */
typedef struct {
    uint32_t element;                     /* TLV type of the field */
    uint32_t width;                       /* bytes of the value, of one value in arrays */
    uint32_t offset;                      /* of the field in the record */
    uint32_t kind;                        /* ZEL_FIELD_* */
    uint32_t reserved[3];                 /* 0 */
    int32_t (*count)(const void *record); /* number of records; null unless a record array */
    uint32_t terminator;                  /* 0; ZEL_FIELD_NONE in the last row */
    uint32_t size;                        /* bytes of the field in the record */
    uint32_t unused;                      /* ZEL_FIELD_NONE */
    const void *nested;                   /* table of the records; null unless a record array */
} zel_table_row_t;

typedef struct {
    zel_table_header_t header;
    zel_table_row_t rows[3];
} zel_stats_tbl_t;

typedef struct {
    zel_table_header_t header;
    zel_table_row_t rows[5];
} zel_stat_result_entry_tbl_t;

typedef struct {
    zel_table_header_t header;
    zel_table_row_t rows[4];
} zel_stat_results_tbl_t;

#pragma pack(pop)

/* The description tables that the platform's converter works with. */
ZEL_EXPORT extern const zel_stats_tbl_t zel_stats_tbl;
ZEL_EXPORT extern const zel_stat_result_entry_tbl_t zel_stat_result_entry_tbl;
ZEL_EXPORT extern const zel_stat_results_tbl_t zel_stat_results_tbl;

/*
 * Accessors: the platform's converter (zel/platform/tlv_converter.h) bound to one
 * table each.  Arguments and results are the converter's and pass through
 * untouched; uintptr_t is one word of its.  _to_tlv, _to_struct and
 * _get_struct_sz report a non-zero status with tlvu_error_print() under their
 * own name.
 *
 *   _field_itr_init  starts an iteration over the elements of tlv
 *   _field_get_next  steps it
 *   _get_field       reads one field
 *   _get_struct_sz   bytes of the record that tlv converts to, or -1
 *   _get_tlv_sz      bytes of the elements that the record converts to
 *   _to_tlv          converts a record to elements
 *   _to_struct       converts elements to a record; record_slot is the address of a
 *                    record pointer
 */
ZEL_EXPORT int32_t zel_stats_field_get_next(void *itr, void *field);
ZEL_EXPORT int32_t zel_stats_field_itr_init(void *itr, const void *tlv, uintptr_t size, uintptr_t flags,
                                            uint16_t element);
ZEL_EXPORT int32_t zel_stats_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value,
                                       uintptr_t capacity);
ZEL_EXPORT int32_t zel_stats_get_struct_sz(const void *tlv);
ZEL_EXPORT uint32_t zel_stats_get_tlv_sz(const zel_stats_t *record);
ZEL_EXPORT int32_t zel_stats_to_tlv(const zel_stats_t *record, void *tlv, uintptr_t capacity, void *written,
                                    uintptr_t flags, uintptr_t reserved);
ZEL_EXPORT int32_t zel_stats_to_struct(void *record_slot, const void *tlv, uintptr_t size, uintptr_t caller_owned);

ZEL_EXPORT int32_t zel_stat_result_entry_field_get_next(void *itr, void *field);
ZEL_EXPORT int32_t zel_stat_result_entry_field_itr_init(void *itr, const void *tlv, uintptr_t size, uintptr_t flags,
                                                        uint16_t element);
ZEL_EXPORT int32_t zel_stat_result_entry_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value,
                                                   uintptr_t capacity);
ZEL_EXPORT int32_t zel_stat_result_entry_get_struct_sz(const void *tlv);
ZEL_EXPORT uint32_t zel_stat_result_entry_get_tlv_sz(const zel_stat_result_entry_t *record);
ZEL_EXPORT int32_t zel_stat_result_entry_to_tlv(const zel_stat_result_entry_t *record, void *tlv, uintptr_t capacity,
                                                void *written, uintptr_t flags, uintptr_t reserved);
ZEL_EXPORT int32_t zel_stat_result_entry_to_struct(void *record_slot, const void *tlv, uintptr_t size,
                                                   uintptr_t caller_owned);

ZEL_EXPORT int32_t zel_stat_results_field_get_next(void *itr, void *field);
ZEL_EXPORT int32_t zel_stat_results_field_itr_init(void *itr, const void *tlv, uintptr_t size, uintptr_t flags,
                                                   uint16_t element);
ZEL_EXPORT int32_t zel_stat_results_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value,
                                              uintptr_t capacity);
ZEL_EXPORT int32_t zel_stat_results_get_struct_sz(const void *tlv);
ZEL_EXPORT uint32_t zel_stat_results_get_tlv_sz(const zel_stat_results_t *record);
ZEL_EXPORT int32_t zel_stat_results_to_tlv(const zel_stat_results_t *record, void *tlv, uintptr_t capacity,
                                           void *written, uintptr_t flags, uintptr_t reserved);
ZEL_EXPORT int32_t zel_stat_results_to_struct(void *record_slot, const void *tlv, uintptr_t size,
                                              uintptr_t caller_owned);

/* The number of entries of a zel_stat_results_t.  The count function of its table. */
ZEL_EXPORT int32_t zel_stat_results_get_num_entries(const void *results);

/*
 * Reads the statistics of a response: one block, the record with its entries
 * right after it, to be freed with zel_free_stat_results().  Null when the
 * response carries none (its status is neither 10, nor 1 with error 0; see
 * zel_parse_response()) or when the body could not be converted.
 */
ZEL_EXPORT zel_stat_results_t *zel_parse_stats(void *kob_msg);

/* Frees a block of zel_parse_stats(); null is ignored. */
ZEL_EXPORT void zel_free_stat_results(zel_stat_results_t *results);

/* ------------------------------------------------------------------------
 * The codec
 *
 * For programs that embed the codec: a client or a service needs none of what follows.
 * The request calls and the message parser use these calls themselves.
 * ------------------------------------------------------------------------ */

/* ------------------------------------------------------------------------
 * Message assembly
 * ------------------------------------------------------------------------ */

/*
 * Builds and sends one request: sizes the graph, allocates one zero-filled
 * buffer of exactly the message's size, writes header and graph, sends it (in
 * parts above ZEL_KOB_MP_THRESHOLD bytes) and frees the buffer.
 *
 * result  out: the token when the transport accepted the message, else 0
 * obj     root record of the kind that api_type carries; null sends the header alone
 *
 * Returns ZEL_SEND_DONE once a send was attempted, accepted or not,
 * ZEL_SEND_ERR_NO_TRANSPORT or ZEL_SEND_ERR_NO_MEMORY.  Elements that could not
 * be written and refusals by the transport are reported to err_cb.
 */
ZEL_EXPORT uint32_t send_to_zel(uint32_t *result, uint32_t api_type, zel_api_handle_t *handle, uint16_t policy_id,
                                const void *obj, uint32_t op_code, void *kob_msg);

/*
 * The message that send_to_zel() would send, for another transport or a file.
 *
 * header  api_type says what obj is
 * obj     root record; null gives a message of the header alone
 * size    out: bytes of the message
 *
 * Returns the message, which the caller free()s, or null without memory.
 */
ZEL_EXPORT void *zel_encode_message(zel_api_handle_t *handle, const zel_kob_header_t *header, const void *obj,
                                    uint32_t *size);

/* Encoded size of a graph, without header.  Leaves the handle's cache empty. */
ZEL_EXPORT uint32_t get_mat_obj_size_for_kob(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type,
                                             const void *obj);

/*
 * Appends a graph to the TLV array in buffer, whose capacity is given in bytes.
 * Returns what traverse_mat_obj() returns; failed writes are only reported.
 */
ZEL_EXPORT uint32_t assemble_mat_obj_for_kob(zel_api_handle_t *handle, uint32_t app_type, void *buffer,
                                             uint32_t capacity, uint32_t mat_type, const void *obj);

/* ------------------------------------------------------------------------
 * Element writer and markers
 * ------------------------------------------------------------------------ */

/*
 * Appends one element to the TLV array of array_size bytes.  Returns 0, or the
 * platform's status, reported to err_cb with field_name; the array is then as
 * the platform left it.
 */
ZEL_EXPORT int32_t tlv_add_element(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size, uint16_t element_id,
                                   uint16_t length, const void *value, const char *field_name);

/* Append the start or end marker of a MAT type; types without markers are reported to err_cb. */
ZEL_EXPORT void zel_add_tlv_struct_start(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array,
                                         uint32_t array_size);
ZEL_EXPORT void zel_add_tlv_struct_end(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array,
                                       uint32_t array_size);

/* The value byte, 0, of every start and of every end marker. */
ZEL_EXPORT extern const uint8_t zel_tlv_struct_start;
ZEL_EXPORT extern const uint8_t zel_tlv_struct_end;

/* One zero word for the platform's operation index.  The library never touches it. */
ZEL_EXPORT extern uint32_t ddb_kobops_ix_t;

/* ------------------------------------------------------------------------
 * Encoded sizes
 *
 * Bytes that the encoder of the same record appends: the sum of tlv_size_get()
 * over its elements, markers included.  Sums are not checked for overflow of 32
 * bits.  The functions with a handle enter every match and action into its
 * cache, and count a later one with the same id as a reference: a caller
 * that uses them directly empties the cache before the pass that encodes.  app_type is the
 * first component of the cache key.  A null record has size 0.  Match types that
 * cannot carry a parameter are reported to err_cb.
 * ------------------------------------------------------------------------ */

/*
 * Size of the message header: request kind, application, policy and operation of the request.
 * Constant.
 */
ZEL_EXPORT uint32_t zel_kob_header_get_tlv_sz(void);
/* Size of one statistics query: the policy and pair whose counters are asked for. */
ZEL_EXPORT uint32_t zel_stat_request_entry_get_tlv_sz(void);
/*
 * Size of a statistics request: queries, with a 32-bit count.  Depends on the count alone; the
 * entries are not read, and app_type is not used.
 */
ZEL_EXPORT uint32_t zel_stat_request_get_tlv_sz(const zel_stat_request_t *record, uint32_t app_type);
/* Size of the parameter of an action that puts packets into a VRF. */
ZEL_EXPORT uint32_t zel_action_set_vrf_get_tlv_sz(void);
/* Size of the parameter of an action that rewrites addresses and ports. */
ZEL_EXPORT uint32_t zel_action_nat_rewrite_get_tlv_sz(void);
/* Size of the next hop of a layer-3 redirect. */
ZEL_EXPORT uint32_t zel_l3_redirect_ipv4_get_tlv_sz(void);
/* Size of the next hop of a layer-2 redirect, with its Ethernet addresses. */
ZEL_EXPORT uint32_t zel_l2_redirect_ipv4_get_tlv_sz(void);
/* Size of the label that a redirect can insert. */
ZEL_EXPORT uint32_t zel_action_label_param_get_tlv_sz(void);
/*
 * Size of the parameter of an action that redirects packets: the label always, the next hop by
 * type.  Depends on the redirect type; app_type is not used.
 */
ZEL_EXPORT uint32_t zel_action_param_redirect_get_tlv_sz(const zel_action_param_redirect_t *record, uint32_t app_type);
/* Size of the parameter of an action that takes a packet out of its LISP tunnel. */
ZEL_EXPORT uint32_t zel_action_lisp_decapsulation_get_tlv_sz(void);
/* Size of one interface, VLAN or VRF that a policy is bound to. */
ZEL_EXPORT uint32_t zel_if_element_get_tlv_sz(void);
/*
 * Size of the interfaces of a policy.  Depends on the count alone; the elements are not read, and
 * app_type is not used.
 */
ZEL_EXPORT uint32_t zel_if_group_get_tlv_sz(const zel_if_group_t *record, uint32_t app_type);
/* Size of the parameter of a match on a LISP instance. */
ZEL_EXPORT uint32_t zel_match_lisp_inst_get_tlv_sz(void);
/* Size of the parameter of a match on LISP encapsulation: UDP port and destination locator. */
ZEL_EXPORT uint32_t zel_match_lisp_proto_get_tlv_sz(void);
/* Size of the parameter of a match on the EXP bits. */
ZEL_EXPORT uint32_t zel_match_exp_get_tlv_sz(void);
/* Size of the parameter of a match on an ARP opcode. */
ZEL_EXPORT uint32_t zel_match_arp_opcode_get_tlv_sz(void);
/* Size of the parameter of a match on an Ethernet type. */
ZEL_EXPORT uint32_t zel_match_eth_proto_get_tlv_sz(void);
/* Size of a five-tuple with masks: an element of a service, or a match parameter of its own. */
ZEL_EXPORT uint32_t zel_match_service_element_get_tlv_sz(void);
/*
 * Size of the parameter of a match on several five-tuples, any of which matches.  Depends on the
 * count alone; the elements are not read, and app_type is not used.
 */
ZEL_EXPORT uint32_t zel_match_service_get_tlv_sz(const zel_match_service_t *record, uint32_t app_type);
/* Size of the parameter of a match on a label. */
ZEL_EXPORT uint32_t zel_match_label_get_tlv_sz(void);
/* Size of the parameter of a match on an access list, by its name. */
ZEL_EXPORT uint32_t zel_match_acl_get_tlv_sz(void);
/*
 * Size of an action: what is done with a packet that matched, with the parameter of its type.  An
 * action that the cache holds already counts as a reference.
 */
ZEL_EXPORT uint32_t zel_action_get_tlv_sz(zel_api_handle_t *handle, const zel_action_t *record, uint32_t app_type);
/* Size of the actions of a pair. */
ZEL_EXPORT uint32_t zel_action_grp_get_tlv_sz(zel_api_handle_t *handle, const zel_action_grp_t *record,
                                              uint32_t app_type);
/*
 * Size of a match: what a packet is compared with, with the parameter of its type. A match that
 * the cache holds already counts as a reference.
 */
ZEL_EXPORT uint32_t zel_match_get_tlv_sz(zel_api_handle_t *handle, const zel_match_t *record, uint32_t app_type);
/* Size of the matches of a pair, and how they combine. */
ZEL_EXPORT uint32_t zel_match_grp_get_tlv_sz(zel_api_handle_t *handle, const zel_match_grp_t *record,
                                             uint32_t app_type);
/* Size of a pair: what to match, and what to do then. */
ZEL_EXPORT uint32_t zel_match_action_pair_get_tlv_sz(zel_api_handle_t *handle, const zel_match_action_pair_t *record,
                                                     uint32_t app_type);
/* Size of the pairs of a policy, in the order in which they are tried. */
ZEL_EXPORT uint32_t zel_match_action_pair_grp_get_tlv_sz(zel_api_handle_t *handle,
                                                         const zel_match_action_pair_grp_t *record, uint32_t app_type);
/* Size of a policy: its pairs, and the interfaces that it is bound to. */
ZEL_EXPORT uint32_t zel_policy_get_tlv_sz(zel_api_handle_t *handle, const zel_policy_t *record, uint32_t app_type);
/* Size of several policies. */
ZEL_EXPORT uint32_t zel_policy_list_get_tlv_sz(zel_api_handle_t *handle, const zel_policy_list_t *record,
                                               uint32_t app_type);

/* ------------------------------------------------------------------------
 * Encoders
 *
 * Append a record and all that it contains to the TLV array of array_size bytes.
 * The result is the status of the last write, the end marker's; writes that fail
 * before it are reported to err_cb and leave a gap.  Matches and actions already
 * in the handle's cache are written as references, others are entered into it;
 * app_type is the first component of the key.  A null record writes nothing and
 * gives 0.  Match groups and policy lists send the platform's heartbeat while
 * they are encoded; the counter of the former is shared by the whole process and
 * not synchronised.
 * ------------------------------------------------------------------------ */

/*
 * Elements 1 to 2: the message header: request kind, application, policy and operation of the
 * request.
 */
ZEL_EXPORT int32_t zel_add_kob_header_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                             const zel_kob_header_t *record);
/* Elements 138 to 139: one statistics query: the policy and pair whose counters are asked for. */
ZEL_EXPORT int32_t zel_add_stat_request_entry_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                     const zel_stat_request_entry_t *record);
/* Elements 135 to 136: a statistics request: queries, with a 32-bit count. app_type is not used. */
ZEL_EXPORT int32_t zel_add_stat_request_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                               const zel_stat_request_t *record, uint32_t app_type);
/* Elements 159 to 160: the parameter of an action that puts packets into a VRF. */
ZEL_EXPORT int32_t zel_add_action_set_vrf_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                 const zel_action_set_vrf_t *record);
/* Elements 85 to 86: the parameter of an action that rewrites addresses and ports. */
ZEL_EXPORT int32_t zel_add_action_nat_rewrite_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                     const zel_action_nat_rewrite_t *record);
/* Elements 73 to 74: the next hop of a layer-3 redirect. */
ZEL_EXPORT int32_t zel_add_l3_redirect_ipv4_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                   const zel_l3_redirect_ipv4_t *record);
/* Elements 65 to 66: the next hop of a layer-2 redirect, with its Ethernet addresses. */
ZEL_EXPORT int32_t zel_add_l2_redirect_ipv4_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                   const zel_l2_redirect_ipv4_t *record);
/* Elements 56 to 57: the label that a redirect can insert. */
ZEL_EXPORT int32_t zel_add_action_label_param_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                     const zel_action_label_param_t *record);
/*
 * Elements 79 to 80: the parameter of an action that redirects packets: the label always, the next
 * hop by type. app_type is not used.
 */
ZEL_EXPORT int32_t zel_add_action_param_redirect_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                        const zel_action_param_redirect_t *record, uint32_t app_type);
/* Elements 91 to 92: the parameter of an action that takes a packet out of its LISP tunnel. */
ZEL_EXPORT int32_t zel_add_action_lisp_decapsulation_to_tlv(zel_api_handle_t *handle, void *tlv_array,
                                                            uint32_t array_size,
                                                            const zel_action_lisp_decapsulation_t *record);
/*
 * Elements 96 to 97: an action: what is done with a packet that matched, with the parameter of its
 * type.  Or a reference to it.
 */
ZEL_EXPORT int32_t zel_add_action_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                         const zel_action_t *record, uint32_t app_type);
/* Elements 60 to 61: the actions of a pair. */
ZEL_EXPORT int32_t zel_add_action_grp_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                             const zel_action_grp_t *record, uint32_t app_type);
/* Elements 128 to 129: one interface, VLAN or VRF that a policy is bound to. */
ZEL_EXPORT int32_t zel_add_if_element_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                             const zel_if_element_t *record);
/* Elements 125 to 126: the interfaces of a policy. app_type is not used. */
ZEL_EXPORT int32_t zel_add_if_group_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                           const zel_if_group_t *record, uint32_t app_type);
/* Elements 53 to 54: the parameter of a match on a LISP instance. */
ZEL_EXPORT int32_t zel_add_match_lisp_inst_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                  const zel_match_lisp_inst_t *record);
/*
 * Elements 49 to 50: the parameter of a match on LISP encapsulation: UDP port and destination
 * locator.
 */
ZEL_EXPORT int32_t zel_add_match_lisp_proto_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                   const zel_match_lisp_proto_t *record);
/* Elements 46 to 47: the parameter of a match on the EXP bits. */
ZEL_EXPORT int32_t zel_add_match_exp_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                            const zel_match_exp_t *record);
/* Elements 43 to 44: the parameter of a match on an ARP opcode. */
ZEL_EXPORT int32_t zel_add_match_arp_opcode_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                   const zel_match_arp_opcode_t *record);
/* Elements 40 to 41: the parameter of a match on an Ethernet type. */
ZEL_EXPORT int32_t zel_add_match_eth_proto_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                  const zel_match_eth_proto_t *record);
/*
 * Elements 9 to 10: a five-tuple with masks: an element of a service, or a match parameter of its
 * own.
 */
ZEL_EXPORT int32_t zel_add_match_service_element_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                        const zel_match_service_element_t *record);
/*
 * Elements 20 to 21: the parameter of a match on several five-tuples, any of which matches.
 * app_type is not used.
 */
ZEL_EXPORT int32_t zel_add_match_service_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                const zel_match_service_t *record, uint32_t app_type);
/* Elements 32 to 33: the parameter of a match on a label. */
ZEL_EXPORT int32_t zel_add_match_label_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                              const zel_match_label_t *record);
/* Elements 29 to 30: the parameter of a match on an access list, by its name. */
ZEL_EXPORT int32_t zel_add_match_acl_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                            const zel_match_acl_t *record);
/*
 * Elements 23 to 24: a match: what a packet is compared with, with the parameter of its type.  Or a
 * reference to it.  A type that cannot carry a parameter is reported to err_cb.
 */
ZEL_EXPORT int32_t zel_add_match_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                        const zel_match_t *record, uint32_t app_type);
/*
 * Elements 101 to 102: the matches of a pair, and how they combine.  Sends a heartbeat at every
 * 32nd match of the process.
 */
ZEL_EXPORT int32_t zel_add_match_grp_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                            const zel_match_grp_t *record, uint32_t app_type);
/* Elements 107 to 108: a pair: what to match, and what to do then. */
ZEL_EXPORT int32_t zel_add_match_action_pair_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                    const zel_match_action_pair_t *record, uint32_t app_type);
/* Elements 113 to 114: the pairs of a policy, in the order in which they are tried. */
ZEL_EXPORT int32_t zel_add_match_action_pair_grp_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                                        const zel_match_action_pair_grp_t *record, uint32_t app_type);
/* Elements 116 to 117: a policy: its pairs, and the interfaces that it is bound to. */
ZEL_EXPORT int32_t zel_add_policy_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                         const zel_policy_t *record, uint32_t app_type);
/* Elements 122 to 123: several policies.  Sends a heartbeat at every 32nd policy of the list. */
ZEL_EXPORT int32_t zel_add_policy_list_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,
                                              const zel_policy_list_t *record, uint32_t app_type);

/*
 * Decides whether a match or action is written whole or as a reference, and in
 * the latter case writes it (MAT_TRAVERSE_ENCODE: *size is the array's size) or
 * counts it (MAT_TRAVERSE_SIZE: its bytes are added to *size).  The first
 * occurrence of an id enters the handle's cache in any mode but
 * MAT_TRAVERSE_FREE.  record is a zel_match_t or zel_action_t.  Returns
 * ZEL_COMPRESS_DONE or ZEL_COMPRESS_WHOLE; unknown MAT types, and unknown modes
 * for a repeated object, are reported to err_cb and give the latter.
 */
ZEL_EXPORT uint32_t compress_mat(zel_api_handle_t *handle, void *tlv_array, uint32_t *size, uint32_t mat_type,
                                 const void *record, uint32_t mode, uint32_t app_type);

/* ------------------------------------------------------------------------
 * Traversal
 *
 * value is the accumulator of MAT_TRAVERSE_SIZE, the array's capacity (only
 * read) of MAT_TRAVERSE_ENCODE, and unused, may be null, for MAT_TRAVERSE_FREE.
 * buffer is used by MAT_TRAVERSE_ENCODE alone.  Free mode releases the members
 * and arrays below obj, never obj itself, sets released pointers to null and
 * leaves counts as they are; a match that is marked cached keeps its parameter,
 * which belongs to the object it was copied from.  A null obj is an empty graph.
 * ------------------------------------------------------------------------ */

/*
 * Traverses a graph of any MAT type and empties the handle's cache.  Returns 0,
 * or 1 for a MAT type that cannot be traversed as a root (1, 2, 4, 6, 15 and
 * above), silently.
 */
ZEL_EXPORT uint32_t traverse_mat_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, uint32_t mat_type,
                                     void *obj, uint32_t app, uint32_t mode);

/*
 * The same for one type, without emptying the cache.  Return 0.  An unknown mode
 * is reported to err_cb, except by the match and the action.
 */
/* Frees the policies with what they own. */
ZEL_EXPORT uint32_t traverse_mat_policy_list_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value,
                                                 zel_policy_list_t *obj, uint32_t mode, uint32_t app);
/* Frees the interface group's interfaces, then the pair group's pairs. */
ZEL_EXPORT uint32_t traverse_mat_policy_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, zel_policy_t *obj,
                                            uint32_t mode, uint32_t app);
/* Frees the pairs with what they own. */
ZEL_EXPORT uint32_t traverse_mat_match_action_pair_grp_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value,
                                                           zel_match_action_pair_grp_t *obj, uint32_t mode,
                                                           uint32_t app);
/* Frees matches, then actions, then the array of each. */
ZEL_EXPORT uint32_t traverse_mat_match_action_pair_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value,
                                                       zel_match_action_pair_t *obj, uint32_t mode, uint32_t app);
/* Frees the matches with what they own. */
ZEL_EXPORT uint32_t traverse_mat_match_grp_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value,
                                               zel_match_grp_t *obj, uint32_t mode, uint32_t app);
/* Frees the actions. */
ZEL_EXPORT uint32_t traverse_mat_action_grp_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value,
                                                zel_action_grp_t *obj, uint32_t mode, uint32_t app);
/* Frees the service elements of a service that is not cached. */
ZEL_EXPORT uint32_t traverse_mat_match_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, zel_match_t *obj,
                                           uint32_t mode, uint32_t app);
/* An action owns nothing. */
ZEL_EXPORT uint32_t traverse_mat_action_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value, zel_action_t *obj,
                                            uint32_t mode, uint32_t app);
/* Frees the interfaces. */
ZEL_EXPORT uint32_t traverse_mat_if_group_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value,
                                              zel_if_group_t *obj, uint32_t mode, uint32_t app);
/* A redirect owns nothing. */
ZEL_EXPORT uint32_t traverse_mat_action_redirect_obj(zel_api_handle_t *handle, void *buffer, uint32_t *value,
                                                     zel_action_param_redirect_t *obj, uint32_t mode, uint32_t app);

/* ------------------------------------------------------------------------
 * Decoders
 *
 * Read elements of the TLV array at *cursor (0 at the array's start) into a
 * record that the caller allocated zero-filled, until the record's end marker.
 * The start marker may have been consumed or not.  *tlv_subtotal is set to the
 * number of elements consumed, those of contained records included.
 *
 * Return 0 at the end marker, or the platform's status when an element could not
 * be read before it (reported to err_cb); the record then holds what came.
 *
 * Tolerant by contract: fields may come in any order, the last of repeated ones
 * stands, a missing one leaves the record as it was, element lengths are not
 * looked at (a field's full width is read, so every value must be followed by
 * readable memory, see zel/platform/transport.h), and unknown elements are skipped
 * one by one with a report to warn_cb.  Counts must come before members.  The
 * detail of every element goes to dbg_cb.
 *
 * Counts.  Counts are accepted as they are until those of one message add up to
 * 131,072.  Beyond that, a count that asks for more members than the message has
 * elements left is lowered: to any number, 0 included.  No message that
 * send_to_zel() builds is affected.
 *
 * Members and arrays are allocated and belong to the record; release them with
 * free_contained_mat_obj_mem().  When memory runs out, err_cb is told and the
 * record holds, with counts to match, the members that were built.
 *
 * app_type is the first component of the cache key.  A match or action is
 * entered into the handle's cache at its end marker, and a reference is filled
 * by copying the cached record, pointers included, and marked cached.  A caller
 * that uses these decoders directly empties the cache before it frees the records.
 * ------------------------------------------------------------------------ */

/*
 * Elements 1 to 2: the message header: request kind, application, policy and operation of the
 * request.
 */
ZEL_EXPORT int32_t zel_parse_kob_header_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                 zel_kob_header_t *record, uint32_t *tlv_subtotal);
/* Elements 138 to 139: one statistics query: the policy and pair whose counters are asked for. */
ZEL_EXPORT int32_t zel_parse_stat_request_entry_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                         uint32_t *cursor, zel_stat_request_entry_t *record,
                                                         uint32_t *tlv_subtotal);
/* Elements 135 to 136: a statistics request: queries, with a 32-bit count. app_type is not used. */
ZEL_EXPORT int32_t zel_parse_stat_request_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                   zel_stat_request_t *record, uint32_t *tlv_subtotal,
                                                   uint32_t app_type);
/* Elements 159 to 160: the parameter of an action that puts packets into a VRF. */
ZEL_EXPORT int32_t zel_parse_action_set_vrf_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                     zel_action_set_vrf_t *record, uint32_t *tlv_subtotal);
/* Elements 85 to 86: the parameter of an action that rewrites addresses and ports. */
ZEL_EXPORT int32_t zel_parse_action_nat_rewrite_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                         uint32_t *cursor, zel_action_nat_rewrite_t *record,
                                                         uint32_t *tlv_subtotal);
/* Elements 73 to 74: the next hop of a layer-3 redirect. */
ZEL_EXPORT int32_t zel_parse_l3_redirect_ipv4_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                       uint32_t *cursor, zel_l3_redirect_ipv4_t *record,
                                                       uint32_t *tlv_subtotal);
/* Elements 65 to 66: the next hop of a layer-2 redirect, with its Ethernet addresses. */
ZEL_EXPORT int32_t zel_parse_l2_redirect_ipv4_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                       uint32_t *cursor, zel_l2_redirect_ipv4_t *record,
                                                       uint32_t *tlv_subtotal);
/* Elements 56 to 57: the label that a redirect can insert. */
ZEL_EXPORT int32_t zel_parse_action_label_param_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                         uint32_t *cursor, zel_action_label_param_t *record,
                                                         uint32_t *tlv_subtotal);
/*
 * Elements 79 to 80: the parameter of an action that redirects packets: the label always, the next
 * hop by type.  The next hop that arrives last stands.  app_type is not used.
 */
ZEL_EXPORT int32_t zel_parse_action_param_redirect_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                            uint32_t *cursor, zel_action_param_redirect_t *record,
                                                            uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 91 to 92: the parameter of an action that takes a packet out of its LISP tunnel. */
ZEL_EXPORT int32_t zel_parse_action_lisp_decapsulation_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                                uint32_t *cursor,
                                                                zel_action_lisp_decapsulation_t *record,
                                                                uint32_t *tlv_subtotal);
/* Elements 128 to 129: one interface, VLAN or VRF that a policy is bound to. */
ZEL_EXPORT int32_t zel_parse_if_element_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                 zel_if_element_t *record, uint32_t *tlv_subtotal);
/* Elements 125 to 126: the interfaces of a policy. app_type is not used. */
ZEL_EXPORT int32_t zel_parse_if_group_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                               zel_if_group_t *record, uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 53 to 54: the parameter of a match on a LISP instance. */
ZEL_EXPORT int32_t zel_parse_match_lisp_inst_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                      zel_match_lisp_inst_t *record, uint32_t *tlv_subtotal);
/*
 * Elements 49 to 50: the parameter of a match on LISP encapsulation: UDP port and destination
 * locator.
 */
ZEL_EXPORT int32_t zel_parse_match_lisp_proto_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                       uint32_t *cursor, zel_match_lisp_proto_t *record,
                                                       uint32_t *tlv_subtotal);
/* Elements 46 to 47: the parameter of a match on the EXP bits. */
ZEL_EXPORT int32_t zel_parse_match_exp_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                zel_match_exp_t *record, uint32_t *tlv_subtotal);
/* Elements 43 to 44: the parameter of a match on an ARP opcode. */
ZEL_EXPORT int32_t zel_parse_match_arp_opcode_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                       uint32_t *cursor, zel_match_arp_opcode_t *record,
                                                       uint32_t *tlv_subtotal);
/* Elements 40 to 41: the parameter of a match on an Ethernet type. */
ZEL_EXPORT int32_t zel_parse_match_eth_proto_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                      zel_match_eth_proto_t *record, uint32_t *tlv_subtotal);
/*
 * Elements 9 to 10: a five-tuple with masks: an element of a service, or a match parameter of its
 * own.
 */
ZEL_EXPORT int32_t zel_parse_match_service_element_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                            uint32_t *cursor, zel_match_service_element_t *record,
                                                            uint32_t *tlv_subtotal);
/*
 * Elements 20 to 21: the parameter of a match on several five-tuples, any of which matches.
 * app_type is not used.
 */
ZEL_EXPORT int32_t zel_parse_match_service_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                    zel_match_service_t *record, uint32_t *tlv_subtotal,
                                                    uint32_t app_type);
/* Elements 32 to 33: the parameter of a match on a label. */
ZEL_EXPORT int32_t zel_parse_match_label_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                  zel_match_label_t *record, uint32_t *tlv_subtotal);
/*
 * Elements 29 to 30: the parameter of a match on an access list, by its name.  The last byte of the
 * record stays the caller's zero.
 */
ZEL_EXPORT int32_t zel_parse_match_acl_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                zel_match_acl_t *record, uint32_t *tlv_subtotal);
/*
 * Elements 96 to 97: an action: what is done with a packet that matched, with the parameter of its
 * type.  The parameter that arrives last stands, whatever type says.  A reference that the cache
 * cannot resolve is reported to err_cb and fills nothing.
 */
ZEL_EXPORT int32_t zel_parse_action_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                             zel_action_t *record, uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 60 to 61: the actions of a pair. */
ZEL_EXPORT int32_t zel_parse_action_grp_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                 zel_action_grp_t *record, uint32_t *tlv_subtotal, uint32_t app_type);
/*
 * Elements 23 to 24: a match: what a packet is compared with, with the parameter of its type.  The
 * parameter that arrives last stands, whatever type says.  A reference that the cache cannot
 * resolve is reported to err_cb and fills nothing.
 */
ZEL_EXPORT int32_t zel_parse_match_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                            zel_match_t *record, uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 101 to 102: the matches of a pair, and how they combine. */
ZEL_EXPORT int32_t zel_parse_match_grp_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                zel_match_grp_t *record, uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 107 to 108: a pair: what to match, and what to do then. */
ZEL_EXPORT int32_t zel_parse_match_action_pair_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                        uint32_t *cursor, zel_match_action_pair_t *record,
                                                        uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 113 to 114: the pairs of a policy, in the order in which they are tried. */
ZEL_EXPORT int32_t zel_parse_match_action_pair_grp_from_tlv(zel_api_handle_t *handle, const void *tlv_array,
                                                            uint32_t *cursor, zel_match_action_pair_grp_t *record,
                                                            uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 116 to 117: a policy: its pairs, and the interfaces that it is bound to. */
ZEL_EXPORT int32_t zel_parse_policy_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                             zel_policy_t *record, uint32_t *tlv_subtotal, uint32_t app_type);
/* Elements 122 to 123: several policies. */
ZEL_EXPORT int32_t zel_parse_policy_list_from_tlv(zel_api_handle_t *handle, const void *tlv_array, uint32_t *cursor,
                                                  zel_policy_list_t *record, uint32_t *tlv_subtotal, uint32_t app_type);

/* ------------------------------------------------------------------------
 * Object cache
 *
 * Which matches and actions the current message has carried in full.  Kept in
 * the handle, ordered by application, MAT type and id, and empty between
 * messages.  It borrows the objects and never frees them.
 * ------------------------------------------------------------------------ */

/* Only the first ten bytes are compared. */
typedef struct {
    uint32_t app_type;
    uint32_t mat_type;
    uint16_t mat_id;
} zel_mat_cache_key_t;

typedef struct {
    uint64_t link[2]; /* the tree's own; first, so that a tree node is an entry */
    zel_mat_cache_key_t key;
    void *obj; /* borrowed */
} zel_mat_cache_entry_t;

/* Compares two zel_mat_cache_key_t: 1 when a sorts after b, 2 when before, 0 when equal. */
ZEL_EXPORT uint32_t zel_mat_cache_comp_func(const void *a, const void *b);

/* The entry of a key, or null.  It stays valid until it is deleted or the cache is emptied. */
ZEL_EXPORT zel_mat_cache_entry_t *zel_found_mat_cache(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type,
                                                      uint16_t mat_id);

/*
 * Enters an object.  When memory is short (reported to err_cb) it is not
 * entered; when the tree refuses the key (dbg_cb) the earlier object stands and
 * the refused entry's memory is not reclaimed.
 */
ZEL_EXPORT void zel_store_mat_cache(zel_api_handle_t *handle, uint32_t app_type, uint32_t mat_type, uint16_t mat_id,
                                    void *obj);

/* Removes and frees one entry that zel_found_mat_cache() returned.  Returns 0. */
ZEL_EXPORT int32_t zel_del_mat_cache_entry(zel_api_handle_t *handle, zel_mat_cache_entry_t *entry);

/* Removes and frees all entries.  Returns the last, non-zero, result of ravl_is_empty(). */
ZEL_EXPORT int32_t zel_empty_mat_cache(zel_api_handle_t *handle);

#ifdef __cplusplus
}
#endif

#endif /* ZEL_H */
