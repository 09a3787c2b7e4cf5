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

// Reads from the terminal until out holds marker, or with an empty marker
// until the program closes the terminal. False when nothing comes for 10 s.
bool read_until(int master, std::string &out, const std::string &marker) {
    while (marker.empty() || out.find(marker) == std::string::npos) {
        pollfd p{master, POLLIN, 0};
        if (poll(&p, 1, 10000) != 1) {
            return false;
        }
        char buf[512];
        const ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0) {
            return marker.empty(); // EIO: the program is gone
        }
        out.append(buf, static_cast<size_t>(n));
    }
    return true;
}

struct Session {
    int status = -1;
    std::string output; // everything after the prompt
};

// Runs the example on a fresh pseudo-terminal and types keys after its prompt.
Session edit(const std::string &keys) {
    Session s;
    const std::string path = mgmt_test::build_path("examples/lineedit");
    int master = -1;
    fflush(nullptr);
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execl(path.c_str(), "lineedit", static_cast<char *>(nullptr));
        _exit(127);
    }
    if (pid < 0) {
        ADD_FAILURE() << "no pseudo-terminal";
        return s;
    }
    std::string out;
    bool finished = false;
    if (!read_until(master, out, "> ")) {
        ADD_FAILURE() << "no prompt from " << path << "; got: " << out;
    } else if (write(master, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
        ADD_FAILURE() << "keys not written";
    } else {
        finished = read_until(master, out, "");
        EXPECT_TRUE(finished) << "the program did not finish; got: " << out;
        s.output = out.substr(out.find("> ") + 2);
    }
    if (!finished) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    close(master);
    s.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return s;
}

// The line that the program reports at the end.
std::string final_line(const Session &s) {
    const size_t at = s.output.find("line: \"");
    const size_t end = s.output.rfind("\"\r\n");
    if (at == std::string::npos || end == std::string::npos || end < at + 7) {
        return "<no line in: " + s.output + ">";
    }
    return s.output.substr(at + 7, end - at - 7);
}

const std::string ESC = "\x1b";
const std::string LEFT = ESC + "[D";
const std::string CTRL_LEFT = ESC + "[1;5D";

std::string ctrl(char c) { return std::string(1, static_cast<char>(c & 0x1f)); }

TEST(LineeditProgram, EditingKeysGiveTheExpectedLine) {
    struct Case {
        const char *what;
        std::string keys;
        std::string line;
    };
    const Case cases[] = {
        {"arrows and insert", "abc" + LEFT + LEFT + "X" + ESC + "[C" + "Y\r", "aXbYc"},
        {"word back and kill to end", "foo bar baz" + ESC + "b" + ctrl('K') + "\r", "foo bar "},
        {"alt-backspace", "one two" + ESC + "\x7f" + "\r", "one "},
        {"ctrl-left twice", "alpha beta gamma" + CTRL_LEFT + CTRL_LEFT + "new \r", "alpha new beta gamma"},
        {"home, end and delete keys", "bc" + ESC + "[Ha" + ESC + "[Fd" + ctrl('A') + ESC + "[3~\r", "bcd"},
        {"backspace and overwrite mode", "abcd\x7f" + ctrl('A') + ctrl('O') + "XY\n", "XYc"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Session s = edit(c.keys);
        EXPECT_EQ(s.status, 0);
        EXPECT_EQ(final_line(s), c.line);
    }
}

TEST(LineeditProgram, TerminalSeesTheEditorsBytesAndControlCGivesUp) {
    Session s = edit("ab" + ctrl('T') + ctrl('A') + ctrl('F') + "\r");
    EXPECT_EQ(s.status, 0);
    // Echo of a and b, the transpose (two backspaces, b, a), home (two
    // backspaces), forward (repaints the b), then the end of input.
    EXPECT_EQ(s.output, "ab\b\bba\b\bb\r\nline: \"ba\"\r\n");

    Session gone = edit("abc" + ctrl('C'));
    EXPECT_EQ(gone.status, 1);
    EXPECT_NE(gone.output.find("no line"), std::string::npos) << gone.output;
    EXPECT_EQ(gone.output.find("line: "), std::string::npos);
}

} // namespace
