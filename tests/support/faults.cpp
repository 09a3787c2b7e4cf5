#include "faults.h"

#include <cerrno>
#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include "mgmt/platform/platform.h"

using mgmt_test::AllocHook;

namespace fault {
namespace {
thread_local PollFault poll_fault;
thread_local int recv_failures = 0;
thread_local int alloc_failures = 0;
thread_local int alloc_skip = 0;
const pid_t test_pid = getpid();

// Takes one from a positive counter.
bool take(std::atomic<int> &counter) {
    int n = counter.load(std::memory_order_relaxed);
    while (n > 0)
        if (counter.compare_exchange_weak(n, n - 1)) return true;
    return false;
}

bool in_scope() { return !children_only.load() || in_child(); }
} // namespace

thread_local uint32_t last_alloc_size = 0;

void arm_poll(const PollFault &f) {
    poll_fault = f;
    poll_fault.armed = true;
}
void arm_recv_failures(int count) { recv_failures = count; }
void arm_alloc_failures(int count, int skip) {
    alloc_failures = count;
    alloc_skip = skip;
}
void disarm() {
    poll_fault = PollFault{};
    recv_failures = alloc_failures = alloc_skip = 0;
    AllocHook::fail_after = -1;
    AllocHook::size_fail = 0;
    fork_fail = 0;
    children_only = false;
}
bool in_child() { return getpid() != test_pid; }

#if MGMT_ALLOC_HOOK
// Whether this malloc/calloc of n bytes fails.
static bool alloc_fails(size_t n) {
    if (AllocHook::fail_after >= 0 && AllocHook::fail_after-- == 0) return true;
    return AllocHook::size_fail.load(std::memory_order_relaxed) > 0 && n == AllocHook::size_fail_size.load() &&
           in_scope() && take(AllocHook::size_fail);
}

static void count_alloc() { ++AllocHook::thread_count; }
#endif

static bool fork_fails() { return fork_fail.load() > 0 && in_scope() && take(fork_fail); }

} // namespace fault

namespace {
// The functions stood in for, looked up before main: a look-up at the first call could make a
// thread wait for another's, and that wait may leave errno changed.
template <typename Fn> Fn next(const char *name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }
const auto real_poll = next<int (*)(struct pollfd *, nfds_t, int)>("poll");
const auto real_recv = next<int (*)(ipc_peer_t *, void *, uint32_t *, int)>("ipcmsg_recv_sync");
const auto real_alloc = next<void *(*)(uint32_t)>("ipcmsg_alloc");
const auto real_free = next<void (*)(void *)>("ipcmsg_free");
const auto real_fork = next<pid_t (*)()>("fork");
} // namespace

#define STAND_IN extern "C" __attribute__((visibility("default")))

#if MGMT_ALLOC_HOOK
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
}

STAND_IN void *malloc(size_t n) {
    if (fault::alloc_fails(n)) return nullptr;
    fault::count_alloc();
    return __libc_malloc(n);
}
STAND_IN void *calloc(size_t n, size_t m) {
    if (fault::alloc_fails(n * m)) return nullptr;
    fault::count_alloc();
    return __libc_calloc(n, m);
}
STAND_IN void *realloc(void *p, size_t n) {
    fault::count_alloc();
    return __libc_realloc(p, n);
}
STAND_IN void *memalign(size_t a, size_t n) {
    fault::count_alloc();
    return __libc_memalign(a, n);
}
#endif

STAND_IN pid_t fork(void) {
    if (!fault::fork_fails()) return real_fork();
    errno = EAGAIN;
    return -1;
}

STAND_IN int poll(struct pollfd *fds, nfds_t n, int timeout) {
    if (!fault::poll_fault.armed) return real_poll(fds, n, timeout);
    fault::poll_fault.armed = false;
    for (nfds_t i = 0; i < n; ++i)
        fds[i].revents = fault::poll_fault.revents;
    errno = fault::poll_fault.err;
    return fault::poll_fault.result;
}

STAND_IN int ipcmsg_recv_sync(ipc_peer_t *peer, void *buf, uint32_t *len, int block) {
    if (fault::recv_failures <= 0) return real_recv(peer, buf, len, block);
    --fault::recv_failures;
    return -1;
}

STAND_IN void *ipcmsg_alloc(uint32_t size) {
    fault::last_alloc_size = size;
    if (fault::alloc_skip > 0)
        --fault::alloc_skip;
    else if (fault::alloc_failures > 0) {
        --fault::alloc_failures;
        return nullptr;
    }
    void *p = real_alloc(size);
    if (p) ++fault::ipc_buffers;
    return p;
}

STAND_IN void ipcmsg_free(void *msg) {
    if (msg) --fault::ipc_buffers;
    real_free(msg);
}
