// Value helpers: range checks for every object type, trimming, XML length,
// IPv4 address rules.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "mgmt/value.h"

namespace {

uint64_t s64(int64_t v) { return static_cast<uint64_t>(v); }

// The value at the start of an 8-byte slot whose other bytes are all set, so
// that a check reading too wide sees them.
template <typename T> int check(T value, int32_t type, uint64_t min, uint64_t max) {
    unsigned char slot[8];
    memset(slot, 0xff, sizeof slot);
    memcpy(slot, &value, sizeof value);
    return libmgmt_item_value_range_check(slot, type, min, max);
}

TEST(RangeCheck, NumbersCompareInTheirOwnWidthAndSign) {
    EXPECT_EQ(check<int32_t>(10, 1, 1, 10), 0) << "the maximum is included";
    EXPECT_EQ(check<int32_t>(1, 1, 1, 10), 0) << "the minimum is included";
    EXPECT_EQ(check<int32_t>(11, 1, 1, 10), -1);
    EXPECT_EQ(check<int32_t>(-1, 1, s64(-5), 5), 0) << "signed compare";
    EXPECT_EQ(check<int32_t>(-6, 1, s64(-5), 5), -1);
    EXPECT_EQ(check<int32_t>(6, 1, 0, 0x100000005ull), -1) << "the maximum is cut to 32 bits";
    EXPECT_EQ(check<int32_t>(5, 1, 0, 0x100000005ull), 0);

    EXPECT_EQ(check<uint32_t>(0x80000000u, 2, 1, 0xffffffffu), 0) << "unsigned compare";
    EXPECT_EQ(check<uint32_t>(0xffffffffu, 2, 0, 0xfffffffeu), -1);
    EXPECT_EQ(check<uint32_t>(7, 2, 0x100000007ull, 7), 0) << "the minimum is cut to 32 bits";

    const int64_t min64 = std::numeric_limits<int64_t>::min();
    EXPECT_EQ(check<int64_t>(-1, 3, s64(-5), 5), 0);
    EXPECT_EQ(check<int64_t>(min64, 3, s64(min64), 0), 0);
    EXPECT_EQ(check<int64_t>(0x100000000ll, 3, 0, 0xffffffffull), -1) << "no cut to 32 bits";

    EXPECT_EQ(check<uint64_t>(~0ull, 4, 1, ~0ull), 0);
    EXPECT_EQ(check<uint64_t>(0, 4, 1, 10), -1);
    EXPECT_EQ(check<uint64_t>(0x8000000000000000ull, 4, 0, 0x8000000000000000ull), 0) << "unsigned compare";

    EXPECT_EQ(check<uint8_t>(200, 6, 100, 0x1ff), 0) << "maximum cut to 0xff";
    EXPECT_EQ(check<uint8_t>(200, 6, 100, 0x1c7), -1) << "maximum cut to 199";
    EXPECT_EQ(check<uint8_t>(200, 6, 0x1c8, 255), 0) << "minimum cut to 200";

    EXPECT_EQ(check<int8_t>(-3, 7, s64(-5), 5), 0);
    EXPECT_EQ(check<int8_t>(-6, 7, s64(-5), 5), -1);
    EXPECT_EQ(check<int8_t>(-128, 7, 0, 127), -1) << "signed compare";
    EXPECT_EQ(check<int8_t>(5, 7, 0xff05, 0x7f), 0) << "minimum cut to 5";

    EXPECT_EQ(check<uint16_t>(60000, 8, 1, 65535), 0);
    EXPECT_EQ(check<uint16_t>(60000, 8, 1, 0x1ea5f), -1) << "maximum cut to 59999";

    EXPECT_EQ(check<int16_t>(-300, 9, s64(-1000), 0), 0);
    EXPECT_EQ(check<int16_t>(300, 9, s64(-1000), 0), -1);
    EXPECT_EQ(check<int16_t>(-32768, 9, 0, 32767), -1);
}

TEST(RangeCheck, NullValuesAndTypesWithoutATest) {
    for (int32_t type : {0, 1, 5, 10, 17}) {
        EXPECT_EQ(libmgmt_item_value_range_check(nullptr, type, 0, 100), -1) << "type " << type;
    }
    char junk[16];
    memset(junk, 0x5a, sizeof junk);
    for (int32_t type : {0, 10, 11, 12, 13}) {
        EXPECT_EQ(libmgmt_item_value_range_check(junk, type, 100, 1), 0) << "type " << type;
    }
    for (int32_t type : {14, 15, 16, 18, 19, -1, 1000}) {
        EXPECT_EQ(libmgmt_item_value_range_check(junk, type, 0, ~0ull), -1) << "type " << type;
    }
}

TEST(RangeCheck, KeptTrimNotHandedBackAndType17MaxZeroUnbounded) {
    // Type 5: trimmed, the length below the maximum, signed 32-bit compare.
    char spaced[] = "  ab  ";
    EXPECT_EQ(libmgmt_item_value_range_check(spaced, 5, 1, 3), 0);
    EXPECT_STREQ(spaced, "  ab") << "the value ends behind the letters; the leading spaces stay";
    char short_one[] = " a ";
    EXPECT_EQ(libmgmt_item_value_range_check(short_one, 5, 2, 10), -1);
    EXPECT_STREQ(short_one, " a");
    char blanks[] = "   ";
    EXPECT_EQ(libmgmt_item_value_range_check(blanks, 5, 0, 1), 0);
    EXPECT_EQ(libmgmt_item_value_range_check(blanks, 5, 1, 10), -1);
    char abc[] = "abc";
    EXPECT_EQ(libmgmt_item_value_range_check(abc, 5, 1, 3), -1) << "a length equal to the maximum";
    EXPECT_EQ(libmgmt_item_value_range_check(abc, 5, 0xffffffffull, 4), 0) << "minimum taken as -1";
    EXPECT_EQ(libmgmt_item_value_range_check(abc, 5, 0, 0x100000004ull), 0) << "maximum cut to 4";
    EXPECT_EQ(libmgmt_item_value_range_check(abc, 5, 0, 0x80000000ull), -1) << "maximum taken as negative";

    // Type 17: untrimmed, at most the maximum less 1, unsigned 64-bit compare.
    char untrimmed[] = "  ab  ";
    EXPECT_EQ(libmgmt_item_value_range_check(untrimmed, 17, 6, 7), 0);
    EXPECT_STREQ(untrimmed, "  ab  ") << "type 17 does not trim";
    EXPECT_EQ(libmgmt_item_value_range_check(untrimmed, 17, 6, 6), -1);
    EXPECT_EQ(libmgmt_item_value_range_check(untrimmed, 17, 7, 100), -1);
    char empty[] = "";
    EXPECT_EQ(libmgmt_item_value_range_check(empty, 17, 0, 1), 0);
    EXPECT_EQ(libmgmt_item_value_range_check(empty, 17, 1, 0), -1);
    std::string long_text(5000, 'x');
    EXPECT_EQ(libmgmt_item_value_range_check(long_text.data(), 17, 0, 0), 0) << "maximum 0: no upper limit";
    EXPECT_EQ(libmgmt_item_value_range_check(long_text.data(), 17, 0x100000000ull, 0), -1) << "no cut to 32 bits";
}

TEST(StringTrim, CutsTheEndInPlaceAndSkipsTheStart) {
    struct Case {
        std::string text;
        size_t skipped;
        std::string after;
    };
    const Case cases[] = {
        {"  ab  ", 2, "  ab"},
        {"\t x y\n\r\v\f", 2, "\t x y"},
        {"   ", 3, "   "},              // the terminator; the spaces are kept
        {"\xa0x\xa0", 0, "\xa0x\xa0"}, // bytes above 127 are not white space
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        std::string value = c.text;
        EXPECT_EQ(libmgmt_string_trim(value.data()), value.data() + c.skipped);
        EXPECT_STREQ(value.c_str(), c.after.c_str());
    }
    EXPECT_EQ(libmgmt_string_trim(nullptr), nullptr);

    // Heap-allocated so that a sanitizer build catches a look in front.
    std::unique_ptr<char[]> empty(new char[1]{'\0'});
    EXPECT_EQ(libmgmt_string_trim(empty.get()), empty.get());
    char framed[] = " \0 ";
    EXPECT_EQ(libmgmt_string_trim(framed + 1), framed + 1);
    EXPECT_EQ(memcmp(framed, " \0 ", 4), 0);
}

TEST(XmlLength, EscapedCharactersCountTheirEntity) {
    EXPECT_EQ(libmgmt_get_xml_converted_string_length(nullptr), 0u);
    EXPECT_EQ(libmgmt_get_xml_converted_string_length(""), 1u);
    EXPECT_EQ(libmgmt_get_xml_converted_string_length("a&b"), 8u);
    EXPECT_EQ(libmgmt_get_xml_converted_string_length("<>"), 9u);
    EXPECT_EQ(libmgmt_get_xml_converted_string_length("\"'"), 13u);
    EXPECT_EQ(libmgmt_get_xml_converted_string_length("\xc3\xa9\t\n"), 5u) << "other bytes count one each";
}

uint32_t ip(unsigned a, unsigned b, unsigned c, unsigned d) { return (a << 24) | (b << 16) | (c << 8) | d; }

uint32_t prefix(unsigned bits) { return bits == 0 ? 0 : ~0u << (32 - bits); }

TEST(AddressValidity, KeptNetworkAndBroadcastToldByTheLastOctet) {
    struct Case {
        uint32_t addr;
        uint32_t mask;
        int result;
        const char *why;
    };
    const Case cases[] = {
        {0, 0, 0, "both zero"},
        {0, prefix(24), -1, "address 0 with a mask"},
        {ip(0, 1, 2, 3), prefix(8), -1, "top octet 0"},
        {ip(127, 0, 0, 1), prefix(8), -1, "loopback"},
        {ip(224, 0, 0, 1), prefix(4), -1, "multicast"},
        {ip(255, 255, 255, 255), prefix(32), -1, "above 223"},
        {ip(223, 1, 2, 3), prefix(24), 0, "top octet 223"},
        {ip(126, 0, 0, 1), prefix(8), 0, "below loopback"},
        {ip(192, 168, 1, 0), prefix(24), -1, "network address"},
        {ip(192, 168, 1, 128), prefix(25), 0, "host of a /25"},
        {ip(192, 168, 1, 255), prefix(24), -1, "broadcast address"},
        {ip(10, 255, 255, 255), prefix(8), -1, "broadcast of a /8"},
        {ip(10, 0, 0, 255), prefix(8), 0, "last octet 255 inside a /8"},
        {ip(192, 168, 0, 0), prefix(16), -1, "network of a /16"},
        {ip(192, 168, 1, 0), prefix(16), 0, "last octet 0 inside a /16"},
        {ip(192, 168, 1, 64), prefix(26), 0, "network of a /26 passes: only octets 0 and 255 are looked at"},
        {ip(192, 168, 1, 127), prefix(25), 0, "broadcast of a /25 passes"},
        {ip(10, 0, 0, 0), prefix(32), -1, "host route on .0"},
        {ip(10, 0, 0, 1), prefix(32), 0, "host route"},
        {ip(10, 0, 0, 255), prefix(32), -1, "host route on .255: an empty host part counts as all set"},
        {ip(10, 0, 0, 1), 0, -1, "no bit in common with a zero mask"},
        {ip(10, 0, 0, 1), 0x000000ffu, 0, "odd mask sharing the low octet"},
        {ip(10, 0, 0, 1), 0x0000ff00u, -1, "odd mask sharing nothing"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(vk_check_ip_address_validate(c.addr, c.mask), c.result) << c.why;
    }
}

} // namespace
