// The post-judge: parsing a condition text into expression nodes against an
// entity's item table, judging rows, the value readings and their codes, and
// releasing words and lists.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "cond/cond_internal.h"
#include "mgmt/cond.h"
#include "mgmt/mgi_app.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// A daemon's row: a first word, the link, then the items.
struct Row {
    void *word0 = nullptr;
    Row *link = nullptr;
    uint32_t flag = 0;
    uint32_t ip = 0;
    int32_t num = 0;
    char name[16] = {};
};
static_assert(offsetof(Row, link) == sizeof(void *));

constexpr int32_t kFlag = offsetof(Row, flag), kIp = offsetof(Row, ip), kNum = offsetof(Row, num),
                  kName = offsetof(Row, name);

constexpr uint32_t kWord = 0x7c0d0001; // entity with an item table
constexpr uint32_t kBare = 0x7c0d0002; // entity without one
const uint32_t kPath[] = {kWord, 0};
const uint32_t kBarePath[] = {kBare, 0};
const uint32_t kNoPath[] = {0x7c0dffff, 0};

appItem g_items[] = {
    {{"flag", "enabled", nullptr}, APP_ITEM_BOOL, kFlag},
    {{"ip", "addr", "address", nullptr}, APP_ITEM_IPV4, kIp},
    {{"num", nullptr}, APP_ITEM_INT32, kNum},
    {{"name", nullptr}, APP_ITEM_STRING, kName},
    {{"and", nullptr}, APP_ITEM_STRING, kName},
    {{nullptr}, 0, 0},
};

class JudgeEnv : public testing::Environment {
  public:
    void SetUp() override {
        app_entity_add(nullptr,
                       app_entity_init(kWord, APP_ENTITY_INDEXED, nullptr, nullptr, nullptr, nullptr, g_items));
        app_entity_add(nullptr,
                       app_entity_init(kBare, APP_ENTITY_INDEXED, nullptr, nullptr, nullptr, nullptr, nullptr));
    }
};
const auto *g_env = testing::AddGlobalTestEnvironment(new JudgeEnv);

struct Clause {
    const char *connector;
    const char *op;
    const char *value;
    uint32_t type;
    int32_t offset;
};

Clause joined(Clause c, const char *connector) {
    c.connector = connector;
    return c;
}

// An expression list built by hand.
class Expr {
  public:
    Expr(const std::vector<Clause> &clauses) {
        for (const Clause &c : clauses) {
            auto *n = static_cast<cond_expr_node *>(std::calloc(1, sizeof(cond_expr_node)));
            n->name = const_cast<char *>("field");
            n->op = c.op;
            n->value = const_cast<char *>(c.value);
            n->connector = const_cast<char *>(c.connector);
            n->type = c.type;
            n->offset = c.offset;
            *list.last = n;
            list.last = &n->next;
        }
    }
    ~Expr() { free_expr_list_all(&list); }
    Expr(const Expr &) = delete;
    Expr &operator=(const Expr &) = delete;
    cond_expr_list list{nullptr, &list.first};
};

cond_data_node *node_of(Row &r) { return reinterpret_cast<cond_data_node *>(&r); }

// Judges a lone row: the code, and whether the row is still in the list.
struct Outcome {
    int rc;
    bool stays;
};
Outcome judge(Row &row, Expr &e) {
    row.link = nullptr;
    cond_data_list rows{node_of(row), &node_of(row)->next};
    int rc = default_post_logic_analyze(&rows, &e.list);
    bool stays = rows.first == node_of(row);
    if (!stays) {
        EXPECT_EQ(rows.first, nullptr);
        EXPECT_EQ(rows.last, &rows.first); // emptied: the last-link is back at the head
    }
    return {rc, stays};
}

std::string s(const char *p) { return p ? p : "(null)"; }

// ---------------------------------------------------------------- parsing

// The collecting step starts over at the text's start for every word, so it
// ends only at one of its limits: 32 copies of the first word, or four
// connectors when the first word is one.
TEST(PostJudgeParse, KeptEveryStepRestartsAtTheFirstWordSoOnlyALimitEnds) {
    const struct {
        const char *text;
        int rc;
        const char *first;
        int copies;
    } cases[] = {
        {"", -1, nullptr, 0},
        {"      ", -1, nullptr, 0},
        {"speed > 3", -1987, "speed", 32},
        {"  speed", -1987, "speed", 32},
        {"ip = 1.2.3.4 and != 1.2.3.5", -1987, "ip", 32},
        {"and x", -1988, "and", 4},
        {"|| x y", -1988, "||", 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        char *words[COND_WORDS] = {};
        int32_t connectors[COND_CONNECTORS] = {7, 7, 7, 7};
        cond_expr_list list{nullptr, &list.first};
        EXPECT_EQ(retrieve_postJudge_stdExpr(kPath, c.text, words, connectors, &list), c.rc);
        for (int i = 0; i < c.copies; ++i) EXPECT_STREQ(words[i], c.first) << i;
        if (c.copies < COND_WORDS) {
            EXPECT_EQ(words[c.copies], nullptr);
        }
        for (int i = 0; i < 4; ++i) EXPECT_EQ(connectors[i], c.rc == -1988 ? i : 7) << i;
        EXPECT_EQ(list.first, nullptr);
        EXPECT_EQ(list.last, &list.first);
        free_record_words(words);
    }
}

// The stage behind the collecting, fed with words as a text of any shape would give them.
struct Build {
    std::vector<std::string> text;
    char *words[COND_WORDS] = {};
    int32_t connectors[COND_CONNECTORS] = {7, 7, 7, 7};
    cond_expr_list list{nullptr, &list.first};
    int n = 0, k = 0;
    explicit Build(const std::string &expression) {
        std::istringstream in(expression);
        for (std::string w; in >> w;) text.push_back(w);
        for (auto &w : text) {
            if (w == "and" || w == "or" || w == "&&" || w == "||") connectors[k++] = n;
            words[n++] = w.data();
        }
    }
    ~Build() { free_expr_list_all(&list); }
    int run(const uint32_t *path = kPath) {
        return mgmt::cond::build_clauses(path, words, connectors, n, k, &list);
    }
    std::vector<cond_expr_node *> nodes() const {
        std::vector<cond_expr_node *> out;
        for (cond_expr_node *e = list.first; e; e = e->next) out.push_back(e);
        return out;
    }
};

// Each node as "op value connector type@offset"; "-" for no connector.
std::vector<std::string> described(const Build &b) {
    std::vector<std::string> out;
    for (cond_expr_node *e : b.nodes()) {
        EXPECT_EQ(e->name, b.words[0]);
        out.push_back(s(e->op) + " " + s(e->value) + " " + (e->connector ? e->connector : "-") + " " +
                      std::to_string(e->type) + "@" + std::to_string(e->offset));
    }
    return out;
}

TEST(PostJudgeBuild, ClausesAndTheirCodes) {
    const std::string ip = "10@" + std::to_string(kIp), num = "1@" + std::to_string(kNum);
    const struct {
        const char *text;
        const uint32_t *path;
        int rc;
        std::vector<std::string> nodes;
    } cases[] = {
        {"address not bigger than 10.0.0.1 or == 10.0.0.9 && greater than 10.0.0.3", kPath, 0,
         {"ngt 10.0.0.1 - " + ip, "match 10.0.0.9 or " + ip, "gt 10.0.0.3 && " + ip}},
        {"num = 1 or = 2 or = 3 or = 4 and != 5", kPath, 0,
         {"match 1 - " + num, "match 2 or " + num, "match 3 or " + num, "match 4 or " + num, "unmatch 5 and " + num}},
        // Connectors at 0 and 3: the first clause's phrase runs to two words before the end, its
        // value is the last word, and the connector at 0 ends the clauses.
        {"and greater than or", kPath, 0, {"gt or - 5@" + std::to_string(kName)}},
        {"and = x or = y", kPath, -1986, {}},
        {"num is 3", kPath, -1986, {}},
        {"num = 3 and is 4", kPath, -1986, {"match 3 - 0@-1"}}, // the first clause stays, unresolved
        {"num", kPath, -1986, {}},
        {"num 3", kPath, -1986, {}},
        {"num not not match 3", kPath, -1986, {}},
        {"num = 1 or", kPath, -1986, {"match 1 - 0@-1"}},
        {"num = 1 and 2", kPath, -1986, {"match 1 - 0@-1"}},
        {"num = 3", kNoPath, -1499, {"match 3 - 0@-1"}},
        {"speed = 3", kPath, -1990, {"match 3 - 0@-1"}},
        {"num = 3", kBarePath, -1990, {"match 3 - 0@-1"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Build b(c.text);
        CaptureStdout();
        EXPECT_EQ(b.run(c.path), c.rc);
        EXPECT_EQ(GetCapturedStdout(), c.path == kNoPath ? "request path does not exist\n" : "");
        EXPECT_EQ(described(b), c.nodes);
        if (b.k < COND_CONNECTORS) {
            EXPECT_EQ(b.connectors[b.k], -1);
        }
        EXPECT_EQ(b.words[b.n], nullptr);
        if (c.rc == 0) {
            EXPECT_EQ(b.list.last, &b.nodes().back()->next);
        }
    }
    // Nodes point at the words themselves.
    Build b("address == 10.0.0.9 or != 10.0.0.3");
    ASSERT_EQ(b.run(), 0);
    EXPECT_EQ(b.nodes()[1]->value, b.words[5]);
    EXPECT_EQ(b.nodes()[1]->connector, b.words[3]);
}

TEST(PostJudgeBuild, AppendsBehindNodesAlreadyListed) {
    Build b("enabled == true");
    Expr before({{nullptr, "match", "x", APP_ITEM_STRING, -1}});
    cond_expr_node *old = before.list.first;
    old->name = const_cast<char *>("num");
    b.list = before.list;
    before.list = {nullptr, &before.list.first};
    ASSERT_EQ(b.run(), 0);
    auto nodes = b.nodes();
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0], old);
    // The item look-up covers every node of the list, the old one too.
    EXPECT_EQ(old->type, uint32_t(APP_ITEM_INT32));
    EXPECT_EQ(old->offset, kNum);
    EXPECT_EQ(nodes[1]->offset, kFlag);
}

// ---------------------------------------------------------------- judging

TEST(PostJudge, EmptyListsChangeNothing) {
    Row r;
    Expr none({});
    Outcome o = judge(r, none);
    EXPECT_EQ(o.rc, 0);
    EXPECT_TRUE(o.stays);
    Expr e({{nullptr, "match", "x", APP_ITEM_STRING, kName}});
    cond_data_list rows{nullptr, nullptr};
    EXPECT_EQ(default_post_logic_analyze(&rows, &e.list), 0);
    EXPECT_EQ(rows.last, nullptr);
    EXPECT_EQ(retrieve_preJudge_stdExpr(), 0);
    EXPECT_EQ(default_pre_logic_analyze(), 0);
}

// Every operator on an IPv4 field: the value side is the type code, 10, whatever the text says.
TEST(PostJudge, KeptOperatorsCompareWithTheTypeCode) {
    const struct {
        const char *op;
        bool below, at, above; // field 9, 10, 11
    } cases[] = {
        {"match", false, true, false}, {"unmatch", true, false, true}, {"lt", true, false, false},
        {"gt", false, false, true},    {"nlt", false, true, true},     {"ngt", true, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.op);
        Expr e({{nullptr, c.op, "192.168.0.1", APP_ITEM_IPV4, kIp}});
        Row r;
        r.ip = 9;
        EXPECT_EQ(judge(r, e).stays, c.below);
        r.ip = 10;
        EXPECT_EQ(judge(r, e).stays, c.at);
        r.ip = 11;
        EXPECT_EQ(judge(r, e).stays, c.above);
        r.ip = 0xc0a80001; // the address the text names
        EXPECT_EQ(judge(r, e).stays, c.above);
    }
}

TEST(PostJudge, KeptIntegerValuesRefusedForAnyText) {
    const struct {
        uint32_t type;
        const char *value;
        int rc;
    } cases[] = {
        {APP_ITEM_BOOL, "yes", -1999},    {APP_ITEM_BOOL, "True", -1999},
        {APP_ITEM_BOOL, "", -1999},       {APP_ITEM_BOOL, "true", 0},
        {APP_ITEM_BOOL, "false", 0},      {APP_ITEM_INT32, "5", -1998},
        {APP_ITEM_INT32, "abc", -1998},   {APP_ITEM_UINT32, "0x10", -1997},
        {APP_ITEM_INT64, "123456789012", -1995},
        {APP_ITEM_IPV4, "1.2.3", -1994},  {APP_ITEM_IPV4, "1.2.3.256", -1994},
        {APP_ITEM_IPV4, "10.0.0.1", 0},   {APP_ITEM_STRING, "anything", 0},
        {4, "1", -1989},                  {11, "1", -1989},
        {APP_ITEM_KEEP_TYPE, "1", -1989},
        // MAC: xxxx.xxxx.xxxx, or the same with its second dot moved to the end.
        {APP_ITEM_MAC, "0011.2233.4455", 0},  {APP_ITEM_MAC, "0011.22334455.", 0},
        {APP_ITEM_MAC, "AbCd.eF01.2345", 0},  {APP_ITEM_MAC, "001122334455", -1992},
        {APP_ITEM_MAC, "0011.2233.445g", -1992}, {APP_ITEM_MAC, "0011-2233-4455", -1992},
        {APP_ITEM_MAC, "00112233.4455.", -1992}, {APP_ITEM_MAC, "0011.2233.44556", -1992},
        {APP_ITEM_MAC, "0011.2233.445", -1992},  {APP_ITEM_MAC, "0011..22334455", -1992},
        {APP_ITEM_MAC, "0011.223.34455", -1992}, {APP_ITEM_MAC, ".0011.2233.445", -1992},
    };
    for (const auto &c : cases) {
        // The reading comes first: an unresolved field doesn't spare it.
        for (int32_t offset : {-1, kNum}) {
            Row r;
            Expr e({{nullptr, "match", c.value, c.type, offset}});
            Outcome o = judge(r, e);
            EXPECT_EQ(o.rc, c.rc) << c.type << " " << c.value << " at " << offset;
            if (c.rc) {
                EXPECT_TRUE(o.stays);
            }
        }
    }
}

// Clauses on an IPv4 field of 10, where "match" is true and "gt" false: how they join, and
// which nodes fail the call (leaving the row).
TEST(PostJudge, ClausesJoinLeftToRightWithoutPrecedence) {
    const Clause yes{nullptr, "match", "1.1.1.1", APP_ITEM_IPV4, kIp};
    const Clause no{nullptr, "gt", "1.1.1.1", APP_ITEM_IPV4, kIp};
    const Clause unreadable{"and", "match", "x.y", APP_ITEM_IPV4, kIp};
    const struct {
        std::vector<Clause> clauses;
        int rc;
        bool stays;
    } cases[] = {
        {{no, joined(yes, "or")}, 0, true},
        {{no, joined(yes, "||")}, 0, true},
        {{yes, joined(no, "and")}, 0, false},
        {{yes, joined(no, "&&")}, 0, false},
        {{yes, joined(yes, "||"), joined(no, "&&")}, 0, false}, // (yes || yes) && no
        {{no, joined(yes, "and"), yes}, 0, true},               // no connector: the node's own verdict
        {{no, joined(yes, "and"), unreadable}, -1994, true},    // nothing is short-circuited
        {{joined(no, "xor")}, -2, true},
        {{{nullptr, "like", "1.1.1.1", APP_ITEM_IPV4, kIp}}, -2, true},
        {{{nullptr, nullptr, "1.1.1.1", APP_ITEM_IPV4, kIp}}, -2, true},
        {{{nullptr, "like", "1.1.1.1", APP_ITEM_IPV4, -1}}, 0, true}, // an unresolved field passes
        {{{nullptr, "gt", "1.1.1.1", APP_ITEM_IPV4, -1}}, 0, true},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        Expr e(cases[i].clauses);
        Row r;
        r.ip = 10;
        Outcome o = judge(r, e);
        EXPECT_EQ(o.rc, cases[i].rc) << i;
        EXPECT_EQ(o.stays, cases[i].stays) << i;
    }
}

TEST(PostJudge, OnlyTheFirstRowIsJudged) {
    Row a, b;
    a.ip = 11;
    b.ip = 10;
    Expr e({{nullptr, "match", "1.1.1.1", APP_ITEM_IPV4, kIp}});
    a.link = &b;
    cond_data_list rows{node_of(a), &node_of(b)->next};
    EXPECT_EQ(default_post_logic_analyze(&rows, &e.list), 0);
    EXPECT_EQ(rows.first, node_of(b)); // a failed and left; b not looked at
    EXPECT_EQ(rows.last, &node_of(b)->next);
    EXPECT_EQ(a.link, &b); // the row that left keeps its link
    // b stays at the head; a row behind it that would fail is not judged.
    a.link = nullptr;
    b.link = &a;
    rows = {node_of(b), &node_of(a)->next};
    EXPECT_EQ(default_post_logic_analyze(&rows, &e.list), 0);
    EXPECT_EQ(rows.first, node_of(b));
    EXPECT_EQ(b.link, &a);
}

// ---------------------------------------------------------------- releasing

TEST(Release, WordsAndLists) {
    char *words[COND_WORDS] = {};
    words[0] = strdup("a");
    words[5] = strdup("b"); // behind null slots: still freed (the leak checker would see it otherwise)
    words[31] = strdup("c");
    free_record_words(words);
    for (char *w : words) EXPECT_EQ(w, nullptr);
    char *keep[COND_WORDS] = {};
    keep[1] = strdup("kept");
    free_record_words(keep); // words[0] null: nothing is freed
    EXPECT_STREQ(keep[1], "kept");
    std::free(keep[1]);

    Expr exprs({{}, {}});
    free_expr_list_all(&exprs.list);
    EXPECT_EQ(exprs.list.first, nullptr);
    EXPECT_EQ(exprs.list.last, &exprs.list.first);
    auto *row = static_cast<cond_data_node *>(std::calloc(1, sizeof(cond_data_node) + 16));
    cond_data_list rows{row, &row->next};
    free_data_list_all(&rows);
    EXPECT_EQ(rows.first, nullptr);
    EXPECT_EQ(rows.last, &rows.first);
}

// Two conditions in a row in the process's context: a long one, then a short
// one that leaves the long one's upper slots in place. Each release frees what
// its parse made, and no word twice (the sanitizer build would stop here).
// The daemon's area behind `extra` stays as the daemon left it throughout.
TEST(Release, ShorterConditionAfterALongOneFreesEachWordOnce) {
    free_cond_ctx_by_uiInfo();
    std::memset(gcondCtx.app_area, 0xa5, sizeof gcondCtx.app_area);
    const std::vector<uint8_t> area(gcondCtx.app_area, gcondCtx.app_area + sizeof gcondCtx.app_area);
    EXPECT_EQ(retrieve_postJudge_stdExpr(nullptr, "speed gt 3", gcondCtx.words, gcondCtx.connectors,
                                         &gcondCtx.expr_list),
              -1987);
    char *old_upper = gcondCtx.words[31];
    ASSERT_NE(old_upper, nullptr);
    free_cond_ctx_by_uiInfo();
    EXPECT_EQ(gcondCtx.words[0], nullptr);
    EXPECT_EQ(gcondCtx.words[31], old_upper); // upper slots keep what they held
    EXPECT_EQ(retrieve_postJudge_stdExpr(nullptr, "and x", gcondCtx.words, gcondCtx.connectors,
                                         &gcondCtx.expr_list),
              -1988);
    EXPECT_STREQ(gcondCtx.words[3], "and");
    EXPECT_EQ(default_post_logic_analyze(&gcondCtx.data_list, &gcondCtx.expr_list), 0);
    free_cond_ctx_by_uiInfo(); // frees the four new words only
    free_cond_ctx_by_uiInfo(); // nothing left: words[0] is empty
    EXPECT_EQ(std::vector<uint8_t>(gcondCtx.app_area, gcondCtx.app_area + sizeof gcondCtx.app_area), area);
}

} // namespace
