// What the last release of a condition context freed in each of its word slots. A context's
// storage behind `extra` belongs to the daemon, so the library keeps this beside the contexts,
// for the few a process uses (gcondCtx, and any a daemon keeps of its own).
#include "cond/cond_internal.h"

namespace mgmt::cond {

namespace {

constexpr int kContexts = 8;

struct Released {
    const condContext *ctx = nullptr;
    void *words[COND_WORDS] = {};
};

// Process-wide and unlocked, as the contexts themselves are.
Released g_released[kContexts];
int g_next = 0;

} // namespace

void **released_words(const condContext *ctx) {
    for (Released &r : g_released)
        if (r.ctx == ctx) return r.words;
    // A context not seen before takes the oldest place; the context that had it loses only
    // the memory of stale slots, which its next parse fills anew.
    Released &r = g_released[g_next];
    g_next = (g_next + 1) % kContexts;
    r = Released{ctx, {}};
    return r.words;
}

} // namespace mgmt::cond
