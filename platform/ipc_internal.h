/*
 * Internals shared by the IPC files of the platform stand-in. Not installed.
 */
#ifndef PLATFORM_IPC_INTERNAL_H
#define PLATFORM_IPC_INTERNAL_H

#include "mgmt/platform/platform.h"

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

namespace plat {

static_assert(sizeof(ipc_frame_t) == 32, "the frame is 32 bytes");
static_assert(__builtin_offsetof(ipc_frame_t, msg_be) == 4, "message number at byte 4");
static_assert(sizeof(sockaddr_un) <= sizeof(((ipc_peer_t *)nullptr)->addr), "peer address holds a sockaddr_un");

constexpr int kDefaultTimeoutMs = 30000;

/* MGMT_IPC_TIMEOUT_MS when set and positive, else 30000. */
int default_timeout_ms();

/* A file name this process bound and must unlink at close or exit (only if it made it: pid). */
struct Owned {
    Owned *prev, *next;
    pid_t pid;
    char path[sizeof(sockaddr_un::sun_path)];
};
/* Drops the name from the exit list; unlinks the file when this process made it. */
void disown(Owned *o);

/*
 * A datagram socket bound to <runtime dir>/<name>, SO_PASSCRED on, registered for unlinking.
 * With check_live, an address that a live socket holds is refused (-EADDRINUSE); a stale file
 * is removed. Returns the descriptor or -errno.
 */
int open_bound(const char *name, bool check_live, Owned *own);

/* The address of destination id dst (with inst added as instance when non-zero). 0 or -errno. */
int dst_addr(uint32_t dst, uint32_t inst, sockaddr_un *sa, socklen_t *len);

/* Identity written into the frame's source words. */
struct Src {
    uint32_t slot, appid, instance;
};

/* Sets SO_SNDTIMEO when it differs from *cache (a value in ms, -1 unknown). */
void set_send_timeout(int fd, int ms, int *cache);

/* One frame + payload to sa. 0 or -errno (-ETIMEDOUT when the peer's queue stays full). */
int send_frame(int fd, const sockaddr_un *sa, socklen_t salen, uint16_t msg, uint8_t kind, uint32_t seq,
               int32_t status, Src src, const void *buf, uint32_t len);

/*
 * Receives one valid message (magic right, sender uid ours or 0; others are dropped). timeout_ms 0:
 * -EAGAIN at once when nothing waits; > 0: -ETIMEDOUT after it; < 0: no bound. Returns the payload
 * bytes stored in buf (at most cap; a longer message is cut) or -errno. peer may be null.
 */
int recv_frame(int fd, ipc_frame_t *fr, ipc_peer_t *peer, void *buf, uint32_t cap, int timeout_ms);

/* Writes all n bytes to fd, going on after interruptions; stops quietly on an error. */
void write_all(int fd, const char *p, size_t n);

/* Milliseconds on the monotonic clock. */
long long now_ms();

/* Process identity (ipc_init / ipc_register); cleared by ipc_reset. */
void set_process_identity(bool set, uint32_t appid, uint32_t instance);
/* Closes the calling thread's socket and, with forget, its identity. */
void close_thread_socket(bool forget_identity);

} // namespace plat

#endif
