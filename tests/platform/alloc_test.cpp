// The request path allocates no heap memory: malloc and friends are counted while exchanges run
// between a client thread and a serving endpoint of the same process.
#include "helpers.h"

#include <atomic>
#include <cstring>

#include <poll.h>

// A sanitizer brings its own malloc: no counting then.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PLAT_TEST_NO_MALLOC_HOOK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define PLAT_TEST_NO_MALLOC_HOOK 1
#endif
#endif

namespace {
std::atomic<bool> g_counting{false};
std::atomic<long> g_allocs{0};
} // namespace

#ifndef PLAT_TEST_NO_MALLOC_HOOK
// Counting wrappers over glibc's allocator (this program only).
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);

void *malloc(size_t n) {
    if (g_counting.load(std::memory_order_relaxed)) g_allocs++;
    return __libc_malloc(n);
}
void *calloc(size_t n, size_t m) {
    if (g_counting.load(std::memory_order_relaxed)) g_allocs++;
    return __libc_calloc(n, m);
}
void *realloc(void *p, size_t n) {
    if (g_counting.load(std::memory_order_relaxed)) g_allocs++;
    return __libc_realloc(p, n);
}
void free(void *p) { __libc_free(p); }
}
#endif

using namespace plat_test;

TEST_F(IpcTest, RequestPathAllocatesNothing) {
#ifdef PLAT_TEST_NO_MALLOC_HOOK
    GTEST_SKIP() << "the sanitizer owns malloc";
#endif
    static auto answer =
        +[](void *, void *, void *payload, uint32_t len, int32_t *status, void *reply, uint32_t *reply_len) {
            memcpy(reply, payload, len);
            *reply_len = len;
            *status = 1;
            return int(IPC_HANDLER_REPLY);
        };
    Server srv(70, 0, nullptr, {{6, answer}, {7, answer}});
    ASSERT_TRUE(srv.ok());
    static char sbuf[2000], rbuf[50000];
    memset(sbuf, 'r', sizeof sbuf);
    auto one_round = [] {
        int32_t status = 0;
        uint32_t rlen = sizeof rbuf;
        int rc = ipcmsg_send_and_recv(70, 0, 6, sbuf, sizeof sbuf, &status, rbuf, &rlen, 5000);
        rc |= ipcmsg_send_sync(70, 0, 7, sbuf, 100);
        pollfd p{myipc.fd, POLLIN, 0};
        rc |= poll(&p, 1, 5000) == 1 ? 0 : -1;
        ipc_peer_t peer;
        rlen = sizeof rbuf;
        rc |= ipcmsg_recv_sync(&peer, rbuf, &rlen, 1);
        rc |= ipcmsg_send(70, 0, 8, sbuf, 10); // no handler, one-way: nothing comes back
        return rc;
    };
    ASSERT_EQ(one_round(), 0); // warm-up: the thread's socket is made here
    g_allocs = 0;
    g_counting = true;
    int rc = 0;
    for (int i = 0; i < 50; ++i)
        rc |= one_round();
    g_counting = false;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(g_allocs.load(), 0);
}
