// The lineedit example driven through a pseudo-terminal: keys go in raw, the
// edited line comes out.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

namespace {

std::string lineedit_path() {
    std::string base;
    const char *dir = getenv("MGMT_TEST_BINARY_DIR");
    if (dir != nullptr && *dir != '\0') {
        base = dir;
    } else {
        // <build>/tests/test_term -> <build>
        char exe[PATH_MAX];
        ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
        if (n <= 0) {
            return "lineedit";
        }
        exe[n] = '\0';
        base = exe;
        for (int up = 0; up < 2; ++up) {
            base = base.substr(0, base.rfind('/'));
        }
    }
    return base + "/examples/lineedit";
}

class Pty {
public:
    ~Pty() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (master_ >= 0) {
            close(master_);
        }
    }

    bool start(const std::string &path) {
        master_ = posix_openpt(O_RDWR | O_NOCTTY);
        if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) {
            return false;
        }
        const char *slave_name = ptsname(master_);
        if (slave_name == nullptr) {
            return false;
        }
        std::string slave = slave_name;
        fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0) {
            return false;
        }
        if (pid_ == 0) {
            setsid();
            int s = open(slave.c_str(), O_RDWR);
            if (s < 0) {
                _exit(126);
            }
            dup2(s, 0);
            dup2(s, 1);
            dup2(s, 2);
            if (s > 2) {
                close(s);
            }
            close(master_);
            execl(path.c_str(), "lineedit", static_cast<char *>(nullptr));
            _exit(127);
        }
        return true;
    }

    // Reads until the output holds marker (or, with an empty marker, until
    // the program closes the terminal). False when 10 s pass first.
    bool read_until(const std::string &marker) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (marker.empty() || out_.find(marker) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            pollfd p{master_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            char buf[512];
            ssize_t n = read(master_, buf, sizeof buf);
            if (n <= 0) {
                return marker.empty();  // EIO: the program is gone
            }
            out_.append(buf, static_cast<size_t>(n));
        }
        return true;
    }

    void type(const std::string &keys) {
        ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    int wait_exit() {
        int status = 0;
        if (waitpid(pid_, &status, 0) != pid_) {
            return -1;
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    const std::string &output() const { return out_; }

private:
    int master_ = -1;
    pid_t pid_ = -1;
    std::string out_;
};

struct Session {
    int status;
    std::string output;  // everything after the prompt
};

Session edit(const std::string &keys) {
    Pty pty;
    Session s{-1, {}};
    const std::string path = lineedit_path();
    if (access(path.c_str(), X_OK) != 0) {
        ADD_FAILURE() << "no lineedit program at " << path;
        return s;
    }
    if (!pty.start(path)) {
        ADD_FAILURE() << "no pseudo-terminal";
        return s;
    }
    if (!pty.read_until("> ")) {
        ADD_FAILURE() << "no prompt; got: " << pty.output();
        return s;
    }
    pty.type(keys);
    EXPECT_TRUE(pty.read_until("")) << "the program did not finish; got: " << pty.output();
    s.status = pty.wait_exit();
    s.output = pty.output().substr(pty.output().find("> ") + 2);
    return s;
}

std::string final_line(const Session &s) {
    const std::string head = "line: \"";
    size_t at = s.output.find(head);
    if (at == std::string::npos) {
        return "<no line in: " + s.output + ">";
    }
    at += head.size();
    size_t end = s.output.find("\"\r\n", at);
    return end == std::string::npos ? "<unterminated>" : s.output.substr(at, end - at);
}

const std::string ESC = "\x1b";
const std::string LEFT = ESC + "[D";
const std::string CTRL_LEFT = ESC + "[1;5D";
std::string ctrl(char c) {
    return std::string(1, static_cast<char>(c & 0x1f));
}

TEST(LineeditProgram, EditingKeysGiveTheExpectedLine) {
    struct Case {
        const char *what;
        std::string keys;
        std::string line;
    };
    const Case cases[] = {
        {"arrows and insert", "abc" + LEFT + LEFT + "X\r", "aXbc"},
        {"right arrow", "abc" + LEFT + LEFT + ESC + "[C" + "X\r", "abXc"},
        {"word back and kill to end", "foo bar baz" + ESC + "b" + ctrl('K') + "\r", "foo bar "},
        {"kill word behind", "one two" + ctrl('W') + "\r", "one "},
        {"alt-backspace", "one two" + ESC + "\x7f" + "\r", "one "},
        {"transpose at the end", "ab" + ctrl('T') + "\r", "ba"},
        {"kill word ahead keeps the space", "hello world" + ctrl('A') + ESC + "d\r", " world"},
        {"word forward", "ab cd" + ctrl('A') + ESC + "fX\r", "ab Xcd"},
        {"ctrl-left twice", "alpha beta gamma" + CTRL_LEFT + CTRL_LEFT + "new \r", "alpha new beta gamma"},
        {"kill whole line", "junk" + ctrl('U') + "fresh\r", "fresh"},
        {"home and end keys", "bc" + ESC + "[Ha" + ESC + "[Fd\r", "abcd"},
        {"delete key", "abc" + ctrl('A') + ESC + "[3~\r", "bc"},
        {"backspace", "abcd\x7f\x7f\r", "ab"},
        {"overwrite mode", "abc" + ctrl('A') + ctrl('O') + "XY\r", "XYc"},
        {"up arrow does nothing", "ab" + ESC + "[A" + "c\r", "abc"},
        {"newline also ends", "done\n", "done"},
    };
    for (const Case &c : cases) {
        Session s = edit(c.keys);
        EXPECT_EQ(s.status, 0) << c.what;
        EXPECT_EQ(final_line(s), c.line) << c.what;
    }
}

TEST(LineeditProgram, TerminalSeesTheEditorsBytes) {
    Session s = edit("ab" + ctrl('T') + ctrl('A') + "\x06" + "\r");
    EXPECT_EQ(s.status, 0);
    // Echo of a and b, the transpose (two backspaces, b, a), home (two
    // backspaces), forward (repaints the b), then the end of input.
    EXPECT_EQ(s.output, "ab\b\bba\b\bb\r\nline: \"ba\"\r\n");
}

TEST(LineeditProgram, ControlCGivesUp) {
    Session s = edit("abc" + ctrl('C'));
    EXPECT_EQ(s.status, 1);
    EXPECT_NE(s.output.find("no line"), std::string::npos) << s.output;
    EXPECT_EQ(s.output.find("line: "), std::string::npos);
}

}  // namespace
