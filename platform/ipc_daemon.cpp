/*
 * The platform stand-in, serving side: endpoints bound at (slot, appid, instance), handler tables,
 * dispatch of one message, the serve loop and its stop, answers to a peer.
 *
 * An endpoint is dispatched by one thread at a time; its receive and reply buffers are its own, so
 * dispatching allocates nothing.
 */
#include "ipc_internal.h"
#include "mgmt/platform/device.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace plat;

constexpr size_t kHandlers = 65536;

struct ipc_endpoint {
    int fd = -1;
    int stopfd = -1; // eventfd: ipc_*stop writes, serve wakes (async-signal-safe)
    Src id{};
    void *ctx = nullptr;
    ipc_handler_fn *handlers = nullptr; // own_table, or the process table
    ipc_handler_fn *own_table = nullptr;
    int sndtimeo = -1;
    Owned own{};
    alignas(8) uint8_t rx[IPC_MAX_PAYLOAD];
    alignas(8) uint8_t tx[IPC_MAX_PAYLOAD];
};

namespace {

ipc_handler_fn g_proc_handlers[kHandlers]; // handlers of the process endpoint (ipc_register_handler)
std::atomic<ipc_endpoint *> g_proc{nullptr};

/* Who a peer is, as its frame said. */
Src peer_src(const ipc_peer_t &p) { return Src{p.slot, p.appid, p.instance}; }

/* The endpoint whose handler runs on this thread: ipc_send_to_peer answers from its socket. */
thread_local ipc_endpoint *t_current = nullptr;

ipc_endpoint *open_endpoint(uint32_t appid, uint32_t instance, void *ctx, ipc_handler_fn *table) {
    auto *ep = new (std::nothrow) ipc_endpoint;
    if (!ep) {
        errno = ENOMEM;
        return nullptr;
    }
    ep->id = Src{ipc_own_slot(), appid, instance};
    ep->ctx = ctx;
    if (!table) table = ep->own_table = (ipc_handler_fn *)calloc(kHandlers, sizeof(ipc_handler_fn));
    ep->handlers = table;
    char name[64];
    snprintf(name, sizeof name, "s%u.a%u.i%u", ep->id.slot, appid, instance);
    ep->stopfd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int err = !table ? ENOMEM : errno;
    if (table && ep->stopfd >= 0) {
        ep->fd = open_bound(name, true, &ep->own);
        if (ep->fd < 0) err = -ep->fd;
    }
    if (ep->fd < 0) {
        if (ep->stopfd >= 0) close(ep->stopfd);
        free(ep->own_table);
        delete ep;
        errno = err;
        return nullptr;
    }
    set_send_timeout(ep->fd, default_timeout_ms(), &ep->sndtimeo);
    ipc_address_note_t note{ep->id.slot, appid, instance, (int32_t)getpid()};
    ipcmsg_publish(IPC_CHANNEL_ADDRESS, &note, sizeof note); // whoever follows addresses hears of it
    return ep;
}

void close_endpoint(ipc_endpoint *ep) {
    if (!ep) return;
    close(ep->fd);
    close(ep->stopfd);
    disown(&ep->own); // unlinks the name only in the process that bound it
    free(ep->own_table);
    delete ep;
}

void handle(ipc_endpoint *ep, const ipc_frame_t &fr, ipc_peer_t &peer, uint32_t len) {
    peer.ctx = ep->ctx;
    uint16_t msg = (uint16_t)(fr.msg_be[0] << 8 | fr.msg_be[1]);
    ipc_handler_fn fn = ep->handlers[msg];
    int32_t status = 0;
    uint32_t rlen = 0;
    int action = IPC_HANDLER_REPLY;
    if (fn) {
        ipc_frame_t head = fr; // the handler may scribble on its copy
        rlen = IPC_MAX_PAYLOAD;
        ipc_endpoint *prev = t_current;
        t_current = ep;
        action = fn(&peer, &head, ep->rx, len, &status, ep->tx, &rlen);
        t_current = prev;
        if (rlen > IPC_MAX_PAYLOAD) rlen = IPC_MAX_PAYLOAD;
    } else {
        status = -1; // nobody handles this number: answer so that no caller hangs
    }
    if (action != IPC_HANDLER_REPLY || fr.kind != IPC_KIND_REQUEST || peer.addrlen <= sizeof(sa_family_t)) return;
    sockaddr_un to;
    memcpy(&to, peer.addr, sizeof to);
    send_frame(ep->fd, &to, peer.addrlen, msg, IPC_KIND_REPLY, fr.seq, status, ep->id, peer_src(peer), ep->tx,
               rlen);
}

/* 1 dispatched, 0 time-out (or stop, with watch_stop), -1 error. */
int dispatch(ipc_endpoint *ep, int timeout_ms, bool watch_stop) {
    if (!ep) return -1;
    long long deadline = timeout_ms > 0 ? now_ms() + timeout_ms : 0;
    for (;;) {
        int wait = timeout_ms;
        if (timeout_ms > 0) {
            long long left = deadline - now_ms();
            wait = left > 0 ? (int)left : 0;
        }
        pollfd p[2] = {{ep->fd, POLLIN, 0}, {ep->stopfd, POLLIN, 0}};
        int r = poll(p, watch_stop ? 2 : 1, wait);
        if (r < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (watch_stop && (p[1].revents & POLLIN)) return 0;
        if (p[0].revents & POLLNVAL) return -1;
        if (r > 0) {
            ipc_frame_t fr;
            ipc_peer_t peer;
            int n = recv_frame(ep->fd, &fr, &peer, ep->rx, sizeof ep->rx, 0);
            if (n >= 0) {
                handle(ep, fr, peer, (uint32_t)n);
                return 1;
            }
            if (n != -EAGAIN) return -1;
            // only dropped messages: wait on with what is left
        }
        if (wait == 0) return 0;
    }
}

int serve(ipc_endpoint *ep) {
    if (!ep) return -1;
    for (;;) {
        int r = dispatch(ep, -1, true);
        if (r < 0) return -1;
        if (r == 0) {
            uint64_t v;
            if (read(ep->stopfd, &v, sizeof v) < 0) { /* already consumed */ }
            return 0;
        }
    }
}

void stop(ipc_endpoint *ep) {
    if (!ep) return;
    uint64_t one = 1;
    if (write(ep->stopfd, &one, sizeof one) < 0) { /* counter full: a stop is pending anyway */ }
}

} // namespace

ipc_handler_fn plat::process_handler(uint16_t msg) { return g_proc_handlers[msg]; }

extern "C" {

ipc_endpoint_t *ipc_endpoint_open(uint32_t appid, uint32_t instance, void *ctx) {
    return open_endpoint(appid, instance, ctx, nullptr);
}

int ipc_endpoint_handler(ipc_endpoint_t *ep, uint16_t msg_id, ipc_handler_fn fn) {
    if (!ep) return -1;
    ep->handlers[msg_id] = fn;
    return 0;
}

int ipc_endpoint_fd(ipc_endpoint_t *ep) { return ep ? ep->fd : -1; }
int ipc_endpoint_dispatch(ipc_endpoint_t *ep, int timeout_ms) { return dispatch(ep, timeout_ms, false); }
int ipc_endpoint_serve(ipc_endpoint_t *ep) { return serve(ep); }
void ipc_endpoint_stop(ipc_endpoint_t *ep) { stop(ep); }
void ipc_endpoint_close(ipc_endpoint_t *ep) { close_endpoint(ep); }

int ipc_register(uint32_t appid, uint32_t instance) {
    ipc_init(appid, instance);
    close_endpoint(g_proc.exchange(nullptr));
    ipc_endpoint *ep = open_endpoint(appid, instance, nullptr, g_proc_handlers);
    int err = errno;
    g_proc.store(ep);
    errno = err;
    return ep ? 0 : -1;
}

int ipc_register_handler(uint16_t msg_id, ipc_handler_fn fn) {
    g_proc_handlers[msg_id] = fn;
    return 0;
}

int ipc_daemon_fd(void) {
    ipc_endpoint *ep = g_proc.load();
    return ep ? ep->fd : -1;
}

int ipc_dispatch_one(int timeout_ms) { return dispatch(g_proc.load(), timeout_ms, false); }
int ipc_serve(void) { return serve(g_proc.load()); }
void ipc_stop(void) { stop(g_proc.load()); }

int ipc_send_to_peer(const ipc_peer_t *peer, uint16_t msg_id, const void *buf, uint32_t len, int32_t status) {
    if (!peer || peer->addrlen <= sizeof(sa_family_t) || peer->addrlen > sizeof(sockaddr_un)) return -EINVAL;
    sockaddr_un to;
    memcpy(&to, peer->addr, sizeof to);
    if (ipc_endpoint *ep = t_current) // inside a handler: answer from the endpoint's own socket
        return send_frame(ep->fd, &to, peer->addrlen, msg_id, IPC_KIND_REPLY, peer->seq, status, ep->id,
                          peer_src(*peer), buf, len);
    ipc_handle_t *me = ipc_self();
    if (!me) return -EIO;
    return send_frame(me->fd, &to, peer->addrlen, msg_id, IPC_KIND_REPLY, peer->seq, status,
                      Src{me->slot, me->appid, me->instance}, peer_src(*peer), buf, len);
}

void ipc_close(void) {
    close_endpoint(g_proc.exchange(nullptr));
    close_thread_socket(false);
}

void ipc_reset(void) {
    ipc_close();
    close_thread_socket(true);
    set_process_identity(false, 0, 0);
    memset(g_proc_handlers, 0, sizeof g_proc_handlers);
}

} // extern "C"
