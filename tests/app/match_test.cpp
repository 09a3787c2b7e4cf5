// Match expressions of type-31 requests: which patterns compile from where,
// the match types of query data, the accessors and the release of the
// compiled expressions.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

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

// What the handler saw through the accessors.
struct Probe {
    int count = -1;
    bool regex[128] = {};
    std::vector<int> exec40; // the expression of id 40 on "zz", "c3", "a1"
    int a1 = -99, b2 = -99;
    uint32_t types[130] = {};
    uint32_t mask[4] = {};
    int count_after_final = -1;
};
Probe g_probe;

int probe(mgiInfo *i) {
    g_probe.count = i->match_count;
    for (uint32_t id = 0; id < 128; ++id) g_probe.regex[id] = mgi_get_match_regex_by_obj_id(i, id) != nullptr;
    for (uint32_t id = 0; id < 130; ++id) g_probe.types[id] = mgi_get_match_type_by_obj_id(i, id);
    std::memcpy(g_probe.mask, i->match_mask, sizeof g_probe.mask);
    auto run = [&](uint32_t id, const char *s) {
        return mgi_pcre_exec(mgi_get_match_regex_by_obj_id(i, id), s, int(std::strlen(s)));
    };
    g_probe.a1 = run(1, "xa1x");
    g_probe.b2 = run(3, "b2");
    for (const char *s : {"zz", "c3", "a1"}) g_probe.exec40.push_back(run(40, s));
    mgi_final_rsp_message(i);
    g_probe.count_after_final = i->match_count;
    set_rsptype(i, MGI_RSP_FINAL);
    return 0;
}
int ok(mgiInfo *) { return 0; }

class Match : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { add_entity({}, M | 1, 0, nullptr, nullptr, ok, probe); }
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
    // Types come only from query data.
    EXPECT_TRUE(g_probe.types[1] == 0u && g_probe.types[2] == 0xFFFFFFFFu);
}

TEST_F(Match, ShortPatternLengthsAndBadPatterns) {
    // The pattern length runs out before the third.
    ask({{MGI_SEG_UDCDATA, match_body({{1, 10}, {3, 10}, {40, 10}}, kPatterns, 8), 0}});
    EXPECT_TRUE(g_probe.count == 2 && !g_probe.regex[40]);
    EXPECT_EQ(g_probe.exec40[0], 0); // no expression: counts as matching

    // No pattern length: no id is looked at.
    ask({{MGI_SEG_UDCDATA, match_body({{1, 10}}, kPatterns, 0), 0}});
    EXPECT_TRUE(g_probe.count == 0 && g_probe.mask[0] == 2u);

    // A pattern that doesn't compile stores null and still counts.
    ask({{MGI_SEG_UDCDATA, match_body({{1, 10}, {3, 10}}, std::string("(\0b2\0", 5), 5), 0}});
    EXPECT_TRUE(g_probe.count == 2 && !g_probe.regex[1] && g_probe.regex[3]);
    EXPECT_EQ(g_probe.count_after_final, 1); // the null slot still counts: the walk ran to the end
}

TEST_F(Match, QueryDataGivesTypesFromWhereTheUdcWalkStopped) {
    Seg query{MGI_SEG_QUERYDATA, match_body({{2, 10}, {5, 3}, {70, 4}}, "", 1), 0};
    ask({query});
    EXPECT_TRUE(g_probe.types[2] == 10u && g_probe.types[5] == 3u && g_probe.types[70] == 4u);
    for (uint32_t id : {4u, 96u, 100u, 127u, 128u, 129u}) EXPECT_EQ(g_probe.types[id], 0xFFFFFFFFu) << id;
    for (uint32_t id = 96; id < 128; ++id) EXPECT_FALSE(g_probe.regex[id]);

    // With udc data as well: its walk ends at id 4 (after its pattern at 3), so id 2 keeps type 0,
    // and match_mask is that of the query data.
    Seg udc{MGI_SEG_UDCDATA, match_body({{3, 10}}, std::string("b2\0", 3), 3), 0};
    ask({udc, query});
    EXPECT_TRUE(g_probe.count == 1 && g_probe.types[2] == 0u && g_probe.types[5] == 3u);
    EXPECT_EQ(g_probe.mask[0], (1u << 2) | (1u << 5));

    // Another request type compiles nothing.
    ask({udc}, 0);
    EXPECT_EQ(g_probe.count, 0);
}

} // namespace
