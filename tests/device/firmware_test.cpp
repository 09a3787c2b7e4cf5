// Firmware service calls: every status code's log line and user text, the image request byte for
// byte against a test service bound as application 80, and the heartbeat probe of application 17.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "device_support.h"
#include "mgmt/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

constexpr uint32_t kCaller = 44;

const char *kInvalid = "Error: Failed to upgrade. The firmware is invalid or corrupt\n";
const char *kMismatch = "Error: Failed to upgrade. The firmware does not match with the device\n";
const char *kInternal = "Error: Failed to upgrade. Internal error occurred\n";
const char *kSwitch = "Error: Failed to switch the active firmware. Internal error occurred\n";
const char *kRestricted = "The firmware upgrade was restricted(Upgraded the special firmware version without reboot)\n";

// A code, its log line behind "[app44/0]: " (none when empty), its user text and its result.
struct Row {
    int32_t code;
    std::string log, user;
    int result;
};

const Row kRows[] = {
    {10006, "Someone else is upgrading firmware now\n",
     "Error: Failed to upgrade the firmware. Someone else is upgrading now\n", 400000003},
    {10007, "Someone else is switching firmware now\n",
     "Error: Failed to switch the active firmware. Someone else is switching now\n", 400000003},
    {10008, "The specified firmware did not exist or uploaded the firmware failed\n",
     "Error: Failed to upgrade. The specified firmware does not exist\n", 400000005},
    {10009, "The image exceeded the size limitation\n", kInvalid, 400000005},
    {10010, "Decrypted the firmware failed\n", kInvalid, 400000005},
    {10011, "Parsed the firmware header failed\n", kInvalid, 400000005},
    {10012, "Parsed the firmware version or read the running firmware version failed\n", kInvalid, 400000005},
    {10013, "The firmware did not match with the device\n", kMismatch, 400000005},
    {10014, "Verified the firmware MD5 or Parsed the MD5 of firmawre failed\n", kInvalid, 400000005},
    {10016, "The emergency system restore device did not exist\n", kInternal, 400000005},
    {10017, "The firmware with OS package did not exist\n", kInternal, 400000005},
    {10018,
     "The upgraded firmware was incompatible with active firmawre(Upgraded the firmware ith lower version, etc)\n",
     kMismatch, 400000005},
    {10019, kRestricted, kInternal, 400000005},
    {10021, "Chassis downloaded or upgraded the BFM firmware failed\n", kInternal, 400000005},
    {10022, "Executed the firmware upgrade scripts or command failed\n", kInternal, 400000005},
    {10023, "The firmware switch scripts was executed with invalid arguments\n", kSwitch, 500000001},
    {10024, kRestricted, kSwitch, 500000001},
    {10025, "Chassis switched the BFM firmware failed\n", kSwitch, 500000001},
    {10026, "Executed the firmware switch scripts or command failed\n", kSwitch, 500000001},
    {10029, "Check the firmware image failed\n", kInvalid, 400000005},
    {10032, "Upgrade BFM image failed, flash is out of memory or ipc error occurred\n",
     "Error: Failed to upgrade. Out of flash memory or ipc error occurred\n", 400000005},
};

TEST(FirmwareStatus, EveryCodeGivesItsLogLineUserTextAndResult) {
    std::vector<Row> rows(std::begin(kRows), std::end(kRows));
    for (int32_t code : {10000, 10001, 10002, 10003, 10004, 10005, 10015})
        rows.push_back({code, "", "", 0});
    for (int32_t code : {9999, 10020, 10027, 10028, 10030, 10031, 10033, -1, 0})
        rows.push_back({code, "", "Error: Unknown error\n", 500000000});
    for (const Row &r : rows) {
        SCOPED_TRACE(r.code);
        char buf[300];
        std::memset(buf, 'X', sizeof buf);
        LogCapture log;
        int result = -1;
        run_as(kCaller, [&] { result = status_code_2_msg(r.code, buf, 256); });
        EXPECT_EQ(result, r.result);
        EXPECT_EQ(log.text(), r.log.empty() ? "" : "[app44/0]: " + r.log);
        EXPECT_EQ(std::string(buf, strnlen(buf, 256)), r.user);
        EXPECT_TRUE(std::all_of(buf + r.user.size(), buf + 256, [](char c) { return c == 0; })) << "zeroed to its size";
        EXPECT_EQ(buf[256], 'X');
    }

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

ImageCall load(uint32_t op, const char *first, const char *second) {
    ImageCall c;
    char err[256] = {};
    run_as(kCaller, [&] { c.rc = segment_load_image_helper(op, first, second, &c.code, err); });
    c.err = err;
    return c;
}

// A service that answers every request with the given code and status.
void answer(TestPeer &service, uint32_t code, int32_t status) {
    service.handle(VK_FIRMWARE_IMAGE_MSG, [code, status](const Received &) {
        return std::vector<Answer>{{be_words({code}) + "Z", status, true}};
    });
}

TEST(Image, RequestIsBigEndianWithBothStringsAndTheirTerminators) {
    TestPeer service(VK_FIRMWARE_APPID);
    answer(service, 10013, 0);
    const ImageCall c = load(0x0a0b0c0d, "/flash/image", "fw.bin");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.code, 10013u);
    EXPECT_EQ(c.err, "");
    EXPECT_EQ(load(2, nullptr, nullptr).rc, 0);
    EXPECT_EQ(load(3, nullptr, "n").rc, 0);
    ASSERT_TRUE(service.wait_for(3));
    const auto got = service.received();
    EXPECT_EQ(got[0].bytes, be_words({0x0a0b0c0d, 13, 7}) + std::string("/flash/image\0fw.bin\0", 20));
    EXPECT_EQ(got[0].kind, uint32_t(IPC_KIND_REQUEST));
    EXPECT_EQ(got[0].src_app, kCaller);
    EXPECT_EQ(got[1].bytes, be_words({2, 0, 0})) << "exactly 12 bytes";
    EXPECT_EQ(got[2].bytes, be_words({3, 0, 2}) + std::string("n\0", 2));
}

TEST(Image, FailuresOfTheServiceOrOfMemoryAreTold) {
    const std::string failure = "[app44/0]: Communication with [app80/0] failed\n";
    ImageCall c = load(1, "a", "b");
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.err, failure) << "no service";
    EXPECT_EQ(c.code, 0xdeadbeefu) << "no code without an answer";
    {
        TestPeer service(VK_FIRMWARE_APPID);
        answer(service, 10000, -2);
        c = load(1, "a", "b");
        EXPECT_EQ(c.rc, -1);
        EXPECT_EQ(c.err, failure) << "a refusing status";
    }

    TestPeer service(VK_FIRMWARE_APPID);
    answer(service, 10000, 0);
    for (int skip : {0, 1}) {
        hooks::fail_ipcmsg_alloc(1, skip);
        c = load(1, "a", nullptr);
        EXPECT_EQ(c.rc, -1);
        EXPECT_EQ(c.err, "[app44/0]: Alloc memory for firmware service failed\n") << skip;
    }
    hooks::reset();
    EXPECT_FALSE(service.wait_for(1, 100));
    EXPECT_EQ(image_manage_helper(), 0);
    EXPECT_EQ(image_query_helper(), 0);
}

// ---------------------------------------------------------------- heartbeat

TEST(Heartbeat, StateDecidesWhetherTheApmIpcIsReady) {
    uint32_t next_state = 0;
    TestPeer apm(VK_HEARTBEAT_APPID);
    apm.handle(VK_HEARTBEAT_MSG,
               [&](const Received &) { return std::vector<Answer>{{be_words({next_state}) + "Z", 0, true}}; });
    const int want[] = {0, 1, 1, 1, 0};
    for (uint32_t s = 0; s <= 4; ++s) {
        next_state = s;
        int ready = -1;
        run_as(kCaller, [&] { ready = is_apm_ipc_ready(); });
        EXPECT_EQ(ready, want[s]) << "state " << s;
    }
    ASSERT_TRUE(apm.wait_for(5));
    EXPECT_EQ(apm.received()[0].bytes.size(), 5u);
    next_state = 0x01020304;
    uint32_t state = 0;
    EXPECT_EQ(read_heartbeat_state(&state), 0);
    EXPECT_EQ(state, 0x01020304u);
}

TEST(Heartbeat, FailuresAreLogged) {
    LogCapture log;
    int rc = 0, ready = 1;
    uint32_t state = 0;
    run_as(kCaller, [&] {
        rc = read_heartbeat_state(nullptr);
        EXPECT_EQ(read_heartbeat_state(&state), -1);
        ready = is_apm_ipc_ready();
        hooks::fail_ipcmsg_alloc(1);
        EXPECT_EQ(read_heartbeat_state(&state), -1);
    });
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(ready, 0);
    EXPECT_EQ(log.text(), "[app44/0]: The heartbeat state value is invalid\n"
                          "[app44/0]: Communication with [app17/0] failed\n"
                          "[app44/0]: Communication with [app17/0] failed\n"
                          "[app44/0]: Alloc memory for heartbeat state failed\n");
    TestPeer apm(VK_HEARTBEAT_APPID);
    apm.handle(VK_HEARTBEAT_MSG, [](const Received &) { return std::vector<Answer>{{be_words({1}), -1, true}}; });
    run_as(kCaller, [&] { ready = is_apm_ipc_ready(); });
    EXPECT_EQ(ready, 0) << "a refusing status is a failure";
}

} // namespace
