// Malformed requests: chains that run past the message, unknown segment types,
// truncated headers, unterminated patterns and random bytes. Each is answered
// without a read outside the request or a write outside the response (the
// sanitizer build sees any), and what the message does say is still used.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "app_fixture.h"

using namespace app_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

constexpr uint32_t M = 0x550000;

mgiInfo g_info;
int g_calls;
Bytes g_cookie; // the cookie's body as the handler saw it

// A handler that uses everything a request can carry.
int greedy(mgiInfo *i) {
    ++g_calls;
    g_info = *i;
    auto *c = static_cast<uint8_t *>(i->cookie);
    g_cookie = c ? Bytes(c, c + i->cookie_len) : Bytes{};
    accept_udc_as_condition(i);
    if (appQueryList *t = app_process_query_data(i->querydata, i->querydata_len, i->rqt_target))
        clean_app_query_data_tree(t);
    if (i->cookie && i->cookie_len) mgi_set_rsp_cookie(i, i->cookie, i->cookie_len);
    if (i->rqt_type == 0x42) accept_preprovisoning_data(i);
    mgi_final_rsp_message(i);
    set_rsptype(i, MGI_RSP_FINAL);
    return 0;
}
int ok(mgiInfo *) { return 0; }

class BadInput : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { add_entity({}, M | 1, 0, nullptr, nullptr, ok, greedy); }
    void SetUp() override {
        g_calls = 0;
        std::memset(&g_info, 0, sizeof g_info);
    }
};

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
    EXPECT_EQ(g_calls, 3);
}

TEST_F(BadInput, TruncatedMessagesAreServedAsIfTheRestWereZero) {
    Bytes q = request({M | 1}, 0, {{MGI_SEG_COOKIE, {1}, 0}});
    for (size_t len : {1ul, 100ul, 130ul, 311ul, 312ul, 316ul}) {
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
    Bytes body(140, 0);
    uint32_t mask[3] = {0x6, 0, 0};
    std::memcpy(body.data(), mask, 12);
    body[12 + 1] = body[12 + 2] = 10;
    int32_t len = 100000;
    std::memcpy(&body[132], &len, 4);
    body.insert(body.end(), {'a', 'b', 0, 'c', 'd'});
    serve(request({M | 1}, MGI_RQT_MATCH_GET, {{MGI_SEG_UDCDATA, body, 0}}));
    EXPECT_TRUE(g_info.match_count == 2 && g_info.match_regex[2]); // compiled from "cd", cut at the message's end

    // A match body cut short: its mask and types are read as far as the message goes.
    serve(request({M | 1}, MGI_RQT_MATCH_GET, {{MGI_SEG_UDCDATA, Bytes(body.begin(), body.begin() + 20), 0}}));
    EXPECT_TRUE(g_info.match_count == 0 && g_info.match_mask[0] == 0x6u);

    // Query records whose length claims more than the message, and records cut short.
    Bytes rec(140, 0);
    uint32_t huge = 0xFFFFFF00u;
    std::memcpy(&rec[132], &huge, 4);
    serve(request({M | 1}, 0, {{MGI_SEG_QUERYDATA, rec, 0}}));
    uint32_t small = 4;
    std::memcpy(&rec[132], &small, 4);
    rec.resize(140 + 4 + 20, 0);
    serve(request({M | 1}, 0, {{MGI_SEG_QUERYDATA, rec, 0}}));
    EXPECT_EQ(g_calls, 4);
}

TEST_F(BadInput, RandomMessagesNeverCrash) {
    std::mt19937 rng(7);
    std::vector<int> bad;
    CaptureStdout();
    const uint8_t types[] = {129, 130, 131, 132, 133, 134, 135, 136, 137, 138, 139, 140, 0, 128, 200};
    for (int round = 0; round < 3000; ++round) {
        std::vector<Seg> segs;
        int n = int(rng() % 5);
        for (int k = 0; k < n; ++k) {
            Bytes body(rng() % 200);
            for (auto &b : body) b = uint8_t(rng());
            segs.push_back({types[rng() % sizeof types], body, uint32_t(rng())});
        }
        Bytes q = request({M | 1}, uint8_t(rng() % 2 ? MGI_RQT_MATCH_GET : rng() % 2 ? 0x42 : rng()), segs);
        // Damage a few bytes anywhere behind the target, often the heads and the length.
        int hits = int(rng() % 4);
        for (int k = 0; k < hits; ++k) q[128 + rng() % (q.size() - 128)] = uint8_t(rng());
        if (rng() % 3 == 0) q.resize(1 + rng() % q.size());
        Response r = serve(q);
        if (r.bytes.size() != 312u + r.len()) bad.push_back(round);
    }
    GetCapturedStdout();
    EXPECT_TRUE(bad.empty()) << bad.size() << " responses whose length disagrees with their header";
}

} // namespace
