// The lineedit example driven through a pseudo-terminal: keys go in raw, the
// edited line comes out.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "test_support.h"

namespace {

struct Session {
    int status = -1;
    std::string output;  // everything after the prompt
};

// Runs the example on a fresh pseudo-terminal and types keys after its prompt;
// a program that says nothing for 10 s is killed.
Session edit(const std::string &keys) {
    Session s;
    const std::string path = mgmt_test::build_path("examples/lineedit");
    int master = -1;
    fflush(nullptr);
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execl(path.c_str(), "lineedit", static_cast<char *>(nullptr));
        _exit(127);
    }
    EXPECT_GT(pid, 0) << "no pseudo-terminal";
    bool typed = false;
    for (char buf[512];;) {
        const size_t prompt = s.output.find("> ");
        if (!typed && prompt != std::string::npos) {
            s.output.erase(0, prompt + 2);
            typed = write(master, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
        }
        pollfd p{master, POLLIN, 0};
        const ssize_t n = poll(&p, 1, 10000) == 1 ? read(master, buf, sizeof buf) : -2;
        if (n == -2) {
            ADD_FAILURE() << "no end from " << path << "; got: " << s.output;
            kill(pid, SIGKILL);
        }
        if (n <= 0) {
            break;  // EIO: the program is gone
        }
        s.output.append(buf, static_cast<size_t>(n));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    close(master);
    s.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return s;
}

const std::string ESC = "\x1b";

std::string ctrl(char c) { return std::string(1, static_cast<char>(c & 0x1f)); }

TEST(LineeditProgram, EditingKeysGiveTheExpectedLineAndControlCGivesUp) {
    struct Case {
        std::string keys;
        int status;
        std::string output;
    };
    const Case cases[] = {
        // Echo of a and b, the transpose (two backspaces, b, a), home (two
        // backspaces), forward (repaints the b), then the end of input.
        {"ab" + ctrl('T') + ctrl('A') + ctrl('F') + "\r", 0, "ab\b\bba\b\bb\r\nline: \"ba\"\r\n"},
        {"bc" + ESC + "[Ha" + ESC + "[F x" + ESC + "[1;5D" + ESC + "[D" + ESC + "[3~\n", 0, "line: \"abcx\""},
        {"one two" + ESC + "\x7f" + "x" + ESC + "b" + ctrl('K') + ctrl('A') + ctrl('O') + "y\r", 0, "line: \"yne \""},
        {"abc" + ctrl('C'), 1, "no line"},
    };
    for (const Case &c : cases) {
        const Session s = edit(c.keys);
        EXPECT_EQ(s.status, c.status);
        EXPECT_NE(s.output.find(c.output), std::string::npos) << s.output;
    }
}

}  // namespace
