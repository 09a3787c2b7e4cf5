// The manager daemon's input: a sequence of messages, each one byte choosing the message number
// among those mgd serves (bit 7: from a second front end) and a two-byte length (little endian)
// before its bytes, given to the handlers as mgd's endpoint would. Relays go to owners that are not
// running (a runtime directory of its own), so they fail at once; transactions taken by an input
// are rolled back after it, so that every input meets the same manager.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "libmgmt.h"
#include "tools/mgd/manager.h"

namespace {

const uint16_t kServed[] = {MGI_IPC_MSG, MGD_MSG_TRANSACTION, IPC_CHANNEL_ADDRESS, MGD_MSG_REQUEST_CONFIG,
                            MGD_MSG_DBG_CONFIG, MGD_MSG_CONFIG_CHANGE_STATUS, MGD_MSG_LOCK_CFG,
                            MGD_MSG_SYSTEM_DEBUG_STATE, MGD_MSG_OBJECT_DEFAULT_VALUE, MGD_MSG_CONFIG_LOCK_STATUS,
                            MGD_MSG_PRE_CONFIG_FEATURE, MGD_MSG_TRANSACTION_STATE, MGD_MSG_PLATFORM,
                            MGMT_IMPORT_RQT_MSG};
constexpr unsigned kServedCount = sizeof kServed / sizeof kServed[0];

std::string g_dir;

mgd::Manager *start() {
    char dir[] = "/tmp/mgd-fuzz-XXXXXX";
    if (!mkdtemp(dir)) std::abort();
    g_dir = dir;
    std::atexit([] { std::filesystem::remove_all(g_dir); });
    setenv("MGMT_IPC_DIR", dir, 1);
    mgd::log_setup(mgd::Level::error, false);
    ipc_init(MGD_APPID, 0);
    auto *m = new mgd::Manager; // lives as long as the process, as in mgd
    std::string why;
    if (!m->start(g_dir + "/state", &why)) std::abort();
    return m;
}

ipc_peer_t peer_of(bool second) {
    static const uint32_t uid = getuid();
    static const pid_t pids[2] = {getpid(), getppid()}; // both live for the whole run
    ipc_peer_t p = {};
    p.appid = second ? 11 : 5;
    p.kind = IPC_KIND_REQUEST;
    p.uid = uid;
    p.pid = pids[second];
    return p;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static mgd::Manager *m = start();
    static std::vector<uint8_t> reply(IPC_MAX_PAYLOAD);
    std::vector<std::pair<bool, mgi_trans_info>> taken;
    for (size_t at = 0; at + 3 <= size;) {
        const uint8_t sel = data[at];
        const size_t len = std::min<size_t>(data[at + 1] | data[at + 2] << 8, size - at - 3);
        std::vector<uint8_t> msg(data + at + 3, data + at + 3 + len); // exactly its size
        const uint8_t *req = len ? msg.data() : reinterpret_cast<const uint8_t *>(""); // never null, as in mgd
        at += 3 + len;
        ipc_peer_t peer = peer_of(sel & 0x80);
        int32_t status = 0;
        uint32_t reply_len = IPC_MAX_PAYLOAD;
        switch (const uint16_t number = kServed[(sel & 0x7f) % kServedCount]) {
        case MGI_IPC_MSG: m->on_mgi(&peer, req, uint32_t(len), &status, reply.data(), &reply_len); break;
        case MGD_MSG_TRANSACTION:
            m->on_transaction(&peer, req, uint32_t(len), &status, reply.data(), &reply_len);
            if (len >= sizeof(mgi_trans_info)) {
                taken.push_back({bool(sel & 0x80), {}});
                std::memcpy(&taken.back().second, req, sizeof(mgi_trans_info));
            }
            break;
        case IPC_CHANNEL_ADDRESS:
            if (len >= sizeof(ipc_address_note_t)) {
                ipc_address_note_t note;
                std::memcpy(&note, req, sizeof note);
                m->on_address(note);
            }
            break;
        default: m->on_simple(number, req, uint32_t(len), &status, reply.data(), &reply_len, peer.appid);
        }
        if (reply_len > IPC_MAX_PAYLOAD) std::abort();
    }
    for (auto &[second, t] : taken) { // what the input took is given back by its holder
        ipc_peer_t peer = peer_of(second);
        t.trans_op = MGI_TRANS_ROLLBACK;
        int32_t status = 0;
        uint32_t reply_len = IPC_MAX_PAYLOAD;
        m->on_transaction(&peer, reinterpret_cast<uint8_t *>(&t), sizeof t, &status, reply.data(), &reply_len);
    }
    return 0;
}
