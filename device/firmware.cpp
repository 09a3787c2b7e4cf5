// Firmware service calls: image jobs to the firmware service (application 80), the table that
// turns its status codes into a log line and a user text, and the heartbeat state of application
// 17 that tells whether the apm IPC is ready.
#include "mgmt/device.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "device/device_internal.h"
#include "mgmt/platform/device.h"
#include "mgmt/platform/platform.h"

using mgmt_device::format_into;

namespace {

constexpr uint32_t kReplySize = 5;
constexpr uint32_t kErrTextSize = 256;
constexpr int kHeartbeatTimeoutMs = 5000;

constexpr int kReturnOk = 0;
constexpr int kReturnBusy = 400000003;
constexpr int kReturnUpgradeFailed = 400000005;
constexpr int kReturnUnknown = 500000000;
constexpr int kReturnSwitchFailed = 500000001;

const char *const kUpgradeInvalid = "Error: Failed to upgrade. The firmware is invalid or corrupt\n";
const char *const kUpgradeMismatch = "Error: Failed to upgrade. The firmware does not match with the device\n";
const char *const kUpgradeInternal = "Error: Failed to upgrade. Internal error occurred\n";
const char *const kSwitchInternal = "Error: Failed to switch the active firmware. Internal error occurred\n";
const char *const kRestricted =
    "[%s/%d]: The firmware upgrade was restricted(Upgraded the special firmware version without reboot)\n";

struct StatusRow {
    int32_t code;
    const char *log;  // null: no log line
    const char *user; // null: the buffer stays empty
    int result;
};

const StatusRow kRows[] = {
    {10000, nullptr, nullptr, kReturnOk},
    {10001, nullptr, nullptr, kReturnOk},
    {10002, nullptr, nullptr, kReturnOk},
    {10003, nullptr, nullptr, kReturnOk},
    {10004, nullptr, nullptr, kReturnOk},
    {10005, nullptr, nullptr, kReturnOk},
    {10015, nullptr, nullptr, kReturnOk},
    {10006, "[%s/%d]: Someone else is upgrading firmware now\n",
     "Error: Failed to upgrade the firmware. Someone else is upgrading now\n", kReturnBusy},
    {10007, "[%s/%d]: Someone else is switching firmware now\n",
     "Error: Failed to switch the active firmware. Someone else is switching now\n", kReturnBusy},
    {10008, "[%s/%d]: The specified firmware did not exist or uploaded the firmware failed\n",
     "Error: Failed to upgrade. The specified firmware does not exist\n", kReturnUpgradeFailed},
    {10009, "[%s/%d]: The image exceeded the size limitation\n", kUpgradeInvalid, kReturnUpgradeFailed},
    {10010, "[%s/%d]: Decrypted the firmware failed\n", kUpgradeInvalid, kReturnUpgradeFailed},
    {10011, "[%s/%d]: Parsed the firmware header failed\n", kUpgradeInvalid, kReturnUpgradeFailed},
    {10012, "[%s/%d]: Parsed the firmware version or read the running firmware version failed\n", kUpgradeInvalid,
     kReturnUpgradeFailed},
    {10013, "[%s/%d]: The firmware did not match with the device\n", kUpgradeMismatch, kReturnUpgradeFailed},
    {10014, "[%s/%d]: Verified the firmware MD5 or Parsed the MD5 of firmawre failed\n", kUpgradeInvalid,
     kReturnUpgradeFailed},
    {10016, "[%s/%d]: The emergency system restore device did not exist\n", kUpgradeInternal, kReturnUpgradeFailed},
    {10017, "[%s/%d]: The firmware with OS package did not exist\n", kUpgradeInternal, kReturnUpgradeFailed},
    {10018,
     "[%s/%d]: The upgraded firmware was incompatible with active firmawre(Upgraded the firmware ith lower version, "
     "etc)\n",
     kUpgradeMismatch, kReturnUpgradeFailed},
    {10019, kRestricted, kUpgradeInternal, kReturnUpgradeFailed},
    {10021, "[%s/%d]: Chassis downloaded or upgraded the BFM firmware failed\n", kUpgradeInternal,
     kReturnUpgradeFailed},
    {10022, "[%s/%d]: Executed the firmware upgrade scripts or command failed\n", kUpgradeInternal,
     kReturnUpgradeFailed},
    {10023, "[%s/%d]: The firmware switch scripts was executed with invalid arguments\n", kSwitchInternal,
     kReturnSwitchFailed},
    {10024, kRestricted, kSwitchInternal, kReturnSwitchFailed},
    {10025, "[%s/%d]: Chassis switched the BFM firmware failed\n", kSwitchInternal, kReturnSwitchFailed},
    {10026, "[%s/%d]: Executed the firmware switch scripts or command failed\n", kSwitchInternal,
     kReturnSwitchFailed},
    {10029, "[%s/%d]: Check the firmware image failed\n", kUpgradeInvalid, kReturnUpgradeFailed},
    {10032, "[%s/%d]: Upgrade BFM image failed, flash is out of memory or ipc error occurred\n",
     "Error: Failed to upgrade. Out of flash memory or ipc error occurred\n", kReturnUpgradeFailed},
};

const StatusRow kUnknownRow = {0, nullptr, "Error: Unknown error\n", kReturnUnknown};

const StatusRow &find_row(int32_t code) {
    for (const StatusRow &r : kRows)
        if (r.code == code) return r;
    return kUnknownRow;
}

uint32_t be_word(const void *p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return ntohl(v);
}

} // namespace

extern "C" {

MGMT_API int status_code_2_msg(int32_t code, char *msg, uint32_t size) {
    if (msg && size) std::memset(msg, 0, size);
    const StatusRow &row = find_row(code);
    if (row.log) vk_clog(row.log, appid2appname(myipc.appid), int(myipc.instance));
    if (row.user && msg) strlcpy(msg, MSG_TR(row.user), size);
    return row.result;
}

MGMT_API int segment_load_image_helper(uint32_t image_op, const char *first, const char *second,
                                       uint32_t *status_code, char *err) {
    const uint32_t path_len = first ? uint32_t(std::strlen(first) + 1) : 0;
    const uint32_t name_len = second ? uint32_t(std::strlen(second) + 1) : 0;
    const uint32_t size = sizeof(image_rqt_hdr) + path_len + name_len;
    auto *rqt = static_cast<unsigned char *>(ipcmsg_alloc(size));
    if (!rqt) {
        if (err)
            format_into(err, kErrTextSize, "[%s/%d]: Alloc memory for firmware service failed\n",
                        appid2appname(myipc.appid), int(myipc.instance));
        return -1;
    }
    const image_rqt_hdr h{htonl(image_op), htonl(path_len), htonl(name_len)};
    std::memcpy(rqt, &h, sizeof h);
    if (path_len) std::memcpy(rqt + sizeof h, first, path_len);
    if (name_len) std::memcpy(rqt + sizeof h + path_len, second, name_len);

    auto *reply = static_cast<unsigned char *>(ipcmsg_alloc(kReplySize));
    if (!reply) {
        if (err)
            format_into(err, kErrTextSize, "[%s/%d]: Alloc memory for firmware service failed\n",
                        appid2appname(myipc.appid), int(myipc.instance));
        ipcmsg_free(rqt);
        return -1;
    }
    std::memset(reply, 0, kReplySize); // a short answer reads as zeros, not as old memory
    int32_t status = -1;
    uint32_t rlen = kReplySize;
    int rc = ipcmsg_send_and_recv(VK_FIRMWARE_APPID, 0, VK_FIRMWARE_IMAGE_MSG, rqt, size, &status, reply, &rlen, 0);
    if (rc >= 0 && status >= 0) {
        if (status_code) *status_code = be_word(reply);
        ipcmsg_free(rqt);
        ipcmsg_free(reply);
        return 0;
    }
    if (err) {
        // The caller's name first: the text holds two application names.
        char caller[32];
        strlcpy(caller, appid2appname(myipc.appid), sizeof caller);
        format_into(err, kErrTextSize, "[%s/%d]: Communication with [%s/%d] failed\n", caller, int(myipc.instance),
                    appid2appname(VK_FIRMWARE_APPID), 0);
    }
    ipcmsg_free(rqt);
    ipcmsg_free(reply);
    return -1;
}

MGMT_API int image_manage_helper(void) { return 0; }

MGMT_API int image_query_helper(void) { return 0; }

MGMT_API int read_heartbeat_state(uint32_t *state) {
    if (!state) {
        vk_clog("[%s/%d]: The heartbeat state value is invalid\n", appid2appname(myipc.appid), int(myipc.instance));
        return -1;
    }
    auto *buf = static_cast<unsigned char *>(ipcmsg_alloc(kReplySize));
    if (!buf) {
        vk_clog("[%s/%d]: Alloc memory for heartbeat state failed\n", appid2appname(myipc.appid),
                int(myipc.instance));
        return -1;
    }
    std::memset(buf, 0, kReplySize);
    int32_t status = -1;
    uint32_t rlen = kReplySize;
    int rc = ipcmsg_send_and_recv(VK_HEARTBEAT_APPID, 0, VK_HEARTBEAT_MSG, buf, kReplySize, &status, buf, &rlen,
                                  kHeartbeatTimeoutMs);
    if (rc >= 0 && status >= 0) {
        *state = be_word(buf);
        ipcmsg_free(buf);
        return 0;
    }
    char caller[32];
    strlcpy(caller, appid2appname(myipc.appid), sizeof caller);
    vk_clog("[%s/%d]: Communication with [%s/%d] failed\n", caller, int(myipc.instance),
            appid2appname(VK_HEARTBEAT_APPID), 0);
    ipcmsg_free(buf);
    return -1;
}

MGMT_API int is_apm_ipc_ready(void) {
    uint32_t state = 0;
    if (read_heartbeat_state(&state) != 0) return 0;
    return state >= 1 && state <= 3 ? 1 : 0;
}

} // extern "C"
