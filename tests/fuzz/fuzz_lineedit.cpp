// The line editor driven by operation sequences: each byte picks an editing operation (its low four
// bits) and, for those that take one, the next byte is the character. After every step the cursor
// stays within the line and the line within its buffer; a record with a cursor or length out of
// range is left as it is.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "libmgmt.h"

namespace {

void (*const kPlain[])(term_line *) = {
    term_backward_char, term_forward_char, term_backward_word, term_forward_word, term_delete_char,
    term_backward_delete_char, term_forward_kill_word, term_backward_kill_word, term_begin_of_line,
    term_kill_line, term_kill_whole_line, term_transpose_line,
    [](term_line *l) { term_end_of_line(l); }, [](term_line *l) { term_redraw_line(l); },
};
constexpr unsigned kPlainCount = sizeof kPlain / sizeof kPlain[0];

bool sane(const term_line &l) { return l.len >= 0 && l.len <= TERM_LINE_SIZE && l.cursor >= 0 && l.cursor <= l.len; }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool quiet = [] { // the editor echoes to descriptor 1
        int null = open("/dev/null", O_WRONLY);
        return null >= 0 && dup2(null, 1) == 1;
    }();
    (void)quiet;
    auto *line = static_cast<term_line *>(std::calloc(1, sizeof(term_line))); // a read past it is seen
    for (size_t at = 0; at < size; ++at) {
        const uint8_t op = data[at], c = at + 1 < size ? data[at + 1] : 'x';
        switch (op % 20) {
        case 14: term_insert(line, c), ++at; break;
        case 15: term_insert_overtwrite(line, c), ++at; break;
        case 16: term_esc_pre_map(line, c), ++at; break;
        case 17: term_esc_map(line, c), ++at; break;
        case 18: // a burst of the same character: long lines are reached quickly
            for (int i = 0; i < 8 * (c % 64); ++i) term_insert(line, c);
            ++at;
            break;
        case 19: { // a record the front end spoiled: no operation may touch it
            term_line before = *line;
            line->cursor = op & 0x20 ? -1 - c : line->len + 1 + c;
            kPlain[c % kPlainCount](line);
            term_insert(line, c);
            if (std::memcmp(line->buf, before.buf, sizeof before.buf) != 0) std::abort();
            *line = before, ++at;
            break;
        }
        default: kPlain[op % 20](line);
        }
        if (!sane(*line)) std::abort();
    }
    std::free(line);
    return 0;
}
