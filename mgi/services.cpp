// Calls to the manager daemon's own services: transactions, configuration
// locks and state queries. Each call keeps its own IPC buffers and frees them
// on every path; only make_dbg_config uses the thread's send buffer.
#include <cstdio>
#include <cstring>

#include "mgi/wire.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_services.h"
#include "mgmt/platform/platform.h"
#include "mgmt/platform/questions.h"

using namespace mgmt;

namespace {

// Sequence counter of configuration requests, process-wide.
uint16_t x86_cfg_load_result_num = 0;

// IPC buffers owned by one call.
struct IpcBuf {
    void *p;
    explicit IpcBuf(uint32_t size) : p(ipcmsg_alloc(size)) {}
    ~IpcBuf() {
        if (p) ipcmsg_free(p);
    }
    IpcBuf(const IpcBuf &) = delete;
    IpcBuf &operator=(const IpcBuf &) = delete;
    template <class T> T *as() const { return static_cast<T *>(p); }
    explicit operator bool() const { return p != nullptr; }
};

// One transaction exchange: request and reply records of 44 bytes, each in an
// IPC buffer of its own, freed on every path.
struct TransactionExchange {
    IpcBuf rq{sizeof(mgi_trans_info)}, rs{sizeof(mgi_trans_info)};
    bool ok() const { return rq && rs; }
    mgi_trans_info *request() const { return rq.as<mgi_trans_info>(); }
    const mgi_trans_info *reply() const { return rs.as<mgi_trans_info>(); }
    // Fills the request's operation, source, virtual system and (unless null) user;
    // with `clear` both records are zeroed first.
    mgi_trans_info *fill(uint32_t op, uint16_t vsysid, const char *user, bool clear) {
        if (clear) {
            std::memset(rq.p, 0, sizeof(mgi_trans_info));
            std::memset(rs.p, 0, sizeof(mgi_trans_info));
        }
        mgi_trans_info *r = request();
        r->trans_op = op;
        r->trans_vsysid = vsysid;
        set_trans_src(r);
        if (user) strlcpy(r->trans_user, user, sizeof r->trans_user);
        return r;
    }
    int call(int32_t *status) {
        *status = 0;
        uint32_t len = sizeof(mgi_trans_info);
        return ipcmsg_send_and_recv(MGD_APPID, 0, MGD_MSG_TRANSACTION, rq.p, sizeof(mgi_trans_info), status, rs.p,
                                    &len, 0);
    }
};

uint32_t word_at(const void *p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// A state question whose answer is the u32 at the start of the reply: the
// request starts with `ask` (ask_len bytes) in a buffer of rq_size, the reply
// buffer of rs_size has its first word cleared; a far side status of exactly
// -1 refuses, any other status lets the word through.
int ask_state_word(uint16_t msg, const void *ask, uint32_t ask_len, uint32_t rq_size, uint32_t rs_size,
                   const char *failure) {
    IpcBuf rq(rq_size), rs(rs_size);
    if (!rq || !rs) return -1;
    std::memcpy(rq.p, ask, ask_len);
    std::memset(rs.p, 0, 4);
    int32_t status = 0;
    uint32_t len = rs_size;
    if (ipcmsg_send_and_recv(MGD_APPID, 0, msg, rq.p, rq_size, &status, rs.p, &len, kServiceQueryTimeoutMs) < 0) {
        console_print("%s", failure);
        return -1;
    }
    if (status == -1) return -1;
    return static_cast<int>(word_at(rs.p));
}

} // namespace

extern "C" {

MGMT_API int set_trans_src(mgi_trans_info *record) {
    if (!record) return -1;
    record->trans_src = mgmt::source_by_id(own_appid(), true);
    return 0;
}

MGMT_API int get_mgi_transaction_lock(const char *user, uint16_t vsysid) {
    TransactionExchange x;
    if (!x.ok()) return -1;
    x.fill(MGI_TRANS_LOCK, vsysid, user, true)->trans_lock = 1;
    int32_t status;
    int rc = x.call(&status);
    if (rc < 0) return rc;
    uint8_t granted = x.reply()->trans_id;
    if (granted == 0) return -1;
    set_mgi_transaction_id(granted);
    return 0;
}

MGMT_API int release_mgi_transaction_lock(const char *user, uint16_t vsysid) {
    TransactionExchange x;
    if (!x.ok()) return -1;
    // The records are not cleared for a release: only these fields are set.
    mgi_trans_info *r = x.fill(MGI_TRANS_LOCK, vsysid, user, false);
    r->trans_lock = 0;
    r->trans_id = get_mgi_transaction_id();
    int32_t status;
    int rc = x.call(&status);
    if (rc < 0 || status < 0) return -1;
    set_mgi_transaction_id(0);
    return rc;
}

MGMT_API int get_mgi_transaction_state(int *state, uint16_t vsysid) {
    TransactionExchange x;
    if (!x.ok()) {
        console_print("MGI: Failed to malloc, when get transaction state\n");
        return -1;
    }
    x.fill(MGI_TRANS_STATE, vsysid, nullptr, true); // the user stays empty
    int32_t status;
    int rc = x.call(&status);
    if (rc < 0) {
        console_print("MGI: Failed send message to MGD\n");
        return rc;
    }
    if (status < 0) return -1;
    if (state) *state = x.reply()->trans_id != 0 ? 1 : 0;
    return 0;
}

MGMT_API int rollback_mgi_transaction(const char *user, uint16_t vsysid) {
    TransactionExchange x;
    if (!x.ok()) return -1;
    x.fill(MGI_TRANS_ROLLBACK, vsysid, user, true);
    int32_t status;
    int rc = x.call(&status);
    if (rc < 0) return rc;
    if (status < 0) return -1;
    set_mgi_transaction_id(0);
    return 0;
}

MGMT_API int vk_get_mgi_transaction_state(uint16_t selector) {
    return ask_state_word(MGD_MSG_TRANSACTION_STATE, &selector, sizeof selector, 2, 4,
                          "MGI TRANSACTION STATE: ipc send recv failed\n");
}

MGMT_API int vk_get_system_debug_state(void) {
    const uint32_t first = 0;
    return ask_state_word(MGD_MSG_SYSTEM_DEBUG_STATE, &first, sizeof first, 16, 24,
                          "SYSTEM DEBUG STATE: ipc send recv failed\n");
}

MGMT_API int req_lock_mgd_cfg(int lock) {
    IpcBuf rq(8);
    if (!rq) return -1;
    uint32_t words[2] = {0, static_cast<uint32_t>(lock)};
    std::memcpy(rq.p, words, sizeof words);
    // The manager of the management slot, not the local one; no answer is awaited.
    uint32_t dst = mktipcid(static_cast<uint32_t>(vk_get_mcp_slot() + 1), 0, MGD_APPID);
    if (ipcmsg_send_timeout(dst, 0, MGD_MSG_LOCK_CFG, rq.p, 8, kLockSendTimeoutMs) < 0) {
        console_print("IPC send MGD msg(%s) error\n", lock ? "lock" : "unlock");
        return -1;
    }
    return 0;
}

MGMT_API int get_mgd_config_lock_status(int *locked) {
    constexpr uint32_t kReply = 55000; // larger than any MGI buffer
    IpcBuf rq(4), rs(kReply);
    if (!rq || !rs) return -1;
    const uint16_t ask[2] = {16, 0};
    std::memcpy(rq.p, ask, sizeof ask);
    std::memset(rs.p, 0, 4);
    int32_t status = 0;
    uint32_t len = kReply;
    if (ipcmsg_send_and_recv(MGD_APPID, 0, MGD_MSG_CONFIG_LOCK_STATUS, rq.p, 4, &status, rs.p, &len, mgmt::kManagerQueryTimeoutMs) < 0 ||
        status < 0)
        return -1;
    uint16_t first, second;
    std::memcpy(&first, rs.p, 2);
    std::memcpy(&second, rs.as<char>() + 2, 2);
    if (locked) *locked = (first == 1 || second != 0) ? 1 : 0;
    return 0;
}

MGMT_API int get_config_change_status(uint16_t selector) {
    IpcBuf b(2);
    if (!b) {
        console_print("malloc ipc buf failed\n");
        return 0;
    }
    std::memcpy(b.p, &selector, 2);
    int32_t status = 0;
    uint32_t len = 2;
    if (ipcmsg_send_and_recv(MGD_APPID, 0, MGD_MSG_CONFIG_CHANGE_STATUS, b.p, 2, &status, b.p, &len, kConfigChangeTimeoutMs) < 0) {
        console_print("ipc error.\n");
        return 0;
    }
    // The answer is the far side's status; the reply's bytes are not read.
    return status < 0 ? 0 : 1;
}

MGMT_API int get_mgd_platform(void) {
    IpcBuf rq(4), rs(4);
    if (!rq || !rs) return -1;
    const uint32_t which = 1;
    std::memcpy(rq.p, &which, 4);
    std::memset(rs.p, 0, 4);
    int32_t status = 0;
    uint32_t len = 4;
    if (ipcmsg_send_and_recv(MGD_APPID, 0, MGD_MSG_PLATFORM, rq.p, 4, &status, rs.p, &len, mgmt::kManagerQueryTimeoutMs) < 0 || status < 0)
        return -1;
    return static_cast<int>(word_at(rs.p));
}

MGMT_API int get_pre_config_feature_with_dst_appid(uint32_t dst_app, uint32_t feature, uint32_t *value) {
    IpcBuf b(4);
    if (!b) {
        std::puts("CAP: ipc malloc error");
        return -1;
    }
    std::memcpy(b.p, &feature, 4);
    int32_t status = 0;
    uint32_t len = 4;
    if (ipcmsg_send_and_recv(dst_app, 0, MGD_MSG_PRE_CONFIG_FEATURE, b.p, 4, &status, b.p, &len, kServiceQueryTimeoutMs) < 0) {
        std::puts("CAP: ipc send failed");
        return -1;
    }
    if (value) *value = word_at(b.p);
    return 0;
}

MGMT_API int get_pre_config_feature(uint32_t feature, uint32_t *value) {
    return get_pre_config_feature_with_dst_appid(MGD_APPID, feature, value);
}

MGMT_API int get_object_default_value_with_target(const uint32_t *target, uint16_t selector, void *out,
                                                  uint32_t size) {
    IpcBuf rq(44), rs(size);
    if (!rq || !rs || !target) return -1;
    auto *p = rq.as<unsigned char>();
    std::memcpy(p, target, 40);
    std::memcpy(p + 40, &selector, 2);
    p[42] = p[43] = 0;
    std::memset(rs.p, 0, size);
    int32_t status = 0;
    uint32_t len = size;
    int rc = ipcmsg_send_and_recv(MGD_APPID, 0, MGD_MSG_OBJECT_DEFAULT_VALUE, rq.p, 44, &status, rs.p, &len, kServiceQueryTimeoutMs);
    if (rc < 0) return -1;
    if (status == -1) return -1; // only exactly -1 counts as a refusal
    if (out && size) std::memcpy(out, rs.p, size);
    return rc;
}

MGMT_API int create_request_config_info(void *record) {
    if (!record) return -1;
    auto *p = static_cast<unsigned char *>(record);
    uint16_t id;
    std::memcpy(&id, p, 2);
    put_be16(p, id);
    ++x86_cfg_load_result_num;
    put_be16(p + 2, x86_cfg_load_result_num);
    return 0;
}

MGMT_API int request_config_from_mgd(uint16_t id) {
    ++x86_cfg_load_result_num; // counted even when nothing can be sent
    IpcBuf b(4);
    if (!b) return -1;
    put_be16(b.as<unsigned char>(), id);
    put_be16(b.as<unsigned char>() + 2, x86_cfg_load_result_num);
    return ipcmsg_send(MGD_APPID, 0, MGD_MSG_REQUEST_CONFIG, b.p, 4);
}

MGMT_API uint16_t vk_x86_get_request_config_num(void) { return x86_cfg_load_result_num; }

MGMT_API int is_x86_daemon(uint32_t id) {
    switch (id & 0xFFFF) {
    case 65: case 71: case 72: case 73: case 74: case 75: case 76: case 80:
    case 85: case 86: case 87: case 88: case 90:
    case 106: case 107: case 108: case 109:
        return 1;
    default:
        return 0;
    }
}

MGMT_API int make_dbg_config(uint32_t word1, uint32_t word2, uint32_t word3, const char *text) {
    unsigned char *sbuf = get_mgi_sbuf();
    if (!sbuf) return -1; // the thread's pair must exist
    mgi_dbg_config rec = {};
    rec.word[0] = word1;
    rec.word[1] = word2;
    rec.word[2] = word3;
    if (text) strlcpy(rec.text, text, sizeof rec.text);
    std::memcpy(sbuf, &rec, sizeof rec);
    return ipcmsg_send(MGD_APPID, 0, MGD_MSG_DBG_CONFIG, sbuf, sizeof rec) < 0 ? -1 : 0;
}

} // extern "C"
