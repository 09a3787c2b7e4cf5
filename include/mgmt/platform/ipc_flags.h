/*
 * Local flags of the IPC library: numbered flags that a process switches on
 * and off for itself (flag 4 is held while an MGI request of source 8 is in
 * service). Per process, no lock.
 */
#ifndef PLATFORM_IPC_FLAGS_H
#define PLATFORM_IPC_FLAGS_H

#include <stdint.h>

#include "mgmt/platform/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Switch flag number flag (0 to 31) on or off for the calling process; 0, or -1 for a number out of range. */
PLATFORM_API int ipcmsg_set_local_flag(int flag);
PLATFORM_API int ipcmsg_unset_local_flag(int flag);
/* The process's flags, bit n for flag n. */
PLATFORM_API uint32_t ipcmsg_get_local_flags(void);

#ifdef __cplusplus
}
#endif

#endif
