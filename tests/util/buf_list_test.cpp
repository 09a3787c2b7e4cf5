// Buffer list: storage across blocks, the position arithmetic, line reads,
// slices and seeks across block boundaries, formatted appends.

#include <gtest/gtest.h>

#include "test_support.h"
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mgmt/buf_list.h"
#include "platform/platform.h"

namespace {

struct ListDeleter {
    void operator()(buf_list *l) const { buf_list_free(l); }
};
using ListPtr = std::unique_ptr<buf_list, ListDeleter>;

ListPtr make(uint32_t elem_size, const std::string &text = {}) {
    ListPtr l(buf_list_new(elem_size));
    if (!text.empty()) {
        buf_list_write(l.get(), text.data(), static_cast<uint32_t>(text.size()));
    }
    return l;
}

// What the blocks hold, in order.
std::string stored(const buf_list *l) {
    std::string s;
    for (const buf_elem *e = l->head; e != nullptr; e = e->next) {
        s.append(e->data, e->used);
    }
    return s;
}

std::vector<uint32_t> block_fill(const buf_list *l) {
    std::vector<uint32_t> v;
    for (const buf_elem *e = l->head; e != nullptr; e = e->next) {
        v.push_back(e->used);
    }
    return v;
}

// One buf_list_get_line call: nullopt-like flag plus the delivered text.
struct Line {
    bool null;
    std::string text;
    uint32_t len;
};

Line get_line(buf_list *l, uint32_t cap) {
    std::vector<char> out(cap + 16, '#');
    uint32_t len = cap;
    char *r = buf_list_get_line(l, out.data(), &len);
    Line line{r == nullptr, {}, len};
    if (r != nullptr) {
        EXPECT_EQ(r, out.data());
        line.text.assign(out.data(), len);
    }
    // Nothing beyond the capacity is touched (a capacity of 0 still takes one byte).
    for (size_t i = std::max<uint32_t>(cap, 1); i < out.size(); ++i) {
        EXPECT_EQ(out[i], '#') << "byte " << i << " written beyond the capacity " << cap;
    }
    return line;
}

TEST(BufListStore, NewListHasCompanionAndNoElements) {
    ListPtr l = make(1024);
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->elem_size, 1024u);
    EXPECT_EQ(l->head, nullptr);
    EXPECT_EQ(l->tail, nullptr);
    EXPECT_EQ(l->cursor, nullptr);
    EXPECT_EQ(l->total_len, 0u);
    EXPECT_EQ(l->position, 0u);
    ASSERT_NE(l->companion, nullptr);
    EXPECT_EQ(l->companion->elem_size, 64u);
    EXPECT_EQ(l->companion->companion, nullptr);
    EXPECT_EQ(l->companion->head, nullptr);
    EXPECT_EQ(buf_list_empty(l.get()), 1);
    EXPECT_EQ(buf_list_empty(nullptr), 1);
}

TEST(BufListStore, WritesFillBlocksInOrderAndLinkThem) {
    ListPtr l = make(8);
    EXPECT_EQ(buf_list_write(l.get(), "x", 0), 0u);
    EXPECT_EQ(l->head, nullptr) << "a write of nothing makes no element";

    EXPECT_EQ(buf_list_write(l.get(), "abc", 3), 3u);
    ASSERT_NE(l->head, nullptr);
    EXPECT_EQ(l->head, l->tail);
    EXPECT_EQ(l->head->prev, nullptr);
    EXPECT_EQ(l->head->next, nullptr);
    EXPECT_EQ(l->head->start, 0u);
    for (uint32_t i = 3; i < 8; ++i) {
        EXPECT_EQ(l->head->data[i], 0) << "blocks are zero-filled";
    }
    EXPECT_EQ(buf_list_empty(l.get()), 0);

    EXPECT_EQ(buf_list_write(l.get(), "defghijklmnopqrstu", 18), 18u);
    EXPECT_EQ(stored(l.get()), "abcdefghijklmnopqrstu");
    EXPECT_EQ(block_fill(l.get()), (std::vector<uint32_t>{8, 8, 5}));
    EXPECT_EQ(l->total_len, 21u);
    EXPECT_EQ(l->tail->prev->next, l->tail);
    EXPECT_EQ(l->tail->prev->prev, l->head);
    EXPECT_EQ(l->cursor, nullptr) << "writes never set the cursor";
}

TEST(BufListStore, ExactBlockThenNextWriteStartsNewElement) {
    ListPtr l = make(8, "12345678");
    EXPECT_EQ(block_fill(l.get()), (std::vector<uint32_t>{8}));
    EXPECT_EQ(l->position, 8u);
    buf_list_write(l.get(), "9", 1);
    EXPECT_EQ(block_fill(l.get()), (std::vector<uint32_t>{8, 1}));
    EXPECT_EQ(l->position, 9u);
    EXPECT_EQ(l->total_len, 9u);
}

TEST(BufListStore, PositionArithmeticOfWritesThatCrossBlocks) {
    // Each block filled on the way credits the position with the bytes still
    // to come, so the position drifts from the stored length.
    struct Case {
        uint32_t first;
        uint32_t second;
        uint32_t position;
    };
    for (const Case &c : {Case{10, 0, 4}, Case{30, 0, 48}, Case{20, 0, 20}, Case{5, 10, 19}, Case{8, 8, 16}}) {
        ListPtr l = make(8);
        std::string a(c.first, 'a');
        std::string b(c.second, 'b');
        EXPECT_EQ(buf_list_write(l.get(), a.data(), c.first), c.first);
        EXPECT_EQ(buf_list_write(l.get(), b.data(), c.second), c.second);
        EXPECT_EQ(l->total_len, c.first + c.second);
        EXPECT_EQ(l->position, c.position) << c.first << "+" << c.second;
        EXPECT_EQ(stored(l.get()), a + b);
    }
}

TEST(BufListStore, WriteStrAndCopyAppend) {
    ListPtr l = make(4);
    EXPECT_EQ(buf_list_write_str(l.get(), nullptr), -1);
    EXPECT_EQ(buf_list_write_str(l.get(), ""), 0);
    EXPECT_EQ(buf_list_write_str(l.get(), "line one\n"), 9);
    EXPECT_EQ(l->total_len, 9u) << "the terminator is not stored";

    ListPtr src = make(3, "alpha\nbeta\n");
    buf_list_rewind(src.get());
    get_line(src.get(), 100);
    buf_elem *src_cursor = src->cursor;
    uint32_t src_offset = src->read_offset;

    EXPECT_EQ(buf_list_copy_append(l.get(), src.get()), 11u);
    EXPECT_EQ(stored(l.get()), "line one\nalpha\nbeta\n");
    EXPECT_EQ(src->cursor, src_cursor);
    EXPECT_EQ(src->read_offset, src_offset);
    EXPECT_EQ(stored(src.get()), "alpha\nbeta\n");

    ListPtr empty = make(16);
    EXPECT_EQ(buf_list_copy_append(l.get(), empty.get()), 0u);
    EXPECT_EQ(l->total_len, 20u);
}

TEST(BufListStore, ResetKeepsCompanionAndCursorAndAllowsReuse) {
    ListPtr l = make(4, "0123456789");
    buf_list *companion = l->companion;
    buf_list_rewind(l.get());
    buf_elem *stale = l->cursor;
    buf_list_reset(l.get());
    EXPECT_EQ(l->head, nullptr);
    EXPECT_EQ(l->tail, nullptr);
    EXPECT_EQ(l->total_len, 0u);
    EXPECT_EQ(l->position, 0u);
    EXPECT_EQ(l->read_offset, 0u);
    EXPECT_EQ(l->cursor, stale) << "a reset leaves the cursor for the next rewind";
    EXPECT_EQ(l->companion, companion);
    EXPECT_EQ(l->companion->elem_size, 0u);
    EXPECT_EQ(buf_list_empty(l.get()), 1);

    buf_list_write_str(l.get(), "new\n");
    buf_list_rewind(l.get());
    EXPECT_EQ(get_line(l.get(), 10).text, "new\n");
    buf_list_reset(nullptr);
    buf_list_free(nullptr);
}

TEST(BufListStore, ElementFreeSubtractsItsBytesWithoutUnlinking) {
    ListPtr l = make(4, "abcdef");
    buf_elem *last = l->tail;
    // Detach it by hand: buf_elem_free only accounts and frees.
    l->tail = last->prev;
    l->tail->next = nullptr;
    buf_elem_free(l.get(), last);
    EXPECT_EQ(l->total_len, 4u);
    buf_elem_free(l.get(), nullptr);
    EXPECT_EQ(l->total_len, 4u);
    EXPECT_EQ(stored(l.get()), "abcd");
}

TEST(BufListStore, EmptyLooksAtTheTailOnly) {
    ListPtr l = make(4, "abcdef");
    EXPECT_EQ(buf_list_empty(l.get()), 0);
    l->tail->start = l->tail->used;
    EXPECT_EQ(buf_list_empty(l.get()), 1) << "a tail read from its end counts as empty";
    l->tail->start = 0;
}

TEST(BufListRead, NoCursorBeforeRewind) {
    ListPtr l = make(8, "text\n");
    Line line = get_line(l.get(), 16);
    EXPECT_TRUE(line.null);
    EXPECT_EQ(line.len, 0u);
    buf_list_rewind(l.get());
    EXPECT_EQ(l->position, 5u) << "rewind leaves the position";
    EXPECT_EQ(get_line(l.get(), 16).text, "text\n");
}

TEST(BufListRead, LinesAcrossBlocksAndTheEnd) {
    ListPtr l = make(4, "hello\nworld\nx");
    ASSERT_EQ(l->position, 16u);
    buf_list_rewind(l.get());
    EXPECT_EQ(l->cursor, l->head);
    Line a = get_line(l.get(), 64);
    EXPECT_FALSE(a.null);
    EXPECT_EQ(a.text, "hello\n");
    EXPECT_EQ(a.len, 6u);
    EXPECT_EQ(get_line(l.get(), 64).text, "world\n");
    Line last = get_line(l.get(), 64);
    EXPECT_FALSE(last.null) << "running off the end still returns the buffer";
    EXPECT_EQ(last.text, "x");
    EXPECT_EQ(l->cursor, nullptr);
    EXPECT_EQ(l->read_offset, 0u);
    Line after = get_line(l.get(), 64);
    EXPECT_TRUE(after.null);
    EXPECT_EQ(after.len, 0u);
    // 16 from the write that crossed three block ends, plus the 13 read.
    EXPECT_EQ(l->position, 16u + 13u);
}

TEST(BufListRead, TextEndingAtBlockEndGivesAnEmptyReadThenNull) {
    ListPtr l = make(4, "abc\n");
    buf_list_rewind(l.get());
    EXPECT_EQ(get_line(l.get(), 64).text, "abc\n");
    EXPECT_EQ(l->cursor, l->head) << "the cursor stays until the next read steps off";
    Line empty = get_line(l.get(), 64);
    EXPECT_FALSE(empty.null);
    EXPECT_EQ(empty.len, 0u);
    EXPECT_TRUE(get_line(l.get(), 64).null);
    EXPECT_EQ(l->position, 8u);
}

TEST(BufListRead, CapacityCutsTheLineAndTheRestFollows) {
    ListPtr l = make(3, "abcdef\ngh\n");
    buf_list_rewind(l.get());
    Line first = get_line(l.get(), 4);
    EXPECT_EQ(first.text, "abcd");
    EXPECT_EQ(first.len, 4u);
    EXPECT_EQ(get_line(l.get(), 4).text, "ef\n");
    EXPECT_EQ(get_line(l.get(), 4).text, "gh\n");
}

TEST(BufListRead, ZeroCapacityStillTakesOneByte) {
    ListPtr l = make(8, "abc\n");
    buf_list_rewind(l.get());
    Line one = get_line(l.get(), 0);
    EXPECT_FALSE(one.null);
    EXPECT_EQ(one.len, 1u);
    EXPECT_EQ(one.text, "a");
    EXPECT_EQ(get_line(l.get(), 10).text, "bc\n");
}

TEST(BufListRead, ZeroByteEndsTheTextAndGivesTheBytesBack) {
    ListPtr l = make(16);
    buf_list_write(l.get(), "ab\0cd\n", 6);
    buf_list_rewind(l.get());
    const uint32_t position = l->position;
    Line line = get_line(l.get(), 16);
    EXPECT_TRUE(line.null);
    EXPECT_EQ(line.len, 0u);
    EXPECT_EQ(l->read_offset, 0u);
    EXPECT_EQ(l->cursor, l->head);
    EXPECT_EQ(l->position, position);
    EXPECT_TRUE(get_line(l.get(), 16).null) << "the reader stays in front of the zero byte";
}

TEST(BufListRead, ZeroByteStepBackCountsInTheCurrentElementOnly) {
    ListPtr l = make(2);
    buf_list_write(l.get(), "abc\0", 4);
    buf_list_rewind(l.get());
    EXPECT_TRUE(get_line(l.get(), 16).null);
    EXPECT_EQ(l->cursor, l->tail);
    EXPECT_EQ(l->read_offset, 2u - 4u) << "four bytes taken, two of them in this element";
    // The reader then finds nothing left in the element and runs off the end.
    Line next = get_line(l.get(), 16);
    EXPECT_FALSE(next.null);
    EXPECT_EQ(next.len, 0u);
    EXPECT_EQ(l->cursor, nullptr);
}

TEST(BufListRead, ExactLinesFillTheCapacityAndContinueInTheCutLine) {
    ListPtr l = make(5, "one\ntwo\nthree\n");
    buf_list_rewind(l.get());
    std::vector<char> out(32, '#');
    uint32_t len = 10;
    EXPECT_EQ(buf_list_get_exact_lines(l.get(), out.data(), &len), out.data());
    EXPECT_EQ(len, 10u);
    EXPECT_EQ(std::string(out.data(), 10), "one\ntwo\nth");
    EXPECT_EQ(out[10], '#');

    len = 20;
    buf_list_get_exact_lines(l.get(), out.data(), &len);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(std::string(out.data(), 4), "ree\n");

    len = 20;
    EXPECT_EQ(buf_list_get_exact_lines(l.get(), out.data(), &len), out.data());
    EXPECT_EQ(len, 0u);
}

TEST(BufListRead, ExactLinesWithZeroCapacityWriteNothing) {
    ListPtr l = make(8, "abc\n");
    buf_list_rewind(l.get());
    char out[4] = {'#', '#', '#', '#'};
    uint32_t len = 0;
    EXPECT_EQ(buf_list_get_exact_lines(l.get(), out, &len), out);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(out[0], '#');
}

TEST(BufListRead, SlicesOfACommandScriptRoundTrip) {
    // The way a script is fed to a file: 1023-byte slices until one is empty.
    std::string text;
    for (int i = 0; i < 300; ++i) {
        text += "set object " + std::to_string(i) + std::string(static_cast<size_t>(i % 37), 'v') + "\n";
    }
    text += "no newline at the end";
    ListPtr l = make(1024);
    for (size_t at = 0; at < text.size(); at += 333) {
        std::string piece = text.substr(at, 333);
        ASSERT_EQ(buf_list_write_str(l.get(), piece.c_str()), static_cast<int>(piece.size()));
    }
    ASSERT_EQ(l->total_len, text.size());
    buf_list_rewind(l.get());
    std::string back;
    char slice[1023];
    for (int guard = 0; guard < 1000; ++guard) {
        uint32_t len = sizeof slice;
        buf_list_get_exact_lines(l.get(), slice, &len);
        ASSERT_LE(len, sizeof slice);
        if (len == 0) {
            break;
        }
        back.append(slice, len);
    }
    EXPECT_EQ(back, text);
}

// Ten bytes in blocks of four: [abcd][efgh][ij].
class BufListSeek : public ::testing::Test {
protected:
    void SetUp() override {
        l = make(4, "abcdefghij");
        ASSERT_EQ(l->position, 10u);
    }
    std::string rest() {
        Line line = get_line(l.get(), 64);
        return line.null ? "<null>" : line.text;
    }
    ListPtr l;
};

TEST_F(BufListSeek, OffsetZeroFromStartOrEndFailsButMoves) {
    EXPECT_EQ(buf_list_seek(l.get(), 0, 0), -1);
    EXPECT_EQ(l->cursor, l->head);
    EXPECT_EQ(l->read_offset, 0u);
    EXPECT_EQ(l->position, 0u);
    EXPECT_EQ(rest(), "abcdefghij");

    EXPECT_EQ(buf_list_seek(l.get(), 0, 2), -1);
    EXPECT_EQ(l->cursor, l->tail);
    EXPECT_EQ(l->read_offset, 2u);
    EXPECT_EQ(l->position, 10u);
    EXPECT_EQ(rest(), "") << "behind the last byte";
}

TEST_F(BufListSeek, ForwardFromStartWithinAndAcrossBlocks) {
    EXPECT_EQ(buf_list_seek(l.get(), 3, 0), 3);
    EXPECT_EQ(l->cursor, l->head);
    EXPECT_EQ(rest(), "defghij");

    EXPECT_EQ(buf_list_seek(l.get(), 4, 0), 4);
    EXPECT_EQ(l->cursor, l->head) << "an offset that ends a block stays in it";
    EXPECT_EQ(l->read_offset, 4u);
    EXPECT_EQ(rest(), "efghij");

    EXPECT_EQ(buf_list_seek(l.get(), 5, 0), 5);
    EXPECT_EQ(l->cursor, l->head->next);
    EXPECT_EQ(l->read_offset, 1u);
    EXPECT_EQ(l->position, 5u);
    EXPECT_EQ(rest(), "fghij");
    EXPECT_EQ(l->position, 10u);

    EXPECT_EQ(buf_list_seek(l.get(), 9, 0), 9);
    EXPECT_EQ(l->cursor, l->tail);
    EXPECT_EQ(rest(), "j");

    EXPECT_EQ(buf_list_seek(l.get(), 10, 0), -1);
    EXPECT_EQ(buf_list_seek(l.get(), 11, 0), -1);
    EXPECT_EQ(l->cursor, l->head);
    EXPECT_EQ(l->position, 0u);
}

TEST_F(BufListSeek, BackwardFromEndAcrossBlocks) {
    EXPECT_EQ(buf_list_seek(l.get(), -1, 2), 9);
    EXPECT_EQ(rest(), "j");
    EXPECT_EQ(buf_list_seek(l.get(), -3, 2), 7);
    EXPECT_EQ(l->cursor, l->head->next);
    EXPECT_EQ(l->read_offset, 3u);
    EXPECT_EQ(rest(), "hij");
    EXPECT_EQ(buf_list_seek(l.get(), -9, 2), 1);
    EXPECT_EQ(l->cursor, l->head);
    EXPECT_EQ(rest(), "bcdefghij");
    EXPECT_EQ(buf_list_seek(l.get(), -10, 2), -1) << "the very start is a failure too";
    EXPECT_EQ(l->cursor, l->tail);
    EXPECT_EQ(buf_list_seek(l.get(), -11, 2), -1);
}

TEST_F(BufListSeek, RelativeSeeksFromThePosition) {
    ASSERT_EQ(buf_list_seek(l.get(), 3, 0), 3);
    EXPECT_EQ(buf_list_seek(l.get(), 2, 1), 5);
    EXPECT_EQ(l->cursor, l->head->next);
    EXPECT_EQ(buf_list_seek(l.get(), 0, 1), 1) << "offset 0 answers the offset inside the block";
    EXPECT_EQ(buf_list_seek(l.get(), -2, 1), 3);
    EXPECT_EQ(l->cursor, l->head);
    EXPECT_EQ(l->read_offset, 3u);
    EXPECT_EQ(buf_list_seek(l.get(), -3, 1), -1) << "target 0";
    EXPECT_EQ(buf_list_seek(l.get(), 7, 1), -1) << "target 10, the end";
    EXPECT_EQ(buf_list_seek(l.get(), 6, 1), 9);
    EXPECT_EQ(rest(), "j");
}

TEST_F(BufListSeek, ReadingAdvancesThePositionForRelativeSeeks) {
    ASSERT_EQ(buf_list_seek(l.get(), 2, 0), 2);
    Line part = get_line(l.get(), 3);
    EXPECT_EQ(part.text, "cde");
    EXPECT_EQ(l->position, 5u);
    EXPECT_EQ(buf_list_seek(l.get(), -4, 1), 1);
    EXPECT_EQ(rest(), "bcdefghij");
}

TEST(BufListSeekDrift, DriftedPositionAndMissingCursorFailSafely) {
    ListPtr l = make(8);
    std::string text(30, 'z');
    buf_list_write(l.get(), text.data(), 30);
    ASSERT_EQ(l->position, 48u);
    EXPECT_EQ(buf_list_seek(l.get(), -20, 1), -1) << "no cursor before a rewind";
    buf_list_rewind(l.get());
    EXPECT_EQ(buf_list_seek(l.get(), 1, 1), -1) << "the drifted position is past the end";
    EXPECT_EQ(buf_list_seek(l.get(), -40, 1), -1) << "a walk back past the first block";
    EXPECT_EQ(buf_list_seek(l.get(), 6, 0), 6) << "a seek from the start sets the position afresh";
    EXPECT_EQ(l->position, 6u);

    ListPtr empty = make(4);
    EXPECT_EQ(buf_list_seek(empty.get(), 0, 2), -1);
    EXPECT_EQ(buf_list_seek(empty.get(), 1, 0), -1);
    EXPECT_EQ(buf_list_seek(nullptr, 1, 0), -1);
}

TEST(BufListPrint, FormatsWithoutTerminatorOnStackAndHeapPaths) {
    ListPtr l = make(16);
    EXPECT_EQ(buf_list_print(l.get(), "%d-%s|", 42, "x"), 5);
    EXPECT_EQ(stored(l.get()), "42-x|");

    for (size_t n : {1023u, 1024u, 5000u}) {
        ListPtr big = make(100);
        std::string text(n, 'p');
        text[0] = '<';
        text[n - 1] = '>';
        EXPECT_EQ(buf_list_print(big.get(), "%s", text.c_str()), static_cast<int>(n));
        EXPECT_EQ(big->total_len, n);
        EXPECT_EQ(stored(big.get()), text);
    }
}

#if defined(__SANITIZE_ADDRESS__)
#define MGMT_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MGMT_UNDER_ASAN 1
#endif
#endif

[[maybe_unused]] void collect(const char *text, void *ctx) {
    static_cast<std::string *>(ctx)->append(text);
}

TEST(BufListPrint, OutOfMemoryStoresNothingAndSaysSo) {
#ifdef MGMT_UNDER_ASAN
    GTEST_SKIP() << "address space limits do not mix with the sanitizer's shadow memory";
#else
    mgmt_test::ChildResult r = mgmt_test::run_in_child([](int out) {
        std::string console;
        console_set_sink(collect, &console);
        ListPtr l = make(64, "kept");
        if (!mgmt_test::cap_address_space(16u << 20)) return 3;
        int n = buf_list_print(l.get(), "%*d", 64 << 20, 7);
        std::string report = std::to_string(n) + "|" + std::to_string(l->total_len) + "|" + console;
        return write(out, report.data(), report.size()) == static_cast<ssize_t>(report.size()) ? 0 : 4;
    });
    ASSERT_TRUE(r.exited);
    ASSERT_EQ(r.code, 0);
    EXPECT_EQ(r.output, "0|4|buf list out of memory\n");
#endif
}

}  // namespace
