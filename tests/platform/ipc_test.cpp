// The platform IPC between threads of one process: identities, exchanges, time-outs, daemons.
#include "helpers.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <vector>

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace plat_test;
using namespace std::chrono_literals;

namespace {

// What the recording handlers saw, reached through the endpoint's context.
struct Seen {
    std::mutex mu;
    std::vector<std::string> payloads;
    std::vector<ipc_peer_t> peers;
    std::vector<uint16_t> msgs;
    std::vector<uint8_t> head_bytes; // bytes 4 and 5 of the last head
    std::atomic<int> count{0};
    void *ctx_seen = nullptr;
};

void record(void *ipc, void *head, void *payload, uint32_t len) {
    auto *peer = static_cast<ipc_peer_t *>(ipc);
    auto *seen = static_cast<Seen *>(peer->ctx);
    std::lock_guard<std::mutex> l(seen->mu);
    seen->payloads.emplace_back(static_cast<char *>(payload), len);
    seen->peers.push_back(*peer);
    seen->msgs.push_back(head_msg(head));
    auto *h = static_cast<uint8_t *>(head);
    seen->head_bytes = {h[4], h[5]};
    seen->ctx_seen = peer->ctx;
    seen->count++;
}

// Answers with the payload reversed and status 7.
int echo_reversed(void *ipc, void *head, void *payload, uint32_t len, int32_t *status, void *reply,
                  uint32_t *reply_len) {
    record(ipc, head, payload, len);
    EXPECT_EQ(*status, 0);
    EXPECT_EQ(*reply_len, IPC_MAX_PAYLOAD);
    auto *p = static_cast<uint8_t *>(payload);
    auto *r = static_cast<uint8_t *>(reply);
    for (uint32_t i = 0; i < len; ++i) r[i] = p[len - 1 - i];
    *reply_len = len;
    *status = 7;
    return IPC_HANDLER_REPLY;
}

int silent(void *ipc, void *head, void *payload, uint32_t len, int32_t *, void *, uint32_t *) {
    record(ipc, head, payload, len);
    return IPC_HANDLER_NOREPLY;
}

int exchange(uint32_t dst, uint32_t inst, uint16_t msg, const std::string &out, int32_t *status, std::string *in,
             int timeout_ms = 5000, uint32_t cap = IPC_MAX_PAYLOAD) {
    std::vector<char> buf(cap ? cap : 1);
    uint32_t rlen = cap;
    int rc = ipcmsg_send_and_recv(dst, inst, msg, const_cast<char *>(out.data()), uint32_t(out.size()), status,
                                  buf.data(), &rlen, timeout_ms);
    if (rc == 0 && in) in->assign(buf.data(), rlen);
    return rc;
}

} // namespace

TEST(IpcIds, MktipcidPacksSlotInstanceApp) {
    EXPECT_EQ(mktipcid(3, 2, 40), 0x03020028u);
    EXPECT_EQ(mktipcid(0, 0, 2), 2u);
}

TEST(IpcIds, FreshThreadHandleIsEmpty) {
    on_thread([] {
        EXPECT_EQ(myipc.appid, 0u);
        EXPECT_EQ(myipc.instance, 0u);
        EXPECT_EQ(myipc.slot, 0u);
        EXPECT_EQ(myipc.fd, -1);
    });
}

TEST_F(IpcTest, RuntimeDirIsMadeWithParentsMode0700) {
    std::string run = dir_ + "/a/b/run";
    setenv("MGMT_IPC_DIR", run.c_str(), 1);
    mode_t old = umask(0277); // would leave 0500 without the chmod
    const char *got = ipc_runtime_dir();
    umask(old);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(std::string(got), run);
    for (const std::string &d : {run, dir_ + "/a", dir_ + "/a/b"}) {
        struct stat st;
        ASSERT_EQ(stat(d.c_str(), &st), 0) << d;
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0700u) << d;
    }
}

TEST_F(IpcTest, ThreadSocketFollowsTheRuntimeDir) {
    ASSERT_NE(ipc_self(), nullptr);
    EXPECT_TRUE(exists(my_thread_path()));
    std::string old_path = my_thread_path();
    std::string other = dir_ + "/other";
    setenv("MGMT_IPC_DIR", other.c_str(), 1);
    ASSERT_NE(ipc_self(), nullptr);
    EXPECT_FALSE(exists(old_path));
    EXPECT_TRUE(exists(other + "/t" + std::to_string(getpid()) + "." + std::to_string(gettid())));
}

TEST_F(IpcTest, IdentityFromEnvironmentProcessAndThread) {
    setenv("MGMT_APPID", "7", 1);
    setenv("MGMT_INSTANCE", "3", 1);
    setenv("MGMT_SLOT", "4", 1);
    ipc_handle_t *me = ipc_self();
    ASSERT_NE(me, nullptr);
    EXPECT_EQ(me, &myipc);
    EXPECT_EQ(myipc.appid, 7u);
    EXPECT_EQ(myipc.instance, 3u);
    EXPECT_EQ(myipc.slot, 4u);
    EXPECT_GE(myipc.fd, 0);
    EXPECT_EQ(ipc_own_slot(), 4u);

    ipc_init(9, 1); // shows in the caller's myipc at once
    EXPECT_EQ(myipc.appid, 9u);
    EXPECT_EQ(myipc.instance, 1u);
    ipc_self();
    EXPECT_EQ(myipc.appid, 9u);
    EXPECT_EQ(myipc.instance, 1u);

    on_thread([] {
        ipc_set_thread_identity(5, 2);
        ASSERT_NE(ipc_self(), nullptr);
        EXPECT_EQ(myipc.appid, 5u);
        EXPECT_EQ(myipc.instance, 2u);
    });
    on_thread([] {
        ASSERT_NE(ipc_self(), nullptr);
        EXPECT_EQ(myipc.appid, 9u);
    });
    ipc_self();
    EXPECT_EQ(myipc.appid, 9u);

    ipc_reset(); // back to the environment's identity
    EXPECT_EQ(myipc.fd, -1);
    ipc_self();
    EXPECT_EQ(myipc.appid, 7u);
}

TEST_F(IpcTest, ExchangeBetweenThreads) {
    Seen seen;
    Server srv(40, 0, &seen, {{0x1234, echo_reversed}});
    ASSERT_TRUE(srv.ok());
    EXPECT_TRUE(exists(ep_path(40)));
    on_thread([&] {
        ipc_set_thread_identity(5, 1);
        int32_t status = 99;
        std::string in;
        ASSERT_EQ(exchange(40, 0, 0x1234, "hello", &status, &in), 0);
        EXPECT_EQ(status, 7);
        EXPECT_EQ(in, "olleh");
    });
    std::lock_guard<std::mutex> l(seen.mu);
    ASSERT_EQ(seen.count.load(), 1);
    EXPECT_EQ(seen.payloads[0], "hello");
    EXPECT_EQ(seen.msgs[0], 0x1234);
    EXPECT_EQ(seen.head_bytes, (std::vector<uint8_t>{0x12, 0x34}));
    EXPECT_EQ(seen.peers[0].appid, 5u);
    EXPECT_EQ(seen.peers[0].instance, 1u);
    EXPECT_EQ(seen.peers[0].kind, uint32_t(IPC_KIND_REQUEST));
    EXPECT_EQ(seen.peers[0].pid, getpid());
    EXPECT_EQ(seen.ctx_seen, &seen);
}

TEST_F(IpcTest, AddressingBySlotAndInstance) {
    setenv("MGMT_SLOT", "3", 1);
    Seen seen;
    Server a(41, 0, &seen, {{1, echo_reversed}});
    Server b(41, 2, &seen, {{1, echo_reversed}});
    ASSERT_TRUE(a.ok() && b.ok());
    EXPECT_TRUE(exists(ep_path(41, 2, 3)));
    int32_t status;
    std::string in;
    EXPECT_EQ(exchange(41, 0, 1, "ab", &status, &in), 0);
    EXPECT_EQ(exchange(mktipcid(3, 0, 41), 0, 1, "ab", &status, &in), 0);
    EXPECT_EQ(exchange(mktipcid(0, 2, 41), 0, 1, "ab", &status, &in), 0);
    EXPECT_EQ(exchange(41, 2, 1, "ab", &status, &in), 0);
    EXPECT_EQ(in, "ba");
    EXPECT_LT(exchange(mktipcid(4, 0, 41), 0, 1, "ab", &status, &in, 200), 0); // another slot: nobody there
    EXPECT_EQ(seen.count.load(), 4);
}

TEST_F(IpcTest, OneWayAndSendSync) {
    Seen seen;
    Server srv(42, 0, &seen, {{3, silent}, {4, echo_reversed}});
    ASSERT_TRUE(srv.ok());
    ipc_init(6, 0);
    char msg[] = "one";
    ASSERT_EQ(ipcmsg_send(42, 0, 3, msg, 3), 0);
    for (int i = 0; i < 500 && seen.count < 1; ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(seen.count.load(), 1);
    EXPECT_EQ(seen.peers[0].kind, uint32_t(IPC_KIND_ONEWAY));
    EXPECT_EQ(seen.peers[0].appid, 6u);

    char req[] = "xyz";
    ASSERT_EQ(ipcmsg_send_sync(42, 0, 4, req, 3), 0);
    ipc_peer_t peer{};
    char buf[16];
    uint32_t len = sizeof buf;
    ASSERT_EQ(ipcmsg_recv_sync(&peer, buf, &len, 1), 0);
    EXPECT_EQ(std::string(buf, len), "zyx");
    EXPECT_EQ(peer.kind, uint32_t(IPC_KIND_REPLY));
    EXPECT_EQ(peer.appid, 42u);
    EXPECT_EQ(peer.seq, seen.peers[1].seq);
    EXPECT_EQ(peer.uid, getuid());

    len = sizeof buf; // the one-way message had no answer
    EXPECT_EQ(ipcmsg_recv_sync(nullptr, buf, &len, 0), -EAGAIN);
}

TEST_F(IpcTest, RecvWithoutBlockingFailsAtOnce) {
    auto t0 = std::chrono::steady_clock::now();
    char buf[8];
    uint32_t len = sizeof buf;
    EXPECT_LT(ipcmsg_recv_sync(nullptr, buf, &len, 0), 0);
    EXPECT_LT(elapsed_ms(t0), 2000);
}

TEST_F(IpcTest, SeveralAnswersToOneRequest) {
    static auto partials = +[](void *ipc, void *, void *, uint32_t, int32_t *status, void *reply,
                               uint32_t *reply_len) {
        auto *peer = static_cast<ipc_peer_t *>(ipc);
        EXPECT_EQ(ipc_send_to_peer(peer, 8, "p1", 2, 16), 0);
        EXPECT_EQ(ipc_send_to_peer(peer, 8, "p2", 2, 16), 0);
        memcpy(reply, "end", 3);
        *reply_len = 3;
        *status = 15;
        return int(IPC_HANDLER_REPLY);
    };
    Server srv(43, 0, nullptr, {{8, partials}});
    ASSERT_TRUE(srv.ok());
    ASSERT_EQ(ipcmsg_send_sync(43, 0, 8, nullptr, 0), 0);
    std::vector<std::string> got;
    std::vector<uint32_t> seqs;
    for (int i = 0; i < 3; ++i) {
        ipc_peer_t peer{};
        char buf[16];
        uint32_t len = sizeof buf;
        ASSERT_EQ(ipcmsg_recv_sync(&peer, buf, &len, 1), 0);
        EXPECT_EQ(peer.kind, uint32_t(IPC_KIND_REPLY));
        EXPECT_EQ(peer.appid, 43u); // sent from the endpoint's socket
        got.emplace_back(buf, len);
        seqs.push_back(peer.seq);
    }
    EXPECT_EQ(got, (std::vector<std::string>{"p1", "p2", "end"}));
    EXPECT_EQ(seqs[0], seqs[1]);
    EXPECT_EQ(seqs[1], seqs[2]);
}

TEST_F(IpcTest, LongMessagesAreCutAtTheReceiversCapacity) {
    static auto long_reply = +[](void *, void *, void *, uint32_t len, int32_t *, void *reply, uint32_t *reply_len) {
        auto *r = static_cast<uint8_t *>(reply);
        uint32_t n = len ? len : 1000;
        for (uint32_t i = 0; i < n; ++i) r[i] = uint8_t(i * 7);
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
    EXPECT_EQ(rlen, 100u);
    EXPECT_EQ(status, 0);
    for (uint32_t i = 0; i < 100; ++i) ASSERT_EQ(buf[i], uint8_t(i * 7));
    for (uint32_t i = 100; i < 200; ++i) ASSERT_EQ(buf[i], 0xee);

    // recv_sync: 10 bytes stored.
    ASSERT_EQ(ipcmsg_send_sync(44, 0, 1, nullptr, 0), 0);
    std::fill(buf.begin(), buf.end(), 0xee);
    uint32_t len = 10;
    ASSERT_EQ(ipcmsg_recv_sync(nullptr, buf.data(), &len, 1), 0);
    EXPECT_EQ(len, 10u);
    EXPECT_EQ(buf[9], uint8_t(63));
    EXPECT_EQ(buf[10], 0xee);

    // The largest payload goes both ways whole; a larger one is refused.
    std::vector<uint8_t> big(IPC_MAX_PAYLOAD, 1), back(IPC_MAX_PAYLOAD);
    rlen = IPC_MAX_PAYLOAD;
    ASSERT_EQ(ipcmsg_send_and_recv(44, 0, 1, big.data(), IPC_MAX_PAYLOAD, &status, back.data(), &rlen, 5000), 0);
    EXPECT_EQ(rlen, IPC_MAX_PAYLOAD);
    big.push_back(0);
    EXPECT_EQ(ipcmsg_send(44, 0, 1, big.data(), IPC_MAX_PAYLOAD + 1), -EMSGSIZE);
}

TEST_F(IpcTest, UnboundDestinationFailsAtOnce) {
    auto t0 = std::chrono::steady_clock::now();
    int32_t status;
    EXPECT_LT(exchange(99, 0, 1, "x", &status, nullptr, 10000), 0);
    char x = 'x';
    EXPECT_EQ(ipcmsg_send(99, 0, 1, &x, 1), -ENOENT);
    EXPECT_LT(ipcmsg_send_sync(99, 0, 1, &x, 1), 0);
    EXPECT_LT(ipcmsg_send_timeout(99, 0, 1, &x, 1, 10000), 0);

    // A file left behind by a socket that is gone.
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    strcpy(sa.sun_path, ep_path(98).c_str());
    ASSERT_EQ(bind(fd, (sockaddr *)&sa, sizeof sa), 0);
    close(fd);
    EXPECT_EQ(ipcmsg_send(98, 0, 1, &x, 1), -ECONNREFUSED);
    EXPECT_LT(exchange(98, 0, 1, "x", &status, nullptr, 10000), 0);
    EXPECT_LT(elapsed_ms(t0), 2000);
}

TEST_F(IpcTest, SilentServerGivesTimeOut) {
    Seen seen;
    Server srv(45, 0, &seen, {{1, silent}});
    ASSERT_TRUE(srv.ok());
    auto t0 = std::chrono::steady_clock::now();
    int32_t status = 3;
    EXPECT_EQ(exchange(45, 0, 1, "x", &status, nullptr, 200), -ETIMEDOUT);
    EXPECT_EQ(status, 3);
    setenv("MGMT_IPC_TIMEOUT_MS", "200", 1); // time-out 0: the platform default
    EXPECT_EQ(exchange(45, 0, 1, "x", &status, nullptr, 0), -ETIMEDOUT);
    EXPECT_LT(elapsed_ms(t0), 5000);
    EXPECT_EQ(seen.count.load(), 2);
}

TEST_F(IpcTest, StaleRepliesAreDropped) {
    // The first request is answered late, after its caller gave up; the answer to the second must
    // not be taken for the late one.
    static auto slow_first = +[](void *, void *, void *payload, uint32_t len, int32_t *status, void *reply,
                                 uint32_t *reply_len) {
        std::string p(static_cast<char *>(payload), len);
        if (p == "first") std::this_thread::sleep_for(400ms);
        memcpy(reply, p.data(), len);
        *reply_len = len;
        *status = p == "first" ? 1 : 2;
        return int(IPC_HANDLER_REPLY);
    };
    // Sends an answer with an earlier sequence ahead of the right one.
    static auto with_stale = +[](void *ipc, void *, void *, uint32_t, int32_t *status, void *reply,
                                 uint32_t *reply_len) {
        ipc_peer_t old = *static_cast<ipc_peer_t *>(ipc);
        old.seq -= 1;
        ipc_send_to_peer(&old, 2, "stale", 5, 9);
        memcpy(reply, "right", 5);
        *reply_len = 5;
        *status = 3;
        return int(IPC_HANDLER_REPLY);
    };
    Server srv(46, 0, nullptr, {{1, slow_first}, {2, with_stale}});
    ASSERT_TRUE(srv.ok());
    int32_t status = 0;
    std::string in;
    EXPECT_EQ(exchange(46, 0, 1, "first", &status, &in, 100), -ETIMEDOUT);
    ASSERT_EQ(exchange(46, 0, 1, "second", &status, &in, 5000), 0);
    EXPECT_EQ(in, "second");
    EXPECT_EQ(status, 2);
    ASSERT_EQ(exchange(46, 0, 2, "", &status, &in, 5000), 0);
    EXPECT_EQ(in, "right");
    EXPECT_EQ(status, 3);
}

TEST_F(IpcTest, UnknownMessageIsAnsweredWithMinusOne) {
    Seen seen;
    Server srv(47, 0, &seen, {{1, echo_reversed}});
    ASSERT_TRUE(srv.ok());
    int32_t status = 0;
    std::string in = "junk";
    ASSERT_EQ(exchange(47, 0, 77, "x", &status, &in, 2000), 0);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(in, "");
    EXPECT_EQ(seen.count.load(), 0);
}

TEST_F(IpcTest, SendTimeoutBoundsAFullQueue) {
    ipc_endpoint_t *ep = ipc_endpoint_open(48, 0, nullptr); // bound, never read
    ASSERT_NE(ep, nullptr);
    std::vector<char> msg(60000, 'm');
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(ipcmsg_send_timeout(48, 0, 1, msg.data(), uint32_t(msg.size()), 100), 0);
    int rc = 0;
    for (int i = 0; i < 100 && rc == 0; ++i)
        rc = ipcmsg_send_timeout(48, 0, 1, msg.data(), uint32_t(msg.size()), 100);
    EXPECT_EQ(rc, -ETIMEDOUT);
    EXPECT_LT(elapsed_ms(t0), 5000);
    ipc_endpoint_close(ep);
}

TEST_F(IpcTest, EndpointNamesAreExclusiveAndRemovedAtClose) {
    ipc_endpoint_t *a = ipc_endpoint_open(49, 0, nullptr);
    ASSERT_NE(a, nullptr);
    EXPECT_GE(ipc_endpoint_fd(a), 0);
    EXPECT_EQ(ipc_endpoint_open(49, 0, nullptr), nullptr); // a live socket holds the name
    ipc_endpoint_close(a);
    EXPECT_FALSE(exists(ep_path(49)));
    ipc_endpoint_t *b = ipc_endpoint_open(49, 0, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(ipc_endpoint_dispatch(b, 20), 0);
    ipc_endpoint_close(b);
}

TEST_F(IpcTest, ThreadSocketIsRemovedWhenTheThreadEnds) {
    std::string p;
    on_thread([&] {
        ASSERT_NE(ipc_self(), nullptr);
        p = my_thread_path();
        EXPECT_TRUE(exists(p));
    });
    EXPECT_FALSE(p.empty());
    EXPECT_FALSE(exists(p));
}

TEST_F(IpcTest, DaemonDispatchesOneAtATime) {
    EXPECT_EQ(ipc_daemon_fd(), -1);
    EXPECT_EQ(ipc_dispatch_one(0), -1);
    static Seen seen;
    seen.count = 0;
    ASSERT_EQ(ipc_register_handler(5, +[](void *ipc, void *head, void *payload, uint32_t len, int32_t *status,
                                          void *, uint32_t *reply_len) {
                  auto *peer = static_cast<ipc_peer_t *>(ipc);
                  peer->ctx = &seen; // the process endpoint's context is null
                  record(ipc, head, payload, len);
                  *reply_len = 0;
                  *status = 11;
                  return int(IPC_HANDLER_REPLY);
              }),
              0);
    ASSERT_EQ(ipc_register(50, 0), 0);
    EXPECT_GE(ipc_daemon_fd(), 0);
    EXPECT_TRUE(exists(ep_path(50)));
    EXPECT_EQ(myipc.appid, 50u);
    EXPECT_EQ(ipc_dispatch_one(30), 0);

    int32_t status = 0;
    int rc = -100;
    std::thread client([&] { rc = exchange(50, 0, 5, "req", &status, nullptr, 5000); });
    EXPECT_EQ(ipc_dispatch_one(5000), 1);
    client.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(status, 11);
    EXPECT_EQ(seen.count.load(), 1);
    EXPECT_EQ(seen.peers[0].appid, 50u); // the client thread has the process identity
}

TEST_F(IpcTest, StopFromAnotherThread) {
    ASSERT_EQ(ipc_register_handler(1, echo_reversed), 0);
    ASSERT_EQ(ipc_register(51, 0), 0);
    int rc = -100;
    int32_t status = 0;
    std::thread t([&] {
        rc = exchange(51, 0, 9, "q", &status, nullptr, 5000); // no handler for 9: status -1
        ipc_stop();
    });
    EXPECT_EQ(ipc_serve(), 0);
    t.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(status, -1);

    ipc_stop(); // a stop while no serve runs: the next serve returns at once
    EXPECT_EQ(ipc_serve(), 0);
}

TEST_F(IpcTest, StopFromSignalHandler) {
    ASSERT_EQ(ipc_register(52, 0), 0);
    struct sigaction sa {}, old{};
    sa.sa_handler = [](int) { ipc_stop(); };
    sigemptyset(&sa.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
    pthread_t me = pthread_self();
    std::thread t([me] {
        std::this_thread::sleep_for(100ms);
        pthread_kill(me, SIGUSR1);
    });
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(ipc_serve(), 0);
    EXPECT_LT(elapsed_ms(t0), 5000);
    t.join();
    sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(IpcTest, SendToPeerOutsideAHandler) {
    // A server that keeps the peer and answers later, from another thread.
    static ipc_peer_t kept;
    static std::atomic<bool> have{false};
    have = false;
    Server srv(53, 0, nullptr, {{1, +[](void *ipc, void *, void *, uint32_t, int32_t *, void *, uint32_t *) {
                                     kept = *static_cast<ipc_peer_t *>(ipc);
                                     have = true;
                                     return int(IPC_HANDLER_NOREPLY);
                                 }}});
    ASSERT_TRUE(srv.ok());
    std::thread answer([] {
        for (int i = 0; i < 500 && !have; ++i) std::this_thread::sleep_for(10ms);
        ipc_set_thread_identity(53, 0);
        EXPECT_EQ(ipc_send_to_peer(&kept, 1, "later", 5, 4), 0);
    });
    int32_t status = 0;
    std::string in;
    EXPECT_EQ(exchange(53, 0, 1, "x", &status, &in, 5000), 0);
    answer.join();
    EXPECT_EQ(in, "later");
    EXPECT_EQ(status, 4);
}

TEST(IpcAlloc, AllocAndFree) {
    void *m = ipcmsg_alloc(50000);
    ASSERT_NE(m, nullptr);
    memset(m, 1, 50000);
    ipcmsg_free(m);
    ipcmsg_free(nullptr);
}
