// The sorter (a bottom-up merge sort over a chain of record pointers), the
// ordering of two values by object type, and the record layout calculator.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mgmt/sorter.h"
#include "mgmt/platform/platform.h"
#include "util/types.h"

namespace {

vk_sort_context sortContx;

constexpr int kSlots = 64;

// Ordering of the types that never report a tie: 1 when left is greater, else -1.
template <class T> int32_t greater_or_not(const void *l, const void *r) {
    T a, b;
    std::memcpy(&a, l, sizeof a);
    std::memcpy(&b, r, sizeof b);
    return a > b ? 1 : -1;
}

template <class T> int32_t difference(const void *l, const void *r) {
    T a, b;
    std::memcpy(&a, l, sizeof a);
    std::memcpy(&b, r, sizeof b);
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<int32_t>(a)) -
                                static_cast<uint32_t>(static_cast<int32_t>(b)));
}

// A string key read as signed 8-bit characters. When the field's length is
// known no byte outside it is read (a byte past the field reads as 0); when it
// is not, nothing past the string's terminator is read.
struct Text {
    const signed char *p;
    size_t limit;
    signed char at(size_t i) const { return i < limit ? p[i] : 0; }
};

Text text_of(const void *v, int32_t length) {
    auto *p = static_cast<const signed char *>(v);
    size_t limit = length > 0 ? static_cast<size_t>(length) : std::strlen(reinterpret_cast<const char *>(p)) + 1;
    return {p, limit};
}

bool is_digit(signed char c) { return c >= '0' && c <= '9'; }
signed char upper(signed char c) { return c >= 0 ? static_cast<signed char>(std::toupper(c)) : c; }

size_t digits_at(const Text &t, size_t i) {
    size_t n = 0;
    while (is_digit(t.at(i + n))) ++n;
    return n;
}

size_t rest_len(const Text &t, size_t i) {
    size_t n = 0;
    while (i + n < t.limit && t.p[i + n] != 0) ++n;
    return n;
}

int32_t natural_compare(const void *left, const void *right, int32_t length) {
    Text l = text_of(left, length), r = text_of(right, length);
    size_t i = 0, j = 0;
    if (l.at(0) != 0 && r.at(0) != 0) {
        for (;;) {
            if (is_digit(l.at(i)) && is_digit(r.at(j))) {
                size_t nl = digits_at(l, i), nr = digits_at(r, j);
                if (nl != nr) return static_cast<int32_t>(nl) - static_cast<int32_t>(nr);
                for (size_t k = 0; k < nl; ++k) {
                    auto a = static_cast<unsigned char>(l.at(i + k)), b = static_cast<unsigned char>(r.at(j + k));
                    if (a != b) return int32_t{a} - int32_t{b};
                }
                i += nl;
                j += nr;
            }
            int32_t cl = upper(l.at(i)), cr = upper(r.at(j));
            if (cl != cr) return cl - cr;
            ++i;
            ++j;
            if (l.at(i) == 0 || r.at(j) == 0) break;
        }
    }
    size_t ll = rest_len(l, i), lr = rest_len(r, j);
    if (ll != lr) return static_cast<int32_t>(static_cast<uint32_t>(ll) - static_cast<uint32_t>(lr));
    for (size_t k = 0;; ++k) {
        auto a = static_cast<unsigned char>(l.at(k)), b = static_cast<unsigned char>(r.at(k));
        if (a != b) return int32_t{a} - int32_t{b};
        if (a == 0) return 0;
    }
}

int32_t bytes_compare(const void *l, const void *r, int32_t length) {
    if (length <= 0) return 0;
    return std::memcmp(l, r, static_cast<size_t>(length));
}

int64_t round_up(int64_t v, int64_t unit) { return unit > 0 ? ((v + unit - 1) / unit) * unit : v; }

} // namespace

extern "C" {

MGMT_API int32_t compare_by_type(uint32_t type, int32_t length, const void *left, const void *right) {
    using mgmt::types::Compare;
    switch (mgmt::types::type_row(type).compare) {
    case Compare::diff_i32: return difference<int32_t>(left, right);
    case Compare::order_u32: return greater_or_not<uint32_t>(left, right);
    case Compare::order_i64: return greater_or_not<int64_t>(left, right);
    case Compare::order_u64: return greater_or_not<uint64_t>(left, right);
    case Compare::natural: return natural_compare(left, right, length);
    case Compare::order_u8: return greater_or_not<uint8_t>(left, right);
    case Compare::diff_i8: return difference<int8_t>(left, right);
    case Compare::order_u16: return greater_or_not<uint16_t>(left, right);
    case Compare::diff_i16: return difference<int16_t>(left, right);
    case Compare::bytes16: return std::memcmp(left, right, 16);
    case Compare::bytes6: return std::memcmp(left, right, 6);
    case Compare::bytes: return bytes_compare(left, right, length);
    case Compare::unknown: break;
    }
    printf("Unknown object type %d\n", static_cast<int>(type));
    return 0;
}

MGMT_API int count_digits(const char *text) {
    int n = 0;
    while (is_digit(static_cast<signed char>(text[n]))) ++n;
    return n;
}

MGMT_API int32_t common_cmp(const void *left, const void *right, vk_sort_context *ctx) {
    auto *l = static_cast<const unsigned char *>(left) + ctx->offset;
    auto *r = static_cast<const unsigned char *>(right) + ctx->offset;
    return compare_by_type(ctx->type, ctx->length, l, r);
}

MGMT_API int vk_sorter_init(int32_t data_len, uint32_t type, int32_t offset, uint32_t caller_mode, int32_t length,
                            uint32_t descending, vk_sorter_compare compare, uint32_t caller_word) {
    if (data_len < 0 || data_len < offset || offset < 0) {
        console_print("%s: data len %d, offset %d\n", "init_sort_contex", data_len, offset);
        return -1;
    }
    sortContx.data_len = data_len;
    sortContx.compare = compare ? compare : common_cmp;
    sortContx.type = type;
    sortContx.offset = offset;
    sortContx.length = length;
    sortContx.caller_mode = caller_mode;
    sortContx.head = nullptr;
    if (int64_t{data_len} < int64_t{offset} + length) {
        std::memset(&sortContx, 0, sizeof sortContx);
        return -1;
    }
    sortContx.caller_word = caller_word;
    sortContx.descending = descending;
    return 0;
}

MGMT_API int vk_sorter_write(void *object) {
    auto *node = static_cast<vk_sorter_node *>(std::calloc(1, sizeof(vk_sorter_node)));
    if (!node) {
        console_print("%s: Failed to write obj to sorter\n", "vk_sorter_write");
        return -1;
    }
    node->object = object;
    node->next = sortContx.head;
    sortContx.head = node;
    return 0;
}

MGMT_API vk_sorter_node *merge_2sorted_list(vk_sorter_node *first, vk_sorter_node *second) {
    const int32_t sign = sortContx.descending ? -1 : 1;
    vk_sorter_node *result = nullptr;
    vk_sorter_node **tail = &result;
    while (first && second) {
        // After a failed init there is no compare function: the order stays as written.
        int32_t c = sortContx.compare ? sortContx.compare(first->object, second->object, &sortContx) : 0;
        if (static_cast<int64_t>(c) * sign <= 0) {
            *tail = first;
            first = first->next;
        } else {
            *tail = second;
            second = second->next;
        }
        tail = &(*tail)->next;
    }
    *tail = first ? first : second;
    return result;
}

MGMT_API vk_sorter_node *vk_sorter_get(void) {
    auto **slots = static_cast<vk_sorter_node **>(std::calloc(kSlots, sizeof(vk_sorter_node *)));
    if (!slots) return sortContx.head;
    vk_sorter_node *node = sortContx.head;
    while (node) {
        vk_sorter_node *run = node;
        node = node->next;
        run->next = nullptr;
        int i = 0;
        for (; i < kSlots && slots[i]; ++i) {
            run = merge_2sorted_list(run, slots[i]);
            slots[i] = nullptr;
        }
        // Slot 63 alone would hold 2^63 objects: the last slot takes what remains.
        if (i == kSlots) i = kSlots - 1;
        slots[i] = run;
    }
    vk_sorter_node *result = nullptr;
    for (int i = 0; i < kSlots; ++i) result = merge_2sorted_list(result, slots[i]);
    sortContx.head = result;
    std::free(slots);
    return result;
}

MGMT_API void vk_sorter_free(void) {
    vk_sorter_node *node = sortContx.head;
    while (node) {
        vk_sorter_node *next = node->next;
        std::free(node);
        node = next;
    }
    std::memset(&sortContx, 0, sizeof sortContx);
}

MGMT_API int32_t getOffset(uint32_t type, int32_t length) {
    static int64_t total_len = 0;
    static int64_t max_unit_len = 1;
    int64_t offset = -1;
    auto aligned = [&](int64_t unit, int64_t size) {
        offset = round_up(total_len, unit);
        total_len = offset + size;
        if (max_unit_len < unit) max_unit_len = unit;
    };
    using mgmt::types::Place;
    const mgmt::types::TypeRow &row = mgmt::types::type_row(type);
    switch (row.place) {
    case Place::aligned: aligned(row.align, row.size); break;
    case Place::packed:
        offset = total_len;
        total_len = offset + (row.size ? row.size : length);
        break;
    case Place::ipv6: {
        int64_t old = total_len;
        offset = round_up(total_len, 4);
        total_len = offset + 16 + old;
        break;
    }
    case Place::none: break;
    }
    if (length == GETOFFSET_LAST_MEMBER) {
        int64_t size = round_up(total_len, max_unit_len);
        total_len = 0;
        max_unit_len = 1;
        return static_cast<int32_t>(size);
    }
    return static_cast<int32_t>(offset);
}

} // extern "C"
