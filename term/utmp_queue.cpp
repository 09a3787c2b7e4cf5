// Login queue: a singly linked list of caller-owned login entries, keyed by
// the process id of their login record.

#include "mgmt/utmp_queue.h"

#include <cstddef>
#include <cstring>

static_assert(offsetof(utmp_queue_entry, next) == 0);
static_assert(offsetof(utmp_queue_entry, access) == sizeof(void *));
static_assert(sizeof(utmp_queue_entry::access) == 56);
static_assert(offsetof(utmp_queue_entry, record) == sizeof(void *) + 56);
static_assert(offsetof(utmp_queue, first) == 0);
static_assert(offsetof(utmp_queue, last) == sizeof(void *));

namespace {

// strcmp for a text held in a fixed field that may fill it without a
// terminator: equal when the field holds exactly text.
bool field_equals(const char *field, size_t size, const char *text) {
    const size_t n = strnlen(field, size);
    return strlen(text) == n && memcmp(field, text, n) == 0;
}

}  // namespace

extern "C" {

MGMT_API void utmp_queue_init(utmp_queue *queue) {
    if (queue == nullptr) {
        return;
    }
    queue->first = nullptr;
    queue->last = &queue->first;
}

MGMT_API utmp_queue_entry *utmp_queue_find_by_pid(utmp_queue *queue, uint32_t pid) {
    if (queue == nullptr) {
        return nullptr;
    }
    for (utmp_queue_entry *e = queue->first; e != nullptr; e = e->next) {
        if (static_cast<uint32_t>(e->record.ut_pid) == pid) {
            return e;
        }
    }
    return nullptr;
}

MGMT_API void utmp_queue_insert(utmp_queue *queue, utmp_queue_entry *entry) {
    if (queue == nullptr || entry == nullptr) {
        return;
    }
    utmp_queue_entry *old = utmp_queue_find_by_pid(queue, static_cast<uint32_t>(entry->record.ut_pid));
    if (old != nullptr) {
        // A repeated login of the same process refreshes the record in place.
        if (old != entry) {
            memcpy(&old->record, &entry->record, sizeof(struct utmp));
        }
        return;
    }
    entry->next = nullptr;
    *queue->last = entry;
    queue->last = &entry->next;
}

MGMT_API void utmp_queue_remove(utmp_queue *queue, utmp_queue_entry *entry) {
    if (queue == nullptr || entry == nullptr || queue->first == nullptr) {
        return;
    }
    if (queue->first == entry) {
        queue->first = entry->next;
        if (queue->first == nullptr) {
            queue->last = &queue->first;
        }
        return;
    }
    utmp_queue_entry *prev = queue->first;
    while (prev->next != entry) {
        prev = prev->next;
        if (prev == nullptr) {
            return;  // not in this queue
        }
    }
    prev->next = entry->next;
    if (prev->next == nullptr) {
        queue->last = &prev->next;
    }
}

MGMT_API utmp_queue_entry *utmp_queue_find_by_access_and_host(utmp_queue *queue, const char *access,
                                                              const char *host) {
    if (queue == nullptr || access == nullptr || host == nullptr || access[0] == '\0' || host[0] == '\0') {
        return nullptr;
    }
    for (utmp_queue_entry *e = queue->first; e != nullptr; e = e->next) {
        if (field_equals(e->access, sizeof e->access, access) &&
            field_equals(e->record.ut_host, sizeof e->record.ut_host, host)) {
            return e;
        }
    }
    return nullptr;
}

MGMT_API utmp_queue_entry *utmp_queue_remove_by_pid(utmp_queue *queue, uint32_t pid) {
    utmp_queue_entry *e = utmp_queue_find_by_pid(queue, pid);
    if (e != nullptr) {
        utmp_queue_remove(queue, e);
    }
    return e;
}

}  // extern "C"
