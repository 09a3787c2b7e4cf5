#include "device_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mgmt/device.h"
#include "mgmt/platform/device.h"

namespace fs = std::filesystem;

namespace devtest {

Hooks hook;

Sysroot::Sysroot() {
    char tmpl[] = "/tmp/mgmt-devtest-XXXXXX";
    if (mkdtemp(tmpl)) dir_ = tmpl;
    root_ = dir_ + "/root";
    mkdir(root_.c_str(), 0755);
    setenv("MGMT_SYSROOT", root_.c_str(), 1);
    setenv("MGMT_CONSOLE", console().c_str(), 1);
    setenv("MGMT_BOOT_CONSOLE", boot_console().c_str(), 1);
}

Sysroot::~Sysroot() {
    for (const char *name : {"MGMT_SYSROOT", "MGMT_CONSOLE", "MGMT_BOOT_CONSOLE"})
        unsetenv(name);
    std::error_code ec;
    if (!dir_.empty()) fs::remove_all(dir_, ec);
}

bool children_gone(const std::function<void()> &reap, int ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        reap();
        long pid = 0;
        std::error_code ec;
        for (const auto &task : fs::directory_iterator("/proc/self/task", ec))
            if (std::ifstream(task.path() / "children") >> pid) break;
        if (pid <= 0) return true;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        if (left <= 0) return false;
        pollfd p = {int(syscall(SYS_pidfd_open, pid_t(pid), 0)), POLLIN, 0};
        if (p.fd < 0) continue; // reaped meanwhile
        poll(&p, 1, int(left));
        close(p.fd);
    }
}

std::string read_file(const std::string &path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text, int mode) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), static_cast<mode_t>(mode));
}

void expect_golden(const std::string &name, const std::string &got) {
    const std::string golden = std::string(MGMT_SOURCE_DIR) + "/tests/device/" + name;
    if (getenv("MGMT_UPDATE_GOLDEN")) write_file(golden, got);
    EXPECT_EQ(got, read_file(golden)) << "MGMT_UPDATE_GOLDEN=1 writes what ran; review the difference";
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void make_dirs(const std::string &path) {
    std::error_code ec;
    fs::create_directories(path, ec);
}

Bytes host_words(std::initializer_list<uint32_t> words) {
    Bytes b(words.size() * 4);
    std::memcpy(b.data(), words.begin(), b.size());
    return b;
}

Bytes be_words(std::initializer_list<uint32_t> words) {
    Bytes b(words.size() * 4);
    size_t at = 0;
    for (uint32_t w : words)
        mgmt::put_be32(&b[at += 4] - 4, w);
    return b;
}

uint32_t host32(const Bytes &b, size_t off) {
    uint32_t v;
    std::memcpy(&v, &b[off], 4);
    return v;
}

Bytes operator+(Bytes a, const std::string &s) {
    a.insert(a.end(), s.begin(), s.end());
    return a;
}

LogCapture::LogCapture() {
    vk_clog_set_sink([](const char *text, void *ctx) { static_cast<LogCapture *>(ctx)->text_ += text; }, this);
}
LogCapture::~LogCapture() { vk_clog_set_sink(nullptr, nullptr); }

void reset_hooks() {
    fault::disarm();
    hook.wait_fails = false;
    hook.child_wait_status = -1;
    hook.system = hook.popen = Hooks::run;
    hook.access_suffix.clear();
    hook.log.clear();
    run_set_capture(nullptr, nullptr);
}

void capture_runs(int result) {
    run_set_capture(
        [](const char *program, const char *cmdline, void *ctx) {
            hook.log.push_back(std::string("run ") + program + ": " + cmdline);
            return static_cast<int>(reinterpret_cast<intptr_t>(ctx));
        },
        reinterpret_cast<void *>(intptr_t(result)));
}

} // namespace devtest

// ---------------------------------------------------------------- the stand-ins
//
// The library opens and runs device paths as they are written ("/etc/CMD_...", "/flash/...",
// "/usr/local/sbin/cli"). While a Sysroot lives, the calls below take those paths below its root:
// file opens, access, mkfifo, unlink, the program and arguments of execv, and the words of a
// command line given to system(). Other paths pass unchanged. Nothing here allocates: the
// library's children call these between fork and exit.

using devtest::hook;
using devtest::Hooks;

namespace {

bool is_device_path(const char *p) {
    for (const char *prefix : {"/etc/", "/flash/", "/usr/local/sbin/", "/proc/mgd_", MGMT_CHILD_MONITORD_PID_FILE,
                               MGMT_START_STATIC_CONFIG_FILE})
        if (std::strncmp(p, prefix, std::strlen(prefix)) == 0) return true;
    return false;
}

// path below MGMT_SYSROOT when it is a device path and a root is set; else path itself.
const char *in_tree(const char *path, char *buf, size_t size) {
    const char *root = getenv("MGMT_SYSROOT");
    if (!path || !root || !*root || !is_device_path(path)) return path;
    snprintf(buf, size, "%s%s", root, path);
    return buf;
}

// The words of a command line that are device paths, taken below MGMT_SYSROOT.
const char *command_in_tree(const char *command, char *buf, size_t size) {
    const char *root = getenv("MGMT_SYSROOT");
    if (!command || !root || !*root) return command;
    size_t at = 0;
    for (const char *p = command; *p && at + 1 < size; ++p) {
        if ((p == command || p[-1] == ' ') && is_device_path(p))
            for (const char *r = root; *r && at + 1 < size; ++r)
                buf[at++] = *r;
        if (at + 1 < size) buf[at++] = *p;
    }
    buf[at] = 0;
    return buf;
}


} // namespace

#define STAND_IN extern "C" __attribute__((visibility("default")))

// The function that a stand-in named `name` hides, of the type fn_t.
// The look-up runs once, at the first call; a thread that waits for another's look-up may find
// errno changed by that wait, so errno is kept across it.
#define REAL(name)                                                                                                     \
    const int saved_errno_ = errno;                                                                                    \
    static const auto real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, name));                                          \
    errno = saved_errno_

#define IN_TREE(name, path)                                                                                            \
    char name##_buf[PATH_MAX];                                                                                         \
    const char *name = in_tree(path, name##_buf, sizeof name##_buf)

// A call whose first argument, path, is taken into the device tree.
#define TREE_STAND_IN(ret, name, params, ...)                                                                          \
    STAND_IN ret name params {                                                                                         \
        using fn_t = ret(*) params;                                                                                    \
        REAL(#name);                                                                                                   \
        IN_TREE(p, path);                                                                                              \
        return real(p __VA_OPT__(, ) __VA_ARGS__);                                                                     \
    }

TREE_STAND_IN(FILE *, fopen, (const char *path, const char *mode), mode)
TREE_STAND_IN(int, mkfifo, (const char *path, mode_t mode), mode)
TREE_STAND_IN(int, unlink, (const char *path))

// Children of the library end with exit(); leak checking belongs to the test process only.
STAND_IN int __lsan_is_turned_off() { return fault::in_child(); }

STAND_IN pid_t wait(int *status) {
    using fn_t = pid_t (*)(int *);
    REAL("wait");
    if (!fault::in_child() && hook.wait_fails.exchange(false)) {
        errno = ECHILD;
        return -1;
    }
    pid_t r = real(status);
    if (r > 0 && fault::in_child() && status) {
        int forced = hook.child_wait_status.exchange(-1);
        if (forced != -1) *status = forced;
    }
    return r;
}

STAND_IN int system(const char *command) {
    using fn_t = int (*)(const char *);
    REAL("system");
    char line[4096];
    if (hook.system == Hooks::run) return real(command_in_tree(command, line, sizeof line));
    if (hook.system == Hooks::fail) return -1;
    hook.log.push_back(std::string("system: ") + (command ? command : "(null)"));
    return 0;
}

STAND_IN FILE *popen(const char *command, const char *type) {
    using fn_t = FILE *(*)(const char *, const char *);
    REAL("popen");
    if (hook.popen == Hooks::run) return real(command, type);
    if (hook.popen == Hooks::record) {
        hook.log.push_back(std::string("popen ") + type + ": " + command);
        return real(":", type);
    }
    errno = EMFILE;
    return nullptr;
}

STAND_IN int open(const char *path, int flags, ...) {
    using fn_t = int (*)(const char *, int, ...);
    REAL("open");
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? mode_t(va_arg(ap, int)) : 0;
    va_end(ap);
    IN_TREE(p, path);
    return real(p, flags, mode);
}

STAND_IN int execv(const char *path, char *const argv[]) {
    using fn_t = int (*)(const char *, char *const[]);
    REAL("execv");
    // Static: a caller may run on a small stack (a clone child), and an exec replaces everything.
    static char file[PATH_MAX], bufs[8][PATH_MAX];
    static char *args[9];
    size_t n = 0;
    for (; argv[n] && n < 8; ++n)
        args[n] = const_cast<char *>(in_tree(argv[n], bufs[n], sizeof bufs[n]));
    args[n] = nullptr;
    return real(in_tree(path, file, sizeof file), argv[n] ? argv : args);
}

STAND_IN int access(const char *path, int mode) {
    using fn_t = int (*)(const char *, int);
    REAL("access");
    if (hook.access_suffix.empty() || !std::string_view(path).ends_with(hook.access_suffix)) {
        IN_TREE(p, path);
        return real(p, mode);
    }
    errno = EACCES;
    return -1;
}
