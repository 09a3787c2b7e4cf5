/*
 * The platform stand-in: console output with a capture sink, application names, strlcpy (where the
 * C library has none) and the platform's language words.
 */
#include "mgmt/platform/platform.h"
#include "ipc_internal.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

extern "C" {
int _ui_language = 0;
int _system_language = 0;
}

namespace {

/* Recursive: a sink may print, and console_set_sink waits for a sink call under way to end. */
pthread_mutex_t g_sink_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
console_sink_fn g_sink = nullptr;
void *g_sink_ctx = nullptr;


} // namespace

namespace plat {

void write_all(int fd, const char *p, size_t n) {
    while (n) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return;
        p += w;
        n -= (size_t)w;
    }
}

} // namespace plat

extern "C" {

void console_set_sink(console_sink_fn fn, void *ctx) {
    pthread_mutex_lock(&g_sink_lock);
    g_sink = fn;
    g_sink_ctx = ctx;
    pthread_mutex_unlock(&g_sink_lock);
}

void console_print(const char *fmt, ...) {
    char stack[1024];
    char *text = stack;
    va_list ap, again;
    va_start(ap, fmt);
    va_copy(again, ap);
    int n = vsnprintf(stack, sizeof stack, fmt, ap);
    va_end(ap);
    if (n >= (int)sizeof stack) {
        text = (char *)malloc((size_t)n + 1);
        if (text)
            vsnprintf(text, (size_t)n + 1, fmt, again);
        else
            text = stack, n = (int)sizeof stack - 1; // out of memory: the text cut
    }
    va_end(again);
    if (n < 0) return;

    pthread_mutex_lock(&g_sink_lock);
    if (g_sink) {
        g_sink(text, g_sink_ctx);
    } else {
        const char *path = getenv("MGMT_CONSOLE");
        int fd = path && *path ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644) : -1;
        plat::write_all(fd >= 0 ? fd : STDERR_FILENO, text, (size_t)n);
        if (fd >= 0) close(fd);
    }
    pthread_mutex_unlock(&g_sink_lock);
    if (text != stack) free(text);
}

const char *appid2appname(uint32_t id) {
    static thread_local char name[16];
    if (id == 2) return "mgd";
    snprintf(name, sizeof name, "app%u", id);
    return name;
}

#ifndef PLATFORM_LIBC_HAS_STRLCPY
/* Weak: a static link beside libbsd's copy takes that one; in a dynamic link either serves alike. */
__attribute__((weak)) size_t strlcpy(char *dst, const char *src, size_t size) {
    size_t n = strlen(src);
    if (size) {
        size_t c = n < size - 1 ? n : size - 1;
        memmove(dst, src, c);
        dst[c] = 0;
    }
    return n;
}
#endif

} // extern "C"
