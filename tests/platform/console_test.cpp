// Console output, application names, strlcpy and the language words of the platform stand-in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "platform/platform.h"

namespace {

void collect(const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }

std::string slurp(const std::string &path) {
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

struct TempFile {
    TempFile() {
        char tmpl[] = "/tmp/plat-console-XXXXXX";
        int fd = mkstemp(tmpl);
        close(fd);
        path = tmpl;
    }
    ~TempFile() { unlink(path.c_str()); }
    std::string path;
};

} // namespace

TEST(Console, SinkReceivesTheFormattedText) {
    std::string got;
    console_set_sink(collect, &got);
    console_print("MGI: %s %d\n", "x", 5);
    std::string big(3000, 'b');
    console_print("%s!", big.c_str());
    console_set_sink(nullptr, nullptr);
    EXPECT_EQ(got, "MGI: x 5\n" + big + "!");
}

TEST(Console, SinkMayPrintItself) {
    static std::string got;
    got.clear();
    console_set_sink(
        [](const char *text, void *) {
            got += text;
            if (got.size() < 4) console_print("+");
        },
        nullptr);
    console_print("a");
    console_set_sink(nullptr, nullptr);
    EXPECT_EQ(got, "a+++");
}

TEST(Console, GoesToMgmtConsoleAppended) {
    TempFile f;
    setenv("MGMT_CONSOLE", f.path.c_str(), 1);
    console_print("one %d\n", 1);
    console_print("two\n");
    unsetenv("MGMT_CONSOLE");
    EXPECT_EQ(slurp(f.path), "one 1\ntwo\n");
}

TEST(Console, DefaultsToStandardError) {
    unsetenv("MGMT_CONSOLE");
    TempFile f;
    fflush(stderr);
    int saved = dup(2);
    int fd = open(f.path.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    dup2(fd, 2);
    close(fd);
    console_print("to stderr %s\n", "ok");
    dup2(saved, 2);
    close(saved);
    EXPECT_EQ(slurp(f.path), "to stderr ok\n");
}

TEST(Names, AppidToAppname) {
    EXPECT_STREQ(appid2appname(2), "mgd");
    EXPECT_STREQ(appid2appname(5), "app5");
    EXPECT_STREQ(appid2appname(0), "app0");
    EXPECT_STREQ(appid2appname(4294967295u), "app4294967295");
}

TEST(Strlcpy, BsdSemantics) {
    char buf[8];
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(strlcpy(buf, "hello", 3), 5u);
    EXPECT_STREQ(buf, "he");
    EXPECT_EQ(buf[3], 'z');
    EXPECT_EQ(strlcpy(buf, "hello", sizeof buf), 5u);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(strlcpy(buf, "12345678", sizeof buf), 8u);
    EXPECT_STREQ(buf, "1234567");
    EXPECT_EQ(strlcpy(buf, "", sizeof buf), 0u);
    EXPECT_STREQ(buf, "");
    buf[0] = 'q';
    EXPECT_EQ(strlcpy(buf, "abc", 0), 3u);
    EXPECT_EQ(buf[0], 'q');
    EXPECT_EQ(strlcpy(buf, "abc", 1), 3u);
    EXPECT_STREQ(buf, "");
}

TEST(Language, WordsStartAtZero) {
    EXPECT_EQ(_ui_language, 0);
    EXPECT_EQ(_system_language, 0);
}
