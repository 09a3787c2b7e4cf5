// Exchange-buffer pairs: making and freeing them, the segment cursors, and the
// header fields that a requester writes straight into the send buffer.
#include <cstdlib>
#include <cstring>

#include "mgi/wire.h"
#include "mgmt/mgi.h"
#include "mgmt/platform/platform.h"

using namespace mgmt;

namespace {

// One buffer of a pair: exactly the largest message, as the platform allocates it.
unsigned char *alloc_buffer() {
    auto *p = static_cast<unsigned char *>(ipcmsg_alloc(MGI_MAX_LEN));
    if (p) std::memset(p, 0, MGI_MAX_LEN);
    return p;
}

// Header field of the send buffer, or null when there is none to write.
unsigned char *send_header(mgiBuf *buf) { return buf ? buf->sbuf : nullptr; }

// The pair the library made for this thread. It is freed when the thread ends, if the thread
// still holds it then: a thread that ends without thread_free_mgi leaves nothing behind.
thread_local mgiBuf *t_made = nullptr;
struct FreeAtThreadEnd {
    ~FreeAtThreadEnd() {
        if (t_made && global_mgi_buf == t_made) {
            deinit_mgi_r(t_made);
            global_mgi_buf = nullptr;
        }
    }
};

// Stores a pair made for the thread; the first one arms the thread's end.
mgiBuf *keep_for_thread(mgiBuf *buf) {
    static thread_local FreeAtThreadEnd at_end;
    (void)at_end;
    t_made = buf;
    global_mgi_buf = buf;
    return buf;
}

} // namespace

extern "C" {

MGMT_API mgiBuf *init_mgi_r(void) {
    auto *buf = static_cast<mgiBuf *>(std::calloc(1, sizeof(mgiBuf)));
    if (buf) {
        buf->sbuf = alloc_buffer();
        buf->rbuf = alloc_buffer();
    }
    if (!buf || !buf->sbuf || !buf->rbuf) {
        console_print("MGI: failed to alloc memory\n");
        deinit_mgi_r(buf);
        return nullptr;
    }
    return buf;
}

MGMT_API mgiBuf *thread_init_mgi(void) { return keep_for_thread(init_mgi_r()); }

MGMT_API mgiBuf *get_global_mgi_buf(void) {
    return global_mgi_buf ? global_mgi_buf : keep_for_thread(init_mgi_r());
}

MGMT_API void init_mgi(void) { get_global_mgi_buf(); }

MGMT_API void deinit_mgi_r(mgiBuf *buf) {
    if (!buf) return;
    if (buf == t_made) t_made = nullptr; // freed: the thread's end must not free it again
    if (buf->sbuf) ipcmsg_free(buf->sbuf);
    if (buf->rbuf) ipcmsg_free(buf->rbuf);
    std::free(buf);
}

MGMT_API void free_mgi_buf(mgiBuf *buf) { deinit_mgi_r(buf); }

MGMT_API void thread_free_mgi(void) {
    deinit_mgi_r(global_mgi_buf);
    global_mgi_buf = nullptr;
}

MGMT_API unsigned char *get_mgi_sbuf_r(mgiBuf *buf) { return buf ? buf->sbuf : nullptr; }
MGMT_API unsigned char *get_mgi_sbuf(void) { return get_mgi_sbuf_r(global_mgi_buf); }
MGMT_API unsigned char *get_mgi_rbuf_r(mgiBuf *buf) { return buf ? buf->rbuf : nullptr; }
MGMT_API unsigned char *get_mgi_rbuf(void) { return get_mgi_rbuf_r(global_mgi_buf); }

MGMT_API mgiBuf *init_mgi_exchange_r(mgiBuf *buf) {
    if (!buf) return init_mgi_r();
    if (!buf->sbuf) buf->sbuf = alloc_buffer();
    if (!buf->rbuf) buf->rbuf = alloc_buffer();
    if (buf->sbuf) std::memset(buf->sbuf, 0, MGI_MAX_LEN);
    if (buf->rbuf) std::memset(buf->rbuf, 0, MGI_MAX_LEN);
    return buf;
}

MGMT_API mgiBuf *init_mgi_exchange(void) {
    mgiBuf *buf = init_mgi_exchange_r(global_mgi_buf);
    return buf == global_mgi_buf ? buf : keep_for_thread(buf);
}

MGMT_API void prepare_to_append_segment_r(mgiBuf *buf) {
    if (!buf || !buf->sbuf) return;
    buf->sendseg_len = 0;
    buf->sendseg_link = buf->sbuf + MGI_OFF_NEXTSEG;
    buf->sendseg = buf->sbuf + MGI_HDR_LEN;
}
MGMT_API void prepare_to_append_segment(void) { prepare_to_append_segment_r(global_mgi_buf); }

MGMT_API void prepare_to_retrieve_segment_r(mgiBuf *buf) {
    if (!buf || !buf->rbuf) return;
    buf->recvseg_used = 0;
    buf->recvseg_link = buf->rbuf + MGI_OFF_NEXTSEG;
    buf->recvseg = buf->rbuf + MGI_HDR_LEN;
}
MGMT_API void prepare_to_retrieve_segment(void) { prepare_to_retrieve_segment_r(global_mgi_buf); }

MGMT_API unsigned char *get_sendseg_buf_r(mgiBuf *buf) {
    if (!buf || !buf->sendseg) return nullptr;
    return buf->sendseg + MGI_SEGHDR_LEN;
}
MGMT_API unsigned char *get_sendseg_buf(void) { return get_sendseg_buf_r(global_mgi_buf); }

MGMT_API int append_rqt_segment_r(mgiBuf *buf, uint8_t type, void *data, uint16_t len) {
    if (!buf || !buf->sendseg || !buf->sendseg_link) return -1;
    // The caller keeps a message within its buffer; a segment that would not
    // fit is refused rather than written past the end.
    if (buf->sendseg + MGI_SEGHDR_LEN + len > buf->sbuf + MGI_MAX_LEN) return -1;
    append_segment(buf->sendseg_link, buf->sendseg, type, data, len);
    buf->sendseg_link = buf->sendseg;
    buf->sendseg += MGI_SEGHDR_LEN + len;
    buf->sendseg_len += MGI_SEGHDR_LEN + len;
    return 0;
}
MGMT_API int append_rqt_segment(uint8_t type, void *data, uint16_t len) {
    return append_rqt_segment_r(global_mgi_buf, type, data, len);
}

MGMT_API void set_sendseg_subtype_r(mgiBuf *buf, uint32_t subtype) {
    if (!buf || !buf->sendseg || buf->sendseg + MGI_SEGHDR_LEN > buf->sbuf + MGI_MAX_LEN) return;
    set_seg_subtype(buf->sendseg, subtype);
}
MGMT_API void set_sendseg_subtype(uint32_t subtype) { set_sendseg_subtype_r(global_mgi_buf, subtype); }

// ---------------------------------------------------------------- header fields

MGMT_API void prepare_mgi_language_r(mgiBuf *buf, uint8_t language) {
    if (unsigned char *h = send_header(buf)) h[MGI_OFF_LANGUAGE] = language;
}
MGMT_API void prepare_mgi_vsysid_r(mgiBuf *buf, uint16_t id) {
    if (unsigned char *h = send_header(buf)) put_field(h, hdr::vsysid, id);
}
MGMT_API void prepare_mgi_login_vsysid_r(mgiBuf *buf, uint16_t id) {
    if (unsigned char *h = send_header(buf)) put_field(h, hdr::login_vsysid, id);
}
MGMT_API void prepare_mgi_dst_vsysid_r(mgiBuf *buf, uint16_t id) {
    if (unsigned char *h = send_header(buf)) put_field(h, hdr::dst_vsysid, id);
}
MGMT_API void prepare_mgi_user_r(mgiBuf *buf, const char *name, uint32_t priv) {
    unsigned char *h = send_header(buf);
    if (!h || !name) return;
    strlcpy(reinterpret_cast<char *>(h + MGI_OFF_USER), name, 32);
    put_field(h, hdr::user_priv, priv);
}
MGMT_API void prepare_mgi_partname_r(mgiBuf *buf, const char *name) {
    unsigned char *h = send_header(buf);
    if (!h || !name) return;
    strlcpy(reinterpret_cast<char *>(h + MGI_OFF_USER), name, 32);
}
MGMT_API void prepare_mgi_ip_addr_r(mgiBuf *buf, const char *text) {
    unsigned char *h = send_header(buf);
    if (!h || !text) return;
    strlcpy(reinterpret_cast<char *>(h + MGI_OFF_IP_ADDR), text, 40);
}

MGMT_API void prepare_mgi_language(uint8_t language) { prepare_mgi_language_r(global_mgi_buf, language); }
MGMT_API void prepare_mgi_vsysid(uint16_t id) { prepare_mgi_vsysid_r(global_mgi_buf, id); }
MGMT_API void prepare_mgi_login_vsysid(uint16_t id) { prepare_mgi_login_vsysid_r(global_mgi_buf, id); }
MGMT_API void prepare_mgi_dst_vsysid(uint16_t id) { prepare_mgi_dst_vsysid_r(global_mgi_buf, id); }
MGMT_API void prepare_mgi_user(const char *name, uint32_t priv) { prepare_mgi_user_r(global_mgi_buf, name, priv); }
MGMT_API void prepare_mgi_partname(const char *name) { prepare_mgi_partname_r(global_mgi_buf, name); }

} // extern "C"
