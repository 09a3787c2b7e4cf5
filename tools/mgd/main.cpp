// mgd: the reference manager daemon (application 2) for tests, the demo and the examples.
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
#include <cstring>
#include <getopt.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "log.h"
#include "manager.h"
#include "tools/cli.h"
#include "mgi/wire.h"
#include "mgmt/device.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_services.h"
#include "mgmt/platform/device.h"
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
    auto word = [p](int i) { return mgmt::get_be32(p + 4 * i); };
    if (len < sizeof(vk_trap_hdr)) {
        mgd::log(mgd::Level::warning, "trap of %u bytes from app%u: too short, dropped", len,
                 static_cast<ipc_peer_t *>(ipc)->appid);
    } else {
        std::string text(reinterpret_cast<const char *>(p + sizeof(vk_trap_hdr)), len - sizeof(vk_trap_hdr));
        text = text.substr(0, text.find('\0'));
        mgd::log(mgd::Level::info, "trap kind %u code %u arg %u from app%u: \"%s\"", word(0), word(1), word(2),
                 static_cast<ipc_peer_t *>(ipc)->appid, text.c_str());
    }
    return IPC_HANDLER_NOREPLY;
}

void usage() {
    std::printf("Usage: mgd [OPTION]...\n"
                "The reference manager daemon: serves application 2 in the runtime directory ($MGMT_IPC_DIR,\n"
                "else /run/mgmt where writable, else /tmp/mgmt-<uid>), relays sets to the owning application,\n"
                "answers gets of type 30 from its copy, holds transactions and locks, and logs the traps it\n"
                "receives while no trap receiver (application 23) runs.\n"
                "\n"
                "What the owners accepted, the open transactions and the transaction id counter are kept in\n"
                "DIR/mgd.db (SQLite), so that a restarted manager has them; an owner that registers again is\n"
                "sent its accepted sets in their order. Sets wait for their owner in a queue of their own and\n"
                "are relayed with a deadline for each answer; a set to a virtual system locked by a transaction\n"
                "is refused unless it carries the holder's transaction id.\n"
                "\n"
                "  -s, --state-dir=DIR  keep the state in DIR (default: $MGMT_STATE_DIR, else the runtime\n"
                "                       directory's name with .state added)\n"
                "  -t, --relay-timeout=MS  wait MS milliseconds for each answer of an owner (default 5000)\n"
                "  -v, --verbose   log more (debug); MGMT_LOG_LEVEL=error|warning|info|debug sets the start\n"
                "  -q, --quiet     log less (warnings and errors only; twice: errors only)\n"
                "      --syslog    log to syslog (facility daemon) instead of standard output\n"
                "  -h, --help      show this help and exit\n"
                "  -V, --version   show the version and exit\n"
                "\n"
                "Error codes of its refusals: -1 malformed or unknown object, -110 the owner did not answer in\n"
                "time, -104 the owner is not running or ended, -16 too many sets wait for the owner, -13 the\n"
                "virtual system is locked by another's transaction (also the status of a transaction call\n"
                "refused to anyone but the holder).\n"
                "\n"
                "It stops on SIGTERM or SIGINT. Exit status: 0 after a stop, 1 when it cannot serve, 2 for a\n"
                "wrong command line.\n");
}

} // namespace

int main(int argc, char **argv) {
    mgd::Level level = mgd::Level::info;
    if (const char *env = std::getenv("MGMT_LOG_LEVEL"); env && *env && !mgd::parse_level(env, &level)) {
        std::fprintf(stderr, "mgd: MGMT_LOG_LEVEL: '%s' is not a level (error, warning, info, debug)\n", env);
        return mgmt_cli::kUsageError;
    }
    bool to_syslog = false;
    std::string state_dir;
    int relay_timeout_ms = mgd::kRelayTimeoutMs;
    if (const char *env = std::getenv("MGMT_STATE_DIR"); env && *env) state_dir = env;
    static const option options[] = {{"verbose", no_argument, nullptr, 'v'}, {"quiet", no_argument, nullptr, 'q'},
                                     {"syslog", no_argument, nullptr, 'S'},  {"help", no_argument, nullptr, 'h'},
                                     {"state-dir", required_argument, nullptr, 's'},
                                     {"relay-timeout", required_argument, nullptr, 't'},
                                     {"version", no_argument, nullptr, 'V'}, {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "vqhVs:t:", options, nullptr)) != -1;) {
        switch (c) {
        case 'v':
            if (level < mgd::Level::debug) level = static_cast<mgd::Level>(static_cast<int>(level) + 1);
            break;
        case 'q':
            if (level > mgd::Level::error) level = static_cast<mgd::Level>(static_cast<int>(level) - 1);
            break;
        case 'S': to_syslog = true; break;
        case 's': state_dir = optarg; break;
        case 't': {
            char *end = nullptr;
            long ms = std::strtol(optarg, &end, 10);
            if (!*optarg || *end || ms <= 0 || ms > 3600000) {
                std::fprintf(stderr, "mgd: --relay-timeout: '%s' is not a number of milliseconds from 1 to 3600000\n",
                             optarg);
                return mgmt_cli::usage_error("mgd");
            }
            relay_timeout_ms = int(ms);
            break;
        }
        case 'h': usage(); return 0;
        case 'V': return mgmt_cli::version("mgd");
        default: return mgmt_cli::usage_error("mgd");
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "mgd: '%s': no arguments are taken, only options\n", argv[optind]);
        return mgmt_cli::usage_error("mgd");
    }
    mgd::log_setup(level, to_syslog);

    // Handlers and the further addresses come first: once the manager's own
    // address exists, everything it answers is in place.
    ipc_init(MGD_APPID, 0);
    if (state_dir.empty()) {
        const char *dir = ipc_runtime_dir();
        if (!dir) {
            std::fprintf(stderr, "mgd: cannot use the runtime directory %s: %s\n", ipc_runtime_dir_tried(),
                         std::strerror(errno));
            return 1;
        }
        state_dir = std::string(dir) + ".state";
    }
    mgd::Manager manager;
    manager.set_relay_timeout(relay_timeout_ms);
    if (std::string why; !manager.start(state_dir, &why)) {
        std::fprintf(stderr, "mgd: %s\n", why.c_str());
        if (to_syslog) mgd::log(mgd::Level::error, "%s", why.c_str());
        return 1;
    }
    ipc_endpoint_t *mcp = open_management_slot(mgd::Manager::lock_handler());
    ipc_endpoint_t *traps = ipc_endpoint_open(VK_TRAP_APPID, 0, nullptr);
    if (traps) ipc_endpoint_handler(traps, VK_TRAP_MSG, on_trap);
    std::signal(SIGTERM, on_signal);
    std::signal(SIGINT, on_signal);
    if (ipc_register(MGD_APPID, 0) != 0) {
        char why[512];
        ipc_register_error(MGD_APPID, 0, errno, why, sizeof why);
        std::fprintf(stderr, "mgd: cannot serve as application %u: %s\n", MGD_APPID, why);
        if (to_syslog) mgd::log(mgd::Level::error, "cannot serve as application %u: %s", MGD_APPID, why);
        if (mcp) ipc_endpoint_close(mcp);
        if (traps) ipc_endpoint_close(traps);
        return 1;
    }
    mgd::log(mgd::Level::info, "serving in %s%s", ipc_runtime_dir(),
             traps ? "; traps to application 23 are logged here" : "");
    manager.report();

    // Answers to front ends go out of the thread's socket outside a handler: a front end whose
    // queue stays full holds the manager a second at most.
    if (ipc_handle_t *me = ipc_self()) {
        timeval tv{1, 0};
        setsockopt(me->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    }
    std::vector<pollfd> fds;
    while (!stop_requested) {
        fds = {{ipc_daemon_fd(), POLLIN, 0},
               {mcp ? ipc_endpoint_fd(mcp) : -1, POLLIN, 0},
               {traps ? ipc_endpoint_fd(traps) : -1, POLLIN, 0}};
        manager.poll_fds(&fds);
        int wait = manager.wait_ms();
        int n = poll(fds.data(), fds.size(), wait < 0 || wait > 200 ? 200 : wait);
        if (n < 0 && errno != EINTR) {
            mgd::log(mgd::Level::error, "poll: %s", mgd::errno_name(errno));
            break;
        }
        if (n > 0 && (fds[0].revents & POLLIN)) ipc_dispatch_one(0);
        if (n > 0 && mcp && (fds[1].revents & POLLIN)) ipc_endpoint_dispatch(mcp, 0);
        if (n > 0 && traps && (fds[2].revents & POLLIN)) ipc_endpoint_dispatch(traps, 0);
        manager.on_events(fds.data() + 3, n > 0 ? fds.size() - 3 : 0);
    }
    ipc_unsubscribe(IPC_CHANNEL_ADDRESS, MGD_APPID, 0);
    if (mcp) ipc_endpoint_close(mcp);
    if (traps) ipc_endpoint_close(traps);
    mgd::log(mgd::Level::info, "stopped");
    return stop_requested ? 0 : 1;
}
