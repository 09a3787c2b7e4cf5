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
    put_be32(&r[0], k0);
    put_be32(&r[4], k0 + 1);
    put_be32(&r[8], k0 + 2);
    std::memset(&r[12], info_byte, 96);
    uint32_t len = uint32_t(body.size());
    std::memcpy(&r[132], &len, 4);
    std::memcpy(&r[136], &obj, 4);
    r.resize(140 + body.size());
    if (!body.empty()) std::memcpy(&r[140], body.data(), body.size());
    return r;
}

TEST(QueryTree, FirstRecordIsTheRootAndTheRestItsChildren) {
    add_entity({}, M | 1, 0, nullptr, nullptr, nullptr, nullptr);
    Bytes data = query_record(10, 0x99, "root", 0x11);
    for (const Bytes &child : {query_record(20, 0x77, "abc"), query_record(30, 0x78, "")})
        data.insert(data.end(), child.begin(), child.end());
    const uint32_t path[] = {M | 1, 0};
    appQueryList *head = app_process_query_data(data.data(), uint32_t(data.size()), path);
    ASSERT_TRUE(head && head->first && head->first->children.first && head->first->children.first->next);
    appQueryNode *root = head->first, *first = root->children.first, *second = first->next;
    EXPECT_EQ(root->obj, M | 1); // the target entity's word, not the record's
    const int64_t seen[][2] = {{root->length, 4}, {root->key[0], 10}, {root->key[2], 12}, {root->info[95], 0x11},
                               {first->obj, 0x77}, {first->key[1], 21}, {second->obj, 0x78}};
    for (size_t k = 0; k < std::size(seen); ++k) EXPECT_EQ(seen[k][0], seen[k][1]) << "row " << k;
    EXPECT_EQ(root->data, data.data() + 140);
    EXPECT_EQ(first->data, data.data() + 144 + 140);
    EXPECT_TRUE(!root->next && !second->next && root->prev_link == &head->first);
    EXPECT_TRUE(root->children.last == &second->next && second->prev_link == &first->next);
    clean_app_query_data_tree(head); // the sanitizer build checks that all of it is freed

    // A length of exactly one record, or less: one node, no children.
    for (uint32_t len : {144u, 10u}) {
        head = app_process_query_data(data.data(), len, path);
        ASSERT_NE(head, nullptr);
        EXPECT_TRUE(!head->first->children.first && !head->first->next) << len;
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
    EXPECT_TRUE(bare && bare->children.last == &bare->children.first && !bare->data);
    std::free(bare);

    auto *empty = static_cast<appQueryList *>(std::malloc(sizeof(appQueryList)));
    empty->first = nullptr;
    empty->last = &empty->first;
    clean_app_query_data_tree(empty); // frees only the head
    clean_app_query_data_tree(nullptr);
}

TEST(CondContext, ReleaseFreesAndResets) {
    condContext ctx;
    std::memset(&ctx, 0, sizeof ctx);
    destruct_cond_context(&ctx); // zeroed storage: initialise
    auto reset = [&] {
        return ctx.data_list.last == &ctx.data_list.first && ctx.expr_list.last == &ctx.expr_list.first &&
               ctx.expr_list2.last == &ctx.expr_list2.first && ctx.connectors[0] == -1 && !ctx.data_list.first &&
               !ctx.expr_list.first && !ctx.extra && ctx.ctx_word0 == 0 && ctx.ctx_word1 == 0;
    };
    EXPECT_TRUE(reset());
    condContext before = ctx;
    destruct_cond_context(&ctx); // an empty, initialised context stays as it was
    EXPECT_EQ(0, std::memcmp(&before, &ctx, sizeof ctx));

    // Three words, a node in each expression list, a row and an extra block.
    for (int i = 0; i < 3; ++i) ctx.words[i] = strdup("w");
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
    EXPECT_TRUE(reset());
    EXPECT_EQ(ctx.words[0], nullptr);
    EXPECT_EQ(ctx.words[2], stale); // the upper slots keep their pointers
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
}

int accept_udc(mgiInfo *i) { return accept_udc_as_condition(i), set_rsptype(i, MGI_RSP_FINAL), 0; }
int accept_pre(mgiInfo *i) { return accept_preindex_as_condition(i), set_rsptype(i, MGI_RSP_FINAL), 0; }
int data_ok(mgiInfo *) { return 0; }

TEST(AcceptCondition, ConditionFirstThenUdcOrPreindex) {
    add_entity({}, M | 2, 0, nullptr, nullptr, data_ok, accept_udc);
    add_entity({}, M | 3, 0, nullptr, nullptr, data_ok, accept_pre);
    const Seg cond{MGI_SEG_CONDITION, {'n', 'a', 'm', 'e'}, 0x31}, udc{MGI_SEG_UDCDATA, {1, 2}, 0x34},
        rule{MGI_SEG_RULEDATA, {3, 4, 5}, 0x33};
    const struct {
        uint32_t word;
        std::vector<Seg> segs;
        Seg echoed;
    } cases[] = {{M | 2, {udc, cond}, cond}, {M | 2, {udc}, udc}, {M | 3, {rule, cond}, cond}, {M | 3, {rule}, rule}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.word << " " << c.segs.size());
        auto segs = serve(request({c.word}, 0, c.segs)).segments();
        ASSERT_EQ(segs.size(), 1u);
        EXPECT_TRUE(segs[0].type == MGI_SEG_CONDITION && segs[0].body == c.echoed.body &&
                    segs[0].subtype == c.echoed.subtype);
    }

    CaptureStdout();
    Response r = serve(request({M | 2}));
    serve(request({M | 3}));
    EXPECT_EQ(GetCapturedStdout(),
              "udc:no conditon for this get action...\nruled:no conditon for this get action...\n");
    EXPECT_TRUE(r.segments().empty());
}

} // namespace
