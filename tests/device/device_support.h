// Helpers of the device tests: a device tree of its own per test (MGMT_SYSROOT), files, byte images
// of records, captured output of the device log and of standard output, and faults injected into
// the calls that the library makes (this program stands in for them ahead of the C library and the
// platform library).
#ifndef MGMT_TEST_DEVICE_SUPPORT_H
#define MGMT_TEST_DEVICE_SUPPORT_H

#include <chrono>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace devtest {

using mgmt_test::Bytes;

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
    const std::string &dir() const { return dir_; }
    std::string path(const std::string &device_path) const { return root_ + device_path; }
    std::string console() const { return dir_ + "/console"; }
    std::string boot_console() const { return dir_ + "/boot"; }

  private:
    std::string dir_, root_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text, int mode = 0644);
bool exists(const std::string &path);
void make_dirs(const std::string &path);

// Waits until this process has no child left, running or ended, at most ms milliseconds; reap is
// called first and after each child ends (a pidfd), to reap what has ended.
bool children_gone(const std::function<void()> &reap, int ms = 5000);

// Words in host order and in big-endian order, a host-order word read back, the terminated text at
// off read no further than len bytes, and bytes with a text behind them.
Bytes host_words(std::initializer_list<uint32_t> words);
Bytes be_words(std::initializer_list<uint32_t> words);
uint32_t host32(const Bytes &b, size_t off);
std::string text_at(const Bytes &b, size_t off, size_t len);
Bytes operator+(Bytes a, const std::string &s);

// What the device log (vk_clog) or standard output was given while the capture lives.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::string text() const { return text_; }

  private:
    std::string text_;
};

class StdoutCapture {
  public:
    StdoutCapture();
    ~StdoutCapture() { text(); }
    std::string text();

  private:
    int saved_ = -1;
    std::string file_, text_;
};

// Faults and captures of the stand-ins, all off after reset().
namespace hooks {

// The next `count` ipcmsg_alloc calls fail, after `skip` that pass.
void fail_ipcmsg_alloc(int count, int skip = 0);
// The next `count` malloc/calloc calls of exactly `size` bytes fail (in children only, when asked).
// Not available under the address sanitizer, which brings its own allocator.
bool malloc_hook_available();
void fail_alloc_of_size(size_t size, int count, bool children_only = false);
// The next `count` forks fail with EAGAIN (in children only, when asked).
void fail_fork(int count, bool children_only = false);
// The first wait() of each child that is forked afterwards reports `status` for the process it reaped.
void child_wait_status_once(int status);
// The next wait() of the test process fails (-1, ECHILD) without reaping anything.
void fail_wait_once();
// system(): run, record without running (result 0), or fail with -1.
enum class SystemMode { run, record, fail };
void set_system(SystemMode mode);
// popen(): run, record and run `substitute` instead, or fail.
enum class PopenMode { run, record, fail };
void set_popen(PopenMode mode, const std::string &substitute = ":");
// access(): fail with EACCES for paths ending in `suffix` when asked for `mode_bit`.
void fail_access(const std::string &suffix, int mode_bit);
// ioctl(): request 7 acts as the vsys lock driver, which locks `locked_id` only; the last record
// that the library handed over, and the number of calls, are kept.
void fake_vsys_lock_driver(uint16_t locked_id);
struct LockRecordSeen {
    uint16_t vsys_id, locked;
    int calls;
};
LockRecordSeen vsys_lock_seen();
// vk_localtime(): gives null.
void localtime_fails();
// The platform's run capture: records and answers `result`.
void capture_runs(int result);
void reset();

// Everything recorded by system, popen and the run capture, in order:
// "system: <line>", "popen <mode>: <line>", "run <program>: <line>".
std::vector<std::string> recorded();
void clear_recorded();

} // namespace hooks

} // namespace devtest

#endif
