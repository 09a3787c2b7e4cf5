// Any bytes as a received response: every reader must stay inside the receive buffer. What they
// hand back is checked to lie inside it (rather than read byte by byte: the same check, and
// faster).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "libmgmt.h"

namespace {

const uint8_t *g_begin, *g_end;

void inside(const void *p, uint32_t len) {
    auto *b = static_cast<const uint8_t *>(p);
    if (b && (b < g_begin || b > g_end || len > size_t(g_end - b))) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static mgiBuf *buf = init_mgi_r();
    if (!buf) return 0;
    g_begin = buf->rbuf;
    g_end = buf->rbuf + MGI_MAX_LEN;
    std::memset(buf->rbuf, 0, MGI_MAX_LEN);
    std::memcpy(buf->rbuf, data, size < MGI_MAX_LEN ? size : MGI_MAX_LEN);
    void *d, *e, *c;
    uint32_t dl, el, cl;
    record_rsp_seg_r(buf, &d, &dl, &e, &el, &c, &cl);
    inside(d, dl), inside(e, el), inside(c, cl);
    for (int type = 128; type <= 141; ++type) {
        void *body = nullptr;
        uint32_t len = 0;
        if (find_roundtrip_segment_r(buf, uint8_t(type), &body, &len) == 0) inside(body, len);
    }
    volatile size_t sink = 0;
    if (const char *text = get_errString_r(buf)) sink = sink + std::strlen(text);
    sink = sink + uint32_t(mgi_get_rsp_err_code_r(buf) ^ mgi_get_rsp_private_err_code_r(buf));
    return 0;
}
