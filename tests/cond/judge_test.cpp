// The post-judge: parsing a condition text into expression nodes against an
// entity's item table, judging rows, the value readings and their codes, and
// releasing words and lists.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
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
    uint32_t pad = 0;
    char name[16] = {};
    unsigned char mac[8] = {};
};
static_assert(offsetof(Row, link) == sizeof(void *));

constexpr uint32_t kWord = 0x7c0d0001;   // entity with an item table
constexpr uint32_t kBare = 0x7c0d0002;   // entity without one
const uint32_t kPath[] = {kWord, 0};
const uint32_t kBarePath[] = {kBare, 0};
const uint32_t kNoPath[] = {0x7c0dffff, 0};

appItem g_items[] = {
    {{"flag", "enabled", nullptr}, APP_ITEM_BOOL, int32_t(offsetof(Row, flag))},
    {{"ip", "addr", "address", nullptr}, APP_ITEM_IPV4, int32_t(offsetof(Row, ip))},
    {{"num", nullptr}, APP_ITEM_INT32, int32_t(offsetof(Row, num))},
    {{"name", nullptr}, APP_ITEM_STRING, int32_t(offsetof(Row, name))},
    {{"mac", nullptr}, APP_ITEM_MAC, int32_t(offsetof(Row, mac))},
    {{"and", nullptr}, APP_ITEM_STRING, int32_t(offsetof(Row, name))},
    {{nullptr}, 0, 0},
};

class JudgeEnv : public testing::Environment {
  public:
    void SetUp() override {
        app_entity_add(nullptr, app_entity_init(kWord, APP_ENTITY_INDEXED, nullptr, nullptr, nullptr, nullptr, g_items));
        app_entity_add(nullptr, app_entity_init(kBare, APP_ENTITY_INDEXED, nullptr, nullptr, nullptr, nullptr, nullptr));
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

// An expression list built by hand.
class Expr {
  public:
    Expr(std::initializer_list<Clause> clauses) {
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
    // Takes over the nodes of another list, which is left empty.
    void adopt(cond_expr_list &other) {
        free_expr_list_all(&list);
        if (!other.first) return;
        list = other;
        other = {nullptr, &other.first};
    }
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

constexpr int32_t kFlag = offsetof(Row, flag), kIp = offsetof(Row, ip), kNum = offsetof(Row, num),
                  kName = offsetof(Row, name), kMac = offsetof(Row, mac);

// ---------------------------------------------------------------- parsing

struct Parse {
    char *words[COND_WORDS] = {};
    int32_t connectors[COND_CONNECTORS] = {7, 7, 7, 7};
    cond_expr_list list{nullptr, &list.first};
    ~Parse() {
        free_record_words(words);
        free_expr_list_all(&list);
    }
    int run(const char *text, const uint32_t *path = kPath) {
        return retrieve_postJudge_stdExpr(path, text, words, connectors, &list);
    }
};

TEST(PostJudgeParse, TextWithoutWordsIsRefused) {
    for (const char *text : {"", " ", "      "}) {
        Parse p;
        EXPECT_EQ(p.run(text), COND_ERR_NO_WORD) << '"' << text << '"';
        EXPECT_EQ(p.words[0], nullptr);
        EXPECT_EQ(p.connectors[0], 7);
        EXPECT_EQ(p.list.first, nullptr);
    }
}

TEST(PostJudgeParse, EveryStepHandsBackTheFirstWordUntilTheWordLimit) {
    for (const char *text : {"speed > 3", "  speed", "ip = 1.2.3.4 and != 1.2.3.5"}) {
        Parse p;
        EXPECT_EQ(p.run(text), COND_ERR_WORDS) << text;
        std::string first = std::string(text).substr(std::string(text).find_first_not_of(' '));
        first = first.substr(0, first.find(' '));
        for (int i = 0; i < COND_WORDS; ++i) {
            ASSERT_NE(p.words[i], nullptr) << i;
            EXPECT_STREQ(p.words[i], first.c_str()) << i;
            if (i) {
                EXPECT_NE(p.words[i], p.words[i - 1]); // copies of their own
            }
        }
        EXPECT_EQ(p.connectors[0], 7);
        EXPECT_EQ(p.list.first, nullptr);
        EXPECT_EQ(p.list.last, &p.list.first);
    }
}

TEST(PostJudgeParse, ConnectorFirstReachesTheConnectorLimit) {
    for (const char *text : {"and x", "or", "&& = 3", "|| x y"}) {
        Parse p;
        EXPECT_EQ(p.run(text), COND_ERR_CONNECTORS) << text;
        std::string first(text, std::strcspn(text, " "));
        for (int i = 0; i < 4; ++i) {
            EXPECT_STREQ(p.words[i], first.c_str());
            EXPECT_EQ(p.connectors[i], i);
        }
        EXPECT_EQ(p.words[4], nullptr);
        EXPECT_EQ(p.list.first, nullptr);
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
        size_t at = 0;
        while (at < expression.size()) {
            size_t end = expression.find(' ', at);
            if (end == std::string::npos) end = expression.size();
            if (end > at) text.push_back(expression.substr(at, end - at));
            at = end + 1;
        }
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

std::string s(const char *p) { return p ? p : "(null)"; }

TEST(PostJudgeBuild, ClausesTakeTheirPhraseValueConnectorAndItem) {
    Build b("address not bigger than 10.0.0.1 or == 10.0.0.9 && greater than 10.0.0.3");
    ASSERT_EQ(b.run(), 0);
    auto nodes = b.nodes();
    ASSERT_EQ(nodes.size(), 3u);
    const char *want[3][3] = {{"ngt", "10.0.0.1", "(null)"}, {"match", "10.0.0.9", "or"}, {"gt", "10.0.0.3", "&&"}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nodes[size_t(i)]->name, b.words[0]) << i;
        EXPECT_EQ(s(nodes[size_t(i)]->op), want[i][0]) << i;
        EXPECT_EQ(s(nodes[size_t(i)]->value), want[i][1]) << i;
        EXPECT_EQ(s(nodes[size_t(i)]->connector), want[i][2]) << i;
        EXPECT_EQ(nodes[size_t(i)]->type, uint32_t(APP_ITEM_IPV4));
        EXPECT_EQ(nodes[size_t(i)]->offset, kIp);
    }
    // Nodes point at the words themselves.
    EXPECT_EQ(nodes[1]->value, b.words[7]);
    EXPECT_EQ(nodes[1]->connector, b.words[5]);
    EXPECT_EQ(b.words[b.n], nullptr);
    EXPECT_EQ(b.connectors[2], -1);
    EXPECT_EQ(b.list.last, &nodes[2]->next);
}

TEST(PostJudgeBuild, FourConnectorsGiveFiveClauses) {
    Build b("num = 1 or = 2 or = 3 or = 4 and != 5");
    ASSERT_EQ(b.k, 4);
    ASSERT_EQ(b.run(), 0);
    auto nodes = b.nodes();
    ASSERT_EQ(nodes.size(), 5u);
    EXPECT_EQ(s(nodes[4]->value), "5");
    EXPECT_EQ(s(nodes[4]->op), "unmatch");
    EXPECT_EQ(s(nodes[4]->connector), "and");
    EXPECT_EQ(nodes[4]->type, uint32_t(APP_ITEM_INT32));
}

TEST(PostJudgeBuild, PhraseThatIsNoOperator) {
    {
        Build b("num is 3");
        EXPECT_EQ(b.run(), COND_ERR_NO_OPERATOR);
        EXPECT_EQ(b.list.first, nullptr);
        EXPECT_EQ(b.connectors[0], -1);
    }
    {
        Build b("num = 3 and is 4"); // the first clause stays in the list
        EXPECT_EQ(b.run(), COND_ERR_NO_OPERATOR);
        ASSERT_EQ(b.nodes().size(), 1u);
        EXPECT_EQ(b.nodes()[0]->offset, -1); // not resolved
    }
    for (const char *text : {"num", "num 3", "num not not match 3", "num = 1 or", "num = 1 and 2"}) {
        Build b(text);
        EXPECT_EQ(b.run(), COND_ERR_NO_OPERATOR) << text;
    }
}

TEST(PostJudgeBuild, ConnectorInFrontEndsTheClauses) {
    // Connectors at 0 and 3: the first clause's phrase runs to two words before the end.
    Build b("and greater than or");
    ASSERT_EQ(b.k, 2);
    ASSERT_EQ(b.run(), 0);
    auto nodes = b.nodes();
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(s(nodes[0]->name), "and");
    EXPECT_EQ(s(nodes[0]->op), "gt");
    EXPECT_EQ(s(nodes[0]->value), "or"); // the last word
    EXPECT_EQ(nodes[0]->connector, nullptr);
    Build c("and = x or = y"); // the same rule makes a phrase of four words here
    EXPECT_EQ(c.run(), COND_ERR_NO_OPERATOR);
}

TEST(PostJudgeBuild, EntityAndItemMustExist) {
    {
        Build b("num = 3");
        CaptureStdout();
        EXPECT_EQ(b.run(kNoPath), COND_ERR_NO_ENTITY);
        EXPECT_EQ(GetCapturedStdout(), "request path does not exist\n");
        ASSERT_EQ(b.nodes().size(), 1u);
        EXPECT_EQ(b.nodes()[0]->offset, -1);
    }
    {
        Build b("speed = 3");
        EXPECT_EQ(b.run(), COND_ERR_NO_ITEM);
    }
    {
        Build b("num = 3");
        EXPECT_EQ(b.run(kBarePath), COND_ERR_NO_ITEM);
    }
}

TEST(PostJudgeBuild, AppendsBehindNodesAlreadyListed) {
    Build b("enabled == true");
    Expr before({{nullptr, "match", "x", APP_ITEM_STRING, -1}});
    cond_expr_node *old = before.list.first;
    before.list.first->name = const_cast<char *>("num");
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
    Build c("enabled == true");
    cond_expr_list zeroed{};
    std::swap(c.list, zeroed); // a list in zeroed storage: no last-link yet
    ASSERT_EQ(c.run(), 0);
    ASSERT_NE(c.list.first, nullptr);
    EXPECT_EQ(c.list.last, &c.list.first->next);
    EXPECT_EQ(c.list.first->type, uint32_t(APP_ITEM_BOOL));
    EXPECT_EQ(c.list.first->offset, kFlag);
}

TEST(PostJudgeBuild, ParsedNodesJudgeRows) {
    Build b("address > 1.1.1.1 and <= 1.1.1.1");
    ASSERT_EQ(b.run(), 0);
    Expr e({});
    e.adopt(b.list);
    // The field meets the type code 10 on the other side: 11 is above it and not at or below it.
    Row r;
    r.ip = 11;
    EXPECT_EQ(judge(r, e).stays, false);
    r.ip = 10;
    EXPECT_EQ(judge(r, e).stays, false);
    Expr f({{nullptr, "gt", "1.1.1.1", APP_ITEM_IPV4, kIp}});
    r.ip = 11;
    EXPECT_EQ(judge(r, f).stays, true);
}

// ---------------------------------------------------------------- judging

TEST(PostJudge, EmptyListsChangeNothing) {
    Row r;
    Expr none({});
    EXPECT_EQ(judge(r, none).rc, 0);
    EXPECT_TRUE(judge(r, none).stays);
    Expr e({{nullptr, "match", "x", APP_ITEM_STRING, kName}});
    cond_data_list rows{nullptr, nullptr};
    EXPECT_EQ(default_post_logic_analyze(&rows, &e.list), 0);
    EXPECT_EQ(rows.last, nullptr);
}

TEST(PostJudge, UnresolvedFieldPassesWhateverItsOperator) {
    Row r;
    Expr e({{nullptr, "match", "abc", APP_ITEM_STRING, -1}});
    EXPECT_EQ(judge(r, e).rc, 0);
    EXPECT_TRUE(judge(r, e).stays);
    Expr odd({{nullptr, "like", "abc", APP_ITEM_STRING, -1}});
    Outcome o = judge(r, odd);
    EXPECT_EQ(o.rc, 0);
    EXPECT_TRUE(o.stays);
}

TEST(PostJudge, UnknownOperatorOrConnector) {
    Row r;
    Expr op({{nullptr, "like", "abc", APP_ITEM_STRING, kName}});
    Outcome o = judge(r, op);
    EXPECT_EQ(o.rc, COND_ERR_BAD_NODE);
    EXPECT_TRUE(o.stays);
    Expr nullop({{nullptr, nullptr, "abc", APP_ITEM_STRING, kName}});
    EXPECT_EQ(judge(r, nullop).rc, COND_ERR_BAD_NODE);
    Expr conn({{nullptr, "match", "abc", APP_ITEM_STRING, kName}, {"xor", "match", "abc", APP_ITEM_STRING, kName}});
    o = judge(r, conn);
    EXPECT_EQ(o.rc, COND_ERR_BAD_NODE);
    EXPECT_TRUE(o.stays);
}

// Every operator on an IPv4 field: the value side is the type code, 10, whatever the text says.
TEST(PostJudge, OperatorsMeetTheTypeCode) {
    struct Case {
        const char *op;
        bool below, at, above; // field 9, 10, 11
    };
    const Case cases[] = {
        {"match", false, true, false}, {"unmatch", true, false, true}, {"lt", true, false, false},
        {"gt", false, false, true},    {"nlt", false, true, true},     {"ngt", true, true, false},
    };
    for (const Case &c : cases) {
        Expr e({{nullptr, c.op, "192.168.0.1", APP_ITEM_IPV4, kIp}});
        Row r;
        r.ip = 9;
        EXPECT_EQ(judge(r, e).stays, c.below) << c.op;
        r.ip = 10;
        EXPECT_EQ(judge(r, e).stays, c.at) << c.op;
        r.ip = 11;
        EXPECT_EQ(judge(r, e).stays, c.above) << c.op;
        r.ip = 0xc0a80001; // the address the text names
        EXPECT_EQ(judge(r, e).stays, c.above) << c.op;
    }
}

TEST(PostJudge, TruthValueMeetsZero) {
    Row r;
    for (const char *v : {"true", "false"}) {
        Expr e({{nullptr, "match", v, APP_ITEM_BOOL, kFlag}});
        r.flag = 0;
        EXPECT_TRUE(judge(r, e).stays) << v;
        r.flag = 1;
        EXPECT_FALSE(judge(r, e).stays) << v;
    }
    // "less" of a truth value is 1 whatever the values.
    Expr lt({{nullptr, "lt", "true", APP_ITEM_BOOL, kFlag}});
    Expr nlt({{nullptr, "nlt", "true", APP_ITEM_BOOL, kFlag}});
    Expr gt({{nullptr, "gt", "true", APP_ITEM_BOOL, kFlag}});
    r.flag = 1;
    EXPECT_TRUE(judge(r, lt).stays);
    EXPECT_FALSE(judge(r, nlt).stays);
    EXPECT_TRUE(judge(r, gt).stays);
    r.flag = 0;
    EXPECT_FALSE(judge(r, gt).stays);
}

TEST(PostJudge, StringMeetsTheTypeCodeAsText) {
    Row r;
    Expr match({{nullptr, "match", "eth0", APP_ITEM_STRING, kName}});
    Expr gt({{nullptr, "gt", "eth0", APP_ITEM_STRING, kName}});
    std::strcpy(r.name, "eth0");
    EXPECT_FALSE(judge(r, match).stays);
    EXPECT_TRUE(judge(r, gt).stays); // "eth0" is above "\x05"
    std::strcpy(r.name, "\x05");
    EXPECT_TRUE(judge(r, match).stays);
    EXPECT_FALSE(judge(r, gt).stays);
    r.name[0] = 0;
    EXPECT_FALSE(judge(r, gt).stays);
}

TEST(PostJudge, ValueReadingsAndTheirCodes) {
    struct Case {
        uint32_t type;
        const char *value;
        int rc;
    };
    const Case cases[] = {
        {APP_ITEM_BOOL, "yes", COND_ERR_BOOL},       {APP_ITEM_BOOL, "True", COND_ERR_BOOL},
        {APP_ITEM_BOOL, "", COND_ERR_BOOL},          {APP_ITEM_BOOL, "true", 0},
        {APP_ITEM_BOOL, "false", 0},                 {APP_ITEM_INT32, "5", COND_ERR_INT32},
        {APP_ITEM_INT32, "-7", COND_ERR_INT32},      {APP_ITEM_INT32, "abc", COND_ERR_INT32},
        {APP_ITEM_UINT32, "0x10", COND_ERR_UINT32},  {APP_ITEM_UINT32, "", COND_ERR_UINT32},
        {APP_ITEM_INT64, "123456789012", COND_ERR_INT64},
        {APP_ITEM_IPV4, "1.2.3", COND_ERR_IPV4},     {APP_ITEM_IPV4, "1.2.3.256", COND_ERR_IPV4},
        {APP_ITEM_IPV4, "10.0.0.1", 0},              {APP_ITEM_STRING, "anything", 0},
        {4, "1", COND_ERR_NO_READING},               {11, "1", COND_ERR_NO_READING},
        {APP_ITEM_KEEP_TYPE, "1", COND_ERR_NO_READING},
    };
    for (const Case &c : cases) {
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

TEST(PostJudge, MacText) {
    for (const char *ok : {"0011.2233.4455", "0011.22334455.", "AbCd.eF01.2345"}) {
        Row r;
        Expr e({{nullptr, "match", ok, APP_ITEM_MAC, -1}});
        EXPECT_EQ(judge(r, e).rc, 0) << ok;
    }
    for (const char *bad : {"001122334455", "0011.2233.445g", "0011-2233-4455", "00112233.4455.", "0011.2233.44556",
                            "0011.2233.445", "0011..22334455", "0011.223.34455", ".0011.2233.445", ""}) {
        Row r;
        Expr e({{nullptr, "match", bad, APP_ITEM_MAC, -1}});
        EXPECT_EQ(judge(r, e).rc, COND_ERR_MAC) << bad;
    }
    // The verdict sees the type code 12 as a one-byte string.
    Row r;
    Expr e({{nullptr, "match", "0011.2233.4455", APP_ITEM_MAC, kMac}});
    const unsigned char mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::memcpy(r.mac, mac, 6);
    EXPECT_FALSE(judge(r, e).stays);
    const unsigned char twelve[6] = {0x0c, 0x00, 0x22, 0x33, 0x44, 0x55};
    std::memcpy(r.mac, twelve, 6);
    EXPECT_TRUE(judge(r, e).stays);
}

TEST(PostJudge, ClausesJoinLeftToRightWithoutPrecedence) {
    // On an IPv4 field: "match" is true for 10, "gt" for anything above 10.
    const Clause yes{nullptr, "match", "1.1.1.1", APP_ITEM_IPV4, kIp};
    const Clause no{nullptr, "gt", "1.1.1.1", APP_ITEM_IPV4, kIp};
    auto with = [](Clause c, const char *connector) {
        c.connector = connector;
        return c;
    };
    Row r;
    r.ip = 10;
    {
        Expr e({no, with(yes, "or")});
        EXPECT_TRUE(judge(r, e).stays);
    }
    {
        Expr e({no, with(yes, "||")});
        EXPECT_TRUE(judge(r, e).stays);
    }
    {
        Expr e({yes, with(no, "and")});
        EXPECT_FALSE(judge(r, e).stays);
    }
    {
        Expr e({yes, with(no, "&&")});
        EXPECT_FALSE(judge(r, e).stays);
    }
    {
        // yes || yes && no is (yes || yes) && no: false, where precedence would say true.
        Expr e({yes, with(yes, "||"), with(no, "&&")});
        EXPECT_FALSE(judge(r, e).stays);
    }
    {
        // A node without a connector takes its own verdict, whatever came before.
        Expr e({no, with(yes, "and"), yes});
        EXPECT_TRUE(judge(r, e).stays);
    }
    {
        // Nothing is short-circuited: a later reading still fails the call.
        Expr e({no, with(yes, "and"), {"and", "match", "x.y", APP_ITEM_IPV4, kIp}});
        Outcome o = judge(r, e);
        EXPECT_EQ(o.rc, COND_ERR_IPV4);
        EXPECT_TRUE(o.stays);
    }
}

TEST(PostJudge, OnlyTheFirstRowIsJudged) {
    Row a, b;
    a.ip = 11;
    b.ip = 10;
    Expr e({{nullptr, "match", "1.1.1.1", APP_ITEM_IPV4, kIp}});
    a.link = &b;
    b.link = nullptr;
    cond_data_list rows{node_of(a), &node_of(b)->next};
    EXPECT_EQ(default_post_logic_analyze(&rows, &e.list), 0);
    EXPECT_EQ(rows.first, node_of(b)); // a failed and left; b not looked at
    EXPECT_EQ(rows.last, &node_of(b)->next);
    EXPECT_EQ(a.link, &b); // the row that left keeps its link
    EXPECT_EQ(default_post_logic_analyze(&rows, &e.list), 0);
    EXPECT_EQ(rows.first, node_of(b));
    // b stays at the head; a row behind it that would fail is not judged.
    a.link = nullptr;
    b.link = &a;
    rows = {node_of(b), &node_of(a)->next};
    EXPECT_EQ(default_post_logic_analyze(&rows, &e.list), 0);
    EXPECT_EQ(rows.first, node_of(b));
    EXPECT_EQ(b.link, &a);
}

TEST(PreJudge, DoesNothing) {
    EXPECT_EQ(retrieve_preJudge_stdExpr(), 0);
    EXPECT_EQ(default_pre_logic_analyze(), 0);
}

// ---------------------------------------------------------------- releasing

TEST(Release, WordsAreFreedPastANullSlot) {
    char *words[COND_WORDS] = {};
    words[0] = strdup("a");
    words[5] = strdup("b"); // behind null slots: still freed (the leak checker would see it otherwise)
    words[31] = strdup("c");
    free_record_words(words);
    for (char *w : words) EXPECT_EQ(w, nullptr);
    free_record_words(words); // again: nothing left to free
    char *keep[COND_WORDS] = {};
    keep[1] = strdup("kept");
    free_record_words(keep); // words[0] null: nothing is freed
    EXPECT_STREQ(keep[1], "kept");
    std::free(keep[1]);
    free_record_words(nullptr);
}

TEST(Release, ListsRunEmpty) {
    auto *e1 = static_cast<cond_expr_node *>(std::calloc(1, sizeof(cond_expr_node)));
    auto *e2 = static_cast<cond_expr_node *>(std::calloc(1, sizeof(cond_expr_node)));
    e1->next = e2;
    cond_expr_list exprs{e1, &e2->next};
    free_expr_list_all(&exprs);
    EXPECT_EQ(exprs.first, nullptr);
    EXPECT_EQ(exprs.last, &exprs.first);
    auto *d1 = static_cast<cond_data_node *>(std::calloc(1, sizeof(cond_data_node) + 16));
    auto *d2 = static_cast<cond_data_node *>(std::calloc(1, sizeof(cond_data_node) + 16));
    d1->next = d2;
    cond_data_list rows{d1, &d2->next};
    free_data_list_all(&rows);
    EXPECT_EQ(rows.first, nullptr);
    EXPECT_EQ(rows.last, &rows.first);
    cond_data_list empty{nullptr, nullptr};
    free_data_list_all(&empty);
    EXPECT_EQ(empty.last, &empty.first);
}

} // namespace

namespace {

// Two conditions in a row in the process's context: a long one, then a short
// one that leaves the long one's upper slots in place. Each release frees what
// its parse made, and no word twice (the sanitizer build would stop here).
TEST(Release, ShorterConditionAfterALongOneFreesEachWordOnce) {
    free_cond_ctx_by_uiInfo();
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
    free_cond_ctx_by_uiInfo(); // frees the four new words only
    free_cond_ctx_by_uiInfo(); // nothing left: words[0] is empty
}

} // namespace
