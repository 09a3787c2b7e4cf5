// The generated layer: nanoseconds per packed field for a small record
// (aaa_role, 4 fields), the widest (if_if, 96 fields) and the longest
// (addrbook_addr_refence, 10 texts of 4096 bytes), and whole stub calls
// against a test application and a test manager in threads of this process,
// beside the platform's bare round trip of the same request as the floor.
//
// Run pinned to one CPU (taskset -c 0 bench_objects): a wake-up across CPUs
// costs more than everything measured here.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mgmt/objects.h"
#include "mgmt/platform/platform.h"
#include "tests/support/served.h"

namespace {

template <typename Fn, size_t... I>
uint32_t call_with(Fn fn, void *rec, uint64_t *m, uint32_t *m3, void *const *a, std::index_sequence<I...>) {
    return fn(rec, m, m3, a[I]...);
}

// Arguments for every field of an object: texts of the given length (cut to the field), bytes otherwise.
struct Args {
    std::vector<std::string> text;
    std::vector<std::vector<unsigned char>> bytes;
    std::vector<const void *> inner;
    std::vector<void *> arg;
    Args(const libmgmt_object *o, size_t text_len)
        : text(o->field_count), bytes(o->field_count), inner(o->field_count), arg(o->field_count) {
        for (size_t k = 0; k < o->field_count; ++k) {
            const libmgmt_field &f = o->fields[k];
            if (f.kind == LIBMGMT_FIELD_TEXT) {
                text[k] = std::string(std::min<size_t>(text_len, f.width - 1), 't');
                inner[k] = text[k].c_str();
                arg[k] = &inner[k];
            } else {
                bytes[k].assign(f.width, 0x5a);
                inner[k] = bytes[k].data();
                arg[k] = f.kind == LIBMGMT_FIELD_REF ? static_cast<void *>(&inner[k]) : bytes[k].data();
            }
        }
    }
};

template <size_t N, typename Fn> void pack_bench(benchmark::State &state, const char *name, Fn fn, size_t text_len) {
    const libmgmt_object *o = libmgmt_object_find(name);
    if (!o || o->field_count != N) {
        state.SkipWithError("object not in the catalogue");
        return;
    }
    Args a(o, text_len);
    std::vector<unsigned char> rec(o->entity_len);
    uint64_t mask = 0;
    uint32_t mask3 = 0;
    for (auto _ : state) {
        uint32_t len = call_with(fn, rec.data(), &mask, &mask3, a.arg.data(), std::make_index_sequence<N>{});
        benchmark::DoNotOptimize(len);
        benchmark::DoNotOptimize(rec.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(N));
    // Seconds per packed field, shown with its prefix (n for nanoseconds).
    state.counters["per_field"] =
        benchmark::Counter(double(N), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["record_bytes"] = o->entity_len;
}

void BM_PackSmall_aaa_role(benchmark::State &state) { pack_bench<4>(state, "aaa_role", construct_aaa_role_entity, 8); }
void BM_PackWide_if_if(benchmark::State &state) { pack_bench<96>(state, "if_if", construct_if_if_entity, 8); }
void BM_PackLong_addrbook_addr_refence(benchmark::State &state) {
    pack_bench<10>(state, "addrbook_addr_refence", construct_addrbook_addr_refence_entity, 4095);
}
BENCHMARK(BM_PackSmall_aaa_role);
BENCHMARK(BM_PackWide_if_if);
BENCHMARK(BM_PackLong_addrbook_addr_refence);

// ---------------------------------------------------------------- stubs against test servers

constexpr uint32_t kOwner = 11; // owner of aaa_role
constexpr uint32_t kFrontEnd = 5;

// A final answer with no data: 312-byte header, type 15, nextseg 139, len 0.
std::vector<unsigned char> final_answer() {
    std::vector<unsigned char> m(MGI_HDR_LEN, 0);
    m[MGI_OFF_MARK] = MGI_MARK;
    m[MGI_OFF_NEXTSEG] = MGI_SEG_END;
    m[MGI_OFF_TYPE] = MGI_RSP_FINAL;
    return m;
}
const std::vector<unsigned char> g_final = final_answer();

// The application answers on the direct road through the reply buffer.
int app_handler(void *, void *, void *, uint32_t, int32_t *status, void *reply, uint32_t *reply_len) {
    std::memcpy(reply, g_final.data(), g_final.size());
    *reply_len = uint32_t(g_final.size());
    *status = 0;
    return IPC_HANDLER_REPLY;
}
// The manager answers a request of the road through it with a message of its own.
int mgd_handler(void *ipc, void *, void *, uint32_t, int32_t *, void *, uint32_t *) {
    ipc_send_to_peer(static_cast<ipc_peer_t *>(ipc), MGI_IPC_MSG, g_final.data(), uint32_t(g_final.size()), 0);
    return IPC_HANDLER_NOREPLY;
}

struct Server : mgmt_test::ServedEndpoint {
    Server(uint32_t app, ipc_handler_fn fn) : ServedEndpoint(app, 0, nullptr, {{MGI_IPC_MSG, fn}}) {}
};

void BM_StubGet_aaa_role(benchmark::State &state) {
    Server app(kOwner, app_handler);
    if (!app.ok()) {
        state.SkipWithError("cannot bind the test application");
        return;
    }
    ipc_set_thread_identity(kFrontEnd, 0);
    const char *name = "admin";
    uint32_t id = 1;
    mgiInfo info;
    for (auto _ : state) {
        init_mgi_info(&info);
        info.rqt_item[0] = &name;
        info.rqt_item[1] = &id;
        if (final_get_aaa_role(&info, nullptr, nullptr) != 0) {
            state.SkipWithError("get failed");
            break;
        }
    }
}

void BM_StubSet_aaa_role(benchmark::State &state) {
    Server mgd(MGD_APPID, mgd_handler);
    if (!mgd.ok()) {
        state.SkipWithError("cannot bind the test manager");
        return;
    }
    ipc_set_thread_identity(kFrontEnd, 0);
    const char *name = "admin", *desc = "role";
    uint32_t id = 1, flags = 2;
    mgiInfo info;
    for (auto _ : state) {
        init_mgi_info(&info);
        info.rqt_item[0] = &name;
        info.rqt_item[1] = &id;
        info.rqt_item[2] = &flags;
        info.rqt_item[3] = &desc;
        if (final_set_aaa_role(&info, nullptr) != 0) {
            state.SkipWithError("set failed");
            break;
        }
    }
}

// Floor: the platform's round trip of a message of the get's size, with no MGI and no stub.
void BM_FloorRoundTrip_same_size(benchmark::State &state) {
    Server app(kOwner, app_handler);
    if (!app.ok()) {
        state.SkipWithError("cannot bind the test application");
        return;
    }
    ipc_set_thread_identity(kFrontEnd, 0);
    std::vector<unsigned char> request(MGI_HDR_LEN + MGI_SEGHDR_LEN + 36, 0);
    std::vector<unsigned char> answer(MGI_MAX_LEN);
    for (auto _ : state) {
        int32_t status = 0;
        uint32_t rlen = MGI_MAX_LEN;
        if (ipcmsg_send_and_recv(kOwner, 0, MGI_IPC_MSG, request.data(), uint32_t(request.size()), &status,
                                 answer.data(), &rlen, 5000) < 0) {
            state.SkipWithError("round trip failed");
            break;
        }
    }
}

BENCHMARK(BM_FloorRoundTrip_same_size)->UseRealTime();
BENCHMARK(BM_StubGet_aaa_role)->UseRealTime();
BENCHMARK(BM_StubSet_aaa_role)->UseRealTime();

} // namespace

int main(int argc, char **argv) {
    // A runtime directory of this run's own, before any IPC is used.
    if (!std::getenv("MGMT_IPC_DIR")) {
        static char dir[] = "/tmp/mgmt-bench-XXXXXX";
        if (mkdtemp(dir)) setenv("MGMT_IPC_DIR", dir, 1);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
