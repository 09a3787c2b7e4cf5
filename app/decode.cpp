// Request decoding: the header into mgiInfo, the segment chain, the match
// expressions of a type-31 request, and the run of the target's handlers.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pcre.h>
#include <string>

#include "app/app_internal.h"
#include "mgi/wire.h"
#include "mgmt/mgi_app.h"
#include "mgmt/platform/ipc_flags.h"
#include "mgmt/platform/platform.h"

using mgmt::get_be16;
using mgmt::get_be32;
using mgmt::seg_after;
using mgmt::seg_len;
using mgmt::get_field;
namespace hdr = mgmt::hdr;

namespace {

thread_local mgmt::app::Serving g_serving;

struct Announced {
    const void *rqt = nullptr;
    size_t rqt_len = 0;
    void *rsp = nullptr;
    size_t rsp_cap = 0;
};
thread_local Announced g_announced;

constexpr uint8_t kLocalFlag = 4;
constexpr int kConfigModeLocal = 8;

bool system_language_source(int src) { return src == 5 || src == 6 || src == 24 || src == 25; }

// A header field of n bytes copied with a terminator of its own, so that the
// copy that follows never reads past the field.
template <size_t N> struct FieldText {
    char text[N + 1];
    explicit FieldText(const unsigned char *p) {
        std::memcpy(text, p, N);
        text[N] = 0;
    }
};

// Up to n bytes of a body at p: those inside the request buffer (p may sit at
// its very end, where a last segment with an empty body points), or all of
// them when p lies outside it (a handler's own data); the rest reads as 0.
void copy_bounded(void *dst, const void *p, size_t n) {
    const auto &rqt = g_serving.rqt;
    size_t have = n;
    if (rqt.reaches(p)) have = std::min(n, rqt.room(p));
    std::memset(dst, 0, n);
    std::memcpy(dst, p, have);
}

// Compiles the pattern that starts pos bytes into a match body. With room
// given (a body inside the request buffer, room bytes to the buffer's end) a
// pattern that the buffer cuts off ends there, and one that starts behind it
// is nothing; *len gets the pattern's length.
void *compile_at(const unsigned char *body, size_t pos, const size_t *room, size_t *len) {
    const char *err = nullptr;
    int err_off = 0;
    if (room) {
        if (pos >= *room) {
            *len = 0;
            return nullptr;
        }
        const unsigned char *p = body + pos;
        size_t avail = *room - pos;
        if (const void *nul = std::memchr(p, 0, avail)) {
            *len = static_cast<size_t>(static_cast<const unsigned char *>(nul) - p);
        } else {
            std::string copy(reinterpret_cast<const char *>(p), avail);
            *len = avail;
            return pcre_compile(copy.c_str(), 0, &err, &err_off, nullptr);
        }
        return pcre_compile(reinterpret_cast<const char *>(p), 0, &err, &err_off, nullptr);
    }
    const char *p = reinterpret_cast<const char *>(body + pos);
    *len = std::strlen(p);
    return pcre_compile(p, 0, &err, &err_off, nullptr);
}

bool mask_empty(const uint32_t *m) { return m[0] == 0 && m[1] == 0 && m[2] == 0; }
bool bit_set(const uint32_t *m, uint32_t id) { return (m[id / 32] >> (id % 32)) & 1u; }
void clear_bit(uint32_t *m, uint32_t id) { m[id / 32] &= ~(1u << (id % 32)); }

} // namespace

namespace mgmt::app {

Serving &serving() { return g_serving; }

void announce(const void *rqt, size_t rqt_len, void *rsp, size_t rsp_cap) {
    g_announced = {rqt, rqt_len, rsp, rsp_cap};
}

bool rsp_fits(const mgiInfo *info, const void *p, size_t n) {
    const Extent &rsp = g_serving.rsp;
    if (!rsp.begin || !info->rsp_data) return true;
    if (info->rsp_data < rsp.begin || info->rsp_data > rsp.end) return true;
    return rsp.holds(p, n);
}

} // namespace mgmt::app

extern "C" {

MGMT_API int _config_mode = 0;

MGMT_API int decode_app_mgi_hdr(void *rqt, void *rsp, mgiInfo *info) {
    auto *h = static_cast<unsigned char *>(rqt);
    auto *r = static_cast<unsigned char *>(rsp);
    size_t rqt_len = MGI_MAX_LEN, rsp_cap = MGI_MAX_LEN;
    if (g_announced.rqt == rqt && g_announced.rsp == rsp) {
        rqt_len = g_announced.rqt_len;
        rsp_cap = g_announced.rsp_cap;
    }
    g_announced = {};
    g_serving.rqt = {h, h + rqt_len};
    g_serving.rsp = {r, r + rsp_cap};

    info->rqt_data = h + MGI_HDR_LEN;
    info->rsp_hdr_segment = r + MGI_OFF_NEXTSEG;
    info->rsp_data = r + MGI_HDR_LEN;

    info->rqt_src = h[MGI_OFF_SRC];
    _config_mode = h[MGI_OFF_SRC];
    info->rqt_language = h[MGI_OFF_LANGUAGE];
    info->rqt_timeout = h[MGI_OFF_TIMEOUT];
    info->rqt_vsysid = get_field(h, hdr::vsysid);
    info->rqt_login_vsysid = get_field(h, hdr::login_vsysid);
    info->rqt_dst_vsysid = get_field(h, hdr::dst_vsysid);
    strlcpy(info->rqt_user, FieldText<32>(h + MGI_OFF_USER).text, sizeof info->rqt_user);
    info->rqt_user_priv = get_field(h, hdr::user_priv);
    strlcpy(info->rqt_ip_addr, FieldText<40>(h + MGI_OFF_IP_ADDR).text, sizeof info->rqt_ip_addr);
    get_mgi_msg_hdr_target(info->rqt_target, h);
    info->rqt_nextseg = h[MGI_OFF_NEXTSEG];
    info->rqt_type = h[MGI_OFF_TYPE];
    info->rqt_len = get_field(h, hdr::len);
    info->rqt_offset = get_field(h, hdr::offset);
    info->mgi_flag = get_field(h, hdr::mgi_flag);
    info->rqt_sublevel = get_field(h, hdr::sublevel);
    info->rqt_descend = get_field(h, hdr::descend);
    for (int i = 0; i < 3; ++i) info->rqt_xmask[6 + i] = get_be32(h + MGI_OFF_XMASK7 + 4 * i);
    info->rsp_data_type = get_field(h, hdr::rsp_data_type);
    info->rqt_aux = get_field(h, hdr::rqt_aux);
    info->rqt_mask1 = info->rsp_mask1 = get_field(h, hdr::mask1);
    info->rqt_mask2 = info->rsp_mask2 = get_field(h, hdr::mask2);
    info->rqt_mask3 = info->rsp_mask3 = get_field(h, hdr::mask3);
    info->rsp_len = 0;
    info->data_changed = 0;
    info->reserved = 0;

    if (info->rqt_offset == MGI_NO_MORE) info->rqt_no_more = 1;
    if (static_cast<int8_t>(info->rqt_nextseg) >= 0) info->mgidata = info->rqt_data;
    if (system_language_source(_config_mode) || h[MGI_OFF_LANGUAGE] == 0)
        _ui_language = _system_language;
    else
        _ui_language = h[MGI_OFF_LANGUAGE];
    mgi_set_admin_user(info->rqt_user);
    mgi_set_ip_addr(info->rqt_ip_addr);
    mgi_set_fernlook_taskid(info, FieldText<33>(h + MGI_OFF_FERNLOOK_TASKID).text);
    mgi_set_fernlook_type(info, FieldText<33>(h + MGI_OFF_FERNLOOK_TYPE).text);
    return 0;
}

MGMT_API int record_segment_info(mgiInfo *info, uint8_t type, void *segment) {
    auto *s = static_cast<unsigned char *>(segment);
    void *body = mgmt::seg_body(s);
    switch (type) {
    case MGI_SEG_UIINFO: info->uiInfo = body; break;
    case MGI_SEG_CONDITION:
        info->condition = body;
        info->condition_len = mgmt::seg_len(s);
        info->condition_subtype = mgmt::seg_subtype(s);
        break;
    case MGI_SEG_COOKIE:
        info->cookie = body;
        info->cookie_len = mgmt::seg_len(s);
        info->cookie_subtype = mgmt::seg_subtype(s);
        break;
    case MGI_SEG_RULEDATA:
        info->mgidata = body;
        info->mgidata_len = mgmt::seg_len(s);
        info->mgidata_subtype = mgmt::seg_subtype(s);
        break;
    case MGI_SEG_UDCDATA:
        info->udcdata = body;
        info->udcdata_len = mgmt::seg_len(s);
        info->udcdata_subtype = mgmt::seg_subtype(s);
        break;
    case MGI_SEG_QUERYDATA:
        info->querydata = body;
        info->querydata_len = mgmt::seg_len(s);
        break;
    default: break;
    }
    return 0;
}

MGMT_API int decode_app_mgi_match_regex(mgiInfo *info) {
    if (info->rqt_type != MGI_RQT_MATCH_GET) return 0;
    uint32_t local[3] = {0, 0, 0};
    uint32_t id = 0;
    if (info->udcdata) {
        mgiMatchHdr m;
        copy_bounded(&m, info->udcdata, sizeof m);
        std::memcpy(local, m.mask, sizeof local);
        std::memcpy(info->match_mask, m.mask, sizeof m.mask);
        int64_t left = m.pattern_len;
        auto *body = static_cast<const unsigned char *>(info->udcdata);
        size_t room = 0;
        const size_t *bound = nullptr;
        if (g_serving.rqt.reaches(body)) {
            room = g_serving.rqt.room(body);
            bound = &room;
        }
        size_t cursor = sizeof m;
        size_t consumed = 0;
        if (left > 0) {
            for (;;) {
                if (mask_empty(local)) break;
                if (bit_set(local, id) && m.type[id] == MGI_MATCH_REGEX) {
                    clear_bit(local, id);
                    size_t len = 0;
                    info->match_regex[id] = compile_at(body, cursor, bound, &len);
                    ++info->match_count;
                    consumed += len + 1;
                    left -= static_cast<int64_t>(consumed);
                    cursor += consumed;
                }
                ++id;
                if (!(id < MGI_MATCH_IDS && left > 0)) break;
            }
        }
    }
    if (info->querydata) {
        mgiMatchHdr q;
        copy_bounded(&q, info->querydata, sizeof q);
        std::memcpy(local, q.mask, sizeof local);
        std::memcpy(info->match_mask, q.mask, sizeof q.mask);
        if (id < MGI_MATCH_IDS && q.pattern_len > 0) {
            for (; id < MGI_MATCH_IDS && !mask_empty(local); ++id) {
                if (!bit_set(local, id)) continue;
                info->match_type[id] = q.type[id];
                clear_bit(local, id);
            }
        }
    }
    return 0;
}

MGMT_API int decode_app_mgi_index(mgiInfo *info) {
    if (info->decodeErr != 0 || info->rqt_target[1] == 0) return info->decodeErr;
    uint32_t path[MGI_TARGET_WORDS] = {};
    for (int i = 0;; ++i) {
        path[i] = info->rqt_target[i];
        appEntity *e = get_app_mgi_entity(path);
        if (e && e->kind == APP_ENTITY_INDEXED && e->decodeIndex) e->decodeIndex(info);
        if (info->decodeErr != 0 || i == 8 || info->rqt_target[i + 1] == 0) break;
    }
    return info->decodeErr;
}

MGMT_API int decode_app_mgi_data(mgiInfo *info) {
    appEntity *e = nullptr;
    if (info->decodeErr == 0) e = mgmt::app::entity_at_target(info->rqt_target);
    if (info->decodeErr != 0 || !e || !e->decodeData) {
        info->decodeErr = MGI_ERR_NO_DECODE;
        return MGI_ERR_NO_DECODE;
    }
    return e->decodeData(info);
}

MGMT_API int decode_app_error_handling(mgiInfo *info) {
    appEntity *e = mgmt::app::entity_at_target(info->rqt_target);
    if (info->decodeErr != 0 && e) {
        if (e->errHandle) e->errHandle(info);
        return 0;
    }
    printf("there is sw error, as decodeErr %d not set but get into error handling!\n", info->decodeErr);
    return 0;
}

MGMT_API int recv_app_rqt_mgi(void *rqt, void *rsp, mgiInfo *info) {
    decode_app_mgi_hdr(rqt, rsp, info);
    prefix_encode_app_rsp_hdr(rqt, rsp, info);

    uint8_t type = info->rqt_nextseg;
    if (type > mgmt::kNextsegRecord && type != MGI_SEG_END) {
        // The chain ends at its 139 mark, or where a segment would pass the request buffer's end.
        const auto &extent = g_serving.rqt;
        auto *seg = static_cast<unsigned char *>(info->rqt_data);
        for (;;) {
            if (!extent.holds(seg, MGI_SEGHDR_LEN) || !extent.holds(seg, MGI_SEGHDR_LEN + seg_len(seg))) break;
            record_segment_info(info, type, seg);
            type = seg[0];
            if (type == MGI_SEG_END) break;
            seg = seg_after(seg);
        }
    }

    decode_app_mgi_match_regex(info);
    info->cond_ctx = &gcondCtx;
    bool local = _config_mode == kConfigModeLocal;
    if (local) ipcmsg_set_local_flag(kLocalFlag);
    if (info->decodeErr == 0) {
        decode_app_mgi_index(info);
        if (info->decodeErr == 0) decode_app_mgi_data(info);
    }
    if (info->decodeErr != 0) decode_app_error_handling(info);
    if (local) ipcmsg_unset_local_flag(kLocalFlag);
    return info->decodeErr;
}

MGMT_API void *mgi_get_match_regex_by_obj_id(mgiInfo *info, uint32_t id) {
    if (id >= MGI_ITEM_SLOTS) return nullptr;
    return info->match_regex[id];
}

MGMT_API uint32_t mgi_get_match_type_by_obj_id(mgiInfo *info, uint32_t id) {
    if (id >= MGI_ITEM_SLOTS || !bit_set(info->match_mask, id)) return 0xFFFFFFFFu;
    return info->match_type[id];
}

MGMT_API int mgi_pcre_exec(void *regex, const char *subject, int length) {
    if (!regex) return 0;
    return pcre_exec(static_cast<const pcre *>(regex), nullptr, subject, length, 0, 0, nullptr, 0);
}

MGMT_API void mgi_clear_rqt_mgidata(mgiInfo *info) { info->mgidata = nullptr; }

} // extern "C"
