// Start-up and language: the language word and its IPC handler, locale and catalogue binding, the
// notice to the administration daemon, and the reaping of children.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <type_traits>

#include <sys/wait.h>
#include <unistd.h>

#include "device_support.h"
#include "mgmt/device.h"
#include "mgmt/platform/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

// A daemon hands the handler to its platform's dispatcher.
static_assert(std::is_same_v<decltype(&system_language_info_ipcmsg_handler), ipc_handler_fn>);

TEST(Language, OnlyTheExactNameZhCnMeansChinese) {
    for (const char *other : {"en_US", "zh_CN.UTF-8"}) {
        set_language("zh_CN");
        EXPECT_EQ(_system_language, 2);
        set_language(other);
        EXPECT_EQ(get_sys_language(), 1) << other;
    }
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
    sig_int(SIGCHLD); // no child at all: returns at once
}

} // namespace
