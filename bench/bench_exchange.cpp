// One MGI request and its answer on each road, against a test server in the
// same process, beside a raw Unix datagram round trip of the same sizes (the
// floor), and the direct road again while a monitor takes copies. Run pinned to one CPU (taskset -c 0) and compare medians.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "mgmt/mgi.h"
#include "mgmt/platform/platform.h"
#include "tests/support/served.h"

namespace {

constexpr uint32_t kRecord = 32;                       // request record
constexpr uint32_t kAnswerLen = MGI_HDR_LEN + 8 + 48;  // final answer with one data segment
const uint32_t kTarget[10] = {0xe0001, 0};

std::string runtime_dir() {
    static std::string dir = [] {
        char tmpl[] = "/tmp/mgmt-bench-XXXXXX";
        std::string d = mkdtemp(tmpl);
        setenv("MGMT_IPC_DIR", d.c_str(), 1);
        return d;
    }();
    return dir;
}

unsigned char g_answer[kAnswerLen];

void build_answer() {
    std::memset(g_answer, 0, sizeof g_answer);
    g_answer[MGI_OFF_TYPE] = MGI_RSP_FINAL;
    g_answer[MGI_OFF_NEXTSEG] = MGI_SEG_ANSWER;
    g_answer[MGI_OFF_LEN + 1] = 8 + 48;
    g_answer[MGI_HDR_LEN] = MGI_SEG_END;
    g_answer[MGI_HDR_LEN + 1] = MGI_SEG_ANSWER;
    g_answer[MGI_HDR_LEN + 3] = 48;
}

int answer_direct(void *, void *, void *, uint32_t, int32_t *, void *reply, uint32_t *reply_len) {
    std::memcpy(reply, g_answer, sizeof g_answer);
    *reply_len = sizeof g_answer;
    return IPC_HANDLER_REPLY;
}

int answer_set(void *ipc, void *, void *, uint32_t, int32_t *, void *, uint32_t *) {
    ipc_send_to_peer(static_cast<ipc_peer_t *>(ipc), MGI_IPC_MSG, g_answer, sizeof g_answer, 0);
    return IPC_HANDLER_NOREPLY;
}

// A fresh runtime directory and answer, then a server endpoint on a thread of its own for the length of
// one benchmark.
struct Prepared {
    Prepared() {
        runtime_dir();
        build_answer();
    }
};
struct Server : Prepared, mgmt_test::ServedEndpoint {
    Server(uint32_t app, ipc_handler_fn fn) : ServedEndpoint(app, 0, nullptr, {{MGI_IPC_MSG, fn}}) {}
};

int on_answer(void *, uint32_t *, void *, uint32_t *, void *, uint32_t *, void *) { return 0; }
int on_record(void *) { return 0; }

void BM_DirectGet(benchmark::State &state) {
    Server app(11, answer_direct);
    ipc_set_thread_identity(5, 0);
    mgiInfo info;
    for (auto _ : state) {
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 2);
        prepare_mgi_exchange_direct_r(info.mgi_buf, kTarget, 2, 0, 0, 0, 0);
        unsigned char *rec = get_sendseg_buf_r(info.mgi_buf);
        std::memset(rec, 1, kRecord);
        info.mgidata = rec;
        info.mgidata_len = kRecord;
        mgi_final_rqt_message(&info);
        if (make_mgi_exchange_direct_with_context(&info, 11, on_answer, nullptr) != 0) state.SkipWithError("failed");
    }
    thread_free_mgi();
}
BENCHMARK(BM_DirectGet)->UseRealTime();

// The same get while a monitor of the runtime directory takes a copy of both messages (a thread
// of this process drains the copies). Without a monitor a send tests one shared word: compare
// BM_DirectGet with the build before the monitor came.
void BM_DirectGetWatched(benchmark::State &state) {
    runtime_dir();
    if (ipc_monitor_open() < 0) {
        state.SkipWithError("cannot open the monitor");
        return;
    }
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> copies{0};
    std::thread drain([&] {
        static unsigned char buf[64 + IPC_MAX_PAYLOAD];
        while (!stop)
            if (ipc_monitor_recv(buf, sizeof buf, 50) > 0) ++copies;
    });
    BM_DirectGet(state);
    stop = true;
    drain.join();
    state.counters["copies"] = double(copies);
    state.counters["dropped"] = double(ipc_monitor_dropped());
    ipc_monitor_close();
}
BENCHMARK(BM_DirectGetWatched)->UseRealTime();

void BM_SetThroughMgd(benchmark::State &state) {
    Server mgd(MGD_APPID, answer_set);
    ipc_set_thread_identity(5, 0);
    mgiInfo info;
    for (auto _ : state) {
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 1);
        init_mgi_exchange_r(info.mgi_buf);
        unsigned char *rec = info.mgi_buf->sbuf + MGI_HDR_LEN;
        std::memset(rec, 1, kRecord);
        prepare_mgi_exchange_r(info.mgi_buf, kTarget, 0, 1, kRecord, 0, 0, 1, 0, 0, 0, 0, 0, rec);
        if (make_mgi_exchange_with_context(&info, on_record, kRecord) != 0) state.SkipWithError("failed");
    }
    thread_free_mgi();
}
BENCHMARK(BM_SetThroughMgd)->UseRealTime();

// The platform alone: the same sizes through ipcmsg_send_and_recv, without MGI.
void BM_PlatformRoundTrip(benchmark::State &state) {
    Server app(12, answer_direct);
    ipc_set_thread_identity(5, 0);
    static unsigned char req[MGI_HDR_LEN + 8 + kRecord] = {};
    static unsigned char rsp[MGI_MAX_LEN];
    for (auto _ : state) {
        int32_t status = 0;
        uint32_t cap = sizeof rsp;
        if (ipcmsg_send_and_recv(12, 0, MGI_IPC_MSG, req, sizeof req, &status, rsp, &cap, 0) != 0)
            state.SkipWithError("failed");
    }
}
BENCHMARK(BM_PlatformRoundTrip)->UseRealTime();

// The floor: the same bytes over a bare pair of bound Unix datagram sockets.
void BM_RawUnixDatagramRoundTrip(benchmark::State &state) {
    std::string dir = runtime_dir();
    auto bound = [](const std::string &path) {
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a = {};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
        unlink(path.c_str());
        bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        return std::make_pair(fd, a);
    };
    auto [srv, srv_addr] = bound(dir + "/raw-server");
    auto [cli, cli_addr] = bound(dir + "/raw-client");
    std::thread echo([fd = srv] {
        unsigned char buf[MGI_MAX_LEN];
        sockaddr_un from;
        for (;;) {
            socklen_t fl = sizeof from;
            ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl);
            if (n <= 0) return;
            if (n == 1) return; // the stop mark
            sendto(fd, g_answer, sizeof g_answer, 0, reinterpret_cast<sockaddr *>(&from), fl);
        }
    });
    // Frame of the platform (32 bytes) included on both sides, as the IPC sends it.
    unsigned char req[32 + MGI_HDR_LEN + 8 + kRecord] = {};
    unsigned char rsp[MGI_MAX_LEN];
    for (auto _ : state) {
        sendto(cli, req, sizeof req, 0, reinterpret_cast<sockaddr *>(&srv_addr), sizeof srv_addr);
        benchmark::DoNotOptimize(recv(cli, rsp, sizeof rsp, 0));
    }
    sendto(cli, "x", 1, 0, reinterpret_cast<sockaddr *>(&srv_addr), sizeof srv_addr);
    echo.join();
    close(srv);
    close(cli);
}
BENCHMARK(BM_RawUnixDatagramRoundTrip)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
