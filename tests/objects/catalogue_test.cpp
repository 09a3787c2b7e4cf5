// The catalogue of the management tree and its record packers: lookup,
// properties and counts of the tree, parent chains, every object's packer
// against its catalogue entry; and the generator's checks of a catalogue: a row
// it cannot lay out stops it, naming the row and the reason, and nothing is written.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "mgmt/objects.h"

namespace {

// Every object is found by its name; its operations and stubs agree, a whole-record index is the
// whole record, parents are keyed and stand above their child, and the slots are the parents' keys
// and the own fields; then the counts of the tree.
TEST(Catalogue, EveryObjectAndTheCountsOfTheTree) {
    ASSERT_EQ(libmgmt_object_count(), 2415u);
    EXPECT_TRUE(!libmgmt_object_at(2415) && !libmgmt_object_at(~0u) && !libmgmt_object_find(nullptr));
    for (const char *absent : {"", "aaa_rol", "aaa_role_", "zzzz"}) EXPECT_EQ(libmgmt_object_find(absent), nullptr);
    EXPECT_STREQ(libmgmt_object_at(0)->name, "aaa_role_mapping_user_attribute");
    size_t with_index = 0, whole_index = 0, sg = 0, mgmt_objects = 0;
    std::map<int, size_t> depth;
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        ASSERT_EQ(libmgmt_object_find(o->name), o) << o->name;
        SCOPED_TRACE(o->name);
        with_index += o->index_count != 0;
        if (o->index_count && o->index_count == o->field_count) {
            ++whole_index;
            EXPECT_EQ(o->index_len, o->entity_len);
        }
        const bool set_get = o->ops == (LIBMGMT_OP_SET | LIBMGMT_OP_GET), mgmt = !std::strncmp(o->name, "mgmt_", 5);
        sg += set_get;
        mgmt_objects += mgmt;
        EXPECT_TRUE(set_get ? o->set && o->get && !o->exec
                            : o->ops == LIBMGMT_OP_EXEC && !o->set && !o->get && o->exec);
        EXPECT_TRUE(!mgmt || o->owner == 2);
        ASSERT_TRUE(o->depth >= 1 && o->depth < MGI_TARGET_WORDS);
        EXPECT_EQ(o->path[o->depth], 0u);
        ++depth[o->depth];
        size_t slots = o->field_count;
        for (const libmgmt_object *p = o->parent; p; p = p->parent) {
            ASSERT_TRUE(p->index_count > 0 && p->depth < o->depth);
            ASSERT_EQ(0, std::memcmp(p->path, o->path, 4 * p->depth));
            slots += p->index_count;
        }
        EXPECT_TRUE(o->slot_count == slots && o->slot_count <= MGI_ITEM_SLOTS);
    }
    EXPECT_EQ((std::vector<size_t>{with_index, whole_index, sg, mgmt_objects}),
              (std::vector<size_t>{1262, 444, 2263, 23}));
    EXPECT_EQ(depth, (std::map<int, size_t>{{1, 1059}, {2, 783}, {3, 310}, {4, 170}, {5, 38}, {6, 30}, {7, 25}}));
}

// Packer records start filled with kFill; bytes a packer leaves alone keep it.
using Rec = std::vector<unsigned char>;
constexpr unsigned char kFill = 0xAA;
Rec filled(size_t n) { return Rec(n, kFill); }
bool untouched(const Rec &r, size_t from, size_t to) {
    return std::all_of(r.begin() + long(from), r.begin() + long(to), [](unsigned char c) { return c == kFill; });
}

// A given text or pointer field with a null inner pointer sets its bit and leaves its bytes; a
// pointer field copies its whole width, NUL bytes and all, also when both mask pointers are null.
TEST(PackerText, KeptNullInnerPointerSetsTheBitAndLeavesTheBytes) {
    Rec r = filled(72);
    const char *none = nullptr;
    uint64_t mask = 0;
    construct_aaa_role_entity(r.data(), &mask, nullptr, &none, nullptr, nullptr, &none);
    EXPECT_TRUE(mask == ((1ull << 0) | (1ull << 3)) && untouched(r, 0, 72));

    Rec g = filled(64);
    void *nothing = nullptr;
    mask = 0;
    construct_aaa_server_reg_group_entity(g.data(), &mask, nullptr, &nothing);
    EXPECT_TRUE(mask == 1u && untouched(g, 0, 64));

    unsigned char block[64];
    for (int i = 0; i < 64; ++i) block[i] = static_cast<unsigned char>(i == 3 ? 0 : i + 1);
    void *p = block;
    EXPECT_EQ(construct_aaa_server_reg_group_entity(g.data(), nullptr, nullptr, &p), 64u);
    EXPECT_EQ(0, std::memcmp(g.data(), block, 64));
}

// Packs every object with every field given and compares the bytes with the
// catalogue's offsets and widths, fields applied in order (a placed field may
// cover an earlier one); gaps keep the buffer's bytes.
TEST(PackerAllObjects, EveryFieldLandsWhereTheCatalogueSays) {
    for (uint32_t n = 0; n < libmgmt_object_count(); ++n) {
        const libmgmt_object *o = libmgmt_object_at(n);
        SCOPED_TRACE(o->name);
        std::vector<Rec> values(o->field_count);
        std::vector<std::string> texts(o->field_count);
        std::vector<const void *> inner(o->field_count);
        std::vector<void *> args(o->field_count);
        for (size_t k = 0; k < o->field_count; ++k) {
            const libmgmt_field &f = o->fields[k];
            ASSERT_TRUE(f.offset + f.width <= o->entity_len && f.offset % f.align == 0) << k;
            if (f.kind == LIBMGMT_FIELD_TEXT) {
                // Long texts are cut to the width less one; short ones leave the bytes behind their NUL.
                const size_t len = k % 2 ? std::min<size_t>(3, f.width - 1) : f.width + 3;
                texts[k] = std::string(len, static_cast<char>('a' + k % 26));
                inner[k] = texts[k].c_str();
                args[k] = &inner[k];
            } else {
                values[k] = Rec(f.width, static_cast<unsigned char>(k * 7 + 1));
                inner[k] = values[k].data();
                args[k] = f.kind == LIBMGMT_FIELD_REF ? static_cast<void *>(&inner[k]) : values[k].data();
            }
        }
        // The record that the first m fields make, applied in field order.
        auto image = [&](size_t m) {
            Rec want = filled(o->entity_len + 16);
            for (size_t k = 0; k < m; ++k) {
                const libmgmt_field &f = o->fields[k];
                if (f.kind == LIBMGMT_FIELD_TEXT) {
                    const size_t n = std::min<size_t>(texts[k].size(), f.width - 1);
                    std::memset(&want[f.offset], 'a' + k % 26, n);
                    want[f.offset + n] = 0;
                } else {
                    std::memcpy(&want[f.offset], values[k].data(), f.width);
                }
            }
            return want;
        };
        auto low_bits = [](size_t count) { return count >= 64 ? ~0ull : (1ull << count) - 1; };
        Rec got = filled(o->entity_len + 16);
        uint64_t mask = 0;
        uint32_t mask3 = 0;
        ASSERT_EQ(o->pack_entity(got.data(), &mask, &mask3, args.data()), o->entity_len);
        ASSERT_EQ(got, image(o->field_count));
        EXPECT_TRUE(mask == low_bits(o->field_count) &&
                    mask3 == (o->field_count > 64 ? uint32_t(low_bits(o->field_count - 64)) : 0u));
        if (o->pack_index) {
            Rec idx = filled(o->entity_len + 16);
            uint64_t mi = 0;
            ASSERT_EQ(o->pack_index(idx.data(), &mi, nullptr, args.data()), o->index_len);
            EXPECT_EQ(mi, low_bits(o->index_count));
            ASSERT_EQ(idx, image(o->index_count));
        }
        // No field given: masks 0 and the record untouched.
        std::vector<void *> none(o->field_count, nullptr);
        Rec bare = filled(o->entity_len);
        mask = mask3 = 1;
        o->pack_entity(bare.data(), &mask, &mask3, none.data());
        EXPECT_TRUE(mask == 0 && mask3 == 0 && untouched(bare, 0, bare.size()));
    }
}

// ---------------------------------------------------------------- the generator

namespace fs = std::filesystem;

struct GenRun {
    int status = -1;
    std::string output;
    std::vector<std::string> files;
    std::string text; // all that was written
};

// Runs the generator on a catalogue made of these rows (tab-separated columns).
GenRun generate(const std::vector<std::string> &rows, int chunks = 2) {
    char tmpl[] = "/tmp/mgmt-objgen-XXXXXX";
    EXPECT_NE(mkdtemp(tmpl), nullptr);
    const fs::path base = tmpl, tsv = base / "catalogue.tsv", out = base / "out";
    fs::create_directory(out);
    {
        std::ofstream f(tsv);
        f << "# name\tops\tpath\tapp\tparent\tindex\tentity\n";
        for (const auto &r : rows) f << r << "\n";
    }
    GenRun run;
    const std::string cmd = std::string(MGMT_OBJGEN) + " " + tsv.string() + " " + out.string() + " " + out.string() +
                            " " + std::to_string(chunks) + " 2>&1";
    if (FILE *p = popen(cmd.c_str(), "r")) {
        char buf[512];
        while (size_t n = fread(buf, 1, sizeof buf, p)) run.output.append(buf, n);
        run.status = pclose(p);
    }
    for (const auto &e : fs::directory_iterator(out)) {
        run.files.push_back(e.path().filename().string());
        std::ifstream in(e.path());
        run.text.append(std::istreambuf_iterator<char>(in), {});
    }
    fs::remove_all(base);
    return run;
}

std::string row(const std::string &name, const std::string &index, const std::string &entity,
                const std::string &parent = "-", const std::string &path = "10001", const std::string &ops = "sg") {
    return name + "\t" + ops + "\t" + path + "\t1\t" + parent + "\t" + index + "\t" + entity;
}

TEST(Generator, GoodCatalogueGivesHeaderTableAndChunks) {
    GenRun r = generate({row("top", "s32", "s32 u32", "-", "10001"), row("top_child", "u8", "=", "top", "10001.10001"),
                         row("top_act", "-", "u64 b16", "-", "10002", "e"),
                         row("top_sized", "u32", "u32 =8", "-", "10003")},
                        3);
    EXPECT_EQ(WEXITSTATUS(r.status), 0) << r.output;
    // An index of all the fields is the whole record, its set length included: 1 field, 1 key, 1 slot, 8 and 8.
    EXPECT_NE(r.text.find("1, 1, 1, 8u, 8u,"), std::string::npos);
    std::sort(r.files.begin(), r.files.end());
    EXPECT_EQ(r.files, (std::vector<std::string>{"catalogue_data.cpp", "objects.exports", "objects_0.cpp",
                                                 "objects_1.cpp", "objects_2.cpp", "objects_gen.h",
                                                 "records_gen.h"}));
}

struct Bad {
    std::vector<std::string> rows;
    const char *reason;
    const char *where = ":2: bad"; // ":<line>: <name>"
};

TEST(Generator, RejectsRowsItCannotLayOut) {
    const std::string ok = row("ok", "u32", "=");
    std::string ten = "10001";
    for (int i = 0; i < 9; ++i) ten += ".10001";
    // One row for each family of checks: alignment, index, kinds, mask, size, path, names, parents, columns.
    const std::vector<Bad> cases = {
        {{ok, row("bad", "-", "u8 u32@5")}, "field 1 'u32@5': offset 5 breaks its alignment of 4", ":3: bad"},
        {{row("bad", "u8 u32", "u8 u32@8")}, "the index must be a prefix"},
        {{row("bad", "-", "x8")}, "unknown field kind 'x8'"},
        {{row("bad", "-", "u8*50 u8*47")}, "97 fields, the mask holds 96"},
        {{row("bad", "-", "s40000 s10000")}, "does not fit a message"},
        {{row("bad", "-", "u8", "-", ten)}, "leaves no room for the terminating zero"},
        {{ok, row("ok", "-", "u8", "-", "10002")}, "second row of this name (first on line 2)", ":3: ok"},
        {{row("bad", "-", "u8", "nope", "10001.10001")}, "parent 'nope' is not in the catalogue"},
        {{row("top", "u8*96", "="), row("bad", "-", "u8*40", "top", "10001.10001")},
         "needs 136 argument slots, a request has 128",
         ":3: bad"},
        {{"bad\tsg\t10001"}, "expected 7 columns, found 3"},
    };
    for (const Bad &c : cases) {
        SCOPED_TRACE(c.reason);
        GenRun r = generate(c.rows);
        EXPECT_NE(WEXITSTATUS(r.status), 0);
        // The reason stands on the line that names the row.
        const size_t at = r.output.find(std::string(c.where) + ": ");
        EXPECT_NE(at, std::string::npos) << r.output;
        EXPECT_LT(r.output.find(c.reason, at), r.output.find('\n', at)) << r.output;
        EXPECT_NE(r.output.find("nothing generated"), std::string::npos) << r.output;
        EXPECT_TRUE(r.files.empty()) << "nothing is written for a bad catalogue";
    }
}

} // namespace
