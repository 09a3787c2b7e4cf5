/*
 * Login queue: one entry per login, each with the system's login record and
 * the way of access. The queue links entries that the caller allocates and
 * frees; it neither allocates nor frees. A queue belongs to one thread, or to
 * a lock of the caller's. A null queue is ignored (null from the finds).
 */
#ifndef MGMT_UTMP_QUEUE_H
#define MGMT_UTMP_QUEUE_H

#include <stdint.h>
#include <utmp.h>

#include "mgmt/export.h"

MGMT_BEGIN_DECLS

#define UTMP_QUEUE_ACCESS_SIZE 56

typedef struct utmp_queue_entry {
    struct utmp_queue_entry *next;         /* null at the end */
    char access[UTMP_QUEUE_ACCESS_SIZE];   /* terminated name of the way of access */
    struct utmp record;                    /* ut_pid is the key, ut_host is compared */
} utmp_queue_entry;

typedef struct utmp_queue {
    utmp_queue_entry *first; /* null when empty */
    utmp_queue_entry **last; /* where the next entry is hung */
} utmp_queue;

/* An empty queue: first null, last at first. */
MGMT_API void utmp_queue_init(utmp_queue *queue);
/*
 * Appends entry, or, when an entry with the same ut_pid is queued, copies
 * entry's record over that one's (its access stays) and leaves entry unlinked
 * and the caller's. Null is ignored.
 */
MGMT_API void utmp_queue_insert(utmp_queue *queue, utmp_queue_entry *entry);
/* Unlinks entry (not freed, its next not cleared); an entry not queued is ignored. */
MGMT_API void utmp_queue_remove(utmp_queue *queue, utmp_queue_entry *entry);
/* The first entry whose ut_pid is pid, or null. */
MGMT_API utmp_queue_entry *utmp_queue_find_by_pid(utmp_queue *queue, uint32_t pid);
/* The first entry with both texts equal; null when either text is null or empty. */
MGMT_API utmp_queue_entry *utmp_queue_find_by_access_and_host(utmp_queue *queue, const char *access,
                                                              const char *host);
/* Unlinks and returns the entry of pid, or null; the caller frees it. */
MGMT_API utmp_queue_entry *utmp_queue_remove_by_pid(utmp_queue *queue, uint32_t pid);

MGMT_END_DECLS

#endif
