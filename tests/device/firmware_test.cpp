// Firmware service calls: every status code's log line and user text, the image request byte for
// byte against a test service bound as application 80, and the heartbeat probe of application 17.
#include <gtest/gtest.h>

#include <cstring>

#include "device_support.h"
#include "mgmt/device.h"
#include "test_support.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

constexpr uint32_t kCaller = 44;

Bytes be_word(uint32_t w) { return {uint8_t(w >> 24), uint8_t(w >> 16), uint8_t(w >> 8), uint8_t(w)}; }

const char *kInvalid = "Error: Failed to upgrade. The firmware is invalid or corrupt\n";
const char *kMismatch = "Error: Failed to upgrade. The firmware does not match with the device\n";
const char *kInternal = "Error: Failed to upgrade. Internal error occurred\n";
const char *kSwitch = "Error: Failed to switch the active firmware. Internal error occurred\n";
const char *kRestricted =
    "[app44/0]: The firmware upgrade was restricted(Upgraded the special firmware version without reboot)\n";

struct Row {
    int32_t code;
    std::string log, user;
    int result;
};

const std::vector<Row> &table() {
    static const std::vector<Row> rows = {
        {10006, "[app44/0]: Someone else is upgrading firmware now\n",
         "Error: Failed to upgrade the firmware. Someone else is upgrading now\n", 400000003},
        {10007, "[app44/0]: Someone else is switching firmware now\n",
         "Error: Failed to switch the active firmware. Someone else is switching now\n", 400000003},
        {10008, "[app44/0]: The specified firmware did not exist or uploaded the firmware failed\n",
         "Error: Failed to upgrade. The specified firmware does not exist\n", 400000005},
        {10009, "[app44/0]: The image exceeded the size limitation\n", kInvalid, 400000005},
        {10010, "[app44/0]: Decrypted the firmware failed\n", kInvalid, 400000005},
        {10011, "[app44/0]: Parsed the firmware header failed\n", kInvalid, 400000005},
        {10012, "[app44/0]: Parsed the firmware version or read the running firmware version failed\n", kInvalid,
         400000005},
        {10013, "[app44/0]: The firmware did not match with the device\n", kMismatch, 400000005},
        {10014, "[app44/0]: Verified the firmware MD5 or Parsed the MD5 of firmawre failed\n", kInvalid, 400000005},
        {10016, "[app44/0]: The emergency system restore device did not exist\n", kInternal, 400000005},
        {10017, "[app44/0]: The firmware with OS package did not exist\n", kInternal, 400000005},
        {10018,
         "[app44/0]: The upgraded firmware was incompatible with active firmawre(Upgraded the firmware ith lower "
         "version, etc)\n",
         kMismatch, 400000005},
        {10019, kRestricted, kInternal, 400000005},
        {10021, "[app44/0]: Chassis downloaded or upgraded the BFM firmware failed\n", kInternal, 400000005},
        {10022, "[app44/0]: Executed the firmware upgrade scripts or command failed\n", kInternal, 400000005},
        {10023, "[app44/0]: The firmware switch scripts was executed with invalid arguments\n", kSwitch, 500000001},
        {10024, kRestricted, kSwitch, 500000001},
        {10025, "[app44/0]: Chassis switched the BFM firmware failed\n", kSwitch, 500000001},
        {10026, "[app44/0]: Executed the firmware switch scripts or command failed\n", kSwitch, 500000001},
        {10029, "[app44/0]: Check the firmware image failed\n", kInvalid, 400000005},
        {10032, "[app44/0]: Upgrade BFM image failed, flash is out of memory or ipc error occurred\n",
         "Error: Failed to upgrade. Out of flash memory or ipc error occurred\n", 400000005},
    };
    return rows;
}

struct Outcome {
    int result;
    std::string text, log;
    bool zeroed_tail;
};

Outcome convert(int32_t code, uint32_t size = 256) {
    Outcome o{};
    char buf[300];
    std::memset(buf, 'X', sizeof buf);
    LogCapture log;
    run_as(kCaller, [&] { o.result = status_code_2_msg(code, buf, size); });
    o.text = size ? std::string(buf, strnlen(buf, size)) : std::string(buf, 3);
    o.zeroed_tail = std::all_of(buf + o.text.size(), buf + size, [](char c) { return c == 0; });
    o.log = log.text();
    return o;
}

TEST(FirmwareStatus, EveryCodeOfTheTableGivesItsLogLineUserTextAndResult) {
    for (const Row &r : table()) {
        const Outcome o = convert(r.code);
        EXPECT_EQ(o.result, r.result) << r.code;
        EXPECT_EQ(o.log, r.log) << r.code;
        EXPECT_EQ(o.text, r.user) << r.code;
        EXPECT_TRUE(o.zeroed_tail) << r.code;
    }
}

TEST(FirmwareStatus, SuccessCodesLeaveAnEmptyBufferAndNoLog) {
    for (int32_t code : {10000, 10001, 10002, 10003, 10004, 10005, 10015}) {
        const Outcome o = convert(code);
        EXPECT_EQ(o.result, 0) << code;
        EXPECT_EQ(o.text, "") << code;
        EXPECT_TRUE(o.zeroed_tail) << code;
        EXPECT_EQ(o.log, "") << code;
    }
    const Outcome untouched = convert(10015, 0);
    EXPECT_EQ(untouched.result, 0);
    EXPECT_EQ(untouched.text, "XXX") << "a size of 0 is not touched";
}

TEST(FirmwareStatus, UnknownCodesGiveTheUnknownTextWithoutLog) {
    for (int32_t code : {9999, 10020, 10027, 10028, 10030, 10031, 10033, -1, 0}) {
        const Outcome o = convert(code);
        EXPECT_EQ(o.result, 500000000) << code;
        EXPECT_EQ(o.text, "Error: Unknown error\n") << code;
        EXPECT_EQ(o.log, "") << code;
    }
    const Outcome cut = convert(10013, 10);
    EXPECT_EQ(cut.text, "Error: Fa") << "the text is cut to the buffer";
    EXPECT_EQ(cut.result, 400000005);
}

// ---------------------------------------------------------------- image jobs

struct ImageCall {
    int rc = 0;
    uint32_t code = 0xdeadbeef;
    std::string err;
};

ImageCall load(uint32_t op, const char *first, const char *second) {
    ImageCall c;
    char err[256];
    std::memset(err, 0, sizeof err);
    run_as(kCaller, [&] { c.rc = segment_load_image_helper(op, first, second, &c.code, err); });
    c.err = err;
    return c;
}

class Image : public ::testing::Test {
  protected:
    void TearDown() override { hooks::reset(); }
};

TEST_F(Image, RequestIsBigEndianWithBothStringsAndTheirTerminators) {
    TestPeer service(VK_FIRMWARE_APPID);
    service.handle(VK_FIRMWARE_IMAGE_MSG, [](const Received &) {
        Bytes reply = be_word(10013);
        reply.push_back(0x5a);
        return std::vector<Answer>{{reply, 0, true}};
    });
    const ImageCall c = load(0x0a0b0c0d, "/flash/image", "fw.bin");
    EXPECT_EQ(c.rc, 0);
    EXPECT_EQ(c.code, 10013u);
    EXPECT_EQ(c.err, "");
    ASSERT_TRUE(service.wait_for(1));
    Bytes want = be_word(0x0a0b0c0d);
    for (uint32_t w : {13u, 7u})
        for (uint8_t b : be_word(w))
            want.push_back(b);
    for (char ch : std::string("/flash/image\0fw.bin\0", 20))
        want.push_back(uint8_t(ch));
    const auto got = service.received();
    EXPECT_EQ(got[0].bytes, want);
    EXPECT_EQ(got[0].kind, uint32_t(IPC_KIND_REQUEST));
    EXPECT_EQ(got[0].src_app, kCaller);

    EXPECT_EQ(load(2, nullptr, nullptr).rc, 0);
    EXPECT_EQ(load(3, nullptr, "n").rc, 0);
    ASSERT_TRUE(service.wait_for(3));
    const auto all = service.received();
    EXPECT_EQ(all[1].bytes, (Bytes{0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0})) << "exactly 12 bytes";
    EXPECT_EQ(all[2].bytes, (Bytes{0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 2, 'n', 0}));
}

TEST_F(Image, RefusalOrAbsenceOfTheServiceIsACommunicationFailure) {
    const std::string failure = "[app44/0]: Communication with [app80/0] failed\n";
    ImageCall c = load(1, "a", "b");
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.err, failure);
    EXPECT_EQ(c.code, 0xdeadbeefu) << "no code without an answer";

    TestPeer service(VK_FIRMWARE_APPID);
    service.handle(VK_FIRMWARE_IMAGE_MSG,
                   [](const Received &) { return std::vector<Answer>{{be_word(10000), -2, true}}; });
    c = load(1, "a", "b");
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.err, failure);
}

TEST_F(Image, AllocationFailuresAreReportedAndNothingIsSent) {
    TestPeer service(VK_FIRMWARE_APPID);
    service.handle(VK_FIRMWARE_IMAGE_MSG,
                   [](const Received &) { return std::vector<Answer>{{be_word(10000), 0, true}}; });
    const std::string failure = "[app44/0]: Alloc memory for firmware service failed\n";
    hooks::fail_ipcmsg_alloc(1);
    EXPECT_EQ(load(1, "a", nullptr).err, failure);
    hooks::fail_ipcmsg_alloc(1, 1);
    const ImageCall c = load(1, "a", nullptr);
    EXPECT_EQ(c.rc, -1);
    EXPECT_EQ(c.err, failure);
    EXPECT_FALSE(service.wait_for(1, 100));
    EXPECT_EQ(image_manage_helper(), 0);
    EXPECT_EQ(image_query_helper(), 0);
}

// ---------------------------------------------------------------- heartbeat

TEST_F(Image, HeartbeatStateDecidesWhetherTheApmIpcIsReady) {
    uint32_t next_state = 0;
    TestPeer apm(VK_HEARTBEAT_APPID);
    apm.handle(VK_HEARTBEAT_MSG, [&](const Received &) {
        Bytes b = be_word(next_state);
        b.push_back(0);
        return std::vector<Answer>{{b, 0, true}};
    });
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
    int rc = -1;
    run_as(kCaller, [&] { rc = read_heartbeat_state(&state); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(state, 0x01020304u);
}

TEST_F(Image, HeartbeatFailuresAreLogged) {
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
    {
        TestPeer apm(VK_HEARTBEAT_APPID);
        apm.handle(VK_HEARTBEAT_MSG, [](const Received &) { return std::vector<Answer>{{be_word(1), -1, true}}; });
        run_as(kCaller, [&] { ready = is_apm_ipc_ready(); });
        EXPECT_EQ(ready, 0) << "a refusing status is a failure";
    }
}

} // namespace
