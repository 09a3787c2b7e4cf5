// Dotted IPv4 text to a 32-bit value.
#include <gtest/gtest.h>

#include <cstdint>

#include "mgmt/platform/strings.h"

namespace {

TEST(Ipv4Text, WellFormedAddressesOnly) {
    const std::pair<const char *, uint32_t> good[] = {
        {"192.168.1.10", 0xc0a8010au}, {"0.0.0.0", 0u}, {"255.255.255.255", 0xffffffffu}, {"1.02.003.4", 0x01020304u}};
    for (const auto &[text, want] : good) {
        uint32_t v = 77;
        EXPECT_EQ(ipv4str_2_uint(text, &v), 0) << text;
        EXPECT_EQ(v, want) << text;
    }
    // Anything else fails and leaves the value.
    for (const char *bad : {"", "1.2.3", "1.2.3.4.5", "1..2.3", "256.1.1.1", "1.2.3.4 ", " 1.2.3.4", "1.2.3.4.",
                            "0001.2.3.4", "a.b.c.d", "1.2.3.-4", "1,2,3,4", "1.2.3.4x"}) {
        uint32_t v = 77;
        EXPECT_NE(ipv4str_2_uint(bad, &v), 0) << '"' << bad << '"';
        EXPECT_EQ(v, 77u) << bad;
    }
    uint32_t v = 0;
    EXPECT_NE(ipv4str_2_uint(nullptr, &v), 0);
    EXPECT_NE(ipv4str_2_uint("1.2.3.4", nullptr), 0);
}

} // namespace
