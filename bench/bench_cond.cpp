// Judging rows with a parsed condition: time per row for one and for five
// clauses, beside the bare typed comparison that each clause makes; and the
// parse of a condition text with the release of its words.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cond/cond_internal.h"
#include "mgmt/cond.h"
#include "mgmt/mgi_app.h"

namespace {

struct Row {
    void *word0 = nullptr;
    Row *link = nullptr;
    uint32_t flag = 0;
    uint32_t ip = 0;
};

appItem g_items[] = {
    {{"flag", nullptr}, APP_ITEM_BOOL, int32_t(offsetof(Row, flag))},
    {{"ip", nullptr}, APP_ITEM_IPV4, int32_t(offsetof(Row, ip))},
    {{nullptr}, 0, 0},
};
const uint32_t kPath[] = {0x7c0e0001, 0};

void register_entity() {
    static bool done = false;
    if (done) return;
    done = true;
    app_entity_add(nullptr, app_entity_init(kPath[0], APP_ENTITY_INDEXED, nullptr, nullptr, nullptr, nullptr, g_items));
}

// A condition parsed from its words into nodes of the entity's items.
struct Condition {
    std::vector<std::string> text;
    char *words[COND_WORDS] = {};
    int32_t connectors[COND_CONNECTORS] = {};
    cond_expr_list list{nullptr, &list.first};
    explicit Condition(const std::vector<std::string> &w) : text(w) {
        register_entity();
        int n = 0, k = 0;
        for (auto &s : text) {
            if (s == "and" || s == "or") connectors[k++] = n;
            words[n++] = s.data();
        }
        if (mgmt::cond::build_clauses(kPath, words, connectors, n, k, &list) != 0) std::abort();
    }
    ~Condition() { free_expr_list_all(&list); }
};

void judge_rows(benchmark::State &state, const std::vector<std::string> &words) {
    Condition cond(words);
    std::vector<Row> rows(64);
    for (size_t i = 0; i < rows.size(); ++i) rows[i].ip = uint32_t(i % 3 + 9); // 9, 10, 11
    size_t i = 0, kept = 0;
    for (auto _ : state) {
        Row &r = rows[i++ & 63];
        r.link = nullptr;
        auto *node = reinterpret_cast<cond_data_node *>(&r);
        cond_data_list list{node, &node->next};
        int rc = default_post_logic_analyze(&list, &cond.list);
        kept += list.first == node;
        benchmark::DoNotOptimize(rc);
    }
    state.counters["kept"] = double(kept) / double(state.iterations());
}

void BM_JudgeRow_OneClause(benchmark::State &state) { judge_rows(state, {"ip", "=", "10.0.0.1"}); }
BENCHMARK(BM_JudgeRow_OneClause);

void BM_JudgeRow_FiveClauses(benchmark::State &state) {
    judge_rows(state, {"ip", ">", "10.0.0.1", "or", "=", "10.0.0.2", "and", "not", "bigger", "than", "10.0.0.3",
                       "or", "!=", "10.0.0.4", "and", ">=", "10.0.0.5"});
}
BENCHMARK(BM_JudgeRow_FiveClauses);

void BM_JudgeRow_TruthValue(benchmark::State &state) { judge_rows(state, {"flag", "==", "true"}); }
BENCHMARK(BM_JudgeRow_TruthValue);

// Floor: the typed comparison alone, as one clause makes it.
void BM_CompareOnly(benchmark::State &state) {
    uint32_t a = 10, b = 9;
    for (auto _ : state) {
        benchmark::DoNotOptimize(&a);
        benchmark::DoNotOptimize(logic_compare_match(APP_ITEM_IPV4, &a, &b));
        ++b;
    }
}
BENCHMARK(BM_CompareOnly);

// The parse of a condition text (it collects its first word to the word limit) and the release of the words.
void BM_ParseAndRelease(benchmark::State &state) {
    char *words[COND_WORDS] = {};
    int32_t connectors[COND_CONNECTORS] = {};
    cond_expr_list list{nullptr, &list.first};
    for (auto _ : state) {
        int rc = retrieve_postJudge_stdExpr(kPath, "ip = 10.0.0.1", words, connectors, &list);
        benchmark::DoNotOptimize(rc);
        free_record_words(words);
    }
}
BENCHMARK(BM_ParseAndRelease);

} // namespace

BENCHMARK_MAIN();
