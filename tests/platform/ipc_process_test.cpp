// The platform IPC between processes: exchanges with forked children, names left to their owner,
// peers that die, and the check of the sender's credentials.
#include "helpers.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

using namespace plat_test;
using namespace std::chrono_literals;

namespace {

int echo(void *, void *, void *payload, uint32_t len, int32_t *status, void *reply, uint32_t *reply_len) {
    memcpy(reply, payload, len);
    *reply_len = len;
    *status = int32_t(getpid());
    return IPC_HANDLER_REPLY;
}

int stop_serving(void *, void *, void *, uint32_t, int32_t *, void *, uint32_t *) {
    ipc_stop();
    return IPC_HANDLER_NOREPLY;
}

// Forks; the child runs fn and ends with its result as exit code (no gtest machinery in it).
template <class F> pid_t fork_child(F fn) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) _exit(fn());
    return pid;
}

int wait_exit(pid_t pid) {
    int st = 0;
    if (waitpid(pid, &st, 0) != pid) return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

void wait_ready(int fd) {
    char c;
    ASSERT_EQ(read(fd, &c, 1), 1);
}

struct Counter {
    std::atomic<int> n{0};
    std::atomic<uint32_t> uid{12345};
};

int count(void *ipc, void *, void *, uint32_t, int32_t *, void *, uint32_t *) {
    auto *peer = static_cast<ipc_peer_t *>(ipc);
    auto *c = static_cast<Counter *>(peer->ctx);
    c->uid = peer->uid;
    c->n++;
    return IPC_HANDLER_NOREPLY;
}

// A valid one-way frame with message number 1, built by hand.
ipc_frame_t raw_frame(uint8_t kind = IPC_KIND_ONEWAY) {
    ipc_frame_t f{};
    f.magic = IPC_FRAME_MAGIC;
    f.msg_be[1] = 1;
    f.kind = kind;
    f.src_app = 77;
    return f;
}

// A child that connects to path as root, optionally becomes another user, then sends one frame.
pid_t raw_sender(const std::string &path, uid_t as_uid, uint8_t kind = IPC_KIND_ONEWAY) {
    return fork_child([&] {
        int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        strcpy(sa.sun_path, path.c_str());
        if (connect(fd, (sockaddr *)&sa, sizeof sa) != 0) return 10;
        if (as_uid != 0 && (setgid(as_uid) != 0 || setuid(as_uid) != 0)) return 11;
        ipc_frame_t f = raw_frame(kind);
        return send(fd, &f, sizeof f, 0) == sizeof f ? 0 : 12;
    });
}

} // namespace

TEST_F(IpcTest, ExchangeWithADaemonProcess) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork_child([&]() -> int {
        ipc_reset();
        ipc_register_handler(1, echo);
        ipc_register_handler(2, stop_serving);
        if (ipc_register(60, 0) != 0) return 20;
        if (write(ready[1], "r", 1) != 1) return 21;
        exit(ipc_serve() == 0 ? 0 : 22); // exit, not _exit: the names go at exit
    });
    ASSERT_GT(child, 0);
    wait_ready(ready[0]);
    int32_t status = 0;
    char buf[16];
    uint32_t rlen = sizeof buf;
    ASSERT_EQ(ipcmsg_send_and_recv(60, 0, 1, (void *)"ping", 4, &status, buf, &rlen, 5000), 0);
    EXPECT_EQ(std::string(buf, rlen), "ping");
    EXPECT_EQ(status, child);
    EXPECT_EQ(ipcmsg_send(60, 0, 2, nullptr, 0), 0);
    EXPECT_EQ(wait_exit(child), 0);
    EXPECT_FALSE(exists(ep_path(60))); // the child unlinked its name at exit
    close(ready[0]);
    close(ready[1]);
}

TEST_F(IpcTest, ForkedChildGetsASocketOfItsOwn) {
    Server srv(61, 0, nullptr, {{1, echo}});
    ASSERT_TRUE(srv.ok());
    ASSERT_NE(ipc_self(), nullptr); // the parent's thread socket exists before the fork
    std::string parent_sock = my_thread_path();
    pid_t child = fork_child([]() -> int {
        int32_t status = 0;
        char buf[8];
        uint32_t rlen = sizeof buf;
        if (ipcmsg_send_and_recv(61, 0, 1, (void *)"kid", 3, &status, buf, &rlen, 5000) != 0) return 30;
        if (std::string(buf, rlen) != "kid") return 31;
        ipc_close();
        exit(0); // atexit runs: must not touch the parent's names
    });
    ASSERT_GT(child, 0);
    EXPECT_EQ(wait_exit(child), 0);
    EXPECT_TRUE(exists(parent_sock));
    int32_t status = 0;
    char buf[8];
    uint32_t rlen = sizeof buf;
    ASSERT_EQ(ipcmsg_send_and_recv(61, 0, 1, (void *)"dad", 3, &status, buf, &rlen, 5000), 0);
    EXPECT_EQ(std::string(buf, rlen), "dad");
}

TEST_F(IpcTest, ChildIpcCloseLeavesTheParentsNames) {
    ASSERT_EQ(ipc_register(62, 0), 0);
    ASSERT_NE(ipc_self(), nullptr);
    pid_t child = fork_child([]() -> int {
        ipc_close();
        exit(0);
    });
    EXPECT_EQ(wait_exit(child), 0);
    EXPECT_TRUE(exists(ep_path(62)));
    EXPECT_TRUE(exists(my_thread_path()));
}

TEST_F(IpcTest, ProcessExitRemovesItsNames) {
    pid_t child = fork_child([]() -> int {
        ipc_reset();
        if (ipc_register(63, 0) != 0 || !ipc_self()) return 40;
        if (!ipc_endpoint_open(64, 0, nullptr)) return 41;
        exit(0);
    });
    ASSERT_GT(child, 0);
    EXPECT_EQ(wait_exit(child), 0);
    EXPECT_FALSE(exists(ep_path(63)));
    EXPECT_FALSE(exists(ep_path(64)));
    EXPECT_FALSE(exists(path("t" + std::to_string(child) + "." + std::to_string(child))));
}

TEST_F(IpcTest, PeerThatDiesNeverHangsTheCaller) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork_child([&] {
        ipc_reset();
        ipc_register_handler(1, [](void *, void *, void *, uint32_t, int32_t *, void *, uint32_t *) -> int {
            _exit(0); // dies with the request unanswered
        });
        if (ipc_register(65, 0) != 0) return 50;
        if (write(ready[1], "r", 1) != 1) return 51;
        ipc_serve();
        return 52;
    });
    ASSERT_GT(child, 0);
    wait_ready(ready[0]);
    auto t0 = std::chrono::steady_clock::now();
    int32_t status;
    char buf[8];
    uint32_t rlen = sizeof buf;
    EXPECT_EQ(ipcmsg_send_and_recv(65, 0, 1, nullptr, 0, &status, buf, &rlen, 300), -ETIMEDOUT);
    EXPECT_EQ(wait_exit(child), 0);
    rlen = sizeof buf; // its name is left behind, but nobody holds it: fails at once
    EXPECT_EQ(ipcmsg_send_and_recv(65, 0, 1, nullptr, 0, &status, buf, &rlen, 10000), -ECONNREFUSED);
    EXPECT_LT(elapsed_ms(t0), 5000);
    close(ready[0]);
    close(ready[1]);
}

TEST_F(IpcTest, MessagesFromAForeignUserAreDropped) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to send as another user";
    Counter c;
    ipc_endpoint_t *ep = ipc_endpoint_open(66, 0, &c);
    ASSERT_NE(ep, nullptr);
    ASSERT_EQ(ipc_endpoint_handler(ep, 1, count), 0);

    // As root, the hand-built frame is taken.
    EXPECT_EQ(wait_exit(raw_sender(ep_path(66), 0)), 0);
    EXPECT_EQ(ipc_endpoint_dispatch(ep, 2000), 1);
    EXPECT_EQ(c.n.load(), 1);
    EXPECT_EQ(c.uid.load(), 0u);

    // As nobody, the same frame is dropped and not dispatched.
    EXPECT_EQ(wait_exit(raw_sender(ep_path(66), 65534)), 0);
    EXPECT_EQ(ipc_endpoint_dispatch(ep, 300), 0);
    EXPECT_EQ(c.n.load(), 1);

    // A reply from a foreign user never reaches a waiting thread.
    ASSERT_NE(ipc_self(), nullptr);
    EXPECT_EQ(wait_exit(raw_sender(my_thread_path(), 65534, IPC_KIND_REPLY)), 0);
    char buf[8];
    uint32_t len = sizeof buf;
    EXPECT_EQ(ipcmsg_recv_sync(nullptr, buf, &len, 0), -EAGAIN);
    EXPECT_EQ(wait_exit(raw_sender(my_thread_path(), 0, IPC_KIND_REPLY)), 0);
    ipc_peer_t peer{};
    len = sizeof buf;
    EXPECT_EQ(ipcmsg_recv_sync(&peer, buf, &len, 1), 0);
    EXPECT_EQ(peer.appid, 77u);
    ipc_endpoint_close(ep);
}
