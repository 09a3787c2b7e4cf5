/*
 * Line editing primitives for a one-line input field on a plain terminal.
 * The front end reads keys and calls one operation per key; each operation
 * changes the line record and writes to descriptor 1 what the terminal needs
 * (characters, spaces to blank cells, backspaces to go left) so that the
 * screen matches the record. One record per terminal, used by one thread; the
 * record is the front end's. No operation fails or reports: at the ends of the
 * line, or for a null record or one whose len or cursor lies outside buf,
 * they do nothing and write nothing.
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
/*
 * Formatted text to descriptor 1, from the heap when longer than 1023 bytes; the formatted length, -1
 * for a null fmt or when out of memory. Kept on purpose: the block held so far is then not freed.
 */
MGMT_API int term_out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* The cursor one left (a backspace), or one right (the cell repainted). */
MGMT_API void term_backward_char(term_line *line);
MGMT_API void term_forward_char(term_line *line);
/*
 * The cursor to the start of this or the previous word, or to the first character of the next word; a
 * word is a run of characters other than the space.
 */
MGMT_API void term_backward_word(term_line *line);
MGMT_API void term_forward_word(term_line *line);
/* Deletes the character under the cursor, or the one left of it; the characters behind move left. */
MGMT_API void term_delete_char(term_line *line);
MGMT_API void term_backward_delete_char(term_line *line);
/*
 * Deletes forward to the end of a word (spaces under the cursor first), or backward to the start of one.
 * Kept on purpose: on a word it leaves the spaces behind it, so it covers less than term_forward_word.
 */
MGMT_API void term_forward_kill_word(term_line *line);
MGMT_API void term_backward_kill_word(term_line *line);
/* The cursor to 0. */
MGMT_API void term_begin_of_line(term_line *line);
/* Cursor to the end; returns len (0 for null). */
MGMT_API int term_end_of_line(term_line *line);
/* Deletes from the cursor to the end; term_kill_whole_line the whole line. */
MGMT_API void term_kill_line(term_line *line);
MGMT_API void term_kill_whole_line(term_line *line);
/* Writes the whole text (after a fresh prompt), cursor to the end; returns len (0 for null). */
MGMT_API int term_redraw_line(term_line *line);
/* Inserts c at the cursor; returns the new cursor (0 for null). */
MGMT_API int term_insert(term_line *line, uint8_t c);
/* Overwrites the character at the cursor with c, lengthening the line at its end (the name is spelled so). */
MGMT_API void term_insert_overtwrite(term_line *line, uint8_t c);
/* Swaps the two characters before the cursor (or around it). */
MGMT_API void term_transpose_line(term_line *line);
/* The key after an escape: backspace/delete, b, d, f. Clears esc_state. */
MGMT_API void term_esc_pre_map(term_line *line, uint8_t c);
/* The last character of an arrow key's sequence: C right, D left. Clears esc_state. */
MGMT_API void term_esc_map(term_line *line, uint8_t c);

MGMT_END_DECLS

#endif
