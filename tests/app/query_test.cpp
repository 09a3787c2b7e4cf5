// Query data trees and the condition sent back with the response.
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
    const int64_t seen[][2] = {{root->obj, M | 1}, // the target entity's word, not the record's
                               {root->length, 4}, {root->key[0], 10}, {root->key[2], 12}, {root->info[95], 0x11},
                               {first->obj, 0x77}, {first->key[1], 21}, {second->obj, 0x78},
                               {static_cast<uint8_t *>(root->data) - data.data(), 140},
                               {static_cast<uint8_t *>(first->data) - data.data(), 144 + 140}};
    for (size_t k = 0; k < std::size(seen); ++k) EXPECT_EQ(seen[k][0], seen[k][1]) << "row " << k;
    EXPECT_TRUE(!root->next && !second->next && root->children.last == &second->next);
    clean_app_query_data_tree(head); // the sanitizer build checks that all of it is freed
    // A length of exactly one record, or less: one node, no children.
    for (uint32_t len : {144u, 10u}) {
        head = app_process_query_data(data.data(), len, path);
        ASSERT_NE(head, nullptr);
        EXPECT_TRUE(!head->first->children.first && !head->first->next) << len;
        clean_app_query_data_tree(head);
    }
    // Nulls and an unknown path give no tree.
    const uint32_t nowhere[] = {M | 0x999, 0};
    CaptureStdout();
    EXPECT_EQ(app_process_query_data(data.data(), 141, nowhere), nullptr);
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\n");
    EXPECT_EQ(app_process_query_data(nullptr, 141, path), nullptr);
    EXPECT_EQ(app_process_query_data(data.data(), 141, nullptr), nullptr);
    clean_app_query_data_tree(nullptr);
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
