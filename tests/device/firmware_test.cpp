// Firmware service calls: every status code's log line and user text (held to
// tests/device/firmware.golden), the image request byte for byte against a test service bound as
// application 80, and the heartbeat probe of application 17.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "device_support.h"
#include "mgmt/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

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
    EXPECT_EQ(c.code, 0xdeadbeefu) << "no code without an answer";

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
    EXPECT_EQ(got[0].kind, uint32_t(IPC_KIND_REQUEST));
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
    ASSERT_TRUE(apm.wait_for(5));
    EXPECT_EQ(apm.received()[0].bytes.size(), 5u);
    next_state = 1;
    status = -1;
    run_as(kCaller, [&] { ready = is_apm_ipc_ready(); });
    EXPECT_EQ(ready, 0) << "a refusing status is a failure";
}

} // namespace
