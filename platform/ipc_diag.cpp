/*
 * The platform stand-in: who holds a daemon address, and why an address could not be bound, in
 * words for an operator.
 *
 * A Unix datagram socket gives no peer credentials to a connect, so the holder is asked instead: a
 * request of message number IPC_MSG_PROBE, which no handler serves, is answered by the holder's
 * dispatch with status -1, and the answer's SCM_CREDENTIALS name its process. The probe uses
 * sequence 0, which no ordinary request of a thread carries, so that no other answer is taken
 * for it.
 */
#include "ipc_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {

int ipc_address_holder(uint32_t appid, uint32_t instance, int timeout_ms) {
    ipc_handle_t *me = ipc_self();
    if (!me) return -1;
    sockaddr_un sa;
    socklen_t salen;
    plat::Src to{};
    int rc = plat::dst_addr(mktipcid(0, instance, appid), 0, &sa, &salen, &to);
    if (rc == 0)
        rc = plat::send_frame(me->fd, &sa, salen, IPC_MSG_PROBE, IPC_KIND_REQUEST, 0, 0,
                              plat::Src{me->slot, me->appid, me->instance}, to, nullptr, 0);
    if (rc == -ENOENT || rc == -ECONNREFUSED) return 0; // nobody there
    if (rc < 0) {
        errno = -rc;
        return -1;
    }
    long long deadline = plat::now_ms() + (timeout_ms > 0 ? timeout_ms : 0);
    for (;;) {
        long long left = deadline - plat::now_ms();
        ipc_frame_t fr;
        ipc_peer_t peer;
        int n = plat::recv_frame(me->fd, &fr, &peer, nullptr, 0, left > 0 ? (int)left : 0);
        if (n == -EAGAIN || n == -ETIMEDOUT) return 0; // a holder that does not answer
        if (n < 0) {
            errno = -n;
            return -1;
        }
        if (fr.kind == IPC_KIND_REPLY && fr.seq == 0) return peer.pid;
    }
}

const char *ipc_register_error(uint32_t appid, uint32_t instance, int err, char *buf, size_t size) {
    if (!buf || !size) return "";
    const char *dir = ipc_runtime_dir();
    if (!dir) {
        int dir_err = errno;
        snprintf(buf, size, "the runtime directory %s cannot be used: %s", ipc_runtime_dir_tried(),
                 strerror(dir_err));
        return buf;
    }
    if (err != EADDRINUSE) {
        snprintf(buf, size, "%s", strerror(err));
        return buf;
    }
    int pid = ipc_address_holder(appid, instance, 1000);
    if (pid <= 0) {
        snprintf(buf, size, "another process holds the address of application %u in %s and does not answer",
                 appid, dir);
        return buf;
    }
    char name[32] = "process";
    char path[40];
    snprintf(path, sizeof path, "/proc/%d/comm", pid);
    if (FILE *f = fopen(path, "r")) {
        if (fgets(name, sizeof name, f)) name[strcspn(name, "\n")] = '\0';
        if (!name[0]) snprintf(name, sizeof name, "process");
        fclose(f);
    }
    snprintf(buf, size, "another %s (pid %d) serves %s", name, pid, dir);
    return buf;
}

} // extern "C"
