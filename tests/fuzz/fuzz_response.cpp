// Any bytes as a received response: every reader must stay inside the receive buffer.
#include <cstdint>
#include <cstring>

#include "libmgmt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static mgiBuf *buf = init_mgi_r();
    if (!buf) return 0;
    std::memset(buf->rbuf, 0, MGI_MAX_LEN);
    std::memcpy(buf->rbuf, data, size < MGI_MAX_LEN ? size : MGI_MAX_LEN);
    void *d, *e, *c;
    uint32_t dl, el, cl;
    record_rsp_seg_r(buf, &d, &dl, &e, &el, &c, &cl);
    volatile uint8_t sink = 0;
    for (uint32_t i = 0; d && i < dl; ++i) sink = sink ^ static_cast<uint8_t *>(d)[i];
    for (uint32_t i = 0; c && i < cl; ++i) sink = sink ^ static_cast<uint8_t *>(c)[i];
    for (int type = 128; type <= 141; ++type) {
        void *body = nullptr;
        uint32_t len = 0;
        if (find_roundtrip_segment_r(buf, uint8_t(type), &body, &len) == 0)
            for (uint32_t i = 0; i < len; ++i) sink = sink ^ static_cast<uint8_t *>(body)[i];
    }
    if (const char *text = get_errString_r(buf)) sink = sink ^ uint8_t(std::strlen(text));
    sink = sink ^ uint8_t(mgi_get_rsp_err_code_r(buf) ^ mgi_get_rsp_private_err_code_r(buf));
    return 0;
}
