// Record packers: exact layouts of telling records, mask bits, text and
// pointer fields, and every object's packer against its catalogue entry.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "mgmt/objects.h"

namespace {

using Rec = std::vector<unsigned char>;

constexpr unsigned char kFill = 0xAA;

Rec filled(size_t n) { return Rec(n, kFill); }

uint16_t load16(const unsigned char *p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
uint32_t load32(const unsigned char *p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
bool untouched(const Rec &r, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i)
        if (r[i] != kFill) return false;
    return true;
}

// Calls a packer of any arity with its field arguments taken from an array.
template <typename Fn, size_t... I>
uint32_t call_with(Fn fn, void *rec, uint64_t *m, uint32_t *m3, void *const *a, std::index_sequence<I...>) {
    return fn(rec, m, m3, a[I]...);
}
template <size_t N, typename Fn>
uint32_t call(Fn fn, void *rec, uint64_t *m, uint32_t *m3, const std::vector<void *> &a) {
    EXPECT_EQ(a.size(), N);
    return call_with(fn, rec, m, m3, a.data(), std::make_index_sequence<N>{});
}

// ------------------------------------------------------------ telling records

struct Telling {
    const char *name;
    uint32_t entity_len;
    uint32_t index_len; // 0: no index
    uint16_t fields;
};

TEST(PackerLayout, TellingRecordsHaveTheirExactLengths) {
    const Telling rows[] = {
        {"aaa_role", 72, 36, 4},
        {"aaa_role_mapping_user_attribute", 44, 40, 4},
        {"aaa_server_reg_group", 64, 64, 1},
        {"aaa_user_bind", 212, 92, 12},
        {"bfd_echoinfo", 24, 0, 2},
        {"addrbook_addr_ipv6_rng", 40, 40, 3},
        {"addrbook_addr_refence", 40960, 0, 10},
        {"routed_vr_ospf_if", 248, 32, 28},
        {"if_if", 0, 32, 96},
    };
    for (const Telling &t : rows) {
        SCOPED_TRACE(t.name);
        const libmgmt_object *o = libmgmt_object_find(t.name);
        ASSERT_NE(o, nullptr);
        if (t.entity_len) {
            EXPECT_EQ(o->entity_len, t.entity_len);
        }
        EXPECT_EQ(o->index_len, t.index_len);
        EXPECT_EQ(o->index_count != 0, t.index_len != 0);
        EXPECT_EQ(o->field_count, t.fields);
    }
}

TEST(PackerLayout, UserBindKeepsItsGapAndPlacedField) {
    Rec r = filled(220);
    uint32_t id = 0x11223344, a = 1, b = 2, c = 3, d = 4, e = 5;
    const char *user = "alice", *group = "staff", *t1 = "x", *t2 = "y";
    unsigned char mac[6] = {1, 2, 3, 4, 5, 6};
    uint16_t vlan = 0x5566;
    uint64_t mask = ~0ull;
    uint32_t mask3 = ~0u;
    uint32_t len = construct_aaa_user_bind_entity(r.data(), &mask, &mask3, &id, &user, mac, &group, &vlan, &a, &b, &c,
                                                  &t1, &t2, &d, &e);
    EXPECT_EQ(len, 212u);
    EXPECT_EQ(mask, 0xfffull);
    EXPECT_EQ(mask3, 0u);
    EXPECT_EQ(load32(&r[0]), id);
    EXPECT_STREQ(reinterpret_cast<char *>(&r[4]), "alice");
    EXPECT_TRUE(untouched(r, 10, 52)) << "text copies stop at the terminator";
    EXPECT_EQ(0, std::memcmp(&r[52], mac, 6));
    EXPECT_STREQ(reinterpret_cast<char *>(&r[58]), "staff");
    EXPECT_TRUE(untouched(r, 90, 92)) << "the gap before the placed u16";
    EXPECT_EQ(load16(&r[92]), vlan);
    EXPECT_TRUE(untouched(r, 94, 96));
    EXPECT_EQ(load32(&r[96]), 1u);
    EXPECT_EQ(load32(&r[100]), 2u);
    EXPECT_EQ(load32(&r[104]), 3u);
    EXPECT_STREQ(reinterpret_cast<char *>(&r[108]), "x");
    EXPECT_STREQ(reinterpret_cast<char *>(&r[140]), "y");
    EXPECT_EQ(load32(&r[204]), 4u);
    EXPECT_EQ(load32(&r[208]), 5u);
    EXPECT_TRUE(untouched(r, 212, 220)) << "nothing beyond the record";
}

TEST(PackerLayout, RoleAndMappingOffsets) {
    Rec r = filled(72);
    const char *name = "admin", *desc = "d";
    uint32_t x = 7, y = 9;
    uint64_t mask = 0;
    EXPECT_EQ(construct_aaa_role_entity(r.data(), &mask, nullptr, &name, &x, &y, &desc), 72u);
    EXPECT_EQ(mask, 0xfull);
    EXPECT_STREQ(reinterpret_cast<char *>(&r[0]), "admin");
    EXPECT_EQ(load32(&r[32]), 7u);
    EXPECT_EQ(load32(&r[36]), 9u);
    EXPECT_STREQ(reinterpret_cast<char *>(&r[40]), "d");

    Rec m = filled(44);
    uint32_t w[3] = {10, 11, 12};
    EXPECT_EQ(construct_aaa_role_mapping_user_attribute_entity(m.data(), &mask, nullptr, &name, &w[0], &w[1], &w[2]),
              44u);
    EXPECT_EQ(load32(&m[32]), 10u);
    EXPECT_EQ(load32(&m[36]), 11u);
    EXPECT_EQ(load32(&m[40]), 12u);
}

TEST(PackerLayout, Ipv6AddressesAlignToEight) {
    Rec r = filled(24);
    uint32_t ifx = 3;
    unsigned char addr[16];
    for (int i = 0; i < 16; ++i)
        addr[i] = static_cast<unsigned char>(0x10 + i);
    EXPECT_EQ(construct_bfd_echoinfo_entity(r.data(), nullptr, nullptr, &ifx, addr), 24u);
    EXPECT_EQ(load32(&r[0]), 3u);
    EXPECT_TRUE(untouched(r, 4, 8));
    EXPECT_EQ(0, std::memcmp(&r[8], addr, 16));

    Rec q = filled(40);
    unsigned char lo[16] = {1}, hi[16] = {2};
    uint32_t vr = 0xabcdef01;
    EXPECT_EQ(construct_addrbook_addr_ipv6_rng_entity(q.data(), nullptr, nullptr, lo, hi, &vr), 40u);
    EXPECT_EQ(q[0], 1);
    EXPECT_EQ(q[16], 2);
    EXPECT_EQ(load32(&q[32]), vr);
    EXPECT_TRUE(untouched(q, 36, 40));
}

TEST(PackerLayout, PlacedFieldOverlappingAnEarlierOneWins) {
    const libmgmt_object *o = libmgmt_object_find("aaa_admin_user");
    ASSERT_NE(o, nullptr);
    ASSERT_EQ(o->field_count, 21);
    EXPECT_EQ(o->fields[7].kind, LIBMGMT_FIELD_REF);
    EXPECT_EQ(o->fields[7].offset, 0u);
    EXPECT_EQ(o->fields[7].width, 4u);
    EXPECT_EQ(o->fields[8].offset, 148u);
    EXPECT_EQ(o->fields[9].offset, 152u);
    EXPECT_EQ(o->entity_len, 1460u);

    Rec r = filled(o->entity_len);
    const char *name = "alice";
    unsigned char word[4] = {0xde, 0xad, 0xbe, 0xef};
    void *wp = word;
    uint32_t placed = 77;
    std::vector<void *> a(21, nullptr);
    a[0] = &name;
    a[7] = &wp;
    a[8] = &placed;
    uint64_t mask = 0;
    EXPECT_EQ(call<21>(construct_aaa_admin_user_entity, r.data(), &mask, nullptr, a), 1460u);
    EXPECT_EQ(mask, (1ull << 0) | (1ull << 7) | (1ull << 8));
    EXPECT_EQ(0, std::memcmp(&r[0], word, 4)) << "the later field's bytes stand at offset 0";
    EXPECT_EQ(r[4], 'e');
    EXPECT_EQ(r[5], 0);
    EXPECT_EQ(load32(&r[148]), 77u);
}

TEST(PackerLayout, LongestRecordAndStatedLength) {
    const libmgmt_object *o = libmgmt_object_find("addrbook_addr_refence");
    ASSERT_NE(o, nullptr);
    Rec r = filled(40960 + 16);
    std::string last(5000, 'z');
    const char *p = last.c_str();
    std::vector<void *> a(10, nullptr);
    a[9] = &p;
    EXPECT_EQ(call<10>(construct_addrbook_addr_refence_entity, r.data(), nullptr, nullptr, a), 40960u);
    EXPECT_EQ(r[9 * 4096], 'z');
    EXPECT_EQ(r[9 * 4096 + 4094], 'z');
    EXPECT_EQ(r[9 * 4096 + 4095], 0) << "cut at 4095 bytes and terminated";
    EXPECT_TRUE(untouched(r, 40960, r.size()));

    const libmgmt_object *ospf = libmgmt_object_find("routed_vr_ospf_if");
    ASSERT_NE(ospf, nullptr);
    EXPECT_EQ(ospf->flags & LIBMGMT_OBJ_SIZED, LIBMGMT_OBJ_SIZED);
    std::vector<void *> none(28, nullptr);
    Rec s = filled(248);
    EXPECT_EQ(call<28>(construct_routed_vr_ospf_if_entity, s.data(), nullptr, nullptr, none), 248u);
}

// ------------------------------------------------------------ masks

TEST(PackerMask, BitsZeroSixtyThreeSixtyFourNinetyFive) {
    const libmgmt_object *o = libmgmt_object_find("if_if");
    ASSERT_NE(o, nullptr);
    ASSERT_EQ(o->field_count, 96);
    static unsigned char zeros[64] = {}; // text and pointer fields read a null pointer from here
    Rec r = filled(o->entity_len);
    struct Case {
        size_t field;
        uint64_t mask;
        uint32_t mask3;
    } cases[] = {{0, 1ull, 0}, {63, 1ull << 63, 0}, {64, 0, 1u}, {95, 0, 0x80000000u}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.field);
        std::vector<void *> a(96, nullptr);
        a[c.field] = zeros;
        uint64_t mask = ~0ull;
        uint32_t mask3 = ~0u;
        EXPECT_EQ(call<96>(construct_if_if_entity, r.data(), &mask, &mask3, a), o->entity_len);
        EXPECT_EQ(mask, c.mask);
        EXPECT_EQ(mask3, c.mask3);
    }
    std::vector<void *> all(96, zeros);
    uint64_t mask = 0;
    uint32_t mask3 = 0;
    call<96>(construct_if_if_entity, r.data(), &mask, &mask3, all);
    EXPECT_EQ(mask, ~0ull);
    EXPECT_EQ(mask3, ~0u);
}

TEST(PackerMask, AllNullLeavesRecordAndMasksEmpty) {
    const libmgmt_object *o = libmgmt_object_find("aaa_server");
    ASSERT_NE(o, nullptr);
    ASSERT_GT(o->field_count, 64);
    Rec r = filled(o->entity_len + 8);
    std::vector<void *> none(o->field_count, nullptr);
    uint64_t mask = ~0ull;
    uint32_t mask3 = ~0u;
    EXPECT_EQ(o->pack_entity(r.data(), &mask, &mask3, none.data()), o->entity_len);
    EXPECT_EQ(mask, 0u);
    EXPECT_EQ(mask3, 0u);
    EXPECT_TRUE(untouched(r, 0, r.size()));
}

TEST(PackerMask, NarrowObjectsStoreZeroInTheThirdWord) {
    Rec r = filled(72);
    const char *name = "x";
    uint64_t mask = 0;
    uint32_t mask3 = 0xdeadbeef;
    construct_aaa_role_entity(r.data(), &mask, &mask3, &name, nullptr, nullptr, nullptr);
    EXPECT_EQ(mask, 1u);
    EXPECT_EQ(mask3, 0u);
}

TEST(PackerMask, NullMaskPointersStillPack) {
    Rec r = filled(72);
    uint32_t x = 0x01020304;
    EXPECT_EQ(construct_aaa_role_entity(r.data(), nullptr, nullptr, nullptr, &x, nullptr, nullptr), 72u);
    EXPECT_EQ(load32(&r[32]), x);
}

// ------------------------------------------------------------ text and pointer fields

TEST(PackerText, TruncationAndTerminator) {
    struct Case {
        size_t len;
        size_t copied;
    } cases[] = {{0, 0}, {31, 31}, {32, 31}, {40, 31}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.len);
        std::string text(c.len, 'q');
        const char *p = text.c_str();
        Rec r = filled(72);
        uint64_t mask = 0;
        construct_aaa_role_entity(r.data(), &mask, nullptr, &p, nullptr, nullptr, nullptr);
        EXPECT_EQ(mask, 1u);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&r[0])), std::string(c.copied, 'q'));
        EXPECT_EQ(r[c.copied], 0);
        EXPECT_TRUE(untouched(r, 32, 72)) << "the text stays inside its 32 bytes";
    }
}

TEST(PackerText, NullInnerPointerSetsTheBitAndLeavesBytes) {
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
}

TEST(PackerText, PointerFieldCopiesWholeWidth) {
    unsigned char block[64];
    for (int i = 0; i < 64; ++i)
        block[i] = static_cast<unsigned char>(i == 3 ? 0 : i + 1); // a NUL inside
    void *p = block;
    Rec g = filled(64);
    EXPECT_EQ(construct_aaa_server_reg_group_entity(g.data(), nullptr, nullptr, &p), 64u);
    EXPECT_EQ(0, std::memcmp(g.data(), block, 64));
}

// ------------------------------------------------------------ index packers

TEST(PackerIndex, IndexIsTheEntityWithKeysOnly) {
    uint32_t id = 42;
    const char *user = "bob", *group = "g";
    unsigned char mac[6] = {9, 8, 7, 6, 5, 4};
    Rec e = filled(212), i = filled(212), n = filled(212);
    uint64_t me = 0, mi = 0, mn = 0;
    uint32_t e3 = 1, i3 = 1, n3 = 1;
    EXPECT_EQ(construct_aaa_user_bind_entity(e.data(), &me, &e3, &id, &user, mac, &group, nullptr, nullptr, nullptr,
                                             nullptr, nullptr, nullptr, nullptr, nullptr),
              212u);
    EXPECT_EQ(construct_aaa_user_bind_index(i.data(), &mi, &i3, &id, &user, mac, &group), 92u);
    EXPECT_EQ(construct_aaa_user_bind_new_index(n.data(), &mn, &n3, &id, &user, mac, &group), 92u);
    EXPECT_EQ(e, i);
    EXPECT_EQ(i, n);
    EXPECT_EQ(me, 0xfull);
    EXPECT_EQ(mi, me);
    EXPECT_EQ(mn, me);
    EXPECT_EQ(i3, 0u);
    EXPECT_EQ(n3, 0u);
}

// ------------------------------------------------------------ every object

// Packs every object with every field given and compares the bytes with the
// catalogue's offsets and widths, fields applied in order (a placed field may
// cover an earlier one).
TEST(PackerAllObjects, EveryFieldLandsWhereTheCatalogueSays) {
    size_t checked = 0;
    for (uint32_t n = 0; n < libmgmt_object_count(); ++n) {
        const libmgmt_object *o = libmgmt_object_at(n);
        ASSERT_NE(o, nullptr);
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
        Rec got = filled(o->entity_len + 16);
        uint64_t mask = 0;
        uint32_t mask3 = 0;
        ASSERT_EQ(o->pack_entity(got.data(), &mask, &mask3, args.data()), o->entity_len);
        ASSERT_EQ(got, image(o->field_count));
        const size_t low = std::min<size_t>(o->field_count, 64);
        EXPECT_EQ(mask, low == 64 ? ~0ull : (1ull << low) - 1);
        EXPECT_EQ(mask3, o->field_count > 64 ? (o->field_count == 96 ? ~0u : (1u << (o->field_count - 64)) - 1) : 0u);
        if (o->pack_index) {
            Rec idx = filled(o->entity_len + 16);
            uint64_t mi = 0;
            ASSERT_LE(o->index_len, o->entity_len);
            ASSERT_EQ(o->pack_index(idx.data(), &mi, nullptr, args.data()), o->index_len);
            EXPECT_EQ(mi, o->index_count == 64 ? ~0ull : (1ull << o->index_count) - 1);
            ASSERT_EQ(idx, image(o->index_count));
        }
        ++checked;
    }
    EXPECT_EQ(checked, 2415u);
}

} // namespace
