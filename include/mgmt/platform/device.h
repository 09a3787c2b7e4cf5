/*
 * Device services of the platform: remote and published IPC messages, running programs, reboot,
 * time, the device log, the boot console, message translation, and device paths.
 *
 * The stand-in's conventions:
 * - Device paths (/etc, /flash, /tmp, /proc, /usr/local/sbin ...) resolve under $MGMT_SYSROOT when
 *   it is set and not empty (device_path), so that tests prepare a device in a directory of their
 *   own. Texts that name a path keep it as written.
 * - A publish channel is a message number: ipcmsg_publish(channel, ...) sends one one-way message of
 *   that number to every endpoint subscribed with ipc_subscribe. Subscriptions are files
 *   "c<channel>.s<slot>.a<app>.i<inst>" in the runtime directory, so they reach across processes.
 * - run_shellcmd and run_execv really run the program, unless a capture is set (run_set_capture):
 *   then the command line goes to the capture, nothing runs, and the capture's result is returned.
 * - vk_reboot runs $MGMT_REBOOT_CMD through /bin/sh when it is set; otherwise it only logs.
 * - vk_clog goes to syslog, boot_print to $MGMT_BOOT_CONSOLE, else $MGMT_CONSOLE, else standard
 *   error; each has a sink for tests as console_print has.
 */
#ifndef PLATFORM_DEVICE_H
#define PLATFORM_DEVICE_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "mgmt/platform/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- IPC */

/* ipcmsg_send to (slot, dst, inst): slot 0 is the own slot. 0 or negative errno. */
PLATFORM_API int ipcmsg_send_remote(uint32_t slot, uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf,
                                    uint32_t len);

/*
 * Sends buf as a one-way message numbered `channel` to every subscriber of the channel. Subscribers
 * whose address nobody holds any more are dropped. 0 when every live subscriber got it (also when
 * there is none); otherwise the first failure, negative errno.
 */
PLATFORM_API int ipcmsg_publish(uint32_t channel, void *buf, uint32_t len);

/* Subscribes the endpoint (own slot, appid, instance) to a channel; it gets message number `channel`. */
PLATFORM_API int ipc_subscribe(uint32_t channel, uint32_t appid, uint32_t instance);
PLATFORM_API int ipc_unsubscribe(uint32_t channel, uint32_t appid, uint32_t instance);

/* ---------------------------------------------------------------- programs */

/*
 * Runs a command line through /bin/sh -c; `program` names the program the line starts. With
 * wait non-zero the call waits (timeout_s > 0: at most that many seconds, then the process group
 * is killed). Result: 0 when the line ran and ended with exit code 0 (or, without wait, when it
 * was started); -1 when it could not run, was killed, ran out of time or ended with another code.
 * Without wait nothing is left for the caller to reap.
 */
PLATFORM_API int run_shellcmd(const char *program, const char *cmdline, int wait, int timeout_s);

/* Runs path (resolved by device_path) with argv; wait, time-out and result as run_shellcmd. */
PLATFORM_API int run_execv(const char *path, char *const argv[], int wait, int timeout_s);

/*
 * A capture for tests: while set, run_shellcmd and run_execv hand the command line (run_execv: the
 * arguments joined by single spaces) to fn, run nothing and return what fn returns. Null ends it.
 */
typedef int (*run_capture_fn)(const char *program, const char *cmdline, void *ctx);
PLATFORM_API void run_set_capture(run_capture_fn fn, void *ctx);

/* Reboots the device: $MGMT_REBOOT_CMD when set, else a log line only. 0 or -1. */
PLATFORM_API int vk_reboot(void);

/* Local time of *t into *out; out, or null on failure. */
PLATFORM_API struct tm *vk_localtime(const time_t *t, struct tm *out);

/* ---------------------------------------------------------------- texts */

/* A line for the device log (syslog, priority LOG_INFO). */
PLATFORM_API void vk_clog(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
PLATFORM_API void vk_clog_set_sink(console_sink_fn fn, void *ctx);

/* Start-up text for the boot console. */
PLATFORM_API void boot_print(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
PLATFORM_API void boot_set_sink(console_sink_fn fn, void *ctx);

/* The translation of a user text in the message catalogue "msg"; the text itself without one. */
PLATFORM_API const char *MSG_TR(const char *text);

/* Opens the device log for the process (openlog(ident, option, facility)). 0. */
PLATFORM_API int vk_syslog_init(const char *ident, int option, int facility);
/* Debug output of the process: $MGMT_DEBUG non-zero turns it on. 0. */
PLATFORM_API int vk_debug_init(void);
/* 1 when vk_debug_init turned debug output on. */
PLATFORM_API int vk_debug_enabled(void);

/* ---------------------------------------------------------------- paths */

/*
 * The file name of a device path: $MGMT_SYSROOT followed by path when the variable is set and not
 * empty and path is absolute, else path itself. Written to out (cut to size); returns out.
 */
PLATFORM_API char *device_path(const char *path, char *out, size_t size);

#ifdef __cplusplus
}
#endif

#endif
