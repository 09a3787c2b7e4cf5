// The platform IPC between threads of one process: identities, exchanges, time-outs, daemons.
#include "helpers.h"
#include "mgi/wire.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <vector>

#include <pthread.h>

using namespace plat_test;

namespace {

// What the recording handlers saw, reached through the endpoint's context.
struct Seen {
    std::mutex mu;
    std::vector<ipc_peer_t> peers;
    std::vector<uint16_t> msgs;
    std::atomic<int> count{0};
    std::condition_variable cv;
    // Waits until n messages have been recorded, at most 5 s.
    bool wait_count(int n) {
        std::unique_lock<std::mutex> l(mu);
        return cv.wait_for(l, std::chrono::seconds(5), [&] { return count.load() >= n; });
    }
};

void record(void *ipc, void *head) {
    auto *peer = static_cast<ipc_peer_t *>(ipc);
    auto *seen = static_cast<Seen *>(peer->ctx);
    std::lock_guard<std::mutex> l(seen->mu);
    seen->peers.push_back(*peer);
    seen->msgs.push_back(mgmt::get_be16(static_cast<const ipc_frame_t *>(head)->msg_be));
    seen->count++;
    seen->cv.notify_all();
}

// Answers with the payload reversed and status 7.
int echo_reversed(void *ipc, void *head, void *payload, uint32_t len, int32_t *status, void *reply,
                  uint32_t *reply_len) {
    record(ipc, head);
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(*reply_len, IPC_MAX_PAYLOAD);
    auto *p = static_cast<uint8_t *>(payload);
    auto *r = static_cast<uint8_t *>(reply);
    for (uint32_t i = 0; i < len; ++i)
        r[i] = p[len - 1 - i];
    *reply_len = len;
    *status = 7;
    return IPC_HANDLER_REPLY;
}

int silent(void *ipc, void *head, void *, uint32_t, int32_t *, void *, uint32_t *) {
    record(ipc, head);
    return IPC_HANDLER_NOREPLY;
}

int exchange(uint32_t dst, uint32_t inst, uint16_t msg, const std::string &out, int32_t *status, std::string *in,
             int timeout_ms = 5000) {
    std::vector<char> buf(IPC_MAX_PAYLOAD);
    uint32_t rlen = IPC_MAX_PAYLOAD;
    int rc = ipcmsg_send_and_recv(dst, inst, msg, const_cast<char *>(out.data()), uint32_t(out.size()), status,
                                  buf.data(), &rlen, timeout_ms);
    if (rc == 0 && in) in->assign(buf.data(), rlen);
    return rc;
}

} // namespace

TEST_F(IpcTest, RuntimeDirIsMadeWithParentsMode0700) {
    std::string run = dir_ + "/a/b/run";
    setenv("MGMT_IPC_DIR", run.c_str(), 1);
    mode_t old = umask(0277); // would leave 0500 without the chmod
    const char *got = ipc_runtime_dir();
    umask(old);
    EXPECT_EQ(std::string(got ? got : ""), run);
    for (const std::string &d : {run, dir_ + "/a", dir_ + "/a/b"}) {
        struct stat st{};
        EXPECT_TRUE(stat(d.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 07777) == 0700) << d;
    }
}

// Identity from the environment, the process and the thread; a thread's socket ends with it, and a
// reset goes back to the environment's.
TEST_F(IpcTest, IdentityFromEnvironmentProcessAndThread) {
    on_thread([] { EXPECT_TRUE(myipc.appid == 0 && myipc.fd == -1); });
    setenv("MGMT_APPID", "7", 1);
    setenv("MGMT_INSTANCE", "3", 1);
    setenv("MGMT_SLOT", "4", 1);
    EXPECT_EQ(ipc_self(), &myipc);
    EXPECT_TRUE(myipc.appid == 7 && myipc.instance == 3 && myipc.slot == 4 && myipc.fd >= 0);
    EXPECT_EQ(ipc_own_slot(), 4u);
    ipc_init(9, 1);
    on_thread([] { EXPECT_TRUE(ipc_self() && myipc.appid == 9 && myipc.instance == 1); });
    std::string thread_sock;
    on_thread([&] {
        ipc_set_thread_identity(5, 2);
        EXPECT_TRUE(ipc_self() && myipc.appid == 5 && myipc.instance == 2);
        thread_sock = my_thread_path();
        EXPECT_TRUE(exists(thread_sock));
    });
    EXPECT_FALSE(exists(thread_sock));
    ipc_reset();
    EXPECT_EQ(myipc.fd, -1);
    ipc_self();
    EXPECT_EQ(myipc.appid, 7u);
}

// An exchange between threads, addressed by slot and instance in the address or beside it; the
// handler sees the sender as it is.
TEST_F(IpcTest, ExchangeAddressedBySlotAndInstance) {
    setenv("MGMT_SLOT", "3", 1);
    Seen seen, seen_b;
    Server a(41, 0, &seen, {{0x1234, echo_reversed}});
    Server b(41, 2, &seen_b, {{0x1234, echo_reversed}});
    ASSERT_TRUE(a.ok() && b.ok());
    EXPECT_TRUE(exists(ep_path(41, 2, 3)));
    EXPECT_EQ(mktipcid(3, 2, 40), 0x03020028u);
    int32_t status = 99;
    std::string in;
    on_thread([&] {
        ipc_set_thread_identity(5, 1);
        ASSERT_EQ(exchange(41, 0, 0x1234, "hello", &status, &in), 0);
    });
    EXPECT_TRUE(status == 7 && in == "olleh");
    const ipc_peer_t p = seen.peers[0];
    EXPECT_TRUE(p.appid == 5 && p.instance == 1 && p.kind == IPC_KIND_REQUEST && p.pid == getpid() && p.ctx == &seen);
    EXPECT_EQ(seen.msgs[0], 0x1234);
    for (uint32_t dst : {mktipcid(3, 0, 41), mktipcid(0, 2, 41)})
        EXPECT_EQ(exchange(dst, 0, 0x1234, "ab", &status, &in), 0) << dst;
    EXPECT_EQ(exchange(41, 2, 0x1234, "ab", &status, &in), 0);
    EXPECT_EQ(in, "ba");
    EXPECT_EQ(seen.count.load(), 2); // the instance travels in the address or beside it
    EXPECT_EQ(seen_b.count.load(), 2);
    // Nobody bound there (another slot, another application): every way of sending fails at once.
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_LT(exchange(mktipcid(4, 0, 41), 0, 0x1234, "ab", &status, &in, 10000), 0);
    char x = 'x';
    EXPECT_EQ(ipcmsg_send(99, 0, 1, &x, 1), -ENOENT);
    EXPECT_LT(ipcmsg_send_sync(99, 0, 1, &x, 1), 0);
    EXPECT_LT(ipcmsg_send_timeout(99, 0, 1, &x, 1, 10000), 0);
    EXPECT_LT(elapsed_ms(t0), 2000);
}

TEST_F(IpcTest, LongMessagesAreCutAtTheReceiversCapacity) {
    static auto long_reply = +[](void *, void *, void *, uint32_t len, int32_t *, void *reply, uint32_t *reply_len) {
        auto *r = static_cast<uint8_t *>(reply);
        uint32_t n = len ? len : 1000;
        for (uint32_t i = 0; i < n; ++i)
            r[i] = uint8_t(i * 7);
        *reply_len = n;
        return int(IPC_HANDLER_REPLY);
    };
    Server srv(44, 0, nullptr, {{1, long_reply}});
    ASSERT_TRUE(srv.ok());

    // send_and_recv: 100 of 1000 bytes stored, no byte beyond.
    std::vector<uint8_t> buf(200, 0xee);
    uint32_t rlen = 100;
    int32_t status = 5;
    ASSERT_EQ(ipcmsg_send_and_recv(44, 0, 1, nullptr, 0, &status, buf.data(), &rlen, 5000), 0);
    EXPECT_TRUE(rlen == 100 && status == 0 && buf[99] == uint8_t(99 * 7) && buf[100] == 0xee);

    // recv_sync: 10 bytes stored; then nothing more waits, and a receive without blocking fails at once.
    ASSERT_EQ(ipcmsg_send_sync(44, 0, 1, nullptr, 0), 0);
    std::fill(buf.begin(), buf.end(), 0xee);
    uint32_t len = 10;
    ASSERT_EQ(ipcmsg_recv_sync(nullptr, buf.data(), &len, 1), 0);
    EXPECT_TRUE(len == 10 && buf[10] == 0xee);
    EXPECT_EQ(ipcmsg_recv_sync(nullptr, buf.data(), &len, 0), -EAGAIN);

    // The largest payload, in buffers of the platform's own, goes both ways whole; a larger one is refused.
    auto *big = static_cast<uint8_t *>(ipcmsg_alloc(IPC_MAX_PAYLOAD + 1));
    auto *back = static_cast<uint8_t *>(ipcmsg_alloc(IPC_MAX_PAYLOAD));
    ASSERT_TRUE(big && back);
    memset(big, 1, IPC_MAX_PAYLOAD + 1);
    rlen = IPC_MAX_PAYLOAD;
    ASSERT_EQ(ipcmsg_send_and_recv(44, 0, 1, big, IPC_MAX_PAYLOAD, &status, back, &rlen, 5000), 0);
    EXPECT_TRUE(rlen == IPC_MAX_PAYLOAD && back[IPC_MAX_PAYLOAD - 1] == uint8_t((IPC_MAX_PAYLOAD - 1) * 7));
    EXPECT_EQ(ipcmsg_send(44, 0, 1, big, IPC_MAX_PAYLOAD + 1), -EMSGSIZE);
    ipcmsg_free(big);
    ipcmsg_free(back);
    ipcmsg_free(nullptr);
}

// A silent handler gives a time-out within its bound, status left alone; time-out 0 is the
// platform default. A reply with an earlier sequence is dropped.
TEST_F(IpcTest, TimeOutsAndStaleReplies) {
    // Sends an answer with an earlier sequence ahead of the right one.
    static auto with_stale =
        +[](void *ipc, void *, void *, uint32_t, int32_t *status, void *reply, uint32_t *reply_len) {
            ipc_peer_t old = *static_cast<ipc_peer_t *>(ipc);
            old.seq -= 1;
            ipc_send_to_peer(&old, 2, "stale", 5, 9);
            memcpy(reply, "right", 5);
            *reply_len = 5;
            *status = 3;
            return int(IPC_HANDLER_REPLY);
        };
    Seen seen;
    Server srv(46, 0, &seen, {{2, with_stale}, {3, silent}});
    ASSERT_TRUE(srv.ok());
    auto t0 = std::chrono::steady_clock::now();
    int32_t status = 3;
    std::string in;
    EXPECT_EQ(exchange(46, 0, 3, "x", &status, nullptr, 200), -ETIMEDOUT);
    EXPECT_EQ(status, 3); // left alone
    setenv("MGMT_IPC_TIMEOUT_MS", "200", 1);
    EXPECT_EQ(exchange(46, 0, 3, "x", &status, nullptr, 0), -ETIMEDOUT);
    EXPECT_LT(elapsed_ms(t0), 5000);
    EXPECT_TRUE(seen.wait_count(2)); // both did arrive

    ASSERT_EQ(exchange(46, 0, 2, "", &status, &in, 5000), 0);
    EXPECT_TRUE(in == "right" && status == 3);
}

// An endpoint's name is exclusive while it lives and goes at close; left unread, its queue fills
// and a send with a time-out gives up.
TEST_F(IpcTest, EndpointNamesAreExclusiveAndAFullQueueBoundsTheSend) {
    ipc_endpoint_t *ep = ipc_endpoint_open(48, 0, nullptr); // bound, never read
    ASSERT_NE(ep, nullptr);
    EXPECT_EQ(ipc_endpoint_open(48, 0, nullptr), nullptr);
    std::vector<char> msg(60000, 'm');
    auto t0 = std::chrono::steady_clock::now();
    int rc = 0;
    for (int i = 0; i < 100 && rc == 0; ++i)
        rc = ipcmsg_send_timeout(48, 0, 1, msg.data(), uint32_t(msg.size()), 100);
    EXPECT_EQ(rc, -ETIMEDOUT);
    EXPECT_LT(elapsed_ms(t0), 5000);
    ipc_endpoint_close(ep);
    EXPECT_FALSE(exists(ep_path(48)));
    ASSERT_NE(ep = ipc_endpoint_open(48, 0, nullptr), nullptr); // the name is free again
    EXPECT_EQ(ipc_endpoint_dispatch(ep, 20), 0);
    ipc_endpoint_close(ep);
}

// The process's endpoint served until a stop from another thread or a signal handler; a number
// without a handler is answered with status -1. (Dispatching one at a time is mgd's event loop.)
TEST_F(IpcTest, DaemonServesUntilStoppedAndAnswersAnUnknownNumber) {
    ASSERT_EQ(ipc_register(50, 0), 0);
    EXPECT_TRUE(exists(ep_path(50)));
    int32_t unknown = 0;
    int rc = -100;
    std::thread t([&] {
        rc = exchange(50, 0, 9, "q", &unknown, nullptr, 5000);
        ipc_stop();
    });
    EXPECT_EQ(ipc_serve(), 0);
    t.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(unknown, -1);

    ipc_stop(); // a stop while no serve runs: the next serve returns at once
    EXPECT_EQ(ipc_serve(), 0);

    struct sigaction sa {
    }, old{};
    sa.sa_handler = [](int) { ipc_stop(); };
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    pthread_t me = pthread_self();
    // Whether the signal comes before the serve or during it, the serve ends.
    std::thread k([me] { pthread_kill(me, SIGUSR1); });
    EXPECT_EQ(ipc_serve(), 0);
    k.join();
    sigaction(SIGUSR1, &old, nullptr);
}

