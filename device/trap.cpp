// Traps: an event framed and delivered to the trap receiver (application 23) over IPC, through a
// write function the process installed, or through the agent's named pipe; and manager traps on
// publish channel 101 while the manager agent is registered.
#include "mgmt/device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device/device_internal.h"
#include "mgmt/platform/device.h"
#include "mgmt/platform/platform.h"
#include "mgmt/platform/questions.h"

namespace {

constexpr uint32_t kTrapKindUnchecked = 12; // a kind whose payload may be absent at any length
constexpr uint32_t kHdr = sizeof(vk_trap_hdr);
constexpr int32_t kFifoMaxPayload = VK_AGENT_TRAP_BUF_SIZE - sizeof(vk_fifo_trap_hdr);
constexpr uint32_t kTmDataSize = 4000;
constexpr uint32_t kTmCookieSize = 256;

// Process-wide, never freed, not locked: one sender at a time on each road.
void *trap_send_buf = nullptr;
void *trap_recv_buf = nullptr;
char *agent_trap_send_buf = nullptr;
int agent_trap_fifo = -1;
char agent_trap_fifo_path[64];
uint32_t vk_tm_status = 0;

void put_be_hdr(void *buf, uint32_t kind, uint32_t code, uint32_t arg) {
    const vk_trap_hdr h{htonl(kind), htonl(code), htonl(arg)};
    std::memcpy(buf, &h, sizeof h);
}

} // namespace

int vk_trap_send(uint32_t trap_kind, uint32_t trap_code, const void *payload, uint32_t len, uint32_t trap_arg) {
    if (len != 0 && !payload && trap_kind != kTrapKindUnchecked) return -1;
    if (len > UINT32_MAX - kHdr) return -1; // no message of that size can be made
    auto *msg = static_cast<unsigned char *>(ipcmsg_alloc(len + kHdr));
    if (!msg) {
        puts("TRAP: cannot alloc");
        return -1;
    }
    put_be_hdr(msg, trap_kind, trap_code, trap_arg);
    // A kind-12 trap without payload leaves its room as it is; it is cleared rather than sent unset.
    if (len != 0) {
        if (payload)
            std::memcpy(msg + kHdr, payload, len);
        else
            std::memset(msg + kHdr, 0, len);
    }
    int rc;
    if (vk_is_mcpu_system_platform())
        rc = ipcmsg_send_remote(uint32_t(vk_get_mcp_slot()), VK_TRAP_APPID, 0, VK_TRAP_MSG, msg, len + kHdr);
    else
        rc = ipcmsg_send(VK_TRAP_APPID, 0, VK_TRAP_MSG, msg, len + kHdr);
    ipcmsg_free(msg);
    return rc;
}

extern "C" {

MGMT_API trap_write_fn trap_write_func = nullptr;

MGMT_API int vk_trap(uint32_t trap_kind, const void *payload, uint32_t len, uint32_t trap_arg) {
    return vk_trap_send(trap_kind, 0, payload, len, trap_arg);
}

MGMT_API int vk_private_trap(uint32_t trap_code, const void *payload, int32_t len, uint32_t trap_arg) {
    if (!trap_write_func) return vk_trap_send(VK_TRAP_PRIVATE, trap_code, payload, uint32_t(len), trap_arg);
    if (len < 0 || uint32_t(len) + kHdr > VK_TRAP_BUF_SIZE || (len != 0 && !payload)) return -1;
    if (!trap_send_buf) {
        trap_send_buf = ipcmsg_alloc(VK_TRAP_BUF_SIZE);
        if (!trap_send_buf) return -1;
    }
    auto *buf = static_cast<unsigned char *>(trap_send_buf);
    put_be_hdr(buf, VK_TRAP_PRIVATE, trap_code, trap_arg);
    if (len != 0) std::memcpy(buf + kHdr, payload, size_t(len));
    trap_write_fn fn = trap_write_func;
    if (!fn) return -1; // cleared meanwhile
    return fn(buf, uint32_t(len) + kHdr);
}

MGMT_API void vk_agent_trap_init(void) {
    strlcpy(agent_trap_fifo_path, VK_AGENT_TRAP_FIFO, sizeof agent_trap_fifo_path);
    // A second start-up begins afresh: the buffer and descriptor of the first are let go.
    std::free(agent_trap_send_buf);
    if (agent_trap_fifo >= 0) close(agent_trap_fifo);
    agent_trap_fifo = -1;
    agent_trap_send_buf = static_cast<char *>(std::malloc(VK_AGENT_TRAP_BUF_SIZE));
    if (!agent_trap_send_buf) {
        puts("AGENT: cannot alloc buffer");
        return;
    }
    signal(SIGPIPE, SIG_IGN);
    const char *fifo = agent_trap_fifo_path;
    if (mkfifo(fifo, 0600) < 0 && errno != EEXIST) {
        printf("AGENT: cannot create fifo, errno: %d\n", errno);
        std::free(agent_trap_send_buf);
        agent_trap_send_buf = nullptr;
        return;
    }
    agent_trap_fifo = open(fifo, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (agent_trap_fifo < 0 && errno != ENXIO) printf("AGENT: cannot open fifo, errno: %d\n", errno);
}

MGMT_API int vk_private_trap_via_fifo(int32_t trap_code, const void *payload, int32_t len) {
    if (len > kFifoMaxPayload) return -1;
    if (len != 0 && !payload && trap_code != int32_t(kTrapKindUnchecked)) return -1;
    // A negative length would reach outside the buffer: it is no record.
    if (len < 0) return -1;
    if (!agent_trap_send_buf) return -1;
    if (agent_trap_fifo < 0) {
        const char *fifo = agent_trap_fifo_path;
        agent_trap_fifo = open(fifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (agent_trap_fifo < 0 && errno != ENXIO) {
            printf("AGENT: cannot open fifo, errno: %d\n", errno);
            return -1;
        }
    }
    const vk_fifo_trap_hdr h{VK_TRAP_PRIVATE, uint32_t(trap_code), uint32_t(len)};
    std::memcpy(agent_trap_send_buf, &h, sizeof h);
    if (len != 0) {
        if (payload)
            std::memcpy(agent_trap_send_buf + sizeof h, payload, size_t(len));
        else
            std::memset(agent_trap_send_buf + sizeof h, 0, size_t(len));
    }
    return write(agent_trap_fifo, agent_trap_send_buf, size_t(len) + sizeof h) < 0 ? -1 : 0;
}

MGMT_API void trap_write_func_set(trap_write_fn fn) { trap_write_func = fn; }

MGMT_API int vk_trap_buf_write(const void *record, uint32_t len) {
    if (!trap_recv_buf) {
        trap_recv_buf = ipcmsg_alloc(VK_TRAP_BUF_SIZE);
        if (!trap_recv_buf) return -1;
    }
    if (len > VK_TRAP_BUF_SIZE) return -1;
    if (len != 0 && !record) return -1; // nothing to copy from
    if (len != 0) std::memcpy(trap_recv_buf, record, len);
    return ipcmsg_send(VK_TRAP_APPID, 0, VK_TRAP_MSG, trap_recv_buf, len);
}

MGMT_API int vk_tm_trap(uint32_t trap_kind, uint32_t trap_code, const void *payload, uint32_t len) {
    if (vk_tm_status != 1) return 0;
    if (len > UINT32_MAX - sizeof(vk_tm_trap_hdr)) return -1; // no message of that size can be made
    const uint32_t size = len + sizeof(vk_tm_trap_hdr);
    auto *msg = static_cast<unsigned char *>(ipcmsg_alloc(size));
    if (!msg) return -1;
    const vk_tm_trap_hdr h{trap_kind, trap_code};
    std::memcpy(msg, &h, sizeof h);
    // Without a payload the room stays as it is; it is cleared rather than published unset.
    if (payload)
        std::memcpy(msg + sizeof h, payload, len);
    else
        std::memset(msg + sizeof h, 0, len);
    int rc = ipcmsg_publish(VK_TM_TRAP_CHANNEL, msg, size);
    ipcmsg_free(msg);
    return rc;
}

MGMT_API int vk_is_tm_status_reg(void) { return vk_tm_status == 1 ? 1 : 0; }

MGMT_API int tmagent_status_change_handler(void *, void *, void *payload, uint32_t len, int32_t *status, void *,
                                           uint32_t *reply_len) {
    uint32_t state = UINT32_MAX; // a payload without a whole word is no state
    if (payload && len >= sizeof state) std::memcpy(&state, payload, sizeof state);
    if (state > 2) {
        if (status) *status = -1;
    } else {
        if (status) *status = 0;
        vk_tm_status = state;
    }
    if (reply_len) *reply_len = 0;
    return 0;
}

MGMT_API int tm_make_ipc_exchange_direct(tm_ipc_callback callback, uint64_t arg) {
    void *data = std::malloc(kTmDataSize);
    if (!data) {
        console_print("TIDALMANAGER: pre-allocate memory for ipc data failed\n");
        return -1;
    }
    void *cookie = std::calloc(1, kTmCookieSize);
    if (!cookie) {
        std::free(data);
        console_print("TIDALMANAGER: pre-allocate memory for ipc cookie failed\n");
        return -1;
    }
    uint32_t data_len = kTmDataSize, cookie_len = kTmCookieSize, more = 0;
    if (callback) {
        for (;;) {
            int rc = callback(data, &data_len, cookie, &cookie_len, &more, arg);
            if (rc != 0) break;
            if (more == 1) continue;
            std::free(data);
            std::free(cookie);
            return 0;
        }
    }
    console_print("TIDALMANAGER: ipc handle failed\n");
    std::free(data);
    std::free(cookie);
    return -1;
}

} // extern "C"
