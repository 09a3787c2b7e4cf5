// Traps on every road: IPC to a receiver bound as application 23 (also at the management slot),
// the installed write function and its forwarder, the agent's fifo, and the manager channel
// through a subscriber; with their size limits, byte orders and failure texts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <type_traits>

#include "device_support.h"
#include "mgmt/device.h"
#include "mgmt/platform/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

std::vector<Answer> no_answer(const Received &) { return {}; }

// What the installed write function was given last.
Bytes g_written;
int record_write(void *record, uint32_t len) {
    g_written.assign(static_cast<uint8_t *>(record), static_cast<uint8_t *>(record) + len);
    return 77;
}

class Traps : public ::testing::Test {
  protected:
    void SetUp() override { rx.handle(VK_TRAP_MSG, no_answer); }
    void TearDown() override {
        trap_write_func_set(nullptr);
        reset_hooks();
        unsetenv("MGMT_PLATFORM");
    }
    TestPeer rx{VK_TRAP_APPID}; // the trap receiver, application 23
};

// The write road frames into a buffer of ten thousand bytes; the forwarder sends a finished record
// as it is, up to the same size.
TEST_F(Traps, WriteRoadAndForwarderFrameIntoBuffersOfTenThousandBytes) {
    trap_write_func_set(record_write);
    const std::string max(10000, 'm');
    EXPECT_EQ(vk_private_trap(0x1234, max.data(), 9988, 0x99), 77);
    EXPECT_EQ(g_written, be_words({6, 0x1234, 0x99}) + max.substr(0, 9988));
    for (auto [kind, data, len] : {std::tuple{1, max.data(), 9989}, {1, max.data(), -1}, {12, nullptr, 3}})
        EXPECT_EQ(vk_private_trap(kind, data, len, 0), -1) << kind << " " << len; // kind 12 is no excuse here
    trap_write_func_set(nullptr);
    EXPECT_EQ(vk_private_trap(3, "i", 1, 0), 0) << "a null function turns the road off";

    fault::arm_alloc_failures(1);
    EXPECT_EQ(vk_trap_buf_write("abcd", 4), -1) << "no buffer yet; the next use tries again";
    EXPECT_EQ(vk_trap_buf_write(max.data(), 10000), 0);
    EXPECT_EQ(vk_trap_buf_write(max.data(), 10001), -1);
    ASSERT_TRUE(rx.wait_for(2));
    EXPECT_EQ(rx.received()[1].bytes, bytes_of(max));
    EXPECT_FALSE(rx.wait_for(3, 100));
}

// Without an installed function the IPC road refuses nothing by size; only kind 12 may lack its
// payload.
TEST_F(Traps, IpcRoadSendsBigEndianWordsToApplication23) {
    const std::string big(20000, 'q');
    std::vector<int> rc;
    run_as(31, [&] {
        rc = {vk_trap(0x0102, "link down", 9, 0xa1b2c3d4), vk_private_trap(0x55, "ev", 2, 7),
              vk_trap(12, nullptr, 4, 9), vk_private_trap(2, big.data(), int32_t(big.size()), 0)};
    });
    EXPECT_EQ(rc, std::vector<int>(4, 0));
    EXPECT_EQ(vk_trap(5, nullptr, 4, 0), -1);
    EXPECT_EQ(stdout_of([] {
                  fault::arm_alloc_failures(1);
                  EXPECT_EQ(vk_trap(1, "a", 1, 0), -1);
              }),
              "TRAP: cannot alloc\n");
    ASSERT_TRUE(rx.wait_for(4));
    const auto got = rx.received();
    EXPECT_EQ(got[0].kind, uint32_t(IPC_KIND_ONEWAY));
    EXPECT_EQ(got[0].src_app, 31u);
    EXPECT_EQ(got[0].bytes, be_words({0x0102, 0, 0xa1b2c3d4}) + "link down");
    EXPECT_EQ(got[1].bytes, be_words({VK_TRAP_PRIVATE, 0x55, 7}) + "ev");
    EXPECT_EQ(Bytes(got[2].bytes.begin(), got[2].bytes.begin() + 12), be_words({12, 0, 9}));
    EXPECT_EQ(got[3].bytes.size(), big.size() + 12);
}

TEST_F(Traps, OnAManagementCpuSystemTrapsGoToTheManagementSlot) {
    setenv("MGMT_SLOT", "3", 1);
    TestPeer remote(VK_TRAP_APPID);
    unsetenv("MGMT_SLOT");
    remote.handle(VK_TRAP_MSG, no_answer);
    setenv("MGMT_PLATFORM", "mcpu", 1);
    setenv("MGMT_MCP_SLOT", "3", 1);
    EXPECT_EQ(vk_trap(4, "r", 1, 0), 0);
    unsetenv("MGMT_MCP_SLOT");
    ASSERT_TRUE(remote.wait_for(1));
    EXPECT_EQ(remote.received()[0].bytes, be_words({4, 0, 0}) + "r");
    EXPECT_FALSE(rx.wait_for(1, 100));
}

// ---------------------------------------------------------------- the agent fifo

class Fifo : public ::testing::Test {
  protected:
    void SetUp() override { make_dirs(root.path("/etc")); }
    void TearDown() override { reset_hooks(); }
    Sysroot root;
    const std::string fifo = root.path(VK_AGENT_TRAP_FIFO);
};

TEST_F(Fifo, RecordsGoThroughTheFifoInHostOrder) {
    vk_agent_trap_init();
    struct stat st;
    ASSERT_EQ(stat(fifo.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFIFO | 0600u);
    int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    const std::string max(8180, 'z');
    EXPECT_EQ(vk_private_trap_via_fifo(0x1234, "disk", 4), 0);
    EXPECT_EQ(vk_private_trap_via_fifo(1, max.data(), 8180), 0);
    EXPECT_EQ(vk_private_trap_via_fifo(1, max.data(), 8181), -1);
    EXPECT_EQ(vk_private_trap_via_fifo(1, nullptr, 2), -1);
    EXPECT_EQ(vk_private_trap_via_fifo(12, nullptr, 2), 0);
    Bytes b(20000);
    b.resize(size_t(std::max<ssize_t>(read(reader, b.data(), b.size()), 0)));
    close(reader);
    ASSERT_EQ(b.size(), 16u + 8192 + 14);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 16), host_words({6, 0x1234, 4}) + "disk");
}

// A start that fails for want of a directory or of memory leaves the road closed; open failures are
// reported unless nobody reads (ENXIO).
TEST_F(Fifo, FailuresOfTheStartAndOfTheOpen) {
    rmdir(root.path("/etc").c_str());
    EXPECT_EQ(stdout_of(vk_agent_trap_init), "AGENT: cannot create fifo, errno: 2\n");
    EXPECT_EQ(vk_private_trap_via_fifo(1, "a", 1), -1) << "no buffer after a failed start";
    make_dirs(fifo); // a directory where the fifo belongs
    EXPECT_EQ(stdout_of([&] {
                  vk_agent_trap_init();
                  EXPECT_EQ(vk_private_trap_via_fifo(1, "a", 1), -1);
                  rmdir(fifo.c_str());
                  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
                  EXPECT_EQ(vk_private_trap_via_fifo(2, "b", 1), -1) << "no reader: the write fails";
              }),
              "AGENT: cannot open fifo, errno: 21\nAGENT: cannot open fifo, errno: 21\n");
    if (!fault::kAllocFaults) GTEST_SKIP() << "the sanitizer's allocator cannot be stood in for";
    AllocHook::size_fail_size = VK_AGENT_TRAP_BUF_SIZE;
    AllocHook::size_fail = 1;
    EXPECT_EQ(stdout_of(vk_agent_trap_init), "AGENT: cannot alloc buffer\n");
}

// ---------------------------------------------------------------- the manager

// A daemon hands the handler to its platform's dispatcher.
static_assert(std::is_same_v<decltype(&tmagent_status_change_handler), ipc_handler_fn>);

// The reply status and length that the handler gives for a state.
std::pair<int32_t, uint32_t> announce(uint32_t state) {
    int32_t status = 9;
    uint32_t reply_len = 5;
    EXPECT_EQ(tmagent_status_change_handler(nullptr, nullptr, &state, 4, &status, nullptr, &reply_len), 0);
    return {status, reply_len};
}

TEST(Manager, TrapsArePublishedOnlyWhileTheAgentIsRegistered) {
    TestPeer subscriber(41);
    subscriber.handle(VK_TM_TRAP_CHANNEL, no_answer);
    ASSERT_EQ(ipc_subscribe(VK_TM_TRAP_CHANNEL, 41, 0), 0);
    EXPECT_EQ(vk_tm_trap(1, 2, "x", 1), 0) << "before registration: nothing published";
    EXPECT_EQ(announce(1), std::make_pair(0, 0u));
    EXPECT_EQ(announce(3), std::make_pair(-1, 0u));
    EXPECT_EQ(vk_is_tm_status_reg(), 1) << "a state above 2 changes nothing";
    EXPECT_EQ(vk_tm_trap(0x10, 0x20, "mgr", 3), 0);
    ASSERT_TRUE(subscriber.wait_for(1));
    EXPECT_EQ(subscriber.received()[0].bytes, host_words({0x10, 0x20}) + "mgr");
    EXPECT_EQ(announce(2), std::make_pair(0, 0u)) << "a known state, but not registered";
    EXPECT_EQ(vk_is_tm_status_reg(), 0);
    EXPECT_EQ(vk_tm_trap(1, 1, "z", 1), 0);
    EXPECT_FALSE(subscriber.wait_for(2, 100));
    ipc_unsubscribe(VK_TM_TRAP_CHANNEL, 41, 0);
}

// Calls of the exchange loop's callback: it flags more data `more` times, with new lengths, and
// then answers `result`.
struct Steps {
    std::vector<std::pair<uint32_t, uint32_t>> lengths; // data and cookie length at each call
    int more = 0;
    int result = 0;
};

int step(void *data, uint32_t *data_len, void *, uint32_t *cookie_len, uint32_t *more, uint64_t arg) {
    auto *s = reinterpret_cast<Steps *>(arg);
    s->lengths.emplace_back(*data_len, *cookie_len);
    std::memset(data, 'd', *data_len);
    *more = s->more-- > 0 ? 1 : 0;
    if (*more) {
        *data_len = 10 + uint32_t(s->lengths.size());
        *cookie_len = 20;
    }
    return s->result;
}

TEST(Manager, ExchangeLoopCallsAgainWhileMoreDataIsFlagged) {
    ConsoleCapture console;
    Steps s{{}, 2, 0}, failing{{}, 0, -3};
    EXPECT_EQ(tm_make_ipc_exchange_direct(step, reinterpret_cast<uint64_t>(&s)), 0);
    using Lengths = std::vector<std::pair<uint32_t, uint32_t>>;
    EXPECT_EQ(s.lengths, (Lengths{{4000, 256}, {11, 20}, {12, 20}})) << "lengths as the callback left them";
    EXPECT_EQ(tm_make_ipc_exchange_direct(step, reinterpret_cast<uint64_t>(&failing)), -1);
    EXPECT_EQ(tm_make_ipc_exchange_direct(nullptr, 0), -1);
    EXPECT_EQ(console.text(), "TIDALMANAGER: ipc handle failed\nTIDALMANAGER: ipc handle failed\n");
    if (!fault::kAllocFaults) GTEST_SKIP() << "the sanitizer's allocator cannot be stood in for";
    console.clear();
    for (size_t size : {4000, 256}) {
        AllocHook::size_fail_size = size;
        AllocHook::size_fail = 1;
        EXPECT_EQ(tm_make_ipc_exchange_direct(step, 0), -1);
    }
    EXPECT_EQ(console.text(), "TIDALMANAGER: pre-allocate memory for ipc data failed\n"
                              "TIDALMANAGER: pre-allocate memory for ipc cookie failed\n");
}

} // namespace
