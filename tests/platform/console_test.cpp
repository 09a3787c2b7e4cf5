// The console sink, the longest application name and strlcpy of the platform stand-in. The console
// device (MGMT_CONSOLE) is what the device tests read.
#include <gtest/gtest.h>

#include <cstring>
#include <string>


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
        EXPECT_TRUE(!c.stored || std::string(buf) == c.stored) << buf;
        for (size_t i = n; i < sizeof buf; ++i)
            EXPECT_EQ(buf[i], 'z') << i;
    }
}

} // namespace
