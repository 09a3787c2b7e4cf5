// Command execution through a test interpreter placed at the interpreter's path in a device tree
// of the test's own: the command file, its removal, the interpreter's arguments, the verdict on
// its status, the messages of the children, and that no child outlives a call.
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "device/exec_status.h"
#include "device_support.h"
#include "mgmt/buf_list.h"
#include "mgmt/device.h"
#include "test_support.h"

using namespace mgmt_test;
using namespace devtest;
using mgmt_device::ChildVerdict;
using mgmt_device::judge_child_status;

namespace {

// Records its arguments and the commands of the file it was given, answers on standard output,
// and then does what CLI_TEST_ACTION asks.
const char *kInterpreter = R"(#!/bin/sh
log="$CLI_TEST_LOG"
printf 'argv:%s\n' "$*" >> "$log"
file=""
while [ $# -gt 0 ]; do
  case "$1" in
    -p) file="$2"; shift ;;
    -b) file="$2"; mode=b; shift ;;
  esac
  shift
done
[ -n "$file" ] && cat "$file" >> "$log.commands"
[ "$mode" = b ] && echo "ran $file"
case "$CLI_TEST_ACTION" in
  exit3) exit 3 ;;
  kill) kill -9 $$ ;;
  rm) rm -f "$file" ;;
esac
exit 0
)";

// The digits of text when it is exactly before + digits + after, else "".
std::string number_between(const std::string &text, const std::string &before, const std::string &after) {
    if (text.size() <= before.size() + after.size() || text.compare(0, before.size(), before) != 0 ||
        text.compare(text.size() - after.size(), after.size(), after) != 0)
        return "";
    std::string mid = text.substr(before.size(), text.size() - before.size() - after.size());
    return std::all_of(mid.begin(), mid.end(), [](char c) { return c >= '0' && c <= '9'; }) ? mid : "";
}

// Any child of this process, ended or not (peeked at, never reaped).
bool any_child() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

class Command : public ::testing::Test {
  protected:
    void SetUp() override {
        make_dirs(root.path("/etc"));
        make_dirs(root.path("/usr/local/sbin"));
        write_file(root.path(MGMT_CLI_PATH), kInterpreter, 0755);
        log = root.dir() + "/cli.log";
        setenv("CLI_TEST_LOG", log.c_str(), 1);
        unsetenv("CLI_TEST_ACTION");
        signal(SIGCHLD, SIG_DFL);
        fflush(nullptr); // the children end with exit(), which flushes what they inherited
    }
    void TearDown() override {
        hooks::reset();
        // Every child is gone by now, reaped by the library's handler or by the wait of the call.
        EXPECT_TRUE(eventually([] { return !any_child(); }, 10000)) << "a child outlived the call";
        signal(SIGCHLD, SIG_DFL);
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        unsetenv("CLI_TEST_LOG");
        unsetenv("CLI_TEST_ACTION");
    }
    std::vector<std::string> command_files() {
        std::vector<std::string> out;
        for (auto &n : list_dir(root.path("/etc")))
            if (n.rfind("CMD_", 0) == 0) out.push_back(n);
        return out;
    }
    std::string log_text() { return read_file(log); }
    std::string commands() { return read_file(log + ".commands"); }
    // Waits for a call of exec_command_set to be over: the interpreter ran n times, the command
    // files are gone and no child is left.
    bool runs_over(size_t n) {
        return eventually([&] {
            std::string t = log_text();
            return size_t(std::count(t.begin(), t.end(), '\n')) >= n && command_files().empty() && !any_child();
        });
    }

    Sysroot root;
    std::string log;
};

void (*sigchld_handler())(int) {
    struct sigaction sa {};
    sigaction(SIGCHLD, nullptr, &sa);
    return sa.sa_handler;
}

TEST(ChildStatus, ExitAndKillAreDoneStopWaitsAndOnlyAnImpossibleStatusRetries) {
    EXPECT_EQ(judge_child_status(0), ChildVerdict::done);
    EXPECT_EQ(judge_child_status(3 << 8), ChildVerdict::done) << "a non-zero exit code is no error";
    EXPECT_EQ(judge_child_status(255 << 8), ChildVerdict::done);
    EXPECT_EQ(judge_child_status(SIGKILL), ChildVerdict::done);
    EXPECT_EQ(judge_child_status(SIGSEGV | 0x80), ChildVerdict::done) << "with a core dump";
    EXPECT_EQ(judge_child_status((SIGSTOP << 8) | 0x7f), ChildVerdict::wait_again);
    EXPECT_EQ(judge_child_status(0x7f), ChildVerdict::wait_again);
    EXPECT_EQ(judge_child_status((1 << 8) | SIGKILL), ChildVerdict::retry);
    EXPECT_EQ(judge_child_status((0xff << 8) | 1), ChildVerdict::retry);
}

TEST_F(Command, SetWritesTheCommandFileRunsTheInterpreterAndRemovesTheFile) {
    int rc = -9;
    run_as(77, [&] { rc = exec_command_set("set hostname dev1", 42); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(sigchld_handler(), &sig_int) << "the handler stays in place";
    ASSERT_TRUE(runs_over(1)) << log_text();
    const std::string text = log_text();
    const std::string pid = number_between(text, "argv:-p " + root.root() + "/etc/CMD_app77", ".tmp -i 42\n");
    ASSERT_NE(pid, "") << text;
    EXPECT_NE(std::stoi(pid), getpid()) << "the file is named after the child";
    EXPECT_EQ(commands(), "set hostname dev1\n");
    EXPECT_EQ(read_file(root.console()), "");
}

TEST_F(Command, LongAndMultiLineCommandsReachTheFileWhole) {
    std::string big;
    for (int i = 0; big.size() < 3000; ++i)
        big += "set address-book entry" + std::to_string(i) + (i % 7 == 6 ? "\n" : " ");
    run_as(77, [&] { EXPECT_EQ(exec_command_set(big.c_str(), 1), 0); });
    ASSERT_TRUE(runs_over(1));
    EXPECT_EQ(commands(), big + "\n");

    std::string single(2500, 'x');
    std::remove((log + ".commands").c_str());
    run_as(77, [&] { EXPECT_EQ(exec_command_set(single.c_str(), 1), 0); });
    ASSERT_TRUE(runs_over(2));
    EXPECT_EQ(commands(), single + "\n") << "a line longer than a slice is written in pieces";
}

TEST_F(Command, TwoCallsInShortOrderUseTwoFiles) {
    run_as(77, [&] {
        EXPECT_EQ(exec_command_set("first", 1), 0);
        EXPECT_EQ(exec_command_set("second", 2), 0);
    });
    ASSERT_TRUE(runs_over(2));
    const std::string text = log_text();
    std::vector<std::string> names;
    std::istringstream lines(text);
    for (std::string l; std::getline(lines, l);) {
        for (const char *tail : {".tmp -i 1", ".tmp -i 2"}) {
            const std::string pid = number_between(l, "argv:-p " + root.root() + "/etc/CMD_app77", tail);
            if (!pid.empty()) names.push_back(pid);
        }
    }
    ASSERT_EQ(names.size(), 2u) << text;
    EXPECT_NE(names[0], names[1]);
    const std::string c = commands();
    EXPECT_TRUE(c == "first\nsecond\n" || c == "second\nfirst\n") << c;
}

TEST_F(Command, InterpreterFailureOrSignalEndsTheRunWithoutRetry) {
    for (const char *action : {"exit3", "kill"}) {
        std::remove(log.c_str());
        setenv("CLI_TEST_ACTION", action, 1);
        run_as(77, [&] { EXPECT_EQ(exec_command_set("set x", 0), 0); });
        ASSERT_TRUE(runs_over(1)) << action;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const std::string text = log_text();
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << action << ": one try only";
        EXPECT_EQ(read_file(root.console()), "") << action;
    }
}

TEST_F(Command, ChildReportsOnTheConsoleWhatWentWrong) {
    // The interpreter removed the file itself: the child's own removal fails.
    setenv("CLI_TEST_ACTION", "rm", 1);
    run_as(77, [&] { EXPECT_EQ(exec_command_set("set y", 0), 0); });
    ASSERT_TRUE(runs_over(1));
    EXPECT_NE(number_between(read_file(root.console()), "MGMTLIB: delete file (/etc/CMD_app77", ".tmp) error\n"), "")
        << read_file(root.console()) << " (the text keeps the device path)";
    unsetenv("CLI_TEST_ACTION");

    // No interpreter: the grandchild says so, and the file is removed all the same.
    std::remove(root.console().c_str());
    std::remove(root.path(MGMT_CLI_PATH).c_str());
    run_as(77, [&] { EXPECT_EQ(exec_command_set("set z", 0), 0); });
    ASSERT_TRUE(eventually([&] { return !any_child() && command_files().empty(); }));
    EXPECT_EQ(read_file(root.console()), "MGMTLIB: execv failed\n");

    // No /etc: the file cannot be made; no interpreter runs.
    std::remove(root.console().c_str());
    std::remove(log.c_str());
    write_file(root.path(MGMT_CLI_PATH), kInterpreter, 0755);
    rmdir(root.path("/etc").c_str());
    run_as(78, [&] { EXPECT_EQ(exec_command_set("set w", 0), 0); });
    ASSERT_TRUE(eventually([&] { return !any_child(); }));
    EXPECT_NE(number_between(read_file(root.console()), "MGMTLIB: open file /etc/CMD_app78", ".tmp failed\n"), "")
        << read_file(root.console());
    EXPECT_FALSE(exists(log));
}

TEST_F(Command, RefusalsAndForkFailuresStartNothing) {
    EXPECT_EQ(exec_command_set(nullptr, 0), -1);
    EXPECT_EQ(exec_command_set("", 0), -1);
    EXPECT_FALSE(any_child());
    EXPECT_EQ(sigchld_handler(), SIG_DFL) << "nothing installed for a refused call";
    {
        ConsoleCapture console;
        hooks::fail_fork(1);
        EXPECT_EQ(exec_command_set("set a", 0), -1);
        EXPECT_EQ(console.text(), "MGMTLIB: fork process failed\n");
        hooks::fail_fork(1);
        EXPECT_EQ(exec_command_file_redirect("/nonexistent/cmds", "/nonexistent/out", 0, 1), -1);
        EXPECT_EQ(console.text(), "MGMTLIB: fork process failed\nMGMTLIB: fork process failed\n");
    }
    EXPECT_FALSE(any_child());

    // The child cannot start the interpreter: it gives up and leaves its file.
    hooks::fail_fork(1, true);
    run_as(77, [&] { EXPECT_EQ(exec_command_set("set b", 0), 0); });
    ASSERT_TRUE(eventually([] { return !any_child(); }));
    EXPECT_EQ(read_file(root.console()), "MGMTLIB: fork process failed\n");
    const auto left = command_files();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(read_file(root.path("/etc/" + left[0])), "set b\n");
    std::remove(root.path("/etc/" + left[0]).c_str());
    EXPECT_FALSE(exists(log));
}

TEST_F(Command, ChildWithoutMemoryForTheListEndsAtOnce) {
    if (!hooks::malloc_hook_available()) GTEST_SKIP() << "the sanitizer's allocator cannot be stood in for";
    hooks::fail_alloc_of_size(sizeof(buf_list), 1, true);
    run_as(77, [&] { EXPECT_EQ(exec_command_set("set c", 0), 0); });
    ASSERT_TRUE(eventually([] { return !any_child(); }));
    EXPECT_EQ(read_file(root.console()), "MGMTLIB: alloc momery failed\n");
    EXPECT_TRUE(command_files().empty());
    EXPECT_FALSE(exists(log));
}

// ---------------------------------------------------------------- file redirect

class Redirect : public Command {
  protected:
    void SetUp() override {
        Command::SetUp();
        file = root.dir() + "/batch.cmds";
        out = root.dir() + "/batch.out";
        write_file(file, "set a\nset b\n");
        write_file(out, "before\n");
    }
    std::string file, out;
};

TEST_F(Redirect, ModesChooseTheOptionsAndOutputIsAppended) {
    const struct {
        int mode;
        const char *options;
    } cases[] = {{0, "-b"}, {1, "-q -b"}, {2, "-q -C -b"}, {3, "-b"}, {-1, "-b"}};
    for (const auto &c : cases) {
        std::remove(log.c_str());
        write_file(file, "set a\nset b\n");
        write_file(out, "before\n");
        EXPECT_EQ(exec_command_file_redirect(file.c_str(), out.c_str(), c.mode, 1), 0);
        // With the wait flag the run is over when the call returns.
        EXPECT_EQ(log_text(), std::string("argv:") + c.options + " " + file + "\n") << c.mode;
        EXPECT_EQ(read_file(out), "before\nran " + file + "\n") << c.mode;
        EXPECT_FALSE(exists(file)) << c.mode;
        EXPECT_FALSE(any_child());
    }
    std::string all;
    for (size_t i = 0; i < std::size(cases); ++i)
        all += "set a\nset b\n";
    EXPECT_EQ(commands(), all);
    EXPECT_EQ(read_file(root.console()), "");
}

TEST_F(Redirect, WithoutWaitTheHandlerReapsTheChild) {
    EXPECT_EQ(exec_command_file_redirect(file.c_str(), out.c_str(), 0, 0), 0);
    EXPECT_EQ(sigchld_handler(), &sig_int);
    ASSERT_TRUE(eventually([&] { return !exists(file) && !any_child(); }));
    EXPECT_EQ(read_file(out), "before\nran " + file + "\n");
}

TEST_F(Redirect, FailedRemovalIsReportedOnTheConsoleForModeZeroElseOnTheBootConsole) {
    setenv("CLI_TEST_ACTION", "rm", 1);
    EXPECT_EQ(exec_command_file_redirect(file.c_str(), out.c_str(), 0, 1), 0);
    EXPECT_EQ(read_file(root.console()), "MGMTLIB: delete file (" + file + ") error\n");
    EXPECT_EQ(read_file(root.boot_console()), "");
    for (int mode : {1, 2, 3}) {
        std::remove(root.boot_console().c_str());
        write_file(file, "set a\n");
        EXPECT_EQ(exec_command_file_redirect(file.c_str(), out.c_str(), mode, 1), 0);
        EXPECT_EQ(read_file(root.boot_console()), "MGMTLIB: delete file (" + file + ") error\n") << mode;
    }
    EXPECT_EQ(read_file(root.console()), "MGMTLIB: delete file (" + file + ") error\n");
}

TEST_F(Redirect, AnUnwritableOutputFailsOnlyInTheShell) {
    const std::string nowhere = root.dir() + "/missing/dir/out";
    EXPECT_EQ(exec_command_file_redirect(file.c_str(), nowhere.c_str(), 0, 1), 0);
    EXPECT_FALSE(exists(file)) << "the run counts as done";
    EXPECT_FALSE(exists(log)) << "the shell did not start the interpreter";
    EXPECT_EQ(read_file(root.console()), "");
}

TEST_F(Redirect, SystemFailureIsReportedAndTheFileStillGoes) {
    hooks::set_system(hooks::SystemMode::fail);
    EXPECT_EQ(exec_command_file_redirect(file.c_str(), out.c_str(), 1, 1), 0);
    EXPECT_EQ(read_file(root.console()), "MGMTLIB: system failed\n");
    EXPECT_FALSE(exists(file));
}

TEST_F(Redirect, EmptyNamesAreRefused) {
    EXPECT_EQ(exec_command_file_redirect(nullptr, out.c_str(), 0, 1), -1);
    EXPECT_EQ(exec_command_file_redirect("", out.c_str(), 0, 1), -1);
    EXPECT_EQ(exec_command_file_redirect(file.c_str(), nullptr, 0, 1), -1);
    EXPECT_EQ(exec_command_file_redirect(file.c_str(), "", 0, 0), -1);
    EXPECT_TRUE(exists(file));
    EXPECT_EQ(sigchld_handler(), SIG_DFL);
}

} // namespace
