// Device probes against a prepared device tree and test peers: the child monitor's process id,
// the device identity, the vsys lock entry, and the short exchanges with the manager (messages
// 602, 611, 836) and application 0 (message 880). Start-up: the language word and its IPC
// handler, the notice to the administration daemon (message 324), and the reaping of children.
// Firmware service calls: every status code's log line and user text (held to
// tests/device/firmware.golden), the image request byte for byte against a test service bound as
// application 80, and the heartbeat probe of application 17.
// Traps on every road: IPC to a receiver bound as application 23 (also at the management slot),
// the installed write function and its forwarder, the agent's fifo, and the manager channel
// through a subscriber; with their size limits, byte orders and failure texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "device_support.h"
#include "mgmt/device.h"
#include "mgmt/platform/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

class Probes : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *dir : {"/tmp", "/flash", "/etc"})
            make_dirs(root.path(dir));
    }
    void TearDown() override {
        reset_hooks();
        unsetenv("MGMT_PLATFORM");
    }
    Sysroot root;
    const std::string fifo = root.path(VK_AGENT_TRAP_FIFO);
};

// A peer that answers every message `msg` with what `reply` gives at the time.
template <typename Reply> void answer(TestPeer &peer, uint16_t msg, Reply reply) {
    peer.handle(msg, [reply](const Received &) { return std::vector<Answer>{reply()}; });
}

TEST_F(Probes, ChildMonitorPidIsDigitsAloneWithoutLineEnd) {
    for (auto [text, want] : {std::pair{"1234", 1234}, {"1234\n", -1}, {"12a4", -1}, {"0000000000123456", 12345}}) {
        write_file(root.path(MGMT_CHILD_MONITORD_PID_FILE), text);
        EXPECT_EQ(get_child_monitord_pid(), want) << "'" << text << "'";
    }
}

// The process's state is asked three times; a state other than disk sleep hands over to the console log.
TEST_F(Probes, StorageAsksTheStateOfTheProcessThreeTimes) {
    hook.popen = Hooks::record; // no line at any try
    EXPECT_EQ(vk_is_storage_available(4321), -1);
    EXPECT_EQ(hook.log, std::vector<std::string>(3, "popen r: cat /proc/4321/status | grep State"));
    hook.popen = Hooks::run;
    EXPECT_EQ(vk_is_storage_available(getpid()), 0) << "running, and no console log";
}

TEST_F(Probes, DeviceUuidIsOneWordReadAnewEachTime) {
    EXPECT_STREQ(get_device_uuid(), "");
    for (auto [text, want] : {std::pair<std::string, std::string>{"  5f1e-77aa trailing words\n", "5f1e-77aa"},
                              {std::string(300, 'u'), std::string(127, 'u')}}) {
        write_file(root.path(MGMT_DEVICE_UUID_FILE), text);
        EXPECT_EQ(std::string(get_device_uuid()), want);
    }
}

TEST_F(Probes, KeptVsysLockTextNamesAnotherPathAndAFailedIoctlIsNotLocked) {
    ConsoleCapture console;
    LogCapture log;
    vsys_lock_rec rec{3, 9};
    EXPECT_EQ(libmgmt_procfs_vsys_lock_status_ioctl(7, &rec), -1);
    EXPECT_EQ(console.text(), "pid " + std::to_string(getpid()) +
                                  ", cmd 7, Open /proc/mgd_vsys_lock/mgd_vsys_lock_status failed : No such file "
                                  "or directory\n");

    // An entry that is no driver: the request fails, and the answer is "not locked".
    console.clear();
    make_dirs(root.path("/proc"));
    write_file(root.path(MGMT_VSYS_LOCK_PROC), "");
    int locked = -1;
    run_as(44, [&] { locked = libmgmt_is_vsys_locked(3); });
    EXPECT_EQ(locked, 0);
    EXPECT_EQ(console.text(), "");
    EXPECT_EQ(log.text(), "[app44/0]: ioctl mgd_vsys_lock_status cmd 7 failed, ret -1\n");
}

// ---------------------------------------------------------------- exchanges

TEST_F(Probes, CapabilityChecksumAsksWithTwoAndReadsOneWord) {
    uint32_t crc = 5;
    int32_t status = 0;
    TestPeer mgd(MGD_APPID);
    answer(mgd, 602, [&] { return Answer{host_words({0xc0ffee11}), status, true}; });
    EXPECT_EQ(get_dynamic_cap_crc32(&crc), 0);
    EXPECT_EQ(crc, 0xc0ffee11u);
    ASSERT_TRUE(mgd.wait_for(1));
    EXPECT_EQ(mgd.received()[0].bytes, host_words({2}));
    EXPECT_EQ(get_dynamic_cap_crc32(nullptr), 0) << "the word may go nowhere";
    status = -1;
    EXPECT_EQ(get_dynamic_cap_crc32(&crc), -1);
}

TEST_F(Probes, SessionCutReadsThreeWordsAndIgnoresTheStatus) {
    uint32_t words[3] = {1, 2, 3};
    EXPECT_EQ(stdout_of([&] {
                  EXPECT_EQ(get_session_cut(words), -1);
                  fault::arm_alloc_failures(1);
                  EXPECT_EQ(get_session_cut(words), -1);
              }),
              "CAP: ipc send failed\nCAP: ipc malloc error\n");
    TestPeer mgd(MGD_APPID);
    answer(mgd, 611, [] { return Answer{host_words({7, 8, 9}), -4, true}; });
    EXPECT_EQ(get_session_cut(words), 0);
    EXPECT_EQ(std::vector<uint32_t>(words, words + 3), (std::vector<uint32_t>{7, 8, 9}));
}

TEST_F(Probes, KeptNetworkManagerTimeoutIsASignedCompareAndAFailedCheckCountsAsTimedOut) {
    ConsoleCapture console;
    int32_t limit = 0, passed = 0, status = 0;
    TestPeer mgd(MGD_APPID);
    answer(mgd, 836, [&] { return Answer{host_words({0xffffffff, uint32_t(limit), uint32_t(passed)}), status, true}; });
    for (auto [l, p, want] : {std::tuple{30, 29, 0}, {30, 30, 1}, {-1, 0, 1}, {0, -1, 0}}) {
        limit = l;
        passed = p;
        EXPECT_EQ(libmgmt_check_network_manager_disconnect_timeout(), want) << l << " " << p;
    }
    ASSERT_TRUE(mgd.wait_for(4));
    EXPECT_EQ(mgd.received()[0].bytes, host_words({1, 0, 0}));

    // On an SD-WAN platform only; there a failed check counts as timed out.
    EXPECT_EQ(libmgmt_is_sdwan_platform_and_network_manager_disconnect_timeout(), 0);
    EXPECT_EQ(mgd.received().size(), 4u) << "not asked off the platform";
    setenv("MGMT_PLATFORM", "mq500_sdwan", 1);
    status = -1;
    EXPECT_EQ(libmgmt_is_sdwan_platform_and_network_manager_disconnect_timeout(), 1);
    EXPECT_EQ(console.text(), "LIBMGMT: Get network manager timeout failed!\n");
    console.clear();
    fault::arm_alloc_failures(1);
    EXPECT_EQ(libmgmt_check_network_manager_disconnect_timeout(), -1);
    EXPECT_EQ(console.text(), "LIBMGMT: Can`t not malloc memory!\n");
}

TEST_F(Probes, AvailabilityIsTheByteAtOffset44OfAFullReply) {
    EXPECT_EQ(vk_get_avai_status_para(), -1) << "no application 0";
    Bytes reply(64, 0);
    int32_t status = 0;
    TestPeer app0(0);
    answer(app0, 880, [&] { return Answer{reply, status, true}; });
    // size, byte 44, status: the answer
    for (auto [size, flag, st, want] : {std::tuple{64, 1, 0, 1}, {64, 2, 0, 0}, {63, 1, 0, -1}, {64, 1, -1, -1}}) {
        reply.assign(size_t(size), 0);
        reply[44] = uint8_t(flag);
        status = st;
        EXPECT_EQ(vk_get_avai_status_para(), want) << size << " " << flag << " " << st;
    }
    ASSERT_TRUE(app0.wait_for(1));
    EXPECT_EQ(app0.received()[0].bytes, Bytes(12, 0));
}

// ---------------------------------------------------------------- start-up

// A daemon hands the handler to its platform's dispatcher.
static_assert(std::is_same_v<decltype(&system_language_info_ipcmsg_handler), ipc_handler_fn>);

TEST(Language, OnlyTheExactNameZhCnMeansChinese) {
    set_language("zh_CN");
    EXPECT_EQ(_system_language, 2);
    set_language("zh_CN.UTF-8");
    EXPECT_EQ(get_sys_language(), 1);
    // The handler reads the name no further than the payload reaches, and replies empty.
    for (auto [payload, len, want] : {std::tuple{"zh_CNZZZ", 5u, 2}, {"zh_CNX", 6u, 1}}) {
        uint32_t reply_len = 99;
        char copy[8];
        std::memcpy(copy, payload, len);
        EXPECT_EQ(system_language_info_ipcmsg_handler(nullptr, nullptr, copy, len, nullptr, nullptr, &reply_len), 0);
        EXPECT_EQ(reply_len, 0u);
        EXPECT_EQ(get_sys_language(), want) << payload;
    }
}

TEST(Startup, PublishNoticeIsAnEmptyMessage324ToApplication15) {
    TestPeer admind(15);
    admind.handle(324, [](const Received &) { return std::vector<Answer>{}; });
    run_as(5, [] { EXPECT_EQ(vk_admind_publish_info(), 0); });
    ASSERT_TRUE(admind.wait_for(1));
    const Received got = admind.received()[0];
    EXPECT_EQ(got.kind, uint32_t(IPC_KIND_ONEWAY));
    EXPECT_EQ(got.src_app, 5u);
    EXPECT_TRUE(got.bytes.empty());
}

TEST(Startup, KeptSigIntServesSigchldReapsEveryEndedChildAndKeepsErrno) {
    for (int i = 0; i < 2; ++i) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) _exit(i);
        siginfo_t info{};
        ASSERT_EQ(waitid(P_PID, id_t(pid), &info, WEXITED | WNOWAIT), 0) << "ended, left unreaped";
    }
    // One that still runs (until it is killed) is left alone, and the handler does not block.
    const pid_t runner = fork();
    ASSERT_GE(runner, 0);
    if (runner == 0) {
        pause();
        _exit(0);
    }
    errno = E2BIG;
    sig_int(SIGCHLD);
    EXPECT_EQ(errno, E2BIG);
    siginfo_t info{};
    EXPECT_TRUE(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0) << "an ended child left";
    EXPECT_EQ(waitpid(runner, nullptr, WNOHANG), 0) << "still running, not reaped";
    kill(runner, SIGKILL);
    EXPECT_EQ(waitpid(runner, nullptr, 0), runner);
}

// ---------------------------------------------------------------- firmware

constexpr uint32_t kCaller = 44;

// Each code's result, then its log line and its user text as they came; the buffer is zeroed to
// its size and not a byte further.
TEST(FirmwareStatus, EveryCodeGivesItsLogLineUserTextAndResult) {
    std::vector<int32_t> codes = {-1, 0};
    for (int32_t code = 9999; code <= 10033; ++code)
        codes.push_back(code);
    std::string got;
    for (int32_t code : codes) {
        char buf[300];
        std::memset(buf, 'X', sizeof buf);
        LogCapture log;
        int result = -1;
        run_as(kCaller, [&] { result = status_code_2_msg(code, buf, 256); });
        const size_t len = strnlen(buf, 256);
        EXPECT_TRUE(std::all_of(buf + len, buf + 256, [](char c) { return c == 0; }) && buf[256] == 'X') << code;
        got += "== " + std::to_string(code) + ": " + std::to_string(result) +
               "\n" + log.text() + std::string(buf, len);
    }
    expect_golden("firmware.golden", got);

    char small[16];
    std::memset(small, 'X', sizeof small);
    LogCapture log;
    int cut = 0, untouched = -1;
    run_as(kCaller, [&] {
        cut = status_code_2_msg(10013, small, 10);
        untouched = status_code_2_msg(10015, small, 0);
    });
    EXPECT_EQ(cut, 400000005);
    EXPECT_EQ(untouched, 0);
    EXPECT_STREQ(small, "Error: Fa") << "the text is cut to the buffer; a size of 0 is not touched";
}

// ---------------------------------------------------------------- image jobs

struct ImageCall {
    int rc = 0;
    uint32_t code = 0xdeadbeef;
    std::string err;
};

// With fail_alloc, the call's message cannot be had.
ImageCall load(uint32_t op, const char *first, const char *second, bool fail_alloc = false) {
    ImageCall c;
    char err[256] = {};
    run_as(kCaller, [&] {
        if (fail_alloc) fault::arm_alloc_failures(1);
        c.rc = segment_load_image_helper(op, first, second, &c.code, err);
    });
    c.err = err;
    return c;
}

TEST(Image, RequestIsBigEndianWithBothStringsAndTheirTerminatorsAndFailuresAreTold) {
    const std::string failure = "[app44/0]: Communication with [app80/0] failed\n";
    ImageCall c = load(1, "a", "b");
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.err, failure) << "no service";

    std::atomic<int32_t> status{0};
    TestPeer service(VK_FIRMWARE_APPID);
    service.handle(VK_FIRMWARE_IMAGE_MSG, [&](const Received &) {
        return std::vector<Answer>{{be_words({10013}) + "Z", status, true}};
    });
    c = load(0x0a0b0c0d, "/flash/image", "fw.bin");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.code, 10013u);
    EXPECT_EQ(c.err, "");
    EXPECT_EQ(load(2, nullptr, nullptr).rc, 0);
    ASSERT_TRUE(service.wait_for(2));
    const auto got = service.received();
    EXPECT_EQ(got[0].bytes, be_words({0x0a0b0c0d, 13, 7}) + std::string("/flash/image\0fw.bin\0", 20));
    EXPECT_EQ(got[1].bytes, be_words({2, 0, 0})) << "exactly 12 bytes";

    status = -2;
    EXPECT_EQ(load(1, "a", "b").err, failure) << "a refusing status";
    c = load(1, "a", nullptr, true);
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.err, "[app44/0]: Alloc memory for firmware service failed\n");
}

// ---------------------------------------------------------------- heartbeat

TEST(Heartbeat, StateDecidesWhetherTheApmIpcIsReadyAndFailuresAreLogged) {
    LogCapture log;
    int rc = 0, ready = 1;
    uint32_t state = 0;
    run_as(kCaller, [&] {
        rc = read_heartbeat_state(nullptr);
        ready = is_apm_ipc_ready();
        fault::arm_alloc_failures(1);
        EXPECT_EQ(read_heartbeat_state(&state), -1);
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(ready, 0);
    EXPECT_EQ(log.text(), "[app44/0]: The heartbeat state value is invalid\n"
                          "[app44/0]: Communication with [app17/0] failed\n"
                          "[app44/0]: Alloc memory for heartbeat state failed\n");

    uint32_t next_state = 0;
    int32_t status = 0;
    TestPeer apm(VK_HEARTBEAT_APPID);
    apm.handle(VK_HEARTBEAT_MSG, [&](const Received &) {
        return std::vector<Answer>{{be_words({next_state}) + "Z", status, true}};
    });
    const int want[] = {0, 1, 1, 1, 0};
    for (uint32_t s = 0; s <= 4; ++s) {
        next_state = s;
        run_as(kCaller, [&] { ready = is_apm_ipc_ready(); });
        EXPECT_EQ(ready, want[s]) << "state " << s;
    }
}

// ---------------------------------------------------------------- traps

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

// Without an installed function the IPC road frames in big-endian order; only kind 12 may lack its
// payload.
TEST_F(Traps, IpcRoadSendsBigEndianWordsToApplication23) {
    std::vector<int> rc;
    run_as(31, [&] {
        rc = {vk_trap(0x0102, "link down", 9, 0xa1b2c3d4), vk_private_trap(0x55, "ev", 2, 7),
              vk_trap(12, nullptr, 4, 9)};
    });
    EXPECT_EQ(rc, std::vector<int>(3, 0));
    EXPECT_EQ(vk_trap(5, nullptr, 4, 0), -1);
    EXPECT_EQ(stdout_of([] {
                  fault::arm_alloc_failures(1);
                  EXPECT_EQ(vk_trap(1, "a", 1, 0), -1);
              }),
              "TRAP: cannot alloc\n");
    ASSERT_TRUE(rx.wait_for(3));
    const auto got = rx.received();
    EXPECT_EQ(got[0].kind, uint32_t(IPC_KIND_ONEWAY));
    EXPECT_EQ(got[0].src_app, 31u);
    EXPECT_EQ(got[0].bytes, be_words({0x0102, 0, 0xa1b2c3d4}) + "link down");
    EXPECT_EQ(got[1].bytes, be_words({VK_TRAP_PRIVATE, 0x55, 7}) + "ev");
    EXPECT_EQ(Bytes(got[2].bytes.begin(), got[2].bytes.begin() + 12), be_words({12, 0, 9}));
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

using Fifo = Probes;

TEST_F(Fifo, RecordsGoThroughTheFifoInHostOrder) {
    vk_agent_trap_init();
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
