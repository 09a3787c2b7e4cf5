/*
 * MGI client: message format, request context, exchange buffers, the two
 * exchange roads and response reading.
 *
 * Unless a comment says otherwise: an mgiInfo or cookie passed in must not be
 * null and stays the caller's, as do the pointers stored in it; a buffer pair
 * (mgiBuf) serves one thread at a time, and nothing here locks.
 */
#ifndef MGMT_MGI_H
#define MGMT_MGI_H

#include <stddef.h>
#include <stdint.h>

#include "mgmt/export.h"

MGMT_BEGIN_DECLS

/* ---------------------------------------------------------------- format */

#define MGI_MAX_LEN 50000u       /* header plus payload, never more */
#define MGI_HDR_LEN 312u         /* fixed header */
#define MGI_MAX_PAYLOAD 49688u   /* MGI_MAX_LEN - MGI_HDR_LEN */
#define MGI_SEGHDR_LEN 8u        /* segment head */
#define MGI_TARGET_WORDS 10
#define MGI_IPC_MSG 6            /* IPC message number of every MGI message */
#define MGI_MARK 8
#define MGI_DEFAULT_TIMEOUT 96
#define MGI_NO_MORE 0xFFFFFFFFu  /* header offset of a request through MGD */
#define MGD_APPID 2

/*
 * Message types, header byte 129. Requests: the library fixes 22, 30 and 31
 * and carries any other value unchanged; set 1 and get 2 are the convention
 * of the front ends and daemons of this tree (a daemon tells a set by its
 * road, rqt_no_more, not by this byte). Answers: 15 or 27 ends an answer, 16
 * says that more follows, 18 is an error answer with a segment 135.
 */
#define MGI_RQT_SET 1
#define MGI_RQT_GET 2
#define MGI_RSP_FINAL 15
#define MGI_RSP_PARTIAL 16
#define MGI_RSP_ERROR 18
#define MGI_RQT_CLOSE 22
#define MGI_RSP_FINAL2 27
#define MGI_RQT_MGD_GET 30
#define MGI_RQT_MATCH_GET 31

/* Segment types. */
#define MGI_SEG_FIRST 129
#define MGI_SEG_UIINFO 130
#define MGI_SEG_CONDITION 131
#define MGI_SEG_COOKIE 132
#define MGI_SEG_RULEDATA 133
#define MGI_SEG_UDCDATA 134
#define MGI_SEG_ERROR 135
#define MGI_SEG_ANSWER 137
#define MGI_SEG_QUERYDATA 138
#define MGI_SEG_END 139
#define MGI_SEG_ANSWER2 140
#define MGI_SEG_LAST 140

/* Header field offsets; multi-byte fields are big-endian on the wire. */
#define MGI_OFF_MARK 0
#define MGI_OFF_SRC 1
#define MGI_OFF_TRANSACTION_ID 3
#define MGI_OFF_TIMEOUT 4
#define MGI_OFF_LANGUAGE 5
#define MGI_OFF_VSYSID 6
#define MGI_OFF_USER 8
#define MGI_OFF_USER_PRIV 40
#define MGI_OFF_LOGIN_VSYSID 44
#define MGI_OFF_DST_VSYSID 46
#define MGI_OFF_IP_ADDR 48
#define MGI_OFF_TARGET 88
#define MGI_OFF_NEXTSEG 128
#define MGI_OFF_TYPE 129
#define MGI_OFF_LEN 130
#define MGI_OFF_OFFSET 132
#define MGI_OFF_RSP_AUX 136
#define MGI_OFF_RQT_AUX 140
#define MGI_OFF_MGI_FLAG 144
#define MGI_OFF_SUBLEVEL 148
#define MGI_OFF_MASK1 152
#define MGI_OFF_MASK2 156
#define MGI_OFF_MASK3 160
#define MGI_OFF_ATTR_BRIEF 164
#define MGI_OFF_MASK4 168
#define MGI_OFF_MASK5 172
#define MGI_OFF_MASK6 176
#define MGI_OFF_XMASK1 192
#define MGI_OFF_REVISION 216
#define MGI_OFF_DESCEND 220
#define MGI_OFF_XMASK7 224
#define MGI_OFF_FERNLOOK_TASKID 240
#define MGI_OFF_FERNLOOK_TYPE 273
#define MGI_OFF_RSP_DATA_TYPE 308

/* The header as a record; every multi-byte field holds big-endian bytes. */
typedef struct mgiHdr {
    uint8_t mgi_mark;
    uint8_t src;
    uint8_t reserved0;
    uint8_t transaction_id;
    uint8_t timeout;
    uint8_t language;
    uint8_t vsysid[2];
    char user[32];
    uint8_t user_priv[4];
    uint8_t login_vsysid[2];
    uint8_t dst_vsysid[2];
    char ip_addr[40];
    uint8_t target[40];
    uint8_t nextseg;
    uint8_t type;
    uint8_t len[2];
    uint8_t offset[4];
    uint8_t rsp_aux[4];
    uint8_t rqt_aux[2];
    uint8_t reserved1[2];
    uint8_t mgi_flag[4];
    uint8_t sublevel[4];
    uint8_t mask1[4];
    uint8_t mask2[4];
    uint8_t mask3[4];
    uint8_t attr_brief[4];
    uint8_t mask4[4];
    uint8_t mask5[4];
    uint8_t mask6[4];
    uint8_t reserved2[12];
    uint8_t xmask1_6[24];
    uint8_t revision[4];
    uint8_t descend[4];
    uint8_t xmask7_9[12];
    uint8_t reserved3[4];
    char fernlook_taskid[33];
    char fernlook_type[33];
    uint8_t reserved4[2];
    uint8_t rsp_data_type[4];
} mgiHdr;

/* Segment head. */
typedef struct mgiSegHdr {
    uint8_t nextseg;
    uint8_t segtype;
    uint8_t seglen[2];
    uint8_t subtype[4];
} mgiSegHdr;

/* Error body of segment 135 (sender's byte order), strings follow. */
typedef struct mgiErrBody {
    int32_t err_code;
    int32_t private_ecode;
    int32_t err_detail;
    int32_t err_status;
} mgiErrBody;

/*
 * Reads the header's target list into words (ten slots, host order), the first zero word stored too;
 * returns the number of non-zero words, 10 at most. 0, nothing written, when either pointer is null.
 */
MGMT_API int get_mgi_msg_hdr_target(uint32_t *words, const void *header);
/*
 * Writes words big-endian into the header's target list: at least one word, up to the first zero word
 * (stored, not counted), max words or ten; returns the non-zero words written. Stopping at max stores no
 * terminator. 0 when either pointer is null.
 */
MGMT_API int set_mgi_msg_hdr_target(void *header, const uint32_t *words, int max);
/* Leading non-zero words of a host-order list; gives up at 11. 0 for null. */
MGMT_API int get_mgi_target_len(const uint32_t *words);

/* ---------------------------------------------------------------- buffers */

typedef struct mgiBuf {
    unsigned char *sbuf;         /* send buffer, MGI_MAX_LEN bytes */
    unsigned char *sendseg_link; /* nextseg byte the next append fills */
    unsigned char *sendseg;      /* where the next segment head goes */
    unsigned char *rbuf;         /* receive buffer, MGI_MAX_LEN bytes */
    unsigned char *recvseg_link; /* nextseg byte of the segment before the one in hand */
    unsigned char *recvseg;      /* head of the segment in hand */
    uint32_t sendseg_len;        /* bytes of segments appended, heads included */
    uint32_t recvseg_used;
} mgiBuf;

/* ---------------------------------------------------------------- context */

#define MGI_ITEM_SLOTS 128
#define MGI_ERRMSG_LEN 300

typedef struct mgiInfo {
    void *uiInfo;
    uint32_t rqt_no_more;
    uint32_t rqt_target[MGI_TARGET_WORDS];
    uint8_t rqt_language;
    uint8_t rqt_src;
    uint8_t rqt_firstseg;
    uint8_t rqt_timeout;
    uint8_t rqt_nextseg;
    uint8_t rqt_type;
    uint16_t rqt_len;
    uint16_t rqt_vsysid;
    uint16_t rqt_login_vsysid;
    uint16_t rqt_dst_vsysid;
    char rqt_user[32];
    uint32_t rqt_user_priv;
    char rqt_ip_addr[40];
    uint32_t rqt_sublevel;
    uint32_t rqt_descend;
    uint32_t rqt_attr_brief;
    char fernlook_taskid[33];
    char fernlook_type[33];
    uint32_t rqt_mask1;
    uint32_t rqt_mask2;
    uint32_t rqt_mask3;
    uint32_t rqt_mask4;
    uint32_t rqt_mask5;
    uint32_t rqt_mask6;
    uint32_t rqt_xmask[9];
    uint32_t mgi_flag;
    uint32_t rqt_offset;
    uint32_t rsp_aux;
    uint16_t rqt_aux;
    uint32_t rqt_revision;
    uint8_t rsptype;
    uint32_t rsp_len;
    uint32_t rsp_mask1;
    uint32_t rsp_mask2;
    uint32_t rsp_mask3;
    void *rqt_data;
    unsigned char *rsp_hdr_segment;
    unsigned char *rsp_data;
    uint16_t reserved;
    uint16_t rsp_seg_used;
    int32_t decodeErr;
    int32_t encodeErr;
    int32_t err_code;
    int32_t private_ecode;
    int32_t err_detail;
    int32_t err_status;
    char *err_string;
    char *err_string2;
    char err_buf[MGI_ERRMSG_LEN];
    uint8_t whether_full_entity;
    uint8_t data_changed;
    void *condition;
    uint16_t condition_len;
    uint32_t condition_subtype;
    void *cookie;
    uint16_t cookie_len;
    uint32_t cookie_subtype;
    void *rsp_cookie;
    uint16_t rsp_cookie_len;
    void *mgidata;
    uint16_t mgidata_len;
    uint32_t mgidata_subtype;
    int32_t match_count;
    uint32_t match_mask[4];
    void *rqt_item[MGI_ITEM_SLOTS];
    void *match_regex[MGI_ITEM_SLOTS];
    uint8_t match_type[MGI_ITEM_SLOTS];
    void *udcdata;
    uint16_t udcdata_len;
    uint32_t udcdata_subtype;
    void *rsp_body;
    uint16_t rsp_body_len;
    void *querydata;
    uint16_t querydata_len;
    uint32_t last_seg_type;
    void *cond_ctx;
    mgiBuf *mgi_buf;
    uint32_t mgi_buf_owned;
    uint32_t rsp_data_type;
    uint8_t reserved_tail[120]; /* keeps the record at its fixed size */
} mgiInfo;

/* Callback of the road through MGD: one record of the answer; negative fails. */
typedef int (*mgi_rsp_callback)(void *record);
/* Callback of the direct road: data, error and cookie with their lengths, and user data; non-zero stops. */
typedef int (*mgi_direct_callback)(void *data, uint32_t *data_len, void *err, uint32_t *err_len, void *cookie,
                                   uint32_t *cookie_len, void *user_data);

/* Thread state. */
MGMT_API extern __thread mgiBuf *global_mgi_buf;
MGMT_API extern __thread char global_mgi_errmsg[MGI_ERRMSG_LEN];
MGMT_API extern __thread uint32_t global_mgi_errno;
MGMT_API extern __thread uint32_t mgi_info_from;

/* Process-wide identity of the client. */
MGMT_API extern char mgi_user_name[32];
MGMT_API extern uint32_t mgi_user_priv;
MGMT_API extern char mgi_ip_addr[40];
MGMT_API extern uint16_t mgi_vsys_id;
MGMT_API extern uint16_t mgi_login_vsys_id;
MGMT_API extern uint32_t mgi_src_ha_unset;
MGMT_API extern uint32_t mgi_src_fernlook_mode;
MGMT_API extern int32_t force_import_status;
MGMT_API extern int32_t force_cli_status;
MGMT_API extern uint8_t mgi_transaction_id;
/* The server's record of who asks. */
MGMT_API extern char _admin_user[32];
MGMT_API extern char _ip_addr[40];

/* Life of a context. */
/*
 * Clears *info and sets the start values: last_seg_type 139, err_string at err_buf holding "magic!\n",
 * rqt_timeout 96, rqt_language from _ui_language, rqt_vsysid from mgi_vsys_id; no pair. Always 0.
 */
MGMT_API int init_mgi_info_basic(mgiInfo *info);
/*
 * init_mgi_info_basic, clears this thread's error (code 0, empty text) and attaches the thread's pair
 * global_mgi_buf, made on first use. Always 0: a pair that can't be made leaves mgi_buf null.
 */
MGMT_API int init_mgi_info(mgiInfo *info);
/*
 * init_mgi_info_basic with a private pair that the context owns (mgi_buf_owned 1) until deinit_mgi_info.
 * 0, or -1 when no pair can be made. The thread's error is left alone.
 */
MGMT_API int init_mgi_info_r(mgiInfo *info);
/*
 * Frees the pair if the context owns it and clears the flag (mgi_buf keeps its stale value), so a second
 * call is harmless; a context on the thread's pair needs none.
 */
MGMT_API void deinit_mgi_info(mgiInfo *info);
/* init_mgi_info, then mgi_init_rqt_message_basic: a request on the thread's pair. Always 0. */
MGMT_API int mgi_init_rqt_message(mgiInfo *info);
/*
 * Clears both buffers of the context's pair, resets the send cursors and points udcdata at the body of
 * the first segment to come (sbuf + 320), udcdata_len 0, for a caller who builds it in place. Without a
 * pair udcdata is null.
 */
MGMT_API void mgi_init_rqt_message_basic(mgiInfo *info);
/* The same on a private pair (init_mgi_info_r): 0, or -1 when no pair can be made; free it with deinit_mgi_info. */
MGMT_API int mgi_init_rqt_message_r(mgiInfo *info);
/*
 * Adds len bytes to udcdata: data the caller wrote in place right behind it only grows udcdata_len,
 * unmeasured; other data is copied if the total plus the header stays within 50000 bytes, else -1 with
 * "MGI: reqest data leng (%u) is incorrect\n" on the console and nothing changed. -1 also without udcdata.
 */
MGMT_API int mgi_update_rqt_udcdata(mgiInfo *info, void *data, uint16_t len);
/*
 * Appends segment 133 (mgidata), 132 (cookie), 131 (condition), each with its subtype, then 138
 * (querydata, no subtype), each only when pointer and length are non-zero; the bytes are copied. 0, or -1
 * without a pair.
 */
MGMT_API int mgi_final_rqt_message(mgiInfo *info);

/*
 * Setters of the request, down to mgi_data_changed: plain stores into the field of the same name, with no
 * check and no result (mgi_set_rqt_offset takes 16 bits; mgi_data_changed sets data_changed to 1). The
 * data setters keep the caller's pointer, which must stay valid until the stub has sent the request.
 * Kept on purpose: no stub sends rqt_nextseg (a set sends rqt_firstseg), and the get stubs append
 * segment 134 without udcdata_subtype: set_sendseg_subtype_r puts a subtype in that head.
 */
MGMT_API void mgi_set_rqt_timeout(mgiInfo *info, uint8_t v);
MGMT_API void mgi_set_rqt_language(mgiInfo *info, uint8_t v);
MGMT_API void mgi_set_rqt_type(mgiInfo *info, uint8_t v);
MGMT_API void mgi_set_rqt_nextseg(mgiInfo *info, uint8_t v);
MGMT_API void mgi_set_rqt_len(mgiInfo *info, uint16_t v);
MGMT_API void mgi_set_rqt_vsysid(mgiInfo *info, uint16_t v);
MGMT_API void mgi_set_rqt_dst_vsysid(mgiInfo *info, uint16_t v);
MGMT_API void mgi_set_rqt_sublevel(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_rqt_descend(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_attr_brief(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_rqt_offset(mgiInfo *info, uint16_t v);
MGMT_API void mgi_set_rqt_mask1(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_rqt_mask2(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_revision(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_rsp_data_type(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_whether_full_entity(mgiInfo *info, uint8_t v);
MGMT_API void mgi_set_rqt_condition(mgiInfo *info, void *data, uint16_t len);
MGMT_API void mgi_set_rqt_cookie(mgiInfo *info, void *data, uint16_t len);
MGMT_API void mgi_set_rqt_udcdata(mgiInfo *info, void *data, uint16_t len);
MGMT_API void mgi_set_rqt_querydata(mgiInfo *info, void *data, uint16_t len);
MGMT_API void mgi_set_rqt_condition_subtype(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_rqt_cookie_subtype(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_rqt_ruledata_subtype(mgiInfo *info, uint32_t v);
MGMT_API void mgi_set_rqt_udcdata_subtype(mgiInfo *info, uint32_t v);
MGMT_API void mgi_data_changed(mgiInfo *info);
/* ORs bits into mgi_flag. */
MGMT_API void mgi_set_flag(mgiInfo *info, uint32_t bits);
/*
 * local non-zero: bit 0 of mgi_flag set and bit 1 cleared; 0: both set. The getter answers 1 only for
 * bit 0 set and bit 1 clear, so a context on which nothing was stated answers 0.
 */
MGMT_API void mgi_set_whether_local_entity(mgiInfo *info, int local);
MGMT_API int mgi_get_whether_local_entity(mgiInfo *info);
/*
 * Copy text into the 33-byte field, cut and terminated; nothing when info or text is null. The
 * mgi_set_rqt_fernlook_* forms are the same calls under a second name.
 */
MGMT_API void mgi_set_fernlook_taskid(mgiInfo *info, const char *text);
MGMT_API void mgi_set_fernlook_type(mgiInfo *info, const char *text);
MGMT_API void mgi_set_rqt_fernlook_taskid(mgiInfo *info, const char *text);
MGMT_API void mgi_set_rqt_fernlook_type(mgiInfo *info, const char *text);

/*
 * Getters of the request, down to get_condition_subtype: plain reads of the field of the same name.
 * get_rqt_offset gives the low 16 bits only (0xFFFF on a request through the manager); get_rqt_mask is
 * rqt_mask1 low and rqt_mask2 high. On a server the pointers point into the request buffer.
 */
MGMT_API uint8_t get_rqt_src(mgiInfo *info);
MGMT_API uint8_t get_rqt_nextseg(mgiInfo *info);
MGMT_API uint8_t get_rqt_type(mgiInfo *info);
MGMT_API uint8_t get_rqt_language(mgiInfo *info);
MGMT_API uint16_t get_rqt_len(mgiInfo *info);
MGMT_API uint16_t get_rqt_offset(mgiInfo *info);
MGMT_API uint16_t get_rqt_vsysid(mgiInfo *info);
MGMT_API uint16_t get_rqt_login_vsysid(mgiInfo *info);
MGMT_API uint16_t get_rqt_dst_vsysid(mgiInfo *info);
MGMT_API uint32_t get_mgi_flag(mgiInfo *info);
MGMT_API uint32_t get_rqt_mask1(mgiInfo *info);
MGMT_API uint32_t get_rqt_mask2(mgiInfo *info);
MGMT_API uint32_t get_rqt_mask3(mgiInfo *info);
MGMT_API uint64_t get_rqt_mask(mgiInfo *info);
MGMT_API uint8_t mgi_get_whether_full_entity(mgiInfo *info);
MGMT_API void *get_uiInfo(mgiInfo *info);
MGMT_API void *get_mgidata(mgiInfo *info);
MGMT_API uint16_t get_mgidata_len(mgiInfo *info);
MGMT_API uint32_t get_mgidata_subtype(mgiInfo *info);
MGMT_API void *get_udcdata(mgiInfo *info);
MGMT_API uint16_t get_udcdata_len(mgiInfo *info);
MGMT_API uint32_t get_udcdata_subtype(mgiInfo *info);
MGMT_API void *get_cookie(mgiInfo *info);
MGMT_API uint16_t get_cookie_len(mgiInfo *info);
MGMT_API uint32_t get_cookie_subtype(mgiInfo *info);
MGMT_API void *get_condition(mgiInfo *info);
MGMT_API uint16_t get_condition_len(mgiInfo *info);
MGMT_API uint32_t get_condition_subtype(mgiInfo *info);
/* The process-wide _ui_language. */
MGMT_API int get_ui_language(void);
/*
 * The pre-index of a request: mgidata when set, else condition. Its length: mgidata_len, else
 * condition_len, else 0; its subtype: mgidata_subtype, else condition_subtype, else 0xFFFFFFFF.
 */
MGMT_API void *get_preindex(mgiInfo *info);
MGMT_API uint16_t get_preindex_len(mgiInfo *info);
MGMT_API uint32_t get_preindex_subtype(mgiInfo *info);

/* Response side of the record. */
/* The response type a handler states: 15 or 27 last part, 16 more follows, 18 error. Plain store and read. */
MGMT_API void set_rsptype(mgiInfo *info, uint8_t type);
MGMT_API uint8_t get_rsptype(mgiInfo *info);
/*
 * Op 0 replaces a response mask word, 1 ANDs bits into it, 2 ORs them: 0. Any other op: -1, the word
 * stays. The words start as the request's masks and go out in the response header.
 */
MGMT_API int mgi_set_rsp_mask1(mgiInfo *info, int op, uint32_t bits);
MGMT_API int mgi_set_rsp_mask2(mgiInfo *info, int op, uint32_t bits);
MGMT_API int mgi_set_rsp_mask3(mgiInfo *info, int op, uint32_t bits);
/* The first two response mask words. */
MGMT_API uint32_t mgi_get_rsp_mask1(mgiInfo *info);
MGMT_API uint32_t mgi_get_rsp_mask2(mgiInfo *info);
/* XORs bits into rsp_mask1 (low half) and rsp_mask2 (high half). */
MGMT_API void mgi_reset_rsp_mask(mgiInfo *info, uint64_t bits);
/* The cookie a handler sends back as segment 132: the pointer is kept, and read by mgi_final_rsp_message. */
MGMT_API void mgi_set_rsp_cookie(mgiInfo *info, void *cookie, uint16_t len);

/* Process identity. */
/*
 * Who this process acts for, process-wide and unlocked: set it at start or between requests, as each
 * prepare reads it. set_mgi_user and set_mgi_ip_addr ignore null and copy 31 and 39 characters at most;
 * the getters return the library's storage. The _src setters store 1 or 0.
 */
MGMT_API void set_mgi_user(const char *name, uint32_t priv);
MGMT_API void set_mgi_ip_addr(const char *text);
MGMT_API void set_mgi_vsysid(uint16_t id);
MGMT_API void set_mgi_login_vsysid(uint16_t id);
MGMT_API uint16_t get_mgi_vsysid(void);
MGMT_API char *get_mgi_user(void);
MGMT_API char *get_mgi_ip_addr(void);
MGMT_API void set_mgi_ha_unset_src(int flag);
MGMT_API void set_mgi_fernlook_src(int flag);
/*
 * Process-wide mode words of application 5: the setters store the value and return 0. is_force_import_mode
 * gives the value, is_force_cli_mode 1 when it is above 0, is_force_cli_fru_config_mode 1 when it is 2.
 */
MGMT_API int set_force_import_mode(int status);
MGMT_API int is_force_import_mode(void);
MGMT_API int set_force_cli_mode(int status);
MGMT_API int is_force_cli_mode(void);
MGMT_API int is_force_cli_fru_config_mode(void);
/*
 * This thread's source-of-request code (mgi_info_from): non-zero, it is what a request through the
 * manager sends. Kept on purpose: the direct road ignores it.
 */
MGMT_API void set_mgi_info_from(uint32_t code);
MGMT_API uint32_t get_mgi_info_from(void);
/* The open transaction's id, 0 when none; process-wide, sent in header byte 3 of every request. */
MGMT_API void set_mgi_transaction_id(uint8_t id);
MGMT_API uint8_t get_mgi_transaction_id(void);

/*
 * The server's record of who asks (_admin_user, _ip_addr), process-wide: filled by each decode and
 * cleared at each response. The setters copy cut and terminated and ignore null; the getters return the
 * library's storage. Not this process's own identity: mgi_set_ip_addr is not set_mgi_ip_addr.
 */
MGMT_API void mgi_set_admin_user(const char *text);
MGMT_API void mgi_set_ip_addr(const char *text);
MGMT_API void mgi_clear_admin_user(void);
MGMT_API void mgi_clear_ip_addr(void);
MGMT_API char *mgi_get_admin_user(void);
MGMT_API char *mgi_get_ip_addr(void);

/* Error of the thread. */
/*
 * Stores code and the formatted text (300 bytes at most) as this thread's error (global_mgi_errno,
 * global_mgi_errmsg); a null format leaves no text, an empty one prints "MGI: errmsg is NULL\n" on the
 * console. The getters read them; the text is the thread's storage.
 */
MGMT_API void mgi_set_global_err_info(int code, const char *format, ...) __attribute__((format(printf, 2, 3)));
MGMT_API int mgi_get_global_err_code(void);
MGMT_API char *mgi_get_global_err_msg(void);

/* Buffer pairs. */
/*
 * A new pair: two zeroed buffers of 50000 bytes from ipcmsg_alloc, freed by deinit_mgi_r. Null when
 * memory fails, with "MGI: failed to alloc memory\n" on the console and nothing kept.
 */
MGMT_API mgiBuf *init_mgi_r(void);
/*
 * Makes a pair in every case and stores it in global_mgi_buf, for the start of a thread: a pair that was
 * there is lost. Returns it, or null.
 */
MGMT_API mgiBuf *thread_init_mgi(void);
/* The thread's pair global_mgi_buf, made when missing; get_global_mgi_buf returns it (null if none could be made). */
MGMT_API void init_mgi(void);
MGMT_API mgiBuf *get_global_mgi_buf(void);
/*
 * Free a pair, both buffers and the record; null is accepted. thread_free_mgi frees the thread's pair
 * and clears global_mgi_buf, and does nothing in a thread without one. A thread that ends while
 * global_mgi_buf still holds the pair the library made for it has that pair freed at its end.
 */
MGMT_API void deinit_mgi_r(mgiBuf *buf);
MGMT_API void free_mgi_buf(mgiBuf *buf);
MGMT_API void thread_free_mgi(void);
/*
 * Buffer pairs, down to set_sendseg_subtype: the _r form works on the pair given, the plain form on the
 * thread's pair. Kept on purpose: the plain forms pass global_mgi_buf as it stands and never make it
 * (only init_mgi_exchange and the prepare_mgi_exchange family do); a null pair gives null, -1 or nothing.
 *
 * The send or receive buffer of a pair; it stays the pair's.
 */
MGMT_API unsigned char *get_mgi_sbuf_r(mgiBuf *buf);
MGMT_API unsigned char *get_mgi_sbuf(void);
MGMT_API unsigned char *get_mgi_rbuf_r(mgiBuf *buf);
MGMT_API unsigned char *get_mgi_rbuf(void);
/*
 * Clears both buffers, all 50000 bytes, allocating one that is missing (one that still can't be had stays
 * null), and returns buf; a null buf gives a new pair. init_mgi_exchange stores its result in
 * global_mgi_buf, and so makes the pair in a fresh thread.
 */
MGMT_API mgiBuf *init_mgi_exchange_r(mgiBuf *buf);
MGMT_API mgiBuf *init_mgi_exchange(void);
/*
 * Reset the send cursors (nothing appended, next head at byte 312, its type into header byte 128) or the
 * read cursors of the receive buffer. Nothing for a pair without that buffer.
 */
MGMT_API void prepare_to_append_segment_r(mgiBuf *buf);
MGMT_API void prepare_to_append_segment(void);
MGMT_API void prepare_to_retrieve_segment_r(mgiBuf *buf);
MGMT_API void prepare_to_retrieve_segment(void);
/*
 * Body of the segment to come (sbuf + 320 after a reset), where a caller may build data in place; null
 * before the cursors are set.
 */
MGMT_API unsigned char *get_sendseg_buf_r(mgiBuf *buf);
MGMT_API unsigned char *get_sendseg_buf(void);
/*
 * Appends a segment of type with len bytes of data (not copied when they already stand at its body) and
 * moves the cursors on. 0; -1 without cursors or when it would pass the buffer's end.
 */
MGMT_API int append_rqt_segment_r(mgiBuf *buf, uint8_t type, void *data, uint16_t len);
MGMT_API int append_rqt_segment(uint8_t type, void *data, uint16_t len);
/* Stores subtype big-endian in the head of the segment to come; an append leaves it there. */
MGMT_API void set_sendseg_subtype_r(mgiBuf *buf, uint32_t subtype);
MGMT_API void set_sendseg_subtype(uint32_t subtype);

/*
 * Write one field straight into the send buffer's header: big-endian numbers, texts cut and terminated
 * (user 31 characters, then its privilege; a part name goes into the user field; ip address 39). Nothing
 * for a pair without a send buffer or a null text. The plain forms use the thread's pair, not made here.
 */
MGMT_API void prepare_mgi_language_r(mgiBuf *buf, uint8_t language);
MGMT_API void prepare_mgi_language(uint8_t language);
MGMT_API void prepare_mgi_vsysid_r(mgiBuf *buf, uint16_t id);
MGMT_API void prepare_mgi_vsysid(uint16_t id);
MGMT_API void prepare_mgi_login_vsysid_r(mgiBuf *buf, uint16_t id);
MGMT_API void prepare_mgi_login_vsysid(uint16_t id);
MGMT_API void prepare_mgi_dst_vsysid_r(mgiBuf *buf, uint16_t id);
MGMT_API void prepare_mgi_dst_vsysid(uint16_t id);
MGMT_API void prepare_mgi_user_r(mgiBuf *buf, const char *name, uint32_t priv);
MGMT_API void prepare_mgi_user(const char *name, uint32_t priv);
MGMT_API void prepare_mgi_partname_r(mgiBuf *buf, const char *name);
MGMT_API void prepare_mgi_partname(const char *name);
MGMT_API void prepare_mgi_ip_addr_r(mgiBuf *buf, const char *text);

/*
 * Segment writers; both return the body length written into the head. append_segment stores type in the
 * link byte, and 139, type and len in the head, and copies data behind it unless it stands there already;
 * the string form pads the text and its NUL with NULs to a multiple of 8. No bound is checked: the caller
 * keeps the message within 50000 bytes. text must not be null.
 */
MGMT_API uint16_t append_segment(unsigned char *link, unsigned char *head, uint8_t type, const void *data,
                                 uint16_t len);
MGMT_API uint16_t append_segment_with_string(unsigned char *link, unsigned char *head, uint8_t type,
                                             const char *text);

/* ---------------------------------------------------------------- exchange */

/*
 * Writes the header of a request through the manager: target (host order, a zero word among its ten),
 * firstseg, type, len, aux, the six masks, offset 0xFFFFFFFF (the argument is ignored), source-of-request
 * code, transaction id and the process identity, read unlocked; copies len bytes of data to byte 312 unless
 * they stand there. Nothing for a null pair or target.
 */
MGMT_API void prepare_mgi_exchange_r(mgiBuf *buf, const uint32_t *target, uint8_t firstseg, uint8_t type,
                                     uint16_t len, uint32_t offset, uint16_t aux, uint32_t mask1, uint32_t mask2,
                                     uint32_t mask3, uint32_t mask4, uint32_t mask5, uint32_t mask6, void *data);
/* The same on the thread's pair, made first if missing; the masks not given are 0. */
MGMT_API void prepare_mgi_exchange(const uint32_t *target, uint8_t firstseg, uint8_t type, uint16_t len,
                                   uint32_t offset, uint16_t aux, uint32_t mask1, uint32_t mask2, void *data);
MGMT_API void prepare_mgi_exchange_96bit_mask(const uint32_t *target, uint8_t firstseg, uint8_t type, uint16_t len,
                                              uint32_t offset, uint16_t aux, uint32_t mask1, uint32_t mask2,
                                              uint32_t mask3, void *data);
/*
 * Writes the header of a direct request (len 0, nextseg 139, masks 1 and 2; mask 3 is the stub's) and
 * resets the send cursors for its segments; nothing for a null pair or target. Kept on purpose: the source
 * code comes from the own application id alone, with no regard to modes or mgi_info_from.
 */
MGMT_API void prepare_mgi_exchange_direct_r(mgiBuf *buf, const uint32_t *target, uint8_t type, uint32_t offset,
                                            uint16_t aux, uint32_t mask1, uint32_t mask2);
/* The same on the thread's pair, made first if missing. */
MGMT_API void prepare_mgi_exchange_direct(const uint32_t *target, uint8_t type, uint32_t offset, uint16_t aux,
                                          uint32_t mask1, uint32_t mask2);

/*
 * An exchange blocks the calling thread; replies come in on its own descriptor. Afterwards rbuf holds the
 * last message received, which the response readers below read.
 *
 * Sends the request prepared in info's pair to the manager and hands each record (stride bytes) of its
 * partial (16) and final (15, 27) answers to callback, waiting rqt_timeout seconds for each. 0 on a final
 * answer; -1 on an error answer (18, silently) or a fault told on the console. Kept on purpose: a negative
 * callback result does not fail the exchange; later messages then only skip the callback.
 */
MGMT_API int make_mgi_exchange_with_context(mgiInfo *info, mgi_rsp_callback callback, int stride);
/*
 * The same with no context: the header goes as prepared, 60 seconds for each reply. make_mgi_exchange
 * uses the thread's pair as it stands (-1 without one).
 */
MGMT_API int make_mgi_exchange_r(mgiBuf *buf, mgi_rsp_callback callback, int stride);
MGMT_API int make_mgi_exchange(mgi_rsp_callback callback, int stride);
/*
 * Sends info's request to dst_app and gives each reply's data, error and cookie to callback (may be null);
 * a partial reply is asked on with its cookie (a closing type 22 when it has none). 0 when a reply is not
 * partial, an error reply included; -1 when a send fails or callback returns non-zero.
 */
MGMT_API int make_mgi_exchange_direct_with_context(mgiInfo *info, uint32_t dst_app, mgi_direct_callback callback,
                                                   void *user_data);
/*
 * The same with no context: 60 seconds, the transaction id written at every send, segments 133 and 138
 * not sent again, and -1 after the first reply without a callback. make_mgi_exchange_direct uses the
 * thread's pair as it stands.
 */
MGMT_API int make_mgi_exchange_direct_r(mgiBuf *buf, uint32_t dst_app, mgi_direct_callback callback,
                                        void *user_data);
MGMT_API int make_mgi_exchange_direct(uint32_t dst_app, mgi_direct_callback callback, void *user_data);

/* ---------------------------------------------------------------- responses */

/*
 * Response readers: the _r form reads the pair given, the plain form the thread's pair. Pointers they give
 * point into rbuf and stay valid until the next exchange on that pair; a search resets the read cursors.
 *
 * The first segment of type in the response, within its len: 0 with its body and length, or -1 with the
 * outputs untouched (139 and types outside 129..140 are never found). Null outputs are skipped.
 */
MGMT_API int find_roundtrip_segment_r(mgiBuf *buf, uint8_t type, void **body, uint32_t *len);
/* On the thread's pair; find_roundtrip_cookie looks for segment 132. */
MGMT_API int find_roundtrip_segment(uint8_t type, void **body, uint32_t *len);
MGMT_API int find_roundtrip_cookie(void **body, uint32_t *len);
/* Word 0 (err_code) and word 1 (private_ecode) of the error body, as they stand; 0 without an error segment. */
MGMT_API int mgi_get_rsp_err_code_r(mgiBuf *buf);
MGMT_API int mgi_get_rsp_err_code(void);
MGMT_API int mgi_get_rsp_private_err_code_r(mgiBuf *buf);
MGMT_API int mgi_get_rsp_private_err_code(void);
/*
 * The text of the error body (offset 16), null without an error segment. get_errString* and
 * mgi_get_rsp_err_string* are one call under two names.
 */
MGMT_API char *get_errString_r(mgiBuf *buf);
MGMT_API char *get_errString(void);
MGMT_API char *mgi_get_rsp_err_string_r(mgiBuf *buf);
MGMT_API char *mgi_get_rsp_err_string(void);
/* rbuf byte 129, the response type; 0 without a pair. */
MGMT_API uint8_t get_mgi_resp_type_r(mgiBuf *buf);
MGMT_API uint8_t get_mgi_resp_type(void);
/* rbuf + 312, the raw payload (for a chain its first head, not a body); null without a pair. */
MGMT_API void *get_mgi_resp_data_r(mgiBuf *buf);
MGMT_API void *get_mgi_resp_data(void);
/*
 * One walk over the response: data (133, 134, 137 or 140; a later one wins), error (135) and cookie (132)
 * with their lengths, null and 0 when missing. Always 0; null outputs are skipped.
 */
MGMT_API int record_rsp_seg_r(mgiBuf *buf, void **data, uint32_t *data_len, void **err, uint32_t *err_len,
                              void **cookie, uint32_t *cookie_len);

/*
 * Common cookie: six u32 words, the body of segment 132 for the objects that
 * use it. Word 0 the first index wanted, word 1 the last, word 2 the server's
 * own value; big-endian on the wire except word 3.
 */
#define MGI_COOKIE_WORDS 6
/* Records of size bytes a server puts in one message: 12422 below 2, else 24844 >> (significant bits of size). */
MGMT_API uint32_t get_mgi_rsp_data_num(uint64_t size);
/* Records a host-order cookie asks for: word 1 - word 0 + 1, or -1 when word 0 is greater (signed). */
MGMT_API int get_rqt_num_by_cookie(uint32_t *cookie);
/* Adds count to word 0 and stores value in word 2 (host order). */
MGMT_API void set_cookie_by_rsp_data(uint32_t *cookie, uint32_t count, uint32_t value);
/* Byte-swap words 0, 1, 2, 4 and 5 in place; word 3 stays. The same operation under two names. */
MGMT_API void mgi_common_cookie_hton(uint32_t *cookie);
MGMT_API void mgi_common_cookie_ntoh(uint32_t *cookie);

MGMT_END_DECLS

#ifdef __cplusplus
static_assert(sizeof(mgiHdr) == 312, "MGI header is 312 bytes");
static_assert(offsetof(mgiHdr, target) == 88 && offsetof(mgiHdr, nextseg) == 128, "header layout");
static_assert(offsetof(mgiHdr, offset) == 132 && offsetof(mgiHdr, mgi_flag) == 144, "header layout");
static_assert(offsetof(mgiHdr, mask4) == 168 && offsetof(mgiHdr, xmask1_6) == 192, "header layout");
static_assert(offsetof(mgiHdr, revision) == 216 && offsetof(mgiHdr, xmask7_9) == 224, "header layout");
static_assert(offsetof(mgiHdr, fernlook_taskid) == 240 && offsetof(mgiHdr, fernlook_type) == 273, "header layout");
static_assert(offsetof(mgiHdr, rsp_data_type) == 308, "header layout");
static_assert(sizeof(mgiSegHdr) == 8 && sizeof(mgiErrBody) == 16, "segment layout");
static_assert(sizeof(mgiInfo) == 3160, "mgiInfo is 3160 bytes");
#else
_Static_assert(sizeof(mgiHdr) == 312, "MGI header is 312 bytes");
_Static_assert(sizeof(mgiInfo) == 3160, "mgiInfo is 3160 bytes");
#endif

#endif
