// Faults injected into the calls that the library makes. Every test program links the stand-ins of
// tests/support/faults.cpp, which come ahead of the C library and the platform library: malloc,
// calloc, realloc and memalign, fork, poll, ipcmsg_alloc and ipcmsg_recv_sync. Each passes the
// call on unless a fault is armed. Sanitizer builds bring their own allocator: there the
// allocation stand-ins are left out and AllocHook::active is false.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MGMT_ALLOC_HOOK 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define MGMT_ALLOC_HOOK 0
#endif
#endif
#ifndef MGMT_ALLOC_HOOK
#define MGMT_ALLOC_HOOK 1
#endif

namespace mgmt_test {

struct AllocHook {
    static constexpr bool active = MGMT_ALLOC_HOOK;
    // malloc, calloc, realloc and memalign calls of this thread.
    static inline thread_local long thread_count = 0;
    // malloc/calloc calls of this thread to let through before one fails; -1: none fails.
    static inline thread_local int fail_after = -1;
    // The next `size_fail` malloc/calloc calls of exactly `size_fail_size` bytes fail, on any
    // thread (with fault::children_only, in forked children only).
    static inline std::atomic<int> size_fail{0};
    static inline std::atomic<size_t> size_fail_size{0};
};

} // namespace mgmt_test

namespace fault {

constexpr bool kAllocFaults = MGMT_ALLOC_HOOK;

struct PollFault {
    bool armed = false;
    int result = 0;    // what poll returns
    int err = 0;       // errno it leaves
    short revents = 0; // events it reports
};

// Armed on the calling thread only: the next poll, the next `count` ipcmsg_recv_sync calls, the
// next `count` ipcmsg_alloc calls after `skip` that succeed. disarm() clears these and the
// allocation, size and fork faults below.
void arm_poll(const PollFault &f);
void arm_recv_failures(int count);
void arm_alloc_failures(int count, int skip = 0);
void disarm();
// The size of this thread's last ipcmsg_alloc call, and the IPC buffers held in the process (those
// ipcmsg_alloc gave, less those ipcmsg_free took back).
extern thread_local uint32_t last_alloc_size;
inline std::atomic<long> ipc_buffers{0};

// The next `fork_fail` forks fail with EAGAIN, on any thread.
inline std::atomic<int> fork_fail{0};
// Size and fork faults act only in processes forked from the test process.
inline std::atomic<bool> children_only{false};
// Whether this is a child forked from the test process (the library's children end with exit()).
bool in_child();

} // namespace fault
