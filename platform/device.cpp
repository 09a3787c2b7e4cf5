/*
 * The platform stand-in, device services: remote sends and publish channels, running programs,
 * reboot, local time, the device log, the boot console, translation and device paths.
 */
#include "mgmt/platform/device.h"
#include "ipc_internal.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <libintl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

/* ---------------------------------------------------------------- sinks */

struct Sink {
    pthread_mutex_t lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    console_sink_fn fn = nullptr;
    void *ctx = nullptr;

    void set(console_sink_fn f, void *c) {
        pthread_mutex_lock(&lock);
        fn = f;
        ctx = c;
        pthread_mutex_unlock(&lock);
    }
    /* Hands text to the sink; false when none is set (the lock is then held until release()). */
    bool deliver(const char *text) {
        pthread_mutex_lock(&lock);
        if (!fn) return false;
        fn(text, ctx);
        pthread_mutex_unlock(&lock);
        return true;
    }
    void release() { pthread_mutex_unlock(&lock); }
};

Sink g_clog_sink, g_boot_sink;

/* Formats into a string; an empty one when formatting fails. */
std::string vformat(const char *fmt, va_list ap) {
    char stack[1024];
    va_list again;
    va_copy(again, ap);
    int n = vsnprintf(stack, sizeof stack, fmt, ap);
    std::string out;
    if (n < 0) {
        va_end(again);
        return out;
    }
    if ((size_t)n < sizeof stack) {
        out.assign(stack, (size_t)n);
    } else {
        out.resize((size_t)n + 1);
        vsnprintf(out.data(), out.size(), fmt, again);
        out.resize((size_t)n);
    }
    va_end(again);
    return out;
}


/* ---------------------------------------------------------------- programs */

pthread_mutex_t g_capture_lock = PTHREAD_MUTEX_INITIALIZER;
run_capture_fn g_capture = nullptr;
void *g_capture_ctx = nullptr;

/* The capture's answer in *result when one is set. */
bool captured(const char *program, const char *cmdline, int *result) {
    pthread_mutex_lock(&g_capture_lock);
    run_capture_fn fn = g_capture;
    void *ctx = g_capture_ctx;
    pthread_mutex_unlock(&g_capture_lock);
    if (!fn) return false;
    *result = fn(program, cmdline, ctx);
    return true;
}

/* Waits for pid, at most timeout_s seconds when positive (then kills its group). Exit status or -1. */
int wait_for_child(pid_t pid, int timeout_s) {
    int status = 0;
    if (timeout_s <= 0) {
        pid_t r;
        do {
            r = waitpid(pid, &status, 0);
        } while (r < 0 && errno == EINTR);
        return r == pid ? status : -1;
    }
    for (long waited_ms = 0;; waited_ms += 10) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return -1;
        if (waited_ms >= (long)timeout_s * 1000) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            do {
                r = waitpid(pid, &status, 0);
            } while (r < 0 && errno == EINTR);
            return -1;
        }
        poll(nullptr, 0, 10);
    }
}

/*
 * Starts file with argv in a child of its own process group. With wait the child is waited for;
 * without, a middle process starts it and ends at once, so that the caller has nothing to reap.
 * A failed exec is reported through a close-on-exec pipe.
 */
int spawn(const char *file, char *const argv[], int wait, int timeout_s) {
    int pfd[2];
    if (pipe2(pfd, O_CLOEXEC) < 0) return -1;
    pid_t pid = fork();
    if (pid < 0) {
        close(pfd[0]);
        close(pfd[1]);
        return -1;
    }
    if (pid == 0) {
        close(pfd[0]);
        setpgid(0, 0);
        if (!wait) {
            pid_t inner = fork();
            if (inner < 0) {
                int e = errno;
                (void)!write(pfd[1], &e, sizeof e);
                _exit(127);
            }
            if (inner > 0) _exit(0);
        }
        signal(SIGPIPE, SIG_DFL);
        execv(file, argv);
        int e = errno;
        (void)!write(pfd[1], &e, sizeof e);
        _exit(127);
    }
    close(pfd[1]);
    int err = 0;
    ssize_t n;
    do {
        n = read(pfd[0], &err, sizeof err);
    } while (n < 0 && errno == EINTR);
    close(pfd[0]);
    int status = wait_for_child(pid, wait ? timeout_s : 0);
    if (n > 0) return -1; // it never ran
    if (!wait) return 0;
    return status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

std::string env_or_empty(const char *name) {
    const char *v = getenv(name);
    return v ? v : "";
}

} // namespace

extern "C" {

/* ---------------------------------------------------------------- IPC */

int ipcmsg_send_remote(uint32_t slot, uint32_t dst, uint32_t inst, uint16_t msg_id, void *buf, uint32_t len) {
    return ipcmsg_send(mktipcid(slot, inst, dst), inst, msg_id, buf, len);
}

namespace {
int subscription_path(uint32_t channel, uint32_t slot, uint32_t appid, uint32_t instance, char *out, size_t size) {
    const char *dir = ipc_runtime_dir();
    if (!dir) return -EIO;
    int n = snprintf(out, size, "%s/c%u.s%u.a%u.i%u", dir, channel, slot, appid, instance);
    return n > 0 && (size_t)n < size ? 0 : -ENAMETOOLONG;
}
} // namespace

int ipc_subscribe(uint32_t channel, uint32_t appid, uint32_t instance) {
    char path[PATH_MAX];
    int rc = subscription_path(channel, ipc_own_slot(), appid, instance, path, sizeof path);
    if (rc < 0) return rc;
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return -errno;
    close(fd);
    return 0;
}

int ipc_unsubscribe(uint32_t channel, uint32_t appid, uint32_t instance) {
    char path[PATH_MAX];
    int rc = subscription_path(channel, ipc_own_slot(), appid, instance, path, sizeof path);
    if (rc < 0) return rc;
    return unlink(path) == 0 || errno == ENOENT ? 0 : -errno;
}

int ipcmsg_publish(uint32_t channel, void *buf, uint32_t len) {
    const char *rdir = ipc_runtime_dir();
    if (!rdir) return -EIO;
    std::string dir = rdir;
    DIR *d = opendir(dir.c_str());
    if (!d) return -errno;
    char prefix[24];
    snprintf(prefix, sizeof prefix, "c%u.", channel);
    size_t plen = strlen(prefix);
    int result = 0;
    while (dirent *e = readdir(d)) {
        if (strncmp(e->d_name, prefix, plen) != 0) continue;
        unsigned slot, app, inst;
        char tail;
        if (sscanf(e->d_name + plen, "s%u.a%u.i%u%c", &slot, &app, &inst, &tail) != 3) continue;
        int rc = ipcmsg_send(mktipcid(slot, inst, app), inst, (uint16_t)channel, buf, len);
        if (rc == -ENOENT || rc == -ECONNREFUSED) {
            unlink((dir + "/" + e->d_name).c_str()); // its endpoint is gone
        } else if (rc < 0 && result == 0) {
            result = rc;
        }
    }
    closedir(d);
    return result;
}

/* ---------------------------------------------------------------- programs */

void run_set_capture(run_capture_fn fn, void *ctx) {
    pthread_mutex_lock(&g_capture_lock);
    g_capture = fn;
    g_capture_ctx = ctx;
    pthread_mutex_unlock(&g_capture_lock);
}

int run_shellcmd(const char *program, const char *cmdline, int wait, int timeout_s) {
    if (!cmdline) return -1;
    int result;
    if (captured(program ? program : "", cmdline, &result)) return result;
    char sh[] = "/bin/sh", dash_c[] = "-c";
    std::string line = cmdline;
    char *argv[] = {sh, dash_c, line.data(), nullptr};
    return spawn("/bin/sh", argv, wait, timeout_s);
}

int run_execv(const char *path, char *const argv[], int wait, int timeout_s) {
    if (!path || !argv) return -1;
    std::string line;
    for (char *const *a = argv; *a; ++a) {
        if (a != argv) line += ' ';
        line += *a;
    }
    int result;
    if (captured(path, line.c_str(), &result)) return result;
    char file[PATH_MAX];
    device_path(path, file, sizeof file);
    return spawn(file, argv, wait, timeout_s);
}

int vk_reboot(void) {
    std::string cmd = env_or_empty("MGMT_REBOOT_CMD");
    if (cmd.empty()) {
        vk_clog("[%s/%d]: reboot requested; no reboot command is set, the system keeps running\n",
                appid2appname(myipc.appid), (int)myipc.instance);
        return 0;
    }
    vk_clog("[%s/%d]: reboot: %s\n", appid2appname(myipc.appid), (int)myipc.instance, cmd.c_str());
    char sh[] = "/bin/sh", dash_c[] = "-c";
    char *argv[] = {sh, dash_c, cmd.data(), nullptr};
    return spawn("/bin/sh", argv, 1, 0);
}

struct tm *vk_localtime(const time_t *t, struct tm *out) {
    if (!t || !out) return nullptr;
    return localtime_r(t, out);
}

/* ---------------------------------------------------------------- texts */

void vk_clog_set_sink(console_sink_fn fn, void *ctx) { g_clog_sink.set(fn, ctx); }

void vk_clog(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string text = vformat(fmt, ap);
    va_end(ap);
    if (g_clog_sink.deliver(text.c_str())) return;
    syslog(LOG_INFO, "%s", text.c_str());
    g_clog_sink.release();
}

void boot_set_sink(console_sink_fn fn, void *ctx) { g_boot_sink.set(fn, ctx); }

void boot_print(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string text = vformat(fmt, ap);
    va_end(ap);
    if (g_boot_sink.deliver(text.c_str())) return;
    std::string path = env_or_empty("MGMT_BOOT_CONSOLE");
    if (path.empty()) path = env_or_empty("MGMT_CONSOLE");
    int fd = path.empty() ? -1 : open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
    plat::write_all(fd >= 0 ? fd : STDERR_FILENO, text.data(), text.size());
    if (fd >= 0) close(fd);
    g_boot_sink.release();
}

const char *MSG_TR(const char *text) {
    if (!text) return "";
    return dgettext("msg", text);
}

int vk_syslog_init(const char *ident, int option, int facility) {
    openlog(ident, option, facility);
    return 0;
}

namespace {
int g_debug = 0;
}

int vk_debug_init(void) {
    const char *v = getenv("MGMT_DEBUG");
    g_debug = v && atoi(v) != 0;
    return 0;
}

int vk_debug_enabled(void) { return g_debug; }

/* ---------------------------------------------------------------- paths */

char *device_path(const char *path, char *out, size_t size) {
    if (!out || !size) return out;
    if (!path) {
        out[0] = 0;
        return out;
    }
    const char *root = getenv("MGMT_SYSROOT");
    if (root && *root && path[0] == '/')
        snprintf(out, size, "%s%s", root, path);
    else
        strlcpy(out, path, size);
    return out;
}

} // extern "C"
