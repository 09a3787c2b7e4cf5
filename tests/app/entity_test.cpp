// The entity tree (insertion with made-up path nodes, look-up, printing, item
// tables), error reporting (which code wins, the error segment's body, defense
// reports, the private code on ADC and other platforms), and out of memory in
// the entity tree, the sorter and the query tree: one malloc or calloc of the
// calling thread fails (not in sanitizer builds, which bring their own allocator).
#include <cstdio>

#include "app_fixture.h"
#include "faults.h"
#include "mgmt/sorter.h"

using namespace app_test;
using mgmt_test::AllocHook;

namespace {

int h1(mgiInfo *) { return 0; }
int h2(mgiInfo *) { return 0; }

// A daemon's tree lives as long as the process; a test's own tree is freed here.
void free_tree(appEntity *e) {
    while (e) {
        appEntity *next = e->next;
        free_tree(e->children.first);
        std::free(e);
        e = next;
    }
}

// The tree's line of one entity at a depth.
std::string line(int depth, int word, mgi_app_handler index, mgi_app_handler err, mgi_app_handler data) {
    char buf[200];
    std::snprintf(buf, sizeof buf, "entity: %d, decodeIndex:%p, errHandle:%p, decodeData:%p, encodeData:%p  \n",
                  word, reinterpret_cast<void *>(index), reinterpret_cast<void *>(err),
                  reinterpret_cast<void *>(data), static_cast<void *>(nullptr));
    return std::string(size_t(depth), '\t') + buf;
}

// Runs on a tree of its own, and puts the process's tree back afterwards.
TEST(EntityTree, MadeUpPathStepsLookUpAndPrinting) {
    appEntityList saved = entity_root;
    entity_root = {nullptr, nullptr};
    CaptureStdout();
    show_app_entity();
    EXPECT_EQ(GetCapturedStdout(), "nothing to be shown! \n");
    appEntity *leaf = app_entity_init(0x40, 2, h1, nullptr, h2, nullptr, nullptr);
    const uint32_t parent[] = {0x10, 0x20, 0x30, 0}, one[] = {0x10, 0}, full[] = {0x10, 0x20, 0x30, 0x40, 0};
    ASSERT_EQ(app_entity_add(parent, leaf), 0);
    appEntity *made = get_app_mgi_entity(one);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(made->kind == 0u && !made->decodeIndex && !made->decodeData);
    EXPECT_EQ(get_app_mgi_entity(full), leaf);
    // A sibling at the top level with the same word as an existing one: both print, the first is found.
    app_entity_add(nullptr, app_entity_init(0x10, 2, nullptr, h1, nullptr, nullptr, nullptr));
    EXPECT_EQ(get_app_mgi_entity(one), made);
    CaptureStdout();
    show_app_entity();
    EXPECT_EQ(GetCapturedStdout(), line(0, 16, nullptr, nullptr, nullptr) + line(1, 32, nullptr, nullptr, nullptr) +
                                       line(2, 48, nullptr, nullptr, nullptr) + line(3, 64, h1, nullptr, h2) +
                                       line(0, 16, nullptr, h1, nullptr));
    // No message for a null or empty path; one for each missing step, past the leaf too.
    const uint32_t empty[] = {0}, wrong[] = {0x10, 0x99, 0}, past_leaf[] = {0x10, 0x20, 0x30, 0x40, 0x50, 0};
    CaptureStdout();
    for (const uint32_t *path : {empty, static_cast<const uint32_t *>(nullptr), wrong, past_leaf})
        EXPECT_EQ(get_app_mgi_entity(path), nullptr);
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\nrequest path does not exist\n");
    free_tree(entity_root.first);
    entity_root = saved;
}

TEST(EntityTree, ItemsByNameAndAlias) {
    static appItem items[] = {
        {{"name", "n", nullptr}, 5, 32},
        {{"id", nullptr}, 2, 0},
        {{"addr", "ip", "ipaddr", "address", nullptr}, 10, 0},
        {{nullptr}, 0, 8}, // no name, but not all zero: the table goes on
        {{"late", nullptr}, 1, 0},
        {{nullptr}, 0, 0},
    };
    appEntity *e = add_entity({0x7f0001}, 0x7f0002, 0, nullptr, nullptr, nullptr, nullptr, items),
              *bare = add_entity({0x7f0001}, 0x7f0003, 0, nullptr, nullptr, nullptr, nullptr);
    // An alias in the third name is found; a name not in the table stops at the all-zero row.
    const std::pair<const char *, appItem *> names[] = {
        {"n", &items[0]}, {"ipaddr", &items[2]}, {"address", &items[2]}, {"late", &items[4]}, {"nope", nullptr}};
    for (auto [name, item] : names) EXPECT_EQ(get_item_by_name(e, name), item) << name;
    EXPECT_EQ(get_item_by_name(bare, "id"), nullptr);
    // Rows: entity, type given (15 keeps the type), offset, result, and the item's type and offset after.
    const struct {
        appEntity *entity;
        uint32_t type;
        int32_t offset, result, want_type, want_offset;
    } syntax[] = {{e, 15, 44, 0, 2, 44}, {e, 1, 48, 0, 1, 48}, {bare, 2, 1, -1990, 1, 48}};
    for (const auto &c : syntax) {
        EXPECT_EQ(set_itemSyntax(c.entity, "id", c.offset, c.type), c.result);
        EXPECT_TRUE(items[1].type == uint32_t(c.want_type) && items[1].offset == c.want_offset) << c.type;
    }
    // By path: the item, an entity without items, no entity.
    CaptureStdout();
    for (auto [last, result] : {std::pair{0x7f0002u, 0}, {0x7f0003u, -1990}, {0x7f0009u, -1499}}) {
        const uint32_t path[] = {0x7f0001, last, 0};
        EXPECT_EQ(set_items_ud_offset("addr", 100, path), result) << std::hex << last;
    }
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\n");
    EXPECT_TRUE(items[2].offset == 100 && items[2].type == 10u);
}

// ---------------------------------------------------------------- error reporting

constexpr uint32_t M = 0x520000;

// A context attached to a response buffer, as a handler gets it.
struct Ctx {
    Bytes rqt;
    std::vector<uint8_t> rsp = std::vector<uint8_t>(65536, 0);
    mgiInfo info;
    explicit Ctx(uint32_t word = M | 1) : rqt(request({word})) {
        init_mgi_info(&info);
        decode_app_mgi_hdr(rqt.data(), rsp.data(), &info);
        prefix_encode_app_rsp_hdr(rqt.data(), rsp.data(), &info);
    }
    ~Ctx() { mgi_final_rsp_message(&info); }
    // The segment of type 135 as it stands, from the head that announces it.
    Bytes error_body() const {
        if (info.last_seg_type != MGI_SEG_ERROR) return {};
        const uint8_t *head = info.rsp_hdr_segment;
        return Bytes(head + 8, head + 8 + mgmt_test::be16(head + 2));
    }
};

// Rows: the codes before, then err_code, decodeErr and encodeErr after a text.
TEST(ErrorCodes, WhichCodeWins) {
    const int32_t cases[][6] = {{7, 9, 0, 9, 7, 9}, {7, 0, 0, 7, 7, 0}, {0, 0, 5, 5, 0, 0}, {0, 0, 0, -1, -1, -1}};
    for (const auto &c : cases) {
        Ctx x;
        std::tie(x.info.decodeErr, x.info.encodeErr, x.info.err_code) = std::make_tuple(c[0], c[1], c[2]);
        mgi_sprintf_err(&x.info, "x");
        EXPECT_EQ((std::vector<int32_t>{x.info.err_code, x.info.decodeErr, x.info.encodeErr, x.info.rsptype}),
                  (std::vector<int32_t>{c[3], c[4], c[5], MGI_RSP_ERROR}));
    }
    mgi_sprintf_err(nullptr, "ignored");
    // A text that comes out empty builds no segment; the codes are set all the same.
    Ctx c;
    mgi_sprintf_err(&c.info, "%s", "");
    EXPECT_TRUE(c.info.rsp_len == 0 && c.info.rsptype == 0 && c.info.err_code == -1);
}

// The body: code, private code, detail, status, then the text padded to eight; the first segment stands.
TEST(ErrorSegment, FirstSegmentStandsAndTextsArePadded) {
    Ctx c;
    std::tie(c.info.private_ecode, c.info.err_status, c.info.err_detail) = std::make_tuple(3, 4, 8);
    mgi_sprintf_err(&c.info, "code %d failed", 12);
    mgi_sprintf_err(&c.info, "second"); // only the text changes, not the segment
    Bytes b = c.error_body();
    ASSERT_EQ(b.size(), 16u + 16u); // "code 12 failed" + NUL is 15, padded to 16
    EXPECT_EQ((std::vector<int32_t>{host_i32(b, 0), host_i32(b, 4), host_i32(b, 8), host_i32(b, 12)}),
              (std::vector<int32_t>{-1, 3, 8, 4}));
    EXPECT_TRUE(Bytes(b.begin() + 16, b.end()) == text_body("code 12 failed") && c.info.rsp_len == 8u + 32u);
    // An untouched text is "magic!\n"; a second text follows the first.
    Ctx magic;
    char second[] = "more";
    magic.info.err_string2 = second;
    default_err_handle(&magic.info);
    b = magic.error_body();
    EXPECT_EQ(Bytes(b.begin() + 16, b.end()), text_body(std::string("magic!\n\0", 8) + "more"));
    Ctx bare;
    bare.info.err_string = nullptr; // no text at all: the codes alone
    default_err_handle(&bare.info);
    EXPECT_EQ(bare.error_body().size(), 16u);
}

TEST(DefenseReport, KeptFollowsTheErrorSegmentAndGrowsItsLengthWordByANativeAdd) {
    Ctx c;
    mgi_set_err_defense_report(&c.info, "dropped: no error yet");
    EXPECT_EQ(c.info.rsp_len, 0u);

    mgi_sprintf_err(&c.info, "0123456789abcde"); // body 16 + 16 = 0x20
    uint32_t before = c.info.rsp_len;
    mgi_set_err_defense_report(&c.info, "report number %d...", 1); // 19 bytes with the NUL: 24 padded
    EXPECT_TRUE(c.info.rsp_len == before + 24 && c.info.rsp_seg_used == before + 24);
    EXPECT_EQ(0, std::memcmp(c.info.rsp_data + before, text_body("report number 1...").data(), 24));
    // The big-endian 0x0020 in the head grows by 24 as a native word: 0x1820 on a little-endian host.
    uint16_t word;
    std::memcpy(&word, "\x00\x20", 2);
    word = uint16_t(word + 24);
    EXPECT_EQ(0, std::memcmp(c.info.rsp_hdr_segment + 2, &word, 2));
}

TEST(PrivateCode, KeptOnlyAnAdcPlatformLetsCodeZeroPass) {
    unsetenv("MGMT_PLATFORM");
    {
        Ctx c;
        mgi_set_err_info_with_private_ecode(&c.info, 0, 77, "user %s", "bob");
        EXPECT_TRUE(c.info.decodeErr == -1 && c.info.err_code == 0 && c.info.rsp_len == 0); // the segment comes later
        mgi_final_rsp_message(&c.info);
        Bytes b = c.error_body();
        ASSERT_EQ(b.size(), 16u + 16u);
        EXPECT_TRUE(host_i32(b, 4) == 77 && Bytes(b.begin() + 16, b.end()) == text_body("user bob"));
    }
    setenv("MGMT_PLATFORM", "waf,adc", 1);
    Ctx c;
    for (auto [code, decode_err] : {std::pair{0, 0}, {4, -1}}) {
        mgi_set_err_info_with_private_ecode(&c.info, code, 1, "text");
        EXPECT_EQ(c.info.decodeErr, decode_err) << code;
    }
    unsetenv("MGMT_PLATFORM");
}

// Without an entity the encode error falls back to -2.
TEST(EncodeErrorHandling, FallsBackWithoutAnEntity) {
    Ctx c(M | 0x999);
    c.info.encodeErr = -100;
    testing::internal::CaptureStdout();
    EXPECT_EQ(encode_app_error_handling(&c.info), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "request path does not exist\n");
    EXPECT_EQ(std::make_pair(c.info.err_code, host_i32(c.error_body(), 0)), std::make_pair(-2, -2));
}

// ---------------------------------------------------------------- out of memory

constexpr uint32_t A = 0x560000; // the out-of-memory cases' module

class AllocFailure : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!AllocHook::active) GTEST_SKIP() << "the sanitizer's allocator can't be made to fail";
    }
    void TearDown() override { AllocHook::fail_after = -1; }
};

TEST_F(AllocFailure, EntityInitAndAdd) {
    CaptureStdout();
    AllocHook::fail_after = 0;
    EXPECT_EQ(app_entity_init(A | 1, 2, nullptr, nullptr, nullptr, nullptr, nullptr), nullptr);
    // A path step that can't be made: the entity isn't hung anywhere.
    appEntity *e = app_entity_init(A | 2, 2, nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(e, nullptr);
    const uint32_t parent[] = {A | 0x10, 0}, full[] = {A | 0x10, A | 2, 0};
    AllocHook::fail_after = 0;
    EXPECT_EQ(app_entity_add(parent, e), -1);
    AllocHook::fail_after = -1;
    EXPECT_EQ(GetCapturedStdout(), "malloc fail\nmalloc fail\n");
    EXPECT_EQ(app_entity_add(parent, e), 0);
    EXPECT_EQ(get_app_mgi_entity(full), e);
}

TEST_F(AllocFailure, SorterWriteAndGet) {
    int a = 3, b = 1, c = 2;
    ASSERT_EQ(vk_sorter_init(sizeof(int), 1, 0, 0, 4, 0, nullptr, 0), 0);
    ConsoleCapture cap;
    AllocHook::fail_after = 0;
    EXPECT_EQ(vk_sorter_write(&a), -1);
    EXPECT_EQ(cap.text(), "vk_sorter_write: Failed to write obj to sorter\n");
    for (int *p : {&a, &b, &c}) vk_sorter_write(p);
    // Without its array the get hands back the objects unsorted, newest first.
    AllocHook::fail_after = 0;
    std::vector<void *> got;
    for (vk_sorter_node *n = vk_sorter_get(); n; n = n->next) got.push_back(n->object);
    EXPECT_EQ(got, (std::vector<void *>{&c, &b, &a}));
    vk_sorter_free();
}

TEST_F(AllocFailure, QueryTreeIsCutWhereMemoryEnds) {
    add_entity({}, A | 3, 0, nullptr, nullptr, nullptr, nullptr);
    Bytes data(3 * 140, 0); // three records with empty bodies
    const uint32_t path[] = {A | 3, 0};
    for (int at : {0, 1}) { // the head, the first node
        AllocHook::fail_after = at;
        EXPECT_EQ(app_process_query_data(data.data(), uint32_t(data.size()), path), nullptr) << at;
    }
    AllocHook::fail_after = 3; // the second child
    appQueryList *head = app_process_query_data(data.data(), uint32_t(data.size()), path);
    AllocHook::fail_after = -1;
    ASSERT_TRUE(head && head->first->children.first);
    EXPECT_EQ(head->first->children.first->next, nullptr);
    clean_app_query_data_tree(head);
}

} // namespace
