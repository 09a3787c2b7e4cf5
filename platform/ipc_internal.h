/*
 * Internals shared by the IPC files of the platform stand-in. Not installed.
 */
#ifndef PLATFORM_IPC_INTERNAL_H
#define PLATFORM_IPC_INTERNAL_H

#include "mgmt/platform/platform.h"

#include <atomic>

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
    bool pid_file; // a file naming the serving process stands beside the address
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

/* Identity written into the frame's source words. */
struct Src {
    uint32_t slot, appid, instance;
};

/*
 * The address of destination id dst (with inst added as instance when non-zero), and who is
 * there (when who is given). 0 or -errno.
 */
int dst_addr(uint32_t dst, uint32_t inst, sockaddr_un *sa, socklen_t *len, Src *who = nullptr);

/* Sets SO_SNDTIMEO when it differs from *cache (a value in ms, -1 unknown). */
void set_send_timeout(int fd, int ms, int *cache);

/*
 * One frame + payload to sa, where dst is. 0 or -errno (-ETIMEDOUT when the peer's queue stays
 * full). A monitor of the runtime directory gets a copy.
 */
int send_frame(int fd, const sockaddr_un *sa, socklen_t salen, uint16_t msg, uint8_t kind, uint32_t seq,
               int32_t status, Src src, Src dst, const void *buf, uint32_t len);

/* ---- the monitor tap (monitor.cpp) */

/* The word every process maps from the runtime directory, and the monitor's address there. */
struct MonitorPage {
    std::atomic<int32_t> monitor; // pid of the open monitor, 0 when none
    std::atomic<uint32_t> reserved;
    std::atomic<uint64_t> dropped; // copies dropped since it opened
};
/*
 * A queue of datagrams holds few of them (net.unix.max_dgram_qlen, often 10): the monitor reads
 * several queues, a sender moves on to the next one it finds full, and the monitor takes the
 * copies in the order of their time.
 */
constexpr int kMonitorQueues = 8;
struct MonitorTap {
    MonitorTap *earlier; // the tap of the directory before, kept: a thread may still read it
    MonitorPage *page;
    sockaddr_un addr[kMonitorQueues];
    socklen_t addrlen[kMonitorQueues];
};
extern std::atomic<MonitorTap *> g_tap;

/* Maps the monitor word of the runtime directory dir: when the directory is made or changes. */
void monitor_attach(const char *dir);
/* Whether a monitor is open: the one test on every send. */
inline bool monitor_watching() {
    MonitorTap *t = g_tap.load(std::memory_order_relaxed);
    return t && t->page->monitor.load(std::memory_order_relaxed) != 0;
}
/* Sends the monitor the copy of a frame that went (or failed, result < 0) to dst. */
void monitor_copy(const ipc_frame_t &fr, const void *buf, uint32_t len, Src dst, int result);

/*
 * Receives one valid message (magic right, sender uid ours or 0; others are dropped). timeout_ms 0:
 * -EAGAIN at once when nothing waits; > 0: -ETIMEDOUT after it; < 0: no bound. Returns the payload
 * bytes stored in buf (at most cap; a longer message is cut) or -errno. peer may be null. A gone_fd
 * (>= 0) that turns readable while nothing waits ends the wait with -ECONNRESET: the descriptor of
 * the process that was to answer, readable once it has ended.
 */
int recv_frame(int fd, ipc_frame_t *fr, ipc_peer_t *peer, void *buf, uint32_t cap, int timeout_ms,
               int gone_fd = -1);

/*
 * The frame parser, exported for its fuzz target (tests/fuzz/fuzz_frame.cpp).
 * The credentials a received message carries when they are ours or root's; null for any other.
 */
PLATFORM_API const ucred *trusted_sender(msghdr *mh);
/*
 * What recv_frame keeps of a datagram of n bytes received with mh, its first bytes in fr: the
 * payload length, with the sender's identity and address in peer (may be null); -1 for one that
 * is dropped (a foreign user, no credentials, shorter than a frame, a wrong magic).
 */
PLATFORM_API int take_frame(msghdr *mh, size_t n, const ipc_frame_t &fr, ipc_peer_t *peer);

/* The handler the process endpoint runs for msg (ipc_register_handler), null for none. */
PLATFORM_API ipc_handler_fn process_handler(uint16_t msg);

/* The file beside a bound address that names the process serving it (pid in decimal). */
int pid_file_path(const char *sock_path, char *out, size_t size);
/*
 * A descriptor (pidfd, the caller's) that turns readable once the process serving the address
 * sock_path ends; -1 when no file names one or it has ended already.
 */
int open_process_watch(const char *sock_path);
/* pidfd (or -1) while the process it watches lives; else closed, and a new watch of sock_path. */
int renew_process_watch(int pidfd, const char *sock_path);
/* Whether fd polls readable now. */
bool readable(int fd);

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
