// The manager daemon's input: a sequence of messages, each a head of five bytes (byte 0 bit 0:
// from a second front end; then the message number and the length, two bytes each, big-endian)
// before its bytes, handed to the handler mgd registered for that number (for a number without
// one, to one of those it has) as mgd's endpoint would. Relays go to owners that are not running
// (a runtime directory of its own), so they fail at once; what an input locked is rolled back
// after it, so that inputs do not pile up held virtual systems.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "libmgmt.h"
#include "mgi/wire.h"
#include "platform/ipc_internal.h"
#include "tools/mgd/manager.h"

namespace {

std::string g_dir;
std::vector<uint16_t> g_served;
std::vector<uint8_t> g_reply(IPC_MAX_PAYLOAD);

bool start() {
    char dir[] = "/tmp/mgd-fuzz-XXXXXX";
    if (!mkdtemp(dir)) std::abort();
    g_dir = dir;
    std::atexit([] { std::filesystem::remove_all(g_dir); });
    setenv("MGMT_IPC_DIR", dir, 1);
    mgd::log_setup(mgd::Level::error, false);
    ipc_init(MGD_APPID, 0);
    std::string why;
    if (!(new mgd::Manager)->start(g_dir + "/state", &why)) std::abort(); // lives as long as the process
    for (unsigned msg = 0; msg < 65536; ++msg)
        if (plat::process_handler(uint16_t(msg))) g_served.push_back(uint16_t(msg));
    return true;
}

void send(uint16_t msg, bool second, void *req, uint32_t len) {
    static const uint32_t uid = getuid();
    static const pid_t pids[2] = {getpid(), getppid()}; // both live for the whole run
    ipc_peer_t peer = {0, second ? 11u : 5u, 0, 0, IPC_KIND_REQUEST, uid, pids[second], nullptr, 0, {}};
    ipc_frame_t head = {};
    head.magic = IPC_FRAME_MAGIC;
    mgmt::put_be16(head.msg_be, msg);
    int32_t status = 0;
    uint32_t reply_len = IPC_MAX_PAYLOAD;
    plat::process_handler(msg)(&peer, &head, req, len, &status, g_reply.data(), &reply_len);
    if (reply_len > IPC_MAX_PAYLOAD) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    [[maybe_unused]] static const bool ready = start();
    std::vector<std::pair<bool, mgi_trans_info>> locks;
    for (size_t at = 0; at + 5 <= size;) {
        const bool second = data[at] & 1;
        uint16_t number = mgmt::get_be16(data + at + 1);
        const size_t len = std::min<size_t>(mgmt::get_be16(data + at + 3), size - at - 5);
        std::vector<uint8_t> msg(data + at + 5, data + at + 5 + len); // exactly its size
        static uint8_t none[1];
        void *req = len ? msg.data() : none; // never null, as in mgd
        at += 5 + len;
        if (!plat::process_handler(number)) number = g_served[number % g_served.size()];
        send(number, second, req, uint32_t(len));
        if (number == MGD_MSG_TRANSACTION && len >= sizeof(mgi_trans_info)) {
            locks.push_back({second, {}});
            std::memcpy(&locks.back().second, req, sizeof(mgi_trans_info));
        }
    }
    for (auto &[second, t] : locks) { // given back by their holders
        t.trans_op = MGI_TRANS_ROLLBACK;
        send(MGD_MSG_TRANSACTION, second, &t, sizeof t);
    }
    return 0;
}
