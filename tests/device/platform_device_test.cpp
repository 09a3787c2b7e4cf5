// The stand-in's device services where the device tests do not already lean on them: the outcome
// of a shell command, device paths, reboot without a command, the boot console's sink, and publish
// channels whose subscribers come and go.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include "device_support.h"
#include "mgmt/platform/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

TEST(StandIn, ShellCommandsPathsRebootAndTheBootConsole) {
    Sysroot root;
    const std::string out = root.dir() + "/out";
    EXPECT_EQ(run_shellcmd("/bin/sh", ("echo ran > " + out).c_str(), 1, 0), 0);
    EXPECT_EQ(read_file(out), "ran\n");
    for (const char *failing : std::initializer_list<const char *>{"exit 3", "kill -9 $$", nullptr})
        EXPECT_EQ(run_shellcmd("/bin/sh", failing, 1, 0), -1) << (failing ? failing : "null");
    EXPECT_EQ(run_shellcmd("/bin/sh", "sleep 5", 1, 1), -1) << "out of time";
    EXPECT_EQ(run_shellcmd("/bin/sh", ("sleep 0.2; echo late > " + out).c_str(), 0, 0), 0);
    siginfo_t info{};
    EXPECT_NE(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT), 0) << "nothing to reap without wait";
    EXPECT_TRUE(wait_until([&] { return read_file(out) == "late\n"; }, {root.dir()}));

    char path[256];
    EXPECT_EQ(std::string(device_path("/etc/x", path, sizeof path)), root.root() + "/etc/x");
    EXPECT_STREQ(device_path("relative", path, sizeof path), "relative");
    {
        LogCapture log;
        unsetenv("MGMT_REBOOT_CMD");
        EXPECT_EQ(vk_reboot(), 0);
        EXPECT_NE(log.text().find("no reboot command"), std::string::npos) << log.text();
    }

    boot_print("boot %d\n", 1);
    std::string sunk;
    boot_set_sink([](const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }, &sunk);
    boot_print("captured\n");
    boot_set_sink(nullptr, nullptr);
    EXPECT_EQ(sunk, "captured\n");
    EXPECT_EQ(read_file(root.boot_console()), "boot 1\n");
    setenv("MGMT_SYSROOT", "", 1);
    EXPECT_STREQ(device_path("/etc/x", path, sizeof path), "/etc/x");
}

TEST(StandIn, PublishReachesLiveSubscribersAndDropsGoneOnes) {
    Bytes payload = {1, 2, 3};
    EXPECT_EQ(ipcmsg_publish(120, payload.data(), 3), 0) << "nobody listens: nothing to fail";
    TestPeer a(60), b(61);
    for (TestPeer *peer : {&a, &b})
        peer->handle(120, [](const Received &) { return std::vector<Answer>{}; });
    for (uint32_t app : {60, 61, 62}) // nobody holds 62
        ASSERT_EQ(ipc_subscribe(120, app, 0), 0);
    ASSERT_EQ(ipc_subscribe(121, 61, 0), 0);
    EXPECT_EQ(ipcmsg_publish(120, payload.data(), 3), 0);
    ASSERT_TRUE(a.wait_for(1) && b.wait_for(1));
    EXPECT_EQ(a.received()[0].msg, 120);
    EXPECT_EQ(a.received()[0].bytes, payload);
    EXPECT_EQ(a.received()[0].kind, uint32_t(IPC_KIND_ONEWAY));
    const std::string dir = ipc_runtime_dir();
    EXPECT_FALSE(exists(dir + "/c120.s0.a62.i0")) << "the gone subscriber was dropped";
    EXPECT_TRUE(exists(dir + "/c120.s0.a60.i0"));
    ASSERT_EQ(ipc_unsubscribe(120, 60, 0), 0);
    EXPECT_EQ(ipcmsg_publish(120, payload.data(), 1), 0);
    ASSERT_TRUE(b.wait_for(2));
    EXPECT_FALSE(a.wait_for(2, 100));
    ipc_unsubscribe(120, 61, 0);
    ipc_unsubscribe(121, 61, 0);
}

} // namespace
