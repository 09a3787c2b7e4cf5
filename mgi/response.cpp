// Reading the last message received into a pair: segment search, the whole
// walk, the error body, and the common paging cookie.
#include <arpa/inet.h>
#include <cstring>
#include <initializer_list>

#include "mgi/wire.h"
#include "mgmt/mgi.h"

using namespace mgmt;

namespace {

bool in_chain_range(uint8_t type) { return type >= MGI_SEG_FIRST && type <= MGI_SEG_LAST; }

// A segment head whose body lies wholly inside the receive buffer. Lengths
// come from the far side: a segment that would reach past the buffer ends the
// walk as if the chain ended there.
bool segment_inside(const mgiBuf *buf, const unsigned char *head) {
    const unsigned char *end = buf->rbuf + MGI_MAX_LEN;
    if (head < buf->rbuf || head + MGI_SEGHDR_LEN > end) return false;
    return head + MGI_SEGHDR_LEN + seg_len(head) <= end;
}

// The error body, when the response holds one that fits the buffer.
const unsigned char *error_body(mgiBuf *buf) {
    void *body = nullptr;
    uint32_t len = 0;
    if (!buf || find_roundtrip_segment_r(buf, MGI_SEG_ERROR, &body, &len) != 0) return nullptr;
    auto *p = static_cast<const unsigned char *>(body);
    if (p + sizeof(mgiErrBody) > buf->rbuf + MGI_MAX_LEN) return nullptr;
    return p;
}

// A word of the error body as it stands in the message, 0 without an error segment.
int32_t error_word(mgiBuf *buf, size_t offset) {
    const unsigned char *p = error_body(buf);
    if (!p) return 0;
    int32_t v;
    std::memcpy(&v, p + offset, sizeof v);
    return v;
}

} // namespace

extern "C" {

MGMT_API int find_roundtrip_segment_r(mgiBuf *buf, uint8_t type, void **body, uint32_t *len) {
    if (!buf || !buf->rbuf) return -1;
    prepare_to_retrieve_segment_r(buf);
    const unsigned char *r = buf->rbuf;
    uint8_t first = r[MGI_OFF_NEXTSEG];
    uint16_t remaining = get_field(r, hdr::len);
    if (first == MGI_SEG_END || remaining == 0 || !in_chain_range(first)) return -1;
    if (first != type) {
        for (;;) {
            unsigned char *head = buf->recvseg;
            if (!segment_inside(buf, head)) return -1;
            uint16_t seglen = seg_len(head);
            buf->recvseg_link = head;
            remaining = static_cast<uint16_t>(remaining - (MGI_SEGHDR_LEN + seglen));
            buf->recvseg = seg_after(head);
            uint8_t next = head[0];
            if (next == MGI_SEG_END || !in_chain_range(next) || remaining == 0) return -1;
            if (next == type) break;
        }
    }
    unsigned char *head = buf->recvseg;
    if (!segment_inside(buf, head)) return -1;
    if (body) *body = seg_body(head);
    if (len) *len = seg_len(head);
    return 0;
}

MGMT_API int find_roundtrip_segment(uint8_t type, void **body, uint32_t *len) {
    return find_roundtrip_segment_r(global_mgi_buf, type, body, len);
}

MGMT_API int find_roundtrip_cookie(void **body, uint32_t *len) {
    return find_roundtrip_segment_r(global_mgi_buf, MGI_SEG_COOKIE, body, len);
}

MGMT_API int mgi_get_rsp_err_code_r(mgiBuf *buf) { return error_word(buf, offsetof(mgiErrBody, err_code)); }
MGMT_API int mgi_get_rsp_err_code(void) { return mgi_get_rsp_err_code_r(global_mgi_buf); }

MGMT_API int mgi_get_rsp_private_err_code_r(mgiBuf *buf) {
    return error_word(buf, offsetof(mgiErrBody, private_ecode));
}
MGMT_API int mgi_get_rsp_private_err_code(void) { return mgi_get_rsp_private_err_code_r(global_mgi_buf); }

MGMT_API char *get_errString_r(mgiBuf *buf) {
    const unsigned char *p = error_body(buf);
    if (!p) return nullptr;
    auto *text = reinterpret_cast<char *>(const_cast<unsigned char *>(p) + sizeof(mgiErrBody));
    auto *end = reinterpret_cast<char *>(buf->rbuf + MGI_MAX_LEN);
    // A text that the far side left open ends inside the buffer: cut at its last byte, and an
    // error body that fills the buffer to its end has an empty text.
    static char empty[1];
    if (text == end) return empty;
    if (!std::memchr(text, 0, size_t(end - text))) end[-1] = 0;
    return text;
}
MGMT_API char *get_errString(void) { return get_errString_r(global_mgi_buf); }
MGMT_API char *mgi_get_rsp_err_string_r(mgiBuf *buf) { return get_errString_r(buf); }
MGMT_API char *mgi_get_rsp_err_string(void) { return get_errString_r(global_mgi_buf); }

MGMT_API uint8_t get_mgi_resp_type_r(mgiBuf *buf) { return buf && buf->rbuf ? buf->rbuf[MGI_OFF_TYPE] : 0; }
MGMT_API uint8_t get_mgi_resp_type(void) { return get_mgi_resp_type_r(global_mgi_buf); }
MGMT_API void *get_mgi_resp_data_r(mgiBuf *buf) { return buf && buf->rbuf ? buf->rbuf + MGI_HDR_LEN : nullptr; }
MGMT_API void *get_mgi_resp_data(void) { return get_mgi_resp_data_r(global_mgi_buf); }

MGMT_API int record_rsp_seg_r(mgiBuf *buf, void **data, uint32_t *data_len, void **err, uint32_t *err_len,
                              void **cookie, uint32_t *cookie_len) {
    void *dummy_ptr;
    uint32_t dummy_len;
    if (!data) data = &dummy_ptr;
    if (!data_len) data_len = &dummy_len;
    if (!err) err = &dummy_ptr;
    if (!err_len) err_len = &dummy_len;
    if (!cookie) cookie = &dummy_ptr;
    if (!cookie_len) cookie_len = &dummy_len;
    *data = *err = *cookie = nullptr;
    *data_len = *err_len = *cookie_len = 0;
    if (!buf || !buf->rbuf) return 0;
    prepare_to_retrieve_segment_r(buf);
    uint8_t type = buf->rbuf[MGI_OFF_NEXTSEG];
    uint16_t remaining = get_field(buf->rbuf, hdr::len);
    while (type != MGI_SEG_END && remaining != 0) {
        unsigned char *head = buf->recvseg;
        if (!segment_inside(buf, head)) break;
        uint16_t seglen = seg_len(head);
        unsigned char *body = seg_body(head);
        bool counted = true;
        switch (type) {
        case MGI_SEG_COOKIE: *cookie = body, *cookie_len = seglen; break;
        case MGI_SEG_ERROR: *err = body, *err_len = seglen; break;
        case MGI_SEG_RULEDATA:
        case MGI_SEG_UDCDATA:
        case MGI_SEG_ANSWER:
        case MGI_SEG_ANSWER2: *data = body, *data_len = seglen; break;
        default: counted = false; break;
        }
        if (counted) remaining = static_cast<uint16_t>(remaining - (MGI_SEGHDR_LEN + seglen));
        buf->recvseg_link = head;
        buf->recvseg = body + seglen;
        type = head[0];
    }
    return 0;
}

// ---------------------------------------------------------------- common cookie

MGMT_API uint32_t get_mgi_rsp_data_num(uint64_t size) {
    if (size < 2) return 12422;
    int bits = 64 - __builtin_clzll(size);
    return bits >= 32 ? 0 : 24844u >> bits;
}

MGMT_API int get_rqt_num_by_cookie(uint32_t *cookie) {
    auto first = static_cast<int32_t>(cookie[0]);
    auto last = static_cast<int32_t>(cookie[1]);
    if (first > last) return -1;
    return static_cast<int>(static_cast<uint32_t>(last) - static_cast<uint32_t>(first) + 1u);
}

MGMT_API void set_cookie_by_rsp_data(uint32_t *cookie, uint32_t count, uint32_t value) {
    cookie[0] += count;
    cookie[2] = value;
}

MGMT_API void mgi_common_cookie_hton(uint32_t *cookie) {
    for (int i : {0, 1, 2, 4, 5}) cookie[i] = htonl(cookie[i]);
}

MGMT_API void mgi_common_cookie_ntoh(uint32_t *cookie) {
    for (int i : {0, 1, 2, 4, 5}) cookie[i] = ntohl(cookie[i]);
}

} // extern "C"
