// Query data trees, the release of the condition context, and the condition
// sent back with the response.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "app_fixture.h"

using namespace app_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr uint32_t M = 0x540000;

Bytes query_record(uint32_t k0, uint32_t obj, const std::string &body, uint8_t info_byte = 0) {
    Bytes r(140, 0);
    put32(&r[0], k0);
    put32(&r[4], k0 + 1);
    put32(&r[8], k0 + 2);
    std::memset(&r[12], info_byte, 96);
    uint32_t len = uint32_t(body.size());
    std::memcpy(&r[132], &len, 4);
    std::memcpy(&r[136], &obj, 4);
    r.resize(140 + body.size());
    if (!body.empty()) std::memcpy(&r[140], body.data(), body.size());
    return r;
}

std::vector<appQueryNode *> nodes(const appQueryList &l) {
    std::vector<appQueryNode *> out;
    for (appQueryNode *n = l.first; n; n = n->next) out.push_back(n);
    return out;
}

TEST(QueryTree, FirstRecordIsTheRootAndTheRestItsChildren) {
    add_entity({}, M | 1, 0, nullptr, nullptr, nullptr, nullptr);
    Bytes data = query_record(10, 0x99, "root", 0x11);
    Bytes c1 = query_record(20, 0x77, "abc"), c2 = query_record(30, 0x78, "");
    data.insert(data.end(), c1.begin(), c1.end());
    data.insert(data.end(), c2.begin(), c2.end());
    const uint32_t path[] = {M | 1, 0};
    appQueryList *head = app_process_query_data(data.data(), uint32_t(data.size()), path);
    ASSERT_NE(head, nullptr);
    auto roots = nodes(*head);
    ASSERT_EQ(roots.size(), 1u);
    appQueryNode *root = roots[0];
    EXPECT_EQ(root->obj, M | 1); // the target entity's word, not the record's
    EXPECT_EQ(root->length, 4u);
    EXPECT_EQ(root->key[0], 10u);
    EXPECT_EQ(root->key[2], 12u);
    EXPECT_EQ(root->info[95], 0x11);
    EXPECT_EQ(root->data, data.data() + 140);
    EXPECT_EQ(root->prev_link, &head->first);
    auto kids = nodes(root->children);
    ASSERT_EQ(kids.size(), 2u);
    EXPECT_EQ(kids[0]->obj, 0x77u);
    EXPECT_EQ(kids[0]->key[1], 21u);
    EXPECT_EQ(kids[0]->data, data.data() + 144 + 140);
    EXPECT_EQ(kids[1]->obj, 0x78u);
    EXPECT_EQ(root->children.last, &kids[1]->next);
    EXPECT_EQ(kids[1]->prev_link, &kids[0]->next);
    clean_app_query_data_tree(head); // the sanitizer build checks that all of it is freed

    // A length of exactly one record, or less: one node, no children.
    for (uint32_t len : {144u, 10u}) {
        head = app_process_query_data(data.data(), len, path);
        ASSERT_NE(head, nullptr);
        EXPECT_EQ(head->first->children.first, nullptr);
        EXPECT_EQ(head->first->next, nullptr);
        clean_app_query_data_tree(head);
    }
}

TEST(QueryTree, NullsAndUnknownPaths) {
    Bytes data = query_record(1, 2, "x");
    const uint32_t nowhere[] = {M | 0x999, 0};
    CaptureStdout();
    EXPECT_EQ(app_process_query_data(data.data(), 141, nowhere), nullptr);
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\n");
    EXPECT_EQ(app_process_query_data(nullptr, 141, nowhere), nullptr);
    EXPECT_EQ(app_process_query_data(data.data(), 141, nullptr), nullptr);

    appQueryNode *bare = new_app_query_node(nullptr);
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->children.first, nullptr);
    EXPECT_EQ(bare->children.last, &bare->children.first);
    EXPECT_EQ(bare->data, nullptr);
    std::free(bare);

    auto *empty = static_cast<appQueryList *>(std::malloc(sizeof(appQueryList)));
    empty->first = nullptr;
    empty->last = &empty->first;
    clean_app_query_data_tree(empty);
    clean_app_query_data_tree(nullptr);
}

TEST(CondContext, ReleaseFreesAndResets) {
    condContext ctx;
    std::memset(&ctx, 0, sizeof ctx);
    destruct_cond_context(&ctx); // zeroed storage: initialise
    EXPECT_EQ(ctx.data_list.last, &ctx.data_list.first);
    EXPECT_EQ(ctx.expr_list.last, &ctx.expr_list.first);
    EXPECT_EQ(ctx.expr_list2.last, &ctx.expr_list2.first);
    EXPECT_EQ(ctx.connectors[0], -1);
    condContext before = ctx;
    destruct_cond_context(&ctx); // an empty, initialised context stays as it was
    EXPECT_EQ(0, std::memcmp(&before, &ctx, offsetof(condContext, released_words)));

    // An expression of three words, two clauses, a row and an extra block.
    for (int i = 0; i < 3; ++i) ctx.words[i] = strdup("w");
    ctx.words[3] = nullptr;
    for (cond_expr_list *l : {&ctx.expr_list, &ctx.expr_list2}) {
        auto *n = static_cast<cond_expr_node *>(std::calloc(1, sizeof(cond_expr_node)));
        *l->last = n;
        l->last = &n->next;
    }
    auto *row = static_cast<cond_data_node *>(std::calloc(1, sizeof(cond_data_node)));
    *ctx.data_list.last = row;
    ctx.data_list.last = &row->next;
    ctx.extra = std::malloc(32);
    ctx.ctx_word0 = ctx.ctx_word1 = 9;
    ctx.connectors[0] = 2;
    ctx.app_area[0] = 0x5a;
    char *stale = ctx.words[2];
    destruct_cond_context(&ctx);
    EXPECT_EQ(ctx.ctx_word0, 0u);
    EXPECT_EQ(ctx.ctx_word1, 0u);
    EXPECT_EQ(ctx.words[0], nullptr);
    EXPECT_EQ(ctx.words[2], stale); // the upper slots keep their pointers
    EXPECT_EQ(ctx.data_list.first, nullptr);
    EXPECT_EQ(ctx.expr_list.first, nullptr);
    EXPECT_EQ(ctx.expr_list2.last, &ctx.expr_list2.first);
    EXPECT_EQ(ctx.connectors[0], -1);
    EXPECT_EQ(ctx.extra, nullptr);
    EXPECT_EQ(ctx.app_area[0], 0x5a);

    // A later, shorter expression leaves the old upper slots in place: they are not freed twice.
    ctx.words[0] = strdup("again");
    ctx.words[1] = nullptr;
    destruct_cond_context(&ctx);
    EXPECT_EQ(ctx.words[2], stale);
    // Slots filled by the caller behind an empty one are freed as well.
    ctx.words[0] = strdup("a");
    ctx.words[5] = strdup("b");
    destruct_cond_context(&ctx);
    std::memset(ctx.words, 0, sizeof ctx.words);
}

int data_ok(mgiInfo *) { return 0; }
int accept_udc(mgiInfo *i) {
    accept_udc_as_condition(i);
    set_rsptype(i, MGI_RSP_FINAL);
    return 0;
}
int accept_pre(mgiInfo *i) {
    accept_preindex_as_condition(i);
    set_rsptype(i, MGI_RSP_FINAL);
    return 0;
}

TEST(AcceptCondition, ConditionFirstThenUdcOrPreindex) {
    add_entity({}, M | 2, 0, nullptr, nullptr, data_ok, accept_udc);
    add_entity({}, M | 3, 0, nullptr, nullptr, data_ok, accept_pre);
    Seg cond{MGI_SEG_CONDITION, {'n', 'a', 'm', 'e'}, 0x31}, udc{MGI_SEG_UDCDATA, {1, 2}, 0x34},
        rule{MGI_SEG_RULEDATA, {3, 4, 5}, 0x33};

    Response r = serve(request({M | 2}, 0, {udc, cond}));
    ASSERT_EQ(r.segments().size(), 1u);
    EXPECT_EQ(r.segments()[0].type, MGI_SEG_CONDITION);
    EXPECT_EQ(r.segments()[0].body, cond.body);
    EXPECT_EQ(r.segments()[0].subtype, 0x31u);

    r = serve(request({M | 2}, 0, {udc}));
    ASSERT_EQ(r.segments().size(), 1u);
    EXPECT_EQ(r.segments()[0].body, udc.body);
    EXPECT_EQ(r.segments()[0].subtype, 0x34u);

    r = serve(request({M | 3}, 0, {rule}));
    ASSERT_EQ(r.segments().size(), 1u);
    EXPECT_EQ(r.segments()[0].body, rule.body);
    EXPECT_EQ(r.segments()[0].subtype, 0x33u);

    CaptureStdout();
    r = serve(request({M | 2}));
    serve(request({M | 3}));
    EXPECT_EQ(GetCapturedStdout(),
              "udc:no conditon for this get action...\nruled:no conditon for this get action...\n");
    EXPECT_TRUE(r.segments().empty());
}

} // namespace
