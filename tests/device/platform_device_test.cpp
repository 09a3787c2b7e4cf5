// The stand-in's shell command runner, which the device tests otherwise capture: its outcome, its
// time limit, and a run that is not waited for.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include "device_support.h"
#include "mgmt/platform/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

TEST(StandIn, ShellCommandsSucceedFailAndRunOutOfTime) {
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
}

} // namespace
