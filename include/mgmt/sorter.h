/*
 * The sorter: a daemon writes pointers to its records and reads them back as a
 * chain sorted by one field (or by its own compare function). One sorter per
 * process. Also the ordering of two values of an object type and the record
 * layout calculator getOffset.
 */
#ifndef MGMT_SORTER_H
#define MGMT_SORTER_H

#include <stdint.h>

#include "mgmt/export.h"

MGMT_BEGIN_DECLS

/* One written object; callers walk the chain that vk_sorter_get returns. */
typedef struct vk_sorter_node {
    void *object;
    struct vk_sorter_node *next;
} vk_sorter_node;

struct vk_sort_context;
/* Compare of two records: negative, 0 or positive; gets the sorter's context. */
typedef int32_t (*vk_sorter_compare)(const void *left, const void *right, struct vk_sort_context *ctx);

/* The context of the process's one sorter (sortContx). */
typedef struct vk_sort_context {
    int32_t data_len;          /* size of a whole record */
    uint32_t caller_word;      /* kept for a caller's compare function */
    vk_sorter_compare compare; /* common_cmp unless the caller gave one */
    uint32_t type;             /* object type of the key */
    int32_t offset;            /* offset of the key in the record */
    int32_t length;            /* length of the key */
    uint32_t caller_mode;      /* kept for a caller's compare function */
    uint32_t descending;       /* non-zero reverses the order */
    vk_sorter_node *head;      /* the written objects */
} vk_sort_context;

/* Marks the closing call of a record layout: getOffset then returns the record size. */
#define GETOFFSET_LAST_MEMBER (-2007)

/*
 * The sorter's context (sortContx) and getOffset's running layout are process-wide and unlocked: one sort
 * and one record layout at a time.
 *
 * Sets up the sorter: records of data_len bytes keyed by length bytes of type at offset, compare (null:
 * common_cmp), descending non-zero reverses; caller_mode and caller_word are kept for a caller's compare.
 * 0; -1 with "init_sort_contex: data len %d, offset %d\n" on the console for a negative data_len or
 * offset or data_len below offset, and -1 silently, the context emptied, when the key passes data_len.
 */
MGMT_API int vk_sorter_init(int32_t data_len, uint32_t type, int32_t offset, uint32_t caller_mode, int32_t length,
                            uint32_t descending, vk_sorter_compare compare, uint32_t caller_word);
/*
 * Adds a record, by pointer: it stays the caller's and must live until the sort is freed. 0, or -1 with
 * "vk_sorter_write: Failed to write obj to sorter\n" on the console when memory fails.
 */
MGMT_API int vk_sorter_write(void *object);
/*
 * Sorts what was written and returns the chain, null when empty. Equal keys keep their order of writing,
 * but for the types that never tie in descending order. The nodes are the sorter's until vk_sorter_free.
 * Without memory for the sort: the chain unsorted, newest first.
 */
MGMT_API vk_sorter_node *vk_sorter_get(void);
/* Frees the chain and clears the whole context, compare function included; the records stay the caller's. */
MGMT_API void vk_sorter_free(void);
/* The default compare: compare_by_type of the keys at ctx's offset, by its type and length. */
MGMT_API int32_t common_cmp(const void *left, const void *right, vk_sort_context *ctx);
/*
 * Order of two values of an object type: the difference for 0, 1, 7 and 9; 1 or -1 for 2, 3, 4, 6, 8 and
 * 10; numbers by value and letters without case for the string 5; memcmp for 11 (16 bytes), 12 (6), and
 * 13, 14, 17 (length). Other types print "Unknown object type %d\n" on standard output and give 0. Kept
 * on purpose: the types answering 1 or -1 give -1 for equal values, so they never report a tie.
 */
MGMT_API int32_t compare_by_type(uint32_t type, int32_t length, const void *left, const void *right);
/* Leading decimal digits of text (not null). */
MGMT_API int count_digits(const char *text);
/*
 * Merges two sorted chains by the sorter's compare and order, relinking the nodes; on a tie the first
 * chain's node comes first. The step of vk_sorter_get.
 */
MGMT_API vk_sorter_node *merge_2sorted_list(vk_sorter_node *first, vk_sorter_node *second);
/*
 * Lays out a record member by member: the offset of a member of type at its natural alignment (length is
 * the size of 5, 13, 14 and 17), or -1 for 4, 6, 7, 15, 16 and above 17. With length -2007
 * (GETOFFSET_LAST_MEMBER) it returns the record's padded size and starts afresh. Kept on purpose: a
 * 16-byte member (11) adds the running total once more, and 4, 6 and 7 compare but are not laid out.
 */
MGMT_API int32_t getOffset(uint32_t type, int32_t length);

MGMT_END_DECLS

#ifdef __cplusplus
static_assert(sizeof(vk_sorter_node) == 2 * sizeof(void *), "sorter node: object, next");
#endif

#endif
