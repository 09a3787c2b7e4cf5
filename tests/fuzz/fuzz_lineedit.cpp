// The line editor driven by operation sequences: each byte picks an editing operation (its value
// modulo 20) and, for the operations from 14 on, the next byte is their character. After every
// step the cursor stays within the line and the line within its buffer; a record whose cursor is
// out of range is left as it is.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/syscall.h>
#include <unistd.h>

#include "libmgmt.h"

namespace {

void (*const kPlain[])(term_line *) = {
    term_backward_char, term_forward_char, term_backward_word, term_forward_word, term_delete_char,
    term_backward_delete_char, term_forward_kill_word, term_backward_kill_word, term_begin_of_line,
    term_kill_line, term_kill_whole_line, term_transpose_line,
    [](term_line *l) { term_end_of_line(l); }, [](term_line *l) { term_redraw_line(l); },
};
bool g_editing = false;

} // namespace

// The editor echoes every change to descriptor 1, a character or a backspace per write: here the
// echo is copied (the sanitizer checks what it covers) and goes nowhere, without coverage of its
// own, instead of costing a system call per character; every other write goes to the system.
#if defined(__clang__)
__attribute__((no_sanitize("coverage")))
#endif
extern "C" __attribute__((visibility("default"))) ssize_t write(int fd, const void *buf, size_t n) {
    if (!g_editing || fd != 1) return syscall(SYS_write, fd, buf, n);
    static char sink[256];
    for (size_t at = 0; at < n; at += sizeof sink)
        std::memcpy(sink, static_cast<const char *>(buf) + at, n - at < sizeof sink ? n - at : sizeof sink);
    asm volatile("" : : "r"(sink) : "memory"); // the copies count as read: they are not dropped
    return ssize_t(n);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    g_editing = true;
    auto *line = static_cast<term_line *>(std::calloc(1, sizeof(term_line))); // a read past it is seen
    for (size_t at = 0; at < size; ++at) {
        const uint8_t op = data[at] % 20, c = at + 1 < size ? data[at + 1] : 'x';
        const term_line before = *line;
        switch (op) {
        case 14: term_insert(line, c); break;
        case 15: term_insert_overtwrite(line, c); break;
        case 16: term_esc_pre_map(line, c); break;
        case 17: term_esc_map(line, c); break;
        case 18: // a burst of the same character: long lines are reached quickly
            for (int i = 0; i < 4 * (c % 32); ++i) term_insert(line, c);
            break;
        case 19: // a record the front end spoiled: no operation may touch it
            line->cursor = data[at] & 0x20 ? -1 - c : line->len + 1 + c;
            kPlain[c % 14](line), term_insert(line, c);
            if (std::memcmp(line->buf, before.buf, sizeof before.buf) != 0) std::abort();
            *line = before;
            break;
        default: kPlain[op](line);
        }
        at += op >= 14;
        if (line->len < 0 || line->len > TERM_LINE_SIZE || line->cursor < 0 || line->cursor > line->len) std::abort();
    }
    std::free(line);
    g_editing = false;
    return 0;
}
