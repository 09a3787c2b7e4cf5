// Target lists and segment appends of the MGI message format.
#include <cstring>

#include "mgi/wire.h"
#include "mgmt/mgi.h"

using namespace mgmt;

extern "C" {

MGMT_API int get_mgi_msg_hdr_target(uint32_t *words, const void *header) {
    if (!words || !header) return 0;
    const auto *t = static_cast<const unsigned char *>(header) + MGI_OFF_TARGET;
    int n = 0;
    for (int i = 0; i < MGI_TARGET_WORDS; ++i) {
        uint32_t w = get_be32(t + 4 * i);
        words[i] = w;
        if (w == 0) break;
        ++n;
    }
    return n;
}

MGMT_API int set_mgi_msg_hdr_target(void *header, const uint32_t *words, int max) {
    if (!words || !header) return 0;
    auto *t = static_cast<unsigned char *>(header) + MGI_OFF_TARGET;
    int n = 0;
    int i = 0;
    do {
        uint32_t w = words[i];
        put_be32(t + 4 * i, w);
        if (w == 0) break;
        ++n;
        ++i;
    } while (i < max && i < MGI_TARGET_WORDS);
    return n;
}

MGMT_API int get_mgi_target_len(const uint32_t *words) {
    if (!words) return 0;
    int n = 0;
    while (n < 11 && words[n] != 0) ++n;
    return n;
}

MGMT_API uint16_t append_segment(unsigned char *link, unsigned char *head, uint8_t type, const void *data,
                                 uint16_t len) {
    *link = type;
    head[0] = MGI_SEG_END;
    head[1] = type;
    set_seg_len(head, len);
    if (data != seg_body(head) && len != 0 && data) std::memmove(seg_body(head), data, len);
    return len;
}

MGMT_API uint16_t append_segment_with_string(unsigned char *link, unsigned char *head, uint8_t type,
                                             const char *text) {
    size_t n = std::strlen(text) + 1;
    size_t padded = pad8(n);
    unsigned char *body = seg_body(head);
    if (reinterpret_cast<const unsigned char *>(text) != body) {
        std::memmove(body, text, n);
        std::memset(body + n, 0, padded - n);
    }
    return append_segment(link, head, type, body, static_cast<uint16_t>(padded));
}

} // extern "C"
