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
/* "zh_CN" makes the system language 2 (Chinese), any other text (null too) 1. */
MGMT_API void set_language(const char *name);
/* The system language, process-wide and unlocked: 1, or 2 for Chinese. */
MGMT_API int get_sys_language(void);
/*
 * IPC handler: the payload names the system language (set_language). Reply length 0; returns 0. The
 * library does not register it: a daemon that wants it does.
 */
MGMT_API int system_language_info_ipcmsg_handler(void *ipc, void *head, void *payload, uint32_t len,
                                                 int32_t *status, void *reply, uint32_t *reply_len);
/* Message number of the news for the administration daemon (application 15). */
#define MGMT_ADMIND_PUBLISH_MSG 324
/*
 * Tells the administration daemon (application 15, message 324, no payload, no reply) that there is news
 * to publish: the send's result, or -1 out of memory.
 */
MGMT_API int vk_admind_publish_info(void);
/*
 * SIGCHLD handler: reaps every ended child of the process, errno kept. Kept on purpose: despite its name it
 * serves SIGCHLD, and the command calls below install it process-wide.
 */
MGMT_API void sig_int(int sig);

/* ---------------------------------------------------------------- command execution */

#define MGMT_CLI_PATH "/usr/local/sbin/cli"
#define MGMT_CMD_FILE_PREFIX "/etc/CMD_"

/*
 * Runs one command text through the command line interpreter in the background (a child writes it to a
 * command file, runs the interpreter and removes the file): 0 when the child was started, -1 for a null or
 * empty text or a failed fork. Installs sig_int for SIGCHLD, which reaps every child of the daemon. Kept
 * on purpose: any exit code of the interpreter counts as done; the retry (three tries) is reached only by
 * a wait status Linux never reports for an ended process, and the "wait failed" test can't be true.
 */
MGMT_API int exec_command_set(const char *cmd, int32_t num);
/*
 * Runs a file of commands through the interpreter, its output appended to output. mode 1 quiet,
 * 2 quiet with -C, anything else plain. With wait non-zero the call returns when the run is over; with
 * 0 it installs sig_int as above. 0 when the run was started, -1 for a null or empty name or a failed
 * fork. The same kept status rule as exec_command_set.
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

/*
 * Asks the manager to save the configuration of vsys_id (0xfffe: all) through final_get_mgmt_save_config_grp
 * on the thread's pair, with items 1 to 6 (the texts by pointer, the caller's); the stub's result. Kept on
 * purpose: item 0 of the object stays empty and does not travel.
 */
MGMT_API int save_configuration(uint16_t vsys_id, const char *item1, const char *item2, const char *item3,
                                const char *item4, const char *item5, uint32_t item6, uint8_t language,
                                mgi_direct_callback callback, void *record);
/*
 * Zips path into "<path without suffix>.zip", removes the source and puts the archive name in path (128
 * bytes). 0, or -1 with "Error: Failed to execute zip\n" in err (within errlen); -1 for a null path. Kept
 * on purpose: the source file is removed on failure too.
 */
MGMT_API int libmgmt_compress_file(char *path, char *err, int errlen);
/*
 * Imports file into vsys_id (0xfffe: all; then the file is compressed first, and file names the archive):
 * 0, or -1 with the reason in err (within errlen); -1 for a null err. A missing file is told in err, but the
 * import is asked for all the same and the manager's answer decides. reboot non-zero reboots on success.
 */
MGMT_API int libmgmt_import_configuration(uint16_t vsys_id, char *file, const char *requester_text,
                                          const char *origin_text, int32_t reboot, char *err, int32_t errlen);
/*
 * Asks the manager to import file into one virtual system (IPC 61, 2 seconds): 0, or -1 with the
 * manager's reason in err (within errlen) and on the console; out of memory: -1, told on the console only.
 */
MGMT_API int libmgmt_import_single_vsys_configuration(uint16_t vsys_id, const char *file,
                                                      const char *requester_text, const char *origin_text,
                                                      char *err, int32_t errlen);
/*
 * Compresses file (which then names the archive) and runs the two phases of mgmt_im_ex_all_vsys on the
 * thread's pair: 0, or -1 with a reason in err. Kept on purpose: a failed second phase copies the
 * manager's text without its last character, the default text as 54 bytes (cut to errlen here).
 */
MGMT_API int libmgmt_import_allvsys_configuration(char *file, const char *requester_text, const char *origin_text,
                                                  char *err, int32_t errlen);
/* 1 when "/tmp/is_start_with_static_config" exists, else 0. */
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

/*
 * Sends a trap (kind, code 0, trap_arg big-endian, then the payload) to the trap receiver, application 23,
 * IPC 64 (on a multi-CPU system at the management slot); allocates per call, so any thread may send. The
 * send's result, or -1 for no memory or a null payload with a length (kind 12 excepted).
 */
MGMT_API int vk_trap(uint32_t trap_kind, const void *payload, uint32_t len, uint32_t trap_arg);
/*
 * A private trap (kind 6) with code: as vk_trap with no write function installed; else through
 * trap_write_func (its result), from one process-wide buffer (one sender at a time), -1 for a negative
 * length, a record above 10000 bytes, a null payload with a length or no buffer.
 */
MGMT_API int vk_private_trap(uint32_t trap_code, const void *payload, int32_t len, uint32_t trap_arg);
/*
 * Readies the fifo road once per process: an 8192-byte buffer, SIGPIPE ignored (process-wide), the fifo
 * "/etc/agent_trap_fifo" made and opened. Failures are printed on standard output and leave the road shut,
 * or, for the open, to the first send.
 */
MGMT_API void vk_agent_trap_init(void);
/*
 * Writes a private trap (kind 6, code, length, host order, then the payload) to the agent's fifo: 0, or -1
 * for a payload above 8180 bytes or negative, a null payload with a length (code 12 excepted), no
 * vk_agent_trap_init, or a failed open or write. With no reader the trap is lost (-1). One sender at a time.
 */
MGMT_API int vk_private_trap_via_fifo(int32_t trap_code, const void *payload, int32_t len);
/* Installs the write function of private traps (process-wide, unlocked); null turns that road off. */
MGMT_API void trap_write_func_set(trap_write_fn fn);
/*
 * Forwards a finished trap record (10000 bytes at most, copied into a buffer kept for the process: one
 * sender at a time) to the trap receiver: the send's result, or -1.
 */
MGMT_API int vk_trap_buf_write(const void *record, uint32_t len);
/*
 * Publishes a manager trap (kind, code, host order, then the payload) on channel 101 while the manager
 * agent is registered: the publish result, or -1 out of memory; 0 at once, allocating nothing, when not.
 */
MGMT_API int vk_tm_trap(uint32_t trap_kind, uint32_t trap_code, const void *payload, uint32_t len);
/* 1 when the manager agent is registered (state 1), else 0; the state is process-wide. */
MGMT_API int vk_is_tm_status_reg(void);
/*
 * IPC handler: the payload's first word is the manager agent's new state (0, 1 or 2); any other leaves the
 * state and sets the reply status to -1. Reply length 0; returns 0.
 */
MGMT_API int tmagent_status_change_handler(void *ipc, void *head, void *payload, uint32_t len, int32_t *status,
                                           void *reply, uint32_t *reply_len);

/* One exchange step with the manager: data, its length, cookie, its length, more-data flag, argument. */
typedef int (*tm_ipc_callback)(void *data, uint32_t *data_len, void *cookie, uint32_t *cookie_len,
                               uint32_t *more, uint64_t arg);
/*
 * Calls callback over a 4000-byte data buffer and a zeroed 256-byte cookie buffer while it returns 0 with
 * *more at 1: 0 when it ends with 0; -1 (a console line) when it fails, is null or memory fails. The
 * buffers are freed on return.
 */
MGMT_API int tm_make_ipc_exchange_direct(tm_ipc_callback callback, uint64_t arg);

/* ---------------------------------------------------------------- factory clearing */

/*
 * Factory clearing: each runs its fixed list of shell commands in the caller's thread, one after the other,
 * results ignored. Kept on purpose: the texts stand as the device has always run them, mistakes included
 * ("2>dev/null", a "%s" left in a path, /flash/mysql removed twice on some platforms).
 *
 * The full list, longer on ADC, WAF, database and A platforms; and the one that keeps signature and
 * report data. Always 0.
 */
MGMT_API int clear_customization_file_in_flash(void);
MGMT_API int clear_customization_file_in_flash_keep(void);
/*
 * Foundry series: run "/etc/unsetall.script" (the _keep form "/etc/unsetall_keep.script"), then, on BDS,
 * NIPS and IDS platforms, remove /flash/mysql. 0, or -1 with a console line.
 */
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

/*
 * Turns a firmware service status code into a log line (vk_clog) and a translated user text in msg, zeroed
 * first and cut to size (msg may be null). Returns 0 for success codes, 400000003 busy, 400000005 upgrade
 * failed, 500000001 switch failed, 500000000 unknown. Reads the thread's myipc.
 */
MGMT_API int status_code_2_msg(int32_t code, char *msg, uint32_t size);
/*
 * Sends an image job (op and two strings, either may be null) to the firmware service (application 80, IPC
 * 365): 0 with its status code in *status_code, or -1 with the reason in err, which must hold 256 bytes;
 * the reason is not logged. Reads the thread's myipc.
 */
MGMT_API int segment_load_image_helper(uint32_t image_op, const char *first, const char *second,
                                       uint32_t *status_code, char *err);
/* Placeholders: 0 at once. */
MGMT_API int image_manage_helper(void);
MGMT_API int image_query_helper(void);
/* The heartbeat state of application 17 (IPC 461, 5 seconds) into *state: 0, or -1, logged (null state too). */
MGMT_API int read_heartbeat_state(uint32_t *state);
/* 1 when the heartbeat state reads 1, 2 or 3, else 0. */
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

/*
 * The probes keep their watched process and identity text in plain statics, shared by all threads and
 * unlocked; everything else is local to the call.
 *
 * The number in "/tmp/child_monitord_pid" (digits only, 15 at most, no line end), or -1.
 */
MGMT_API int get_child_monitord_pid(void);
/* 0 with the manager's capability checksum in *crc (IPC 602 with word 2; crc may be null), or -1. */
MGMT_API int get_dynamic_cap_crc32(uint32_t *crc);
/*
 * Storage health by the watched process (a positive pid replaces it, kept; else the child monitor's): 0
 * fine, 1 in disk sleep at three tries 100 ms apart, 2 the console log exists but can't be written, -1
 * when that can't be told. Starts a shell pipeline per try: not for a fast path.
 */
MGMT_API int vk_is_storage_available(int32_t pid);
/*
 * The first word of MGMT_DEVICE_UUID_FILE, read anew at each call into a static buffer (not to be freed);
 * "" without the file, never null.
 */
MGMT_API const char *get_device_uuid(void);
/* The manager's three session cut words (IPC 611) into words: 0, or -1 with a line on standard output. */
MGMT_API int get_session_cut(uint32_t *words);
/*
 * ioctl request with arg on "/proc/mgd_vsys_lock_status": its result, or -1 (a failed open told on the
 * console, a failed ioctl logged). Kept on purpose: the console text names another path than the one opened.
 */
MGMT_API int libmgmt_procfs_vsys_lock_status_ioctl(uint32_t request, void *arg);
/* The driver's locked word for vsys_id (request 7). Kept on purpose: a failed ioctl answers 0, not locked. */
MGMT_API int libmgmt_is_vsys_locked(uint16_t vsys_id);
/*
 * 1 when the network manager has been away at least as long as the manager's limit (IPC 836), 0 when
 * not, -1 on failure (told on the console).
 */
MGMT_API int libmgmt_check_network_manager_disconnect_timeout(void);
/*
 * 0 off an MQ500 SD-WAN platform; there 1 when the check above gives anything but 0. Kept on purpose: a
 * failed check counts as timed out.
 */
MGMT_API int libmgmt_is_sdwan_platform_and_network_manager_disconnect_timeout(void);
/* 1 when byte 44 of the 64-byte answer of application 0 (IPC 880) is 1, else 0; -1 on failure or a short answer. */
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
