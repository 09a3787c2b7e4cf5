// Buffer list: a chain of equal blocks that is only ever appended to, read
// back through one cursor.

#include "mgmt/buf_list.h"
#include "util/format.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mgmt/platform/platform.h"

namespace {

constexpr uint32_t kPrintStackSize = 1024;

// A zeroed element with a zeroed block; null when the record (or, for a
// positive size, its block) cannot be had.
buf_elem *make_elem(uint32_t elem_size) {
    auto *e = static_cast<buf_elem *>(calloc(1, sizeof(buf_elem)));
    if (e == nullptr) {
        return nullptr;
    }
    e->data = static_cast<char *>(calloc(elem_size, 1));
    if (e->data == nullptr && elem_size != 0) {
        free(e);
        return nullptr;
    }
    return e;
}

void free_elements(buf_list *list) {
    buf_elem *e = list->head;
    while (e != nullptr) {
        buf_elem *next = e->next;
        buf_elem_free(list, e);
        e = next;
    }
}

// The block of an element that a reset kept for the cursor. A reset leaves the cursor naming
// what it named; that element stays, empty and out of the chain, so that a read or a seek before
// the next rewind finds the end instead of freed memory. It goes when the cursor moves on.
char g_detached_block[1];

bool detached(const buf_elem *e) { return e != nullptr && e->data == g_detached_block; }

void set_cursor(buf_list *list, buf_elem *e) {
    if (detached(list->cursor) && list->cursor != e) {
        free(list->cursor);
    }
    list->cursor = e;
}

}  // namespace

extern "C" {

MGMT_API buf_list *buf_list_new(uint32_t elem_size) {
    auto *list = static_cast<buf_list *>(calloc(1, sizeof(buf_list)));
    if (list == nullptr) {
        return nullptr;
    }
    list->elem_size = elem_size;
    list->companion = static_cast<buf_list *>(calloc(1, sizeof(buf_list)));
    if (list->companion != nullptr) {
        list->companion->elem_size = elem_size >> 4;
    }
    return list;
}

MGMT_API void buf_elem_free(buf_list *list, buf_elem *elem) {
    if (elem == nullptr) {
        return;
    }
    if (elem->data != nullptr) {
        if (list != nullptr) {
            list->total_len -= elem->used;
        }
        free(elem->data);
    }
    free(elem);
}

MGMT_API void buf_list_reset(buf_list *list) {
    if (list == nullptr) {
        return;
    }
    // The cursor keeps naming what it named: readers rewind after a reset.
    buf_elem *kept = list->cursor;
    for (buf_elem *e = list->head; e != nullptr;) {
        buf_elem *next = e->next;
        if (e == kept) {
            free(e->data);
            *e = buf_elem{nullptr, nullptr, g_detached_block, 0, 0};
        } else {
            buf_elem_free(list, e);
        }
        e = next;
    }
    list->head = nullptr;
    list->tail = nullptr;
    list->read_offset = 0;
    list->position = 0;
    list->total_len = 0;
}

MGMT_API void buf_list_free(buf_list *list) {
    if (list == nullptr) {
        return;
    }
    set_cursor(list, nullptr); // first: it looks at the element the cursor names
    free_elements(list);
    if (list->companion != nullptr) {
        free_elements(list->companion);
        free(list->companion);
    }
    free(list);
}

MGMT_API int buf_list_empty(buf_list *list) {
    if (list == nullptr || list->tail == nullptr) {
        return 1;
    }
    return list->tail->start >= list->tail->used ? 1 : 0;
}

MGMT_API uint32_t buf_list_write(buf_list *list, const void *data, uint32_t len) {
    if (len == 0 || list == nullptr || data == nullptr) {
        return 0;
    }
    const auto *src = static_cast<const char *>(data);
    uint32_t left = len;
    for (;;) {
        buf_elem *tail = list->tail;
        if (tail == nullptr || tail->used >= list->elem_size) {
            buf_elem *e = make_elem(list->elem_size);
            if (e != nullptr) {
                if (tail == nullptr) {
                    list->head = e;
                } else {
                    tail->next = e;
                    e->prev = tail;
                }
                list->tail = e;
                tail = e;
            } else if (tail == nullptr) {
                return len - left;
            }
            // With no new element the full tail takes nothing, and the loop
            // asks again until memory returns.
        }
        uint32_t room = list->elem_size - tail->used;
        if (room >= left) {
            memcpy(tail->data + tail->used, src, left);
            tail->used += left;
            list->position += left;
            list->total_len += left;
            return len;
        }
        if (room != 0) {
            memcpy(tail->data + tail->used, src, room);
        }
        src += room;
        tail->used = list->elem_size;
        left -= room;
        list->total_len += room;
        // The position is credited with what is still to come, not with
        // what went into this block: it runs ahead until the next seek from
        // the start or the end.
        list->position += left;
    }
}

MGMT_API int buf_list_write_str(buf_list *list, const char *str) {
    if (str == nullptr) {
        return -1;
    }
    return static_cast<int>(buf_list_write(list, str, static_cast<uint32_t>(strlen(str))));
}

MGMT_API uint32_t buf_list_copy_append(buf_list *dst, buf_list *src) {
    if (src == nullptr) {
        return 0;
    }
    uint32_t sum = 0;
    for (buf_elem *e = src->head; e != nullptr; e = e->next) {
        sum += buf_list_write(dst, e->data, e->used);
    }
    return sum;
}

MGMT_API int buf_list_print(buf_list *list, const char *fmt, ...) {
    if (fmt == nullptr) {
        return 0;
    }
    char stack[kPrintStackSize];
    va_list ap;
    va_start(ap, fmt);
    mgmt::Formatted f = mgmt::format_growing(stack, sizeof stack, fmt, ap);
    va_end(ap);
    if (f.failed) {
        free(f.heap);
        console_print("buf list out of memory\n");
        return 0;
    }
    buf_list_write(list, f.text, static_cast<uint32_t>(f.len));
    free(f.heap);
    return f.len;
}

MGMT_API void buf_list_rewind(buf_list *list) {
    if (list == nullptr) {
        return;
    }
    set_cursor(list, list->head);
    list->read_offset = list->head != nullptr ? list->head->start : 0;
}

MGMT_API char *buf_list_get_line(buf_list *list, char *out, uint32_t *len) {
    if (len == nullptr) {
        return nullptr;
    }
    if (list == nullptr || list->cursor == nullptr || out == nullptr) {
        *len = 0;
        return nullptr;
    }
    const uint32_t cap = *len;
    memset(out, 0, cap);
    uint32_t n = 0;
    for (;;) {
        buf_elem *e = list->cursor;
        if (list->read_offset >= e->used) {
            e = e->next;
            if (e == nullptr) {
                set_cursor(list, nullptr);
                list->read_offset = 0;
                break;
            }
            set_cursor(list, e);
            list->read_offset = e->start;
            continue;
        }
        char c = e->data[list->read_offset++];
        if (c == '\0') {
            // Give the bytes of this call back, counted in this element only.
            list->read_offset -= n + 1;
            *len = 0;
            return nullptr;
        }
        out[n++] = c;
        if (c == '\n' || n >= cap) {
            break;
        }
    }
    *len = n;
    list->position += n;
    return out;
}

MGMT_API char *buf_list_get_exact_lines(buf_list *list, char *out, uint32_t *len) {
    if (len == nullptr) {
        return out;
    }
    const uint32_t cap = *len;
    uint32_t total = 0;
    while (total < cap) {
        uint32_t part = cap - total;
        if (buf_list_get_line(list, out + total, &part) == nullptr || part == 0) {
            break;
        }
        total += part;
    }
    *len = total;
    return out;
}

MGMT_API int buf_list_seek(buf_list *list, int32_t offset, int whence) {
    if (list == nullptr) {
        return -1;
    }
    if (whence == 0) {
        set_cursor(list, list->head);
        list->read_offset = 0;
        list->position = 0;
    } else if (whence == 2) {
        set_cursor(list, list->tail);
        list->read_offset = list->tail != nullptr ? list->tail->used : 0;
        list->position = list->total_len;
    }
    const uint32_t target = static_cast<uint32_t>(offset) + list->position;
    if (target == 0 || target >= list->total_len) {
        return -1;
    }
    if (offset == 0) {
        return static_cast<int>(list->read_offset);
    }
    if (list->cursor == nullptr) {
        return -1;  // nothing to walk from (not rewound, or read to the end)
    }
    if (offset > 0) {
        int64_t left = offset;
        buf_elem *e = list->cursor;
        if (static_cast<int64_t>(list->read_offset) + left <= e->used) {
            list->read_offset += static_cast<uint32_t>(left);
            list->position = target;
            return static_cast<int>(target);
        }
        for (;;) {
            const uint32_t rest = e->used - list->read_offset;
            list->position += rest;
            set_cursor(list, e->next);
            list->read_offset = 0;
            left -= static_cast<int32_t>(rest);
            if (left <= 0) {
                return 0;
            }
            e = list->cursor;
            if (e == nullptr) {
                return -1;  // the position ran ahead of the stored bytes
            }
            if (left <= e->used) {
                list->read_offset = static_cast<uint32_t>(left);
                list->position += static_cast<uint32_t>(left);
                return static_cast<int>(list->position);
            }
        }
    }
    uint32_t back = 0u - static_cast<uint32_t>(offset);
    for (;;) {
        if (back <= list->read_offset) {
            list->read_offset -= back;
            list->position -= back;
            return static_cast<int>(list->position);
        }
        back -= list->read_offset;
        list->position -= list->read_offset;
        buf_elem *prev = list->cursor->prev;
        if (prev == nullptr) {
            list->read_offset = 0;
            return -1;  // the position ran ahead of the stored bytes
        }
        set_cursor(list, prev);
        list->read_offset = prev->used;
    }
}

}  // extern "C"
