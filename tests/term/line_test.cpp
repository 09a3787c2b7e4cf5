// Line editor: the exact bytes each operation puts on descriptor 1, the
// record it leaves, and the limits of the text buffer. Login queue: order,
// removal at every place, and the look-ups.

#include <gtest/gtest.h>
#include <utmp.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mgmt/term.h"
#include "mgmt/utmp_queue.h"
#include "test_support.h"

using mgmt_test::stdout_of;

namespace {

term_line line_of(const std::string &text, int32_t cursor) {
    term_line l{};
    memcpy(l.buf, text.data(), text.size());
    l.len = static_cast<int32_t>(text.size());
    l.cursor = cursor;
    return l;
}

std::string text_of(const term_line &l) { return std::string(l.buf, static_cast<size_t>(l.len)); }

std::string bs(int n) { return std::string(static_cast<size_t>(n), '\b'); }

using Op = std::function<void(term_line *)>;

template <typename R>
Op with_key(R (*op)(term_line *, uint8_t), uint8_t key) {
    return [op, key](term_line *l) { op(l, key); };
}

std::string pattern(size_t n) {
    std::string s(n, ' ');
    for (size_t i = 0; i < n; ++i) {
        s[i] = static_cast<char>('a' + i % 26);
    }
    return s;
}

// term_out formats into 1024 bytes on the stack and goes to the heap beyond.
TEST(TermOutput, WriteAndFormattedOutput) {
    EXPECT_EQ(stdout_of([] { EXPECT_EQ(term_write("ab\bc", 4), 4); }), "ab\bc");
    int r = 0;
    for (size_t n : {1023u, 1024u, 3000u}) {
        const std::string text = pattern(n);
        EXPECT_EQ(stdout_of([&] { r = term_out("%s", text.c_str()); }), text);
        EXPECT_EQ(r, static_cast<int>(n));
    }
}

TEST(TermEdit, EachOperationPutsOutExactlyWhatTheRecordChanged) {
    struct Case {
        const char *what;
        Op op;
        std::string text;
        int32_t cursor;
        std::string out;
        std::string after;
        int32_t cursor_after;
    };
    const std::string rub = "\b \b";
    const Case cases[] = {
        {"forward char repaints the cell", term_forward_char, "abc", 0, "a", "abc", 1},
        {"backward char", term_backward_char, "abc", 3, "\b", "abc", 2},
        {"begin of line", term_begin_of_line, "abc", 2, bs(2), "abc", 0},
        {"end of line", term_end_of_line, "abc", 1, "bc", "abc", 3},
        {"backward word over trailing spaces", term_backward_word, "ab   cd  ", 9, bs(4), "ab   cd  ", 5},
        {"forward word from a space: the spaces only", term_forward_word, "ab   cd  ", 2, "   ", "ab   cd  ", 5},
        {"delete char", term_delete_char, "abcd", 1, "cd " + bs(3), "acd", 1},
        {"forward kill word from a space", term_forward_kill_word, "  cd", 0,
         " cd " + bs(4) + "cd " + bs(3) + "d " + bs(2) + " " + bs(1), "", 0},
        {"backward kill word", term_backward_kill_word, "one two  ", 9, rub + rub + rub + rub + rub, "one ", 4},
        {"kill a long tail", term_kill_line, pattern(100), 10, std::string(90, ' ') + bs(90), pattern(10), 10},
        {"kill whole line", term_kill_whole_line, "abc", 2, bs(2) + "   " + bs(3), "", 0},
        {"redraw", term_redraw_line, "hello", 2, "hello", "hello", 5},
        {"insert into nothing", with_key(term_insert, 'a'), "", 0, "a", "a", 1},
        {"insert inside", with_key(term_insert, 'b'), "ac", 1, "bc\b", "abc", 2},
        {"overwrite", with_key(term_insert_overtwrite, 'X'), "abc", 1, "X", "aXc", 2},
        {"transpose at the end", term_transpose_line, "ab", 2, "\b\bba", "ba", 2},
        {"transpose inside", term_transpose_line, "abcdef", 4, "\bed", "abcedf", 5},
        {"esc b", with_key(term_esc_pre_map, 'b'), "ab cd", 5, bs(2), "ab cd", 3},
        {"esc f", with_key(term_esc_pre_map, 'f'), "ab cd", 0, "ab ", "ab cd", 3},
        {"esc d", with_key(term_esc_pre_map, 'd'), "ab cd", 0, "b cd " + bs(5) + " cd " + bs(4), " cd", 0},
        {"esc backspace", with_key(term_esc_pre_map, 8), "ab cd", 5, rub + rub, "ab ", 3},
        {"esc x", with_key(term_esc_pre_map, 'x'), "ab cd", 2, "", "ab cd", 2},
        {"esc [C", with_key(term_esc_map, 'C'), "abc", 1, "b", "abc", 2},
        {"esc [D", with_key(term_esc_map, 'D'), "abc", 1, "\b", "abc", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        term_line l = line_of(c.text, c.cursor);
        l.esc_state = 1;
        EXPECT_EQ(stdout_of([&] { c.op(&l); }), c.out);
        EXPECT_EQ(text_of(l), c.after);
        EXPECT_EQ(l.cursor, c.cursor_after);
        for (int32_t i = l.len; i < 16; ++i) {
            EXPECT_EQ(l.buf[i], 0) << "byte " << i << " behind the text after a kill or delete";
        }
        const bool mapping = std::string(c.what).rfind("esc", 0) == 0;
        EXPECT_EQ(l.esc_state, mapping ? 0 : 1) << "only the two mapping functions clear the escape state";
    }
}

TEST(TermEdit, KeptForwardKillWordLeavesTheSpacesBehindAWord) {
    term_line kill = line_of("ab  cd", 0), move = kill;
    stdout_of([&] { term_forward_kill_word(&kill), term_forward_word(&move); });
    EXPECT_EQ(text_of(kill), "  cd");
    EXPECT_EQ(move.cursor, 4) << "a move goes over the spaces too";
}

TEST(TermEdit, TheLongestLine) {
    // An insert inside a line of 1022 characters loses its last one.
    const std::string text = pattern(1022);
    term_line l = line_of(text, 10);
    std::string out = stdout_of([&] { term_insert(&l, '#'); });
    std::string expect_text = text.substr(0, 10) + "#" + text.substr(10, 1011);
    EXPECT_EQ(text_of(l), expect_text);
    EXPECT_EQ(out, expect_text.substr(10) + bs(1011));

    term_line full = line_of(text, 1022);
    EXPECT_EQ(stdout_of([&] { term_insert(&full, '#'); }), "") << "no insert behind a full line";
    EXPECT_EQ(text_of(full), text);

    // Overwriting at the end fills the buffer's last cells and no more.
    full.esc_state = 0x5a;
    stdout_of([&] { term_insert_overtwrite(&full, '1'); });
    stdout_of([&] { term_insert_overtwrite(&full, '2'); });
    EXPECT_EQ(std::string(full.buf + 1022, 2), "12");
    EXPECT_EQ(stdout_of([&] { term_insert_overtwrite(&full, '3'); }), "") << "no cell left";
    EXPECT_EQ(full.esc_state, 0x5a) << "nothing written behind the text buffer";
    EXPECT_EQ(full.len, 1024);
}

TEST(TermEdit, BrokenRecordsAreLeftAlone) {
    const std::vector<std::pair<int32_t, int32_t>> broken = {{3, 5}, {-1, 0}, {3, -2}, {1025, 1025}};
    for (auto [len, cursor] : broken) {
        term_line l = line_of("abc", 0);
        l.len = len;
        l.cursor = cursor;
        std::string out = stdout_of([&] {
            for (auto op : {term_backward_char, term_forward_char, term_delete_char, term_backward_delete_char,
                            term_kill_line, term_transpose_line, term_forward_word, term_backward_kill_word}) {
                op(&l);
            }
            term_insert(&l, 'x');
            term_insert_overtwrite(&l, 'y');
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

// ---------------------------------------------------------------- login queue

std::unique_ptr<utmp_queue_entry> entry(int pid, const char *access, const char *host) {
    auto e = std::make_unique<utmp_queue_entry>();
    memset(e.get(), 0, sizeof *e);
    e->record.ut_pid = pid;
    snprintf(e->access, sizeof e->access, "%s", access);
    snprintf(e->record.ut_host, sizeof e->record.ut_host, "%s", host);
    return e;
}

std::vector<int> pids(const utmp_queue &q) {
    std::vector<int> v;
    for (utmp_queue_entry *e = q.first; e != nullptr; e = e->next) {
        v.push_back(e->record.ut_pid);
    }
    return v;
}

// A queue of a (100), b (200) and c (300), inserted in that order; a null entry is ignored.
class UtmpQueue : public ::testing::Test {
  protected:
    void SetUp() override {
        utmp_queue_init(&q);
        for (utmp_queue_entry *e : {a.get(), b.get(), static_cast<utmp_queue_entry *>(nullptr), c.get()}) {
            utmp_queue_insert(&q, e);
        }
        ASSERT_EQ(pids(q), (std::vector<int>{100, 200, 300}));
    }
    utmp_queue q{};
    std::unique_ptr<utmp_queue_entry> a = entry(100, "ssh", "10.0.0.1");
    std::unique_ptr<utmp_queue_entry> b = entry(200, "telnet", "10.0.0.2");
    std::unique_ptr<utmp_queue_entry> c = entry(300, "ssh", "10.0.0.3");
};

// After each removal the queue's end is right: the next insert hangs behind the new last entry.
TEST_F(UtmpQueue, RemovingAtEveryPlace) {
    utmp_queue_remove(&q, b.get());
    EXPECT_EQ(pids(q), (std::vector<int>{100, 300}));
    EXPECT_EQ(q.last, &c->next);
    auto stranger = entry(999, "ssh", "x");
    utmp_queue_remove(&q, stranger.get());
    utmp_queue_remove(&q, nullptr);
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 555), nullptr);
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 300), c.get());
    EXPECT_EQ(q.last, &a->next);
    EXPECT_EQ(utmp_queue_find_by_pid(&q, 100), a.get());
    EXPECT_EQ(utmp_queue_find_by_pid(&q, 300), nullptr);

    // Removing the only entry leaves the queue as init left it.
    utmp_queue_remove(&q, a.get());
    EXPECT_EQ(q.first, nullptr);
    EXPECT_EQ(q.last, &q.first);
    utmp_queue_insert(&q, b.get());
    EXPECT_EQ(pids(q), (std::vector<int>{200}));
}

TEST_F(UtmpQueue, FindByAccessAndHost) {
    auto full_host = entry(700, "web", "");
    memset(full_host->record.ut_host, 'h', sizeof full_host->record.ut_host); // no terminator
    utmp_queue_insert(&q, full_host.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0.3"), c.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0.2"), nullptr) << "both must match";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0."), nullptr) << "no prefix match";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, nullptr, "10.0.0.1"), nullptr);
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", nullptr), nullptr);

    // A host that fills its whole field is compared inside the field.
    const std::string full(sizeof full_host->record.ut_host, 'h');
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "web", full.c_str()), full_host.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "web", (full + "h").c_str()), nullptr);
}

} // namespace
