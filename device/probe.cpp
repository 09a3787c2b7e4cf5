// Device probes: storage health judged from a watched process, the child monitor's process id,
// the device identity, the manager's capability checksum and session cut words, the virtual
// system lock of the kernel entry, the network manager's absence and the availability word.
#include "mgmt/device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device/device_internal.h"
#include "mgmt/platform/device.h"
#include "mgmt/platform/platform.h"
#include "mgmt/platform/questions.h"

using mgmt_device::format_into;

namespace {

constexpr uint16_t kCapCrcMsg = 602;
constexpr uint16_t kSessionCutMsg = MGMT_SESSION_CUT_MSG;
constexpr uint16_t kNmTimeoutMsg = MGMT_NM_TIMEOUT_MSG;
constexpr uint16_t kAvailStatusMsg = MGMT_AVAIL_STATUS_MSG;
constexpr uint32_t kAvailStatusAppid = 0;
constexpr uint32_t kAvailReplySize = 64;
constexpr size_t kAvailFlagOffset = 44;
constexpr int kStorageTries = 3;
constexpr int kCapCrcTimeoutMs = 5000, kSessionCutTimeoutMs = 1000, kAvailStatusTimeoutMs = 5000;

// Shared by all threads, not locked.
int32_t g_watched_pid = 0;
char g_device_uuid[128];

void free_both(void *a, void *b) {
    if (a) ipcmsg_free(a);
    if (b) ipcmsg_free(b);
}

// Step 4 of the storage judgement: the console log, when it exists, must be writable.
int console_log_state() {
    const char *log = MGMT_CONSOLE_LOG_FILE;
    if (access(log, F_OK) != 0) return 0;
    return access(log, W_OK) == -1 ? 2 : 0;
}

} // namespace

extern "C" {

MGMT_API int get_child_monitord_pid(void) {
    const char *path = MGMT_CHILD_MONITORD_PID_FILE;
    FILE *fp = fopen(path, "r");
    if (!fp) return -1;
    char text[16];
    std::memset(text, 0, sizeof text);
    if (!fgets(text, sizeof text, fp) || text[0] == 0) {
        fclose(fp);
        return -1;
    }
    for (const char *p = text; *p; ++p) {
        if (*p < '0' || *p > '9') { // a line end after the digits too
            fclose(fp);
            return -1;
        }
    }
    fclose(fp);
    return int(strtol(text, nullptr, 10));
}

MGMT_API int vk_is_storage_available(int32_t pid) {
    if (pid > 0) {
        g_watched_pid = pid;
    } else if (g_watched_pid <= 0) {
        g_watched_pid = get_child_monitord_pid();
        if (g_watched_pid <= 0) return -1;
    }
    char cmd[64];
    format_into(cmd, sizeof cmd, "cat /proc/%d/status | grep State", g_watched_pid);
    int result = -1;
    for (int attempt = 0; attempt < kStorageTries; ++attempt) {
        FILE *fp = popen(cmd, "r");
        if (!fp) return -1;
        char line[64];
        const bool got = fgets(line, sizeof line, fp) != nullptr;
        if (got && !std::strstr(line, "disk sleep")) {
            result = console_log_state();
            pclose(fp);
            return result;
        }
        // A stream that pclose has closed is not handed to it again.
        pclose(fp);
        usleep(100000);
        result = got ? 1 : -1;
    }
    return result;
}

MGMT_API const char *get_device_uuid(void) {
    const char *path = MGMT_DEVICE_UUID_FILE;
    if (access(path, R_OK) != 0) return "";
    FILE *fp = fopen(path, "r");
    if (!fp) return "";
    // One word, as much of it as the buffer holds.
    if (fscanf(fp, "%127s", g_device_uuid) == EOF) {
        fclose(fp);
        return "";
    }
    fclose(fp);
    return g_device_uuid;
}

MGMT_API int get_dynamic_cap_crc32(uint32_t *crc) {
    auto *rqt = static_cast<uint32_t *>(ipcmsg_alloc(sizeof(uint32_t)));
    auto *rsp = static_cast<uint32_t *>(ipcmsg_alloc(sizeof(uint32_t)));
    if (!rqt || !rsp) {
        free_both(rqt, rsp);
        return -1;
    }
    *rqt = 2;
    *rsp = 0;
    int32_t status = -1;
    uint32_t rlen = sizeof(uint32_t);
    int rc = ipcmsg_send_and_recv(MGD_APPID, 0, kCapCrcMsg, rqt, sizeof(uint32_t), &status, rsp, &rlen, kCapCrcTimeoutMs);
    int result = -1;
    if (rc >= 0 && status >= 0) {
        if (crc) *crc = *rsp;
        result = 0;
    }
    free_both(rqt, rsp);
    return result;
}

MGMT_API int get_session_cut(uint32_t *words) {
    constexpr uint32_t size = 3 * sizeof(uint32_t);
    auto *buf = static_cast<uint32_t *>(ipcmsg_alloc(size));
    if (!buf) {
        puts("CAP: ipc malloc error");
        return -1;
    }
    std::memset(buf, 0, size);
    int32_t status = 0;
    uint32_t rlen = size;
    if (ipcmsg_send_and_recv(MGD_APPID, 0, kSessionCutMsg, buf, size, &status, buf, &rlen, kSessionCutTimeoutMs) < 0) {
        puts("CAP: ipc send failed");
        ipcmsg_free(buf);
        return -1;
    }
    if (words) std::memcpy(words, buf, size);
    ipcmsg_free(buf);
    return 0;
}

MGMT_API int libmgmt_procfs_vsys_lock_status_ioctl(uint32_t request, void *arg) {
    const char *path = MGMT_VSYS_LOCK_PROC;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        // The path in the text is not the one opened; it stays so.
        console_print("pid %d, cmd %u, Open /proc/mgd_vsys_lock/mgd_vsys_lock_status failed : %m\n", int(getpid()),
                      request);
        return -1;
    }
    errno = 0;
    int rc = ioctl(fd, request, arg);
    if (rc < 0) {
        vk_clog("[%s/%d]: ioctl mgd_vsys_lock_status cmd %d failed, ret %d\n", appid2appname(myipc.appid),
                int(myipc.instance), int(request), rc);
        rc = -1;
    }
    close(fd);
    return rc;
}

MGMT_API int libmgmt_is_vsys_locked(uint16_t vsys_id) {
    vsys_lock_rec rec{vsys_id, 0};
    libmgmt_procfs_vsys_lock_status_ioctl(MGMT_VSYS_LOCK_STATUS_CMD, &rec);
    return rec.locked;
}

MGMT_API int libmgmt_check_network_manager_disconnect_timeout(void) {
    constexpr uint32_t size = sizeof(nm_disconnect_rsp);
    void *rqt = ipcmsg_alloc(size);
    void *rsp = ipcmsg_alloc(size);
    if (!rqt || !rsp) {
        console_print("LIBMGMT: Can`t not malloc memory!\n");
        free_both(rqt, rsp);
        return -1;
    }
    std::memset(rqt, 0, size);
    std::memset(rsp, 0, size);
    const uint32_t one = 1;
    std::memcpy(rqt, &one, sizeof one);
    int32_t status = 0;
    uint32_t rlen = size;
    int rc = ipcmsg_send_and_recv(MGD_APPID, 0, kNmTimeoutMsg, rqt, size, &status, rsp, &rlen, 0);
    if (rc < 0 || status < 0) {
        console_print("LIBMGMT: Get network manager timeout failed!\n");
        free_both(rqt, rsp);
        return -1;
    }
    nm_disconnect_rsp r;
    std::memcpy(&r, rsp, sizeof r);
    free_both(rqt, rsp);
    return r.disconnect_timeout <= r.disconnect_time ? 1 : 0;
}

MGMT_API int libmgmt_is_sdwan_platform_and_network_manager_disconnect_timeout(void) {
    if (!vk_is_mq500_sdwan_platform()) return 0;
    return libmgmt_check_network_manager_disconnect_timeout() != 0 ? 1 : 0;
}

MGMT_API int vk_get_avai_status_para(void) {
    constexpr uint32_t rqt_size = 12;
    auto *rqt = static_cast<unsigned char *>(ipcmsg_alloc(rqt_size));
    auto *rsp = static_cast<unsigned char *>(ipcmsg_alloc(kAvailReplySize));
    if (!rqt || !rsp) {
        free_both(rqt, rsp);
        return -1;
    }
    std::memset(rqt, 0, rqt_size);
    std::memset(rsp, 0, kAvailReplySize);
    int32_t status = 0;
    uint32_t rlen = kAvailReplySize;
    int rc = ipcmsg_send_and_recv(kAvailStatusAppid, 0, kAvailStatusMsg, rqt, rqt_size, &status, rsp, &rlen, kAvailStatusTimeoutMs);
    int result = -1;
    if (rc >= 0 && status >= 0 && rlen == kAvailReplySize) result = rsp[kAvailFlagOffset] == 1 ? 1 : 0;
    free_both(rqt, rsp);
    return result;
}

} // extern "C"
