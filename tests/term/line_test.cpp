// Line editor: the exact bytes each operation puts on descriptor 1, the
// record it leaves, and a screen model that must keep matching the record.

#include <gtest/gtest.h>

#include "test_support.h"
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "mgmt/term.h"

namespace {

// Everything written to descriptor 1 while fn runs.
std::string captured(const std::function<void()> &fn) {
    fflush(stdout);
    int sink = memfd_create("term-capture", 0);
    EXPECT_GE(sink, 0);
    int saved = dup(1);
    dup2(sink, 1);
    fn();
    dup2(saved, 1);
    close(saved);
    std::string out;
    char buf[4096];
    ssize_t n;
    lseek(sink, 0, SEEK_SET);
    while ((n = read(sink, buf, sizeof buf)) > 0) {
        out.append(buf, static_cast<size_t>(n));
    }
    close(sink);
    return out;
}

term_line line_of(const std::string &text, int32_t cursor) {
    term_line l;
    memset(&l, 0, sizeof l);
    memcpy(l.buf, text.data(), text.size());
    l.len = static_cast<int32_t>(text.size());
    l.cursor = cursor;
    return l;
}

std::string text_of(const term_line &l) {
    return std::string(l.buf, static_cast<size_t>(l.len));
}

std::string bs(int n) {
    return std::string(static_cast<size_t>(n), '\b');
}

// Bytes behind len are zero after kills and deletes.
void expect_zero_tail(const term_line &l, int32_t upto) {
    for (int32_t i = l.len; i < upto; ++i) {
        EXPECT_EQ(l.buf[i], 0) << "byte " << i;
    }
}

TEST(TermOutput, WriteAndFormattedOutput) {
    int r = 0;
    EXPECT_EQ(captured([&] { r = term_write("ab\bc", 4); }), "ab\bc");
    EXPECT_EQ(r, 4);
    EXPECT_EQ(captured([&] { r = term_out("%s=%d", "n", 42); }), "n=42");
    EXPECT_EQ(r, 4);
    for (size_t n : {1023u, 1024u, 3000u}) {
        std::string text(n, 'q');
        text.back() = '!';
        EXPECT_EQ(captured([&] { r = term_out("%s", text.c_str()); }), text);
        EXPECT_EQ(r, static_cast<int>(n));
    }
}

TEST(TermMoves, CharacterMovesBackspaceOrRepaint) {
    term_line l = line_of("abc", 3);
    EXPECT_EQ(captured([&] { term_forward_char(&l); }), "") << "nothing at the end";
    EXPECT_EQ(captured([&] { term_backward_char(&l); }), "\b");
    EXPECT_EQ(l.cursor, 2);
    EXPECT_EQ(captured([&] { term_begin_of_line(&l); }), "\b\b");
    EXPECT_EQ(l.cursor, 0);
    EXPECT_EQ(captured([&] { term_backward_char(&l); }), "") << "nothing at 0";
    EXPECT_EQ(captured([&] { term_forward_char(&l); }), "a") << "moving right repaints the cell";
    int r = 0;
    EXPECT_EQ(captured([&] { r = term_end_of_line(&l); }), "bc");
    EXPECT_EQ(r, 3);
    EXPECT_EQ(l.cursor, 3);
    EXPECT_EQ(text_of(l), "abc");
}

TEST(TermMoves, WordMoves) {
    term_line l = line_of("ab cd", 5);
    EXPECT_EQ(captured([&] { term_backward_word(&l); }), bs(2));
    EXPECT_EQ(l.cursor, 3) << "on the c";
    EXPECT_EQ(captured([&] { term_backward_word(&l); }), bs(3));
    EXPECT_EQ(l.cursor, 0) << "on the a";
    EXPECT_EQ(captured([&] { term_backward_word(&l); }), "");

    EXPECT_EQ(captured([&] { term_forward_word(&l); }), "ab ");
    EXPECT_EQ(l.cursor, 3) << "on the c";
    EXPECT_EQ(captured([&] { term_forward_word(&l); }), "cd");
    EXPECT_EQ(l.cursor, 5);
    EXPECT_EQ(captured([&] { term_forward_word(&l); }), "");

    term_line gap = line_of("ab   cd  ", 2);
    EXPECT_EQ(captured([&] { term_forward_word(&gap); }), "   ") << "from a space: over the spaces only";
    EXPECT_EQ(gap.cursor, 5);
    gap.cursor = 9;
    EXPECT_EQ(captured([&] { term_backward_word(&gap); }), bs(4)) << "over trailing spaces, then the word";
    EXPECT_EQ(gap.cursor, 5);

    term_line lead = line_of("  ab", 2);
    EXPECT_EQ(captured([&] { term_backward_word(&lead); }), bs(2));
    EXPECT_EQ(lead.cursor, 0);
}

TEST(TermDelete, DeleteUnderAndLeftOfTheCursor) {
    term_line l = line_of("abcd", 1);
    EXPECT_EQ(captured([&] { term_delete_char(&l); }), "cd " + bs(3));
    EXPECT_EQ(text_of(l), "acd");
    EXPECT_EQ(l.cursor, 1);
    expect_zero_tail(l, 8);

    EXPECT_EQ(captured([&] { term_backward_delete_char(&l); }), "\bcd " + bs(3));
    EXPECT_EQ(text_of(l), "cd");
    EXPECT_EQ(l.cursor, 0);
    EXPECT_EQ(captured([&] { term_backward_delete_char(&l); }), "") << "nothing at 0";
    EXPECT_EQ(text_of(l), "cd");

    l.cursor = 2;
    EXPECT_EQ(captured([&] { term_delete_char(&l); }), "") << "nothing at the end";
    EXPECT_EQ(captured([&] { term_backward_delete_char(&l); }), "\b \b");
    EXPECT_EQ(text_of(l), "c");
    expect_zero_tail(l, 8);
}

TEST(TermKill, ForwardKillWordLeavesTheSpacesBehindTheWord) {
    term_line l = line_of("ab  cd", 0);
    std::string out = captured([&] { term_forward_kill_word(&l); });
    EXPECT_EQ(out, "b  cd " + bs(6) + "  cd " + bs(5));
    EXPECT_EQ(text_of(l), "  cd");
    EXPECT_EQ(l.cursor, 0) << "on the first space";
    captured([&] { term_forward_kill_word(&l); });
    EXPECT_EQ(text_of(l), "") << "from a space: the spaces, then the word";
    expect_zero_tail(l, 8);

    term_line mid = line_of("hello world", 2);
    captured([&] { term_forward_kill_word(&mid); });
    EXPECT_EQ(text_of(mid), "he world");
    EXPECT_EQ(mid.cursor, 2);
    mid.cursor = mid.len;
    EXPECT_EQ(captured([&] { term_forward_kill_word(&mid); }), "");
}

TEST(TermKill, BackwardKillWord) {
    term_line l = line_of("one two  ", 9);
    std::string out = captured([&] { term_backward_kill_word(&l); });
    std::string one = "\b \b";
    EXPECT_EQ(out, one + one + one + one + one);
    EXPECT_EQ(text_of(l), "one ");
    EXPECT_EQ(l.cursor, 4);

    term_line inner = line_of("one two", 5);
    EXPECT_EQ(captured([&] { term_backward_kill_word(&inner); }), "\bwo " + bs(3)) << "only the t left of the cursor";
    EXPECT_EQ(text_of(inner), "one wo");
    EXPECT_EQ(inner.cursor, 4);
    expect_zero_tail(inner, 10);
}

TEST(TermKill, KillLineAndWholeLine) {
    term_line l = line_of("abcdef", 2);
    EXPECT_EQ(captured([&] { term_kill_line(&l); }), "    " + bs(4));
    EXPECT_EQ(text_of(l), "ab");
    EXPECT_EQ(l.cursor, 2);
    expect_zero_tail(l, 8);
    EXPECT_EQ(captured([&] { term_kill_line(&l); }), "") << "nothing with the cursor at the end";

    term_line w = line_of("abc", 2);
    EXPECT_EQ(captured([&] { term_kill_whole_line(&w); }), bs(2) + "   " + bs(3));
    EXPECT_EQ(w.len, 0);
    EXPECT_EQ(w.cursor, 0);
    expect_zero_tail(w, 8);
}

TEST(TermInsert, InsertRepaintsTheTailAndComesBack) {
    term_line l = line_of("", 0);
    int r = 0;
    EXPECT_EQ(captured([&] { r = term_insert(&l, 'a'); }), "a");
    EXPECT_EQ(r, 1);
    EXPECT_EQ(captured([&] { r = term_insert(&l, 'c'); }), "c");
    l.cursor = 1;
    EXPECT_EQ(captured([&] { r = term_insert(&l, 'b'); }), "bc\b");
    EXPECT_EQ(r, 2);
    EXPECT_EQ(text_of(l), "abc");
    l.cursor = 0;
    EXPECT_EQ(captured([&] { term_insert(&l, '>'); }), ">abc" + bs(3));
    EXPECT_EQ(text_of(l), ">abc");
    EXPECT_EQ(l.cursor, 1);
}

std::string pattern(size_t n) {
    std::string s(n, ' ');
    for (size_t i = 0; i < n; ++i) {
        s[i] = static_cast<char>('a' + i % 26);
    }
    return s;
}

TEST(TermInsert, LongestLineLosesItsLastCharacter) {
    const std::string text = pattern(1022);
    term_line l = line_of(text, 10);
    int r = 0;
    std::string out = captured([&] { r = term_insert(&l, '#'); });
    EXPECT_EQ(r, 11);
    EXPECT_EQ(l.len, 1022);
    std::string expect_text = text.substr(0, 10) + "#" + text.substr(10, 1011);
    EXPECT_EQ(text_of(l), expect_text);
    EXPECT_EQ(out, expect_text.substr(10) + bs(1011));

    term_line almost = line_of(pattern(1021), 1021);
    EXPECT_EQ(captured([&] { term_insert(&almost, '$'); }), "$");
    EXPECT_EQ(almost.len, 1022);

    term_line full = line_of(text, 1022);
    EXPECT_EQ(captured([&] { r = term_insert(&full, '#'); }), "") << "no insert behind a full line";
    EXPECT_EQ(r, 1022);
    EXPECT_EQ(full.len, 1022);
    EXPECT_EQ(text_of(full), text);
}

TEST(TermInsert, OverwriteStoresAndExtends) {
    term_line l = line_of("abc", 1);
    EXPECT_EQ(captured([&] { term_insert_overtwrite(&l, 'X'); }), "X");
    EXPECT_EQ(text_of(l), "aXc");
    EXPECT_EQ(l.cursor, 2);
    l.cursor = 3;
    EXPECT_EQ(captured([&] { term_insert_overtwrite(&l, 'd'); }), "d");
    EXPECT_EQ(text_of(l), "aXcd");
    EXPECT_EQ(l.cursor, 4);

    term_line mid = line_of(pattern(1022), 5);
    captured([&] { term_insert_overtwrite(&mid, '#'); });
    EXPECT_EQ(mid.len, 1021) << "a line that long drops its last character";
    EXPECT_EQ(mid.buf[5], '#');
}

TEST(TermInsert, OverwriteAtTheEndOfTheBufferStaysInside) {
    term_line l = line_of(pattern(1022), 1022);
    l.esc_state = 0x5a;
    captured([&] { term_insert_overtwrite(&l, '1'); });
    EXPECT_EQ(l.len, 1023);
    EXPECT_EQ(l.cursor, 1023);
    captured([&] { term_insert_overtwrite(&l, '2'); });
    EXPECT_EQ(l.len, 1024);
    EXPECT_EQ(l.cursor, 1024);
    EXPECT_EQ(l.buf[1022], '1');
    EXPECT_EQ(l.buf[1023], '2');
    EXPECT_EQ(captured([&] { term_insert_overtwrite(&l, '3'); }), "") << "no cell left";
    EXPECT_EQ(l.esc_state, 0x5a) << "nothing written behind the text buffer";
    EXPECT_EQ(l.len, 1024);
    EXPECT_EQ(l.cursor, 1024);
}

TEST(TermTranspose, SwapsAroundOrBeforeTheCursor) {
    term_line end = line_of("ab", 2);
    EXPECT_EQ(captured([&] { term_transpose_line(&end); }), "\b\bba");
    EXPECT_EQ(text_of(end), "ba");
    EXPECT_EQ(end.cursor, 2);

    term_line mid = line_of("abc", 1);
    EXPECT_EQ(captured([&] { term_transpose_line(&mid); }), "\bba");
    EXPECT_EQ(text_of(mid), "bac");
    EXPECT_EQ(mid.cursor, 2) << "on the c";

    term_line one = line_of("a", 1);
    EXPECT_EQ(captured([&] { term_transpose_line(&one); }), "");
    term_line start = line_of("abc", 0);
    EXPECT_EQ(captured([&] { term_transpose_line(&start); }), "");
    EXPECT_EQ(text_of(start), "abc");
}

TEST(TermRedraw, PutsOutTheWholeLineAndEndsThere) {
    term_line l = line_of("hello", 2);
    int r = 0;
    EXPECT_EQ(captured([&] { r = term_redraw_line(&l); }), "hello");
    EXPECT_EQ(r, 5);
    EXPECT_EQ(l.cursor, 5);
}

TEST(TermEscape, PreMapActsOnTheKeyAfterEscape) {
    struct Case {
        uint8_t key;
        const char *text;
        int32_t cursor;
        const char *after;
        int32_t cursor_after;
        std::string out;
    };
    const Case cases[] = {
        {'b', "ab cd", 5, "ab cd", 3, bs(2)},
        {'f', "ab cd", 0, "ab cd", 3, "ab "},
        {'d', "ab cd", 0, " cd", 0, "b cd " + bs(5) + " cd " + bs(4)},
        {8, "ab cd", 5, "ab ", 3, "\b \b\b \b"},
        {127, "ab cd", 5, "ab ", 3, "\b \b\b \b"},
        {'x', "ab cd", 2, "ab cd", 2, ""},
        {'[', "ab cd", 2, "ab cd", 2, ""},
    };
    for (const Case &c : cases) {
        term_line l = line_of(c.text, c.cursor);
        l.esc_state = 1;
        EXPECT_EQ(captured([&] { term_esc_pre_map(&l, c.key); }), c.out) << "key " << int(c.key);
        EXPECT_EQ(text_of(l), c.after) << "key " << int(c.key);
        EXPECT_EQ(l.cursor, c.cursor_after) << "key " << int(c.key);
        EXPECT_EQ(l.esc_state, 0) << "key " << int(c.key);
    }
}

TEST(TermEscape, MapActsOnArrowFinals) {
    term_line l = line_of("abc", 1);
    l.esc_state = 2;
    EXPECT_EQ(captured([&] { term_esc_map(&l, 'C'); }), "b");
    EXPECT_EQ(l.cursor, 2);
    EXPECT_EQ(l.esc_state, 0);
    l.esc_state = 2;
    EXPECT_EQ(captured([&] { term_esc_map(&l, 'D'); }), "\b");
    EXPECT_EQ(l.cursor, 1);
    EXPECT_EQ(l.esc_state, 0);
    for (uint8_t key : {'A', 'B', 'H', '~', 'c'}) {
        l.esc_state = 2;
        EXPECT_EQ(captured([&] { term_esc_map(&l, key); }), "") << key;
        EXPECT_EQ(l.cursor, 1);
        EXPECT_EQ(text_of(l), "abc");
        EXPECT_EQ(l.esc_state, 0) << key;
    }
}

TEST(TermSafety, BrokenRecordsAreLeftAlone) {
    const std::vector<std::pair<int32_t, int32_t>> broken = {{3, 5}, {-1, 0}, {3, -2}, {2000, 10}, {1025, 1025}};
    for (auto [len, cursor] : broken) {
        term_line l = line_of("abc", 0);
        l.len = len;
        l.cursor = cursor;
        std::string out = captured([&] {
            term_backward_char(&l);
            term_forward_char(&l);
            term_delete_char(&l);
            term_backward_delete_char(&l);
            term_kill_line(&l);
            term_insert(&l, 'x');
            term_insert_overtwrite(&l, 'y');
            term_transpose_line(&l);
            term_forward_word(&l);
            term_backward_kill_word(&l);
            term_redraw_line(&l);
        });
        EXPECT_EQ(out, "") << len << "/" << cursor;
        EXPECT_EQ(l.len, len);
        EXPECT_EQ(l.cursor, cursor);
        EXPECT_EQ(std::string(l.buf, 3), "abc");
    }
    term_backward_char(nullptr);
    term_esc_map(nullptr, 'C');
    EXPECT_EQ(term_insert(nullptr, 'x'), 0);
}

// A terminal of one row: printable bytes fill the cell under the cursor and
// move right, a backspace moves left.
struct Screen {
    std::string cells = std::string(2048, ' ');
    int col = 0;
    int widest = 0;
    void feed(const std::string &bytes) {
        for (char c : bytes) {
            if (c == '\b') {
                ASSERT_GT(col, 0) << "backspace at the left edge";
                --col;
            } else {
                cells[static_cast<size_t>(col++)] = c;
                widest = std::max(widest, col);
            }
        }
    }
};

TEST(TermScreen, RandomEditingKeepsScreenAndRecordTogether) {
    std::mt19937 rng(20240611);
    // Control bytes are never inserted: on the screen they would move the cursor.
    auto printable = [](char c) { return static_cast<uint8_t>(c >= 32 && c < 127 ? c : 'k'); };
    const std::vector<std::function<void(term_line *, char)>> ops = {
        [&](term_line *l, char c) { term_insert(l, printable(c)); },
        [&](term_line *l, char c) { term_insert(l, printable(c)); },
        [](term_line *l, char) { term_insert(l, ' '); },
        [&](term_line *l, char c) { term_insert_overtwrite(l, printable(c)); },
        [](term_line *l, char) { term_backward_char(l); },
        [](term_line *l, char) { term_forward_char(l); },
        [](term_line *l, char) { term_backward_word(l); },
        [](term_line *l, char) { term_forward_word(l); },
        [](term_line *l, char) { term_delete_char(l); },
        [](term_line *l, char) { term_backward_delete_char(l); },
        [](term_line *l, char) { term_forward_kill_word(l); },
        [](term_line *l, char) { term_backward_kill_word(l); },
        [](term_line *l, char) { term_begin_of_line(l); },
        [](term_line *l, char) { term_end_of_line(l); },
        [](term_line *l, char) { term_kill_line(l); },
        [](term_line *l, char) { term_transpose_line(l); },
        [](term_line *l, char c) { term_esc_pre_map(l, static_cast<uint8_t>(c)); },
        [](term_line *l, char c) { term_esc_map(l, static_cast<uint8_t>(c)); },
    };
    const std::string keys = "abcdefxyz BDCdfb\x7f\x08";
    for (int round = 0; round < 40; ++round) {
        term_line l = line_of("", 0);
        Screen screen;
        for (int step = 0; step < 150; ++step) {
            auto &op = ops[rng() % ops.size()];
            char key = keys[rng() % keys.size()];
            const size_t which = static_cast<size_t>(&op - &ops[0]);
            const std::string before = text_of(l);
            const int32_t cursor_before = l.cursor;
            std::string out = captured([&] { op(&l, key); });
            screen.feed(out);
            SCOPED_TRACE("operation " + std::to_string(which) + " key " + std::to_string(int(key)) + " on \"" +
                         before + "\" at " + std::to_string(cursor_before));
            ASSERT_EQ(screen.col, l.cursor) << "round " << round << " step " << step;
            ASSERT_EQ(screen.cells.substr(0, static_cast<size_t>(l.len)), text_of(l))
                << "round " << round << " step " << step;
            ASSERT_EQ(screen.cells.substr(static_cast<size_t>(l.len),
                                          static_cast<size_t>(std::max(screen.widest - l.len, 0))),
                      std::string(static_cast<size_t>(std::max(screen.widest - l.len, 0)), ' '))
                << "cells behind the text are blank, round " << round << " step " << step;
            expect_zero_tail(l, 100);
            if (l.len > 80) {
                screen.feed(captured([&] { term_kill_whole_line(&l); }));
            }
        }
    }
}

#if defined(__SANITIZE_ADDRESS__)
#define MGMT_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MGMT_UNDER_ASAN 1
#endif
#endif

TEST(TermOutput, OutOfMemoryWritesNothing) {
#ifdef MGMT_UNDER_ASAN
    GTEST_SKIP() << "address space limits do not mix with the sanitizer's shadow memory";
#else
    mgmt_test::ChildResult r = mgmt_test::run_in_child([](int out) {
        dup2(out, 1);
        if (!mgmt_test::cap_address_space(16u << 20)) return 3;
        return term_out("%*d", 64 << 20, 7) == -1 ? 0 : 1;
    });
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.code, 0) << "term_out gives -1";
    EXPECT_EQ(r.output, "");
#endif
}

}  // namespace
