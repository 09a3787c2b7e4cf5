// The request context (mgiInfo): its life, setters, getters, the process
// identity of the client and the thread's error.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "mgi/wire.h"
#include "mgmt/mgi.h"
#include "mgmt/platform/platform.h"

namespace {

// How many of len bytes a copy behind the present udcdata may write. Inside the pair's send
// buffer the copy stops at the buffer's end: the accepted total counts the data alone, while its
// segment head stands ahead of it in the same buffer. Memory of the caller's is the caller's.
size_t copy_room(const mgiInfo *info, const unsigned char *base, size_t len) {
    const mgiBuf *buf = info->mgi_buf;
    if (!buf || !buf->sbuf || base < buf->sbuf || base >= buf->sbuf + MGI_MAX_LEN) return len;
    const unsigned char *at = base + info->udcdata_len, *end = buf->sbuf + MGI_MAX_LEN;
    return at >= end ? 0 : std::min(len, size_t(end - at));
}

} // namespace

extern "C" {

MGMT_API __thread mgiBuf *global_mgi_buf = nullptr;
MGMT_API __thread char global_mgi_errmsg[MGI_ERRMSG_LEN];
MGMT_API __thread uint32_t global_mgi_errno = 0;
MGMT_API __thread uint32_t mgi_info_from = 0;

MGMT_API char mgi_user_name[32];
MGMT_API uint32_t mgi_user_priv = 0;
MGMT_API char mgi_ip_addr[40];
MGMT_API uint16_t mgi_vsys_id = 0;
MGMT_API uint16_t mgi_login_vsys_id = 0;
MGMT_API uint32_t mgi_src_ha_unset = 0;
MGMT_API uint32_t mgi_src_fernlook_mode = 0;
MGMT_API int32_t force_import_status = 0;
MGMT_API int32_t force_cli_status = 0;
MGMT_API uint8_t mgi_transaction_id = 0;
MGMT_API char _admin_user[32];
MGMT_API char _ip_addr[40];

// ---------------------------------------------------------------- life

MGMT_API int init_mgi_info_basic(mgiInfo *info) {
    std::memset(info, 0, sizeof *info);
    info->last_seg_type = MGI_SEG_END;
    strlcpy(info->err_buf, "magic!\n", sizeof info->err_buf);
    info->err_string = info->err_buf;
    info->rqt_timeout = MGI_DEFAULT_TIMEOUT;
    info->rqt_language = static_cast<uint8_t>(_ui_language);
    info->rqt_vsysid = mgi_vsys_id;
    return 0;
}

MGMT_API int init_mgi_info(mgiInfo *info) {
    init_mgi_info_basic(info);
    mgi_set_global_err_info(0, nullptr);
    info->mgi_buf = get_global_mgi_buf();
    return 0;
}

MGMT_API int init_mgi_info_r(mgiInfo *info) {
    init_mgi_info_basic(info);
    info->mgi_buf = init_mgi_r();
    if (!info->mgi_buf) return -1;
    info->mgi_buf_owned = 1;
    return 0;
}

MGMT_API void deinit_mgi_info(mgiInfo *info) {
    if (info->mgi_buf_owned) {
        deinit_mgi_r(info->mgi_buf);
        info->mgi_buf_owned = 0;
    }
}

MGMT_API void mgi_init_rqt_message_basic(mgiInfo *info) {
    mgiBuf *buf = info->mgi_buf;
    if (!buf) {
        // No pair to build in: the request holds no data of its own.
        info->udcdata = nullptr;
        info->udcdata_len = 0;
        return;
    }
    init_mgi_exchange_r(buf);
    prepare_to_append_segment_r(buf);
    info->udcdata = get_sendseg_buf_r(buf);
    info->udcdata_len = 0;
}

MGMT_API int mgi_init_rqt_message(mgiInfo *info) {
    init_mgi_info(info);
    mgi_init_rqt_message_basic(info);
    return 0;
}

MGMT_API int mgi_init_rqt_message_r(mgiInfo *info) {
    // The context owns its pair: a private one to build in.
    if (init_mgi_info_r(info) != 0) return -1;
    mgi_init_rqt_message_basic(info);
    return 0;
}

MGMT_API int mgi_update_rqt_udcdata(mgiInfo *info, void *data, uint16_t len) {
    auto *base = static_cast<unsigned char *>(info->udcdata);
    if (!base) return -1;
    if (data == base + info->udcdata_len) {
        // Written in place by the caller.
        info->udcdata_len = static_cast<uint16_t>(info->udcdata_len + len);
        return 0;
    }
    uint32_t total = uint32_t{info->udcdata_len} + len;
    if (total + MGI_HDR_LEN > MGI_MAX_LEN) {
        console_print("MGI: reqest data leng (%u) is incorrect\n", total);
        return -1;
    }
    if (len && data) std::memmove(base + info->udcdata_len, data, copy_room(info, base, len));
    info->udcdata_len = static_cast<uint16_t>(total);
    return 0;
}

MGMT_API int mgi_final_rqt_message(mgiInfo *info) {
    mgiBuf *buf = info->mgi_buf;
    if (!buf) return -1;
    if (info->mgidata && info->mgidata_len) {
        set_sendseg_subtype_r(buf, info->mgidata_subtype);
        append_rqt_segment_r(buf, MGI_SEG_RULEDATA, info->mgidata, info->mgidata_len);
    }
    if (info->cookie && info->cookie_len) {
        set_sendseg_subtype_r(buf, info->cookie_subtype);
        append_rqt_segment_r(buf, MGI_SEG_COOKIE, info->cookie, info->cookie_len);
    }
    if (info->condition && info->condition_len) {
        set_sendseg_subtype_r(buf, info->condition_subtype);
        append_rqt_segment_r(buf, MGI_SEG_CONDITION, info->condition, info->condition_len);
    }
    if (info->querydata && info->querydata_len)
        append_rqt_segment_r(buf, MGI_SEG_QUERYDATA, info->querydata, info->querydata_len);
    return 0;
}

// ---------------------------------------------------------------- setters

#define MGI_SETTER(name, type, field)                                                                                 \
    MGMT_API void name(mgiInfo *info, type v) { info->field = v; }
MGI_SETTER(mgi_set_rqt_timeout, uint8_t, rqt_timeout)
MGI_SETTER(mgi_set_rqt_language, uint8_t, rqt_language)
MGI_SETTER(mgi_set_rqt_type, uint8_t, rqt_type)
MGI_SETTER(mgi_set_rqt_nextseg, uint8_t, rqt_nextseg)
MGI_SETTER(mgi_set_rqt_len, uint16_t, rqt_len)
MGI_SETTER(mgi_set_rqt_vsysid, uint16_t, rqt_vsysid)
MGI_SETTER(mgi_set_rqt_dst_vsysid, uint16_t, rqt_dst_vsysid)
MGI_SETTER(mgi_set_rqt_sublevel, uint32_t, rqt_sublevel)
MGI_SETTER(mgi_set_rqt_descend, uint32_t, rqt_descend)
MGI_SETTER(mgi_set_attr_brief, uint32_t, rqt_attr_brief)
MGI_SETTER(mgi_set_rqt_offset, uint16_t, rqt_offset)
MGI_SETTER(mgi_set_rqt_mask1, uint32_t, rqt_mask1)
MGI_SETTER(mgi_set_rqt_mask2, uint32_t, rqt_mask2)
MGI_SETTER(mgi_set_revision, uint32_t, rqt_revision)
MGI_SETTER(mgi_set_rsp_data_type, uint32_t, rsp_data_type)
MGI_SETTER(mgi_set_whether_full_entity, uint8_t, whether_full_entity)
MGI_SETTER(mgi_set_rqt_condition_subtype, uint32_t, condition_subtype)
MGI_SETTER(mgi_set_rqt_cookie_subtype, uint32_t, cookie_subtype)
MGI_SETTER(mgi_set_rqt_ruledata_subtype, uint32_t, mgidata_subtype)
MGI_SETTER(mgi_set_rqt_udcdata_subtype, uint32_t, udcdata_subtype)
#undef MGI_SETTER

#define MGI_DATA_SETTER(name, ptr, len)                                                                               \
    MGMT_API void name(mgiInfo *info, void *data, uint16_t n) {                                                       \
        info->ptr = data;                                                                                              \
        info->len = n;                                                                                                 \
    }
MGI_DATA_SETTER(mgi_set_rqt_condition, condition, condition_len)
MGI_DATA_SETTER(mgi_set_rqt_cookie, cookie, cookie_len)
MGI_DATA_SETTER(mgi_set_rqt_udcdata, udcdata, udcdata_len)
MGI_DATA_SETTER(mgi_set_rqt_querydata, querydata, querydata_len)
MGI_DATA_SETTER(mgi_set_rsp_cookie, rsp_cookie, rsp_cookie_len)
#undef MGI_DATA_SETTER

MGMT_API void mgi_data_changed(mgiInfo *info) { info->data_changed = 1; }
MGMT_API void mgi_set_flag(mgiInfo *info, uint32_t bits) { info->mgi_flag |= bits; }

MGMT_API void mgi_set_whether_local_entity(mgiInfo *info, int local) {
    if (local) {
        info->mgi_flag |= 1u;
        info->mgi_flag &= ~2u;
    } else {
        info->mgi_flag |= 3u;
    }
}

MGMT_API int mgi_get_whether_local_entity(mgiInfo *info) { return (info->mgi_flag & 3u) == 1u ? 1 : 0; }

MGMT_API void mgi_set_fernlook_taskid(mgiInfo *info, const char *text) {
    if (info && text) strlcpy(info->fernlook_taskid, text, sizeof info->fernlook_taskid);
}
MGMT_API void mgi_set_fernlook_type(mgiInfo *info, const char *text) {
    if (info && text) strlcpy(info->fernlook_type, text, sizeof info->fernlook_type);
}
MGMT_API void mgi_set_rqt_fernlook_taskid(mgiInfo *info, const char *text) { mgi_set_fernlook_taskid(info, text); }
MGMT_API void mgi_set_rqt_fernlook_type(mgiInfo *info, const char *text) { mgi_set_fernlook_type(info, text); }

// ---------------------------------------------------------------- getters

#define MGI_GETTER(name, type, field)                                                                                 \
    MGMT_API type name(mgiInfo *info) { return static_cast<type>(info->field); }
MGI_GETTER(get_rqt_src, uint8_t, rqt_src)
MGI_GETTER(get_rqt_nextseg, uint8_t, rqt_nextseg)
MGI_GETTER(get_rqt_type, uint8_t, rqt_type)
MGI_GETTER(get_rqt_language, uint8_t, rqt_language)
MGI_GETTER(get_rqt_len, uint16_t, rqt_len)
MGI_GETTER(get_rqt_offset, uint16_t, rqt_offset)
MGI_GETTER(get_rqt_vsysid, uint16_t, rqt_vsysid)
MGI_GETTER(get_rqt_login_vsysid, uint16_t, rqt_login_vsysid)
MGI_GETTER(get_rqt_dst_vsysid, uint16_t, rqt_dst_vsysid)
MGI_GETTER(get_mgi_flag, uint32_t, mgi_flag)
MGI_GETTER(get_rqt_mask1, uint32_t, rqt_mask1)
MGI_GETTER(get_rqt_mask2, uint32_t, rqt_mask2)
MGI_GETTER(get_rqt_mask3, uint32_t, rqt_mask3)
MGI_GETTER(mgi_get_whether_full_entity, uint8_t, whether_full_entity)
MGI_GETTER(get_uiInfo, void *, uiInfo)
MGI_GETTER(get_mgidata, void *, mgidata)
MGI_GETTER(get_mgidata_len, uint16_t, mgidata_len)
MGI_GETTER(get_mgidata_subtype, uint32_t, mgidata_subtype)
MGI_GETTER(get_udcdata, void *, udcdata)
MGI_GETTER(get_udcdata_len, uint16_t, udcdata_len)
MGI_GETTER(get_udcdata_subtype, uint32_t, udcdata_subtype)
MGI_GETTER(get_cookie, void *, cookie)
MGI_GETTER(get_cookie_len, uint16_t, cookie_len)
MGI_GETTER(get_cookie_subtype, uint32_t, cookie_subtype)
MGI_GETTER(get_condition, void *, condition)
MGI_GETTER(get_condition_len, uint16_t, condition_len)
MGI_GETTER(get_condition_subtype, uint32_t, condition_subtype)
MGI_GETTER(get_rsptype, uint8_t, rsptype)
MGI_GETTER(mgi_get_rsp_mask1, uint32_t, rsp_mask1)
MGI_GETTER(mgi_get_rsp_mask2, uint32_t, rsp_mask2)
#undef MGI_GETTER

MGMT_API uint64_t get_rqt_mask(mgiInfo *info) { return (uint64_t{info->rqt_mask2} << 32) | info->rqt_mask1; }
MGMT_API int get_ui_language(void) { return _ui_language; }

MGMT_API void *get_preindex(mgiInfo *info) { return info->mgidata ? info->mgidata : info->condition; }
MGMT_API uint16_t get_preindex_len(mgiInfo *info) {
    if (info->mgidata) return info->mgidata_len;
    if (info->condition) return info->condition_len;
    return 0;
}
MGMT_API uint32_t get_preindex_subtype(mgiInfo *info) {
    if (info->mgidata) return info->mgidata_subtype;
    if (info->condition) return info->condition_subtype;
    return 0xFFFFFFFFu;
}

// ---------------------------------------------------------------- response side

MGMT_API void set_rsptype(mgiInfo *info, uint8_t type) { info->rsptype = type; }

static int update_mask(uint32_t *word, int op, uint32_t bits) {
    switch (op) {
    case 0: *word = bits; return 0;
    case 1: *word &= bits; return 0;
    case 2: *word |= bits; return 0;
    default: return -1;
    }
}
MGMT_API int mgi_set_rsp_mask1(mgiInfo *info, int op, uint32_t bits) { return update_mask(&info->rsp_mask1, op, bits); }
MGMT_API int mgi_set_rsp_mask2(mgiInfo *info, int op, uint32_t bits) { return update_mask(&info->rsp_mask2, op, bits); }
MGMT_API int mgi_set_rsp_mask3(mgiInfo *info, int op, uint32_t bits) { return update_mask(&info->rsp_mask3, op, bits); }

MGMT_API void mgi_reset_rsp_mask(mgiInfo *info, uint64_t bits) {
    info->rsp_mask1 ^= static_cast<uint32_t>(bits);
    info->rsp_mask2 ^= static_cast<uint32_t>(bits >> 32);
}

// ---------------------------------------------------------------- process identity

MGMT_API void set_mgi_user(const char *name, uint32_t priv) {
    if (!name) return;
    strlcpy(mgi_user_name, name, sizeof mgi_user_name);
    mgi_user_priv = priv;
}
MGMT_API void set_mgi_ip_addr(const char *text) {
    if (text) strlcpy(mgi_ip_addr, text, sizeof mgi_ip_addr);
}
MGMT_API void set_mgi_vsysid(uint16_t id) { mgi_vsys_id = id; }
MGMT_API void set_mgi_login_vsysid(uint16_t id) { mgi_login_vsys_id = id; }
MGMT_API uint16_t get_mgi_vsysid(void) { return mgi_vsys_id; }
MGMT_API char *get_mgi_user(void) { return mgi_user_name; }
MGMT_API char *get_mgi_ip_addr(void) { return mgi_ip_addr; }
MGMT_API void set_mgi_ha_unset_src(int flag) { mgi_src_ha_unset = flag ? 1 : 0; }
MGMT_API void set_mgi_fernlook_src(int flag) { mgi_src_fernlook_mode = flag ? 1 : 0; }
MGMT_API int set_force_import_mode(int status) {
    force_import_status = status;
    return 0;
}
MGMT_API int is_force_import_mode(void) { return force_import_status; }
MGMT_API int set_force_cli_mode(int status) {
    force_cli_status = status;
    return 0;
}
MGMT_API int is_force_cli_mode(void) { return force_cli_status > 0 ? 1 : 0; }
MGMT_API int is_force_cli_fru_config_mode(void) { return force_cli_status == 2 ? 1 : 0; }
MGMT_API void set_mgi_info_from(uint32_t code) { mgi_info_from = code; }
MGMT_API uint32_t get_mgi_info_from(void) { return mgi_info_from; }
MGMT_API void set_mgi_transaction_id(uint8_t id) { mgi_transaction_id = id; }
MGMT_API uint8_t get_mgi_transaction_id(void) { return mgi_transaction_id; }

MGMT_API void mgi_set_admin_user(const char *text) {
    if (text) strlcpy(_admin_user, text, sizeof _admin_user);
}
MGMT_API void mgi_set_ip_addr(const char *text) {
    if (text) strlcpy(_ip_addr, text, sizeof _ip_addr);
}
MGMT_API void mgi_clear_admin_user(void) { std::memset(_admin_user, 0, sizeof _admin_user); }
MGMT_API void mgi_clear_ip_addr(void) { std::memset(_ip_addr, 0, sizeof _ip_addr); }
MGMT_API char *mgi_get_admin_user(void) { return _admin_user; }
MGMT_API char *mgi_get_ip_addr(void) { return _ip_addr; }

// ---------------------------------------------------------------- error of the thread

MGMT_API void mgi_set_global_err_info(int code, const char *format, ...) {
    global_mgi_errno = static_cast<uint32_t>(code);
    if (!format) {
        global_mgi_errmsg[0] = '\0';
        return;
    }
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(global_mgi_errmsg, sizeof global_mgi_errmsg, format, ap);
    va_end(ap);
    if (n == 0) console_print("MGI: errmsg is NULL\n");
}

MGMT_API int mgi_get_global_err_code(void) { return static_cast<int>(global_mgi_errno); }
MGMT_API char *mgi_get_global_err_msg(void) { return global_mgi_errmsg; }

} // extern "C"
