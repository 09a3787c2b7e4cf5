// Record packers: exact layouts of telling records, mask bits, text and
// pointer fields, and every object's packer against its catalogue entry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "mgmt/objects.h"

namespace {

using Rec = std::vector<unsigned char>;

constexpr unsigned char kFill = 0xAA;

Rec filled(size_t n) { return Rec(n, kFill); }

bool untouched(const Rec &r, size_t from, size_t to) {
    return std::all_of(r.begin() + long(from), r.begin() + long(to), [](unsigned char c) { return c == kFill; });
}

struct Field {
    uint8_t kind;
    uint32_t offset, width;
};

struct Layout {
    const char *name;
    uint32_t entity_len, index_len;
    uint16_t fields;
    uint16_t first;           // number of the first field listed below
    std::vector<Field> field; // kinds, offsets and widths from field `first` on
};

// The layout the catalogue holds for these objects; every packer follows the catalogue (below).
TEST(PackerLayout, TellingRecordsHaveTheirExactLayout) {
    constexpr uint8_t U16 = LIBMGMT_FIELD_U16, U32 = LIBMGMT_FIELD_U32, S = LIBMGMT_FIELD_TEXT, B = LIBMGMT_FIELD_BYTES,
                      P = LIBMGMT_FIELD_REF;
    // clang-format off
    const Layout rows[] = {
        {"aaa_role", 72, 36, 4, 0, {{S, 0, 32}, {U32, 32, 4}, {U32, 36, 4}, {S, 40, 32}}},
        {"aaa_server_reg_group", 64, 64, 1, 0, {{P, 0, 64}}},
        {"aaa_user_bind", 212, 92, 12, 0, {{U32, 0, 4}, {S, 4, 48}, {B, 52, 6}, {S, 58, 32}, {U16, 92, 2},
            {U32, 96, 4}, {U32, 100, 4}, {U32, 104, 4}, {S, 108, 32}, {S, 140, 64}, {U32, 204, 4}, {U32, 208, 4}}},
        {"bfd_echoinfo", 24, 0, 2, 0, {{U32, 0, 4}, {B, 8, 16}}},
        {"addrbook_addr_refence", 40960, 0, 10, 9, {{S, 36864, 4096}}},
        {"aaa_admin_user", 1460, 36, 21, 7, {{P, 0, 4}, {U32, 148, 4}, {S, 152, 96}}}, // p4@0 covers field 0
        {"routed_vr_ospf_if", 248, 32, 28, 27, {{P, 0, 8}}},                           // p8@0 and =248
        {"if_if", 1368, 32, 96, 0, {}},
    };
    // clang-format on
    for (const Layout &t : rows) {
        SCOPED_TRACE(t.name);
        const libmgmt_object *o = libmgmt_object_find(t.name);
        ASSERT_NE(o, nullptr);
        EXPECT_EQ(o->entity_len, t.entity_len);
        EXPECT_EQ(o->index_len, t.index_len);
        EXPECT_EQ(o->index_count != 0, t.index_len != 0);
        ASSERT_EQ(o->field_count, t.fields);
        for (size_t k = 0; k < t.field.size(); ++k) {
            const libmgmt_field &f = o->fields[t.first + k];
            EXPECT_TRUE(f.kind == t.field[k].kind && f.offset == t.field[k].offset && f.width == t.field[k].width)
                << "field " << t.first + k;
        }
    }
}

// Bits 0, 63, 64 and 95 of the wide if_if each stand alone; no field given: masks 0, record untouched.
TEST(PackerMask, BitsZeroSixtyThreeSixtyFourNinetyFiveAndNone) {
    const libmgmt_object *o = libmgmt_object_find("if_if");
    ASSERT_NE(o, nullptr);
    static unsigned char zeros[64] = {}; // text and pointer fields read a null pointer from here
    struct Case {
        int field; // -1: none, 96: all
        uint64_t mask;
        uint32_t mask3;
    } cases[] = {{0, 1ull, 0}, {63, 1ull << 63, 0}, {64, 0, 1u}, {95, 0, 0x80000000u}, {-1, 0, 0}, {96, ~0ull, ~0u}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.field);
        std::vector<void *> a(96, c.field == 96 ? zeros : nullptr);
        if (c.field >= 0 && c.field < 96) a[c.field] = zeros;
        Rec r = filled(o->entity_len + 8);
        uint64_t mask = c.mask ^ 1;
        uint32_t mask3 = c.mask3 ^ 1;
        EXPECT_EQ(o->pack_entity(r.data(), &mask, &mask3, a.data()), o->entity_len);
        EXPECT_TRUE(mask == c.mask && mask3 == c.mask3);
        EXPECT_TRUE(c.field >= 0 || untouched(r, 0, r.size()));
    }
}

// Text is cut at 31 bytes of its 32 and terminated; nothing behind the terminator is written. An
// object of up to 64 fields stores 0 in the third mask word.
TEST(PackerText, TruncationAndTerminator) {
    struct Case {
        size_t len;
        size_t copied;
    } cases[] = {{0, 0}, {5, 5}, {31, 31}, {32, 31}, {40, 31}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.len);
        std::string text(c.len, 'q');
        const char *p = text.c_str();
        Rec r = filled(72);
        uint64_t mask = 0;
        uint32_t mask3 = 0xdeadbeef;
        construct_aaa_role_entity(r.data(), &mask, &mask3, &p, nullptr, nullptr, nullptr);
        EXPECT_TRUE(mask == 1u && mask3 == 0u);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&r[0])), std::string(c.copied, 'q'));
        EXPECT_EQ(r[c.copied], 0);
        EXPECT_TRUE(untouched(r, c.copied + 1, 72));
    }
}

// A given text or pointer field with a null inner pointer sets its bit and leaves its bytes; a
// pointer field copies its whole width, NUL bytes and all, also when both mask pointers are null.
TEST(PackerText, KeptNullInnerPointerSetsTheBitAndLeavesTheBytes) {
    Rec r = filled(72);
    const char *none = nullptr;
    uint64_t mask = 0;
    construct_aaa_role_entity(r.data(), &mask, nullptr, &none, nullptr, nullptr, &none);
    EXPECT_EQ(mask, (1ull << 0) | (1ull << 3));
    EXPECT_TRUE(untouched(r, 0, 72));

    Rec g = filled(64);
    void *nothing = nullptr;
    mask = 0;
    construct_aaa_server_reg_group_entity(g.data(), &mask, nullptr, &nothing);
    EXPECT_EQ(mask, 1u);
    EXPECT_TRUE(untouched(g, 0, 64));

    unsigned char block[64];
    for (int i = 0; i < 64; ++i)
        block[i] = static_cast<unsigned char>(i == 3 ? 0 : i + 1);
    void *p = block;
    EXPECT_EQ(construct_aaa_server_reg_group_entity(g.data(), nullptr, nullptr, &p), 64u);
    EXPECT_EQ(0, std::memcmp(g.data(), block, 64));
}

// _new_index is _index under a second name; the index is the entity's key fields alone (all objects below).
TEST(PackerIndex, NewIndexIsTheIndex) {
    uint32_t id = 42;
    const char *user = "bob", *group = "g";
    unsigned char mac[6] = {9, 8, 7, 6, 5, 4};
    Rec i = filled(92), n = filled(92);
    uint64_t mi = 0, mn = 0;
    uint32_t i3 = 1, n3 = 1;
    EXPECT_EQ(construct_aaa_user_bind_index(i.data(), &mi, &i3, &id, &user, mac, &group), 92u);
    EXPECT_EQ(construct_aaa_user_bind_new_index(n.data(), &mn, &n3, &id, &user, mac, &group), 92u);
    EXPECT_EQ(i, n);
    EXPECT_TRUE(mi == 0xfull && mn == mi && i3 == 0u && n3 == 0u);
}

// Packs every object with every field given and compares the bytes with the
// catalogue's offsets and widths, fields applied in order (a placed field may
// cover an earlier one); gaps keep the buffer's bytes.
TEST(PackerAllObjects, EveryFieldLandsWhereTheCatalogueSays) {
    size_t checked = 0;
    for (uint32_t n = 0; n < libmgmt_object_count(); ++n) {
        const libmgmt_object *o = libmgmt_object_at(n);
        SCOPED_TRACE(o->name);
        std::vector<Rec> values(o->field_count);
        std::vector<std::string> texts(o->field_count);
        std::vector<const void *> inner(o->field_count);
        std::vector<void *> args(o->field_count);
        for (size_t k = 0; k < o->field_count; ++k) {
            const libmgmt_field &f = o->fields[k];
            ASSERT_LE(f.offset + f.width, o->entity_len);
            ASSERT_EQ(f.offset % f.align, 0u);
            if (f.kind == LIBMGMT_FIELD_TEXT) {
                texts[k] = std::string(f.width + 3, static_cast<char>('a' + k % 26));
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
                    std::memset(&want[f.offset], texts[k][0], f.width - 1);
                    want[f.offset + f.width - 1] = 0;
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
        EXPECT_EQ(mask, low_bits(o->field_count));
        EXPECT_EQ(mask3, o->field_count > 64 ? uint32_t(low_bits(o->field_count - 64)) : 0u);
        if (o->pack_index) {
            Rec idx = filled(o->entity_len + 16);
            uint64_t mi = 0;
            ASSERT_LE(o->index_len, o->entity_len);
            ASSERT_EQ(o->pack_index(idx.data(), &mi, nullptr, args.data()), o->index_len);
            EXPECT_EQ(mi, low_bits(o->index_count));
            ASSERT_EQ(idx, image(o->index_count));
        }
        ++checked;
    }
    EXPECT_EQ(checked, 2415u);
}

} // namespace
