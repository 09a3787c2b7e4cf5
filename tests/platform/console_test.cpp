// Console output, the longest application name and strlcpy of the platform stand-in.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

#include "mgmt/platform/platform.h"

namespace {

void collect(const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }

// The sink takes the whole formatted text, however long, and may itself print.
TEST(Console, SinkTakesTheFormattedTextAndMayPrintItself) {
    std::string got;
    console_set_sink(collect, &got);
    console_print("MGI: %s %d\n", "x", 5);
    std::string big(3000, 'b');
    console_print("%s!", big.c_str());
    EXPECT_EQ(got, "MGI: x 5\n" + big + "!");

    std::string nested;
    console_set_sink(
        [](const char *text, void *ctx) {
            auto &seen = *static_cast<std::string *>(ctx);
            seen += text;
            if (seen.size() < 4) console_print("+");
        },
        &nested);
    console_print("a");
    console_set_sink(nullptr, nullptr);
    EXPECT_EQ(nested, "a+++");
}

// Without a sink the text goes to the device named by MGMT_CONSOLE, appended, else to standard error.
TEST(Console, GoesToMgmtConsoleElseStandardError) {
    const std::string dev = "/tmp/plat-console-" + std::to_string(getpid());
    std::ofstream(dev) << "before\n";
    setenv("MGMT_CONSOLE", dev.c_str(), 1);
    console_print("one %d\n", 1);
    console_print("two\n");
    unsetenv("MGMT_CONSOLE");
    std::stringstream text;
    text << std::ifstream(dev).rdbuf();
    unlink(dev.c_str());
    EXPECT_EQ(text.str(), "before\none 1\ntwo\n");

    testing::internal::CaptureStderr();
    console_print("to stderr %s\n", "ok");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr ok\n");
    EXPECT_STREQ(appid2appname(4294967295u), "app4294967295"); // the longest name fits
}

// strlcpy returns the source's length, copies at most size-1 bytes, always terminates when size
// is not 0, and writes nothing beyond the terminator.
TEST(Strlcpy, BsdSemantics) {
    struct Case {
        const char *src;
        size_t size;
        const char *stored; // null: the buffer is left alone
    } cases[] = {
        {"hello", 3, "he"}, {"hello", 8, "hello"}, {"12345678", 8, "1234567"},
        {"", 8, ""},        {"abc", 1, ""},        {"abc", 0, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.src) + "/" + std::to_string(c.size));
        char buf[9];
        memset(buf, 'z', sizeof buf);
        EXPECT_EQ(strlcpy(buf, c.src, c.size), strlen(c.src));
        const size_t n = c.stored ? strlen(c.stored) + 1 : 0;
        if (c.stored) {
            EXPECT_STREQ(buf, c.stored);
        }
        for (size_t i = n; i < sizeof buf; ++i)
            EXPECT_EQ(buf[i], 'z') << i;
    }
}

} // namespace
