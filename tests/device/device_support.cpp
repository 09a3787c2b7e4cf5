#include "device_support.h"

#include <atomic>
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
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mgmt/device.h"
#include "mgmt/platform/device.h"

namespace fs = std::filesystem;

namespace devtest {
namespace {

pid_t g_test_pid = 0;
char g_base[64] = "";

// Before any other start-up code of the program: a temporary directory for the whole run, and
// the runtime directory inside it. The children that the library forks end with exit(), which
// runs the program's exit handlers; only the test process itself removes anything.
__attribute__((constructor(101))) void program_dirs() {
    g_test_pid = getpid();
    std::strcpy(g_base, "/tmp/mgmt-devtest-XXXXXX");
    if (!mkdtemp(g_base)) {
        g_base[0] = 0;
        return;
    }
    if (!getenv("MGMT_IPC_DIR")) {
        const std::string ipc = std::string(g_base) + "/ipc";
        mkdir(ipc.c_str(), 0700);
        setenv("MGMT_IPC_DIR", ipc.c_str(), 1);
    }
    atexit([] {
        std::error_code ec;
        if (getpid() == g_test_pid) fs::remove_all(g_base, ec);
    });
}

std::string base() { return g_base[0] ? g_base : "/tmp"; }

} // namespace

Sysroot::Sysroot() {
    std::string tmpl = base() + "/devXXXXXX";
    if (mkdtemp(tmpl.data())) dir_ = tmpl;
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
    Bytes b;
    for (uint32_t w : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            b.push_back(uint8_t(w >> shift));
    return b;
}

uint32_t host32(const Bytes &b, size_t off) {
    uint32_t v;
    std::memcpy(&v, &b[off], 4);
    return v;
}

std::string text_at(const Bytes &b, size_t off, size_t len) {
    const char *p = reinterpret_cast<const char *>(b.data() + off);
    return std::string(p, strnlen(p, len));
}

Bytes operator+(Bytes a, const std::string &s) {
    a.insert(a.end(), s.begin(), s.end());
    return a;
}

LogCapture::LogCapture() {
    vk_clog_set_sink([](const char *text, void *ctx) { static_cast<LogCapture *>(ctx)->text_ += text; }, this);
}
LogCapture::~LogCapture() { vk_clog_set_sink(nullptr, nullptr); }

StdoutCapture::StdoutCapture() {
    fflush(stdout);
    file_ = base() + "/stdout." + std::to_string(getpid());
    int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    saved_ = dup(1);
    dup2(fd, 1);
    close(fd);
}

std::string StdoutCapture::text() {
    if (saved_ < 0) return text_;
    fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
    saved_ = -1;
    text_ = read_file(file_);
    unlink(file_.c_str());
    return text_;
}

// ---------------------------------------------------------------- hooks

namespace hooks {
namespace {

// The counters are atomic, as any thread may allocate or fork; the rest is set by the test and
// read by stand-ins that run on its behalf, one at a time.
std::atomic<int> alloc_fail{0}, alloc_skip{0}, size_fail_count{0}, fork_fail{0};
std::atomic<size_t> size_fail_size{0};
std::atomic<bool> size_fail_children{false}, fork_fail_children{false};
SystemMode system_mode = SystemMode::run;
PopenMode popen_mode = PopenMode::run;
std::string popen_substitute, access_suffix;
int access_mode = 0;
bool lock_driver = false, no_localtime = false;
uint16_t lock_driver_id = 0;
LockRecordSeen lock_seen{};
std::vector<std::string> log;

// Takes one from a positive counter.
bool take(std::atomic<int> &counter) {
    int n = counter.load();
    while (n > 0)
        if (counter.compare_exchange_weak(n, n - 1)) return true;
    return false;
}

bool in_child() { return getpid() != g_test_pid; }
std::atomic<int> child_wait_status{-1};
std::atomic<bool> wait_fails{false};

bool in_scope(bool children_only) { return !children_only || in_child(); }

} // namespace

void fail_ipcmsg_alloc(int count, int skip) {
    alloc_skip = skip;
    alloc_fail = count;
}

bool malloc_hook_available() {
#if defined(__SANITIZE_ADDRESS__)
    return false;
#else
    return true;
#endif
}

void fail_alloc_of_size(size_t size, int count, bool children_only) {
    size_fail_size = size;
    size_fail_children = children_only;
    size_fail_count = count;
}

void fail_fork(int count, bool children_only) {
    fork_fail_children = children_only;
    fork_fail = count;
}

void set_system(SystemMode mode) { system_mode = mode; }

void set_popen(PopenMode mode, const std::string &substitute) {
    popen_mode = mode;
    popen_substitute = substitute;
}

void fail_access(const std::string &suffix, int mode_bit) {
    access_suffix = suffix;
    access_mode = mode_bit;
}

void fake_vsys_lock_driver(uint16_t locked_id) {
    lock_driver = true;
    lock_driver_id = locked_id;
}

LockRecordSeen vsys_lock_seen() { return lock_seen; }

void localtime_fails() { no_localtime = true; }

void capture_runs(int result) {
    run_set_capture(
        [](const char *program, const char *cmdline, void *ctx) {
            log.push_back(std::string("run ") + program + ": " + cmdline);
            return static_cast<int>(reinterpret_cast<intptr_t>(ctx));
        },
        reinterpret_cast<void *>(intptr_t(result)));
}

void child_wait_status_once(int status) { child_wait_status = status; }

void fail_wait_once() { wait_fails = true; }

void reset() {
    child_wait_status = -1;
    wait_fails = false;
    fail_ipcmsg_alloc(0);
    fail_alloc_of_size(0, 0);
    fail_fork(0);
    set_system(SystemMode::run);
    set_popen(PopenMode::run);
    fail_access("", 0);
    lock_driver = no_localtime = false;
    lock_seen = {};
    run_set_capture(nullptr, nullptr);
    log.clear();
}

std::vector<std::string> recorded() { return log; }

void clear_recorded() { log.clear(); }

} // namespace hooks
} // namespace devtest

// ---------------------------------------------------------------- the stand-ins

using namespace devtest::hooks;

// ---------------------------------------------------------------- the device tree
//
// The library opens and runs device paths as they are written ("/etc/CMD_...", "/flash/...",
// "/usr/local/sbin/cli"). While a Sysroot lives, the calls below take those paths below its root:
// file opens, access, mkfifo, unlink, the program and arguments of execv, and the words of a
// command line given to system(). Other paths pass unchanged. Nothing here allocates: the
// library's children call these between fork and exit.

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


// The function that a stand-in named `name` hides, of the type fn_t.
// The look-up runs once, at the first call; a thread that waits for another's look-up may find
// errno changed by that wait, so errno is kept across it.
#define REAL(name)                                                                                                     \
    const int saved_errno_ = errno;                                                                                    \
    static const auto real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, name));                                          \
    errno = saved_errno_

// Children of the library end with exit(); leak checking belongs to the test process only.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() { return in_child(); }

extern "C" __attribute__((visibility("default"))) void *ipcmsg_alloc(uint32_t size) {
    using fn_t = void *(*)(uint32_t);
    REAL("ipcmsg_alloc");
    return alloc_fail.load() > 0 && !take(alloc_skip) && take(alloc_fail) ? nullptr : real(size);
}

#if !defined(__SANITIZE_ADDRESS__)
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
}

static bool size_fault(size_t size) {
    return size_fail_count.load(std::memory_order_relaxed) > 0 && size == size_fail_size.load() &&
           in_scope(size_fail_children) && take(size_fail_count);
}

extern "C" __attribute__((visibility("default"))) void *malloc(size_t n) {
    return size_fault(n) ? nullptr : __libc_malloc(n);
}

extern "C" __attribute__((visibility("default"))) void *calloc(size_t n, size_t m) {
    return size_fault(n * m) ? nullptr : __libc_calloc(n, m);
}
#endif

extern "C" __attribute__((visibility("default"))) pid_t fork(void) {
    using fn_t = pid_t (*)(void);
    REAL("fork");
    if (fork_fail.load() <= 0 || !in_scope(fork_fail_children) || !take(fork_fail)) return real();
    errno = EAGAIN;
    return -1;
}

extern "C" __attribute__((visibility("default"))) pid_t wait(int *status) {
    using fn_t = pid_t (*)(int *);
    REAL("wait");
    if (!in_child() && wait_fails.exchange(false)) {
        errno = ECHILD;
        return -1;
    }
    pid_t r = real(status);
    if (r > 0 && in_child() && status) {
        int forced = child_wait_status.exchange(-1);
        if (forced != -1) *status = forced;
    }
    return r;
}

extern "C" __attribute__((visibility("default"))) int system(const char *command) {
    using fn_t = int (*)(const char *);
    REAL("system");
    char line[4096];
    if (system_mode == SystemMode::run) return real(command_in_tree(command, line, sizeof line));
    if (system_mode == SystemMode::fail) return -1;
    log.push_back(std::string("system: ") + (command ? command : "(null)"));
    return 0;
}

extern "C" __attribute__((visibility("default"))) FILE *popen(const char *command, const char *type) {
    using fn_t = FILE *(*)(const char *, const char *);
    REAL("popen");
    if (popen_mode == PopenMode::run) return real(command, type);
    if (popen_mode == PopenMode::record) {
        log.push_back(std::string("popen ") + type + ": " + command);
        return real(popen_substitute.c_str(), type);
    }
    errno = EMFILE;
    return nullptr;
}

#define IN_TREE(name, path)                                                                                            \
    char name##_buf[PATH_MAX];                                                                                         \
    const char *name = in_tree(path, name##_buf, sizeof name##_buf)

extern "C" __attribute__((visibility("default"))) FILE *fopen(const char *path, const char *mode) {
    using fn_t = FILE *(*)(const char *, const char *);
    REAL("fopen");
    IN_TREE(p, path);
    return real(p, mode);
}

extern "C" __attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
    using fn_t = int (*)(const char *, int, ...);
    REAL("open");
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? mode_t(va_arg(ap, int)) : 0;
    va_end(ap);
    IN_TREE(p, path);
    return real(p, flags, mode);
}

extern "C" __attribute__((visibility("default"))) int mkfifo(const char *path, mode_t mode) {
    using fn_t = int (*)(const char *, mode_t);
    REAL("mkfifo");
    IN_TREE(p, path);
    return real(p, mode);
}

extern "C" __attribute__((visibility("default"))) int unlink(const char *path) {
    using fn_t = int (*)(const char *);
    REAL("unlink");
    IN_TREE(p, path);
    return real(p);
}

extern "C" __attribute__((visibility("default"))) int execv(const char *path, char *const argv[]) {
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

extern "C" __attribute__((visibility("default"))) int access(const char *path, int mode) {
    using fn_t = int (*)(const char *, int);
    REAL("access");
    if (access_suffix.empty() || !(mode & access_mode) || !std::string_view(path).ends_with(access_suffix)) {
        IN_TREE(p, path);
        return real(p, mode);
    }
    errno = EACCES;
    return -1;
}

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
    using fn_t = int (*)(int, unsigned long, ...);
    REAL("ioctl");
    va_list ap;
    va_start(ap, request);
    auto *rec = static_cast<uint16_t *>(va_arg(ap, void *));
    va_end(ap);
    if (!lock_driver || request != 7) return real(fd, request, rec);
    lock_seen = {rec[0], rec[1], lock_seen.calls + 1};
    rec[1] = rec[0] == lock_driver_id ? 1 : 0;
    return 0;
}

extern "C" __attribute__((visibility("default"))) struct tm *vk_localtime(const time_t *t, struct tm *out) {
    using fn_t = struct tm *(*)(const time_t *, struct tm *);
    REAL("vk_localtime");
    return no_localtime ? nullptr : real(t, out);
}
