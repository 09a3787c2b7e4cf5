// A thread takes only the answers to its last request: what came for a request it gave up on is
// thrown away at its next send, or dropped when it comes later.
#include "helpers.h"

#include <vector>

namespace {

using plat_test::IpcTest;

std::vector<ipc_peer_t> g_asked; // who sent what the endpoint took, in order

int hold(void *ipc, void *, void *, uint32_t, int32_t *, void *, uint32_t *) {
    g_asked.push_back(*static_cast<ipc_peer_t *>(ipc));
    return IPC_HANDLER_NOREPLY;
}

TEST_F(IpcTest, AnswersToAnAbandonedRequestNeverReachTheThread) {
    g_asked.clear();
    ipc_endpoint_t *ep = ipc_endpoint_open(61, 0, nullptr);
    ASSERT_NE(ep, nullptr);
    ipc_endpoint_handler(ep, 7, hold);
    auto ask = [&](const char *text) {
        ASSERT_EQ(ipcmsg_send_sync(61, 0, 7, const_cast<char *>(text), 4), 0);
        ASSERT_EQ(ipc_endpoint_dispatch(ep, 5000), 1);
    };
    auto answer = [&](size_t which, const char *text) {
        ASSERT_EQ(ipc_send_to_peer(&g_asked.at(which), 7, text, 4, 0), 0);
    };
    char buf[16];
    uint32_t len = sizeof buf;
    ask("one");
    answer(0, "old0"); // waits on the thread's socket when the next request goes out
    ask("two");
    answer(0, "old1"); // comes after the next request went out
    answer(1, "new1");
    EXPECT_EQ(ipcmsg_recv_sync(nullptr, buf, &len, 0), 0);
    EXPECT_EQ(std::string(buf, len), "new1");
    answer(0, "old2");
    len = sizeof buf;
    EXPECT_EQ(ipcmsg_recv_sync(nullptr, buf, &len, 0), -EAGAIN) << "a dropped answer reads as a failed receive";
    answer(1, "new2"); // further answers to the last request still come
    len = sizeof buf;
    EXPECT_EQ(ipcmsg_recv_sync(nullptr, buf, &len, 0), 0);
    EXPECT_EQ(std::string(buf, len), "new2");
    ipc_endpoint_close(ep);
}

} // namespace
