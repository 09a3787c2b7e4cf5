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

MGMT_API int vk_sorter_init(int32_t data_len, uint32_t type, int32_t offset, uint32_t caller_mode, int32_t length,
                            uint32_t descending, vk_sorter_compare compare, uint32_t caller_word);
MGMT_API int vk_sorter_write(void *object);
MGMT_API vk_sorter_node *vk_sorter_get(void);
MGMT_API void vk_sorter_free(void);
MGMT_API int32_t common_cmp(const void *left, const void *right, vk_sort_context *ctx);
MGMT_API int32_t compare_by_type(uint32_t type, int32_t length, const void *left, const void *right);
MGMT_API int count_digits(const char *text);
MGMT_API vk_sorter_node *merge_2sorted_list(vk_sorter_node *first, vk_sorter_node *second);
MGMT_API int32_t getOffset(uint32_t type, int32_t length);

MGMT_END_DECLS

#ifdef __cplusplus
static_assert(sizeof(vk_sorter_node) == 2 * sizeof(void *), "sorter node: object, next");
#endif

#endif
