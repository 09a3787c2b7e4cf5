// The entity tree: insertion with made-up path nodes, look-up, printing, item
// tables and their layout.
#include <gtest/gtest.h>

#include <algorithm>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "app_fixture.h"
#include "mgmt/sorter.h"

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
    const uint32_t one[] = {0x10, 0};
    CaptureStdout();
    EXPECT_EQ(get_app_mgi_entity(one), nullptr);
    show_app_entity();
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\nnothing to be shown! \n");

    appEntity *leaf = app_entity_init(0x40, 2, h1, nullptr, h2, nullptr, nullptr);
    ASSERT_NE(leaf, nullptr);
    const uint32_t parent[] = {0x10, 0x20, 0x30, 0};
    ASSERT_EQ(app_entity_add(parent, leaf), 0);
    appEntity *made = get_app_mgi_entity(one);
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(made->kind == 0u && !made->decodeIndex && !made->decodeData);
    const uint32_t full[] = {0x10, 0x20, 0x30, 0x40, 0};
    EXPECT_EQ(get_app_mgi_entity(full), leaf);
    // A sibling at the top level with the same word as an existing one: both print, the first is found.
    app_entity_add(nullptr, app_entity_init(0x10, 2, nullptr, h1, nullptr, nullptr, nullptr));
    EXPECT_EQ(get_app_mgi_entity(one), made);

    CaptureStdout();
    show_app_entity();
    EXPECT_EQ(GetCapturedStdout(), line(0, 16, nullptr, nullptr, nullptr) + line(1, 32, nullptr, nullptr, nullptr) +
                                       line(2, 48, nullptr, nullptr, nullptr) + line(3, 64, h1, nullptr, h2) +
                                       line(0, 16, nullptr, h1, nullptr));

    // No message for a null or empty path; one for each missing step.
    const uint32_t empty[] = {0};
    const uint32_t wrong[] = {0x10, 0x99, 0};
    const uint32_t past_leaf[] = {0x10, 0x20, 0x30, 0x40, 0x50, 0}; // the leaf's child list is empty
    CaptureStdout();
    EXPECT_EQ(get_app_mgi_entity(empty), nullptr);
    EXPECT_EQ(get_app_mgi_entity(nullptr), nullptr);
    EXPECT_EQ(get_app_mgi_entity(wrong), nullptr);
    EXPECT_EQ(get_app_mgi_entity(past_leaf), nullptr);
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\nrequest path does not exist\n");
    free_tree(entity_root.first);
    entity_root = saved;
}

TEST(EntityTree, ItemsByNameAndAlias) {
    // The entity keeps the table; each run starts from the same one.
    static const appItem initial[] = {
        {{"name", "n", nullptr}, 5, 32},
        {{"id", nullptr}, 2, 0},
        {{"addr", "ip", "ipaddr", "address", nullptr}, 10, 0},
        {{nullptr}, 0, 8}, // no name, but not all zero: the table goes on
        {{"late", nullptr}, 1, 0},
        {{nullptr}, 0, 0},
    };
    static appItem items[std::size(initial)];
    std::copy(std::begin(initial), std::end(initial), items);
    appEntity *e = add_entity({0x7f0001}, 0x7f0002, 0, nullptr, nullptr, nullptr, nullptr, items);
    // An alias in the third name is found; a name not in the table stops at the all-zero row.
    const std::pair<const char *, appItem *> names[] = {
        {"n", &items[0]}, {"ipaddr", &items[2]}, {"address", &items[2]}, {"late", &items[4]}, {"nope", nullptr}};
    for (auto [name, item] : names) EXPECT_EQ(get_item_by_name(e, name), item) << name;
    EXPECT_EQ(set_itemSyntax(e, "id", 44, 15), 0); // type 15 leaves the type
    EXPECT_TRUE(items[1].type == 2u && items[1].offset == 44);
    EXPECT_EQ(set_itemSyntax(e, "id", 48, 1), 0);
    EXPECT_TRUE(items[1].type == 1u && items[1].offset == 48);

    appEntity *bare = add_entity({0x7f0001}, 0x7f0003, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(get_item_by_name(bare, "id"), nullptr);
    EXPECT_EQ(set_itemSyntax(bare, "id", 1, 2), -1990);

    const uint32_t path[] = {0x7f0001, 0x7f0002, 0};
    EXPECT_EQ(set_items_ud_offset("addr", 100, path), 0);
    EXPECT_TRUE(items[2].offset == 100 && items[2].type == 10u);
    const uint32_t bare_path[] = {0x7f0001, 0x7f0003, 0};
    EXPECT_EQ(set_items_ud_offset("addr", 100, bare_path), -1990);
    const uint32_t nowhere[] = {0x7f0001, 0x7f0009, 0};
    CaptureStdout();
    EXPECT_EQ(set_items_ud_offset("addr", 100, nowhere), -1499);
    EXPECT_EQ(GetCapturedStdout(), "request path does not exist\n");
}

TEST(EntityTree, DefaultLayoutOfAnItemTable) {
    // struct { uint8_t mac[6]; uint32_t id; char name[9]; int64_t big; uint16_t port; }
    appItem items[] = {
        {{"mac", nullptr}, 12, 0},  {{"id", nullptr}, 2, 0},   {{"name", nullptr}, 5, 9},
        {{"big", nullptr}, 3, 0},   {{"port", nullptr}, 8, 0}, {{nullptr}, 0, 0},
    };
    ASSERT_EQ(set_items_default_offset(items), 0);
    const int32_t want[] = {0, 8, 12, 24, 32};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(items[i].offset, want[i]) << items[i].names[0];
    // The closing call is the daemon's: it gives the padded total and resets the layout.
    EXPECT_EQ(getOffset(4, -2007), 40);
}

} // namespace
