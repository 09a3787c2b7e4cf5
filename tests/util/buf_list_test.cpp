// Buffer list: storage across blocks, the position arithmetic, line reads,
// slices and seeks across block boundaries, formatted appends.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "mgmt/buf_list.h"
#include "mgmt/platform/platform.h"
#include "test_support.h"

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

// One buf_list_get_line call: the delivered text, or "<null>" for a null
// result (whose length must then be 0).
std::string get_line(buf_list *l, uint32_t cap) {
    std::vector<char> out(cap + 16, '#');
    uint32_t len = cap;
    char *r = buf_list_get_line(l, out.data(), &len);
    // Nothing beyond the capacity is touched (a capacity of 0 still takes one byte).
    const size_t taken = std::max<uint32_t>(cap, 1);
    EXPECT_EQ(std::string(out.begin() + taken, out.end()), std::string(out.size() - taken, '#')) << "capacity " << cap;
    if (r == nullptr) {
        EXPECT_EQ(len, 0u);
        return "<null>";
    }
    EXPECT_EQ(r, out.data());
    return std::string(out.data(), len);
}

TEST(BufListStore, KeptCompanionListMadeWithTheListAndFirstWrites) {
    ListPtr l = make(1024);
    ASSERT_NE(l->companion, nullptr);
    EXPECT_EQ(l->companion->elem_size, 64u);
    EXPECT_EQ(l->companion->companion, nullptr);
    EXPECT_EQ(buf_list_empty(l.get()), 1);
    EXPECT_EQ(buf_list_empty(nullptr), 1);
    EXPECT_EQ(buf_list_write(l.get(), "x", 0), 0u);
    EXPECT_EQ(l->head, nullptr) << "a write of nothing makes no element";

    EXPECT_EQ(buf_list_write(l.get(), "abc", 3), 3u);
    EXPECT_EQ(std::string(l->head->data, 8), std::string("abc\0\0\0\0\0", 8)) << "blocks are zero-filled";
    EXPECT_EQ(buf_list_empty(l.get()), 0);
    EXPECT_EQ(l->cursor, nullptr) << "writes never set the cursor";
    EXPECT_EQ(get_line(l.get(), 16), "<null>") << "nothing to read before a rewind";
}

TEST(BufListStore, KeptWritesAcrossBlocksRunThePositionAhead) {
    // Each block filled on the way credits the position with the bytes still
    // to come, so the position drifts from the stored length.
    struct Case {
        uint32_t first;
        uint32_t second;
        uint32_t position;
        size_t blocks;
    };
    const Case cases[] = {
        {3, 18, 26, 3},
        {10, 0, 4, 2},
        {30, 0, 48, 4},
        {20, 0, 20, 3},
        {5, 10, 19, 2},
        {8, 8, 16, 2}, // a text of exactly one block, then a second block
        {8, 1, 9, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.first) + "+" + std::to_string(c.second));
        ListPtr l = make(8);
        std::string a(c.first, 'a');
        std::string b(c.second, 'b');
        EXPECT_EQ(buf_list_write(l.get(), a.data(), c.first), c.first);
        EXPECT_EQ(buf_list_write(l.get(), b.data(), c.second), c.second);
        EXPECT_EQ(l->total_len, c.first + c.second);
        EXPECT_EQ(l->position, c.position);
        EXPECT_EQ(block_fill(l.get()).size(), c.blocks);
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
    EXPECT_EQ(buf_list_copy_append(l.get(), make(16).get()), 0u);
}

TEST(BufListStore, ResetElementFreeAndEmpty) {
    ListPtr l = make(4, "0123456789");
    buf_list *companion = l->companion;
    buf_list_rewind(l.get());
    buf_elem *stale = l->cursor;
    buf_list_reset(l.get());
    EXPECT_EQ(l->head, nullptr);
    EXPECT_EQ(l->total_len, 0u);
    EXPECT_EQ(l->position, 0u);
    EXPECT_EQ(l->cursor, stale) << "a reset leaves the cursor for the next rewind";
    EXPECT_EQ(l->companion, companion);
    EXPECT_EQ(buf_list_empty(l.get()), 1);
    buf_list_write_str(l.get(), "new\n");
    buf_list_rewind(l.get());
    EXPECT_EQ(get_line(l.get(), 10), "new\n");
    buf_list_reset(nullptr);
    buf_list_free(nullptr);

    // buf_elem_free only accounts and frees: the test unlinks by hand.
    ListPtr two = make(4, "abcdef");
    buf_elem *last = two->tail;
    two->tail = last->prev;
    two->tail->next = nullptr;
    buf_elem_free(two.get(), last);
    buf_elem_free(two.get(), nullptr);
    EXPECT_EQ(two->total_len, 4u);
    EXPECT_EQ(stored(two.get()), "abcd");

    // Emptiness looks at the tail only: a tail read from its end counts as empty.
    EXPECT_EQ(buf_list_empty(two.get()), 0);
    two->tail->start = two->tail->used;
    EXPECT_EQ(buf_list_empty(two.get()), 1);
    two->tail->start = 0;
}

TEST(BufListRead, LineReadsFromARewind) {
    struct Case {
        uint32_t elem_size;
        std::string text;
        std::vector<std::pair<uint32_t, std::string>> reads; // capacity, expected
        uint32_t position;                                   // after the reads
        uint32_t read_offset;                                // after the reads
    };
    const Case cases[] = {
        // Across blocks; running off the end still returns the buffer, then null.
        // 16 from the write that crossed three block ends, plus the 13 read.
        {4, "hello\nworld\nx", {{64, "hello\n"}, {64, "world\n"}, {64, "x"}, {64, "<null>"}}, 16 + 13, 0},
        // Text that ends at a block end: an empty read, then null.
        {4, "abc\n", {{64, "abc\n"}, {64, ""}, {64, "<null>"}}, 8, 0},
        // The capacity cuts a line and the rest follows.
        {3, "abcdef\ngh\n", {{4, "abcd"}, {4, "ef\n"}, {4, "gh\n"}}, 13 + 10, 1},
        // A capacity of 0 still takes one byte.
        {8, "abc\n", {{0, "a"}, {10, "bc\n"}}, 8, 4},
        // A zero byte ends the text; the reader stays in front of it.
        {16, std::string("ab\0cd\n", 6), {{16, "<null>"}, {16, "<null>"}}, 6, 0},
        // The step back counts in the current element only, so it overshoots
        // and the next read runs off the end.
        {2, std::string("abc\0", 4), {{16, "<null>"}, {16, ""}, {16, "<null>"}}, 4, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        ListPtr l = make(c.elem_size, c.text);
        buf_list_rewind(l.get());
        EXPECT_EQ(l->cursor, l->head);
        for (const auto &[cap, expected] : c.reads) {
            EXPECT_EQ(get_line(l.get(), cap), expected) << "capacity " << cap;
        }
        EXPECT_EQ(l->position, c.position);
        EXPECT_EQ(l->read_offset, c.read_offset);
    }
}

TEST(BufListRead, ExactLinesFillTheCapacityAndContinueInTheCutLine) {
    ListPtr l = make(5, "one\ntwo\nthree\n");
    buf_list_rewind(l.get());
    std::vector<char> out(32, '#');
    uint32_t len = 0;
    EXPECT_EQ(buf_list_get_exact_lines(l.get(), out.data(), &len), out.data());
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(out[0], '#') << "a capacity of 0 writes nothing";

    len = 10;
    EXPECT_EQ(buf_list_get_exact_lines(l.get(), out.data(), &len), out.data());
    EXPECT_EQ(std::string(out.data(), len), "one\ntwo\nth");
    EXPECT_EQ(out[10], '#');
    len = 20;
    buf_list_get_exact_lines(l.get(), out.data(), &len);
    EXPECT_EQ(std::string(out.data(), len), "ree\n");
    len = 20;
    EXPECT_EQ(buf_list_get_exact_lines(l.get(), out.data(), &len), out.data());
    EXPECT_EQ(len, 0u);
}

TEST(BufListSeek, KeptFailedSeeksFromStartOrEndStillMove) {
    // Ten bytes in blocks of four: [abcd][efgh][ij]. Each row runs its seeks
    // on a fresh list; the last one's result and the reader's state count.
    struct Case {
        std::vector<std::pair<int32_t, int>> seeks; // offset, whence
        int result;
        uint32_t read_offset;
        uint32_t position;
        std::string rest;
    };
    const Case cases[] = {
        // Offset 0 from the start or the end fails but moves.
        {{{0, 0}}, -1, 0, 0, "abcdefghij"},
        {{{0, 2}}, -1, 2, 10, ""},
        {{{3, 0}}, 3, 3, 3, "defghij"},
        {{{4, 0}}, 4, 4, 4, "efghij"}, // an offset that ends a block stays in it
        {{{5, 0}}, 5, 1, 5, "fghij"},
        {{{9, 0}}, 9, 1, 9, "j"},
        {{{10, 0}}, -1, 0, 0, "abcdefghij"},
        {{{-1, 2}}, 9, 1, 9, "j"},
        {{{-3, 2}}, 7, 3, 7, "hij"},
        {{{-9, 2}}, 1, 1, 1, "bcdefghij"},
        {{{-10, 2}}, -1, 2, 10, ""}, // the very start is a failure too
        {{{3, 0}, {2, 1}}, 5, 1, 5, "fghij"},
        {{{3, 0}, {2, 1}, {0, 1}}, 1, 1, 5, "fghij"}, // offset 0 answers the offset in the block
        {{{3, 0}, {2, 1}, {-2, 1}}, 3, 3, 3, "defghij"},
        {{{3, 0}, {-3, 1}}, -1, 3, 3, "defghij"}, // target 0
        {{{3, 0}, {7, 1}}, -1, 3, 3, "defghij"},  // target 10, the end
    };
    for (const Case &c : cases) {
        ListPtr l = make(4, "abcdefghij");
        std::string trace;
        int result = 0;
        for (auto [offset, whence] : c.seeks) {
            trace += "(" + std::to_string(offset) + "," + std::to_string(whence) + ")";
            result = buf_list_seek(l.get(), offset, whence);
        }
        SCOPED_TRACE(trace);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(l->read_offset, c.read_offset);
        EXPECT_EQ(l->position, c.position);
        EXPECT_EQ(get_line(l.get(), 64), c.rest);
        EXPECT_EQ(l->position, c.position + c.rest.size()) << "reading advances the position";
    }
}

TEST(BufListSeek, AfterAReadAndWithADriftedPosition) {
    ListPtr l = make(4, "abcdefghij");
    ASSERT_EQ(buf_list_seek(l.get(), 2, 0), 2);
    EXPECT_EQ(get_line(l.get(), 3), "cde");
    EXPECT_EQ(buf_list_seek(l.get(), -4, 1), 1);
    EXPECT_EQ(get_line(l.get(), 64), "bcdefghij");

    ListPtr drift = make(8, std::string(30, 'z'));
    ASSERT_EQ(drift->position, 48u);
    EXPECT_EQ(buf_list_seek(drift.get(), -20, 1), -1) << "no cursor before a rewind";
    buf_list_rewind(drift.get());
    EXPECT_EQ(buf_list_seek(drift.get(), 1, 1), -1) << "the drifted position is past the end";
    EXPECT_EQ(buf_list_seek(drift.get(), -40, 1), -1) << "a walk back past the first block";
    EXPECT_EQ(buf_list_seek(drift.get(), 6, 0), 6) << "a seek from the start sets the position afresh";
    EXPECT_EQ(drift->position, 6u);

    EXPECT_EQ(buf_list_seek(make(4).get(), 0, 2), -1);
    EXPECT_EQ(buf_list_seek(make(4).get(), 1, 0), -1);
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
        EXPECT_EQ(stored(big.get()), text);
    }
}

[[maybe_unused]] void collect(const char *text, void *ctx) { static_cast<std::string *>(ctx)->append(text); }

TEST(BufListPrint, OutOfMemoryStoresNothingAndSaysSo) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
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

} // namespace
