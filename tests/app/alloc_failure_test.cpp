// Out of memory in the entity tree, the sorter and the query tree: this
// program makes one malloc or calloc of the calling thread fail (not in
// sanitizer builds, which bring their own allocator).
#include "faults.h"
#include "app_fixture.h"
#include "mgmt/sorter.h"

using namespace app_test;
using mgmt_test::AllocHook;

namespace {

constexpr uint32_t M = 0x560000;

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
    EXPECT_EQ(app_entity_init(M | 1, 2, nullptr, nullptr, nullptr, nullptr, nullptr), nullptr);
    // A path step that can't be made: the entity isn't hung anywhere.
    appEntity *e = app_entity_init(M | 2, 2, nullptr, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(e, nullptr);
    const uint32_t parent[] = {M | 0x10, 0}, full[] = {M | 0x10, M | 2, 0};
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
    add_entity({}, M | 3, 0, nullptr, nullptr, nullptr, nullptr);
    Bytes data(3 * 140, 0); // three records with empty bodies
    const uint32_t path[] = {M | 3, 0};
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
