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

MGMT_API appEntity *app_entity_init(uint32_t entity, uint32_t kind, mgi_app_handler decodeIndex,
                                    mgi_app_handler errHandle, mgi_app_handler decodeData,
                                    mgi_app_handler encodeData, appItem *items);
/* Hangs entity under the node that path (zero-terminated, or null for the top) names. 0, or -1 out of memory. */
MGMT_API int app_entity_add(const uint32_t *path, appEntity *entity);
MGMT_API appEntity *get_app_mgi_entity(const uint32_t *path);
MGMT_API void show_app_entity(void);
MGMT_API void print_app_entity_tree(int *depth, appEntity *entity);
/* The row that has name among its names; null without a table, or when no row up to the table's end has it. */
MGMT_API appItem *get_item_by_name(appEntity *entity, const char *name);
/* 0; -1990 without a table; -1 when no row has the name. */
MGMT_API int set_itemSyntax(appEntity *entity, const char *name, int32_t offset, uint32_t type);
MGMT_API int set_items_default_offset(appItem *items);
MGMT_API int set_items_ud_offset(const char *name, int32_t offset, const uint32_t *path);

/* ---------------------------------------------------------------- decoding */

/* Source-of-request code of the message in service. */
MGMT_API extern int _config_mode;

MGMT_API int recv_app_rqt_mgi(void *rqt, void *rsp, mgiInfo *info);
MGMT_API int decode_app_mgi_hdr(void *rqt, void *rsp, mgiInfo *info);
MGMT_API int record_segment_info(mgiInfo *info, uint8_t type, void *segment);
MGMT_API int decode_app_mgi_match_regex(mgiInfo *info);
MGMT_API int decode_app_mgi_index(mgiInfo *info);
MGMT_API int decode_app_mgi_data(mgiInfo *info);
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

MGMT_API void *mgi_get_match_regex_by_obj_id(mgiInfo *info, uint32_t id);
MGMT_API uint32_t mgi_get_match_type_by_obj_id(mgiInfo *info, uint32_t id);
/* 0 on a match (and for a null regex), a negative PCRE code otherwise. */
MGMT_API int mgi_pcre_exec(void *regex, const char *subject, int length);
MGMT_API void mgi_clear_rqt_mgidata(mgiInfo *info);

/* ---------------------------------------------------------------- encoding and handlers */

/*
 * The IPC handler for MGI message 6, in the platform's handler form. A
 * response above MGI_MAX_LEN bytes ends the process.
 */
MGMT_API int handle_mgi_msg(void *ipc, void *head, void *rqt, uint32_t rqt_len, int32_t *ipc_arg, void *rsp,
                            uint32_t *rsp_len);
MGMT_API int handle_ha_sync_mgi_msg(void *rqt, uint32_t ignored, void *ipc_arg, void *rsp, uint32_t *rsp_len);

MGMT_API int prefix_encode_app_rsp_hdr(void *rqt, void *rsp, mgiInfo *info);
MGMT_API int encode_app_rsp_data(mgiInfo *info);
MGMT_API int suffix_encode_app_rsp_hdr(void *rqt, void *rsp, mgiInfo *info);
MGMT_API int send_app_rsp_mgi(void *rqt, void *rsp, mgiInfo *info);
MGMT_API int satify_ipc(uint32_t *rsp_len, void *ipc_arg, mgiInfo *info);
MGMT_API int do_housekeeping_of_mgiInfo(mgiInfo *info);

MGMT_API int mgi_init_rsp_message(mgiInfo *info);
MGMT_API int mgi_init_rsp_message_r(mgiInfo *info);
MGMT_API unsigned char *get_current_rspseg_buf(mgiInfo *info);
MGMT_API int mgi_update_rsp_data(mgiInfo *info, void *data, uint16_t length);
MGMT_API int mgi_final_rsp_message(mgiInfo *info);
MGMT_API int append_rsp_segment(mgiInfo *info, uint8_t type, void *data, uint16_t length);
MGMT_API uint32_t append_rsp_segment_with_string(mgiInfo *info, uint8_t type, const char *string);
MGMT_API void set_subtype_after_appendseg(mgiInfo *info, uint32_t subtype);
MGMT_API void set_subtype_before_appendseg(mgiInfo *info, uint32_t subtype);
MGMT_API void set_rsplen(mgiInfo *info, uint16_t length);
MGMT_API void *get_rsp_data(mgiInfo *info);
MGMT_API uint16_t get_rsp_datalen(mgiInfo *info);
MGMT_API void *get_rsp_cookie(mgiInfo *info);
MGMT_API uint16_t get_rsp_cookielen(mgiInfo *info);
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

MGMT_API void set_decode_errcode(mgiInfo *info, int32_t code);
MGMT_API void set_encode_errcode(mgiInfo *info, int32_t code);
MGMT_API void set_errCode(mgiInfo *info, int32_t code);
MGMT_API void set_errStatus(mgiInfo *info, int32_t status);
MGMT_API int32_t get_rsp_errcode(mgiInfo *info);
MGMT_API int mgi_sprintf_err(mgiInfo *info, const char *format, ...) __attribute__((format(printf, 2, 3)));
MGMT_API int mgi_set_err_info_with_private_ecode(mgiInfo *info, int32_t code, int32_t private_code,
                                                 const char *format, ...) __attribute__((format(printf, 4, 5)));
MGMT_API int default_err_handle(mgiInfo *info);
MGMT_API int encode_app_error_handling(mgiInfo *info);
MGMT_API int mgi_set_err_defense_report(mgiInfo *info, const char *format, ...) __attribute__((format(printf, 2, 3)));
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

MGMT_API appQueryList *app_process_query_data(void *data, uint32_t length, const uint32_t *path);
MGMT_API appQueryNode *new_app_query_node(void *record);
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

MGMT_API void destruct_cond_context(condContext *ctx);
MGMT_API void free_cond_ctx_by_uiInfo(void);
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
