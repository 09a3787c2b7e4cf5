// Value helpers: range checks by object type, trimming, XML length, IPv4
// address sanity and virtual router lookups.

#include "mgmt/value.h"

#include <net/if.h>

#include <cctype>
#include <cstdint>
#include <cstring>

#include "mgmt/platform/netif.h"
#include "util/types.h"

namespace {

// Values arrive through an untyped pointer that need not be aligned.
template <typename T>
T load(const void *p) {
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
int within(const void *value, uint64_t min, uint64_t max) {
    const T v = load<T>(value);
    return (v >= static_cast<T>(min) && v <= static_cast<T>(max)) ? 0 : -1;
}

bool blank(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

extern "C" {

MGMT_API int libmgmt_item_value_range_check(void *value, int32_t type, uint64_t min, uint64_t max) {
    if (value == nullptr) {
        return -1;
    }
    using mgmt::types::Range;
    switch (mgmt::types::type_row(static_cast<uint32_t>(type)).range) {
    case Range::pass:
        return 0;
    case Range::i32:
        return within<int32_t>(value, min, max);
    case Range::u32:
        return within<uint32_t>(value, min, max);
    case Range::i64:
        return within<int64_t>(value, min, max);
    case Range::u64:
        return within<uint64_t>(value, min, max);
    case Range::trimmed: {
        // The trim changes the caller's text; its result pointer is not
        // handed back, so leading blanks stay in the caller's view.
        const char *trimmed = libmgmt_string_trim(static_cast<char *>(value));
        const auto len = static_cast<int32_t>(strlen(trimmed));
        return (len >= static_cast<int32_t>(min) && len < static_cast<int32_t>(max)) ? 0 : -1;
    }
    case Range::u8:
        return within<uint8_t>(value, min, max);
    case Range::i8:
        return within<int8_t>(value, min, max);
    case Range::u16:
        return within<uint16_t>(value, min, max);
    case Range::i16:
        return within<int16_t>(value, min, max);
    case Range::unbounded: {
        // A maximum of 0 wraps to the largest length: no upper limit.
        const uint64_t len = strlen(static_cast<const char *>(value));
        return (len >= min && len <= max - 1) ? 0 : -1;
    }
    case Range::refuse:
        break;
    }
    return -1;
}

MGMT_API char *libmgmt_string_trim(char *str) {
    if (str == nullptr) {
        return nullptr;
    }
    char *start = str;
    while (blank(*start)) {
        ++start;
    }
    const size_t n = strlen(str);
    if (n == 0) {
        return start;  // nothing behind the start to cut
    }
    char *end = str + n - 1;
    while (end >= start && blank(*end)) {
        --end;
    }
    if (blank(end[1])) {
        end[1] = '\0';
    }
    return start;
}

MGMT_API uint32_t libmgmt_get_xml_converted_string_length(const char *str) {
    if (str == nullptr) {
        return 0;
    }
    uint32_t len = 1;
    for (const char *p = str; *p != '\0'; ++p) {
        switch (*p) {
        case '"':
        case '\'':
            len += 6;
            break;
        case '&':
            len += 5;
            break;
        case '<':
        case '>':
            len += 4;
            break;
        default:
            len += 1;
            break;
        }
    }
    return len;
}

MGMT_API int vk_check_ip_address_validate(uint32_t ip, uint32_t mask) {
    if (ip == 0 && mask == 0) {
        return 0;
    }
    const uint32_t top = ip >> 24;
    if (top == 0 || top > 223 || top == 127) {
        return -1;
    }
    const uint32_t low = ip & 0xffu;
    const uint32_t host = ip & ~mask;
    if (low == 0 && host == 0) {
        return -1;
    }
    if (low == 255 && host == ~mask) {
        return -1;
    }
    return (ip & mask) != 0 ? 0 : -1;
}

MGMT_API uint16_t get_vrid_from_ifindex(uint32_t ifindex) {
    char name[IF_NAMESIZE];
    memset(name, 0, sizeof name);
    if (if_indextoname(ifindex, name) == nullptr) {
        return 0;
    }
    uint32_t slot = 0;
    if (vk_get_if_vr(name, &slot) != 0) {
        return 0;
    }
    return static_cast<uint16_t>(slot & 0xffffu);
}

MGMT_API uint16_t get_vrid_from_sock(int sock) {
    return get_vrid_from_ifindex(get_tcp_sock_if_index(sock));
}

}  // extern "C"
