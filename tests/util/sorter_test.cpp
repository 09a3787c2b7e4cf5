// The sorter: init checks, the merge order and its tie rule, the natural
// order of strings, compare_by_type per type, and the getOffset layout.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "mgmt/sorter.h"
#include "test_support.h"

using mgmt_test::ConsoleCapture;

namespace {

struct Rec {
    uint32_t seq;
    uint32_t key;
};

std::vector<Rec *> walk(vk_sorter_node *n) {
    std::vector<Rec *> out;
    for (; n; n = n->next) out.push_back(static_cast<Rec *>(n->object));
    return out;
}

std::vector<Rec *> sort_all(std::vector<Rec *> recs) {
    for (Rec *r : recs) vk_sorter_write(r);
    std::vector<Rec *> got = walk(vk_sorter_get());
    vk_sorter_free();
    return got;
}

TEST(Sorter, InitRefusesBadLengthsWithTheTextOrSilently) {
    ConsoleCapture cap;
    EXPECT_EQ(vk_sorter_init(-1, 2, 0, 0, 4, 0, nullptr, 0), -1);
    EXPECT_EQ(vk_sorter_init(4, 2, 8, 0, 4, 0, nullptr, 0), -1);
    EXPECT_EQ(vk_sorter_init(8, 2, -1, 0, 4, 0, nullptr, 0), -1);
    EXPECT_EQ(cap.text(), "init_sort_contex: data len -1, offset 0\n"
                          "init_sort_contex: data len 4, offset 8\n"
                          "init_sort_contex: data len 8, offset -1\n");
    cap.clear();
    // data_len equal to offset plus length passes; one more in length fails without a message.
    EXPECT_EQ(vk_sorter_init(8, 2, 4, 0, 4, 0, nullptr, 0), 0);
    EXPECT_EQ(vk_sorter_init(8, 2, 4, 0, 5, 0, nullptr, 0), -1);
    EXPECT_EQ(cap.text(), "");
    // The emptied context has no compare function: a get keeps the objects and doesn't crash.
    Rec a{0, 1}, b{1, 2};
    EXPECT_EQ(sort_all({&a, &b}).size(), 2u);
}

TEST(Sorter, EmptyAndSingle) {
    ASSERT_EQ(vk_sorter_init(sizeof(Rec), 2, 0, 0, 4, 0, nullptr, 0), 0);
    EXPECT_EQ(vk_sorter_get(), nullptr);
    Rec a{0, 7};
    vk_sorter_write(&a);
    vk_sorter_node *n = vk_sorter_get();
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->object, &a);
    EXPECT_EQ(n->next, nullptr);
    vk_sorter_free();
    EXPECT_EQ(vk_sorter_get(), nullptr); // free ended the sort
}

// Random records against std::stable_sort: ascending ties keep the order of writing.
TEST(Sorter, MatchesStableSortAndKeepsWritingOrderOfTies) {
    std::mt19937 rng(42);
    std::vector<Rec> recs(5000);
    std::vector<Rec *> want;
    for (uint32_t i = 0; i < recs.size(); ++i) {
        recs[i] = {i, uint32_t(rng() % 50)};
        want.push_back(&recs[i]);
    }
    ASSERT_EQ(vk_sorter_init(sizeof(Rec), 1, offsetof(Rec, key), 0, 4, 0, nullptr, 0), 0);
    std::vector<Rec *> got = sort_all(want);
    std::stable_sort(want.begin(), want.end(), [](Rec *a, Rec *b) { return a->key < b->key; });
    EXPECT_EQ(got, want);
}

TEST(Sorter, KeptTypesAnsweringOneOrMinusOneNeverTieAndDescendingReverses) {
    Rec a{0, 5}, b{1, 5}, c{2, 9};
    // Type 1 reports ties: equal keys keep their order of writing in both directions.
    // Type 2 never reports a tie: descending puts the later written of two equal keys first.
    const std::pair<uint32_t, std::vector<Rec *>> cases[] = {{1, {&c, &a, &b}}, {2, {&c, &b, &a}}};
    for (const auto &[type, want] : cases) {
        ASSERT_EQ(vk_sorter_init(sizeof(Rec), type, offsetof(Rec, key), 0, 4, 1, nullptr, 0), 0);
        EXPECT_EQ(sort_all({&a, &b, &c}), want) << type;
    }
}

uint32_t g_seen_word;
int32_t by_seq_desc(const void *l, const void *r, vk_sort_context *ctx) {
    g_seen_word = ctx->caller_word;
    return int32_t(static_cast<const Rec *>(r)->seq) - int32_t(static_cast<const Rec *>(l)->seq);
}

TEST(Sorter, OwnCompareGetsTheContextAndGetCanBeRepeated) {
    Rec r[4] = {{0, 0}, {1, 0}, {2, 0}, {3, 0}};
    ASSERT_EQ(vk_sorter_init(sizeof(Rec), 2, 0, 0, 4, 0, by_seq_desc, 77), 0);
    vk_sorter_write(&r[0]);
    vk_sorter_write(&r[2]);
    vk_sorter_write(&r[1]);
    EXPECT_EQ(walk(vk_sorter_get()), (std::vector<Rec *>{&r[2], &r[1], &r[0]}));
    EXPECT_EQ(g_seen_word, 77u);
    // A later write goes in front of the sorted chain; a second get sorts all.
    vk_sorter_write(&r[3]);
    EXPECT_EQ(walk(vk_sorter_get()), (std::vector<Rec *>{&r[3], &r[2], &r[1], &r[0]}));
    vk_sorter_free();
}

int sign(int32_t v) { return (v > 0) - (v < 0); }

TEST(CompareByType, NaturalOrderOfStrings) {
    const struct {
        const char *left, *right;
        int sign;
    } cases[] = {
        {"a9", "a10", -1},  {"ab", "abc", -1}, {"007", "7", 1},
        {"A1", "a1", -1},   // decided by strcmp after everything else was equal
        {"Apple", "banana", -1}, // letters without regard to case
        {"", "a", -1},      {"x2y", "x2y", 0},
        {"x02", "x10", -1}, // equal digit counts: byte compare of the runs
    };
    for (const auto &c : cases) {
        char l[16] = {}, r[16] = {};
        std::strncpy(l, c.left, sizeof l - 1);
        std::strncpy(r, c.right, sizeof r - 1);
        EXPECT_EQ(sign(compare_by_type(5, 16, l, r)), c.sign) << c.left << " " << c.right;
    }
    // Two strings that end in the same digits look at the byte behind their terminators.
    char l[8] = {'a', '1', 0, 'z', 0}, r[8] = {'a', '1', 0, 0};
    EXPECT_GT(compare_by_type(5, 8, l, r), 0);
    // Without a length nothing behind the terminator is read.
    EXPECT_EQ(compare_by_type(5, 0, "b7", "b7"), 0);
}

TEST(CompareByType, NumbersAndBytes) {
    uint32_t u5 = 5, u6 = 6;
    EXPECT_EQ(compare_by_type(2, 4, &u5, &u5), -1); // never a tie, both ways
    EXPECT_EQ(compare_by_type(2, 4, &u6, &u5), 1);
    EXPECT_EQ(compare_by_type(10, 4, &u5, &u6), -1);
    int32_t i3 = 3, im4 = -4;
    EXPECT_EQ(compare_by_type(1, 4, &i3, &im4), 7);
    EXPECT_EQ(compare_by_type(0, 4, &im4, &i3), -7);
    int64_t big = int64_t{1} << 40, small = -1;
    EXPECT_EQ(compare_by_type(3, 8, &big, &small), 1);
    uint64_t ubig = ~uint64_t{0}, uone = 1;
    EXPECT_EQ(compare_by_type(4, 8, &ubig, &uone), 1);
    int8_t c1 = -3, c2 = 4;
    EXPECT_EQ(compare_by_type(7, 1, &c1, &c2), -7);
    uint8_t b1 = 200, b2 = 100;
    EXPECT_EQ(compare_by_type(6, 1, &b1, &b2), 1);
    int16_t s1 = 1000, s2 = -1000;
    EXPECT_EQ(compare_by_type(9, 2, &s1, &s2), 2000);
    uint16_t w1 = 1, w2 = 1;
    EXPECT_EQ(compare_by_type(8, 2, &w1, &w2), -1);
    unsigned char m1[16] = {1, 2, 3, 4, 5, 6}, m2[16] = {1, 2, 3, 4, 5, 7};
    EXPECT_LT(compare_by_type(12, 0, m1, m2), 0);
    EXPECT_LT(compare_by_type(11, 0, m1, m2), 0);
    EXPECT_EQ(compare_by_type(13, 5, m1, m2), 0);
    EXPECT_LT(compare_by_type(17, 6, m1, m2), 0);

    testing::internal::CaptureStdout();
    for (uint32_t type : {15u, 16u, 18u}) EXPECT_EQ(compare_by_type(type, 4, &u5, &u6), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Unknown object type 15\nUnknown object type 16\nUnknown object type 18\n");
    EXPECT_EQ(count_digits("0123ab4"), 4);
    EXPECT_EQ(count_digits("x1"), 0);
}

TEST(GetOffset, KeptSixteenByteMemberAddsTheTotalAgain) {
    EXPECT_EQ(getOffset(12, 0), 0);   // MAC, 6 bytes
    EXPECT_EQ(getOffset(2, 0), 8);    // u32 after 6 bytes
    EXPECT_EQ(getOffset(5, 3), 12);   // 3-byte string
    EXPECT_EQ(getOffset(8, 0), 16);   // u16 rounds 15 up to 16
    for (uint32_t refused : {4u, 6u, 7u, 15u}) EXPECT_EQ(getOffset(refused, 0), -1) << refused; // nothing changes
    EXPECT_EQ(getOffset(3, 0), 24);   // i64 rounds 18 up to 24
    EXPECT_EQ(getOffset(13, 1), 32);
    EXPECT_EQ(getOffset(4, GETOFFSET_LAST_MEMBER), 40); // 33 rounded to 8; the state goes back
    EXPECT_EQ(getOffset(1, 0), 0);
    EXPECT_EQ(getOffset(9, 0), 4);
    EXPECT_EQ(getOffset(10, GETOFFSET_LAST_MEMBER), 12); // 8 + 4, a multiple of 4 stays
    // A 16-byte value sits on 4 bytes and adds the old total a second time.
    EXPECT_EQ(getOffset(5, 4), 0);
    EXPECT_EQ(getOffset(11, 0), 4);
    EXPECT_EQ(getOffset(5, 1), 24); // 4 + 16 + 4
    EXPECT_EQ(getOffset(4, GETOFFSET_LAST_MEMBER), 25); // max unit 1: no padding
    EXPECT_EQ(getOffset(4, GETOFFSET_LAST_MEMBER), 0);
}

} // namespace
