/*
 * Services of the manager daemon beside MGI messages: transactions,
 * configuration locks and state queries. Records travel in host order.
 */
#ifndef MGMT_MGI_SERVICES_H
#define MGMT_MGI_SERVICES_H

#include <stddef.h>
#include <stdint.h>

#include "mgmt/export.h"

MGMT_BEGIN_DECLS

/* IPC message numbers of the manager's services. */
#define MGD_MSG_REQUEST_CONFIG 0
#define MGD_MSG_DBG_CONFIG 10
#define MGD_MSG_CONFIG_CHANGE_STATUS 48
#define MGD_MSG_LOCK_CFG 249
#define MGD_MSG_SYSTEM_DEBUG_STATE 257
#define MGD_MSG_OBJECT_DEFAULT_VALUE 336
#define MGD_MSG_CONFIG_LOCK_STATUS 354
#define MGD_MSG_TRANSACTION 371
#define MGD_MSG_PRE_CONFIG_FEATURE 577
#define MGD_MSG_TRANSACTION_STATE 580
#define MGD_MSG_PLATFORM 602

/* Transaction operations. */
#define MGI_TRANS_STATE 1
#define MGI_TRANS_LOCK 2
#define MGI_TRANS_ROLLBACK 3

/* Transaction record, request and reply alike (44 bytes). */
typedef struct mgi_trans_info {
    uint32_t trans_op;
    uint32_t trans_lock;
    uint8_t trans_id;
    uint8_t trans_src;
    char trans_user[32];
    uint16_t trans_vsysid;
} mgi_trans_info;

/* Debug configuration record (76 bytes). */
typedef struct mgi_dbg_config {
    uint32_t word[3];
    char text[64];
} mgi_dbg_config;

/*
 * Each call below keeps IPC buffers of its own and frees them on every path; only make_dbg_config uses
 * the thread's pair. The transaction id and the request counter are process-wide and unlocked: one thread
 * of a process runs transactions. A null user sets no trans_user.
 *
 * Sets trans_src by own application id: 5 gives 1, 23 gives 4, 46 gives 3, 102 gives 19, 114 gives 27,
 * 118 gives 26, any other 0. 0, or -1 for a null record.
 */
MGMT_API int set_trans_src(mgi_trans_info *record);
/*
 * Asks the manager for the transaction lock (IPC 371): 0 with the granted id stored (header byte 3 of
 * every request from then on); -1 when refused or out of memory; the negative IPC result as it is.
 */
MGMT_API int get_mgi_transaction_lock(const char *user, uint16_t vsysid);
/*
 * Gives the lock back (the records are not cleared first): the IPC result, not negative, with the stored id
 * cleared; else -1 and the id stays.
 * Kept on purpose: unlike the other transaction calls a failed IPC gives -1, not its own result.
 */
MGMT_API int release_mgi_transaction_lock(const char *user, uint16_t vsysid);
/*
 * 0 with *state 1 when the manager has a transaction open, else 0 (state may be null); -1 on a negative
 * status or out of memory; the negative IPC result, with "MGI: Failed send message to MGD\n" on the console.
 */
MGMT_API int get_mgi_transaction_state(int *state, uint16_t vsysid);
/* 0 with the stored id cleared; -1 on a negative status or out of memory; the negative IPC result as it is. */
MGMT_API int rollback_mgi_transaction(const char *user, uint16_t vsysid);
/*
 * The word the manager answers for selector (IPC 580); -1 on an IPC failure (told on the console), out of
 * memory or a status of exactly -1. Kept on purpose: any other negative status lets the word through.
 */
MGMT_API int vk_get_mgi_transaction_state(uint16_t selector);
/* The same for the system debug state (IPC 257). */
MGMT_API int vk_get_system_debug_state(void);
/*
 * Asks the manager of the management slot, not the local one, to lock (non-zero) or unlock its
 * configuration; one-way, 500 ms to send. 0, or -1 (a failed send told on the console).
 */
MGMT_API int req_lock_mgd_cfg(int lock);
/*
 * 0 with *locked 1 when the answer's first u16 is 1 or its second is not 0, else 0 (locked may be null);
 * -1 on an IPC failure, a negative status or out of memory.
 */
MGMT_API int get_mgd_config_lock_status(int *locked);
/*
 * 1 when the manager's status for selector is not negative, else 0, also on failure (told on the console).
 * Kept on purpose: the answer lies in the status; the reply's bytes are not read.
 */
MGMT_API int get_config_change_status(uint16_t selector);
/* The manager's platform word (IPC 602 with word 1), or -1. */
MGMT_API int get_mgd_platform(void);
/*
 * 0 with *value the word dst_app answers for feature (IPC 577; value may be null), or -1 with a line on
 * standard output; the status is not looked at. get_pre_config_feature asks the manager.
 */
MGMT_API int get_pre_config_feature_with_dst_appid(uint32_t dst_app, uint32_t feature, uint32_t *value);
MGMT_API int get_pre_config_feature(uint32_t feature, uint32_t *value);
/*
 * Asks the manager for an object's default value (target list in host order): size bytes of the reply to
 * out and the IPC result, or -1 (IPC failure, out of memory, null target, a status of exactly -1). Kept on
 * purpose: any other negative status still copies.
 */
MGMT_API int get_object_default_value_with_target(const uint32_t *target, uint16_t selector, void *out,
                                                  uint32_t size);
/*
 * Sends id and the counter's next value, both big-endian, to the manager, one-way (IPC 0): the send's
 * result, or -1 out of memory. The counter goes up even then.
 */
MGMT_API int request_config_from_mgd(uint16_t id);
/*
 * Fills such a 4-byte record for a caller who sends it himself: the u16 at its start made big-endian in
 * place, the counter's next value behind it. 0, or -1 for null.
 */
MGMT_API int create_request_config_info(void *record);
/* The request counter (16 bits, wraps at 65535 to 0). */
MGMT_API uint16_t vk_x86_get_request_config_num(void);
/* 1 for the application ids 65, 71 to 76, 80, 85 to 88, 90 and 106 to 109 (low 16 bits), else 0. */
MGMT_API int is_x86_daemon(uint32_t id);
/*
 * Sends three words and text (cut to 63 characters, empty for null) to the manager (IPC 10, one-way),
 * built at the start of the thread's send buffer. 0, or -1 when the send fails or the thread has no pair.
 */
MGMT_API int make_dbg_config(uint32_t word1, uint32_t word2, uint32_t word3, const char *text);

MGMT_END_DECLS

#ifdef __cplusplus
static_assert(sizeof(mgi_trans_info) == 44, "transaction record is 44 bytes");
static_assert(offsetof(mgi_trans_info, trans_id) == 8 && offsetof(mgi_trans_info, trans_user) == 10 &&
                  offsetof(mgi_trans_info, trans_vsysid) == 42,
              "transaction record layout");
static_assert(sizeof(mgi_dbg_config) == 76, "debug configuration record is 76 bytes");
#endif

#endif
