// Query data (the tree of a query segment's records) and the condition
// context that a daemon's get handlers keep across the parts of one answer.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/app_internal.h"
#include "cond/cond_internal.h"
#include "mgi/wire.h"
#include "mgmt/cond.h"
#include "mgmt/mgi_app.h"

namespace {

void list_init(appQueryList &l) {
    l.first = nullptr;
    l.last = &l.first;
}

void list_append(appQueryList &l, appQueryNode *n) {
    n->next = nullptr;
    n->prev_link = l.last;
    *l.last = n;
    l.last = &n->next;
}

// The 140-byte head of a query record; bytes that the request buffer doesn't
// hold read as 0.
appQueryRecord record_head(const unsigned char *p) {
    appQueryRecord r;
    size_t have = sizeof r;
    const auto &rqt = mgmt::app::serving().rqt;
    if (rqt.reaches(p)) have = std::min(have, rqt.room(p));
    std::memset(&r, 0, sizeof r);
    std::memcpy(&r, p, have);
    return r;
}

appQueryNode *make_node(const unsigned char *record) {
    auto *n = static_cast<appQueryNode *>(std::calloc(1, sizeof(appQueryNode)));
    if (!n) return nullptr;
    list_init(n->children);
    if (!record) return n;
    appQueryRecord r = record_head(record);
    n->obj = r.obj;
    n->length = r.length;
    for (int i = 0; i < 3; ++i) n->key[i] = mgmt::get_be32(r.key[i]);
    std::memcpy(n->info, r.info, sizeof n->info);
    n->data = const_cast<unsigned char *>(record) + APP_QUERY_RECORD_HDR;
    return n;
}

} // namespace

extern "C" {

MGMT_API condContext gcondCtx;

MGMT_API appQueryNode *new_app_query_node(void *record) { return make_node(static_cast<unsigned char *>(record)); }

MGMT_API appQueryList *app_process_query_data(void *data, uint32_t length, const uint32_t *path) {
    if (!data || !path) return nullptr;
    appEntity *e = get_app_mgi_entity(path);
    if (!e) return nullptr;
    auto *head = static_cast<appQueryList *>(std::malloc(sizeof(appQueryList)));
    if (!head) return nullptr;
    list_init(*head);
    auto *base = static_cast<unsigned char *>(data);
    appQueryNode *root = make_node(base);
    if (!root) {
        std::free(head);
        return nullptr;
    }
    root->obj = e->entity;
    list_append(*head, root);
    uint64_t offset = uint64_t{APP_QUERY_RECORD_HDR} + root->length;
    while (offset < length) {
        appQueryNode *n = make_node(base + offset);
        if (!n) break;
        offset += uint64_t{APP_QUERY_RECORD_HDR} + n->length;
        list_append(root->children, n);
    }
    return head;
}

MGMT_API void clean_app_query_node_recursively(appQueryList *head) {
    while (appQueryNode *n = head->first) {
        clean_app_query_node_recursively(&n->children);
        if (n->next)
            n->next->prev_link = n->prev_link;
        else
            head->last = n->prev_link;
        *n->prev_link = n->next;
        std::free(n);
    }
}

MGMT_API void clean_app_query_data_tree(appQueryList *head) {
    if (!head) return;
    clean_app_query_node_recursively(head);
    std::free(head);
}

MGMT_API void destruct_cond_context(condContext *ctx) {
    if (!ctx) return;
    ctx->ctx_word0 = 0;
    if (ctx->words[0]) {
        // The upper slots keep what an earlier release freed there, and a later,
        // shorter expression leaves them in place. Such a slot (it still holds
        // the very pointer the last release freed in it) is not freed again,
        // and no pointer is freed twice in one release. The parser marks the
        // slots it fills as new.
        void **released = mgmt::cond::released_words(ctx);
        char *freed_now[COND_WORDS];
        int nfreed = 0;
        for (int i = 0; i < COND_WORDS; ++i) {
            char *w = ctx->words[i];
            if (!w || w == released[i]) continue;
            if (std::find(freed_now, freed_now + nfreed, w) != freed_now + nfreed) continue;
            freed_now[nfreed++] = w;
            released[i] = w;
            std::free(w);
        }
    }
    free_expr_list_all(&ctx->expr_list);
    free_expr_list_all(&ctx->expr_list2);
    free_data_list_all(&ctx->data_list);
    std::free(ctx->extra);
    ctx->ctx_word1 = 0;
    ctx->words[0] = nullptr;
    ctx->connectors[0] = -1;
    ctx->extra = nullptr;
}

MGMT_API void free_cond_ctx_by_uiInfo(void) { destruct_cond_context(&gcondCtx); }

namespace {

int accept_as_condition(mgiInfo *info, void *other, uint16_t other_len, uint32_t other_subtype, const char *none) {
    if (info->condition) {
        append_rsp_segment(info, MGI_SEG_CONDITION, info->condition, info->condition_len);
        set_subtype_after_appendseg(info, info->condition_subtype);
    } else if (other) {
        append_rsp_segment(info, MGI_SEG_CONDITION, other, other_len);
        set_subtype_after_appendseg(info, other_subtype);
    } else {
        puts(none);
    }
    return 0;
}

} // namespace

MGMT_API int accept_udc_as_condition(mgiInfo *info) {
    return accept_as_condition(info, info->udcdata, info->udcdata_len, info->udcdata_subtype,
                               "udc:no conditon for this get action...");
}

MGMT_API int accept_preindex_as_condition(mgiInfo *info) {
    return accept_as_condition(info, info->mgidata, info->mgidata_len, info->mgidata_subtype,
                               "ruled:no conditon for this get action...");
}

} // extern "C"
