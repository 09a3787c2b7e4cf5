#include "fault_injection.h"

#include <cerrno>
#include <dlfcn.h>
#include <poll.h>

#include "mgmt/platform/platform.h"

namespace fault {
namespace {
thread_local PollFault poll_fault;
thread_local int recv_failures = 0;
thread_local int alloc_failures = 0;
thread_local int alloc_skip = 0;
} // namespace

thread_local uint32_t last_alloc_size = 0;

void arm_poll(const PollFault &f) { poll_fault = f; poll_fault.armed = true; }
void arm_recv_failures(int count) { recv_failures = count; }
void arm_alloc_failures(int count, int skip) {
    alloc_failures = count;
    alloc_skip = skip;
}
void disarm() {
    poll_fault = PollFault{};
    recv_failures = 0;
    alloc_failures = 0;
    alloc_skip = 0;
}

} // namespace fault

namespace {
// The functions this program stands in for, looked up before main: a look-up at the first call
// could make a thread wait for another's, and that wait may leave errno changed.
template <typename Fn> Fn next(const char *name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }
using poll_fn = int (*)(struct pollfd *, nfds_t, int);
using recv_fn = int (*)(ipc_peer_t *, void *, uint32_t *, int);
using alloc_fn = void *(*)(uint32_t);
const poll_fn real_poll = next<poll_fn>("poll");
const recv_fn real_recv = next<recv_fn>("ipcmsg_recv_sync");
const alloc_fn real_alloc = next<alloc_fn>("ipcmsg_alloc");
} // namespace

extern "C" __attribute__((visibility("default"))) int poll(struct pollfd *fds, nfds_t n, int timeout) {
    if (fault::poll_fault.armed) {
        fault::poll_fault.armed = false;
        for (nfds_t i = 0; i < n; ++i) fds[i].revents = fault::poll_fault.revents;
        errno = fault::poll_fault.err;
        return fault::poll_fault.result;
    }
    return real_poll(fds, n, timeout);
}

extern "C" __attribute__((visibility("default"))) int ipcmsg_recv_sync(ipc_peer_t *peer, void *buf, uint32_t *len, int block) {
    if (fault::recv_failures > 0) {
        --fault::recv_failures;
        return -1;
    }
    return real_recv(peer, buf, len, block);
}

extern "C" __attribute__((visibility("default"))) void *ipcmsg_alloc(uint32_t size) {
    fault::last_alloc_size = size;
    if (fault::alloc_skip > 0) {
        --fault::alloc_skip;
    } else if (fault::alloc_failures > 0) {
        --fault::alloc_failures;
        return nullptr;
    }
    return real_alloc(size);
}
