// Command execution through a test interpreter placed at the interpreter's path in a device tree
// of the test's own: the command file, its removal, the interpreter's arguments, the verdict on
// its status, the messages of the children, and that no child outlives a call.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>

#include <sys/wait.h>
#include <unistd.h>

#include "device/exec_status.h"
#include "device_support.h"
#include "mgmt/buf_list.h"
#include "mgmt/device.h"

using namespace mgmt_test;
using namespace devtest;
using mgmt_device::ChildVerdict;

namespace {

// Records its arguments and the commands of the file it was given, answers on standard output,
// and then does what CLI_TEST_ACTION asks.
const char *kInterpreter = R"(#!/bin/sh
printf 'argv:%s\n' "$*" >> "$CLI_TEST_LOG"
while [ $# -gt 1 ]; do
  case "$1" in -p|-b) file="$2"; mode="$1" ;; esac
  shift
done
cat "$file" >> "$CLI_TEST_LOG.commands"
[ "$mode" = -b ] && echo "ran $file"
[ "$CLI_TEST_ACTION" = rm ] && rm -f "$file"
exit 0
)";

// Waits until no child is left, running or ended. A child may end before the call has installed
// its handler for SIGCHLD, which then runs here in its stead.
bool children_gone(int ms = 5000) { return devtest::children_gone([] { sig_int(SIGCHLD); }, ms); }

// Calls fn on this thread as application app. The library's children are forked while this
// process has no other thread, so that what they run at exit finds no lock held.
void as_app(uint32_t app, const std::function<void()> &fn) {
    ipc_set_thread_identity(app, 0);
    fn();
    ipc_reset();
}

void (*sigchld_handler())(int) {
    struct sigaction sa {};
    sigaction(SIGCHLD, nullptr, &sa);
    return sa.sa_handler;
}

bool matches(const std::string &text, const std::string &pattern) {
    return std::regex_match(text, std::regex(pattern));
}

class Command : public ::testing::Test {
  protected:
    void SetUp() override {
        make_dirs(root.path("/etc"));
        make_dirs(root.path("/usr/local/sbin"));
        write_file(root.path(MGMT_CLI_PATH), kInterpreter, 0755);
        setenv("CLI_TEST_LOG", log.c_str(), 1);
        unsetenv("CLI_TEST_ACTION");
        signal(SIGCHLD, SIG_DFL);
        fflush(nullptr); // the children end with exit(), which flushes what they inherited
    }
    void TearDown() override {
        reset_hooks();
        // Every child is gone by now, reaped by the library's handler or by the wait of the call.
        EXPECT_TRUE(children_gone(10000)) << "a child outlived the call";
        signal(SIGCHLD, SIG_DFL);
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        unsetenv("CLI_TEST_LOG");
        unsetenv("CLI_TEST_ACTION");
    }
    std::vector<std::string> command_files() {
        std::vector<std::string> out;
        std::error_code ec;
        for (auto &e : std::filesystem::directory_iterator(root.path("/etc"), ec))
            if (e.path().filename().string().starts_with("CMD_")) out.push_back(e.path().filename());
        return out;
    }
    std::string log_text() { return read_file(log); }
    std::string console() { return read_file(root.console()); }
    // Waits until pred holds, tried again on each change to the device's /etc or the test's files.
    bool files_settle(const std::function<bool()> &pred) { return wait_until(pred, {root.path("/etc"), root.dir()}); }
    // Waits for calls of exec_command_set to be over: the interpreter ran n times, the command
    // files are gone and no child is left.
    bool runs_over(long n) {
        return files_settle([&] {
                   const std::string t = log_text();
                   return std::count(t.begin(), t.end(), '\n') >= n && command_files().empty();
               }) &&
               children_gone();
    }
    void clear_outputs() {
        for (const std::string &f : {log, log + ".commands", root.console(), root.boot_console()})
            std::remove(f.c_str());
    }

    // A fresh command file, and the call of exec_command_file_redirect on it.
    int run(int mode, int wait_flag) {
        write_file(file, "set a\nset b\n");
        return exec_command_file_redirect(file.c_str(), out.c_str(), mode, wait_flag);
    }

    Sysroot root;
    std::string log = root.dir() + "/cli.log", file = root.dir() + "/batch.cmds", out = root.dir() + "/batch.out";
};

TEST_F(Command, ChildReportsOnTheConsoleWhatWentWrong) {
    // The interpreter removed the file itself: the child's own removal fails. The text keeps the
    // device path. A command longer than a slice reaches the file whole.
    setenv("CLI_TEST_ACTION", "rm", 1);
    const std::string one_long(2500, 'x');
    as_app(77, [&] { EXPECT_EQ(exec_command_set(one_long.c_str(), 42), 0); });
    EXPECT_EQ(sigchld_handler(), &sig_int) << "the handler stays in place";
    ASSERT_TRUE(runs_over(1));
    EXPECT_TRUE(matches(log_text(), "argv:-p " + root.root() + "/etc/CMD_app77[0-9]+\\.tmp -i 42\n")) << log_text();
    EXPECT_EQ(read_file(log + ".commands"), one_long + "\n");
    EXPECT_TRUE(matches(console(), "MGMTLIB: delete file \\(/etc/CMD_app77[0-9]+\\.tmp\\) error\n")) << console();
    unsetenv("CLI_TEST_ACTION");

    // No interpreter: the grandchild says so, and the file is removed all the same.
    clear_outputs();
    std::remove(root.path(MGMT_CLI_PATH).c_str());
    as_app(77, [&] { EXPECT_EQ(exec_command_set("set z", 0), 0); });
    ASSERT_TRUE(files_settle([&] { return command_files().empty(); }) && children_gone());
    EXPECT_EQ(console(), "MGMTLIB: execv failed\n");

    // No /etc: the file cannot be made; no interpreter runs.
    clear_outputs();
    rmdir(root.path("/etc").c_str());
    as_app(78, [&] { EXPECT_EQ(exec_command_set("set w", 0), 0); });
    ASSERT_TRUE(children_gone());
    EXPECT_TRUE(matches(console(), "MGMTLIB: open file /etc/CMD_app78[0-9]+\\.tmp failed\n")) << console();
}

TEST_F(Command, KeptAnImpossibleStatusIsTriedAgainAfterItsText) {
    EXPECT_EQ(mgmt_device::judge_child_status(3 << 8), ChildVerdict::done);
    EXPECT_EQ(mgmt_device::judge_child_status(SIGKILL), ChildVerdict::done);
    EXPECT_EQ(mgmt_device::judge_child_status((SIGSTOP << 8) | 0x7f), ChildVerdict::wait_again);
    // Exit code and signal both set: not a status a process can end with, so the run goes again.
    hook.child_wait_status = (1 << 8) | SIGKILL;
    ASSERT_EQ(exec_command_set("set a", 1), 0);
    ASSERT_TRUE(runs_over(2)) << log_text();
    EXPECT_EQ(console(), "MGMTLIB: child process error\n");
}

TEST_F(Command, RefusalsAndFailuresOfForkAndMemory) {
    EXPECT_EQ(exec_command_set(nullptr, 0), -1);
    EXPECT_EQ(exec_command_set("", 0), -1);
    EXPECT_EQ(sigchld_handler(), SIG_DFL) << "nothing installed for a refused call";
    {
        ConsoleCapture console;
        fault::fork_fail = 1;
        EXPECT_EQ(exec_command_file_redirect("/nonexistent/cmds", "/nonexistent/out", 0, 1), -1);
        EXPECT_EQ(console.text(), "MGMTLIB: fork process failed\n");
    }
    if (!fault::kAllocFaults) GTEST_SKIP() << "the sanitizer's allocator cannot be stood in for";
    fault::children_only = true;
    AllocHook::size_fail_size = sizeof(buf_list);
    AllocHook::size_fail = 1;
    as_app(77, [&] { EXPECT_EQ(exec_command_set("set c", 0), 0); });
    ASSERT_TRUE(children_gone());
    EXPECT_EQ(console(), "MGMTLIB: alloc momery failed\n");
    EXPECT_TRUE(command_files().empty());
}

// ---------------------------------------------------------------- file redirect

using Redirect = Command;

// The interpreter removes the file itself here, so that the child's removal fails and says so: on
// the console for mode 0, else on the boot console.
TEST_F(Redirect, ModesChooseTheOptionsAndOutputIsAppended) {
    setenv("CLI_TEST_ACTION", "rm", 1);
    const std::string failed = "MGMTLIB: delete file (" + file + ") error\n";
    for (auto [mode, options] : {std::pair{0, "-b"}, {1, "-q -b"}, {2, "-q -C -b"}, {-1, "-b"}}) {
        SCOPED_TRACE(mode);
        clear_outputs();
        write_file(out, "before\n");
        EXPECT_EQ(run(mode, 1), 0);
        // With the wait flag the run is over when the call returns.
        EXPECT_EQ(log_text(), std::string("argv:") + options + " " + file + "\n");
        EXPECT_EQ(read_file(out), "before\nran " + file + "\n");
        siginfo_t info{};
        EXPECT_NE(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT), 0) << "no child left, ended or not";
        EXPECT_EQ(read_file(root.boot_console()) + "|" + console(), mode ? failed + "|" : "|" + failed);
    }
    EXPECT_EQ(run(0, 0), 0);
    EXPECT_EQ(sigchld_handler(), &sig_int) << "without wait the handler reaps the child";
    ASSERT_TRUE(files_settle([&] { return !exists(file); }) && children_gone());
}

TEST_F(Redirect, AWaitThatDoesNotGiveTheChildIsReported) {
    hook.wait_fails = true;
    EXPECT_EQ(run(0, 1), 0);
    EXPECT_EQ(console(), "MGMTLIB: wait failed\n");
    // The child was not reaped by the call: it ends and is reaped here.
    ASSERT_TRUE(files_settle([&] { return !exists(file); }));
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
}

TEST_F(Redirect, FailuresAfterTheStartAreTheChildsAndEmptyNamesAreRefused) {
    hook.system = Hooks::fail;
    EXPECT_EQ(run(1, 1), 0);
    EXPECT_EQ(console(), "MGMTLIB: system failed\n");
    EXPECT_FALSE(exists(file)) << "the file still goes";

    write_file(file, "set a\n");
    EXPECT_EQ(exec_command_file_redirect(nullptr, out.c_str(), 0, 1), -1);
    EXPECT_EQ(exec_command_file_redirect(file.c_str(), "", 0, 0), -1);
    EXPECT_TRUE(exists(file));
}

} // namespace
