/*
 * Device operations: start-up and language, command execution, configuration save and import,
 * traps, factory clearing, firmware service calls and device probes.
 */
#ifndef MGMT_DEVICE_H
#define MGMT_DEVICE_H

#include <stddef.h>
#include <stdint.h>

#include "mgmt/export.h"
#include "mgmt/mgi.h"

MGMT_BEGIN_DECLS

/* ---------------------------------------------------------------- start-up and language */

/* Brings up the device log (arguments of vk_syslog_init) and debugging. Always 0. */
MGMT_API int vk_mgmt_init(const char *ident, int option, int facility);
/* Locale and message catalogue for "zh_CN.UTF-8" or "en_US.UTF-8"; any other name does nothing. */
MGMT_API void vk_language_init(const char *locale);
/* "zh_CN" makes the system language 2 (Chinese), any other text 1. */
MGMT_API void set_language(const char *name);
MGMT_API int get_sys_language(void);
/* IPC handler: the payload names the system language. Reply length 0; returns 0. */
MGMT_API int system_language_info_ipcmsg_handler(void *ipc, void *head, void *payload, uint32_t len,
                                                 int32_t *status, void *reply, uint32_t *reply_len);
/* Tells the administration daemon (application 15, message 324) that there is news to publish. */
#define MGMT_ADMIND_PUBLISH_MSG 324
MGMT_API int vk_admind_publish_info(void);
/* SIGCHLD handler: reaps every ended child of the process. */
MGMT_API void sig_int(int sig);

/* ---------------------------------------------------------------- command execution */

#define MGMT_CLI_PATH "/usr/local/sbin/cli"
#define MGMT_CMD_FILE_PREFIX "/etc/CMD_"

/* Runs one command text through the command line interpreter in the background. 0 or -1. */
MGMT_API int exec_command_set(const char *cmd, int32_t num);
/*
 * Runs a file of commands through the interpreter, its output appended to output. mode 1 quiet,
 * 2 quiet with -C, anything else plain. With wait non-zero the call returns when the run is over.
 * 0 when the run was started, -1 otherwise.
 */
MGMT_API int exec_command_file_redirect(const char *file, const char *output, int mode, int wait);

/* ---------------------------------------------------------------- configuration */

#define MGMT_VSYS_ALL 0xfffeu
#define MGMT_IMPORT_RQT_MSG 61
#define MGMT_START_STATIC_CONFIG_FILE "/tmp/is_start_with_static_config"
#define MGMT_ZIP_PATH "/usr/local/sbin/vk_zip"

/* Payload of IPC message 61 to the manager, host byte order; the reply has the same size. */
typedef struct mgmt_import_rqt {
    uint32_t import_kind;     /* always 1 */
    uint32_t import_mode;     /* always 1 */
    uint16_t vsys_id;
    uint8_t reserved0[2];
    char file_name[128];
    uint8_t reserved1[1124];
    char requester_text[32];
    char origin_text[16];
    char import_time[32];     /* "%04d-%02d-%02d %02d:%02d:%02d" */
    uint32_t import_flag;     /* always 1 */
} mgmt_import_rqt;

#define MGMT_IMPORT_REASON_OFFSET 16 /* the failure text in the reply */

MGMT_API int save_configuration(uint16_t vsys_id, const char *item1, const char *item2, const char *item3,
                                const char *item4, const char *item5, uint32_t item6, uint8_t language,
                                mgi_direct_callback callback, void *record);
/* Zips path into "<path without suffix>.zip", removes the source and puts the archive name in path. */
MGMT_API int libmgmt_compress_file(char *path, char *err, int errlen);
/* For all virtual systems the file is compressed first, and file then names the archive. */
MGMT_API int libmgmt_import_configuration(uint16_t vsys_id, char *file, const char *requester_text,
                                          const char *origin_text, int32_t reboot, char *err, int32_t errlen);
MGMT_API int libmgmt_import_single_vsys_configuration(uint16_t vsys_id, const char *file,
                                                      const char *requester_text, const char *origin_text,
                                                      char *err, int32_t errlen);
MGMT_API int libmgmt_import_allvsys_configuration(char *file, const char *requester_text, const char *origin_text,
                                                  char *err, int32_t errlen);
MGMT_API int libmgmt_is_start_with_default_config(void);

/* ---------------------------------------------------------------- traps */

#define VK_TRAP_APPID 23
#define VK_TRAP_MSG 64
#define VK_TRAP_PRIVATE 6
#define VK_TRAP_BUF_SIZE 10000
#define VK_AGENT_TRAP_FIFO "/etc/agent_trap_fifo"
#define VK_AGENT_TRAP_BUF_SIZE 8192
#define VK_TM_TRAP_CHANNEL 101

/* Head of a trap record on the IPC road and for the installed write function; big-endian words. */
typedef struct vk_trap_hdr {
    uint32_t trap_kind;
    uint32_t trap_code;
    uint32_t trap_arg;
} vk_trap_hdr;

/* Head of a record on the agent fifo; host order. */
typedef struct vk_fifo_trap_hdr {
    uint32_t trap_kind;
    uint32_t trap_code;
    uint32_t payload_len;
} vk_fifo_trap_hdr;

/* Head of a manager trap published on channel 101; host order. */
typedef struct vk_tm_trap_hdr {
    uint32_t trap_kind;
    uint32_t trap_code;
} vk_tm_trap_hdr;

typedef int (*trap_write_fn)(void *record, uint32_t len);
/* When set, private traps go through it instead of IPC. */
MGMT_API extern trap_write_fn trap_write_func;

MGMT_API int vk_trap(uint32_t trap_kind, const void *payload, uint32_t len, uint32_t trap_arg);
MGMT_API int vk_private_trap(uint32_t trap_code, const void *payload, int32_t len, uint32_t trap_arg);
MGMT_API void vk_agent_trap_init(void);
MGMT_API int vk_private_trap_via_fifo(int32_t trap_code, const void *payload, int32_t len);
MGMT_API void trap_write_func_set(trap_write_fn fn);
MGMT_API int vk_trap_buf_write(const void *record, uint32_t len);
MGMT_API int vk_tm_trap(uint32_t trap_kind, uint32_t trap_code, const void *payload, uint32_t len);
MGMT_API int vk_is_tm_status_reg(void);
/* IPC handler: the payload's first word is the manager agent's new state (0, 1 or 2). Returns 0. */
MGMT_API int tmagent_status_change_handler(void *ipc, void *head, void *payload, uint32_t len, int32_t *status,
                                           void *reply, uint32_t *reply_len);

/* One exchange step with the manager: data, its length, cookie, its length, more-data flag, argument. */
typedef int (*tm_ipc_callback)(void *data, uint32_t *data_len, void *cookie, uint32_t *cookie_len,
                               uint32_t *more, uint64_t arg);
MGMT_API int tm_make_ipc_exchange_direct(tm_ipc_callback callback, uint64_t arg);

/* ---------------------------------------------------------------- factory clearing */

MGMT_API int clear_customization_file_in_flash(void);
MGMT_API int clear_customization_file_in_flash_keep(void);
MGMT_API int fy_clear_customization_file_in_flash(void);
MGMT_API int fy_clear_customization_file_in_flash_keep(void);

/* ---------------------------------------------------------------- firmware service */

#define VK_FIRMWARE_APPID 80
#define VK_FIRMWARE_IMAGE_MSG 365
#define VK_HEARTBEAT_APPID 17
#define VK_HEARTBEAT_MSG 461

/* Head of an image request (IPC message 365); big-endian words, the strings follow. */
typedef struct image_rqt_hdr {
    uint32_t image_op;
    uint32_t path_len;
    uint32_t name_len;
} image_rqt_hdr;

MGMT_API int status_code_2_msg(int32_t code, char *msg, uint32_t size);
/* err must hold 256 bytes. */
MGMT_API int segment_load_image_helper(uint32_t image_op, const char *first, const char *second,
                                       uint32_t *status_code, char *err);
MGMT_API int image_manage_helper(void);
MGMT_API int image_query_helper(void);
MGMT_API int read_heartbeat_state(uint32_t *state);
MGMT_API int is_apm_ipc_ready(void);

/* ---------------------------------------------------------------- device probes */

#define MGMT_CHILD_MONITORD_PID_FILE "/tmp/child_monitord_pid"
#define MGMT_CONSOLE_LOG_FILE "/flash/conlog/consolelog"
#define MGMT_DEVICE_UUID_FILE "/flash/device_uuid"
#define MGMT_VSYS_LOCK_PROC "/proc/mgd_vsys_lock_status"
#define MGMT_VSYS_LOCK_STATUS_CMD 7
#define MGMT_SESSION_CUT_MSG 611 /* to the manager */
#define MGMT_NM_TIMEOUT_MSG 836  /* to the manager */
#define MGMT_AVAIL_STATUS_MSG 880 /* to application 0 */

/* Argument of the vsys lock request. */
typedef struct vsys_lock_rec {
    uint16_t vsys_id;
    uint16_t locked; /* set by the driver */
} vsys_lock_rec;

/* Reply of message 836, host order. */
typedef struct nm_disconnect_rsp {
    int32_t unused;
    int32_t disconnect_timeout;
    int32_t disconnect_time;
} nm_disconnect_rsp;

MGMT_API int get_child_monitord_pid(void);
MGMT_API int get_dynamic_cap_crc32(uint32_t *crc);
MGMT_API int vk_is_storage_available(int32_t pid);
MGMT_API const char *get_device_uuid(void);
MGMT_API int get_session_cut(uint32_t *words);
MGMT_API int libmgmt_procfs_vsys_lock_status_ioctl(uint32_t request, void *arg);
MGMT_API int libmgmt_is_vsys_locked(uint16_t vsys_id);
MGMT_API int libmgmt_check_network_manager_disconnect_timeout(void);
MGMT_API int libmgmt_is_sdwan_platform_and_network_manager_disconnect_timeout(void);
MGMT_API int vk_get_avai_status_para(void);

MGMT_END_DECLS

#ifdef __cplusplus
#define MGMT_DEVICE_ASSERT static_assert
#else
#define MGMT_DEVICE_ASSERT _Static_assert
#endif
MGMT_DEVICE_ASSERT(sizeof(mgmt_import_rqt) == 1348, "import request is 1348 bytes");
MGMT_DEVICE_ASSERT(offsetof(mgmt_import_rqt, vsys_id) == 8 && offsetof(mgmt_import_rqt, file_name) == 12,
                   "import request layout");
MGMT_DEVICE_ASSERT(offsetof(mgmt_import_rqt, requester_text) == 1264 &&
                       offsetof(mgmt_import_rqt, origin_text) == 1296 &&
                       offsetof(mgmt_import_rqt, import_time) == 1312 &&
                       offsetof(mgmt_import_rqt, import_flag) == 1344,
                   "import request layout");
MGMT_DEVICE_ASSERT(sizeof(vk_trap_hdr) == 12 && sizeof(vk_fifo_trap_hdr) == 12 && sizeof(vk_tm_trap_hdr) == 8,
                   "trap heads");
MGMT_DEVICE_ASSERT(sizeof(image_rqt_hdr) == 12, "image request head");
MGMT_DEVICE_ASSERT(sizeof(vsys_lock_rec) == 4 && offsetof(vsys_lock_rec, locked) == 2, "vsys lock record");
MGMT_DEVICE_ASSERT(sizeof(nm_disconnect_rsp) == 12 && offsetof(nm_disconnect_rsp, disconnect_timeout) == 4 &&
                       offsetof(nm_disconnect_rsp, disconnect_time) == 8,
                   "network manager reply");
#undef MGMT_DEVICE_ASSERT

#endif
