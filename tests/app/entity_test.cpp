// The entity tree: insertion with made-up path nodes, look-up, printing, item
// tables.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "app_fixture.h"

using namespace app_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

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
    appEntity *e = add_entity({0x7f0001}, 0x7f0002, 0, nullptr, nullptr, nullptr, nullptr, items);
    appEntity *bare = add_entity({0x7f0001}, 0x7f0003, 0, nullptr, nullptr, nullptr, nullptr);
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
    const uint32_t path[] = {0x7f0001, 0x7f0002, 0}, bare_path[] = {0x7f0001, 0x7f0003, 0},
                   nowhere[] = {0x7f0001, 0x7f0009, 0};
    EXPECT_EQ(set_items_ud_offset("addr", 100, path), 0);
    EXPECT_TRUE(items[2].offset == 100 && items[2].type == 10u);
    EXPECT_EQ(set_items_ud_offset("addr", 100, bare_path), -1990);
    CaptureStdout();
    EXPECT_EQ(set_items_ud_offset("addr", 100, nowhere), -1499);
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\n");
}

} // namespace
