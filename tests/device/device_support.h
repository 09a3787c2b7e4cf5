// Helpers of the device tests: a device tree of its own per test (MGMT_SYSROOT), files, captured
// output of the device log, the boot console and standard output, and faults injected into the
// calls that the library makes (this program stands in for them ahead of the C library and the
// platform library).
#ifndef MGMT_TEST_DEVICE_SUPPORT_H
#define MGMT_TEST_DEVICE_SUPPORT_H

#include <sys/types.h>

#include <cstdint>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace devtest {

// The process that runs the tests (children of the library's forks are not it).
pid_t test_pid();

// A fresh device tree below a temporary directory, set as MGMT_SYSROOT while it lives; also a
// console file (MGMT_CONSOLE) and a boot console file (MGMT_BOOT_CONSOLE) beside it, where
// children of the library write.
class Sysroot {
  public:
    Sysroot();
    ~Sysroot();
    Sysroot(const Sysroot &) = delete;
    Sysroot &operator=(const Sysroot &) = delete;
    const std::string &root() const { return root_; }
    std::string path(const std::string &device_path) const { return root_ + device_path; }
    std::string console() const;
    std::string boot_console() const;
    const std::string &dir() const { return dir_; }

  private:
    std::string dir_, root_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text, int mode = 0644);
bool exists(const std::string &path);
void make_dirs(const std::string &path);
std::vector<std::string> list_dir(const std::string &path);

// Waits until pred holds, at most ms milliseconds.
template <typename Pred> bool eventually(Pred pred, int ms = 5000);

// Lines of the device log (vk_clog) while it lives.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::string text() const;

  private:
    static void sink(const char *text, void *ctx);
    mutable std::mutex mu_;
    std::string text_;
};

// Text for the boot console (boot_print) while it lives.
class BootCapture {
  public:
    BootCapture();
    ~BootCapture();
    std::string text() const;

  private:
    static void sink(const char *text, void *ctx);
    mutable std::mutex mu_;
    std::string text_;
};

// Everything written to standard output (file descriptor 1) while it lives.
class StdoutCapture {
  public:
    StdoutCapture();
    ~StdoutCapture();
    std::string text();

  private:
    int saved_ = -1;
    std::string file_;
    bool done_ = false;
    std::string text_;
};

// ---------------------------------------------------------------- faults and captures

namespace hooks {

// The next `count` ipcmsg_alloc calls of this process fail, after `skip` that pass.
void fail_ipcmsg_alloc(int count, int skip = 0);
// The next `count` malloc/calloc calls of exactly `size` bytes fail (in children only, when asked).
// Not available under the address sanitizer, which brings its own allocator.
bool malloc_hook_available();
void fail_alloc_of_size(size_t size, int count, bool children_only = false);
// The next `count` forks fail with EAGAIN (in children only, when asked).
void fail_fork(int count, bool children_only = false);

// system(): run, record without running (result 0), or fail with -1.
enum class SystemMode { run, record, fail };
void set_system(SystemMode mode);
// popen(): run, record and run `substitute` instead, or fail.
enum class PopenMode { run, record, fail };
void set_popen(PopenMode mode, const std::string &substitute = ":");
// access(): fail with EACCES for paths ending in `suffix` when asked for `mode_bit`.
void fail_access(const std::string &suffix, int mode_bit);
// ioctl(): while set, request 7 acts as the vsys lock driver: `locked` becomes 1 for the given
// id and 0 for any other, and the record the library handed over is kept for the test.
void fake_vsys_lock_driver(bool on, uint16_t locked_id = 0);
struct LockRecordSeen {
    uint16_t vsys_id, locked;
    int calls;
};
LockRecordSeen vsys_lock_seen();
// vk_localtime(): gives null while set.
void localtime_fails(bool on);
void reset();

// Everything recorded by system, popen and the platform's run capture, in order:
// "system: <line>", "popen <mode>: <line>", "run <program>: <line>".
std::vector<std::string> recorded();
void clear_recorded();
// Sets the platform's run capture, which records and answers `result`.
void capture_runs(int result);
void stop_capturing_runs();

} // namespace hooks

} // namespace devtest

#include <chrono>
#include <thread>

template <typename Pred> bool devtest::eventually(Pred pred, int ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

#endif
