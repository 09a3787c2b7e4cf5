// Inside the condition language: the canonical operators, and the stage of
// the post-judge's parse that turns collected words into expression nodes.
#ifndef MGMT_COND_INTERNAL_H
#define MGMT_COND_INTERNAL_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "mgmt/cond.h"
#include "mgmt/mgi_app.h"

#if defined(__SANITIZE_ADDRESS__)
#define MGMT_COND_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MGMT_COND_LSAN 1
#endif
#endif
#ifdef MGMT_COND_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace mgmt::cond {

// The pointers that the last release of ctx freed in its word slots, one per slot: a release skips
// a slot that still holds the pointer it freed there, and the parser clears a slot's entry when
// it fills the slot. Kept in the library's own storage.
void **released_words(const condContext *ctx);

inline constexpr char kMatch[] = "match";
inline constexpr char kUnmatch[] = "unmatch";
inline constexpr char kGt[] = "gt";
inline constexpr char kLt[] = "lt";
inline constexpr char kNgt[] = "ngt";
inline constexpr char kNlt[] = "nlt";

// A block the judge hands out and nothing ever frees (the text copy of a
// parse that got past its clauses, a string value, a MAC value). The leak
// checker of a sanitizer build is told so; nothing else changes.
inline void never_freed([[maybe_unused]] const void *p) {
#ifdef MGMT_COND_LSAN
    if (p) __lsan_ignore_object(p);
#endif
}

// Appends to a list whose last-link may still be null (a context in zeroed
// storage that was never released): the link is found from the head then.
template <class Node, class List> void append(List *list, Node *node) {
    node->next = nullptr;
    if (!list->last) {
        list->last = &list->first;
        while (*list->last) list->last = &(*list->last)->next;
    }
    *list->last = node;
    list->last = &node->next;
}

// The parse after its words are collected: words[0..n) hold the words (the
// connectors among them) and connectors[0..k) the connectors' positions.
// Closes both arrays, appends one node per clause to expr_list and gives the
// nodes the type and offset of the item that the first word names in the
// entity at path. 0 or a COND_ERR_* code.
int build_clauses(const uint32_t *path, char **words, int32_t *connectors, int n, int k,
                  cond_expr_list *expr_list);

} // namespace mgmt::cond

#endif
