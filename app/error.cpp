// Error reporting of the serving side: the error fields of mgiInfo, the calls
// that fill them and the error segment (type 135) that carries them back.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/app_internal.h"
#include "mgi/wire.h"
#include "mgmt/mgi_app.h"
#include "mgmt/platform/questions.h"
#include "mgmt/platform/platform.h"

using mgmt::app::rsp_fits;
using mgmt::pad8;

namespace {

constexpr size_t kDefenseReportLen = 200;


// Writes text with its NUL, padded with NULs to a multiple of 8, at p (when
// the response has room there); returns the padded length.
size_t put_padded(mgiInfo *info, unsigned char *p, const char *text) {
    size_t n = std::strlen(text) + 1;
    size_t len = pad8(n);
    if (rsp_fits(info, p, len)) {
        std::memmove(p, text, n);
        std::memset(p + n, 0, len - n);
    }
    return len;
}

bool adc_platform() { return vk_is_adc_platform() != 0; }

} // namespace

extern "C" {

MGMT_API extern const mgi_errmap_entry mgi_basic_errMap_table[1] = {{0, 0}};

MGMT_API void set_decode_errcode(mgiInfo *info, int32_t code) { info->decodeErr = code; }
MGMT_API void set_encode_errcode(mgiInfo *info, int32_t code) { info->encodeErr = code; }
MGMT_API void set_errCode(mgiInfo *info, int32_t code) { info->err_code = code; }
MGMT_API void set_errStatus(mgiInfo *info, int32_t status) { info->err_status = status; }
MGMT_API int32_t get_rsp_errcode(mgiInfo *info) { return info->err_code; }

MGMT_API int default_err_handle(mgiInfo *info) {
    unsigned char *body = get_current_rspseg_buf(info);
    info->rsptype = MGI_RSP_ERROR;
    if (info->last_seg_type == MGI_SEG_ERROR) return 0;
    mgiErrBody fields = {info->err_code, info->private_ecode, info->err_detail, info->err_status};
    if (rsp_fits(info, body, sizeof fields)) std::memcpy(body, &fields, sizeof fields);
    size_t len = sizeof fields;
    if (info->err_string) len += put_padded(info, body + len, info->err_string);
    if (info->err_string2) len += put_padded(info, body + len, info->err_string2);
    append_rsp_segment(info, MGI_SEG_ERROR, body, static_cast<uint16_t>(len));
    return 0;
}

MGMT_API int mgi_sprintf_err(mgiInfo *info, const char *format, ...) {
    if (!info) return 0;
    if (info->encodeErr != 0) {
        info->err_code = info->encodeErr;
    } else if (info->decodeErr != 0) {
        info->err_code = info->decodeErr;
    } else if (info->err_code == 0) {
        info->err_code = info->decodeErr = info->encodeErr = MGI_ERR_GENERIC;
    }
    int n = 0;
    if (format) {
        va_list ap;
        va_start(ap, format);
        n = std::vsnprintf(info->err_buf, sizeof info->err_buf, format, ap);
        va_end(ap);
    }
    if (n > 0) default_err_handle(info);
    return 0;
}

MGMT_API int mgi_set_err_info_with_private_ecode(mgiInfo *info, int32_t code, int32_t private_code,
                                                 const char *format, ...) {
    if (!info) return 0;
    info->err_code = code;
    info->private_ecode = private_code;
    if (adc_platform())
        info->decodeErr = code == 0 ? 0 : MGI_ERR_GENERIC;
    else
        info->decodeErr = MGI_ERR_GENERIC;
    if (format) {
        va_list ap;
        va_start(ap, format);
        std::vsnprintf(info->err_buf, sizeof info->err_buf, format, ap);
        va_end(ap);
    }
    return 0;
}

MGMT_API int encode_app_error_handling(mgiInfo *info) {
    if (info->encodeErr != 0) {
        if (appEntity *e = mgmt::app::entity_at_target(info->rqt_target)) {
            if (e->errHandle) e->errHandle(info);
            return 0;
        }
    }
    info->err_code = MGI_ERR_NO_HANDLER;
    default_err_handle(info);
    return MGI_ERR_GENERIC;
}

MGMT_API int mgi_set_err_defense_report(mgiInfo *info, const char *format, ...) {
    if (info->last_seg_type != MGI_SEG_ERROR || !format) return 0;
    char text[kDefenseReportLen];
    va_list ap;
    va_start(ap, format);
    int n = std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    if (n <= 0) return 0;
    unsigned char *at = info->rsp_data + info->rsp_seg_used;
    size_t len = put_padded(info, at, text);
    info->rsp_len += static_cast<uint32_t>(len);
    info->rsp_seg_used = static_cast<uint16_t>(info->rsp_seg_used + len);
    // The head's length word is grown as it stands in memory (a big-endian
    // value), not converted first: the requester reads it that way.
    unsigned char *head = info->rsp_hdr_segment;
    if (rsp_fits(info, head, MGI_SEGHDR_LEN)) {
        uint16_t word;
        std::memcpy(&word, head + 2, sizeof word);
        word = static_cast<uint16_t>(word + len);
        std::memcpy(head + 2, &word, sizeof word);
    }
    return 0;
}

MGMT_API int mgi_attach_global_err_info(mgiInfo *info) {
    if (global_mgi_errno == 0) return 0;
    info->decodeErr = MGI_ERR_GENERIC;
    info->err_code = static_cast<int32_t>(global_mgi_errno);
    strlcpy(info->err_buf, global_mgi_errmsg, sizeof info->err_buf);
    return 0;
}

} // extern "C"
