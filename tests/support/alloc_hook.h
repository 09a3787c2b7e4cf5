// Stands in for malloc, calloc, realloc and memalign of the program that
// includes this header. Include it from exactly one file of a program: a second
// inclusion is a duplicate definition at link time. It counts the allocations of
// each thread (always) and of the whole process (while `counting` is set), and
// makes a chosen malloc or calloc of the calling thread fail. Sanitizer builds
// bring their own allocator: the stand-ins are left out and `active` is false.
#pragma once

#include <atomic>
#include <cstddef>

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
    static inline thread_local long thread_count = 0;
    // malloc/calloc calls of this thread to let through before one fails; -1: none fails.
    static inline thread_local int fail_after = -1;
    static inline std::atomic<bool> counting{false};
    static inline std::atomic<long> process_count{0};

    static bool take(bool may_fail) {
        if (may_fail && fail_after >= 0 && fail_after-- == 0) return false;
        ++thread_count;
        if (counting.load(std::memory_order_relaxed)) process_count.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
};

} // namespace mgmt_test

#if MGMT_ALLOC_HOOK
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);

__attribute__((visibility("default"))) void *malloc(size_t n) {
    return mgmt_test::AllocHook::take(true) ? __libc_malloc(n) : nullptr;
}
__attribute__((visibility("default"))) void *calloc(size_t n, size_t m) {
    return mgmt_test::AllocHook::take(true) ? __libc_calloc(n, m) : nullptr;
}
__attribute__((visibility("default"))) void *realloc(void *p, size_t n) {
    mgmt_test::AllocHook::take(false);
    return __libc_realloc(p, n);
}
__attribute__((visibility("default"))) void *memalign(size_t a, size_t n) {
    mgmt_test::AllocHook::take(false);
    return __libc_memalign(a, n);
}
}
#endif
