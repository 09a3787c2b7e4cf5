// Operator phrases in all their spellings, and the comparison of two stored
// values by item type.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "mgmt/cond.h"

namespace {

// find_match_op_symbol on a phrase given as separate words.
const char *op_of(std::vector<std::string> phrase, int count = -100) {
    std::vector<char *> words;
    for (auto &w : phrase) words.push_back(w.data());
    words.push_back(nullptr);
    return find_match_op_symbol(words.data(), count == -100 ? int(phrase.size()) : count);
}

std::string str(const char *op) { return op ? op : "(null)"; }

TEST(OperatorPhrase, EveryOneWordSpelling) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"=", "match"},     {"==", "match"},    {"equal", "match"},     {"match", "match"},
        {"!=", "unmatch"},  {"unequal", "unmatch"}, {"unmatch", "unmatch"}, {">", "gt"},
        {"gt", "gt"},       {"<", "lt"},        {"lt", "lt"},           {">=", "nlt"},
        {"nlt", "nlt"},     {"<=", "ngt"},      {"ngt", "ngt"},
    };
    for (const auto &[word, op] : table) EXPECT_EQ(str(op_of({word})), op) << word;
}

TEST(OperatorPhrase, TwoWordPhrasesBothWays) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> table = {
        {{"not", "match"}, "unmatch"}, {{"not", "equal"}, "unmatch"}, {{"bigger", "than"}, "gt"},
        {{"greater", "than"}, "gt"},   {{"less", "than"}, "lt"},      {{"smaller", "than"}, "lt"},
    };
    for (const auto &[phrase, op] : table) {
        EXPECT_EQ(str(op_of(phrase)), op) << phrase[0];
        std::string a = phrase[0], b = phrase[1];
        char *words[] = {a.data(), b.data()};
        EXPECT_EQ(str(find_match_op_symbol_with2str(words)), op) << phrase[0];
    }
}

TEST(OperatorPhrase, ThreeWordsNegateOnlyGreaterAndLess) {
    EXPECT_EQ(str(op_of({"not", "bigger", "than"})), "ngt");
    EXPECT_EQ(str(op_of({"no", "greater", "than"})), "ngt");
    EXPECT_EQ(str(op_of({"not", "less", "than"})), "nlt");
    EXPECT_EQ(str(op_of({"no", "smaller", "than"})), "nlt");
    // The two-word reading gives "unmatch", which is neither "gt" nor "lt".
    EXPECT_EQ(op_of({"not", "not", "match"}), nullptr);
    EXPECT_EQ(op_of({"no", "not", "equal"}), nullptr);
    EXPECT_EQ(op_of({"never", "bigger", "than"}), nullptr);
    EXPECT_EQ(op_of({"not", ">", "="}), nullptr);
}

TEST(OperatorPhrase, MatchIsExactAndCountDecides) {
    for (const char *w : {"Match", "EQUAL", "GT", "=>", "= ", "matc", "matches", "", "not"})
        EXPECT_EQ(op_of({w}), nullptr) << '"' << w << '"';
    EXPECT_EQ(op_of({"Not", "match"}), nullptr);
    EXPECT_EQ(op_of({"greater", "Than"}), nullptr);
    EXPECT_EQ(op_of({"not", "Bigger", "than"}), nullptr);
    // The count, not the array, says how long the phrase is.
    EXPECT_EQ(str(op_of({"=", "junk"}, 1)), "match");
    EXPECT_EQ(str(op_of({"less", "than", "junk"}, 2)), "lt");
    EXPECT_EQ(op_of({"="}, 0), nullptr);
    EXPECT_EQ(op_of({"="}, -1), nullptr);
    EXPECT_EQ(op_of({"not", "bigger", "than", "x"}, 4), nullptr);
    EXPECT_EQ(op_of({"bigger", "than"}, 1), nullptr);
    EXPECT_EQ(find_match_op_symbol(nullptr, 1), nullptr);
}

TEST(OperatorPhrase, EverySpellingGivesTheSameLiteral) {
    const char *a = op_of({"="}), *b = op_of({"equal"}), *c = op_of({"match"});
    EXPECT_EQ(a, b);
    EXPECT_EQ(a, c);
    EXPECT_EQ(op_of({"not", "equal"}), op_of({"!="}));
    EXPECT_EQ(op_of({"no", "smaller", "than"}), op_of({">="}));
}

// Two values of an 8-byte slot each; the 32-bit types look at the first four bytes.
struct Pair {
    unsigned char a[8];
    unsigned char b[8];
};
template <class T> Pair pair_of(T x, T y) {
    Pair p;
    std::memset(&p, 0, sizeof p);
    std::memcpy(p.a, &x, sizeof x);
    std::memcpy(p.b, &y, sizeof y);
    return p;
}

TEST(Compare, ThirtyTwoBitTypes) {
    Pair p = pair_of<int32_t>(3, -1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_INT32, p.a, p.b), 1); // -1 below 3
    EXPECT_EQ(logic_compare_less(APP_ITEM_INT32, p.b, p.a), 0);
    EXPECT_EQ(logic_compare_less(APP_ITEM_UINT32, p.a, p.b), 0); // 0xffffffff above 3
    EXPECT_EQ(logic_compare_less(APP_ITEM_UINT32, p.b, p.a), 1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_IPV4, p.a, p.b), 0);
    EXPECT_EQ(logic_compare_less(APP_ITEM_IPV4, p.b, p.a), 1);
    for (uint32_t t : {APP_ITEM_BOOL, APP_ITEM_INT32, APP_ITEM_UINT32, APP_ITEM_IPV4}) {
        EXPECT_EQ(logic_compare_match(t, p.a, p.b), 0) << t;
        EXPECT_EQ(logic_compare_match(t, p.a, p.a), 1) << t;
        EXPECT_EQ(logic_compare_less(t, p.a, p.a), t == APP_ITEM_BOOL ? 1 : 0) << t;
    }
    // Only 32 bits count: the bytes behind them differ and the values are still equal.
    Pair q = pair_of<uint64_t>(0x100000007, 0x200000007);
    EXPECT_EQ(logic_compare_match(APP_ITEM_INT32, q.a, q.b), 1);
    EXPECT_EQ(logic_compare_match(APP_ITEM_INT64, q.a, q.b), 0);
}

TEST(Compare, TruthValueIsAlwaysLess) {
    Pair p = pair_of<uint32_t>(0, 1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_BOOL, p.a, p.b), 1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_BOOL, p.b, p.a), 1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_BOOL, nullptr, nullptr), 1);
    EXPECT_EQ(logic_compare_match(APP_ITEM_BOOL, p.a, p.b), 0);
}

TEST(Compare, SixtyFourBitSigned) {
    Pair p = pair_of<int64_t>(int64_t{1} << 40, -(int64_t{1} << 40));
    EXPECT_EQ(logic_compare_less(APP_ITEM_INT64, p.a, p.b), 1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_INT64, p.b, p.a), 0);
    EXPECT_EQ(logic_compare_less(APP_ITEM_INT64, p.a, p.a), 0);
    EXPECT_EQ(logic_compare_match(APP_ITEM_INT64, p.b, p.b), 1);
}

TEST(Compare, Strings) {
    char x[] = "eth0", y[] = "eth0", z[] = "eth1";
    EXPECT_EQ(logic_compare_match(APP_ITEM_STRING, x, y), 1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_STRING, x, y), 0);
    EXPECT_EQ(logic_compare_less(APP_ITEM_STRING, y, x), 0);
    EXPECT_EQ(logic_compare_match(APP_ITEM_STRING, x, z), 0);
    EXPECT_EQ(logic_compare_less(APP_ITEM_STRING, z, x), 1); // "eth0" below "eth1"
    EXPECT_EQ(logic_compare_less(APP_ITEM_STRING, x, z), 0);
}

TEST(Compare, MacEqualityStopsAtZeroWhileLessStopsAtSix) {
    // Equal up to a zero byte at 2, different behind it: equal.
    unsigned char a[8] = {0x00, 0x11, 0x00, 0x33, 0x44, 0x55, 0, 0};
    unsigned char b[8] = {0x00, 0x11, 0x00, 0x99, 0x99, 0x99, 0, 0};
    EXPECT_EQ(logic_compare_match(APP_ITEM_MAC, a, b), 1);
    // No zero byte in the six: equality reads on to byte 7, "less" stops at 6.
    unsigned char c[8] = {1, 2, 3, 4, 5, 6, 7, 0};
    unsigned char d[8] = {1, 2, 3, 4, 5, 6, 9, 0};
    EXPECT_EQ(logic_compare_match(APP_ITEM_MAC, c, d), 0);
    EXPECT_EQ(logic_compare_less(APP_ITEM_MAC, c, d), 0);
    EXPECT_EQ(logic_compare_less(APP_ITEM_MAC, d, c), 0);
    unsigned char e[8] = {1, 2, 3, 4, 5, 5, 9, 0};
    EXPECT_EQ(logic_compare_less(APP_ITEM_MAC, c, e), 1);
    EXPECT_EQ(logic_compare_less(APP_ITEM_MAC, e, c), 0);
}

TEST(Compare, UnknownTypeIsEqualAndLess) {
    Pair p = pair_of<uint32_t>(1, 2);
    for (uint32_t t : {4u, 6u, 11u, 13u, 15u, 17u, 1000u}) {
        EXPECT_EQ(logic_compare_match(t, p.a, p.b), 1) << t;
        EXPECT_EQ(logic_compare_less(t, p.a, p.b), 1) << t;
        EXPECT_EQ(logic_compare_less(t, p.b, p.a), 1) << t;
    }
}

} // namespace
