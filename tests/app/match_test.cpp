// Decoding what a request carries: the match expressions of type-31 requests
// (which patterns compile from where, the match types of query data, the
// accessors, the release of the compiled expressions), query data trees, the
// condition sent back with the response, and malformed requests:
// chains that run past the message, unknown segment types, truncated headers
// and unterminated patterns. Each is answered without a read
// outside the request or a write outside the response (the sanitizer build
// sees any), and what the message does say is still used.
#include "app_fixture.h"

using namespace app_test;

namespace {

constexpr uint32_t M = 0x530000;
constexpr int kNoMatch = -1; // what PCRE answers for a subject that does not match

// A match body: mask bits and type bytes by id, then the pattern text.
Bytes match_body(const std::vector<std::pair<uint32_t, uint8_t>> &ids, const std::string &patterns,
                 int32_t pattern_len) {
    Bytes b(140, 0);
    uint32_t mask[3] = {0, 0, 0};
    for (auto [id, type] : ids) {
        mask[id / 32] |= 1u << (id % 32);
        b[12 + id] = type;
    }
    std::memcpy(b.data(), mask, sizeof mask);
    std::memcpy(&b[132], &pattern_len, 4);
    b.insert(b.end(), patterns.begin(), patterns.end());
    return b;
}

const std::string kPatterns("a1\0b2\0c3\0zz\0", 12);

mgiInfo g_info;            // the context as the handler got it: its accessors still read the copy
std::vector<int> g_exec;   // expressions 1 on "xa1x", 3 on "b2", then 40 on "zz", "c3", "a1"
int g_calls, g_count_after_final;
Bytes g_cookie; // the cookie's body as the handler saw it

// A handler that runs the match expressions and uses everything else a request can carry.
int probe(mgiInfo *i) {
    ++g_calls;
    g_info = *i;
    auto *c = static_cast<uint8_t *>(i->cookie);
    g_cookie = c ? Bytes(c, c + i->cookie_len) : Bytes{};
    g_exec.clear();
    using Run = std::pair<uint32_t, const char *>;
    for (auto [id, subject] : {Run{1, "xa1x"}, {3, "b2"}, {40, "zz"}, {40, "c3"}, {40, "a1"}})
        g_exec.push_back(mgi_pcre_exec(mgi_get_match_regex_by_obj_id(i, id), subject, int(std::strlen(subject))));
    accept_udc_as_condition(i);
    if (appQueryList *t = app_process_query_data(i->querydata, i->querydata_len, i->rqt_target))
        clean_app_query_data_tree(t);
    if (i->cookie && i->cookie_len) mgi_set_rsp_cookie(i, i->cookie, i->cookie_len);
    mgi_final_rsp_message(i);
    g_count_after_final = i->match_count;
    return set_rsptype(i, MGI_RSP_FINAL), 0;
}
int ok(mgiInfo *) { return 0; }
bool regex(uint32_t id) { return mgi_get_match_regex_by_obj_id(&g_info, id) != nullptr; }
uint32_t type(uint32_t id) { return mgi_get_match_type_by_obj_id(&g_info, id); }

class Match : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { add_entity({}, M | 1, 0, nullptr, nullptr, ok, probe); }
    void SetUp() override {
        g_calls = 0;
        std::memset(&g_info, 0, sizeof g_info);
    }
};

TEST_F(Match, KeptThirdPatternIsReadFromFurtherOn) {
    const Bytes three = match_body({{1, 10}, {3, 10}, {40, 10}, {50, 3}}, kPatterns, 12);
    serve(request({M | 1}, MGI_RQT_MATCH_GET, {{MGI_SEG_UDCDATA, three, 0}}));
    EXPECT_EQ(g_info.match_count, 3);
    EXPECT_TRUE(regex(1) && regex(3) && regex(40) && !regex(50)); // 50's type isn't 10
    // The third expression was compiled from "zz", three bytes behind its own text.
    EXPECT_EQ(g_exec, (std::vector<int>{0, 0, 0, kNoMatch, kNoMatch}));
    EXPECT_EQ(g_count_after_final, 0);

    // With query data as well: the udc walk ends at id 4 (after its pattern at 3), so id 2 keeps type 0;
    // match_mask is that of the query data, and ids 96 and up have neither type nor expression.
    Seg udc{MGI_SEG_UDCDATA, match_body({{3, 10}}, std::string("b2\0", 3), 3), 0};
    const Seg query{MGI_SEG_QUERYDATA, match_body({{2, 10}, {5, 3}, {70, 4}}, "", 1)};
    serve(request({M | 1}, MGI_RQT_MATCH_GET, {udc, query}));
    EXPECT_TRUE(g_info.match_count == 1 && type(2) == 0u && type(5) == 3u && type(70) == 4u);
    EXPECT_EQ(g_info.match_mask[0], (1u << 2) | (1u << 5));
    for (uint32_t id : {4u, 96u, 127u, 128u}) EXPECT_TRUE(type(id) == 0xFFFFFFFFu && !regex(id)) << id;
    serve(request({M | 1}, 0, {udc})); // another request type compiles nothing
    EXPECT_EQ(g_info.match_count, 0);
}

using BadInput = Match;

TEST_F(BadInput, ChainsStopAtTheLastWholeSegmentAndSkipUnknownTypes) {
    Bytes q = request({M | 1}, 0, {{MGI_SEG_COOKIE, {1, 2, 3, 4}, 0}, {MGI_SEG_CONDITION, {5, 6}, 0}});
    put_be16(&q[312 + 12 + 2], 60000); // the condition claims far more than the message holds
    Response r = serve(q);
    EXPECT_TRUE(g_info.cookie_len == 4 && !g_info.condition);
    ASSERT_EQ(r.segments().size(), 1u); // the cookie sent back
    EXPECT_EQ(r.segments()[0].body, (Bytes{1, 2, 3, 4}));
    // A chain whose last link points at a further segment beyond the end.
    q = request({M | 1}, 0, {{MGI_SEG_COOKIE, {7}, 0}});
    q[312] = MGI_SEG_UDCDATA;
    serve(q);
    EXPECT_TRUE(g_info.cookie_len == 1 && !g_info.udcdata);
    serve(request({M | 1}, 0, {{200, {9, 9, 9}, 0}, {77, {}, 0}, {MGI_SEG_COOKIE, {4}, 0}}));
    EXPECT_EQ(g_cookie, Bytes{4});
}

TEST_F(BadInput, TruncatedMessagesAreServedAsIfTheRestWereZero) {
    Bytes q = request({M | 1}, 0, {{MGI_SEG_COOKIE, {1}, 0}});
    for (size_t len : {1ul, 100ul, 311ul, 316ul}) {
        g_calls = 0;
        CaptureStdout();
        Response r = serve(Bytes(q.begin(), q.begin() + long(len)));
        const bool sw_error = GetCapturedStdout().find("there is sw error") != std::string::npos;
        // The target word is inside from 92 bytes on; the segment never is.
        EXPECT_TRUE(r.bytes.size() == 312u + r.len() && g_calls == (len >= 92) && !g_info.cookie &&
                    (len >= 92 || sw_error)) << len;
    }
}

TEST_F(BadInput, PatternsAndQueryRecordsBeyondTheMessage) {
    // Ids 1 and 2 are expressions; the second pattern has no NUL before the message ends,
    // and the claimed pattern length is far larger than the message.
    Bytes body = match_body({{1, 10}, {2, 10}}, std::string("ab\0cd", 5), 100000);
    serve(request({M | 1}, MGI_RQT_MATCH_GET, {{MGI_SEG_UDCDATA, body, 0}}));
    EXPECT_TRUE(g_info.match_count == 2 && g_info.match_regex[2]); // compiled from "cd", cut at the message's end
    // A match body cut short: its mask and types are read as far as the message goes.
    serve(request({M | 1}, MGI_RQT_MATCH_GET, {{MGI_SEG_UDCDATA, Bytes(body.begin(), body.begin() + 20), 0}}));
    EXPECT_TRUE(g_info.match_count == 0 && g_info.match_mask[0] == 0x6u);
    // Query records whose length claims more than the message, and records cut short.
    Bytes rec(140, 0);
    for (uint32_t claim : {0xFFFFFF00u, 4u}) {
        std::memcpy(&rec[132], &claim, 4);
        serve(request({M | 1}, 0, {{MGI_SEG_QUERYDATA, rec, 0}}));
        rec.resize(140 + 4 + 20, 0);
    }
    EXPECT_EQ(g_calls, 4);
}

// ---------------------------------------------------------------- query data and conditions

constexpr uint32_t Q = 0x540000; // the query and condition cases' module

Bytes query_record(uint32_t k0, uint32_t obj, const std::string &body, uint8_t info_byte = 0) {
    Bytes r(140, 0);
    for (uint32_t k = 0; k < 3; ++k) put_be32(&r[4 * k], k0 + k);
    std::memset(&r[12], info_byte, 96);
    const uint32_t host_words[2] = {uint32_t(body.size()), obj}; // length and object in host order
    std::memcpy(&r[132], host_words, 8);
    r.insert(r.end(), body.begin(), body.end());
    return r;
}

TEST(QueryTree, FirstRecordIsTheRootAndTheRestItsChildren) {
    add_entity({}, Q | 1, 0, nullptr, nullptr, nullptr, nullptr);
    Bytes data = query_record(10, 0x99, "root", 0x11);
    for (const Bytes &child : {query_record(20, 0x77, "abc"), query_record(30, 0x78, "")})
        data.insert(data.end(), child.begin(), child.end());
    const uint32_t path[] = {Q | 1, 0};
    appQueryList *head = app_process_query_data(data.data(), uint32_t(data.size()), path);
    ASSERT_TRUE(head && head->first && head->first->children.first && head->first->children.first->next);
    appQueryNode *root = head->first, *first = root->children.first, *second = first->next;
    const int64_t seen[][2] = {{root->obj, Q | 1}, // the target entity's word, not the record's
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
    const uint32_t nowhere[] = {Q | 0x999, 0};
    CaptureStdout();
    EXPECT_EQ(app_process_query_data(data.data(), 141, nowhere), nullptr);
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\n");
    EXPECT_TRUE(!app_process_query_data(nullptr, 141, path) && !app_process_query_data(data.data(), 141, nullptr));
    clean_app_query_data_tree(nullptr);
}

int accept_udc(mgiInfo *i) { return accept_udc_as_condition(i), set_rsptype(i, MGI_RSP_FINAL), 0; }
int accept_pre(mgiInfo *i) { return accept_preindex_as_condition(i), set_rsptype(i, MGI_RSP_FINAL), 0; }
int data_ok(mgiInfo *) { return 0; }

TEST(AcceptCondition, ConditionFirstThenUdcOrPreindex) {
    add_entity({}, Q | 2, 0, nullptr, nullptr, data_ok, accept_udc);
    add_entity({}, Q | 3, 0, nullptr, nullptr, data_ok, accept_pre);
    const Seg cond{MGI_SEG_CONDITION, {'n', 'a', 'm', 'e'}, 0x31}, udc{MGI_SEG_UDCDATA, {1, 2}, 0x34},
        rule{MGI_SEG_RULEDATA, {3, 4, 5}, 0x33};
    // Rows: the entity, the segments sent, and the one echoed as the condition.
    for (auto [word, sent, echoed] : {std::tuple<uint32_t, std::vector<Seg>, Seg>{Q | 2, {udc, cond}, cond},
                                      {Q | 2, {udc}, udc}, {Q | 3, {rule, cond}, cond}, {Q | 3, {rule}, rule}}) {
        auto segs = serve(request({word}, 0, sent)).segments();
        ASSERT_EQ(segs.size(), 1u) << word << " " << sent.size();
        EXPECT_TRUE(segs[0].type == MGI_SEG_CONDITION && segs[0].body == echoed.body &&
                    segs[0].subtype == echoed.subtype);
    }

    CaptureStdout();
    Response r = serve(request({Q | 2}));
    serve(request({Q | 3}));
    EXPECT_EQ(GetCapturedStdout(),
              "udc:no conditon for this get action...\nruled:no conditon for this get action...\n");
    EXPECT_TRUE(r.segments().empty());
}

} // namespace
