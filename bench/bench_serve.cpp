// Serving one request in process (decode, a trivial handler, encode) against a
// copy of the same bytes, and the sorter against std::stable_sort on the same
// records.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "mgi/wire.h"
#include "mgmt/mgi_app.h"
#include "mgmt/sorter.h"

namespace {

constexpr uint32_t kWord = 0x7e0001;

int trivial_decode(mgiInfo *) { return 0; }
int trivial_encode(mgiInfo *info) {
    static uint32_t row[4] = {1, 2, 3, 4};
    mgi_init_rsp_message(info);
    mgi_update_rsp_data(info, row, sizeof row);
    set_rsptype(info, MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    return 0;
}

// A get-shaped request: the target, an index record and a cookie.
std::vector<unsigned char> make_request() {
    std::vector<unsigned char> m(MGI_HDR_LEN, 0);
    m[MGI_OFF_MARK] = MGI_MARK;
    mgmt::put_be32(&m[MGI_OFF_TARGET], kWord);
    size_t link = MGI_OFF_NEXTSEG;
    auto seg = [&](uint8_t type, size_t len) {
        size_t at = m.size();
        m.resize(at + MGI_SEGHDR_LEN + len, 0x11);
        append_segment(&m[link], &m[at], type, nullptr, uint16_t(len));
        link = at;
    };
    seg(MGI_SEG_RULEDATA, 36);
    seg(MGI_SEG_COOKIE, 24);
    mgmt::put_be16(&m[MGI_OFF_LEN], uint16_t(m.size() - MGI_HDR_LEN));
    return m;
}

void BM_ServeRequest(benchmark::State &state) {
    static bool registered = [] {
        appEntity *e = app_entity_init(kWord, 0, nullptr, nullptr, trivial_decode, trivial_encode, nullptr);
        uint32_t top[] = {0};
        return app_entity_add(top, e) == 0;
    }();
    if (!registered) {
        state.SkipWithError("registration failed");
        return;
    }
    free_cond_ctx_by_uiInfo();
    std::vector<unsigned char> rqt = make_request();
    std::vector<unsigned char> rsp(65536);
    uint32_t len = 0;
    for (auto _ : state) {
        libmgmt_serve_request(rqt.data(), uint32_t(rqt.size()), rsp.data(), uint32_t(rsp.size()), &len);
        benchmark::DoNotOptimize(len);
    }
    if (len != MGI_HDR_LEN + 8 + 16) state.SkipWithError("unexpected response length");
}
BENCHMARK(BM_ServeRequest);

// Floor: copying the request and a response header of the same sizes.
void BM_CopyRequestAndHeader(benchmark::State &state) {
    std::vector<unsigned char> rqt = make_request();
    std::vector<unsigned char> in(rqt.size()), rsp(65536);
    for (auto _ : state) {
        std::memcpy(in.data(), rqt.data(), rqt.size());
        std::memcpy(rsp.data(), in.data(), MGI_HDR_LEN + 24);
        benchmark::DoNotOptimize(rsp.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CopyRequestAndHeader);

struct Row {
    int32_t key;
    uint32_t seq;
    char name[16];
};

std::vector<Row> make_rows(size_t n) {
    std::mt19937 rng(1);
    std::vector<Row> rows(n);
    for (size_t i = 0; i < n; ++i) rows[i] = {int32_t(rng() % (1u << 20)), uint32_t(i), {}};
    return rows;
}

void BM_Sorter(benchmark::State &state) {
    std::vector<Row> rows = make_rows(size_t(state.range(0)));
    for (auto _ : state) {
        vk_sorter_init(sizeof(Row), 1, offsetof(Row, key), 0, 4, 0, nullptr, 0);
        for (Row &r : rows) vk_sorter_write(&r);
        vk_sorter_node *head = vk_sorter_get();
        benchmark::DoNotOptimize(head);
        vk_sorter_free();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Sorter)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

// The same records, as pointers, by std::stable_sort with the same order.
void BM_StableSort(benchmark::State &state) {
    std::vector<Row> rows = make_rows(size_t(state.range(0)));
    std::vector<Row *> ptrs(rows.size());
    for (auto _ : state) {
        for (size_t i = 0; i < rows.size(); ++i) ptrs[i] = &rows[i];
        std::stable_sort(ptrs.begin(), ptrs.end(), [](const Row *a, const Row *b) { return a->key < b->key; });
        benchmark::DoNotOptimize(ptrs.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_StableSort)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
