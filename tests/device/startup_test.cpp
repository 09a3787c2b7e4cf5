// Start-up and language: the language word and its IPC handler, locale and catalogue binding, the
// notice to the administration daemon, and the reaping of children.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <libintl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "device_support.h"
#include "mgmt/device.h"
#include "platform/device.h"
#include "test_support.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

TEST(Language, OnlyTheExactNameZhCnMeansChinese) {
    set_language("zh_CN");
    EXPECT_EQ(get_sys_language(), 2);
    EXPECT_EQ(_system_language, 2);
    for (const char *other : {"en_US", "zh_CN.UTF-8", "zh", ""}) {
        set_language("zh_CN");
        set_language(other);
        EXPECT_EQ(get_sys_language(), 1) << other;
    }
}

int ask_language(const std::string &payload, int32_t *status, uint32_t *reply_len) {
    uint8_t reply[16];
    *reply_len = sizeof reply;
    return ipcmsg_send_and_recv(mktipcid(0, 0, 90), 0, 700, const_cast<char *>(payload.data()),
                                uint32_t(payload.size()), status, reply, reply_len, 2000);
}

// A daemon hands the handler to its dispatcher; the language name arrives without a terminator.
TEST(Language, HandlerSetsTheWordFromAMessageAndRepliesEmpty) {
    ipc_endpoint_t *ep = ipc_endpoint_open(90, 0, nullptr);
    ASSERT_NE(ep, nullptr);
    ASSERT_EQ(ipc_endpoint_handler(ep, 700, system_language_info_ipcmsg_handler), 0);
    std::thread server([ep] { ipc_endpoint_serve(ep); });
    set_language("en_US");
    int32_t status = -9;
    uint32_t rlen = 0;
    EXPECT_EQ(ask_language("zh_CN", &status, &rlen), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(rlen, 0u);
    EXPECT_EQ(get_sys_language(), 2);
    EXPECT_EQ(ask_language(std::string("en_US\0", 6), &status, &rlen), 0);
    EXPECT_EQ(get_sys_language(), 1);
    EXPECT_EQ(ask_language("zh_CNX", &status, &rlen), 0);
    EXPECT_EQ(get_sys_language(), 1) << "the name is compared whole";
    ipc_endpoint_stop(ep);
    server.join();
    ipc_endpoint_close(ep);

    // Called directly: the name ends where the payload ends.
    char name[8] = {'z', 'h', '_', 'C', 'N', 'Z', 'Z', 'Z'};
    uint32_t reply_len = 99;
    EXPECT_EQ(system_language_info_ipcmsg_handler(nullptr, nullptr, name, 5, nullptr, nullptr, &reply_len), 0);
    EXPECT_EQ(reply_len, 0u);
    EXPECT_EQ(get_sys_language(), 2);
}

TEST(Language, LocaleNamesBindTheCatalogueOrNothing) {
    vk_language_init("zh_CN.UTF-8");
    EXPECT_STREQ(textdomain(nullptr), "msg");
    EXPECT_STREQ(bindtextdomain("msg", nullptr), "/usr/share/locale");
    EXPECT_STREQ(bind_textdomain_codeset("msg", nullptr), "utf-8");
    vk_language_init("fr_FR.UTF-8");
    vk_language_init("zh_CN");
    EXPECT_STREQ(textdomain(nullptr), "msg") << "other names change nothing";
    vk_language_init("en_US.UTF-8");
    EXPECT_STREQ(textdomain(nullptr), "messages") << "English selects the default domain";
    setlocale(LC_ALL, "C");
}

TEST(Startup, InitReturnsZeroAndStartsDebugging) {
    setenv("MGMT_DEBUG", "1", 1);
    EXPECT_EQ(vk_mgmt_init("test_device", 0, 0), 0);
    EXPECT_EQ(vk_debug_enabled(), 1);
    unsetenv("MGMT_DEBUG");
    EXPECT_EQ(vk_mgmt_init("test_device", 0, 0), 0);
    EXPECT_EQ(vk_debug_enabled(), 0);
}

TEST(Startup, PublishNoticeIsAnEmptyMessage324ToApplication15) {
    int rc = 0;
    {
        TestPeer admind(15);
        ASSERT_TRUE(admind.ok());
        admind.handle(324, [](const Received &) { return std::vector<Answer>{}; });
        run_as(5, [&] { rc = vk_admind_publish_info(); });
        EXPECT_EQ(rc, 0);
        ASSERT_TRUE(admind.wait_for(1));
        const auto got = admind.received();
        EXPECT_EQ(got[0].msg, 324);
        EXPECT_EQ(got[0].kind, uint32_t(IPC_KIND_ONEWAY));
        EXPECT_EQ(got[0].src_app, 5u);
        EXPECT_TRUE(got[0].bytes.empty());

        hooks::fail_ipcmsg_alloc(1);
        run_as(5, [&] { rc = vk_admind_publish_info(); });
        hooks::reset();
        EXPECT_EQ(rc, -1);
        EXPECT_FALSE(admind.wait_for(2, 200)) << "nothing is sent without a message";
    }
    run_as(5, [&] { rc = vk_admind_publish_info(); });
    EXPECT_LT(rc, 0) << "nobody bound as application 15";
}

// Children that ended, peeked at without reaping them.
bool zombie_left() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

TEST(Startup, SigIntReapsEveryEndedChildAndKeepsErrno) {
    for (int i = 0; i < 3; ++i) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) _exit(i);
        siginfo_t info{};
        ASSERT_EQ(waitid(P_PID, id_t(pid), &info, WEXITED | WNOWAIT), 0) << "ended, left unreaped";
    }
    ASSERT_TRUE(zombie_left());
    // One that still runs is left alone, and the handler does not block.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t runner = fork();
    ASSERT_GE(runner, 0);
    if (runner == 0) {
        char c;
        close(fds[1]);
        (void)!read(fds[0], &c, 1);
        _exit(0);
    }
    close(fds[0]);
    errno = E2BIG;
    sig_int(SIGCHLD);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_FALSE(zombie_left());
    EXPECT_EQ(waitpid(runner, nullptr, WNOHANG), 0) << "still running, not reaped";
    close(fds[1]);
    EXPECT_EQ(waitpid(runner, nullptr, 0), runner);
    sig_int(SIGCHLD); // no child at all: returns at once
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

} // namespace
