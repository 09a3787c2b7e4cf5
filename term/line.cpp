// Line editing primitives. Every change to the record is mirrored on the
// terminal with plain characters, spaces and backspaces, written straight to
// descriptor 1 without gathering.

#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mgmt/term.h"
#include "util/format.h"

static_assert(offsetof(term_line, buf) == 0);
static_assert(offsetof(term_line, esc_state) == 1024);
static_assert(offsetof(term_line, len) == 1028);
static_assert(offsetof(term_line, cursor) == 1032);
static_assert(sizeof(term_line) == 1036);

namespace {

constexpr int32_t kLineMax = TERM_LINE_SIZE;
constexpr int32_t kInsertLimit = 1021;  // longer lines lose their last character
constexpr uint8_t kBackspace = 8;
constexpr uint8_t kDelete = 127;

// A record the operations can work on without leaving buf: a front end that
// corrupts len or cursor gets no change and no output.
bool usable(const term_line *l) {
    return l != nullptr && l->len >= 0 && l->len <= kLineMax && l->cursor >= 0 && l->cursor <= l->len;
}

void put(const char *p, int32_t n) {
    if (n > 0) {
        term_write(p, n);
    }
}

void put_backspaces(int32_t n) {
    static const char bs = kBackspace;
    for (int32_t i = 0; i < n; ++i) {
        term_write(&bs, 1);
    }
}

void put_spaces(int32_t n) {
    char blanks[64];
    memset(blanks, ' ', sizeof blanks);
    while (n > 0) {
        const int32_t chunk = n < static_cast<int32_t>(sizeof blanks) ? n : static_cast<int32_t>(sizeof blanks);
        term_write(blanks, chunk);
        n -= chunk;
    }
}

bool space_left_of_cursor(const term_line *l) {
    return l->buf[l->cursor - 1] == ' ';
}

}  // namespace

extern "C" {

MGMT_API int term_write(const void *buf, int32_t len) {
    return static_cast<int>(write(1, buf, static_cast<size_t>(len < 0 ? 0 : len)));
}

MGMT_API int term_out(const char *fmt, ...) {
    if (fmt == nullptr) {
        return -1;
    }
    char stack[1024];
    va_list ap;
    va_start(ap, fmt);
    mgmt::Formatted f = mgmt::format_growing(stack, sizeof stack, fmt, ap);
    va_end(ap);
    if (f.failed) return -1; // the block held so far is not freed
    put(f.text, f.len);
    free(f.heap);
    return f.len;
}

MGMT_API void term_backward_char(term_line *l) {
    if (!usable(l) || l->cursor == 0) {
        return;
    }
    put_backspaces(1);
    --l->cursor;
}

MGMT_API void term_forward_char(term_line *l) {
    if (!usable(l) || l->cursor == l->len) {
        return;
    }
    put(&l->buf[l->cursor], 1);
    ++l->cursor;
}

MGMT_API void term_backward_word(term_line *l) {
    if (!usable(l) || l->cursor == 0) {
        return;
    }
    while (l->cursor > 0 && space_left_of_cursor(l)) {
        term_backward_char(l);
    }
    do {
        term_backward_char(l);
    } while (l->cursor > 0 && !space_left_of_cursor(l));
}

MGMT_API void term_forward_word(term_line *l) {
    if (!usable(l) || l->cursor == l->len) {
        return;
    }
    if (l->buf[l->cursor] != ' ') {
        while (l->cursor < l->len && l->buf[l->cursor] != ' ') {
            term_forward_char(l);
        }
    }
    while (l->cursor < l->len && l->buf[l->cursor] == ' ') {
        term_forward_char(l);
    }
}

MGMT_API void term_delete_char(term_line *l) {
    if (!usable(l) || l->cursor == l->len) {
        return;
    }
    const int32_t tail = l->len - l->cursor;
    --l->len;
    memmove(&l->buf[l->cursor], &l->buf[l->cursor + 1], static_cast<size_t>(tail - 1));
    l->buf[l->len] = '\0';
    put(&l->buf[l->cursor], tail - 1);
    put_spaces(1);
    put_backspaces(tail);
}

MGMT_API void term_backward_delete_char(term_line *l) {
    if (!usable(l) || l->cursor == 0) {
        return;
    }
    term_backward_char(l);
    term_delete_char(l);
}

MGMT_API void term_forward_kill_word(term_line *l) {
    if (!usable(l) || l->cursor == l->len) {
        return;
    }
    if (l->buf[l->cursor] == ' ') {
        while (l->cursor < l->len && l->buf[l->cursor] == ' ') {
            term_delete_char(l);
        }
    }
    // The spaces behind the word stay.
    while (l->cursor < l->len && l->buf[l->cursor] != ' ') {
        term_delete_char(l);
    }
}

MGMT_API void term_backward_kill_word(term_line *l) {
    if (!usable(l) || l->cursor == 0) {
        return;
    }
    while (l->cursor > 0 && space_left_of_cursor(l)) {
        term_backward_delete_char(l);
    }
    do {
        term_backward_delete_char(l);
    } while (l->cursor > 0 && !space_left_of_cursor(l));
}

MGMT_API void term_begin_of_line(term_line *l) {
    if (!usable(l)) {
        return;
    }
    while (l->cursor > 0) {
        term_backward_char(l);
    }
}

MGMT_API int term_end_of_line(term_line *l) {
    if (l == nullptr) {
        return 0;
    }
    if (usable(l)) {
        while (l->cursor < l->len) {
            term_forward_char(l);
        }
    }
    return l->len;
}

MGMT_API void term_kill_line(term_line *l) {
    if (!usable(l)) {
        return;
    }
    const int32_t tail = l->len - l->cursor;
    if (tail <= 0) {
        return;
    }
    put_spaces(tail);
    put_backspaces(tail);
    memset(&l->buf[l->cursor], 0, static_cast<size_t>(tail));
    l->len = l->cursor;
}

MGMT_API void term_kill_whole_line(term_line *l) {
    term_begin_of_line(l);
    term_kill_line(l);
}

MGMT_API int term_redraw_line(term_line *l) {
    if (l == nullptr) {
        return 0;
    }
    if (usable(l)) {
        put(l->buf, l->len);
        l->cursor = l->len;
    }
    return l->len;
}

MGMT_API int term_insert(term_line *l, uint8_t c) {
    if (l == nullptr) {
        return 0;
    }
    if (!usable(l)) {
        return l->cursor;
    }
    int32_t len = l->len;
    if (len > kInsertLimit) {
        --len;
    }
    const int32_t tail = len - l->cursor;
    if (tail < 0) {
        return l->cursor;  // behind the last character of a full line: ignored
    }
    l->len = len;
    memmove(&l->buf[l->cursor + 1], &l->buf[l->cursor], static_cast<size_t>(tail));
    l->buf[l->cursor] = static_cast<char>(c);
    put(&l->buf[l->cursor], tail + 1);
    put_backspaces(tail);
    ++l->len;
    ++l->cursor;
    return l->cursor;
}

MGMT_API void term_insert_overtwrite(term_line *l, uint8_t c) {
    if (!usable(l) || l->cursor >= kLineMax) {
        return;  // no cell left under the cursor
    }
    if (l->len > kInsertLimit) {
        --l->len;
    }
    l->buf[l->cursor] = static_cast<char>(c);
    ++l->cursor;
    if (l->cursor > l->len) {
        l->len = l->cursor;
    }
    put(&l->buf[l->cursor - 1], 1);
}

MGMT_API void term_transpose_line(term_line *l) {
    if (!usable(l) || l->len < 2 || l->cursor == 0) {
        return;
    }
    char left;
    char right;
    if (l->cursor == l->len) {
        left = l->buf[l->len - 2];
        right = l->buf[l->len - 1];
        term_backward_char(l);
    } else {
        left = l->buf[l->cursor - 1];
        right = l->buf[l->cursor];
    }
    term_backward_char(l);
    term_insert_overtwrite(l, static_cast<uint8_t>(right));
    term_insert_overtwrite(l, static_cast<uint8_t>(left));
}

MGMT_API void term_esc_pre_map(term_line *l, uint8_t c) {
    if (l == nullptr) {
        return;
    }
    switch (c) {
    case kBackspace:
    case kDelete:
        term_backward_kill_word(l);
        break;
    case 'b':
        term_backward_word(l);
        break;
    case 'd':
        term_forward_kill_word(l);
        break;
    case 'f':
        term_forward_word(l);
        break;
    default:
        break;
    }
    l->esc_state = 0;
}

MGMT_API void term_esc_map(term_line *l, uint8_t c) {
    if (l == nullptr) {
        return;
    }
    switch (c) {
    case 'C':
        term_forward_char(l);
        break;
    case 'D':
        term_backward_char(l);
        break;
    default:
        break;
    }
    l->esc_state = 0;
}

}  // extern "C"
