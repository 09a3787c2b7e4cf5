/*
 * MGI application side: the entity tree of a serving daemon, request
 * decoding, response encoding and the message handlers, error reporting,
 * query data and the condition context.
 *
 * A daemon registers its entities with app_entity_init and app_entity_add at
 * start, then hands handle_mgi_msg to its IPC loop for message 6 (and
 * handle_ha_sync_mgi_msg to the synchronisation path).
 */
#ifndef MGMT_MGI_APP_H
#define MGMT_MGI_APP_H

#include <stddef.h>
#include <stdint.h>

#include "mgmt/export.h"
#include "mgmt/mgi.h"

MGMT_BEGIN_DECLS

/* ---------------------------------------------------------------- entity tree */

/* A handler of an entity; only decodeData's result is passed on. Failure is told through decodeErr/encodeErr. */
typedef int (*mgi_app_handler)(mgiInfo *info);

/* Entity kind that carries an index: its decodeIndex runs when a path passes through it. */
#define APP_ENTITY_INDEXED 2

/* Value type codes of items. */
#define APP_ITEM_BOOL 0
#define APP_ITEM_INT32 1
#define APP_ITEM_UINT32 2
#define APP_ITEM_INT64 3
#define APP_ITEM_STRING 5
#define APP_ITEM_IPV4 10
#define APP_ITEM_MAC 12
#define APP_ITEM_KEEP_TYPE 15 /* set_itemSyntax: leave the type as it is */

/*
 * One field of an entity's item table. Up to four names (aliases), ended by a
 * null pointer. offset: the field's size for sized types before
 * set_items_default_offset runs, its byte offset in the record afterwards.
 * A table ends with a row whose names are all null (and type and offset 0).
 */
typedef struct appItem {
    const char *names[5];
    uint32_t type;
    int32_t offset;
} appItem;

struct appEntity;
typedef struct appEntityList {
    struct appEntity *first;
    struct appEntity *last;
} appEntityList;

typedef struct appEntity {
    uint32_t entity; /* target word of this node, host order */
    uint32_t kind;   /* APP_ENTITY_INDEXED, or 0 for a node made up for a path step */
    mgi_app_handler decodeIndex;
    mgi_app_handler errHandle;
    mgi_app_handler decodeData;
    mgi_app_handler encodeData;
    appItem *items;
    uint64_t reserved;
    appEntityList children;
    struct appEntity *next;
} appEntity;

MGMT_API extern appEntityList entity_root;

/*
 * The tree is registered at start from one thread and read-only afterwards; entity_root, _config_mode,
 * gcondCtx and the server's record of who asks are process-wide and unlocked: one request at a time.
 *
 * A new entity on the heap, never freed, its links zeroed; items stays the daemon's. Null when memory
 * fails, with "malloc fail" on standard output.
 */
MGMT_API appEntity *app_entity_init(uint32_t entity, uint32_t kind, mgi_app_handler decodeIndex,
                                    mgi_app_handler errHandle, mgi_app_handler decodeData,
                                    mgi_app_handler encodeData, appItem *items);
/*
 * Hangs entity last under the node that path (zero-terminated, or null for the top) names, making up
 * missing steps as nodes of kind 0. 0; -1 for a null entity or out of memory. The same word twice gives
 * two siblings, and look-ups find the first.
 */
MGMT_API int app_entity_add(const uint32_t *path, appEntity *entity);
/*
 * The entity at the end of a zero-terminated path, a made-up node included; null for a null or empty
 * path, and null with "request path does not exist" on standard output when a step is missing.
 */
MGMT_API appEntity *get_app_mgi_entity(const uint32_t *path);
/*
 * Print the whole tree, or entity with its children and following siblings at *depth tabs, on standard
 * output; an empty tree prints "nothing to be shown! ".
 */
MGMT_API void show_app_entity(void);
MGMT_API void print_app_entity_tree(int *depth, appEntity *entity);
/* The row that has name among its names; null without a table, or when no row up to the table's end has it. */
MGMT_API appItem *get_item_by_name(appEntity *entity, const char *name);
/* Sets the row's offset, and its type unless type is 15. 0; -1990 without a table; -1 when no row has the name. */
MGMT_API int set_itemSyntax(appEntity *entity, const char *name, int32_t offset, uint32_t type);
/*
 * Lays out a table with getOffset, row by row up to the row with no first name (the first row always
 * counts): offset becomes the field's offset, the old value being the size of a sized type. 0, or -1 for
 * null. getOffset's running state is process-wide: one layout at a time; its closing call is the daemon's.
 */
MGMT_API int set_items_default_offset(appItem *items);
/* set_itemSyntax with type 15 on the entity at path: its result, or -1499 when no entity stands there. */
MGMT_API int set_items_ud_offset(const char *name, int32_t offset, const uint32_t *path);

/* ---------------------------------------------------------------- decoding */

/* Source-of-request code of the message in service. */
MGMT_API extern int _config_mode;

/*
 * Decodes a request into info (pointers into rqt, which must live until the response is sent), begins the
 * response header in rsp, runs the decodeIndex handlers along the path, the target's decodeData and, on
 * failure, its errHandle. Returns decodeErr. Holds IPC flag 4 around them for source code 8.
 */
MGMT_API int recv_app_rqt_mgi(void *rqt, void *rsp, mgiInfo *info);
/*
 * Fills info from the request header and points rqt_data, rsp_hdr_segment and rsp_data into the two
 * buffers; sets _config_mode, _ui_language and the server's record of who asks. Always 0.
 */
MGMT_API int decode_app_mgi_hdr(void *rqt, void *rsp, mgiInfo *info);
/*
 * Keeps in info a pointer to the body of a segment of type (with its length and subtype where the field
 * has them): 130 uiInfo, 131 condition, 132 cookie, 133 mgidata, 134 udcdata, 138 querydata; a later one
 * overwrites, other types are skipped. Always 0.
 */
MGMT_API int record_segment_info(mgiInfo *info, uint8_t type, void *segment);
/*
 * For a type-31 request: compiles udcdata's patterns into match_regex (freed by mgi_final_rsp_message; a
 * bad one stays null) and takes match_type from querydata. Always 0. Kept on purpose: the pattern cursor
 * moves on by the cumulative consumed length, so the third and later patterns are read from further on.
 */
MGMT_API int decode_app_mgi_match_regex(mgiInfo *info);
/*
 * Runs the decodeIndex of each indexed entity along a target of two words or more, parents first, nine
 * levels at most, until decodeErr is set. Returns decodeErr.
 */
MGMT_API int decode_app_mgi_index(mgiInfo *info);
/*
 * Calls the target's decodeData and returns its result; -101 into decodeErr, and returned, when decodeErr
 * was already set or no entity or no decodeData stands there.
 */
MGMT_API int decode_app_mgi_data(mgiInfo *info);
/*
 * With decodeErr set calls the target's errHandle, if any. Otherwise, or with no entity, prints "there is
 * sw error, as decodeErr %d not set ..." on standard output. Always 0. Kept on purpose: a request to an
 * unknown path prints that same line, showing -101.
 */
MGMT_API int decode_app_error_handling(mgiInfo *info);

/* Match segment of a type-31 request (sender's byte order): object ids 0 to MGI_MATCH_IDS - 1. */
#define MGI_MATCH_REGEX 10
#define MGI_MATCH_IDS 96
typedef struct mgiMatchHdr {
    uint32_t mask[3];
    uint8_t type[120];
    int32_t pattern_len;
    uint8_t unused[4];
    /* patterns follow */
} mgiMatchHdr;

/* The compiled expression of object id, or null (none, or id above 127); info owns it until mgi_final_rsp_message. */
MGMT_API void *mgi_get_match_regex_by_obj_id(mgiInfo *info, uint32_t id);
/* The match type of object id; 0xFFFFFFFF above 127 or with its mask bit clear, so always for 96 to 127. */
MGMT_API uint32_t mgi_get_match_type_by_obj_id(mgiInfo *info, uint32_t id);
/* 0 on a match (and for a null regex), a negative PCRE code otherwise. */
MGMT_API int mgi_pcre_exec(void *regex, const char *subject, int length);
/* Sets mgidata to null; the bytes stay in the request. */
MGMT_API void mgi_clear_rqt_mgidata(mgiInfo *info);

/* ---------------------------------------------------------------- encoding and handlers */

/*
 * The IPC handler for MGI message 6, in the platform's handler form: serves one request with an mgiInfo
 * on its stack; *rsp_len gets the response length. Always 0. Kept on purpose: a response above
 * MGI_MAX_LEN bytes ends the process (a console line, then a store to address 0), with no error return.
 */
MGMT_API int handle_mgi_msg(void *ipc, void *head, void *rqt, uint32_t rqt_len, int32_t *ipc_arg, void *rsp,
                            uint32_t *rsp_len);
/* The same for the synchronisation path: the request is as long as its header says; its own console line. */
MGMT_API int handle_ha_sync_mgi_msg(void *rqt, uint32_t ignored, void *ipc_arg, void *rsp, uint32_t *rsp_len);

/*
 * Copies the target list into the response header, puts rqt_nextseg in response byte 128 (the first
 * append overwrites it) and clears rsp_seg_used. Always 0.
 */
MGMT_API int prefix_encode_app_rsp_hdr(void *rqt, void *rsp, mgiInfo *info);
/* Calls the target's encodeData and returns its result; without one -100 goes into encodeErr and is returned. */
MGMT_API int encode_app_rsp_data(mgiInfo *info);
/*
 * Writes rsptype, rsp_len (16 bits), rqt_offset, rsp_aux, rqt_aux, mgi_flag, the three response masks and
 * rsp_data_type big-endian into the response header; nothing else of it. Always 0.
 */
MGMT_API int suffix_encode_app_rsp_hdr(void *rqt, void *rsp, mgiInfo *info);
/*
 * Encodes unless decoding failed, takes the error path when encoding failed, completes the header and
 * clears _ui_language, _config_mode and the server's record of who asks. Returns encodeErr.
 */
MGMT_API int send_app_rsp_mgi(void *rqt, void *rsp, mgiInfo *info);
/* *rsp_len becomes rsp_len + 312. Always 0. */
MGMT_API int satify_ipc(uint32_t *rsp_len, void *ipc_arg, mgiInfo *info);
/*
 * Releases the condition context unless rsptype is 16, so that it lives on between the parts of one
 * answer. Always 0; compiled match expressions are not freed here.
 */
MGMT_API int do_housekeeping_of_mgiInfo(mgiInfo *info);

/*
 * For handlers, which build the response in place in the IPC buffer.
 *
 * Starts a data body where the next segment's body goes (rsp_body, rsp_body_len 0); always 0. The _r form
 * is the same call.
 */
MGMT_API int mgi_init_rsp_message(mgiInfo *info);
MGMT_API int mgi_init_rsp_message_r(mgiInfo *info);
/* Where the body of a segment appended now goes: rsp_data + rsp_seg_used + 8. */
MGMT_API unsigned char *get_current_rspseg_buf(mgiInfo *info);
/*
 * Sets data_changed, then adds length bytes to the body (started if none): data written in place at its
 * end only grows rsp_body_len, unmeasured; other data is copied if body plus header stays within 50000
 * bytes, else -1 with "MGI: response data leng (%u) is incorrect\n" on the console. 0 otherwise.
 */
MGMT_API int mgi_update_rsp_data(mgiInfo *info, void *data, uint16_t length);
/*
 * Appends the body as segment 134, rsp_cookie as 132 (when its length is not 0), the error segment when
 * decodeErr is set, and frees the compiled match expressions. Handlers call it last. No-op for null; 0.
 */
MGMT_API int mgi_final_rsp_message(mgiInfo *info);
/*
 * Appends a segment (data copied unless it stands at the body already), growing rsp_seg_used and rsp_len.
 * 0; -1 when it would pass the response buffer's end: not written, but counted. Kept on purpose: no
 * limit is tested here; a response above 50000 bytes ends the process in handle_mgi_msg.
 */
MGMT_API int append_rsp_segment(mgiInfo *info, uint8_t type, void *data, uint16_t length);
/* The same with string and its NUL as the body, NUL-padded to a multiple of 8; returns the new rsp_len. */
MGMT_API uint32_t append_rsp_segment_with_string(mgiInfo *info, uint8_t type, const char *string);
/* Write subtype big-endian into the head of the segment last appended, or of the one to come. */
MGMT_API void set_subtype_after_appendseg(mgiInfo *info, uint32_t subtype);
MGMT_API void set_subtype_before_appendseg(mgiInfo *info, uint32_t subtype);
/* Plain store and reads: rsp_len; rsp_body and rsp_body_len; rsp_cookie and rsp_cookie_len. */
MGMT_API void set_rsplen(mgiInfo *info, uint16_t length);
MGMT_API void *get_rsp_data(mgiInfo *info);
MGMT_API uint16_t get_rsp_datalen(mgiInfo *info);
MGMT_API void *get_rsp_cookie(mgiInfo *info);
MGMT_API uint16_t get_rsp_cookielen(mgiInfo *info);
/*
 * Unless data_changed is 1, echoes the request: rsp_len becomes rqt_len and the request's payload,
 * segments and all, is copied to the response; rsp_seg_used stays. Always 0.
 */
MGMT_API int accept_preprovisoning_data(mgiInfo *info);

/* ---------------------------------------------------------------- errors */

/* Codes the library itself produces. */
#define MGI_ERR_GENERIC (-1)
#define MGI_ERR_NO_HANDLER (-2)
#define MGI_ERR_NO_ENCODE (-100)
#define MGI_ERR_NO_DECODE (-101)
#define MGI_ERR_NO_ITEMS (-1990)
#define MGI_ERR_NO_ENTITY (-1499)

typedef struct mgi_errmap_entry {
    int32_t from;
    int32_t to;
} mgi_errmap_entry;
/* Has no entries (a lone zero row); neither filled nor consulted by the library. */
MGMT_API extern const mgi_errmap_entry mgi_basic_errMap_table[1];

/*
 * Plain stores and read. set_decode_errcode is how a handler fails a request: no later decodeData nor
 * encodeData runs, and the target's errHandle does. err_code and err_status go out in the error segment.
 */
MGMT_API void set_decode_errcode(mgiInfo *info, int32_t code);
MGMT_API void set_encode_errcode(mgiInfo *info, int32_t code);
MGMT_API void set_errCode(mgiInfo *info, int32_t code);
MGMT_API void set_errStatus(mgiInfo *info, int32_t status);
MGMT_API int32_t get_rsp_errcode(mgiInfo *info);
/*
 * Sets err_code (encodeErr, else decodeErr, else -1 into all three when err_code is 0 too), formats into
 * err_buf (300 bytes) and, when that text is not empty, builds the error segment at once. No-op for a
 * null info; 0.
 */
MGMT_API int mgi_sprintf_err(mgiInfo *info, const char *format, ...) __attribute__((format(printf, 2, 3)));
/*
 * Sets err_code, private_ecode and the text; the segment comes later. No-op for a null info; 0. Kept on
 * purpose: decodeErr becomes -1, but 0 for a code of 0 on an ADC platform: elsewhere even 0 fails.
 */
MGMT_API int mgi_set_err_info_with_private_ecode(mgiInfo *info, int32_t code, int32_t private_code,
                                                 const char *format, ...) __attribute__((format(printf, 4, 5)));
/*
 * Makes rsptype 18 and appends the error segment: err_code, private_ecode, err_detail, err_status in host
 * order, then the two texts if set; unless the last segment is one already. Always 0.
 */
MGMT_API int default_err_handle(mgiInfo *info);
/*
 * With encodeErr set and an entity at the target: its errHandle, if any, and 0. Otherwise err_code -2,
 * default_err_handle and -1.
 */
MGMT_API int encode_app_error_handling(mgiInfo *info);
/*
 * Adds a formatted text (200 bytes at most, NUL-padded) behind the error segment just appended; ignored
 * unless the last segment is 135. Always 0. Kept on purpose: the head's big-endian length word is grown
 * by a plain native add, without converting it first.
 */
MGMT_API int mgi_set_err_defense_report(mgiInfo *info, const char *format, ...) __attribute__((format(printf, 2, 3)));
/*
 * Takes over this thread's stored error: decodeErr -1, err_code and err_buf from global_mgi_errno and
 * global_mgi_errmsg; nothing for code 0. The store stays until the next init_mgi_info. Always 0.
 */
MGMT_API int mgi_attach_global_err_info(mgiInfo *info);

/* ---------------------------------------------------------------- query data */

/* Query record on the wire: key words big-endian, length and object word in host order. */
#define APP_QUERY_RECORD_HDR 140
typedef struct appQueryRecord {
    uint8_t key[3][4];
    uint8_t info[96];
    uint8_t unused[24];
    uint32_t length;
    uint32_t obj;
    /* body follows */
} appQueryRecord;

struct appQueryNode;
/* Tail queue head: first node, and the address of the link to fill next. */
typedef struct appQueryList {
    struct appQueryNode *first;
    struct appQueryNode **last;
} appQueryList;

typedef struct appQueryNode {
    uint32_t obj;
    uint32_t length;
    uint32_t key[3];
    uint8_t info[96];
    void *data; /* the body, inside the message */
    appQueryList children;
    struct appQueryNode *next;
    struct appQueryNode **prev_link;
} appQueryNode;

/*
 * A tree of the query records at data (length bytes) for the entity at path: the first record as root,
 * its obj the entity's word, all others its children, their bodies pointing into data. Null for null data
 * or path, no entity, or no memory for the root; a later allocation failure ends the tree quietly.
 */
MGMT_API appQueryList *app_process_query_data(void *data, uint32_t length, const uint32_t *path);
/*
 * A zeroed node from one record (key words to host order, body not copied), with only empty children for
 * null; null when memory fails.
 */
MGMT_API appQueryNode *new_app_query_node(void *record);
/*
 * Frees a whole tree and its head (null is ignored), before the request buffer goes;
 * clean_app_query_node_recursively frees what hangs under head and leaves head. Bodies are not freed.
 */
MGMT_API void clean_app_query_data_tree(appQueryList *head);
MGMT_API void clean_app_query_node_recursively(appQueryList *head);

/* ---------------------------------------------------------------- condition context */

/* A row to be judged; the daemon's node, whose second word is its link. */
typedef struct cond_data_node {
    void *row;
    struct cond_data_node *next;
} cond_data_node;
typedef struct cond_data_list {
    cond_data_node *first;
    cond_data_node **last;
} cond_data_list;

/* A parsed clause of a condition. */
typedef struct cond_expr_node {
    char *name;
    const char *op;
    char *value;
    char *connector;
    uint32_t type;
    int32_t offset;
    struct cond_expr_node *next;
} cond_expr_node;
typedef struct cond_expr_list {
    cond_expr_node *first;
    cond_expr_node **last;
} cond_expr_list;

#define COND_WORDS 32
#define COND_CONNECTORS 4
#define COND_APP_AREA 512

typedef struct condContext {
    uint64_t ctx_word0;
    uint64_t ctx_word1;
    cond_data_list data_list;
    cond_expr_list expr_list;
    cond_expr_list expr_list2;
    char *words[COND_WORDS];
    int32_t connectors[COND_CONNECTORS];
    void *extra;
    uint8_t app_area[COND_APP_AREA]; /* the daemon's; never touched by the library */
} condContext;

MGMT_API extern condContext gcondCtx;

/*
 * Releases a condition context: its words, the nodes of its three lists (not their strings) and extra; the
 * lists left empty, words[0] null, connectors[0] -1. Null is ignored. Upper word slots keep their pointers,
 * and one freed by an earlier release is not freed again. free_cond_ctx_by_uiInfo does it on gcondCtx.
 */
MGMT_API void destruct_cond_context(condContext *ctx);
MGMT_API void free_cond_ctx_by_uiInfo(void);
/*
 * Sends the request's condition back as segment 131 with its subtype; without one, udcdata (or mgidata
 * for accept_preindex_as_condition); without either a line on standard output. Always 0.
 */
MGMT_API int accept_udc_as_condition(mgiInfo *info);
MGMT_API int accept_preindex_as_condition(mgiInfo *info);

/* ---------------------------------------------------------------- serving without IPC */

/*
 * Runs one request through handle_mgi_msg in the calling thread, as if it had
 * arrived as IPC message 6: rqt holds rqt_len bytes, the response goes to rsp
 * (rsp_cap bytes of room; MGI_MAX_LEN or more is what a real IPC reply buffer
 * gives) and its length to *rsp_len. 0, or -1 for a null buffer. A response
 * above MGI_MAX_LEN bytes ends the process, as it does when served over IPC.
 */
MGMT_API int libmgmt_serve_request(const void *rqt, uint32_t rqt_len, void *rsp, uint32_t rsp_cap,
                                   uint32_t *rsp_len);
/*
 * The same for a request built in a buffer pair, as a stub builds it: the send
 * buffer goes out with its header's len (for a chain built by appends on a
 * header that says 0, the appended length, as the direct road sends it), and
 * the response lands in the receive buffer, where the response readers find it.
 * 0, or -1 for a pair without buffers.
 */
MGMT_API int libmgmt_serve_mgi_buf(mgiBuf *buf);

MGMT_END_DECLS

#ifdef __cplusplus
static_assert(sizeof(appItem) == 5 * sizeof(void *) + 8, "item row");
static_assert(offsetof(appEntity, items) == 40 && offsetof(appEntity, children) == 56, "entity record");
static_assert(offsetof(mgiMatchHdr, pattern_len) == 132 && sizeof(mgiMatchHdr) == 140, "match segment");
static_assert(offsetof(appQueryRecord, length) == 132 && sizeof(appQueryRecord) == APP_QUERY_RECORD_HDR,
              "query record");
static_assert(offsetof(cond_data_node, next) == sizeof(void *), "row link is the second word");
static_assert(sizeof(void *) != 8 || offsetof(condContext, app_area) == 344, "the daemon's area follows extra");
#endif

#endif
