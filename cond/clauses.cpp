// The stage of the post-judge's parse that turns collected words into expression nodes.
#include <cstdint>
#include <cstdlib>

#include "cond/cond_internal.h"

namespace mgmt::cond {

namespace {

int append_clause(cond_expr_list *list, char **words, char *connector, const char *op, char *value) {
    auto *node = static_cast<cond_expr_node *>(std::calloc(1, sizeof(cond_expr_node)));
    if (!node) return COND_ERR_NO_WORD;
    node->name = words[0];
    node->op = op;
    node->value = value;
    node->connector = connector;
    node->offset = -1;
    append(list, node);
    return 0;
}

} // namespace

int build_clauses(const uint32_t *path, char **words, int32_t *connectors, int n, int k,
                  cond_expr_list *expr_list) {
    if (n < 32) words[n] = nullptr;
    if (k < 4) connectors[k] = -1;
    // A connector position, or -1 past the last one.
    auto connector_at = [&](int i) { return i < k ? connectors[i] : -1; };

    // The first clause: its phrase runs from words[1] to the word in front of its value.
    int first = connector_at(0);
    int count = first > 0 ? first - 2 : n - 2;
    const char *op = find_match_op_symbol(words + 1, count);
    if (!op) return COND_ERR_NO_OPERATOR;
    int rc = append_clause(expr_list, words, nullptr, op, words[first > 0 ? first - 1 : n - 1]);
    if (rc) return rc;

    // Further clauses, each behind its connector.
    for (int i = 0; i < k && i < 4; ++i) {
        int c = connector_at(i);
        if (c <= 0) break;
        int e = connector_at(i + 1);
        count = e > 0 ? e - c - 2 : n - c - 2;
        op = c + 1 <= 32 ? find_match_op_symbol(words + c + 1, count) : nullptr;
        if (!op) return COND_ERR_NO_OPERATOR;
        rc = append_clause(expr_list, words, words[c], op, words[e > 0 ? e - 1 : n - 1]);
        if (rc) return rc;
    }

    appEntity *entity = get_app_mgi_entity(path);
    if (!entity) return COND_ERR_NO_ENTITY;
    for (cond_expr_node *node = expr_list->first; node; node = node->next) {
        appItem *item = get_item_by_name(entity, node->name);
        if (!item) return COND_ERR_NO_ITEM;
        node->type = item->type;
        node->offset = item->offset;
    }
    return 0;
}

} // namespace mgmt::cond
