/*
 * The platform stand-in, requesting side: runtime directory, identities, thread sockets, the
 * frame on the wire and the ipcmsg_* calls. Messages are datagrams on Unix-domain sockets.
 *
 * Nothing on the request path (ipc_self, send, recv, send_and_recv) allocates heap memory once a
 * thread's socket exists: addresses, frames and control buffers live on the stack.
 */
#include "ipc_internal.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

__thread ipc_handle_t myipc = {0, 0, 0, -1};

namespace plat {
namespace {

constexpr size_t kPathMax = sizeof(sockaddr_un::sun_path);

/* Everything below is guarded by g_lock. */
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
Owned *g_owned = nullptr;  // names to unlink at exit
bool g_hooks = false;      // atexit / atfork installed
char g_dir_key[kPathMax];  // the MGMT_IPC_DIR value g_dir was made from ("" when unset)
char g_dir[kPathMax];      // the resolved runtime directory
bool g_dir_ok = false;
unsigned g_dir_gen = 0;    // bumped whenever the directory changes

std::atomic<unsigned> g_fork_gen{0}; // bumped in a forked child
std::atomic<bool> g_proc_set{false};
std::atomic<uint32_t> g_proc_app{0}, g_proc_inst{0};

struct Lock {
    Lock() { pthread_mutex_lock(&g_lock); }
    ~Lock() { pthread_mutex_unlock(&g_lock); }
};

void unlink_owned(const Owned *o) {
    unlink(o->path);
    char pid_path[kPathMax + 8];
    if (o->pid_file && pid_file_path(o->path, pid_path, sizeof pid_path) == 0) unlink(pid_path);
}

void unlink_all_at_exit() {
    Lock l;
    pid_t me = getpid();
    for (Owned *o = g_owned; o; o = o->next)
        if (o->pid == me) unlink_owned(o);
}

/* Names the serving process beside the address sock_path, so that a requester can watch it end. */
bool write_pid_file(const char *sock_path) {
    char path[kPathMax + 8], tmp[kPathMax + 16], text[16];
    if (pid_file_path(sock_path, path, sizeof path) != 0) return false;
    snprintf(tmp, sizeof tmp, "%s.new", path);
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    int n = snprintf(text, sizeof text, "%d\n", (int)getpid());
    bool ok = write(fd, text, (size_t)n) == n;
    close(fd);
    if (ok && rename(tmp, path) == 0) return true;
    unlink(tmp);
    return false;
}

void install_hooks() { // under g_lock
    if (g_hooks) return;
    g_hooks = true;
    atexit(unlink_all_at_exit);
    pthread_atfork([] { pthread_mutex_lock(&g_lock); }, [] { pthread_mutex_unlock(&g_lock); },
                   [] {
                       pthread_mutex_unlock(&g_lock);
                       g_fork_gen.fetch_add(1);
                   });
}

/* mkdir -p with mode 0700 for every component made here. */
int make_dirs(const char *path) {
    char tmp[kPathMax];
    if (strlen(path) >= sizeof tmp) return -ENAMETOOLONG;
    strcpy(tmp, path);
    for (char *p = tmp + 1;; ++p) {
        if (*p != '/' && *p != 0) continue;
        char c = *p;
        *p = 0;
        if (mkdir(tmp, 0700) == 0)
            chmod(tmp, 0700); // umask may have cut the mode
        else if (errno != EEXIST)
            return -errno;
        *p = c;
        if (!c) break;
    }
    struct stat st;
    if (stat(path, &st) != 0) return -errno;
    return S_ISDIR(st.st_mode) ? 0 : -ENOTDIR;
}

int resolve_dir(const char *env, char *out) { // under g_lock
    if (env) {
        if (strlen(env) + 24 >= kPathMax) { // room for the longest name
            snprintf(out, kPathMax, "%s", env);
            return -ENAMETOOLONG;
        }
        strcpy(out, env);
        return make_dirs(out);
    }
    strcpy(out, "/run/mgmt");
    if (make_dirs(out) == 0 && access(out, W_OK | X_OK) == 0) return 0;
    snprintf(out, kPathMax, "/tmp/mgmt-%u", (unsigned)getuid());
    return make_dirs(out);
}

/* The directory the last resolution on this thread tried. */
thread_local char t_dir_tried[kPathMax];

/* Copies the current runtime directory (re-resolved when MGMT_IPC_DIR changed). 0 or -errno. */
int runtime_dir(char *out, unsigned *gen, bool force = false) {
    Lock l;
    const char *env = getenv("MGMT_IPC_DIR");
    if (env && !*env) env = nullptr;
    const char *key = env ? env : "";
    if (force || !g_dir_ok || strcmp(key, g_dir_key) != 0) {
        char dir[kPathMax];
        int rc = resolve_dir(env, dir);
        strcpy(t_dir_tried, dir);
        if (rc < 0) {
            g_dir_ok = false;
            return rc;
        }
        if (!g_dir_ok || strcmp(dir, g_dir) != 0) {
            ++g_dir_gen;
            monitor_attach(dir);
        }
        strcpy(g_dir, dir);
        snprintf(g_dir_key, sizeof g_dir_key, "%s", key);
        g_dir_ok = true;
    }
    if (out) strcpy(out, g_dir);
    if (gen) *gen = g_dir_gen;
    return 0;
}

uint32_t env_u32(const char *name, uint32_t dflt) {
    const char *v = getenv(name);
    if (!v || !*v) return dflt;
    char *end;
    unsigned long n = strtoul(v, &end, 0);
    return *end ? dflt : (uint32_t)n;
}

/*
 * A process that serves an address, watched through a descriptor that turns readable when it
 * ends: the requester's wait ends then and not at its time-out.
 */
struct PeerWatch {
    int pidfd = -1;
    char path[kPathMax] = "";
};
constexpr int kPeerWatches = 4;

/* The calling thread's IPC state. Its destructor closes the socket and unlinks its name. */
struct ThreadSock {
    Owned own{};
    int fd = -1;
    unsigned dir_gen = 0, fork_gen = 0;
    uint32_t seq = 0;
    uint32_t awaited = 0; // the sequence of the last request: replies to earlier ones are dropped
    int sndtimeo = -1;
    bool has_identity = false;
    uint32_t appid = 0, instance = 0;
    PeerWatch watch[kPeerWatches];
    unsigned next_watch = 0;

    void close_fd() {
        for (PeerWatch &w : watch) {
            if (w.pidfd >= 0) close(w.pidfd);
            w = PeerWatch{};
        }
        if (fd < 0) return;
        close(fd);
        fd = -1;
        awaited = 0; // a new socket waits for no earlier request's answers
        disown(&own);
        myipc.fd = -1;
    }
    ~ThreadSock() { close_fd(); }
};

/*
 * The descriptor that turns readable when the process serving sock_path ends, -1 when it is not
 * known (no file names it, or it ended before the request went out).
 */
int peer_watch(ThreadSock &ts, const char *sock_path) {
    PeerWatch *w = nullptr;
    for (PeerWatch &c : ts.watch)
        if (c.pidfd >= 0 && strcmp(c.path, sock_path) == 0) w = &c;
    if (!w) { // a slot taken over for this address
        w = &ts.watch[ts.next_watch++ % kPeerWatches];
        if (w->pidfd >= 0) close(w->pidfd);
        w->pidfd = -1;
        strcpy(w->path, sock_path);
    }
    return w->pidfd = renew_process_watch(w->pidfd, sock_path);
}

/* Throws away what still waits on the thread's socket: answers to requests given up on. */
void discard_waiting(int fd) {
    char byte;
    while (recv(fd, &byte, 1, MSG_DONTWAIT | MSG_TRUNC) >= 0 || errno == EINTR) {
    }
}
thread_local ThreadSock t_sock;

uint32_t next_seq(ThreadSock &ts) {
    if (++ts.seq == 0) ++ts.seq;
    return ts.seq;
}

Src src_of(const ipc_handle_t *h) { return Src{h->slot, h->appid, h->instance}; }

/* Fills myipc's identity words: thread identity, else process identity, else the environment. */
ThreadSock &refresh_identity() {
    ThreadSock &ts = t_sock;
    if (ts.has_identity) {
        myipc.appid = ts.appid;
        myipc.instance = ts.instance;
    } else if (g_proc_set.load(std::memory_order_acquire)) {
        myipc.appid = g_proc_app.load(std::memory_order_relaxed);
        myipc.instance = g_proc_inst.load(std::memory_order_relaxed);
    } else {
        myipc.appid = env_u32("MGMT_APPID", 0);
        myipc.instance = env_u32("MGMT_INSTANCE", 0);
    }
    myipc.slot = ipc_own_slot();
    return ts;
}

} // namespace

long long now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int default_timeout_ms() {
    uint32_t v = env_u32("MGMT_IPC_TIMEOUT_MS", kDefaultTimeoutMs);
    return v > 0 && v <= 0x7fffffff ? (int)v : kDefaultTimeoutMs;
}

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLIN | POLLHUP));
}

int open_process_watch(const char *sock_path) {
    char path[kPathMax + 8], text[16] = "";
    if (pid_file_path(sock_path, path, sizeof path) != 0) return -1;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    long pid = n > 0 ? strtol(text, nullptr, 10) : 0;
    if (pid <= 0) return -1;
    int pidfd = (int)syscall(SYS_pidfd_open, (pid_t)pid, 0);
    if (pidfd >= 0 && readable(pidfd)) {
        close(pidfd);
        return -1;
    }
    return pidfd;
}

int renew_process_watch(int pidfd, const char *sock_path) {
    if (pidfd >= 0 && !readable(pidfd)) return pidfd;
    if (pidfd >= 0) close(pidfd); // that process ended: look again who serves the address now
    return open_process_watch(sock_path);
}

int pid_file_path(const char *sock_path, char *out, size_t size) {
    int n = snprintf(out, size, "%s.pid", sock_path);
    return n > 0 && (size_t)n < size ? 0 : -ENAMETOOLONG;
}

void disown(Owned *o) {
    Lock l;
    if (o->pid == getpid()) unlink_owned(o);
    if (o->prev) o->prev->next = o->next;
    else if (g_owned == o) g_owned = o->next;
    if (o->next) o->next->prev = o->prev;
    o->prev = o->next = nullptr;
    o->pid = 0;
}

int open_bound(const char *name, bool check_live, Owned *own) {
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    for (int attempt = 0;; ++attempt) {
        char dir[kPathMax];
        int rc = runtime_dir(dir, nullptr, attempt > 0);
        if (rc < 0) return rc;
        if ((size_t)snprintf(sa.sun_path, sizeof sa.sun_path, "%s/%s", dir, name) >= sizeof sa.sun_path)
            return -ENAMETOOLONG;
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return -errno;
        if (check_live && connect(fd, (sockaddr *)&sa, sizeof sa) == 0) {
            close(fd);
            return -EADDRINUSE; // somebody serves this address
        }
        if (check_live) { // the probe may have left the socket half-set; start afresh
            close(fd);
            fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            if (fd < 0) return -errno;
        }
        unlink(sa.sun_path); // a stale file of an earlier run
        int one = 1;
        if (bind(fd, (sockaddr *)&sa, sizeof sa) == 0 &&
            setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &one, sizeof one) == 0) {
            Lock l;
            install_hooks();
            own->pid = getpid();
            strcpy(own->path, sa.sun_path);
            own->pid_file = check_live && write_pid_file(sa.sun_path);
            own->prev = nullptr;
            own->next = g_owned;
            if (g_owned) g_owned->prev = own;
            g_owned = own;
            return fd;
        }
        rc = -errno;
        close(fd);
        if (rc != -ENOENT || attempt > 0) return rc; // ENOENT: the directory vanished, make it again
    }
}

int dst_addr(uint32_t dst, uint32_t inst, sockaddr_un *sa, socklen_t *len, Src *who) {
    uint32_t slot = dst >> 24, instance = (dst >> 16) & 0xff, app = dst & 0xffff;
    if (slot == 0) slot = ipc_own_slot();
    if (inst) instance = inst;
    if (who) *who = Src{slot, app, instance};
    char dir[kPathMax];
    int rc = runtime_dir(dir, nullptr);
    if (rc < 0) return rc;
    memset(sa, 0, sizeof *sa);
    sa->sun_family = AF_UNIX;
    int n = snprintf(sa->sun_path, sizeof sa->sun_path, "%s/s%u.a%u.i%u", dir, slot, app, instance);
    if ((size_t)n >= sizeof sa->sun_path) return -ENAMETOOLONG;
    *len = (socklen_t)(offsetof(sockaddr_un, sun_path) + n + 1);
    return 0;
}

void set_send_timeout(int fd, int ms, int *cache) {
    if (*cache == ms) return;
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0) *cache = ms;
}

int send_frame(int fd, const sockaddr_un *sa, socklen_t salen, uint16_t msg, uint8_t kind, uint32_t seq,
               int32_t status, Src src, Src dst, const void *buf, uint32_t len) {
    if (len > IPC_MAX_PAYLOAD) return -EMSGSIZE;
    if (len && !buf) return -EINVAL;
    ipc_frame_t fr{};
    fr.magic = IPC_FRAME_MAGIC;
    fr.msg_be[0] = (uint8_t)(msg >> 8);
    fr.msg_be[1] = (uint8_t)msg;
    fr.kind = kind;
    fr.seq = seq;
    fr.status = status;
    fr.src_slot = (uint16_t)src.slot;
    fr.src_app = (uint16_t)src.appid;
    fr.src_inst = (uint16_t)src.instance;
    fr.len = len;
    iovec iov[2] = {{&fr, sizeof fr}, {const_cast<void *>(buf), len}};
    msghdr mh{};
    mh.msg_name = const_cast<sockaddr_un *>(sa);
    mh.msg_namelen = salen;
    mh.msg_iov = iov;
    mh.msg_iovlen = len ? 2 : 1;
    // The monitor's copy goes first, so that it comes before the copy of any answer; a send that
    // then fails is told by a second copy without payload.
    const bool watched = monitor_watching();
    if (watched) [[unlikely]]
        monitor_copy(fr, buf, len, dst, 0);
    int rc = 0;
    while (sendmsg(fd, &mh, MSG_NOSIGNAL) < 0) {
        if (errno == EINTR) continue;
        rc = errno == EAGAIN ? -ETIMEDOUT : -errno; // EAGAIN: SO_SNDTIMEO ran out on a full queue
        if (watched) monitor_copy(fr, nullptr, 0, dst, rc);
        break;
    }
    return rc;
}

int recv_frame(int fd, ipc_frame_t *fr, ipc_peer_t *peer, void *buf, uint32_t cap, int timeout_ms, int gone_fd) {
    long long deadline = timeout_ms > 0 ? now_ms() + timeout_ms : 0;
    bool gone = false;
    for (;;) {
        iovec iov[2] = {{fr, sizeof *fr}, {buf, buf ? cap : 0}};
        sockaddr_un from;
        union {
            cmsghdr align;
            char bytes[CMSG_SPACE(sizeof(ucred))];
        } ctl;
        msghdr mh{};
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = iov;
        mh.msg_iovlen = 2;
        mh.msg_control = &ctl;
        mh.msg_controllen = sizeof ctl;
        ssize_t n = recvmsg(fd, &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) return -errno;
            if (gone) return -ECONNRESET; // and nothing came before it ended
            if (timeout_ms == 0) return -EAGAIN;
            int wait = -1;
            if (timeout_ms > 0) {
                long long left = deadline - now_ms();
                if (left <= 0) return -ETIMEDOUT;
                wait = (int)left;
            }
            pollfd p[2] = {{fd, POLLIN, 0}, {gone_fd, POLLIN, 0}};
            if (poll(p, gone_fd >= 0 ? 2 : 1, wait) < 0 && errno != EINTR) return -errno;
            gone = gone_fd >= 0 && (p[1].revents & POLLIN);
            continue;
        }
        int len = take_frame(&mh, (size_t)n, *fr, peer);
        if (len >= 0) return len;
    }
}

const ucred *trusted_sender(msghdr *mh) {
    const ucred *cred = nullptr;
    const char *end = (const char *)mh->msg_control + mh->msg_controllen;
    // Credentials count only whole and inside the control data the message came with.
    for (cmsghdr *c = CMSG_FIRSTHDR(mh); c; c = CMSG_NXTHDR(mh, c))
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
            c->cmsg_len >= CMSG_LEN(sizeof(ucred)) && (const char *)c + CMSG_LEN(sizeof(ucred)) <= end)
            cred = (const ucred *)CMSG_DATA(c);
    if (!cred || (cred->uid != 0 && cred->uid != getuid() && cred->uid != geteuid()))
        return nullptr; // a foreign user: dropped, never dispatched
    return cred;
}

int take_frame(msghdr *mh, size_t n, const ipc_frame_t &fr, ipc_peer_t *peer) {
    const ucred *cred = trusted_sender(mh);
    if (!cred || n < sizeof fr || fr.magic != IPC_FRAME_MAGIC) return -1;
    if (peer) {
        peer->slot = fr.src_slot;
        peer->appid = fr.src_app;
        peer->instance = fr.src_inst;
        peer->seq = fr.seq;
        peer->kind = fr.kind;
        peer->uid = cred->uid;
        peer->pid = cred->pid;
        peer->ctx = nullptr;
        peer->addrlen = mh->msg_name && mh->msg_namelen <= sizeof(sockaddr_un) ? mh->msg_namelen : 0;
        memset(peer->addr, 0, sizeof peer->addr);
        memcpy(peer->addr, mh->msg_name, peer->addrlen);
    }
    return (int)(n - sizeof fr);
}

void set_process_identity(bool set, uint32_t appid, uint32_t instance) {
    g_proc_app = appid;
    g_proc_inst = instance;
    g_proc_set = set;
}

void close_thread_socket(bool forget_identity) {
    ThreadSock &ts = t_sock;
    ts.close_fd(); // after a fork: closes the child's copy; the name stays the parent's
    myipc.fd = -1;
    if (forget_identity) {
        ts.has_identity = false;
        myipc = ipc_handle_t{0, 0, 0, -1};
    }
}

} // namespace plat

using namespace plat;

extern "C" {

uint32_t ipc_own_slot(void) { return env_u32("MGMT_SLOT", 0); }

const char *ipc_runtime_dir(void) {
    static thread_local char dir[kPathMax];
    int rc = runtime_dir(dir, nullptr);
    if (rc == 0) return dir;
    errno = -rc;
    return nullptr;
}

const char *ipc_runtime_dir_tried(void) { return t_dir_tried; }

uint32_t mktipcid(uint32_t slot, uint32_t instance, uint32_t appid) {
    return (slot & 0xff) << 24 | (instance & 0xff) << 16 | (appid & 0xffff);
}

int ipc_init(uint32_t appid, uint32_t instance) {
    set_process_identity(true, appid, instance);
    refresh_identity(); // the caller's myipc shows it at once
    return 0;
}

int ipc_set_thread_identity(uint32_t appid, uint32_t instance) {
    ThreadSock &ts = t_sock;
    ts.has_identity = true;
    ts.appid = appid;
    ts.instance = instance;
    myipc.appid = appid;
    myipc.instance = instance;
    return 0;
}

ipc_handle_t *ipc_self(void) {
    ThreadSock &ts = refresh_identity();
    unsigned gen;
    if (runtime_dir(nullptr, &gen) < 0) return nullptr;
    if (ts.fd < 0 || ts.dir_gen != gen || ts.fork_gen != g_fork_gen.load()) {
        close_thread_socket(false);
        char name[48];
        snprintf(name, sizeof name, "t%d.%d", (int)getpid(), (int)gettid());
        int fd = open_bound(name, false, &ts.own);
        if (fd < 0) {
            errno = -fd;
            return nullptr;
        }
        ts.fd = fd;
        ts.dir_gen = gen;
        ts.fork_gen = g_fork_gen.load();
        ts.sndtimeo = -1;
    }
    myipc.fd = ts.fd;
    return &myipc;
}

void *ipcmsg_alloc(uint32_t size) { return malloc(size ? size : 1); }

void ipcmsg_free(void *msg) { free(msg); }

} // extern "C"

namespace {

/*
 * Sends from the thread's socket. A request (seq given) gets the next sequence and becomes the one
 * whose replies the thread takes: whatever still waits from earlier requests is thrown away. With
 * gone_fd, the descriptor that watches the destination's process (or -1).
 */
int client_send(uint32_t dst, uint32_t inst, uint16_t msg, const void *buf, uint32_t len, uint8_t kind,
                uint32_t *seq, int timeout_ms, int *gone_fd = nullptr) {
    ipc_handle_t *me = ipc_self();
    if (!me) return errno ? -errno : -EIO;
    sockaddr_un sa;
    socklen_t salen;
    Src to;
    int rc = dst_addr(dst, inst, &sa, &salen, &to);
    if (rc < 0) return rc;
    ThreadSock &ts = t_sock;
    if (seq) {
        discard_waiting(me->fd);
        *seq = ts.awaited = next_seq(ts);
    }
    if (gone_fd) *gone_fd = peer_watch(ts, sa.sun_path);
    set_send_timeout(me->fd, timeout_ms > 0 ? timeout_ms : default_timeout_ms(), &ts.sndtimeo);
    return send_frame(me->fd, &sa, salen, msg, kind, seq ? *seq : 0, 0, src_of(me), to, buf, len);
}

} // namespace

extern "C" {

int ipcmsg_send(uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf, uint32_t len) {
    return client_send(dst, inst, msg_id, buf, len, IPC_KIND_ONEWAY, nullptr, 0);
}

int ipcmsg_send_sync(uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf, uint32_t len) {
    uint32_t seq;
    return client_send(dst, inst, msg_id, buf, len, IPC_KIND_REQUEST, &seq, 0);
}

int ipcmsg_send_timeout(uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf, uint32_t len, int timeout_ms) {
    return client_send(dst, inst, msg_id, buf, len, IPC_KIND_ONEWAY, nullptr, timeout_ms);
}

int ipcmsg_recv_sync(ipc_peer_t *peer, void *buf, uint32_t *len, int block) {
    ipc_handle_t *me = ipc_self();
    if (!me) return errno ? -errno : -EIO;
    ipc_frame_t fr;
    const uint32_t awaited = t_sock.awaited;
    int n = recv_frame(me->fd, &fr, peer, buf, len ? *len : 0, block ? default_timeout_ms() : 0);
    // A reply to a request the thread gave up on is dropped; only what already waits behind it is
    // looked at, so a drop reads as a failed receive.
    while (n >= 0 && fr.kind == IPC_KIND_REPLY && awaited && fr.seq != awaited)
        n = recv_frame(me->fd, &fr, peer, buf, len ? *len : 0, 0);
    if (n < 0) return n;
    if (len) *len = (uint32_t)n;
    return 0;
}

int ipcmsg_send_and_recv(uint32_t dst, uint32_t inst, uint16_t msg_id, void *sbuf, uint32_t slen, int32_t *status,
                         void *rbuf, uint32_t *rlen, int timeout_ms) {
    int timeout = timeout_ms > 0 ? timeout_ms : default_timeout_ms();
    uint32_t seq;
    int gone_fd = -1;
    int rc = client_send(dst, inst, msg_id, sbuf, slen, IPC_KIND_REQUEST, &seq, timeout, &gone_fd);
    if (rc < 0) return rc;
    long long deadline = now_ms() + timeout;
    uint32_t cap = rlen ? *rlen : 0;
    for (;;) {
        long long left = deadline - now_ms();
        ipc_frame_t fr;
        int n = recv_frame(myipc.fd, &fr, nullptr, rbuf, cap, left > 0 ? (int)left : 0, gone_fd);
        if (n == -EAGAIN) return -ETIMEDOUT;
        if (n < 0) return n;
        if (fr.kind != IPC_KIND_REPLY || fr.seq != seq) continue; // stale: an answer to an earlier request
        if (status) *status = fr.status;
        if (rlen) *rlen = (uint32_t)n;
        return 0;
    }
}

} // extern "C"
