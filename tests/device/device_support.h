// Helpers of the device tests: a device tree of its own per test (MGMT_SYSROOT), files, byte images
// of records, captured output of the device log and of standard output, and faults injected into
// the calls that the library makes (this program stands in for them ahead of the C library and the
// platform library).
#ifndef MGMT_TEST_DEVICE_SUPPORT_H
#define MGMT_TEST_DEVICE_SUPPORT_H

#include <atomic>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "faults.h"
#include "test_support.h"

namespace devtest {

using mgmt_test::Bytes;
using mgmt_test::stdout_of;

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
// got against tests/device/<name>; MGMT_UPDATE_GOLDEN=1 writes the file anew from got.
void expect_golden(const std::string &name, const std::string &got);
void write_file(const std::string &path, const std::string &text, int mode = 0644);
bool exists(const std::string &path);
void make_dirs(const std::string &path);

// Waits until this process has no child left, running or ended, at most ms milliseconds; reap is
// called first and after each child ends (a pidfd), to reap what has ended.
bool children_gone(const std::function<void()> &reap, int ms = 5000);

// Words in host order and in big-endian order, a host-order word read back, and bytes with a text
// behind them.
Bytes host_words(std::initializer_list<uint32_t> words);
Bytes be_words(std::initializer_list<uint32_t> words);
uint32_t host32(const Bytes &b, size_t off);
Bytes operator+(Bytes a, const std::string &s);

// What the device log (vk_clog) was given while the capture lives.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::string text() const { return text_; }

  private:
    std::string text_;
};

// Faults and captures of the device's stand-ins, all off after reset_hooks() (which also disarms
// the faults of faults.h). Set by the test and read by stand-ins that run on its behalf, one at a
// time.
struct Hooks {
    std::atomic<int> child_wait_status{-1};        // the first wait() of a child forked later reports it
    std::atomic<bool> wait_fails{false};           // the test process's next wait() fails (ECHILD)
    // system(): record without running (result 0) or fail with -1; popen(): record and run ":"
    // instead, or fail.
    enum Mode { run, record, fail } system = run, popen = run;
    std::string access_suffix; // access() of a path ending so: EACCES
    // Everything recorded by system, popen and the run capture, in order:
    // "system: <line>", "popen <mode>: <line>", "run <program>: <line>".
    std::vector<std::string> log;
};
extern Hooks hook;
void reset_hooks();
// The platform's run capture: records and answers `result`.
void capture_runs(int result);

} // namespace devtest

#endif
