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

MGMT_API int set_trans_src(mgi_trans_info *record);
MGMT_API int get_mgi_transaction_lock(const char *user, uint16_t vsysid);
MGMT_API int release_mgi_transaction_lock(const char *user, uint16_t vsysid);
MGMT_API int get_mgi_transaction_state(int *state, uint16_t vsysid);
MGMT_API int rollback_mgi_transaction(const char *user, uint16_t vsysid);
MGMT_API int vk_get_mgi_transaction_state(uint16_t selector);
MGMT_API int vk_get_system_debug_state(void);
MGMT_API int req_lock_mgd_cfg(int lock);
MGMT_API int get_mgd_config_lock_status(int *locked);
MGMT_API int get_config_change_status(uint16_t selector);
MGMT_API int get_mgd_platform(void);
MGMT_API int get_pre_config_feature_with_dst_appid(uint32_t dst_app, uint32_t feature, uint32_t *value);
MGMT_API int get_pre_config_feature(uint32_t feature, uint32_t *value);
MGMT_API int get_object_default_value_with_target(const uint32_t *target, uint16_t selector, void *out,
                                                  uint32_t size);
MGMT_API int request_config_from_mgd(uint16_t id);
MGMT_API int create_request_config_info(void *record);
MGMT_API uint16_t vk_x86_get_request_config_num(void);
MGMT_API int is_x86_daemon(uint32_t id);
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
