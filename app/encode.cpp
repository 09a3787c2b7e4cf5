// Response encoding and the message handlers: the two IPC entry points, the
// response header around a request, and the operations by which handlers
// build a response in place.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/app_internal.h"
#include "mgi/wire.h"
#include "mgmt/mgi_app.h"
#include "mgmt/platform/platform.h"

using mgmt::put_be16;
using mgmt::pad8;
using mgmt::put_be32;
using mgmt::get_field;
using mgmt::put_field;
namespace hdr = mgmt::hdr;
using mgmt::app::rsp_fits;

namespace {

// A hook on the IPC arguments of a request; nothing to check here.
void check_ipc(void *, void *, void *, uint32_t, int32_t *) {}

// Ends the process: a response above the limit must never reach the IPC.
[[noreturn]] void die_on_oversized_response() {
    volatile uint32_t *volatile zero = nullptr;
    *zero = 0;
    __builtin_trap();
}

// A message too short to hold a header is served as if its missing header
// bytes were 0: from a copy, so that nothing outside the message is read.
struct ShortMessage {
    alignas(8) unsigned char bytes[MGI_HDR_LEN];
};
thread_local ShortMessage g_short;

// Decodes, handles and encodes one request into info; returns the response
// length that goes to the IPC (also stored in *rsp_len, which holds the
// response buffer's room on entry).
uint32_t serve(void *rqt, size_t rqt_len, void *rsp, uint32_t *rsp_len, mgiInfo *info) {
    size_t rsp_cap = (*rsp_len >= MGI_HDR_LEN) ? *rsp_len : MGI_MAX_LEN;
    if (rqt_len < MGI_HDR_LEN) {
        std::memset(g_short.bytes, 0, sizeof g_short.bytes);
        std::memcpy(g_short.bytes, rqt, rqt_len);
        rqt = g_short.bytes;
        rqt_len = MGI_HDR_LEN;
    }
    init_mgi_info(info);
    mgmt::app::announce(rqt, rqt_len, rsp, rsp_cap);
    recv_app_rqt_mgi(rqt, rsp, info);
    send_app_rsp_mgi(rqt, rsp, info);
    satify_ipc(rsp_len, nullptr, info);
    return *rsp_len;
}

void finish(mgiInfo *info) {
    do_housekeeping_of_mgiInfo(info);
    mgmt::app::serving() = {};
}

} // namespace

extern "C" {

MGMT_API int handle_mgi_msg(void *ipc, void *head, void *rqt, uint32_t rqt_len, int32_t *ipc_arg, void *rsp,
                            uint32_t *rsp_len) {
    check_ipc(ipc, head, rqt, rqt_len, ipc_arg);
    mgiInfo info;
    uint32_t len = serve(rqt, rqt_len, rsp, rsp_len, &info);
    if (len > MGI_MAX_LEN) {
        int msg_type = head ? mgmt::get_be16(static_cast<const unsigned char *>(head) + 4) : 0;
        console_print("app:%s msg_type: %d returned buf_len: %d more than mgi max len: %d\n",
                      appid2appname(myipc.appid), msg_type, static_cast<int>(len), static_cast<int>(MGI_MAX_LEN));
        die_on_oversized_response();
    }
    finish(&info);
    return 0;
}

MGMT_API int handle_ha_sync_mgi_msg(void *rqt, uint32_t, void *, void *rsp, uint32_t *rsp_len) {
    // No IPC length comes with this road: the message is as long as its header says.
    size_t rqt_len = MGI_HDR_LEN + get_field(static_cast<const unsigned char *>(rqt), hdr::len);
    mgiInfo info;
    uint32_t len = serve(rqt, rqt_len, rsp, rsp_len, &info);
    if (len > MGI_MAX_LEN) {
        console_print("MGD: returned buf_len: %d more than mgi max len: %d\n", static_cast<int>(len),
                      static_cast<int>(MGI_MAX_LEN));
        die_on_oversized_response();
    }
    finish(&info);
    return 0;
}

MGMT_API int prefix_encode_app_rsp_hdr(void *rqt, void *rsp, mgiInfo *info) {
    auto *q = static_cast<const unsigned char *>(rqt);
    auto *r = static_cast<unsigned char *>(rsp);
    std::memmove(r + MGI_OFF_TARGET, q + MGI_OFF_TARGET, 4 * MGI_TARGET_WORDS);
    r[MGI_OFF_NEXTSEG] = info->rqt_nextseg;
    info->rsp_seg_used = 0;
    return 0;
}

MGMT_API int encode_app_rsp_data(mgiInfo *info) {
    appEntity *e = mgmt::app::entity_at_target(info->rqt_target);
    if (!e || !e->encodeData) {
        info->encodeErr = MGI_ERR_NO_ENCODE;
        return MGI_ERR_NO_ENCODE;
    }
    return e->encodeData(info);
}

MGMT_API int suffix_encode_app_rsp_hdr(void *, void *rsp, mgiInfo *info) {
    auto *r = static_cast<unsigned char *>(rsp);
    r[MGI_OFF_TYPE] = info->rsptype;
    put_field(r, hdr::len, static_cast<uint16_t>(info->rsp_len));
    put_field(r, hdr::offset, info->rqt_offset);
    put_field(r, hdr::rsp_aux, info->rsp_aux);
    put_field(r, hdr::rqt_aux, info->rqt_aux);
    put_field(r, hdr::mgi_flag, info->mgi_flag);
    put_field(r, hdr::mask1, info->rsp_mask1);
    put_field(r, hdr::mask2, info->rsp_mask2);
    put_field(r, hdr::mask3, info->rsp_mask3);
    put_field(r, hdr::rsp_data_type, info->rsp_data_type);
    return 0;
}

MGMT_API int send_app_rsp_mgi(void *rqt, void *rsp, mgiInfo *info) {
    if (info->decodeErr == 0) {
        encode_app_rsp_data(info);
        if (info->decodeErr == 0 && info->encodeErr != 0) encode_app_error_handling(info);
    }
    suffix_encode_app_rsp_hdr(rqt, rsp, info);
    _ui_language = 0;
    _config_mode = 0;
    mgi_clear_admin_user();
    mgi_clear_ip_addr();
    return info->encodeErr;
}

MGMT_API int satify_ipc(uint32_t *rsp_len, void *, mgiInfo *info) {
    *rsp_len = info->rsp_len + MGI_HDR_LEN;
    return 0;
}

MGMT_API int do_housekeeping_of_mgiInfo(mgiInfo *info) {
    if (info->rsptype == MGI_RSP_PARTIAL) return 0;
    if (info->cond_ctx) destruct_cond_context(static_cast<condContext *>(info->cond_ctx));
    return 0;
}

// ---------------------------------------------------------------- building a response

MGMT_API unsigned char *get_current_rspseg_buf(mgiInfo *info) {
    return info->rsp_data + info->rsp_seg_used + MGI_SEGHDR_LEN;
}

MGMT_API int mgi_init_rsp_message(mgiInfo *info) {
    info->rsp_body = get_current_rspseg_buf(info);
    info->rsp_body_len = 0;
    return 0;
}

MGMT_API int mgi_init_rsp_message_r(mgiInfo *info) { return mgi_init_rsp_message(info); }

MGMT_API int append_rsp_segment(mgiInfo *info, uint8_t type, void *data, uint16_t length) {
    unsigned char *head = info->rsp_data + info->rsp_seg_used;
    // A segment that would pass the end of the response buffer is not written;
    // its length still counts, so the response is refused as too long.
    bool fits = rsp_fits(info, head, MGI_SEGHDR_LEN + size_t{length}) &&
                rsp_fits(info, info->rsp_hdr_segment, 1) &&
                (!data || data == head + MGI_SEGHDR_LEN || !mgmt::app::serving().rsp.contains(data) ||
                 rsp_fits(info, data, length));
    if (fits) append_segment(info->rsp_hdr_segment, head, type, data, length);
    info->last_seg_type = type;
    info->rsp_hdr_segment = head;
    info->rsp_seg_used = static_cast<uint16_t>(info->rsp_seg_used + MGI_SEGHDR_LEN + length);
    info->rsp_len += MGI_SEGHDR_LEN + length;
    return fits ? 0 : -1;
}

MGMT_API uint32_t append_rsp_segment_with_string(mgiInfo *info, uint8_t type, const char *string) {
    size_t n = std::strlen(string) + 1;
    size_t padded = pad8(n);
    unsigned char *body = get_current_rspseg_buf(info);
    if (reinterpret_cast<const unsigned char *>(string) != body && rsp_fits(info, body, padded)) {
        std::memmove(body, string, n);
        std::memset(body + n, 0, padded - n);
    }
    append_rsp_segment(info, type, body, static_cast<uint16_t>(padded));
    return info->rsp_len;
}

MGMT_API void set_subtype_after_appendseg(mgiInfo *info, uint32_t subtype) {
    if (rsp_fits(info, info->rsp_hdr_segment, MGI_SEGHDR_LEN)) mgmt::set_seg_subtype(info->rsp_hdr_segment, subtype);
}

MGMT_API void set_subtype_before_appendseg(mgiInfo *info, uint32_t subtype) {
    unsigned char *head = info->rsp_data + info->rsp_seg_used;
    if (rsp_fits(info, head, MGI_SEGHDR_LEN)) mgmt::set_seg_subtype(head, subtype);
}

MGMT_API void set_rsplen(mgiInfo *info, uint16_t length) { info->rsp_len = length; }
MGMT_API void *get_rsp_data(mgiInfo *info) { return info->rsp_body; }
MGMT_API uint16_t get_rsp_datalen(mgiInfo *info) { return info->rsp_body_len; }
MGMT_API void *get_rsp_cookie(mgiInfo *info) { return info->rsp_cookie; }
MGMT_API uint16_t get_rsp_cookielen(mgiInfo *info) { return info->rsp_cookie_len; }

MGMT_API int mgi_update_rsp_data(mgiInfo *info, void *data, uint16_t length) {
    info->data_changed = 1;
    if (!info->rsp_body) mgi_init_rsp_message(info);
    auto *end = static_cast<unsigned char *>(info->rsp_body) + info->rsp_body_len;
    if (data != end) {
        uint32_t total = uint32_t{info->rsp_body_len} + length;
        if (total + MGI_HDR_LEN > MGI_MAX_LEN) {
            console_print("MGI: response data leng (%u) is incorrect\n", total);
            return -1;
        }
        if (data && length && rsp_fits(info, end, length)) std::memmove(end, data, length);
    }
    info->rsp_body_len = static_cast<uint16_t>(info->rsp_body_len + length);
    return 0;
}

MGMT_API int mgi_final_rsp_message(mgiInfo *info) {
    if (!info) return 0;
    if (info->rsp_body_len != 0) append_rsp_segment(info, MGI_SEG_UDCDATA, info->rsp_body, info->rsp_body_len);
    if (info->rsp_cookie && info->rsp_cookie_len != 0)
        append_rsp_segment(info, MGI_SEG_COOKIE, info->rsp_cookie, info->rsp_cookie_len);
    if (info->decodeErr != 0) default_err_handle(info);
    for (int i = 0; i < MGI_MATCH_IDS && info->match_count > 0; ++i) {
        if (!info->match_regex[i]) continue;
        std::free(info->match_regex[i]);
        info->match_regex[i] = nullptr;
        --info->match_count;
    }
    return 0;
}

MGMT_API int accept_preprovisoning_data(mgiInfo *info) {
    if (info->data_changed == 1) return 0;
    info->rsp_len = info->rqt_len;
    size_t n = info->rqt_len;
    // Only bytes inside the request are copied, only into room the response has; the rest of the echo is 0.
    const auto &rq = mgmt::app::serving().rqt;
    const auto &rs = mgmt::app::serving().rsp;
    size_t have = n, room = n;
    if (rq.reaches(info->rqt_data)) have = std::min(n, rq.room(info->rqt_data));
    if (rs.reaches(info->rsp_data)) room = std::min(n, rs.room(info->rsp_data));
    have = std::min(have, room);
    std::memmove(info->rsp_data, info->rqt_data, have);
    std::memset(info->rsp_data + have, 0, room - have);
    return 0;
}

// ---------------------------------------------------------------- serving without IPC

MGMT_API int libmgmt_serve_request(const void *rqt, uint32_t rqt_len, void *rsp, uint32_t rsp_cap,
                                   uint32_t *rsp_len) {
    if (!rqt || !rsp || !rsp_len) return -1;
    unsigned char head[32] = {};
    put_be16(head + 4, MGI_IPC_MSG);
    int32_t status = 0;
    *rsp_len = rsp_cap;
    return handle_mgi_msg(nullptr, head, const_cast<void *>(rqt), rqt_len, &status, rsp, rsp_len);
}

MGMT_API int libmgmt_serve_mgi_buf(mgiBuf *buf) {
    if (!buf || !buf->sbuf || !buf->rbuf) return -1;
    unsigned char *h = buf->sbuf;
    uint16_t len = get_field(h, hdr::len);
    if (len == 0 && h[MGI_OFF_NEXTSEG] > mgmt::kNextsegRecord && h[MGI_OFF_NEXTSEG] != MGI_SEG_END && buf->sendseg_len != 0) {
        len = static_cast<uint16_t>(buf->sendseg_len);
        put_field(h, hdr::len, len);
    }
    uint32_t rsp_len = 0;
    int rc = libmgmt_serve_request(h, MGI_HDR_LEN + len, buf->rbuf, MGI_MAX_LEN, &rsp_len);
    prepare_to_retrieve_segment_r(buf);
    return rc;
}

} // extern "C"
