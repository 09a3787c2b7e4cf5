// Configuration save, import and compression. The manager does the file work; these calls ask
// it: a save through the management object mgmt_save_config_grp, an import into one virtual system
// by IPC message 61, and an import for all virtual systems in two phases of mgmt_im_ex_all_vsys
// after the file was zipped.
#include "mgmt/device.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "device/device_internal.h"
#include "mgmt/mgi.h"
#include "mgmt/objects.h"
#include "mgmt/platform/device.h"
#include "mgmt/platform/platform.h"

using mgmt_device::format_into;

namespace {

constexpr uint8_t kSaveRqtType = 24;
constexpr uint8_t kImportAllRqtType = 32;
constexpr int kImportTimeoutMs = 2000;
constexpr size_t kNameRoom = 128;
const char *const kImportAllFailed = "Error: Fail to import configuration file of all vsys\n";
constexpr size_t kImportAllFailedCopy = 54; // the text with its terminator

// Copies into the caller's error buffer within its size.
void put_error(char *err, int32_t errlen, const char *text) {
    if (err && errlen > 0) strlcpy(err, text, size_t(errlen));
}

const char *or_empty(const char *s) { return s ? s : ""; }

void item(mgiInfo *info, int slot, const void *value) { info->rqt_item[slot] = const_cast<void *>(value); }

} // namespace

extern "C" {

MGMT_API int save_configuration(uint16_t vsys_id, const char *item1, const char *item2, const char *item3,
                                const char *item4, const char *item5, uint32_t item6, uint8_t language,
                                mgi_direct_callback callback, void *record) {
    mgiInfo info;
    mgi_init_rqt_message(&info);
    mgi_set_rqt_type(&info, kSaveRqtType);
    mgi_set_rqt_language(&info, language);
    // Slot 0, the first item, stays empty and does not travel. A text slot holds the address of
    // the text pointer.
    item(&info, 1, &item1);
    item(&info, 2, &item2);
    item(&info, 3, &item3);
    item(&info, 4, &item4);
    item(&info, 5, &item5);
    item(&info, 6, &item6);
    mgi_set_whether_local_entity(&info, 0);
    mgi_set_whether_full_entity(&info, 1);
    if (vsys_id == MGMT_VSYS_ALL) mgi_set_rqt_vsysid(&info, uint16_t(-2));
    return final_get_mgmt_save_config_grp(&info, callback, record);
}

MGMT_API int libmgmt_compress_file(char *path, char *err, int errlen) {
    if (!path) return -1;
    char base[kNameRoom];
    const char *dot = std::strrchr(path, '.');
    if (dot) {
        // Paths are kept below 128 characters by the caller; a longer one is cut here.
        const size_t n = std::min(size_t(dot - path), kNameRoom - 1);
        std::memcpy(base, path, n);
        base[n] = 0;
    } else {
        strlcpy(base, path, sizeof base);
    }
    char archive[kNameRoom];
    format_into(archive, sizeof archive, "%s.zip", base);
    char prog[] = MGMT_ZIP_PATH, junk[] = "-j";
    char *argv[] = {prog, junk, archive, path, nullptr};
    if (run_execv(MGMT_ZIP_PATH, argv, 1, 0) < 0) {
        put_error(err, errlen, "Error: Failed to execute zip\n");
        unlink(path);
        return -1;
    }
    unlink(path);
    strlcpy(path, archive, kNameRoom);
    return 0;
}

MGMT_API int libmgmt_import_configuration(uint16_t vsys_id, char *file, const char *requester_text,
                                          const char *origin_text, int32_t reboot, char *err, int32_t errlen) {
    if (!err) return -1;
    // Told, but the import goes on: the manager's answer decides.
    if (!file || access(file, F_OK) != 0) put_error(err, errlen, "Error: import file not exist\n");
    int rc = vsys_id == MGMT_VSYS_ALL
                 ? libmgmt_import_allvsys_configuration(file, requester_text, origin_text, err, errlen)
                 : libmgmt_import_single_vsys_configuration(vsys_id, file, requester_text, origin_text, err, errlen);
    if (rc == 0 && reboot) {
        console_print("success to import configuration, system reboot now\n");
        vk_reboot();
    }
    return rc;
}

MGMT_API int libmgmt_import_single_vsys_configuration(uint16_t vsys_id, const char *file,
                                                      const char *requester_text, const char *origin_text,
                                                      char *err, int32_t errlen) {
    constexpr uint32_t size = sizeof(mgmt_import_rqt);
    auto *rqt = static_cast<mgmt_import_rqt *>(ipcmsg_alloc(size));
    auto *rsp = static_cast<char *>(ipcmsg_alloc(size));
    if (!rqt || !rsp) {
        console_print("libmgmt: ipc malloc failed\n");
        if (rqt) ipcmsg_free(rqt);
        if (rsp) ipcmsg_free(rsp);
        return -1;
    }
    // Reserved room goes out cleared rather than with old memory; a failed exchange reads as "".
    std::memset(rqt, 0, size);
    std::memset(rsp, 0, size);
    rqt->import_kind = 1;
    rqt->import_mode = 1;
    rqt->vsys_id = vsys_id;
    strlcpy(rqt->file_name, or_empty(file), sizeof rqt->file_name);
    strlcpy(rqt->requester_text, or_empty(requester_text), sizeof rqt->requester_text);
    strlcpy(rqt->origin_text, or_empty(origin_text), sizeof rqt->origin_text);
    const time_t now = time(nullptr);
    struct tm local;
    if (vk_localtime(&now, &local))
        format_into(rqt->import_time, sizeof rqt->import_time, "%04d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
                    local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    rqt->import_flag = 1;

    int32_t status = 0;
    uint32_t rlen = size;
    int rc = ipcmsg_send_and_recv(MGD_APPID, 0, MGMT_IMPORT_RQT_MSG, rqt, size, &status, rsp, &rlen, kImportTimeoutMs);
    if (rc >= 0 && status >= 0) {
        ipcmsg_free(rqt);
        ipcmsg_free(rsp);
        return 0;
    }
    rsp[size - 1] = 0; // the reason ends inside the reply
    const char *reason = rsp + MGMT_IMPORT_REASON_OFFSET;
    console_print("failed to import config from %s, reason:%s\n", or_empty(origin_text), reason);
    put_error(err, errlen, reason);
    ipcmsg_free(rqt);
    ipcmsg_free(rsp);
    return -1;
}

MGMT_API int libmgmt_import_allvsys_configuration(char *file, const char *requester_text, const char *origin_text,
                                                  char *err, int32_t errlen) {
    mgiInfo info;
    mgi_init_rqt_message(&info);
    mgi_set_rqt_type(&info, kImportAllRqtType);
    if (libmgmt_compress_file(file, err, errlen) != 0) return -1;
    uint32_t phase = 1;
    // Text slots hold the addresses of the text pointers.
    item(&info, 0, &phase);
    item(&info, 1, &file);
    item(&info, 2, &requester_text);
    item(&info, 3, &origin_text);
    final_exec_mgmt_im_ex_all_vsys(&info, nullptr, nullptr);
    if (mgi_get_rsp_err_code() != 0) {
        const char *text = mgi_get_rsp_err_string();
        put_error(err, errlen, text ? text : kImportAllFailed);
        return -1;
    }

    mgiInfo finish;
    mgi_init_rqt_message(&finish);
    mgi_set_rqt_type(&finish, kImportAllRqtType);
    phase = 2;
    item(&finish, 0, &phase);
    final_exec_mgmt_im_ex_all_vsys(&finish, nullptr, nullptr);
    if (mgi_get_rsp_err_code() == 0) return 0;
    // Unlike the first phase: the text loses its last character, and the default text is copied
    // whole, 54 bytes, as far as the buffer reaches.
    const char *text = mgi_get_rsp_err_string();
    if (err && errlen > 0) {
        if (text)
            strlcpy(err, text, std::min(std::strlen(text), size_t(errlen)));
        else
            strlcpy(err, kImportAllFailed, std::min(kImportAllFailedCopy, size_t(errlen)));
    }
    return -1;
}

MGMT_API int libmgmt_is_start_with_default_config(void) {
    return access(MGMT_START_STATIC_CONFIG_FILE, F_OK) == 0 ? 1 : 0;
}

} // extern "C"
