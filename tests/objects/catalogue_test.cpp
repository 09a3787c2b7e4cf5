// The catalogue of the management tree: lookup, counts of the tree, parent
// chains and the exported names of every object.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mgmt/objects.h"
#include "test_support.h"

namespace {

TEST(Catalogue, LookupByNameAndNumber) {
    ASSERT_EQ(libmgmt_object_count(), 2415u);
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        ASSERT_NE(o, nullptr);
        ASSERT_EQ(libmgmt_object_find(o->name), o) << o->name;
    }
    EXPECT_EQ(libmgmt_object_at(2415), nullptr);
    EXPECT_EQ(libmgmt_object_at(~0u), nullptr);
    for (const char *absent : {"", "aaa_rol", "aaa_role_", "zzzz"})
        EXPECT_EQ(libmgmt_object_find(absent), nullptr) << absent;
    EXPECT_EQ(libmgmt_object_find(nullptr), nullptr);
    // Names with capitals sort among the others by their bytes.
    EXPECT_NE(libmgmt_object_find("sslproxy_sslExemptIP"), nullptr);
    EXPECT_STREQ(libmgmt_object_at(0)->name, "aaa_role_mapping_user_attribute");
}

TEST(Catalogue, CountsOfTheTree) {
    size_t with_index = 0, whole_index = 0, gaps = 0, sg = 0, ex = 0, mgmt_sg = 0, mgmt_ex = 0, widest_text = 0;
    const libmgmt_object *most = libmgmt_object_at(0), *longest = most;
    std::map<int, size_t> depth;
    std::set<uint16_t> owners;
    std::map<uint32_t, std::set<uint16_t>> module_owner;
    std::set<std::string> third_word;
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        if (o->index_count) ++with_index;
        if (o->index_count && o->index_count == o->field_count) {
            ++whole_index;
            EXPECT_EQ(o->index_len, o->entity_len) << o->name;
        }
        bool gap = o->flags & LIBMGMT_OBJ_SIZED;
        for (size_t k = 0; k < o->field_count; ++k) {
            gap = gap || (o->fields[k].flags & LIBMGMT_FIELD_PLACED);
            if (o->fields[k].kind == LIBMGMT_FIELD_TEXT) widest_text = std::max<size_t>(widest_text, o->fields[k].width);
        }
        gaps += gap;
        most = o->field_count > most->field_count ? o : most;
        longest = o->entity_len > longest->entity_len ? o : longest;
        if (o->field_count > 64) third_word.insert(o->name);
        if (o->ops == (LIBMGMT_OP_SET | LIBMGMT_OP_GET)) {
            ++sg;
            EXPECT_TRUE(o->set && o->get && !o->exec) << o->name;
        } else {
            ++ex;
            EXPECT_EQ(o->ops, LIBMGMT_OP_EXEC) << o->name;
            EXPECT_TRUE(!o->set && !o->get && o->exec) << o->name;
        }
        if (std::strncmp(o->name, "mgmt_", 5) == 0) {
            EXPECT_EQ(o->owner, 2) << o->name;
            (o->ops & LIBMGMT_OP_EXEC ? mgmt_ex : mgmt_sg)++;
        }
        ++depth[o->depth];
        ASSERT_GE(o->depth, 1);
        ASSERT_LT(o->depth, MGI_TARGET_WORDS);
        EXPECT_EQ(o->path[o->depth], 0u) << o->name;
        owners.insert(o->owner);
        module_owner[o->path[o->depth - 1] >> 16].insert(o->owner);
    }
    EXPECT_EQ((std::vector<size_t>{with_index, whole_index, gaps, sg, ex, mgmt_sg, mgmt_ex, widest_text}),
              (std::vector<size_t>{1262, 444, 42, 2263, 152, 12, 11, 34335}));
    EXPECT_EQ(std::string(most->name) + " " + longest->name, "if_if addrbook_addr_refence");
    EXPECT_EQ(std::make_pair(uint32_t(most->field_count), longest->entity_len), std::make_pair(96u, 40960u));
    EXPECT_EQ(third_word, (std::set<std::string>{"aaa_server", "if_if", "logd_traffic_msg_tbl", "logd_export",
                                                 "sslvpn_sslvpn_profile", "vsys_profile", "vsys_vsys_vsys_profile"}));
    EXPECT_EQ(depth, (std::map<int, size_t>{{1, 1059}, {2, 783}, {3, 310}, {4, 170}, {5, 38}, {6, 30}, {7, 25}}));
    EXPECT_EQ(owners.size(), 64u);
    EXPECT_EQ(module_owner.size(), 270u);
    for (auto &[module, apps] : module_owner) {
        if (module == 0x2f)
            EXPECT_EQ(apps, (std::set<uint16_t>{18, 20}));
        else
            EXPECT_EQ(apps.size(), 1u) << std::hex << module;
    }
}

// Every parent is keyed and sits above its child; the slots are the parents' keys and the own fields.
TEST(Catalogue, ParentChainsAndSlots) {
    const libmgmt_object *n = libmgmt_object_find("routed_vr_bgp_neighbor");
    ASSERT_TRUE(n && n->parent && n->parent->parent);
    EXPECT_EQ(std::string(n->parent->name) + " " + n->parent->parent->name, "routed_vr_bgp vr_vr");
    EXPECT_EQ(n->parent->parent->parent, nullptr);

    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        size_t slots = o->field_count;
        for (const libmgmt_object *p = o->parent; p; p = p->parent) {
            ASSERT_GT(p->index_count, 0) << o->name;
            ASSERT_LT(p->depth, o->depth) << o->name;
            ASSERT_EQ(0, std::memcmp(p->path, o->path, 4 * p->depth)) << o->name;
            slots += p->index_count;
        }
        EXPECT_EQ(o->slot_count, slots) << o->name;
        EXPECT_LE(o->slot_count, MGI_ITEM_SLOTS);
    }
}

// Exactly the packers and stubs of each object's row leave the library, under their plain names.
// The tests link the library's objects statically: the shipped libmgmt.so is loaded on its own.
TEST(Catalogue, ExportedNamesFollowTheRows) {
    void *lib = dlopen(mgmt_test::build_path("libmgmt.so.1").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto sym = [&](const std::string &s) { return dlsym(lib, s.c_str()); };
    auto count = reinterpret_cast<uint32_t (*)()>(sym("libmgmt_object_count"));
    auto at = reinterpret_cast<const libmgmt_object *(*)(uint32_t)>(sym("libmgmt_object_at"));
    ASSERT_TRUE(count && at);
    ASSERT_EQ(count(), libmgmt_object_count());
    for (uint32_t i = 0; i < count(); ++i) {
        const libmgmt_object *o = at(i);
        const std::string n = o->name;
        EXPECT_NE(sym("construct_" + n + "_entity"), nullptr) << n;
        EXPECT_EQ(sym("construct_" + n + "_index") != nullptr, o->index_count != 0) << n;
        EXPECT_EQ(sym("construct_" + n + "_new_index") != nullptr, o->index_count != 0) << n;
        EXPECT_EQ((std::vector<void *>{sym("final_set_" + n), sym("final_get_" + n), sym("final_exec_" + n)}),
                  (std::vector<void *>{reinterpret_cast<void *>(o->set), reinterpret_cast<void *>(o->get),
                                       reinterpret_cast<void *>(o->exec)})) << n;
    }
    // The layer's own insides stay hidden (the export list is checked whole by abi.exports).
    EXPECT_EQ(sym("mgmt_stub_set"), nullptr);
    dlclose(lib);
}

} // namespace
