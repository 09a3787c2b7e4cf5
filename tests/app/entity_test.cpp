// The entity tree: insertion with made-up path nodes, look-up, printing, item
// tables and their layout.
#include <gtest/gtest.h>

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

// Runs fn on an empty tree and puts the process's tree back afterwards.
template <class F> void with_empty_tree(F fn) {
    appEntityList saved = entity_root;
    entity_root = {nullptr, nullptr};
    fn();
    free_tree(entity_root.first);
    entity_root = saved;
}

std::string pointer(mgi_app_handler h) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", reinterpret_cast<void *>(h));
    return buf;
}

TEST(EntityTree, EmptyTreeLooksUpNothingAndShowsNothing) {
    with_empty_tree([] {
        const uint32_t path[] = {0x10001, 0};
        CaptureStdout();
        EXPECT_EQ(get_app_mgi_entity(path), nullptr);
        show_app_entity();
        EXPECT_EQ(GetCapturedStdout(), "request path does not exist\nnothing to be shown! \n");
        const uint32_t empty[] = {0};
        CaptureStdout();
        EXPECT_EQ(get_app_mgi_entity(empty), nullptr);
        EXPECT_EQ(get_app_mgi_entity(nullptr), nullptr);
        EXPECT_EQ(GetCapturedStdout(), ""); // no message for a null or empty path
    });
}

TEST(EntityTree, MissingPathStepsAreMadeUpAndPrinted) {
    with_empty_tree([] {
        appEntity *leaf = app_entity_init(0x40, 2, h1, nullptr, h2, nullptr, nullptr);
        ASSERT_NE(leaf, nullptr);
        const uint32_t parent[] = {0x10, 0x20, 0x30, 0};
        ASSERT_EQ(app_entity_add(parent, leaf), 0);
        const uint32_t one[] = {0x10, 0};
        appEntity *made = get_app_mgi_entity(one);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(made->kind, 0u);
        EXPECT_EQ(made->decodeIndex, nullptr);
        EXPECT_EQ(made->decodeData, nullptr);
        const uint32_t full[] = {0x10, 0x20, 0x30, 0x40, 0};
        EXPECT_EQ(get_app_mgi_entity(full), leaf);
        // A sibling at the top level with the same word as an existing one: both print, the first is found.
        appEntity *twin = app_entity_init(0x10, 2, nullptr, h1, nullptr, nullptr, nullptr);
        app_entity_add(nullptr, twin);
        EXPECT_EQ(get_app_mgi_entity(one), made);

        CaptureStdout();
        show_app_entity();
        std::string n = pointer(nullptr);
        std::string want = "entity: 16, decodeIndex:" + n + ", errHandle:" + n + ", decodeData:" + n +
                           ", encodeData:" + n + "  \n" + "\tentity: 32, decodeIndex:" + n + ", errHandle:" + n +
                           ", decodeData:" + n + ", encodeData:" + n + "  \n" + "\t\tentity: 48, decodeIndex:" + n +
                           ", errHandle:" + n + ", decodeData:" + n + ", encodeData:" + n + "  \n" +
                           "\t\t\tentity: 64, decodeIndex:" + pointer(h1) + ", errHandle:" + n +
                           ", decodeData:" + pointer(h2) + ", encodeData:" + n + "  \n" +
                           "entity: 16, decodeIndex:" + n + ", errHandle:" + pointer(h1) + ", decodeData:" + n +
                           ", encodeData:" + n + "  \n";
        EXPECT_EQ(GetCapturedStdout(), want);

        // Each missing step prints the look-up's line.
        const uint32_t wrong[] = {0x10, 0x99, 0};
        CaptureStdout();
        EXPECT_EQ(get_app_mgi_entity(wrong), nullptr);
        const uint32_t past_leaf[] = {0x10, 0x20, 0x30, 0x40, 0x50, 0};
        EXPECT_EQ(get_app_mgi_entity(past_leaf), nullptr); // the leaf's child list is empty
        EXPECT_EQ(GetCapturedStdout(), "request path does not exist\nrequest path does not exist\n");
    });
}

TEST(EntityTree, ItemsByNameAndAlias) {
    static appItem items[] = {
        {{"name", "n", nullptr}, 5, 32},
        {{"id", nullptr}, 2, 0},
        {{"addr", "ip", "ipaddr", "address", nullptr}, 10, 0},
        {{nullptr}, 0, 0},
    };
    appEntity *e = add_entity({0x7f0001}, 0x7f0002, 0, nullptr, nullptr, nullptr, nullptr, items);
    EXPECT_EQ(get_item_by_name(e, "n"), &items[0]);
    EXPECT_EQ(get_item_by_name(e, "ipaddr"), &items[2]); // an alias in the third name
    EXPECT_EQ(get_item_by_name(e, "address"), &items[2]);
    EXPECT_EQ(get_item_by_name(e, "nope"), nullptr);     // stops at the table's end
    EXPECT_EQ(set_itemSyntax(e, "id", 44, 15), 0);       // type 15 leaves the type
    EXPECT_EQ(items[1].type, 2u);
    EXPECT_EQ(items[1].offset, 44);
    EXPECT_EQ(set_itemSyntax(e, "id", 48, 1), 0);
    EXPECT_EQ(items[1].type, 1u);
    EXPECT_EQ(items[1].offset, 48);

    appEntity *bare = add_entity({0x7f0001}, 0x7f0003, 0, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(get_item_by_name(bare, "id"), nullptr);
    EXPECT_EQ(set_itemSyntax(bare, "id", 1, 2), -1990);

    const uint32_t path[] = {0x7f0001, 0x7f0002, 0};
    EXPECT_EQ(set_items_ud_offset("addr", 100, path), 0);
    EXPECT_EQ(items[2].offset, 100);
    EXPECT_EQ(items[2].type, 10u);
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
    EXPECT_EQ(items[0].offset, 0);
    EXPECT_EQ(items[1].offset, 8);
    EXPECT_EQ(items[2].offset, 12);
    EXPECT_EQ(items[3].offset, 24);
    EXPECT_EQ(items[4].offset, 32);
    // The closing call is the daemon's: it gives the padded total and resets the layout.
    EXPECT_EQ(getOffset(4, -2007), 40);
}

} // namespace
