// Any bytes as a received response: what every reader hands back must lie inside the receive
// buffer (checked by its bounds rather than by reading it byte by byte: the same check, faster).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "libmgmt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static mgiBuf *buf = init_mgi_r();
    if (!buf) return 0;
    std::memset(buf->rbuf, 0, MGI_MAX_LEN);
    std::memcpy(buf->rbuf, data, size < MGI_MAX_LEN ? size : MGI_MAX_LEN);
    auto inside = [&](const void *p, uint32_t len) {
        auto *b = static_cast<const uint8_t *>(p);
        if (b && (b < buf->rbuf || b > buf->rbuf + MGI_MAX_LEN || len > buf->rbuf + MGI_MAX_LEN - b)) std::abort();
    };
    void *d, *e, *c, *body;
    uint32_t dl, el, cl, len;
    record_rsp_seg_r(buf, &d, &dl, &e, &el, &c, &cl);
    inside(d, dl), inside(e, el), inside(c, cl);
    for (int type = 128; type <= 141; ++type)
        if (find_roundtrip_segment_r(buf, uint8_t(type), &body, &len) == 0) inside(body, len);
    volatile size_t sink = uint32_t(mgi_get_rsp_err_code_r(buf) ^ mgi_get_rsp_private_err_code_r(buf));
    if (const char *text = get_errString_r(buf)) sink = sink + std::strlen(text);
    return 0;
}
