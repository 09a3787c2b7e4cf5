// The two roads of an MGI exchange: through MGD (one packed record, answers
// taken as they come in a poll loop) and direct to the owning application
// (a segment chain, paging driven by the requester).
#include <cerrno>
#include <cstring>
#include <poll.h>

#include "mgi/wire.h"
#include "mgmt/mgi.h"
#include "mgmt/platform/platform.h"

using namespace mgmt;

namespace mgmt {

uint32_t own_appid() { return myipc.appid; }

} // namespace mgmt

namespace {

// Source-of-request code on the road through MGD: the CLI's and fernlook's modes first.
uint8_t src_through_mgd(uint32_t app) {
    if (uint32_t from = get_mgi_info_from()) return static_cast<uint8_t>(from);
    switch (app) {
    case kAppCli:
        if (mgi_src_ha_unset) return kSrcCliHaUnset;
        if (is_force_cli_fru_config_mode()) return kSrcCliFruConfig;
        if (is_force_cli_mode()) return kSrcCliForce;
        if (is_force_import_mode()) return kSrcCliImport;
        return kSrcCli;
    case kAppFernlook: return mgi_src_fernlook_mode ? kSrcFernlook : kSrcNone;
    default: return source_by_id(app);
    }
}

// Fields common to the start of both prepares.
void header_start(unsigned char *h, const uint32_t *target) {
    h[MGI_OFF_MARK] = MGI_MARK;
    h[MGI_OFF_SRC] = 0;
    h[MGI_OFF_TIMEOUT] = MGI_DEFAULT_TIMEOUT;
    h[MGI_OFF_LANGUAGE] = 0;
    put_field(h, hdr::vsysid, 0);
    put_field(h, hdr::login_vsysid, 0);
    unsigned char *t = h + MGI_OFF_TARGET;
    std::memcpy(t, target, 4 * MGI_TARGET_WORDS);
    // Convert up to and including the first zero word (the header holds ten).
    for (int i = 0; i < MGI_TARGET_WORDS; ++i) {
        uint32_t w = target[i];
        put_be32(t + 4 * i, w);
        if (w == 0) break;
    }
}

void header_identity(mgiBuf *buf) {
    prepare_mgi_user_r(buf, mgi_user_name, mgi_user_priv);
    prepare_mgi_vsysid_r(buf, mgi_vsys_id);
    prepare_mgi_ip_addr_r(buf, mgi_ip_addr);
    prepare_mgi_login_vsysid_r(buf, mgi_login_vsys_id);
    prepare_mgi_language_r(buf, static_cast<uint8_t>(_ui_language));
}

// Names for a message: appid2appname may keep its text in one buffer, so the
// first name is copied before the second is asked for.
struct AppNames {
    char mine[64];
    char theirs[64];
    AppNames(uint32_t me, uint32_t peer) {
        strlcpy(mine, appid2appname(me), sizeof mine);
        strlcpy(theirs, appid2appname(peer), sizeof theirs);
    }
};

void print_send_failed(uint32_t dst) {
    AppNames n(own_appid(), dst);
    console_print("MGI: ipc send failed myapp %s dst-app %s\n", n.mine, n.theirs);
}

uint32_t send_length(const unsigned char *sbuf) {
    uint32_t len = get_field(sbuf, hdr::len) + MGI_HDR_LEN;
    return len > MGI_MAX_LEN ? MGI_MAX_LEN : len;
}

// Hands the records of a received message to the callback, stride by stride.
// Returns false when the callback failed. With stop_on_fail the rest of the
// records are skipped after a failure.
bool hand_records(const mgiBuf *buf, uint32_t received, mgi_rsp_callback callback, int stride, bool stop_on_fail) {
    bool ok = true;
    if (stride <= 0) return ok;
    uint32_t len = get_field(buf->rbuf, hdr::len);
    // Records lie inside what was received and inside the buffer.
    uint32_t payload = received > MGI_HDR_LEN ? received - MGI_HDR_LEN : 0;
    if (len > payload) len = payload;
    for (uint32_t off = 0; off < len; off += static_cast<uint32_t>(stride)) {
        if (MGI_HDR_LEN + off + static_cast<uint32_t>(stride) > MGI_MAX_LEN) break;
        if (callback(buf->rbuf + MGI_HDR_LEN + off) < 0) {
            ok = false;
            if (stop_on_fail) break;
        }
    }
    return ok;
}

// The poll loop of the road through MGD.
int exchange_through_mgd(mgiBuf *buf, mgi_rsp_callback callback, int stride, int timeout_ms, const char *poll_tag) {
    if (ipcmsg_send_sync(MGD_APPID, 0, MGI_IPC_MSG, buf->sbuf, send_length(buf->sbuf)) < 0) {
        print_send_failed(MGD_APPID);
        return -1;
    }
    bool call_ok = true;
    // The send opened the thread's descriptor: replies arrive there.
    const int fd = myipc.fd;
    for (;;) {
        struct pollfd p = {fd, POLLIN | POLLPRI, 0};
        errno = 0;
        int r = poll(&p, 1, timeout_ms);
        if (r <= 0) {
            int err = errno;
            AppNames n(own_appid(), MGD_APPID);
            console_print("%s: poll failed: return %d, error: %s(%d), myapp %s dst-app %s\n", poll_tag, r,
                          strerror(err), err, n.mine, n.theirs);
            const unsigned char *t = buf->sbuf + MGI_OFF_TARGET;
            for (int i = 0; i < MGI_TARGET_WORDS; ++i) {
                uint32_t w = get_raw32(t + 4 * i);
                if (w == 0) break;
                console_print("MGI target[%d] %u\n", i, w);
            }
            return -1;
        }
        if (!(p.revents & POLLIN)) {
            console_print("MGI: unknown event %x\n", static_cast<unsigned>(p.revents));
            return -1;
        }
        uint32_t received = MGI_MAX_LEN;
        if (ipcmsg_recv_sync(nullptr, buf->rbuf, &received, 1) < 0) {
            console_print("MGI: recv failed\n");
            continue;
        }
        uint8_t type = buf->rbuf[MGI_OFF_TYPE];
        switch (type) {
        case MGI_RSP_PARTIAL:
            if (callback && call_ok && get_field(buf->rbuf, hdr::len) != 0)
                call_ok = hand_records(buf, received, callback, stride, false);
            continue;
        case MGI_RSP_FINAL:
        case MGI_RSP_FINAL2:
            if (callback && call_ok && get_field(buf->rbuf, hdr::len) != 0)
                hand_records(buf, received, callback, stride, true);
            return 0;
        case MGI_RSP_ERROR:
            return -1;
        default:
            console_print("MGI: unknown msg type: %d\n", type);
            return -1;
        }
    }
}

int send_direct(mgiBuf *buf, uint32_t dst_app, int timeout_ms) {
    put_field(buf->sbuf, hdr::len, static_cast<uint16_t>(buf->sendseg_len));
    int32_t status = 0;
    uint32_t capacity = MGI_MAX_LEN;
    if (ipcmsg_send_and_recv(dst_app, 0, MGI_IPC_MSG, buf->sbuf, send_length(buf->sbuf), &status, buf->rbuf,
                             &capacity, timeout_ms) < 0) {
        print_send_failed(dst_app);
        return -1;
    }
    return 0;
}

// Turns the next request into the closing one of a paged exchange.
void close_exchange(mgiBuf *buf) {
    buf->sbuf[MGI_OFF_NEXTSEG] = MGI_SEG_END;
    buf->sbuf[MGI_OFF_TYPE] = MGI_RQT_CLOSE;
    buf->sendseg_len = 0;
}

void append_found(mgiBuf *buf, uint8_t type) {
    void *body = nullptr;
    uint32_t len = 0;
    if (find_roundtrip_segment_r(buf, type, &body, &len) == 0)
        append_rqt_segment_r(buf, type, body, static_cast<uint16_t>(len));
}

} // namespace

extern "C" {

MGMT_API void prepare_mgi_exchange_r(mgiBuf *buf, const uint32_t *target, uint8_t firstseg, uint8_t type,
                                     uint16_t len, uint32_t offset, uint16_t aux, uint32_t mask1, uint32_t mask2,
                                     uint32_t mask3, uint32_t mask4, uint32_t mask5, uint32_t mask6, void *data) {
    (void)offset;
    if (!buf || !buf->sbuf || !target) return;
    unsigned char *h = buf->sbuf;
    header_start(h, target);
    h[MGI_OFF_NEXTSEG] = firstseg;
    h[MGI_OFF_TYPE] = type;
    put_field(h, hdr::len, len);
    put_field(h, hdr::offset, MGI_NO_MORE);
    put_field(h, hdr::rqt_aux, aux);
    put_field(h, hdr::mgi_flag, 0);
    put_field(h, hdr::mask1, mask1);
    put_field(h, hdr::mask2, mask2);
    put_field(h, hdr::mask3, mask3);
    put_field(h, hdr::mask4, mask4);
    put_field(h, hdr::mask5, mask5);
    put_field(h, hdr::mask6, mask6);
    h[MGI_OFF_SRC] = src_through_mgd(own_appid());
    h[MGI_OFF_TRANSACTION_ID] = get_mgi_transaction_id();
    header_identity(buf);
    if (len != 0 && data && data != h + MGI_HDR_LEN)
        std::memmove(h + MGI_HDR_LEN, data, len > MGI_MAX_PAYLOAD ? MGI_MAX_PAYLOAD : len);
}

MGMT_API void prepare_mgi_exchange(const uint32_t *target, uint8_t firstseg, uint8_t type, uint16_t len,
                                   uint32_t offset, uint16_t aux, uint32_t mask1, uint32_t mask2, void *data) {
    init_mgi();
    prepare_mgi_exchange_r(global_mgi_buf, target, firstseg, type, len, offset, aux, mask1, mask2, 0, 0, 0, 0, data);
}

MGMT_API void prepare_mgi_exchange_96bit_mask(const uint32_t *target, uint8_t firstseg, uint8_t type, uint16_t len,
                                              uint32_t offset, uint16_t aux, uint32_t mask1, uint32_t mask2,
                                              uint32_t mask3, void *data) {
    init_mgi();
    prepare_mgi_exchange_r(global_mgi_buf, target, firstseg, type, len, offset, aux, mask1, mask2, mask3, 0, 0, 0,
                           data);
}

MGMT_API void prepare_mgi_exchange_direct_r(mgiBuf *buf, const uint32_t *target, uint8_t type, uint32_t offset,
                                            uint16_t aux, uint32_t mask1, uint32_t mask2) {
    if (!buf || !buf->sbuf || !target) return;
    unsigned char *h = buf->sbuf;
    header_start(h, target);
    h[MGI_OFF_TYPE] = type;
    put_field(h, hdr::len, 0);
    put_field(h, hdr::offset, offset);
    put_field(h, hdr::rqt_aux, aux);
    h[MGI_OFF_NEXTSEG] = MGI_SEG_END;
    put_field(h, hdr::mgi_flag, 0);
    put_field(h, hdr::mask1, mask1);
    put_field(h, hdr::mask2, mask2);
    h[MGI_OFF_TRANSACTION_ID] = get_mgi_transaction_id();
    h[MGI_OFF_SRC] = source_by_id(own_appid());
    header_identity(buf);
    prepare_to_append_segment_r(buf);
}

MGMT_API void prepare_mgi_exchange_direct(const uint32_t *target, uint8_t type, uint32_t offset, uint16_t aux,
                                          uint32_t mask1, uint32_t mask2) {
    init_mgi();
    prepare_mgi_exchange_direct_r(global_mgi_buf, target, type, offset, aux, mask1, mask2);
}

MGMT_API int make_mgi_exchange_with_context(mgiInfo *info, mgi_rsp_callback callback, int stride) {
    mgiBuf *buf = info ? info->mgi_buf : nullptr;
    if (!buf || !buf->sbuf || !buf->rbuf) return -1;
    unsigned char *h = buf->sbuf;
    switch (own_appid()) {
    case kAppRelay11: case kAppRelay29: case kAppRelay46: case kAppRelay53:
        // A relay passes on the source of the application it relays for.
        switch (info->rqt_src) {
        case kSrcRelayed2: case kSrcApp46: case kSrcFernlook: case kSrcRelayed28: h[MGI_OFF_SRC] = info->rqt_src; break;
        default: break;
        }
        break;
    default: break;
    }
    h[MGI_OFF_LANGUAGE] = info->rqt_language;
    put_field(h, hdr::mgi_flag, info->mgi_flag);
    put_field(h, hdr::vsysid, info->rqt_vsysid);
    put_field(h, hdr::dst_vsysid, info->rqt_dst_vsysid);
    h[MGI_OFF_TRANSACTION_ID] = get_mgi_transaction_id();
    put_field(h, hdr::revision, info->rqt_revision);
    put_field(h, hdr::rsp_data_type, info->rsp_data_type);
    return exchange_through_mgd(buf, callback, stride, int{info->rqt_timeout} * 1000, "MGI CONTEXT");
}

MGMT_API int make_mgi_exchange_r(mgiBuf *buf, mgi_rsp_callback callback, int stride) {
    if (!buf || !buf->sbuf || !buf->rbuf) return -1;
    return exchange_through_mgd(buf, callback, stride, kPlainExchangeTimeoutMs, "MGI R");
}

MGMT_API int make_mgi_exchange(mgi_rsp_callback callback, int stride) {
    return make_mgi_exchange_r(global_mgi_buf, callback, stride);
}

MGMT_API int make_mgi_exchange_direct_with_context(mgiInfo *info, uint32_t dst_app, mgi_direct_callback callback,
                                                   void *user_data) {
    mgiBuf *buf = info ? info->mgi_buf : nullptr;
    if (!buf || !buf->sbuf || !buf->rbuf) return -1;
    unsigned char *h = buf->sbuf;
    if (own_appid() == kAppRelay46) h[MGI_OFF_SRC] = info->rqt_src;
    h[MGI_OFF_LANGUAGE] = info->rqt_language;
    put_field(h, hdr::mgi_flag, info->mgi_flag);
    put_field(h, hdr::vsysid, info->rqt_vsysid);
    put_field(h, hdr::sublevel, info->rqt_sublevel);
    put_field(h, hdr::attr_brief, info->rqt_attr_brief);
    put_field(h, hdr::revision, info->rqt_revision);
    put_field(h, hdr::descend, info->rqt_descend);
    put_field(h, hdr::rsp_data_type, info->rsp_data_type);
    h[MGI_OFF_TRANSACTION_ID] = get_mgi_transaction_id();
    std::memcpy(h + MGI_OFF_FERNLOOK_TASKID, info->fernlook_taskid, sizeof info->fernlook_taskid);
    std::memcpy(h + MGI_OFF_FERNLOOK_TYPE, info->fernlook_type, sizeof info->fernlook_type);

    const int timeout_ms = int{info->rqt_timeout} * 1000;
    for (;;) {
        if (send_direct(buf, dst_app, timeout_ms) < 0) return -1;
        uint8_t type = buf->rbuf[MGI_OFF_TYPE];
        void *data, *err, *cookie;
        uint32_t data_len, err_len, cookie_len;
        record_rsp_seg_r(buf, &data, &data_len, &err, &err_len, &cookie, &cookie_len);
        if (callback && callback(data, &data_len, err, &err_len, cookie, &cookie_len, user_data) != 0) return -1;
        if (type != MGI_RSP_PARTIAL) return 0;

        // A partial answer: ask for the next part.
        prepare_to_append_segment_r(buf);
        if (info->mgidata && info->mgidata_len) {
            // The record moves to its new place, as the old one may be overwritten.
            set_sendseg_subtype_r(buf, info->mgidata_subtype);
            unsigned char *body = get_sendseg_buf_r(buf);
            if (append_rqt_segment_r(buf, MGI_SEG_RULEDATA, info->mgidata, info->mgidata_len) == 0)
                info->mgidata = body;
        }
        void *body = nullptr;
        uint32_t len = 0;
        bool closing = find_roundtrip_segment_r(buf, MGI_SEG_COOKIE, &body, &len) != 0;
        if (!closing) {
            append_rqt_segment_r(buf, MGI_SEG_COOKIE, body, static_cast<uint16_t>(len));
        } else {
            close_exchange(buf);
        }
        append_found(buf, MGI_SEG_CONDITION);
        append_found(buf, MGI_SEG_QUERYDATA);
        // A closing request holds no chain: whatever was appended behind it is
        // counted in the length, but the header still says 139.
        if (closing) h[MGI_OFF_NEXTSEG] = MGI_SEG_END;
    }
}

MGMT_API int make_mgi_exchange_direct_r(mgiBuf *buf, uint32_t dst_app, mgi_direct_callback callback,
                                        void *user_data) {
    if (!buf || !buf->sbuf || !buf->rbuf) return -1;
    unsigned char *h = buf->sbuf;
    for (;;) {
        h[MGI_OFF_TRANSACTION_ID] = get_mgi_transaction_id();
        if (send_direct(buf, dst_app, kPlainExchangeTimeoutMs) < 0) return -1;
        uint8_t type = buf->rbuf[MGI_OFF_TYPE];
        void *data, *err, *cookie;
        uint32_t data_len, err_len, cookie_len;
        record_rsp_seg_r(buf, &data, &data_len, &err, &err_len, &cookie, &cookie_len);
        if (!callback) return -1;
        if (callback(data, &data_len, err, &err_len, cookie, &cookie_len, user_data) != 0) return -1;
        if (type != MGI_RSP_PARTIAL) return 0;

        void *body = nullptr;
        uint32_t len = 0;
        bool closing = find_roundtrip_segment_r(buf, MGI_SEG_COOKIE, &body, &len) != 0;
        if (!closing) {
            prepare_to_append_segment_r(buf);
            append_rqt_segment_r(buf, MGI_SEG_COOKIE, body, static_cast<uint16_t>(len));
        } else {
            // The cursors stay where the last request left them.
            close_exchange(buf);
        }
        append_found(buf, MGI_SEG_CONDITION);
        if (closing) h[MGI_OFF_NEXTSEG] = MGI_SEG_END;
    }
}

MGMT_API int make_mgi_exchange_direct(uint32_t dst_app, mgi_direct_callback callback, void *user_data) {
    return make_mgi_exchange_direct_r(global_mgi_buf, dst_app, callback, user_data);
}

} // extern "C"
