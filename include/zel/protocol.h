/*
 * zel/protocol.h - what a policy service and its clients agree on beyond the wire format.
 *
 * The library carries these values.  It looks at two of them only: zel_stats_pull() sends
 * ZEL_OP_STATS, and zel_parse_stats() reads status and error.  A service of your own may
 * give the values another meaning; the stand-in service zeld and the tools have this one.
 */
#ifndef ZEL_PROTOCOL_H
#define ZEL_PROTOCOL_H

/* op_code of a request. */
enum {
    ZEL_OP_SET = 1,    /* create the object, or replace the one with its id */
    ZEL_OP_REMOVE = 2, /* remove the objects that the graph names by id */
    ZEL_OP_STATS = 3   /* of every statistics request */
};

/* op_mode of a policy, pair, group, match, action or interface. */
enum {
    ZEL_MODE_ACTIVE = 0,
    ZEL_MODE_DISABLED = 1 /* kept and shown, but has no effect */
};

/* logical_op of a match group. */
enum {
    ZEL_LOGICAL_AND = 0, /* all matches have to match; a group without matches matches everything */
    ZEL_LOGICAL_OR = 1   /* at least one has to; a group without matches matches nothing */
};

/* flag of a statistics query. */
enum {
    ZEL_STAT_FLAG_NONE = 0,
    ZEL_STAT_FLAG_CLEAR = 1 /* set the counters to 0 after they were read */
};

/* policy_id or match_action_pair_id of a statistics query: all of them.  No policy or pair has this id. */
#define ZEL_STAT_ALL 0xffffu

/* tag of statistics results, and of an entry. */
enum {
    ZEL_STAT_TAG_RESULTS = 1,
    /*
     * The entry of a pair: key is the application, ids[] as below; stats[0].counter1 is the
     * number of packets that matched, stats[0].counter2 their bytes; the rest is 0.
     */
    ZEL_STAT_TAG_PAIR = 2
};

/* Places in ids[] of the entry of a pair. */
enum { ZEL_STAT_ID_POLICY = 0, ZEL_STAT_ID_PAIR = 1 };

/* status of a response.  retval is 0 with the first and -1 with the second. */
enum { ZEL_STATUS_OK = 1, ZEL_STATUS_FAILED = 2 };

/* error of a response.  A request that was refused has changed nothing, except as error 5 says. */
enum {
    ZEL_ERROR_NONE = 0,
    ZEL_ERROR_MALFORMED = 1,   /* the message has the wrong shape; the text says where */
    ZEL_ERROR_UNSUPPORTED = 2, /* unknown request kind, op_code, opcode or flag */
    ZEL_ERROR_NOT_FOUND = 3,   /* no such policy, pair, group, match, action or interface */
    ZEL_ERROR_CONFLICT = 4,    /* a duplicate id, or two objects of one id that differ */
    ZEL_ERROR_STORAGE = 5,     /* the change could not be made durable; the text says whether it was made */
    ZEL_ERROR_LIMIT = 6,       /* too large, too much work, or not enough memory */
    ZEL_ERROR_DENIED = 7       /* not permitted at this address */
};

#endif /* ZEL_PROTOCOL_H */
