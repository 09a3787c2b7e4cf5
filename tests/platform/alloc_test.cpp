// The request path allocates no heap memory: malloc and friends are counted while exchanges run
// between a client thread and a serving endpoint of the same process.
#include "faults.h"
#include "helpers.h"

#include <cstring>

#include <poll.h>

using namespace plat_test;
using mgmt_test::AllocHook;

TEST_F(IpcTest, RequestPathAllocatesNothing) {
    if (!AllocHook::active) GTEST_SKIP() << "the sanitizer owns malloc";
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
    AllocHook::process_count = 0;
    AllocHook::counting = true;
    int rc = 0;
    for (int i = 0; i < 50; ++i)
        rc |= one_round();
    AllocHook::counting = false;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(AllocHook::process_count.load(), 0);
}
