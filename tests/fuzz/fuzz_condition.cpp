// Any text as a condition: parsing and releasing the context must neither crash nor free twice.
#include <cstdint>
#include <string>

#include "libmgmt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool ready = [] {
        free_cond_ctx_by_uiInfo();
        return true;
    }();
    (void)ready;
    std::string text(reinterpret_cast<const char *>(data), size);
    const uint32_t path[2] = {0xe0002, 0};
    retrieve_postJudge_stdExpr(path, text.c_str(), gcondCtx.words, gcondCtx.connectors, &gcondCtx.expr_list);
    free_cond_ctx_by_uiInfo();
    return 0;
}
