#include "log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <syslog.h>

namespace mgd {

namespace {

Level g_threshold = Level::info;
bool g_syslog = false;

const char *const kNames[] = {"error", "warning", "info", "debug"};

} // namespace

bool parse_level(const char *text, Level *out) {
    for (int i = 0; i < 4; ++i)
        if (text && std::strcmp(text, kNames[i]) == 0) {
            *out = static_cast<Level>(i);
            return true;
        }
    return false;
}

void log_setup(Level threshold, bool to_syslog) {
    g_threshold = threshold;
    if (to_syslog && !g_syslog) openlog("mgd", LOG_PID, LOG_DAEMON);
    g_syslog = to_syslog;
}

bool log_enabled(Level level) { return level <= g_threshold; }

void log(Level level, const char *fmt, ...) {
    if (!log_enabled(level)) return;
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    const char *tag = level == Level::error ? "error: " : level == Level::warning ? "warning: " : "";
    if (g_syslog) {
        static const int prio[] = {LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG};
        syslog(prio[static_cast<int>(level)], "%s%s", tag, text);
        return;
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::printf("%s.%03ld mgd: %s%s\n", stamp, now.tv_nsec / 1000000, tag, text);
    std::fflush(stdout);
}

const char *errno_name(int err) {
    if (const char *name = strerrorname_np(err)) return name;
    static thread_local char number[24];
    std::snprintf(number, sizeof number, "error %d", err);
    return number;
}

} // namespace mgd
