// Helpers shared by the test programs: console capture, MGI messages built by
// hand, and test peers that really answer over the platform IPC.
#ifndef MGMT_TEST_SUPPORT_H
#define MGMT_TEST_SUPPORT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mgi/wire.h"
#include "mgmt/mgi.h"
#include "mgmt/platform/platform.h"
#include "served.h"

namespace mgmt_test {

using Bytes = std::vector<uint8_t>;
namespace hdr = mgmt::hdr;

// Collects everything sent to the console while it lives.
class ConsoleCapture {
  public:
    ConsoleCapture();
    ~ConsoleCapture();
    std::string text() const;
    void clear();

  private:
    static void sink(const char *text, void *ctx);
    mutable std::mutex mu_;
    std::string text_;
};

// One segment of a hand-built chain.
struct Seg {
    uint8_t type;
    Bytes body;
    uint32_t subtype = 0;
};

// An MGI message: a 312-byte header with the given type and a chain of
// segments (nextseg 139 when empty); len counts heads and bodies.
Bytes mgi_message(uint8_t type, const std::vector<Seg> &segs);
// An MGI message whose payload is a plain record (nextseg 0).
Bytes mgi_record_message(uint8_t type, const Bytes &payload);

Bytes bytes_of(const std::string &s);

// One field of a message in network byte order: its offset, width (1, 2 or 4 bytes) and value, or
// a field of the header and its value.
struct Field {
    Field(size_t at, int width, uint32_t value) : at(at), width(width), value(value) {}
    Field(mgmt::HdrField f, uint32_t value) : at(f.off), width(f.width), value(value), name(f.name) {}
    size_t at;
    int width;
    uint32_t value;
    const char *name = "";
};
// Expects each field of msg to hold its value, naming the offset of each that does not.
void expect_fields(const uint8_t *msg, std::initializer_list<Field> fields);
// Words in network byte order, read with the library's own helpers.
inline uint16_t be16(const uint8_t *p) { return mgmt::get_be16(p); }
inline uint32_t be32(const uint8_t *p) { return mgmt::get_be32(p); }

// A message as a peer received it.
struct Received {
    uint16_t msg = 0;
    uint32_t kind = 0;
    uint32_t src_app = 0;
    Bytes bytes;
};

// What a peer sends back for one message: each answer goes to the requester as
// a message of its own, except one marked as the reply, which answers a request
// that waits for it (ipcmsg_send_and_recv).
struct Answer {
    Bytes bytes;
    int32_t status = 0;
    bool as_reply = false;
};

// A test server bound as an application id, answering in a thread of its own.
class TestPeer {
  public:
    using Script = std::function<std::vector<Answer>(const Received &)>;
    explicit TestPeer(uint32_t appid, uint32_t instance = 0);
    ~TestPeer();
    TestPeer(const TestPeer &) = delete;
    TestPeer &operator=(const TestPeer &) = delete;

    void handle(uint16_t msg, Script script);
    std::vector<Received> received() const;
    // Waits until n messages have arrived; false when they don't within ms.
    bool wait_for(size_t n, int ms = 5000) const;
    bool ok() const { return served_.ok(); }

  private:
    static int on_message(void *ipc, void *head, void *payload, uint32_t len, int32_t *status, void *reply,
                          uint32_t *reply_len);
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    std::vector<Received> received_;
    std::vector<std::pair<uint16_t, Script>> scripts_;
    ServedEndpoint served_; // last: it stops serving before the rest goes
};

// A program of this build run as a daemon in the test's runtime directory:
// started by the constructor, which waits until its address is bound; ended
// (SIGTERM, then SIGKILL) and reaped by the destructor. Its standard output and
// error go to a log file that output() reads.
class Daemon {
  public:
    // relpath: below the build directory (see build_path), e.g. "tools/mgd".
    Daemon(const std::string &relpath, const std::vector<std::string> &args, uint32_t appid);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;
    bool ok() const { return ready_; }
    int pid() const { return pid_; }
    std::string output() const;
    const std::string &log_path() const { return log_; }
    // Waits until the output holds text, at most ms; true when it does.
    bool wait_output(const std::string &text, int ms = 5000) const;
    // Ends the daemon and returns its exit status as waitpid gives it.
    int stop();

  private:
    int pid_ = -1;
    int pidfd_ = -1;
    bool ready_ = false;
    std::string log_;
};

// What a forked child left: whether it exited, its exit code, and what it
// wrote to the descriptor it was given.
struct ChildResult {
    bool exited = false;
    int code = -1;
    std::string output;
};
// Runs body in a forked child and waits for it; body's result is the exit code.
ChildResult run_in_child(const std::function<int(int out_fd)> &body);
// Caps the calling process's address space at its present size plus extra
// bytes, so that a large allocation fails (for out-of-memory paths, in a child).
bool cap_address_space(size_t extra);

// Path of a program of this build: below MGMT_TEST_BINARY_DIR when set, else below the
// build directory this program was built in (so any working directory will do).
std::string build_path(const std::string &relpath);

// What fn wrote on descriptor 1 (through stdio or not).
std::string stdout_of(const std::function<void()> &fn);

// Waits until pred holds, at most ms: pred is tried at once and again after each change (inotify)
// to the watched paths (a directory's entries, or a file). Also true, without pred, as soon as
// stop_fd (a pidfd, say) becomes readable.
bool wait_until(const std::function<bool()> &pred, const std::vector<std::string> &watch, int ms = 5000,
                int stop_fd = -1);

// Runs fn on a new thread with the given application id and waits for it.
void run_as(uint32_t appid, const std::function<void()> &fn);

} // namespace mgmt_test

#endif
