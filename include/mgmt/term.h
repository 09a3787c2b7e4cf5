/*
 * Line editing primitives for a one-line input field on a plain terminal.
 * The front end reads keys and calls one operation per key; each operation
 * changes the line record and writes to descriptor 1 what the terminal needs
 * (characters, spaces to blank cells, backspaces to go left) so that the
 * screen matches the record.
 */
#ifndef MGMT_TERM_H
#define MGMT_TERM_H

#include <stdint.h>

#include "mgmt/export.h"

MGMT_BEGIN_DECLS

#define TERM_LINE_SIZE 1024

/*
 * One input field. Start each input with a zeroed record. The longest line a
 * front end should build with term_insert is 1022 characters: an insert into
 * a longer line drops its last character, and an insert behind the last
 * character of such a line is ignored.
 */
typedef struct term_line {
    char buf[TERM_LINE_SIZE]; /* the text, one byte per cell */
    uint8_t esc_state;        /* escape sequence in progress (the front end's) */
    int32_t len;              /* characters in buf */
    int32_t cursor;           /* character under the cursor, 0 to len */
} term_line;

/* One write() to descriptor 1; its result. */
MGMT_API int term_write(const void *buf, int32_t len);
/* Formatted text to descriptor 1; the formatted length, -1 when out of memory. */
MGMT_API int term_out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

MGMT_API void term_backward_char(term_line *line);
MGMT_API void term_forward_char(term_line *line);
MGMT_API void term_backward_word(term_line *line);
MGMT_API void term_forward_word(term_line *line);
MGMT_API void term_delete_char(term_line *line);
MGMT_API void term_backward_delete_char(term_line *line);
MGMT_API void term_forward_kill_word(term_line *line);
MGMT_API void term_backward_kill_word(term_line *line);
MGMT_API void term_begin_of_line(term_line *line);
/* Cursor to the end; returns len. */
MGMT_API int term_end_of_line(term_line *line);
MGMT_API void term_kill_line(term_line *line);
MGMT_API void term_kill_whole_line(term_line *line);
/* Writes the whole text (after a fresh prompt); returns len. */
MGMT_API int term_redraw_line(term_line *line);
/* Inserts c at the cursor; returns the new cursor. */
MGMT_API int term_insert(term_line *line, uint8_t c);
/* Overwrites the character at the cursor with c. */
MGMT_API void term_insert_overtwrite(term_line *line, uint8_t c);
/* Swaps the two characters before the cursor (or around it). */
MGMT_API void term_transpose_line(term_line *line);
/* The key after an escape: backspace/delete, b, d, f. Clears esc_state. */
MGMT_API void term_esc_pre_map(term_line *line, uint8_t c);
/* The last character of an arrow key's sequence: C right, D left. Clears esc_state. */
MGMT_API void term_esc_map(term_line *line, uint8_t c);

MGMT_END_DECLS

#endif
