// The platform IPC between processes: exchanges with forked children, names left to their owner,
// peers that die, and the check of the sender's credentials.
#include "helpers.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

using namespace plat_test;

// Some children end with exit(), to run the platform's exit handlers; they are forked while
// this process has no other thread. Leak checking belongs to the test process.
static const pid_t g_test_pid = getpid();
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() { return getpid() != g_test_pid; }

namespace {

int echo(void *, void *, void *payload, uint32_t len, int32_t *status, void *reply, uint32_t *reply_len) {
    memcpy(reply, payload, len);
    *reply_len = len;
    *status = int32_t(getpid());
    return IPC_HANDLER_REPLY;
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

// Keeps the peer of each message in the vector that the endpoint's context points at.
int keep_peer(void *ipc, void *, void *, uint32_t, int32_t *, void *, uint32_t *) {
    auto *peer = static_cast<ipc_peer_t *>(ipc);
    static_cast<std::vector<ipc_peer_t> *>(peer->ctx)->push_back(*peer);
    return IPC_HANDLER_NOREPLY;
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
        ipc_frame_t f{}; // a valid frame with message number 1, built by hand
        f.magic = IPC_FRAME_MAGIC;
        f.msg_be[1] = 1;
        f.kind = kind;
        f.src_app = 77;
        return send(fd, &f, sizeof f, 0) == sizeof f ? 0 : 12;
    });
}

} // namespace

// A daemon in a child process answers, then dies with a request unanswered: the caller waits no
// longer than its time-out, and the name left behind, held by nobody, fails at once.
TEST_F(IpcTest, DaemonProcessAnswersThenDiesWithoutHangingTheCaller) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork_child([&]() -> int {
        ipc_reset();
        ipc_register_handler(1, echo);
        ipc_register_handler(2,
                             [](void *, void *, void *, uint32_t, int32_t *, void *, uint32_t *) -> int { _exit(0); });
        if (ipc_register(60, 0) != 0) return 20;
        if (write(ready[1], "r", 1) != 1) return 21;
        ipc_serve();
        return 22;
    });
    ASSERT_GT(child, 0);
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    close(ready[1]);
    int32_t status = 0;
    char buf[16];
    uint32_t rlen = sizeof buf;
    ASSERT_EQ(ipcmsg_send_and_recv(60, 0, 1, (void *)"ping", 4, &status, buf, &rlen, 5000), 0);
    EXPECT_TRUE(std::string(buf, rlen) == "ping" && status == child);

    auto t0 = std::chrono::steady_clock::now();
    rlen = sizeof buf;
    // The serving process ends without answering: the wait ends with it, not at the time-out.
    EXPECT_EQ(ipcmsg_send_and_recv(60, 0, 2, nullptr, 0, &status, buf, &rlen, 10000), -ECONNRESET);
    EXPECT_EQ(wait_exit(child), 0);
    rlen = sizeof buf;
    EXPECT_EQ(ipcmsg_send_and_recv(60, 0, 1, nullptr, 0, &status, buf, &rlen, 10000), -ECONNREFUSED);
    EXPECT_LT(elapsed_ms(t0), 5000);
}

// The child's exchange, its ipc_close and its exit leave the parent's names and sockets alone, and
// its own names go with it.
// The child is forked before the server's thread starts: at exit it runs the platform's handlers,
// and no lock of another thread can have been held at the fork.
TEST_F(IpcTest, ForkedChildGetsASocketOfItsOwn) {
    ASSERT_EQ(ipc_register(62, 0), 0);
    ASSERT_NE(ipc_self(), nullptr); // the parent's thread socket exists before the fork
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    pid_t child = fork_child([&]() -> int {
        char c;
        if (read(go[0], &c, 1) != 1) return 29;
        int32_t status = 0;
        char buf[8];
        uint32_t rlen = sizeof buf;
        if (ipcmsg_send_and_recv(61, 0, 1, (void *)"kid", 3, &status, buf, &rlen, 5000) != 0) return 30;
        if (std::string(buf, rlen) != "kid") return 31;
        ipc_close();
        if (!ipc_endpoint_open(64, 0, nullptr)) return 32; // the exit handlers remove it
        exit(0);
    });
    ASSERT_GT(child, 0);
    Server srv(61, 0, nullptr, {{1, echo}});
    ASSERT_TRUE(srv.ok());
    ASSERT_EQ(write(go[1], "g", 1), 1);
    close(go[0]);
    close(go[1]);
    EXPECT_EQ(wait_exit(child), 0);
    EXPECT_TRUE(exists(my_thread_path()) && exists(ep_path(62)));
    EXPECT_FALSE(exists(ep_path(64)) || exists(path("t" + std::to_string(child) + "." + std::to_string(child))));
    int32_t status = 0;
    char buf[8];
    uint32_t rlen = sizeof buf;
    ASSERT_EQ(ipcmsg_send_and_recv(61, 0, 1, (void *)"dad", 3, &status, buf, &rlen, 5000), 0);
    EXPECT_EQ(std::string(buf, rlen), "dad");
}

TEST_F(IpcTest, MessagesFromAForeignUserAreDropped) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to send as another user";
    std::vector<ipc_peer_t> got;
    ipc_endpoint_t *ep = ipc_endpoint_open(66, 0, &got);
    ASSERT_NE(ep, nullptr);
    ASSERT_EQ(ipc_endpoint_handler(ep, 1, keep_peer), 0);

    // As root, the hand-built frame is taken.
    EXPECT_EQ(wait_exit(raw_sender(ep_path(66), 0)), 0);
    EXPECT_EQ(ipc_endpoint_dispatch(ep, 2000), 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].uid, 0u);

    // As nobody, the same frame is dropped and not dispatched.
    EXPECT_EQ(wait_exit(raw_sender(ep_path(66), 65534)), 0);
    EXPECT_EQ(ipc_endpoint_dispatch(ep, 300), 0);
    EXPECT_EQ(got.size(), 1u);

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
