#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <csignal>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mgmt_test {

namespace {

// Every test program talks in a runtime directory of its own. Children forked by a
// test or by the library may end with exit(), which runs this destructor too: only the
// process that made the directory removes it, and a child returns before touching the
// allocator (another thread of the parent may have held its lock at the fork).
struct FreshIpcDir {
    pid_t owner = -1;
    char made[32] = "";
    FreshIpcDir() {
        if (std::getenv("MGMT_IPC_DIR")) return;
        char tmpl[] = "/tmp/mgmt-test-XXXXXX";
        if (!mkdtemp(tmpl)) return;
        std::memcpy(made, tmpl, sizeof tmpl);
        owner = getpid();
        setenv("MGMT_IPC_DIR", tmpl, 1);
    }
    ~FreshIpcDir() {
        if (owner != getpid()) return;
        std::error_code ec;
        std::filesystem::remove_all(made, ec);
    }
} fresh_ipc_dir;

} // namespace

bool wait_until(const std::function<bool()> &pred, const std::vector<std::string> &watch, int ms, int stop_fd) {
    int in = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    for (const std::string &w : watch)
        inotify_add_watch(in, w.c_str(), IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    bool ok = pred(), stopped = false;
    while (!ok && !stopped) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        pollfd p[2] = {{in, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        int n = left.count() > 0 ? poll(p, 2, int(left.count())) : 0;
        if (n == 0 || (n < 0 && errno != EINTR)) break; // out of time; EINTR: a handler ran, look again
        stopped = p[1].revents != 0;
        alignas(inotify_event) char events[4096];
        while (in >= 0 && read(in, events, sizeof events) > 0) {
        }
        ok = pred();
    }
    if (in >= 0) close(in);
    return ok || stopped;
}

namespace {
// Whether the process behind pidfd has ended, waiting at most ms for it.
bool child_gone(int pidfd, int ms) { return wait_until([] { return false; }, {}, ms, pidfd); }
} // namespace

ConsoleCapture::ConsoleCapture() { console_set_sink(&ConsoleCapture::sink, this); }
ConsoleCapture::~ConsoleCapture() { console_set_sink(nullptr, nullptr); }
void ConsoleCapture::sink(const char *text, void *ctx) {
    auto *self = static_cast<ConsoleCapture *>(ctx);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->text_ += text;
}
std::string ConsoleCapture::text() const {
    std::lock_guard<std::mutex> lock(mu_);
    return text_;
}
void ConsoleCapture::clear() {
    std::lock_guard<std::mutex> lock(mu_);
    text_.clear();
}

Bytes bytes_of(const std::string &s) { return Bytes(s.begin(), s.end()); }

void expect_fields(const uint8_t *msg, std::initializer_list<Field> fields) {
    for (const Field &f : fields) {
        const uint8_t *p = msg + f.at;
        const uint32_t got = f.width == 4 ? be32(p) : f.width == 2 ? be16(p) : p[0];
        EXPECT_EQ(got, f.value) << f.name << " at byte " << f.at;
    }
}

Bytes mgi_message(uint8_t type, const std::vector<Seg> &segs) {
    Bytes m(MGI_HDR_LEN, 0);
    m[MGI_OFF_MARK] = MGI_MARK;
    m[MGI_OFF_TYPE] = type;
    m[MGI_OFF_NEXTSEG] = segs.empty() ? MGI_SEG_END : segs.front().type;
    for (size_t i = 0; i < segs.size(); ++i) {
        const Seg &s = segs[i];
        size_t at = m.size();
        m.resize(at + MGI_SEGHDR_LEN + s.body.size());
        m[at] = i + 1 < segs.size() ? segs[i + 1].type : MGI_SEG_END;
        m[at + 1] = s.type;
        mgmt::put_be16(&m[at + 2], uint16_t(s.body.size()));
        mgmt::put_be32(&m[at + 4], s.subtype);
        std::copy(s.body.begin(), s.body.end(), m.begin() + long(at + MGI_SEGHDR_LEN));
    }
    mgmt::put_be16(&m[MGI_OFF_LEN], uint16_t(m.size() - MGI_HDR_LEN));
    return m;
}

Bytes mgi_record_message(uint8_t type, const Bytes &payload) {
    Bytes m(MGI_HDR_LEN, 0);
    m[MGI_OFF_MARK] = MGI_MARK;
    m[MGI_OFF_TYPE] = type;
    m[MGI_OFF_NEXTSEG] = 0;
    mgmt::put_be16(&m[MGI_OFF_LEN], uint16_t(payload.size()));
    m.resize(MGI_HDR_LEN + payload.size());
    if (!payload.empty()) std::memcpy(m.data() + MGI_HDR_LEN, payload.data(), payload.size());
    return m;
}

TestPeer::TestPeer(uint32_t appid, uint32_t instance) : served_(appid, instance, this) {}

TestPeer::~TestPeer() = default;

void TestPeer::handle(uint16_t msg, Script script) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        scripts_.emplace_back(msg, std::move(script));
    }
    served_.handle(msg, &TestPeer::on_message);
}

int TestPeer::on_message(void *ipc, void *head, void *payload, uint32_t len, int32_t *status, void *reply,
                         uint32_t *reply_len) {
    auto *peer = static_cast<ipc_peer_t *>(ipc);
    auto *self = static_cast<TestPeer *>(peer->ctx);
    Received r;
    r.msg = be16(static_cast<const ipc_frame_t *>(head)->msg_be);
    r.kind = peer->kind;
    r.src_app = peer->appid;
    const auto *p = static_cast<const uint8_t *>(payload);
    r.bytes.assign(p, p + len);
    Script script;
    {
        std::lock_guard<std::mutex> lock(self->mu_);
        for (auto &[msg, s] : self->scripts_)
            if (msg == r.msg) script = s;
    }
    std::vector<Answer> answers = script ? script(r) : std::vector<Answer>{};
    {
        std::lock_guard<std::mutex> lock(self->mu_);
        self->received_.push_back(r);
    }
    self->cv_.notify_all();
    int result = IPC_HANDLER_NOREPLY;
    for (const Answer &a : answers) {
        if (a.as_reply) {
            uint32_t n = std::min<uint32_t>(uint32_t(a.bytes.size()), *reply_len);
            std::memcpy(reply, a.bytes.data(), n);
            *reply_len = n;
            *status = a.status;
            result = IPC_HANDLER_REPLY;
        } else {
            ipc_send_to_peer(peer, r.msg, a.bytes.data(), uint32_t(a.bytes.size()), a.status);
        }
    }
    return result;
}

std::vector<Received> TestPeer::received() const {
    std::lock_guard<std::mutex> lock(mu_);
    return received_;
}

bool TestPeer::wait_for(size_t n, int ms) const {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return received_.size() >= n; });
}

ChildResult run_in_child(const std::function<int(int out_fd)> &body) {
    ChildResult r;
    int fds[2];
    if (pipe(fds) != 0) return r;
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return r;
    }
    if (pid == 0) {
        close(fds[0]);
        _exit(body(fds[1]));
    }
    close(fds[1]);
    char buf[256];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) r.output.append(buf, size_t(n));
    close(fds[0]);
    int status = 0;
    if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
        r.exited = true;
        r.code = WEXITSTATUS(status);
    }
    return r;
}

std::string stdout_of(const std::function<void()> &fn) {
    fflush(stdout);
    const int sink = memfd_create("stdout", MFD_CLOEXEC), saved = dup(1);
    dup2(sink, 1);
    fn();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string out(size_t(lseek(sink, 0, SEEK_CUR)), '\0');
    if (pread(sink, out.data(), out.size(), 0) != ssize_t(out.size())) out = "<unreadable>";
    close(sink);
    return out;
}

bool cap_address_space(size_t extra) {
    long pages = 0;
    FILE *f = std::fopen("/proc/self/statm", "r");
    if (!f) return false;
    bool ok = std::fscanf(f, "%ld", &pages) == 1;
    std::fclose(f);
    if (!ok) return false;
    rlimit lim{};
    lim.rlim_cur = lim.rlim_max = rlim_t(pages) * rlim_t(getpagesize()) + extra;
    return setrlimit(RLIMIT_AS, &lim) == 0;
}

std::string build_path(const std::string &relpath) {
    const char *dir = std::getenv("MGMT_TEST_BINARY_DIR");
    return std::string(dir && *dir ? dir : MGMT_BUILD_DIR) + "/" + relpath;
}

Daemon::Daemon(const std::string &relpath, const std::vector<std::string> &args, uint32_t appid) {
    std::string path = build_path(relpath);
    const char *dir = ipc_runtime_dir();
    if (!dir) return;
    log_ = std::string(dir) + "/daemon-" + std::to_string(getpid()) + "-" + std::to_string(appid) + ".log";
    std::string sock = std::string(dir) + "/s" + std::to_string(ipc_own_slot()) + ".a" + std::to_string(appid) + ".i0";
    // Everything the child needs is made before the fork: between fork and exec it
    // allocates nothing, since another thread may have held the allocator's lock.
    // Each manager starts with a state of its own unless the test gives one (to see it kept).
    std::vector<std::string> all = args;
    static int managers = 0;
    if (appid == MGD_APPID && std::find(args.begin(), args.end(), "--state-dir") == args.end())
        all.insert(all.end(), {"--state-dir", std::string(dir) + "/mgd-state-" + std::to_string(++managers)});
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(path.c_str()));
    for (const std::string &a : all) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    int out = open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        if (out >= 0) {
            dup2(out, 1);
            dup2(out, 2);
        }
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    if (out >= 0) close(out);
    if (pid_ < 0) return;
    pidfd_ = int(syscall(SYS_pidfd_open, pid_, 0));
    // Bound by this child, not a file left by an earlier run: the file beside the address names it.
    auto bound = [&] {
        std::ifstream named(sock + ".pid");
        int pid = 0;
        return named >> pid && pid == pid_;
    };
    ready_ = wait_until(bound, {dir}, 5000, pidfd_) && bound();
    if (!ready_ && pidfd_ >= 0 && child_gone(pidfd_, 0)) {
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

int Daemon::stop() {
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    if (pidfd_ < 0 || !child_gone(pidfd_, 3000)) kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
}

Daemon::~Daemon() {
    stop();
    if (pidfd_ >= 0) close(pidfd_);
}

std::string Daemon::output() const {
    std::ifstream in(log_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool Daemon::wait_output(const std::string &text, int ms) const {
    return wait_until([&] { return output().find(text) != std::string::npos; }, {log_}, ms);
}

void run_as(uint32_t appid, const std::function<void()> &fn) {
    std::thread t([&] {
        ipc_set_thread_identity(appid, 0);
        fn();
        thread_free_mgi();
    });
    t.join();
}

} // namespace mgmt_test
