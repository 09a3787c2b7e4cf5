// The stand-in's device services as the library relies on them: programs really run (or are
// captured), their results, time limits, reboot, device paths, publish channels with subscribers
// that come and go, and the boot console.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include "device_support.h"
#include "platform/device.h"
#include "test_support.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

bool any_child() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

TEST(StandIn, ShellCommandsRunAndReportTheirOutcome) {
    Sysroot root;
    const std::string out = root.dir() + "/out";
    EXPECT_EQ(run_shellcmd("/bin/sh", ("echo ran > " + out).c_str(), 1, 0), 0);
    EXPECT_EQ(read_file(out), "ran\n");
    EXPECT_EQ(run_shellcmd("/bin/sh", "exit 3", 1, 0), -1);
    EXPECT_EQ(run_shellcmd("/bin/sh", "kill -9 $$", 1, 0), -1);
    EXPECT_EQ(run_shellcmd("/bin/sh", "sleep 5", 1, 1), -1) << "out of time";
    EXPECT_EQ(run_shellcmd("/bin/sh", nullptr, 1, 0), -1);
    EXPECT_EQ(run_shellcmd("/bin/sh", ("sleep 0.2; echo late > " + out).c_str(), 0, 0), 0);
    EXPECT_FALSE(any_child()) << "nothing to reap without wait";
    EXPECT_TRUE(eventually([&] { return read_file(out) == "late\n"; }));
}

TEST(StandIn, ProgramsResolveBelowTheSysroot) {
    Sysroot root;
    make_dirs(root.path("/usr/local/sbin"));
    const std::string out = root.dir() + "/args";
    write_file(root.path("/usr/local/sbin/tool"), "#!/bin/sh\necho \"$@\" > " + out + "\n", 0755);
    char a0[] = "/usr/local/sbin/tool", a1[] = "one", a2[] = "two";
    char *argv[] = {a0, a1, a2, nullptr};
    EXPECT_EQ(run_execv("/usr/local/sbin/tool", argv, 1, 0), 0);
    EXPECT_EQ(read_file(out), "one two\n");
    EXPECT_EQ(run_execv("/usr/local/sbin/missing", argv, 1, 0), -1);
    EXPECT_EQ(run_execv("/usr/local/sbin/missing", argv, 0, 0), -1) << "a failed start is told without wait too";
    EXPECT_FALSE(any_child());

    hooks::capture_runs(5);
    EXPECT_EQ(run_execv("/usr/local/sbin/tool", argv, 1, 0), 5);
    EXPECT_EQ(run_shellcmd("/bin/rm", "/bin/rm -rf /", 1, 0), 5);
    EXPECT_EQ(hooks::recorded(), (std::vector<std::string>{"run /usr/local/sbin/tool: /usr/local/sbin/tool one two",
                                                           "run /bin/rm: /bin/rm -rf /"}));
    hooks::reset();

    char path[256];
    EXPECT_EQ(std::string(device_path("/etc/x", path, sizeof path)), root.root() + "/etc/x");
    EXPECT_STREQ(device_path("relative", path, sizeof path), "relative");
    setenv("MGMT_SYSROOT", "", 1);
    EXPECT_STREQ(device_path("/etc/x", path, sizeof path), "/etc/x");
}

TEST(StandIn, RebootRunsTheConfiguredCommandOrOnlyLogs) {
    Sysroot root;
    LogCapture log;
    unsetenv("MGMT_REBOOT_CMD");
    EXPECT_EQ(vk_reboot(), 0);
    EXPECT_NE(log.text().find("no reboot command"), std::string::npos) << log.text();
    const std::string marker = root.dir() + "/rebooted";
    setenv("MGMT_REBOOT_CMD", ("touch " + marker).c_str(), 1);
    EXPECT_EQ(vk_reboot(), 0);
    unsetenv("MGMT_REBOOT_CMD");
    EXPECT_TRUE(exists(marker));
}

TEST(StandIn, PublishReachesLiveSubscribersAndDropsGoneOnes) {
    std::vector<uint8_t> payload = {1, 2, 3};
    EXPECT_EQ(ipcmsg_publish(120, payload.data(), 3), 0) << "nobody listens: nothing to fail";
    TestPeer a(60), b(61);
    a.handle(120, [](const Received &) { return std::vector<Answer>{}; });
    b.handle(120, [](const Received &) { return std::vector<Answer>{}; });
    ASSERT_EQ(ipc_subscribe(120, 60, 0), 0);
    ASSERT_EQ(ipc_subscribe(120, 61, 0), 0);
    ASSERT_EQ(ipc_subscribe(121, 61, 0), 0);
    ASSERT_EQ(ipc_subscribe(120, 62, 0), 0); // nobody holds 62
    EXPECT_EQ(ipcmsg_publish(120, payload.data(), 3), 0);
    ASSERT_TRUE(a.wait_for(1));
    ASSERT_TRUE(b.wait_for(1));
    EXPECT_EQ(a.received()[0].msg, 120);
    EXPECT_EQ(a.received()[0].bytes, Bytes({1, 2, 3}));
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

TEST(StandIn, BootConsoleAndTranslation) {
    Sysroot root;
    boot_print("boot %d\n", 1);
    EXPECT_EQ(read_file(root.boot_console()), "boot 1\n");
    {
        BootCapture boot;
        boot_print("captured\n");
        EXPECT_EQ(boot.text(), "captured\n");
    }
    EXPECT_EQ(read_file(root.boot_console()), "boot 1\n");
    EXPECT_STREQ(MSG_TR("Error: Unknown error\n"), "Error: Unknown error\n") << "no catalogue: the text itself";
    struct tm t {};
    const time_t zero = 0;
    EXPECT_EQ(vk_localtime(&zero, &t), &t);
    EXPECT_EQ(vk_localtime(nullptr, &t), nullptr);
}

} // namespace
