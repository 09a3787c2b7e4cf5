// mgd: the reference manager daemon (application 2) for tests and the demo.
//
// It serves its own address and, when the management slot's manager lives at
// another address (the slot after MGMT_MCP_SLOT), that address too, so that
// configuration locks sent to the management slot reach it. When no trap
// receiver (application 23) runs, it takes that address as well and logs the
// traps that arrive, so that a test machine sees them.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>

#include "manager.h"
#include "mgmt/device.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_services.h"
#include "mgmt/platform/questions.h"

namespace {

volatile std::sig_atomic_t stop_requested = 0;
void on_signal(int) { stop_requested = 1; }

// The manager's address on the management slot, when that is not our own.
ipc_endpoint_t *open_management_slot(ipc_handler_fn lock_handler) {
    uint32_t slot = static_cast<uint32_t>(vk_get_mcp_slot() + 1);
    uint32_t own = ipc_own_slot();
    if (slot == own) return nullptr;
    const char *old = std::getenv("MGMT_SLOT");
    std::string saved = old ? old : "";
    setenv("MGMT_SLOT", std::to_string(slot).c_str(), 1);
    ipc_endpoint_t *ep = ipc_endpoint_open(MGD_APPID, 0, nullptr);
    if (old)
        setenv("MGMT_SLOT", saved.c_str(), 1);
    else
        unsetenv("MGMT_SLOT");
    if (ep) ipc_endpoint_handler(ep, MGD_MSG_LOCK_CFG, lock_handler);
    return ep;
}

// Trap records of the IPC road: three big-endian words (kind, code, argument), then the payload.
int on_trap(void *ipc, void *, void *payload, uint32_t len, int32_t *, void *, uint32_t *) {
    const auto *p = static_cast<const unsigned char *>(payload);
    auto word = [p](int i) {
        return uint32_t(p[4 * i]) << 24 | uint32_t(p[4 * i + 1]) << 16 | uint32_t(p[4 * i + 2]) << 8 | p[4 * i + 3];
    };
    if (len < 12) {
        std::printf("mgd: trap of %u bytes from app%u: too short, dropped\n", len, static_cast<ipc_peer_t *>(ipc)->appid);
    } else {
        std::string text(reinterpret_cast<const char *>(p + 12), len - 12);
        text = text.substr(0, text.find('\0'));
        std::printf("mgd: trap kind %u code %u arg %u from app%u: \"%s\"\n", word(0), word(1), word(2),
                    static_cast<ipc_peer_t *>(ipc)->appid, text.c_str());
    }
    std::fflush(stdout);
    return IPC_HANDLER_NOREPLY;
}

} // namespace

int main(int argc, char **argv) {
    if (argc > 1) {
        std::fprintf(stderr, "usage: %s (no arguments; MGMT_IPC_DIR chooses the runtime directory)\n", argv[0]);
        return 2;
    }
    // Handlers and the further addresses come first: once the manager's own
    // address exists, everything it answers is in place.
    ipc_init(MGD_APPID, 0);
    mgd::Manager manager;
    manager.attach();
    ipc_endpoint_t *mcp = open_management_slot(mgd::Manager::lock_handler());
    ipc_endpoint_t *traps = ipc_endpoint_open(VK_TRAP_APPID, 0, nullptr);
    if (traps) ipc_endpoint_handler(traps, VK_TRAP_MSG, on_trap);
    std::signal(SIGTERM, on_signal);
    std::signal(SIGINT, on_signal);
    if (ipc_register(MGD_APPID, 0) != 0) {
        std::fprintf(stderr, "mgd: cannot bind application 2 in %s\n", ipc_runtime_dir());
        return 1;
    }
    manager.log("serving in %s", ipc_runtime_dir());

    struct pollfd fds[3] = {{ipc_daemon_fd(), POLLIN, 0},
                            {mcp ? ipc_endpoint_fd(mcp) : -1, POLLIN, 0},
                            {traps ? ipc_endpoint_fd(traps) : -1, POLLIN, 0}};
    while (!stop_requested) {
        int n = poll(fds, 3, 200);
        if (n < 0 && errno != EINTR) break;
        if (n <= 0) continue;
        if (fds[0].revents & POLLIN) ipc_dispatch_one(0);
        if (mcp && (fds[1].revents & POLLIN)) ipc_endpoint_dispatch(mcp, 0);
        if (traps && (fds[2].revents & POLLIN)) ipc_endpoint_dispatch(traps, 0);
    }
    if (mcp) ipc_endpoint_close(mcp);
    if (traps) ipc_endpoint_close(traps);
    manager.log("stopped");
    return 0;
}
