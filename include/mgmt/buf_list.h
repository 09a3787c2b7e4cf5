/*
 * Buffer list: an append-only byte store held in a chain of equal blocks,
 * with one read cursor. Stored bytes never move; text is read back line by
 * line or in slices. A list is plain heap memory of the calling process and
 * belongs to one thread at a time; nothing here locks. A null list is ignored
 * (nothing stored, nothing read) unless a comment says otherwise.
 */
#ifndef MGMT_BUF_LIST_H
#define MGMT_BUF_LIST_H

#include <stdint.h>

#include "mgmt/export.h"

MGMT_BEGIN_DECLS

/* One block of a list. */
typedef struct buf_elem {
    struct buf_elem *next; /* null at the tail */
    struct buf_elem *prev; /* null at the head */
    char *data;            /* elem_size bytes, zero-filled when made */
    uint32_t used;         /* bytes stored in the block */
    uint32_t start;        /* offset at which reading this element begins (always 0) */
} buf_elem;

typedef struct buf_list {
    buf_elem *head;             /* first element, null while nothing is stored */
    buf_elem *tail;             /* last element, the only one written */
    buf_elem *cursor;           /* element being read; null until rewound and after the end */
    uint32_t elem_size;         /* capacity of every block */
    uint32_t read_offset;       /* next byte to read inside cursor */
    uint32_t position;          /* list-wide position; writes advance it too */
    uint32_t total_len;         /* bytes held in all elements */
    struct buf_list *companion; /* second list with a sixteenth of the block size */
} buf_list;

/*
 * A new empty list with blocks of elem_size bytes (give a positive size: with 0 a write never ends); null
 * when memory fails. Kept on purpose: a companion list of elem_size / 16 is made and freed with it, and
 * nothing else touches it.
 */
MGMT_API buf_list *buf_list_new(uint32_t elem_size);
/* Frees the elements, the companion and the list; null is ignored. */
MGMT_API void buf_list_free(buf_list *list);
/*
 * Frees all elements and zeroes the counters. Kept on purpose: the cursor still names the element it
 * named, rewind before reading. That element is kept empty and out of the chain until the cursor
 * moves on, so a read or a seek before the rewind finds the end rather than freed memory.
 */
MGMT_API void buf_list_reset(buf_list *list);
/* Frees one element and its block (not unlinked); null is ignored. */
MGMT_API void buf_elem_free(buf_list *list, buf_elem *elem);
/* 1 when nothing is stored (or list is null), else 0. */
MGMT_API int buf_list_empty(buf_list *list);

/*
 * Appends len bytes (copied); returns len, and 0 for a null list or data or when the first block can't be
 * made (with a full last block it waits for memory). Kept on purpose: a write that crosses a block
 * boundary runs position ahead, until a seek from the start or the end sets it afresh.
 */
MGMT_API uint32_t buf_list_write(buf_list *list, const void *data, uint32_t len);
/* Appends a string without its terminator; -1 for a null string. */
MGMT_API int buf_list_write_str(buf_list *list, const char *str);
/* Appends every stored byte of src to dst; returns the bytes stored, 0 for a null src. src's cursor stays. */
MGMT_API uint32_t buf_list_copy_append(buf_list *dst, buf_list *src);
/*
 * Appends formatted text (no terminator), from the heap when longer than 1023
 * bytes. Returns the formatted length (a null list too), or 0 for a null fmt
 * and when out of memory ("buf list out of memory\n" on the console, nothing
 * stored).
 */
MGMT_API int buf_list_print(buf_list *list, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

/* Puts the cursor on the first stored byte; position is left as it is. A new list is read after a rewind. */
MGMT_API void buf_list_rewind(buf_list *list);
/*
 * Reads one line (up to and including a newline) into out. *len holds the
 * capacity on entry and the bytes delivered on return. Returns out, or null
 * when there is no cursor or a zero byte ends the stored text. A line longer
 * than the capacity is delivered in pieces without a terminator. Even with a
 * capacity of 0 one byte is taken and stored, so out must hold at least one
 * byte. A null len gives null.
 */
MGMT_API char *buf_list_get_line(buf_list *list, char *out, uint32_t *len);
/* Fills out with whole lines (the last may be cut); *len as above; returns out. */
MGMT_API char *buf_list_get_exact_lines(buf_list *list, char *out, uint32_t *len);
/*
 * Moves the cursor. whence 0: from the start, 2: from the end, any other
 * value: from the current position. Returns the new position, or -1 when the
 * target is 0 or not below the stored length (or the walk runs out of
 * elements). Kept on purpose: the moves of whence 0 and 2 stay made when -1
 * is returned, so seeks to the very start and end report failure; offset 0
 * from the current position returns read_offset.
 */
MGMT_API int buf_list_seek(buf_list *list, int32_t offset, int whence);

MGMT_END_DECLS

#endif
