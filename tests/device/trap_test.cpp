// Traps on every road: IPC to a receiver bound as application 23 (also at the management slot),
// the installed write function and its forwarder, the agent's fifo, and the manager channel
// through a subscriber; with their size limits, byte orders and failure texts.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "device_support.h"
#include "mgmt/device.h"
#include "platform/device.h"
#include "test_support.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

Bytes be_words(std::initializer_list<uint32_t> words) {
    Bytes b;
    for (uint32_t w : words)
        for (int s = 24; s >= 0; s -= 8)
            b.push_back(uint8_t(w >> s));
    return b;
}

Bytes host_words(std::initializer_list<uint32_t> words) {
    Bytes b;
    for (uint32_t w : words) {
        uint8_t raw[4];
        std::memcpy(raw, &w, 4);
        b.insert(b.end(), raw, raw + 4);
    }
    return b;
}

Bytes operator+(Bytes a, const std::string &s) {
    a.insert(a.end(), s.begin(), s.end());
    return a;
}

std::vector<Answer> no_answer(const Received &) { return {}; }

// What the installed write function was given.
Bytes g_written;
int g_write_calls = 0;
int record_write(void *record, uint32_t len) {
    ++g_write_calls;
    auto *p = static_cast<uint8_t *>(record);
    g_written.assign(p, p + len);
    return 77;
}

class Traps : public ::testing::Test {
  protected:
    void TearDown() override {
        trap_write_func_set(nullptr);
        hooks::reset();
        unsetenv("MGMT_PLATFORM");
        unsetenv("MGMT_MCP_SLOT");
    }
};

// The process's buffers are made at first use; a failure then is a refusal and the next use
// tries again. This runs before any other trap of the process on these roads.
TEST_F(Traps, BuffersOfTheWriteRoadAreMadeAtFirstUse) {
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    trap_write_func_set(record_write);
    g_write_calls = 0;
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_private_trap(1, "x", 1, 0), -1);
    EXPECT_EQ(g_write_calls, 0);
    EXPECT_EQ(vk_private_trap(1, "x", 1, 0), 77);
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_private_trap(1, "y", 1, 0), 77) << "the buffer is kept";

    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_trap_buf_write("abcd", 4), -1);
    EXPECT_EQ(vk_trap_buf_write("abcd", 4), 0);
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_trap_buf_write("efgh", 4), 0);
    ASSERT_TRUE(receiver.wait_for(2));
    EXPECT_EQ(receiver.received()[1].bytes, bytes_of("efgh"));
}

TEST_F(Traps, IpcRoadSendsBigEndianWordsToApplication23) {
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    int a = 0, b = 0, c = 0;
    run_as(31, [&] {
        a = vk_trap(0x0102, "link down", 9, 0xa1b2c3d4);
        b = vk_private_trap(0x55, "ev", 2, 7);
        c = vk_trap(3, nullptr, 0, 0);
    });
    EXPECT_EQ(a, 0);
    EXPECT_EQ(b, 0);
    EXPECT_EQ(c, 0);
    ASSERT_TRUE(receiver.wait_for(3));
    const auto got = receiver.received();
    EXPECT_EQ(got[0].msg, VK_TRAP_MSG);
    EXPECT_EQ(got[0].kind, uint32_t(IPC_KIND_ONEWAY));
    EXPECT_EQ(got[0].src_app, 31u);
    EXPECT_EQ(got[0].bytes, be_words({0x0102, 0, 0xa1b2c3d4}) + "link down");
    EXPECT_EQ(got[1].bytes, be_words({VK_TRAP_PRIVATE, 0x55, 7}) + "ev");
    EXPECT_EQ(got[2].bytes, be_words({3, 0, 0}));
}

TEST_F(Traps, IpcRoadRefusesAMissingPayloadExceptForKind12) {
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    EXPECT_EQ(vk_trap(5, nullptr, 4, 0), -1);
    EXPECT_EQ(vk_private_trap(5, "x", -1, 0), -1) << "no record of that size can be made";
    EXPECT_EQ(vk_private_trap(5, nullptr, 4, 0), -1);
    EXPECT_EQ(vk_trap(12, nullptr, 4, 9), 0);
    ASSERT_TRUE(receiver.wait_for(1));
    const Bytes got = receiver.received()[0].bytes;
    ASSERT_EQ(got.size(), 16u);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 12), be_words({12, 0, 9}));
    EXPECT_FALSE(receiver.wait_for(2, 100));
}

TEST_F(Traps, IpcRoadWithoutReceiverOrMemoryFails) {
    EXPECT_LT(vk_trap(1, "a", 1, 0), 0) << "nobody bound as application 23";
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    StdoutCapture out;
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_trap(1, "a", 1, 0), -1);
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_private_trap(1, "a", 1, 0), -1);
    EXPECT_EQ(out.text(), "TRAP: cannot alloc\nTRAP: cannot alloc\n");
    EXPECT_FALSE(receiver.wait_for(1, 100));
}

// Without an installed function the IPC road refuses nothing by size.
TEST_F(Traps, IpcRoadTakesLargeTraps) {
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    std::string big(20000, 'q');
    EXPECT_EQ(vk_private_trap(2, big.data(), int32_t(big.size()), 0), 0);
    ASSERT_TRUE(receiver.wait_for(1));
    EXPECT_EQ(receiver.received()[0].bytes.size(), big.size() + 12);
}

TEST_F(Traps, OnAManagementCpuSystemTrapsGoToTheManagementSlot) {
    setenv("MGMT_SLOT", "3", 1);
    TestPeer remote(VK_TRAP_APPID);
    unsetenv("MGMT_SLOT");
    TestPeer local(VK_TRAP_APPID);
    ASSERT_TRUE(remote.ok() && local.ok());
    remote.handle(VK_TRAP_MSG, no_answer);
    local.handle(VK_TRAP_MSG, no_answer);
    setenv("MGMT_PLATFORM", "mcpu", 1);
    setenv("MGMT_MCP_SLOT", "3", 1);
    EXPECT_EQ(vk_trap(4, "r", 1, 0), 0);
    ASSERT_TRUE(remote.wait_for(1));
    EXPECT_EQ(remote.received()[0].bytes, be_words({4, 0, 0}) + "r");
    unsetenv("MGMT_PLATFORM");
    EXPECT_EQ(vk_private_trap(9, "l", 1, 0), 0);
    ASSERT_TRUE(local.wait_for(1));
    EXPECT_EQ(local.received()[0].bytes, be_words({6, 9, 0}) + "l");
    EXPECT_EQ(remote.received().size(), 1u);
}

TEST_F(Traps, WriteRoadFramesIntoItsBufferWithinTenThousandBytes) {
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    trap_write_func_set(record_write);
    EXPECT_EQ(trap_write_func, &record_write);
    g_write_calls = 0;
    EXPECT_EQ(vk_private_trap(0x1234, "payload", 7, 0x99), 77);
    EXPECT_EQ(g_written, be_words({6, 0x1234, 0x99}) + "payload");
    std::string max(9988, 'm');
    EXPECT_EQ(vk_private_trap(1, max.data(), 9988, 0), 77);
    EXPECT_EQ(g_written.size(), 10000u);
    EXPECT_EQ(vk_private_trap(1, max.data(), 9989, 0), -1);
    EXPECT_EQ(vk_private_trap(1, max.data(), -1, 0), -1);
    EXPECT_EQ(vk_private_trap(1, nullptr, 3, 0), -1);
    EXPECT_EQ(vk_private_trap(12, nullptr, 3, 0), -1) << "kind 12 is no excuse on this road";
    EXPECT_EQ(g_write_calls, 2);
    EXPECT_EQ(vk_private_trap(2, nullptr, 0, 0), 77);
    EXPECT_EQ(g_written, be_words({6, 2, 0}));
    trap_write_func_set(nullptr);
    EXPECT_EQ(vk_private_trap(3, "i", 1, 0), 0) << "a null function turns the road off";
    ASSERT_TRUE(receiver.wait_for(1));
    EXPECT_EQ(g_write_calls, 3);
}

TEST_F(Traps, ForwarderSendsAFinishedRecordAsItIs) {
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    const Bytes record = be_words({6, 0x44, 1}) + "forwarded";
    EXPECT_EQ(vk_trap_buf_write(record.data(), uint32_t(record.size())), 0);
    std::string max(10000, 'f');
    EXPECT_EQ(vk_trap_buf_write(max.data(), 10000), 0);
    EXPECT_EQ(vk_trap_buf_write(max.data(), 10001), -1);
    ASSERT_TRUE(receiver.wait_for(2));
    EXPECT_EQ(receiver.received()[0].bytes, record);
    EXPECT_EQ(receiver.received()[1].bytes.size(), 10000u);
    EXPECT_FALSE(receiver.wait_for(3, 100));
}

// ---------------------------------------------------------------- the agent fifo

class Fifo : public Traps {
  protected:
    void SetUp() override { make_dirs(root.path("/etc")); }
    std::string fifo() const { return root.path(VK_AGENT_TRAP_FIFO); }
    Bytes read_all(int fd) {
        Bytes b(20000);
        ssize_t n = read(fd, b.data(), b.size());
        b.resize(n > 0 ? size_t(n) : 0);
        return b;
    }
    Sysroot root;
};

TEST_F(Fifo, RecordsGoThroughTheFifoInHostOrder) {
    vk_agent_trap_init();
    struct stat st;
    ASSERT_EQ(stat(fifo().c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    int reader = open(fifo().c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(vk_private_trap_via_fifo(0x1234, "disk", 4), 0);
    EXPECT_EQ(read_all(reader), host_words({6, 0x1234, 4}) + "disk");
    std::string max(8180, 'z');
    EXPECT_EQ(vk_private_trap_via_fifo(1, max.data(), 8180), 0);
    EXPECT_EQ(read_all(reader).size(), 8192u);
    EXPECT_EQ(vk_private_trap_via_fifo(1, max.data(), 8181), -1);
    EXPECT_EQ(vk_private_trap_via_fifo(1, nullptr, 2), -1);
    EXPECT_EQ(vk_private_trap_via_fifo(1, nullptr, 0), 0);
    EXPECT_EQ(read_all(reader), host_words({6, 1, 0}));
    EXPECT_EQ(vk_private_trap_via_fifo(12, nullptr, 2), 0);
    EXPECT_EQ(read_all(reader).size(), 14u);
    close(reader);

    // The same event on the IPC road has another byte image.
    TestPeer receiver(VK_TRAP_APPID);
    receiver.handle(VK_TRAP_MSG, no_answer);
    EXPECT_EQ(vk_private_trap(0x1234, "disk", 4, 4), 0);
    ASSERT_TRUE(receiver.wait_for(1));
    EXPECT_NE(receiver.received()[0].bytes, host_words({6, 0x1234, 4}) + "disk");
    EXPECT_EQ(receiver.received()[0].bytes, be_words({6, 0x1234, 4}) + "disk");
}

TEST_F(Fifo, FailedStartLeavesTheRoadClosed) {
    rmdir(root.path("/etc").c_str());
    StdoutCapture out;
    vk_agent_trap_init();
    EXPECT_EQ(vk_private_trap_via_fifo(1, "a", 1), -1) << "no buffer after a failed start";
    EXPECT_EQ(out.text(), "AGENT: cannot create fifo, errno: 2\n");
}

TEST_F(Fifo, WithoutMemoryTheStartStops) {
    if (!hooks::malloc_hook_available()) GTEST_SKIP() << "the sanitizer's allocator cannot be stood in for";
    StdoutCapture out;
    hooks::fail_alloc_of_size(VK_AGENT_TRAP_BUF_SIZE, 1);
    vk_agent_trap_init();
    EXPECT_EQ(out.text(), "AGENT: cannot alloc buffer\n");
    EXPECT_FALSE(exists(fifo())) << "stopped before the fifo";
    EXPECT_EQ(vk_private_trap_via_fifo(1, "a", 1), -1);
}

// Open failures: reported unless nobody reads (ENXIO); then the event is lost and the next send
// opens again.
TEST_F(Fifo, OpenFailuresAndAMissingReader) {
    make_dirs(fifo()); // a directory where the fifo belongs
    {
        StdoutCapture out;
        vk_agent_trap_init();
        EXPECT_EQ(vk_private_trap_via_fifo(1, "a", 1), -1);
        EXPECT_EQ(out.text(), "AGENT: cannot open fifo, errno: 21\nAGENT: cannot open fifo, errno: 21\n");
    }
    rmdir(fifo().c_str());
    ASSERT_EQ(mkfifo(fifo().c_str(), 0600), 0);
    {
        StdoutCapture out;
        EXPECT_EQ(vk_private_trap_via_fifo(2, "b", 1), -1) << "no reader: the write fails";
        EXPECT_EQ(out.text(), "");
    }
    int reader = open(fifo().c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(vk_private_trap_via_fifo(3, "c", 1), 0);
    EXPECT_EQ(read_all(reader), host_words({6, 3, 1}) + "c");
    close(reader);
}

// ---------------------------------------------------------------- the manager channel

int send_state(uint32_t state, int32_t *status) {
    uint8_t reply[8];
    uint32_t rlen = sizeof reply;
    return ipcmsg_send_and_recv(mktipcid(0, 0, 91), 0, 710, &state, sizeof state, status, reply, &rlen, 2000);
}

TEST_F(Traps, ManagerTrapsArePublishedOnlyWhileTheAgentIsRegistered) {
    TestPeer subscriber(41);
    subscriber.handle(VK_TM_TRAP_CHANNEL, no_answer);
    ASSERT_EQ(ipc_subscribe(VK_TM_TRAP_CHANNEL, 41, 0), 0);

    // Before registration: 0 at once, nothing allocated, nothing published.
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_is_tm_status_reg(), 0);
    EXPECT_EQ(vk_tm_trap(1, 2, "x", 1), 0);
    hooks::reset();

    // The agent's state arrives through the handler, as a daemon registers it.
    ipc_endpoint_t *ep = ipc_endpoint_open(91, 0, nullptr);
    ASSERT_NE(ep, nullptr);
    ipc_endpoint_handler(ep, 710, tmagent_status_change_handler);
    std::thread server([ep] { ipc_endpoint_serve(ep); });
    int32_t status = 9;
    EXPECT_EQ(send_state(1, &status), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(vk_is_tm_status_reg(), 1);
    EXPECT_EQ(send_state(3, &status), 0);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(vk_is_tm_status_reg(), 1) << "a state above 2 changes nothing";
    ipc_endpoint_stop(ep);
    server.join();
    ipc_endpoint_close(ep);

    EXPECT_EQ(vk_tm_trap(0x10, 0x20, "mgr", 3), 0);
    EXPECT_EQ(vk_tm_trap(0x11, 0x21, nullptr, 0), 0);
    ASSERT_TRUE(subscriber.wait_for(2));
    const auto got = subscriber.received();
    EXPECT_EQ(got[0].msg, VK_TM_TRAP_CHANNEL);
    EXPECT_EQ(got[0].bytes, host_words({0x10, 0x20}) + "mgr");
    EXPECT_EQ(got[1].bytes, host_words({0x11, 0x21}));
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(vk_tm_trap(1, 1, "y", 1), -1);

    // State 2 and 0 are known states, but not registered.
    uint32_t reply_len = 5, two = 2;
    int32_t st = 7;
    EXPECT_EQ(tmagent_status_change_handler(nullptr, nullptr, &two, 4, &st, nullptr, &reply_len), 0);
    EXPECT_EQ(st, 0);
    EXPECT_EQ(reply_len, 0u);
    EXPECT_EQ(vk_is_tm_status_reg(), 0);
    EXPECT_EQ(vk_tm_trap(1, 1, "z", 1), 0);
    EXPECT_FALSE(subscriber.wait_for(3, 100));
    ipc_unsubscribe(VK_TM_TRAP_CHANNEL, 41, 0);
}

// ---------------------------------------------------------------- manager exchange loop

struct Steps {
    std::vector<std::pair<uint32_t, uint32_t>> lengths; // data and cookie length at each call
    std::vector<bool> cookie_zeroed;
    int more_calls = 0;
    int result = 0;
};

int step(void *data, uint32_t *data_len, void *cookie, uint32_t *cookie_len, uint32_t *more, uint64_t arg) {
    auto *s = reinterpret_cast<Steps *>(arg);
    s->lengths.emplace_back(*data_len, *cookie_len);
    const auto *c = static_cast<const uint8_t *>(cookie);
    s->cookie_zeroed.push_back(std::all_of(c, c + 256, [](uint8_t b) { return b == 0; }));
    std::memset(data, 'd', *data_len);
    static_cast<uint8_t *>(cookie)[0] = 1;
    if (s->more_calls-- > 0) {
        *more = 1;
        *data_len = 10 + uint32_t(s->lengths.size());
        *cookie_len = 20;
    } else {
        *more = 0;
    }
    return s->result;
}

TEST_F(Traps, ExchangeLoopCallsAgainWhileMoreDataIsFlagged) {
    ConsoleCapture console;
    Steps s;
    s.more_calls = 2;
    EXPECT_EQ(tm_make_ipc_exchange_direct(step, reinterpret_cast<uint64_t>(&s)), 0);
    ASSERT_EQ(s.lengths.size(), 3u);
    EXPECT_EQ(s.lengths[0], std::make_pair(4000u, 256u));
    EXPECT_EQ(s.lengths[1], std::make_pair(11u, 20u)) << "lengths as the callback left them";
    EXPECT_EQ(s.lengths[2], std::make_pair(12u, 20u));
    EXPECT_TRUE(s.cookie_zeroed[0]);
    EXPECT_FALSE(s.cookie_zeroed[1]) << "the same buffers";
    EXPECT_EQ(console.text(), "");

    Steps failing;
    failing.result = -3;
    EXPECT_EQ(tm_make_ipc_exchange_direct(step, reinterpret_cast<uint64_t>(&failing)), -1);
    EXPECT_EQ(failing.lengths.size(), 1u);
    EXPECT_EQ(tm_make_ipc_exchange_direct(nullptr, 0), -1);
    EXPECT_EQ(console.text(), "TIDALMANAGER: ipc handle failed\nTIDALMANAGER: ipc handle failed\n");
}

TEST_F(Traps, ExchangeLoopWithoutMemory) {
    if (!hooks::malloc_hook_available()) GTEST_SKIP() << "the sanitizer's allocator cannot be stood in for";
    ConsoleCapture console;
    Steps s;
    hooks::fail_alloc_of_size(4000, 1);
    EXPECT_EQ(tm_make_ipc_exchange_direct(step, reinterpret_cast<uint64_t>(&s)), -1);
    hooks::fail_alloc_of_size(256, 1);
    EXPECT_EQ(tm_make_ipc_exchange_direct(step, reinterpret_cast<uint64_t>(&s)), -1);
    EXPECT_TRUE(s.lengths.empty());
    EXPECT_EQ(console.text(), "TIDALMANAGER: pre-allocate memory for ipc data failed\n"
                              "TIDALMANAGER: pre-allocate memory for ipc cookie failed\n");
}

} // namespace
