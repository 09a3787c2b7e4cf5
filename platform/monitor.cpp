/*
 * The platform stand-in, monitor tap: every process maps one word from its runtime directory
 * ("monitor.state"), which holds the pid of an open monitor. A send tests that word; while it
 * is set, the sender puts a copy of the frame on the monitor's address ("monitor") without
 * waiting, from a socket of its own, so that copies never fill the real socket's send buffer.
 * A copy that finds the queue full is counted in the same shared page.
 */
#include "ipc_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plat {

std::atomic<MonitorTap *> g_tap{nullptr};

namespace {

constexpr char kStateName[] = "monitor.state";
constexpr char kAddressName[] = "monitor";
constexpr size_t kPage = 4096;

MonitorPage g_unwatched{}; // the word of a directory whose page cannot be had: nobody watches it
std::atomic<int> g_copy_fd{-1}; // the process's socket for copies, made when first needed

// The monitor of this process.
int g_monitor_fd = -1;
MonitorTap *g_monitor_tap = nullptr;
Owned g_monitor_own{};

int copy_socket() {
    int fd = g_copy_fd.load(std::memory_order_acquire);
    if (fd >= 0) return fd;
    int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (made < 0) return -1;
    if (g_copy_fd.compare_exchange_strong(fd, made)) return made;
    close(made); // another thread was first
    return fd;
}

} // namespace

void monitor_attach(const char *dir) {
    // A directory whose page cannot be had is watched by nobody: its sends stay as they are.
    auto *tap = new (std::nothrow) MonitorTap{};
    if (!tap) return;
    char path[sizeof(sockaddr_un::sun_path)];
    snprintf(path, sizeof path, "%s/%s", dir, kStateName);
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    struct stat st;
    void *page = MAP_FAILED;
    if (fd >= 0 && fstat(fd, &st) == 0 && (st.st_size >= (off_t)kPage || ftruncate(fd, kPage) == 0))
        page = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (fd >= 0) close(fd);
    tap->page = page == MAP_FAILED ? &g_unwatched : static_cast<MonitorPage *>(page);
    tap->addr.sun_family = AF_UNIX;
    int n = snprintf(tap->addr.sun_path, sizeof tap->addr.sun_path, "%s/%s", dir, kAddressName);
    tap->addrlen = (socklen_t)(offsetof(sockaddr_un, sun_path) + n + 1);
    // The tap of an earlier directory stays mapped: another thread may be reading it.
    tap->earlier = g_tap.load();
    g_tap.store(tap, std::memory_order_release);
}

void monitor_copy(const ipc_frame_t &fr, const void *buf, uint32_t len, Src dst, int result) {
    MonitorTap *tap = g_tap.load(std::memory_order_acquire);
    if (!tap) return;
    const int32_t watcher = tap->page->monitor.load(std::memory_order_relaxed);
    int fd = copy_socket();
    if (fd < 0 || watcher == 0) return;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    ipc_monitor_head_t head{};
    head.magic = IPC_MONITOR_MAGIC;
    head.result = result;
    head.time_ns = (uint64_t)now.tv_sec * 1000000000u + (uint64_t)now.tv_nsec;
    head.pid = (int32_t)getpid();
    head.dst_slot = (uint16_t)dst.slot;
    head.dst_app = (uint16_t)dst.appid;
    head.dst_inst = (uint16_t)dst.instance;
    iovec iov[3] = {{&head, sizeof head}, {const_cast<ipc_frame_t *>(&fr), sizeof fr}, {const_cast<void *>(buf), len}};
    msghdr mh{};
    mh.msg_name = &tap->addr;
    mh.msg_namelen = tap->addrlen;
    mh.msg_iov = iov;
    mh.msg_iovlen = len ? 3 : 2;
    ssize_t n;
    do
        n = sendmsg(fd, &mh, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    if (n >= 0) return;
    if (errno == EAGAIN || errno == ENOBUFS) {
        tap->page->dropped.fetch_add(1, std::memory_order_relaxed);
    } else if (errno == ECONNREFUSED || errno == ENOENT) {
        // The monitor is gone without closing: stop copying, unless a new one has come since.
        int32_t seen = watcher;
        tap->page->monitor.compare_exchange_strong(seen, 0);
    }
}

} // namespace plat

using namespace plat;

extern "C" {

int ipc_monitor_open(void) {
    if (g_monitor_fd >= 0) return -EBUSY;
    if (!ipc_runtime_dir()) return -EIO; // maps the directory's page
    MonitorTap *tap = g_tap.load(std::memory_order_acquire);
    if (!tap || tap->page == &g_unwatched) return -EIO;
    int fd = open_bound(kAddressName, true, &g_monitor_own);
    if (fd < 0) return fd;
    int size = 4 << 20; // room for bursts; the kernel caps it
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    g_monitor_fd = fd;
    g_monitor_tap = tap;
    tap->page->dropped.store(0);
    tap->page->monitor.store((int32_t)getpid(), std::memory_order_release);
    return fd;
}

int ipc_monitor_recv(void *buf, uint32_t cap, int timeout_ms) {
    if (g_monitor_fd < 0) return -EBADF;
    long long deadline = timeout_ms > 0 ? now_ms() + timeout_ms : 0;
    for (;;) {
        iovec iov{buf, cap};
        union {
            cmsghdr align;
            char bytes[CMSG_SPACE(sizeof(ucred))];
        } ctl;
        msghdr mh{};
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        mh.msg_control = &ctl;
        mh.msg_controllen = sizeof ctl;
        ssize_t n = recvmsg(g_monitor_fd, &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (n < 0) {
            if (errno == EINTR) return -EINTR; // a signal may end the monitor
            if (errno != EAGAIN) return -errno;
            int wait = -1;
            if (timeout_ms >= 0) {
                long long left = deadline - now_ms();
                if (timeout_ms == 0 || left <= 0) return -ETIMEDOUT;
                wait = (int)left;
            }
            pollfd p{g_monitor_fd, POLLIN, 0};
            if (poll(&p, 1, wait) < 0) return -errno;
            continue;
        }
        const ucred *cred = nullptr;
        for (cmsghdr *c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c))
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) cred = (const ucred *)CMSG_DATA(c);
        if (!cred || (cred->uid != 0 && cred->uid != getuid() && cred->uid != geteuid())) continue;
        if ((size_t)n < sizeof(ipc_monitor_head_t) + sizeof(ipc_frame_t)) continue;
        return (int)n;
    }
}

uint64_t ipc_monitor_dropped(void) {
    return g_monitor_tap ? g_monitor_tap->page->dropped.load(std::memory_order_relaxed) : 0;
}

void ipc_monitor_close(void) {
    if (g_monitor_fd < 0) return;
    int32_t me = (int32_t)getpid();
    g_monitor_tap->page->monitor.compare_exchange_strong(me, 0);
    close(g_monitor_fd);
    g_monitor_fd = -1;
    disown(&g_monitor_own);
}

} // extern "C"
