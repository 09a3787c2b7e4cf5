// mgd: the reference manager daemon (application 2) for tests and the demo.
//
// It serves its own address and, when the management slot's manager lives at
// another address (the slot after MGMT_MCP_SLOT), that address too, so that
// configuration locks sent to the management slot reach it.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>

#include "manager.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_services.h"
#include "platform/questions.h"

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

} // namespace

int main(int argc, char **argv) {
    if (argc > 1) {
        std::fprintf(stderr, "usage: %s (no arguments; MGMT_IPC_DIR chooses the runtime directory)\n", argv[0]);
        return 2;
    }
    if (ipc_register(MGD_APPID, 0) != 0) {
        std::fprintf(stderr, "mgd: cannot bind application 2 in %s\n", ipc_runtime_dir());
        return 1;
    }
    mgd::Manager manager;
    manager.attach();
    ipc_endpoint_t *mcp = open_management_slot(mgd::Manager::lock_handler());
    std::signal(SIGTERM, on_signal);
    std::signal(SIGINT, on_signal);
    manager.log("serving in %s", ipc_runtime_dir());

    struct pollfd fds[2] = {{ipc_daemon_fd(), POLLIN, 0}, {mcp ? ipc_endpoint_fd(mcp) : -1, POLLIN, 0}};
    while (!stop_requested) {
        int n = poll(fds, 2, 200);
        if (n < 0 && errno != EINTR) break;
        if (n <= 0) continue;
        if (fds[0].revents & POLLIN) ipc_dispatch_one(0);
        if (mcp && (fds[1].revents & POLLIN)) ipc_endpoint_dispatch(mcp, 0);
    }
    if (mcp) ipc_endpoint_close(mcp);
    manager.log("stopped");
    return 0;
}
