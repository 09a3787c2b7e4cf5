/*
 * The platform stand-in, requests from an event loop: a socket of its own per client, sends that
 * never wait, replies taken with the sequence of their request, and watches on the processes that
 * serve destinations.
 */
#include "ipc_internal.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <string>
#include <map>
#include <unistd.h>

using namespace plat;

struct ipc_client {
    int fd = -1;
    uint32_t seq = 0;
    Owned own{};
    std::map<std::string, int> watches; // address -> pidfd
};

namespace {
std::atomic<unsigned> g_clients{0};
}

extern "C" {

ipc_client_t *ipc_client_open(void) {
    auto *c = new (std::nothrow) ipc_client;
    if (!c) {
        errno = ENOMEM;
        return nullptr;
    }
    char name[48];
    snprintf(name, sizeof name, "r%d.%u", (int)getpid(), g_clients.fetch_add(1));
    c->fd = open_bound(name, false, &c->own);
    if (c->fd < 0 || fcntl(c->fd, F_SETFL, O_NONBLOCK) != 0) {
        int err = c->fd < 0 ? -c->fd : errno;
        ipc_client_close(c);
        errno = err;
        return nullptr;
    }
    return c;
}

int ipc_client_fd(const ipc_client_t *c) { return c ? c->fd : -1; }

int ipc_client_send(ipc_client_t *c, uint32_t dst, uint16_t msg_id, const void *buf, uint32_t len, uint32_t *seq) {
    if (!c) return -EINVAL;
    ipc_handle_t *me = ipc_self();
    if (!me) return errno ? -errno : -EIO;
    sockaddr_un sa;
    socklen_t salen;
    Src to;
    int rc = dst_addr(dst, 0, &sa, &salen, &to);
    if (rc < 0) return rc;
    if (++c->seq == 0) ++c->seq;
    rc = send_frame(c->fd, &sa, salen, msg_id, IPC_KIND_REQUEST, c->seq, 0, Src{me->slot, me->appid, me->instance},
                    to, buf, len);
    if (rc == -ETIMEDOUT) return -EAGAIN; // the destination's queue is full
    if (rc == 0 && seq) *seq = c->seq;
    return rc;
}

int ipc_client_recv(ipc_client_t *c, uint32_t *seq, int32_t *status, void *buf, uint32_t cap) {
    if (!c) return -EINVAL;
    for (;;) {
        ipc_frame_t fr;
        int n = recv_frame(c->fd, &fr, nullptr, buf, cap, 0);
        if (n < 0) return n;
        if (fr.kind != IPC_KIND_REPLY) continue;
        if (seq) *seq = fr.seq;
        if (status) *status = fr.status;
        return n;
    }
}

int ipc_client_watch(ipc_client_t *c, uint32_t dst) {
    if (!c) return -1;
    sockaddr_un sa;
    socklen_t salen;
    if (dst_addr(dst, 0, &sa, &salen) < 0) return -1;
    int &fd = c->watches.emplace(sa.sun_path, -1).first->second;
    return fd = renew_process_watch(fd, sa.sun_path);
}

void ipc_client_close(ipc_client_t *c) {
    if (!c) return;
    for (auto &w : c->watches)
        if (w.second >= 0) close(w.second);
    if (c->fd >= 0) {
        close(c->fd);
        disown(&c->own);
    }
    delete c;
}

} // extern "C"
