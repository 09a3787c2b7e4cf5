// Any bytes as a request to a daemon with a small entity tree: decoding, the
// handlers and encoding must stay inside the request and response buffers.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <pcre.h>

#include "libmgmt.h"

namespace {

// Expressions compiled for a type-31 request are freed by mgi_final_rsp_message and by nothing
// else. On a road where no handler runs (an unknown object, say) nobody calls it and they stay
// allocated: that is the daemon's lot, kept on purpose. The target follows what PCRE allocates
// and frees what no handler's final call took care of, so that the leak checker sees only
// leaks of other roads.
std::vector<void *> g_compiled;
bool g_finalled = false;

void *track(size_t n) { return g_compiled.emplace_back(std::malloc(n)); }

void untrack(void *p) { // PCRE's own free, of a pattern that did not compile
    std::erase(g_compiled, p);
    std::free(p);
}

struct Row {
    char name[32];
    uint32_t value;
};

appItem g_items[] = {
    {{"name", nullptr}, APP_ITEM_STRING, 32},
    {{"value", nullptr}, APP_ITEM_UINT32, 0},
    {{nullptr}, 0, 0},
};

int decode_index(mgiInfo *info) {
    if (!info->mgidata || info->mgidata_len < 4) mgi_sprintf_err(info, "no key");
    return 0;
}

int encode_row(mgiInfo *info) {
    static Row row = {"row", 7};
    if (info->condition && info->condition_len) {
        char text[128];
        size_t n = info->condition_len < sizeof text - 1 ? info->condition_len : sizeof text - 1;
        std::memcpy(text, info->condition, n);
        text[n] = '\0';
        auto *ctx = static_cast<condContext *>(info->cond_ctx);
        int rc = retrieve_postJudge_stdExpr(info->rqt_target, text, ctx->words, ctx->connectors, &ctx->expr_list);
        if (rc) set_encode_errcode(info, rc);
    }
    accept_udc_as_condition(info);
    mgi_init_rsp_message(info);
    mgi_update_rsp_data(info, &row, sizeof row);
    set_rsptype(info, info->rqt_type == 2 ? MGI_RSP_PARTIAL : MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    g_finalled = true;
    return 0;
}

// Handlers end with mgi_final_rsp_message, which frees the request's compiled expressions.
int report(mgiInfo *info) {
    default_err_handle(info);
    mgi_final_rsp_message(info);
    g_finalled = true;
    return 0;
}

bool setup() {
    pcre_malloc = track;
    pcre_free = untrack;
    set_items_default_offset(g_items);
    appEntity *top = app_entity_init(0xe0002, APP_ENTITY_INDEXED, decode_index, report, nullptr, encode_row, g_items);
    appEntity *child = app_entity_init(0xe0001, 0, nullptr, report, nullptr, encode_row, nullptr);
    uint32_t root[] = {0};
    uint32_t under[] = {0xe0002, 0};
    app_entity_add(root, top);
    app_entity_add(under, child);
    free_cond_ctx_by_uiInfo();
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ready = setup();
    (void)ready;
    if (size > MGI_MAX_LEN) return 0;
    // The request in a buffer of exactly its size, so that a read past it is seen.
    std::vector<uint8_t> rqt(data, data + size);
    static std::vector<uint8_t> rsp(65536);
    uint32_t len = 0;
    g_finalled = false;
    libmgmt_serve_request(rqt.data(), uint32_t(rqt.size()), rsp.data(), uint32_t(rsp.size()), &len);
    if (!g_finalled)
        for (void *p : g_compiled) std::free(p);
    g_compiled.clear();
    return 0;
}
