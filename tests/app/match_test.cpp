// Decoding what a request carries: the match expressions of type-31 requests
// (which patterns compile from where, the match types of query data, the
// accessors, the release of the compiled expressions), and malformed requests:
// chains that run past the message, unknown segment types, truncated headers
// and unterminated patterns. Each is answered without a read
// outside the request or a write outside the response (the sanitizer build
// sees any), and what the message does say is still used.
#include <gtest/gtest.h>

#include <cstring>
#include <algorithm>
#include <string>

#include "app_fixture.h"

using namespace app_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

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

// What the handler saw through the accessors.
struct Probe {
    int count = -1, count_after_final = -1;
    bool regex[128] = {};
    std::vector<int> exec40; // the expression of id 40 on "zz", "c3", "a1"
    int a1 = -99, b2 = -99;
    uint32_t types[130] = {};
    uint32_t mask0 = 0;
};
Probe g_probe;
mgiInfo g_info; // the context as the handler got it
int g_calls;
Bytes g_cookie; // the cookie's body as the handler saw it

// A handler that looks at the match expressions and uses everything else a request can carry.
int probe(mgiInfo *i) {
    ++g_calls;
    g_info = *i;
    auto *c = static_cast<uint8_t *>(i->cookie);
    g_cookie = c ? Bytes(c, c + i->cookie_len) : Bytes{};
    g_probe.count = i->match_count;
    for (uint32_t id = 0; id < 128; ++id) g_probe.regex[id] = mgi_get_match_regex_by_obj_id(i, id) != nullptr;
    for (uint32_t id = 0; id < 130; ++id) g_probe.types[id] = mgi_get_match_type_by_obj_id(i, id);
    g_probe.mask0 = i->match_mask[0];
    auto run = [&](uint32_t id, const char *s) {
        return mgi_pcre_exec(mgi_get_match_regex_by_obj_id(i, id), s, int(std::strlen(s)));
    };
    g_probe.a1 = run(1, "xa1x");
    g_probe.b2 = run(3, "b2");
    for (const char *s : {"zz", "c3", "a1"}) g_probe.exec40.push_back(run(40, s));
    accept_udc_as_condition(i);
    if (appQueryList *t = app_process_query_data(i->querydata, i->querydata_len, i->rqt_target))
        clean_app_query_data_tree(t);
    if (i->cookie && i->cookie_len) mgi_set_rsp_cookie(i, i->cookie, i->cookie_len);
    mgi_final_rsp_message(i);
    g_probe.count_after_final = i->match_count;
    set_rsptype(i, MGI_RSP_FINAL);
    return 0;
}
int ok(mgiInfo *) { return 0; }

class Match : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { add_entity({}, M | 1, 0, nullptr, nullptr, ok, probe); }
    void SetUp() override {
        g_calls = 0;
        std::memset(&g_info, 0, sizeof g_info);
    }
    // Serves a request of the given type with these segments; the probe holds what the handler saw.
    static void ask(const std::vector<Seg> &segs, uint8_t type = MGI_RQT_MATCH_GET) {
        g_probe = Probe{};
        serve(request({M | 1}, type, segs));
    }
};

TEST_F(Match, KeptThirdPatternIsReadFromFurtherOn) {
    ask({{MGI_SEG_UDCDATA, match_body({{1, 10}, {3, 10}, {40, 10}, {50, 3}}, kPatterns, 12), 0}});
    EXPECT_EQ(g_probe.count, 3);
    EXPECT_TRUE(g_probe.regex[1] && g_probe.regex[3] && g_probe.regex[40]);
    EXPECT_FALSE(g_probe.regex[50]); // its type isn't 10
    EXPECT_EQ(g_probe.a1 + g_probe.b2, 0);
    // The third expression was compiled from "zz", three bytes behind its own text.
    EXPECT_EQ(g_probe.exec40, (std::vector<int>{0, kNoMatch, kNoMatch}));
    EXPECT_EQ(g_probe.count_after_final, 0);

    // With query data as well: the udc walk ends at id 4 (after its pattern at 3), so id 2 keeps type 0;
    // match_mask is that of the query data, and ids 96 and up have neither type nor expression.
    Seg udc{MGI_SEG_UDCDATA, match_body({{3, 10}}, std::string("b2\0", 3), 3), 0};
    ask({udc, {MGI_SEG_QUERYDATA, match_body({{2, 10}, {5, 3}, {70, 4}}, "", 1), 0}});
    EXPECT_TRUE(g_probe.count == 1 && g_probe.types[2] == 0u && g_probe.types[5] == 3u && g_probe.types[70] == 4u);
    EXPECT_EQ(g_probe.mask0, (1u << 2) | (1u << 5));
    for (uint32_t id : {4u, 96u, 127u, 128u}) EXPECT_EQ(g_probe.types[id], 0xFFFFFFFFu) << id;
    EXPECT_EQ(std::count(g_probe.regex + 96, g_probe.regex + 128, true), 0);
    ask({udc}, 0); // another request type compiles nothing
    EXPECT_EQ(g_probe.count, 0);
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
        SCOPED_TRACE(len);
        g_calls = 0;
        CaptureStdout();
        Response r = serve(Bytes(q.begin(), q.begin() + long(len)));
        std::string out = GetCapturedStdout();
        EXPECT_EQ(r.bytes.size(), 312u + r.len());
        EXPECT_EQ(g_calls, len >= 92 ? 1 : 0); // whether the target word was inside
        EXPECT_EQ(g_info.cookie, nullptr);     // the segment never is
        EXPECT_TRUE(len >= 92 || out.find("there is sw error") != std::string::npos);
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

} // namespace
