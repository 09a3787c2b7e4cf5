// The catalogue of the management tree: lookup, properties and counts of the
// tree and parent chains.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mgmt/objects.h"

namespace {

TEST(Catalogue, LookupByNameAndNumber) {
    ASSERT_EQ(libmgmt_object_count(), 2415u);
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        ASSERT_NE(o, nullptr);
        ASSERT_EQ(libmgmt_object_find(o->name), o) << o->name;
    }
    EXPECT_TRUE(!libmgmt_object_at(2415) && !libmgmt_object_at(~0u));
    for (const char *absent : {"", "aaa_rol", "aaa_role_", "zzzz"})
        EXPECT_EQ(libmgmt_object_find(absent), nullptr) << absent;
    EXPECT_EQ(libmgmt_object_find(nullptr), nullptr);
    EXPECT_STREQ(libmgmt_object_at(0)->name, "aaa_role_mapping_user_attribute");
}

// Properties of every object: its operations and stubs agree, a whole-record index is the whole
// record, parents are keyed and stand above their child, and the slots are the parents' keys and
// the own fields; then the counts of the tree.
TEST(Catalogue, EveryObjectAndTheCountsOfTheTree) {
    size_t with_index = 0, whole_index = 0, sg = 0, mgmt_objects = 0;
    std::map<int, size_t> depth;
    std::map<uint32_t, std::set<uint16_t>> module_owner;
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        SCOPED_TRACE(o->name);
        with_index += o->index_count != 0;
        if (o->index_count && o->index_count == o->field_count) {
            ++whole_index;
            EXPECT_EQ(o->index_len, o->entity_len);
        }
        const bool set_get = o->ops == (LIBMGMT_OP_SET | LIBMGMT_OP_GET);
        sg += set_get;
        EXPECT_TRUE(set_get ? o->set && o->get && !o->exec : o->ops == LIBMGMT_OP_EXEC && !o->set && !o->get && o->exec);
        if (std::strncmp(o->name, "mgmt_", 5) == 0) {
            EXPECT_EQ(o->owner, 2);
            ++mgmt_objects;
        }
        ASSERT_TRUE(o->depth >= 1 && o->depth < MGI_TARGET_WORDS);
        EXPECT_EQ(o->path[o->depth], 0u);
        ++depth[o->depth];
        module_owner[o->path[o->depth - 1] >> 16].insert(o->owner);
        size_t slots = o->field_count;
        for (const libmgmt_object *p = o->parent; p; p = p->parent) {
            ASSERT_TRUE(p->index_count > 0 && p->depth < o->depth);
            ASSERT_EQ(0, std::memcmp(p->path, o->path, 4 * p->depth));
            slots += p->index_count;
        }
        EXPECT_EQ(o->slot_count, slots);
        EXPECT_LE(o->slot_count, MGI_ITEM_SLOTS);
    }
    EXPECT_EQ((std::vector<size_t>{with_index, whole_index, sg, mgmt_objects}), (std::vector<size_t>{1262, 444, 2263, 23}));
    EXPECT_EQ(depth, (std::map<int, size_t>{{1, 1059}, {2, 783}, {3, 310}, {4, 170}, {5, 38}, {6, 30}, {7, 25}}));
    // Every module has one owner, but module 0x2f, which has two.
    EXPECT_EQ(module_owner.size(), 270u);
    for (auto &[module, apps] : module_owner)
        EXPECT_EQ(apps.size(), module == 0x2f ? 2u : 1u) << std::hex << module;
    const libmgmt_object *n = libmgmt_object_find("routed_vr_bgp_neighbor");
    ASSERT_TRUE(n && n->parent && n->parent->parent);
    EXPECT_EQ(std::string(n->parent->name) + " " + n->parent->parent->name, "routed_vr_bgp vr_vr");
}

} // namespace
