#include "device_support.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/device.h"

namespace fs = std::filesystem;

namespace devtest {
namespace {

pid_t g_test_pid = 0;
char g_base[64] = "";

void remove_base() {
    if (getpid() != g_test_pid || !g_base[0]) return;
    std::error_code ec;
    fs::remove_all(g_base, ec);
}

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
        std::string ipc = std::string(g_base) + "/ipc";
        mkdir(ipc.c_str(), 0700);
        setenv("MGMT_IPC_DIR", ipc.c_str(), 1);
    }
    atexit(remove_base);
}

} // namespace

pid_t test_pid() { return g_test_pid; }

Sysroot::Sysroot() {
    std::string tmpl = std::string(g_base[0] ? g_base : "/tmp") + "/devXXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back(0);
    if (mkdtemp(buf.data())) dir_ = buf.data();
    root_ = dir_ + "/root";
    mkdir(root_.c_str(), 0755);
    setenv("MGMT_SYSROOT", root_.c_str(), 1);
    setenv("MGMT_CONSOLE", console().c_str(), 1);
    setenv("MGMT_BOOT_CONSOLE", boot_console().c_str(), 1);
}

Sysroot::~Sysroot() {
    unsetenv("MGMT_SYSROOT");
    unsetenv("MGMT_CONSOLE");
    unsetenv("MGMT_BOOT_CONSOLE");
    std::error_code ec;
    if (!dir_.empty()) fs::remove_all(dir_, ec);
}

std::string Sysroot::console() const { return dir_ + "/console"; }
std::string Sysroot::boot_console() const { return dir_ + "/boot"; }

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text, int mode) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
    }
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

std::vector<std::string> list_dir(const std::string &path) {
    std::vector<std::string> names;
    std::error_code ec;
    for (auto &e : fs::directory_iterator(path, ec))
        names.push_back(e.path().filename().string());
    return names;
}

LogCapture::LogCapture() { vk_clog_set_sink(&LogCapture::sink, this); }
LogCapture::~LogCapture() { vk_clog_set_sink(nullptr, nullptr); }
void LogCapture::sink(const char *text, void *ctx) {
    auto *self = static_cast<LogCapture *>(ctx);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->text_ += text;
}
std::string LogCapture::text() const {
    std::lock_guard<std::mutex> lock(mu_);
    return text_;
}

BootCapture::BootCapture() { boot_set_sink(&BootCapture::sink, this); }
BootCapture::~BootCapture() { boot_set_sink(nullptr, nullptr); }
void BootCapture::sink(const char *text, void *ctx) {
    auto *self = static_cast<BootCapture *>(ctx);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->text_ += text;
}
std::string BootCapture::text() const {
    std::lock_guard<std::mutex> lock(mu_);
    return text_;
}

StdoutCapture::StdoutCapture() {
    fflush(stdout);
    file_ = std::string(g_base[0] ? g_base : "/tmp") + "/stdout." + std::to_string(getpid());
    int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    saved_ = dup(1);
    dup2(fd, 1);
    close(fd);
}
StdoutCapture::~StdoutCapture() { text(); }
std::string StdoutCapture::text() {
    if (done_ || saved_ < 0) return text_;
    fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
    done_ = true;
    text_ = read_file(file_);
    unlink(file_.c_str());
    return text_;
}

// ---------------------------------------------------------------- hooks

namespace hooks {
namespace {

std::atomic<int> alloc_fail{0}, alloc_skip{0};
std::atomic<size_t> size_fail_size{0};
std::atomic<int> size_fail_count{0};
std::atomic<bool> size_fail_children{false};
std::atomic<int> fork_fail{0};
std::atomic<bool> fork_fail_children{false};
std::atomic<SystemMode> system_mode{SystemMode::run};
std::atomic<PopenMode> popen_mode{PopenMode::run};
std::mutex mu;
std::string popen_substitute = ":";
std::string access_suffix;
int access_mode = 0;
std::vector<std::string> log;
std::atomic<bool> lock_driver{false};
std::atomic<bool> no_localtime{false};
std::atomic<uint16_t> lock_driver_id{0};
LockRecordSeen lock_seen{};

void record(const std::string &line) {
    std::lock_guard<std::mutex> lock(mu);
    log.push_back(line);
}

int run_capture(const char *program, const char *cmdline, void *ctx) {
    record(std::string("run ") + program + ": " + cmdline);
    return static_cast<int>(reinterpret_cast<intptr_t>(ctx));
}

bool take(std::atomic<int> &counter) {
    int n = counter.load();
    while (n > 0)
        if (counter.compare_exchange_weak(n, n - 1)) return true;
    return false;
}

} // namespace

void fail_ipcmsg_alloc(int count, int skip) {
    alloc_skip = skip;
    alloc_fail = count;
}

#if defined(__SANITIZE_ADDRESS__)
bool malloc_hook_available() { return false; }
#else
bool malloc_hook_available() { return true; }
#endif

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
    {
        std::lock_guard<std::mutex> lock(mu);
        popen_substitute = substitute;
    }
    popen_mode = mode;
}

void fail_access(const std::string &suffix, int mode_bit) {
    std::lock_guard<std::mutex> lock(mu);
    access_suffix = suffix;
    access_mode = mode_bit;
}

void fake_vsys_lock_driver(bool on, uint16_t locked_id) {
    lock_driver_id = locked_id;
    lock_driver = on;
    std::lock_guard<std::mutex> lock(mu);
    lock_seen = LockRecordSeen{};
}

LockRecordSeen vsys_lock_seen() {
    std::lock_guard<std::mutex> lock(mu);
    return lock_seen;
}

void localtime_fails(bool on) { no_localtime = on; }

void reset() {
    no_localtime = false;
    fake_vsys_lock_driver(false);
    alloc_fail = 0;
    alloc_skip = 0;
    size_fail_count = 0;
    fork_fail = 0;
    system_mode = SystemMode::run;
    popen_mode = PopenMode::run;
    fail_access("", 0);
    stop_capturing_runs();
    clear_recorded();
}

std::vector<std::string> recorded() {
    std::lock_guard<std::mutex> lock(mu);
    return log;
}

void clear_recorded() {
    std::lock_guard<std::mutex> lock(mu);
    log.clear();
}

void capture_runs(int result) { run_set_capture(&run_capture, reinterpret_cast<void *>(intptr_t(result))); }
void stop_capturing_runs() { run_set_capture(nullptr, nullptr); }

// Whether a size-targeted allocation fault applies to this call.
bool size_fault(size_t size) {
    if (size_fail_count.load(std::memory_order_relaxed) <= 0 || size != size_fail_size.load()) return false;
    if (size_fail_children && getpid() == g_test_pid) return false;
    return take(size_fail_count);
}

bool ipcmsg_alloc_fault() {
    if (alloc_fail.load() <= 0) return false;
    if (take(alloc_skip)) return false;
    return take(alloc_fail);
}

bool fork_fault() {
    if (fork_fail.load() <= 0) return false;
    if (fork_fail_children && getpid() == g_test_pid) return false;
    return take(fork_fail);
}

bool access_fault(const char *path, int mode) {
    std::lock_guard<std::mutex> lock(mu);
    if (access_suffix.empty() || !(mode & access_mode) || !path) return false;
    std::string p = path;
    return p.size() >= access_suffix.size() && p.compare(p.size() - access_suffix.size(), std::string::npos,
                                                         access_suffix) == 0;
}

} // namespace hooks
} // namespace devtest

// ---------------------------------------------------------------- the stand-ins

using namespace devtest::hooks;

// Children of the library end with exit(); leak checking belongs to the test process only.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {
    return getpid() != devtest::test_pid();
}

extern "C" __attribute__((visibility("default"))) void *ipcmsg_alloc(uint32_t size) {
    using fn_t = void *(*)(uint32_t);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "ipcmsg_alloc"));
    if (devtest::hooks::ipcmsg_alloc_fault()) return nullptr;
    return real(size);
}

#if !defined(__SANITIZE_ADDRESS__)
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
}
extern "C" __attribute__((visibility("default"))) void *malloc(size_t n) {
    if (devtest::hooks::size_fault(n)) return nullptr;
    return __libc_malloc(n);
}
extern "C" __attribute__((visibility("default"))) void *calloc(size_t n, size_t m) {
    if (devtest::hooks::size_fault(n * m)) return nullptr;
    return __libc_calloc(n, m);
}
#endif

extern "C" __attribute__((visibility("default"))) pid_t fork(void) {
    using fn_t = pid_t (*)(void);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "fork"));
    if (devtest::hooks::fork_fault()) {
        errno = EAGAIN;
        return -1;
    }
    return real();
}

extern "C" __attribute__((visibility("default"))) int system(const char *command) {
    using fn_t = int (*)(const char *);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "system"));
    switch (system_mode.load()) {
    case SystemMode::record:
        devtest::hooks::record(std::string("system: ") + (command ? command : "(null)"));
        return 0;
    case SystemMode::fail:
        return -1;
    default:
        return real(command);
    }
}

extern "C" __attribute__((visibility("default"))) FILE *popen(const char *command, const char *type) {
    using fn_t = FILE *(*)(const char *, const char *);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "popen"));
    switch (popen_mode.load()) {
    case PopenMode::record: {
        devtest::hooks::record(std::string("popen ") + (type ? type : "") + ": " + (command ? command : ""));
        std::string substitute;
        {
            std::lock_guard<std::mutex> lock(devtest::hooks::mu);
            substitute = devtest::hooks::popen_substitute;
        }
        return real(substitute.c_str(), type);
    }
    case PopenMode::fail:
        errno = EMFILE;
        return nullptr;
    default:
        return real(command, type);
    }
}

extern "C" __attribute__((visibility("default"))) int access(const char *path, int mode) {
    using fn_t = int (*)(const char *, int);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "access"));
    if (devtest::hooks::access_fault(path, mode)) {
        errno = EACCES;
        return -1;
    }
    return real(path, mode);
}

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
    using fn_t = int (*)(int, unsigned long, ...);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "ioctl"));
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    if (devtest::hooks::lock_driver && request == 7) {
        auto *rec = static_cast<uint16_t *>(arg);
        {
            std::lock_guard<std::mutex> lock(devtest::hooks::mu);
            devtest::hooks::lock_seen = {rec[0], rec[1], devtest::hooks::lock_seen.calls + 1};
        }
        rec[1] = rec[0] == devtest::hooks::lock_driver_id ? 1 : 0;
        return 0;
    }
    return real(fd, request, arg);
}

extern "C" __attribute__((visibility("default"))) struct tm *vk_localtime(const time_t *t, struct tm *out) {
    using fn_t = struct tm *(*)(const time_t *, struct tm *);
    static fn_t real = reinterpret_cast<fn_t>(dlsym(RTLD_NEXT, "vk_localtime"));
    if (devtest::hooks::no_localtime) return nullptr;
    return real(t, out);
}
