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

extern "C" __attribute__((visibility("default"))) int poll(struct pollfd *fds, nfds_t n, int timeout) {
    using poll_fn = int (*)(struct pollfd *, nfds_t, int);
    static poll_fn real = reinterpret_cast<poll_fn>(dlsym(RTLD_NEXT, "poll"));
    if (fault::poll_fault.armed) {
        fault::poll_fault.armed = false;
        for (nfds_t i = 0; i < n; ++i) fds[i].revents = fault::poll_fault.revents;
        errno = fault::poll_fault.err;
        return fault::poll_fault.result;
    }
    return real(fds, n, timeout);
}

extern "C" __attribute__((visibility("default"))) int ipcmsg_recv_sync(ipc_peer_t *peer, void *buf, uint32_t *len, int block) {
    using recv_fn = int (*)(ipc_peer_t *, void *, uint32_t *, int);
    static recv_fn real = reinterpret_cast<recv_fn>(dlsym(RTLD_NEXT, "ipcmsg_recv_sync"));
    if (fault::recv_failures > 0) {
        --fault::recv_failures;
        return -1;
    }
    return real(peer, buf, len, block);
}

extern "C" __attribute__((visibility("default"))) void *ipcmsg_alloc(uint32_t size) {
    using alloc_fn = void *(*)(uint32_t);
    static alloc_fn real = reinterpret_cast<alloc_fn>(dlsym(RTLD_NEXT, "ipcmsg_alloc"));
    if (fault::alloc_skip > 0) {
        --fault::alloc_skip;
    } else if (fault::alloc_failures > 0) {
        --fault::alloc_failures;
        return nullptr;
    }
    return real(size);
}
