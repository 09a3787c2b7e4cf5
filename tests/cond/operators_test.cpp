// Operator phrases in all their spellings, and the comparison of two stored
// values by item type.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "mgmt/cond.h"

namespace {

// find_match_op_symbol on a phrase given as separate words; count -1 means the phrase's length.
std::string op_of(std::vector<std::string> phrase, int count = -1) {
    std::vector<char *> words;
    for (auto &w : phrase) words.push_back(w.data());
    words.push_back(nullptr);
    const char *op = find_match_op_symbol(words.data(), count == -1 ? int(phrase.size()) : count);
    return op ? op : "(null)";
}

TEST(OperatorPhrase, EveryOneWordSpelling) {
    const std::pair<std::string, std::string> table[] = {
        {"=", "match"},     {"==", "match"},    {"equal", "match"},     {"match", "match"},
        {"!=", "unmatch"},  {"unequal", "unmatch"}, {"unmatch", "unmatch"}, {">", "gt"},
        {"gt", "gt"},       {"<", "lt"},        {"lt", "lt"},           {">=", "nlt"},
        {"nlt", "nlt"},     {"<=", "ngt"},      {"ngt", "ngt"},
    };
    for (const auto &[word, op] : table) EXPECT_EQ(op_of({word}), op) << word;
    // Exact words only.
    for (const char *w : {"Match", "EQUAL", "GT", "=>", "= ", "matc", "matches", "", "not"})
        EXPECT_EQ(op_of({w}), "(null)") << '"' << w << '"';
}

TEST(OperatorPhrase, TwoAndThreeWordsAndTheCount) {
    const struct {
        std::vector<std::string> phrase;
        int count;
        std::string op;
    } table[] = {
        {{"not", "match"}, -1, "unmatch"},      {{"not", "equal"}, -1, "unmatch"},
        {{"bigger", "than"}, -1, "gt"},         {{"greater", "than"}, -1, "gt"},
        {{"less", "than"}, -1, "lt"},           {{"smaller", "than"}, -1, "lt"},
        {{"Not", "match"}, -1, "(null)"},       {{"greater", "Than"}, -1, "(null)"},
        {{"not", "bigger", "than"}, -1, "ngt"}, {{"no", "greater", "than"}, -1, "ngt"},
        {{"not", "less", "than"}, -1, "nlt"},   {{"no", "smaller", "than"}, -1, "nlt"},
        // Only "gt" and "lt" are negated: "not match" gives "unmatch", and then nothing.
        {{"not", "not", "match"}, -1, "(null)"}, {{"no", "not", "equal"}, -1, "(null)"},
        {{"never", "bigger", "than"}, -1, "(null)"}, {{"not", ">", "="}, -1, "(null)"},
        {{"not", "Bigger", "than"}, -1, "(null)"},
        // The count, not the array, says how long the phrase is.
        {{"=", "junk"}, 1, "match"},            {{"less", "than", "junk"}, 2, "lt"},
        {{"="}, 0, "(null)"},                   {{"not", "bigger", "than", "x"}, 4, "(null)"},
        {{"bigger", "than"}, 1, "(null)"},
    };
    for (const auto &c : table) {
        SCOPED_TRACE(c.phrase[0] + " " + c.phrase[1 % c.phrase.size()]);
        EXPECT_EQ(op_of(c.phrase, c.count), c.op);
        if (c.phrase.size() == 2 && c.count == -1) {
            std::string a = c.phrase[0], b = c.phrase[1];
            char *words[] = {a.data(), b.data()};
            const char *two = find_match_op_symbol_with2str(words);
            EXPECT_EQ(std::string(two ? two : "(null)"), c.op);
        }
    }
    EXPECT_EQ(find_match_op_symbol(nullptr, 1), nullptr);
    char eq[] = "=";
    char *one[] = {eq};
    EXPECT_EQ(find_match_op_symbol(one, -1), nullptr);
}

template <class T> std::string raw(T v) {
    std::string s(sizeof v, '\0');
    std::memcpy(s.data(), &v, sizeof v);
    return s;
}

// Two stored values per row, each in a zeroed 16-byte slot: equality, and "less" both ways.
TEST(Compare, KeptMacEqualByStrcmpLessBySixBytesAndTheOtherTypes) {
    const std::string mac_a("\x00\x11\x00\x33\x44\x55", 6), mac_b("\x00\x11\x00\x99\x99\x99", 6);
    const struct {
        uint32_t type;
        std::string a, b;
        int match, less_ab, less_ba;
    } table[] = {
        {APP_ITEM_INT32, raw<int32_t>(3), raw<int32_t>(-1), 0, 1, 0}, // -1 below 3
        {APP_ITEM_UINT32, raw<int32_t>(3), raw<int32_t>(-1), 0, 0, 1}, // 0xffffffff above 3
        {APP_ITEM_IPV4, raw<int32_t>(3), raw<int32_t>(-1), 0, 0, 1},
        {APP_ITEM_UINT32, raw<int32_t>(5), raw<int32_t>(5), 1, 0, 0},
        {APP_ITEM_BOOL, raw<int32_t>(5), raw<int32_t>(5), 1, 1, 1}, // a truth value is always less
        {APP_ITEM_BOOL, raw<int32_t>(0), raw<int32_t>(1), 0, 1, 1},
        // Only 32 bits count for the 32-bit types.
        {APP_ITEM_INT32, raw<uint64_t>(0x100000007), raw<uint64_t>(0x200000007), 1, 0, 0},
        {APP_ITEM_INT64, raw<uint64_t>(0x100000007), raw<uint64_t>(0x200000007), 0, 0, 1},
        {APP_ITEM_INT64, raw<int64_t>(int64_t{1} << 40), raw<int64_t>(-(int64_t{1} << 40)), 0, 1, 0},
        {APP_ITEM_INT64, raw<int64_t>(-1), raw<int64_t>(-1), 1, 0, 0},
        {APP_ITEM_STRING, "eth0", "eth0", 1, 0, 0},
        {APP_ITEM_STRING, "eth0", "eth1", 0, 0, 1},
        // MAC: equality stops at a zero byte (or reads on past the sixth), "less" stops at six.
        {APP_ITEM_MAC, mac_a, mac_b, 1, 0, 0},
        {APP_ITEM_MAC, "\x01\x02\x03\x04\x05\x06\x07", "\x01\x02\x03\x04\x05\x06\x09", 0, 0, 0},
        {APP_ITEM_MAC, "\x01\x02\x03\x04\x05\x06\x07", "\x01\x02\x03\x04\x05\x05\x09", 0, 1, 0},
    };
    for (size_t i = 0; i < std::size(table); ++i) {
        const auto &c = table[i];
        SCOPED_TRACE(testing::Message() << "row " << i << ", type " << c.type);
        unsigned char a[16] = {}, b[16] = {};
        std::memcpy(a, c.a.data(), c.a.size());
        std::memcpy(b, c.b.data(), c.b.size());
        EXPECT_EQ(logic_compare_match(c.type, a, b), c.match);
        EXPECT_EQ(logic_compare_less(c.type, a, b), c.less_ab);
        EXPECT_EQ(logic_compare_less(c.type, b, a), c.less_ba);
    }
    EXPECT_EQ(logic_compare_less(APP_ITEM_BOOL, nullptr, nullptr), 1);
    // A type without a rule is equal and less.
    uint32_t one = 1, two = 2;
    for (uint32_t type : {4u, 6u, 11u, 13u, 15u, 17u, 1000u}) {
        EXPECT_EQ(logic_compare_match(type, &one, &two), 1) << type;
        EXPECT_EQ(logic_compare_less(type, &one, &two), 1) << type;
        EXPECT_EQ(logic_compare_less(type, &two, &one), 1) << type;
    }
}

} // namespace
