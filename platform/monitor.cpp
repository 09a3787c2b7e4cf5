/*
 * The platform stand-in, monitor tap: every process maps one word from its runtime directory
 * ("monitor.state"), which holds the pid of an open monitor. A send tests that word; while it
 * is set, the sender puts a copy of the frame on the monitor's addresses ("monitor.0" ...)
 * without waiting, from a socket of its own, so that copies never fill the real socket's send
 * buffer. A copy that finds every queue full is counted in the same shared page.
 */
#include "ipc_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plat {

std::atomic<MonitorTap *> g_tap{nullptr};

namespace {

constexpr char kStateName[] = "monitor.state";
constexpr char kAddressName[] = "monitor.%d";
constexpr size_t kPage = 4096;

MonitorPage g_unwatched{}; // the word of a directory whose page cannot be had: nobody watches it
std::atomic<int> g_copy_fd{-1}; // the process's socket for copies, made when first needed
std::atomic<unsigned> g_queue{0}; // the queue this process's copies go to while it takes them

// The monitor of this process: a descriptor that polls readable when a queue holds a copy.
int g_monitor_fd = -1;
int g_queue_fd[kMonitorQueues];
MonitorTap *g_monitor_tap = nullptr;
Owned g_monitor_own[kMonitorQueues];

int copy_socket() {
    int fd = g_copy_fd.load(std::memory_order_acquire);
    if (fd >= 0) return fd;
    int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (made < 0) return -1;
    int size = 1 << 20; // copies in flight; the kernel caps it
    setsockopt(made, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
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
    for (int q = 0; q < kMonitorQueues; ++q) {
        char name[32];
        snprintf(name, sizeof name, kAddressName, q);
        tap->addr[q].sun_family = AF_UNIX;
        int n = snprintf(tap->addr[q].sun_path, sizeof tap->addr[q].sun_path, "%s/%s", dir, name);
        tap->addrlen[q] = (socklen_t)(offsetof(sockaddr_un, sun_path) + n + 1);
    }
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
    mh.msg_iov = iov;
    mh.msg_iovlen = len ? 3 : 2;
    const unsigned first = g_queue.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < kMonitorQueues; ++i) {
        const unsigned q = (first + i) % kMonitorQueues;
        mh.msg_name = &tap->addr[q];
        mh.msg_namelen = tap->addrlen[q];
        ssize_t n;
        do
            n = sendmsg(fd, &mh, MSG_DONTWAIT | MSG_NOSIGNAL);
        while (n < 0 && errno == EINTR);
        if (n >= 0) {
            if (i) g_queue.store(q, std::memory_order_relaxed);
            return;
        }
        if (errno == EAGAIN || errno == ENOBUFS) continue; // full: the next queue
        if (errno == ECONNREFUSED || errno == ENOENT) {
            // The monitor is gone without closing: stop copying, unless a new one has come since.
            int32_t seen = watcher;
            tap->page->monitor.compare_exchange_strong(seen, 0);
        }
        return;
    }
    tap->page->dropped.fetch_add(1, std::memory_order_relaxed);
}

} // namespace plat

using namespace plat;

extern "C" {

int ipc_monitor_open(void) {
    if (g_monitor_fd >= 0) return -EBUSY;
    if (!ipc_runtime_dir()) return -EIO; // maps the directory's page
    MonitorTap *tap = g_tap.load(std::memory_order_acquire);
    if (!tap || tap->page == &g_unwatched) return -EIO;
    int ep = epoll_create1(EPOLL_CLOEXEC);
    if (ep < 0) return -errno;
    for (int q = 0; q < kMonitorQueues; ++q) {
        char name[32];
        snprintf(name, sizeof name, kAddressName, q);
        int fd = open_bound(name, true, &g_monitor_own[q]); // a live monitor holds them: -EADDRINUSE
        epoll_event ev{};
        ev.events = EPOLLIN;
        if (fd >= 0 && epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0) {
            int rc = -errno;
            close(fd);
            disown(&g_monitor_own[q]);
            fd = rc;
        }
        if (fd < 0) {
            while (q-- > 0) {
                close(g_queue_fd[q]);
                disown(&g_monitor_own[q]);
            }
            close(ep);
            return fd;
        }
        g_queue_fd[q] = fd;
    }
    g_monitor_fd = ep;
    g_monitor_tap = tap;
    tap->page->dropped.store(0);
    tap->page->monitor.store((int32_t)getpid(), std::memory_order_release);
    return ep;
}

int ipc_monitor_recv(void *buf, uint32_t cap, int timeout_ms) {
    if (g_monitor_fd < 0) return -EBADF;
    long long deadline = timeout_ms > 0 ? now_ms() + timeout_ms : 0;
    for (;;) {
        // The earliest copy at the head of a queue.
        int from = -1;
        uint64_t earliest = 0;
        for (int q = 0; q < kMonitorQueues; ++q) {
            ipc_monitor_head_t head;
            ssize_t n = recv(g_queue_fd[q], &head, sizeof head, MSG_PEEK | MSG_DONTWAIT);
            if (n < 0 && errno != EAGAIN && errno != EINTR) return -errno;
            const uint64_t t = n == (ssize_t)sizeof head ? head.time_ns : 0; // a stray datagram goes first
            if (n >= 0 && (from < 0 || t < earliest)) {
                from = q;
                earliest = t;
            }
        }
        if (from < 0) {
            int wait = -1;
            if (timeout_ms >= 0) {
                long long left = deadline - now_ms();
                if (timeout_ms == 0 || left <= 0) return -ETIMEDOUT;
                wait = (int)left;
            }
            epoll_event ev;
            if (epoll_wait(g_monitor_fd, &ev, 1, wait) < 0) return -errno; // -EINTR: a signal may end it
            continue;
        }
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
        ssize_t n = recvmsg(g_queue_fd[from], &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (n < 0) {
            if (errno == EINTR) return -EINTR;
            if (errno == EAGAIN) continue;
            return -errno;
        }
        if (!trusted_sender(&mh)) continue;
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
    for (int q = 0; q < kMonitorQueues; ++q) {
        close(g_queue_fd[q]);
        disown(&g_monitor_own[q]);
    }
    close(g_monitor_fd);
    g_monitor_fd = -1;
}

} // extern "C"
