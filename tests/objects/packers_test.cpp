// Record packers: text and pointer fields with a null inner pointer, and every
// object's packer against its catalogue entry.
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
        // No field given: masks 0 and the record untouched.
        std::vector<void *> none(o->field_count, nullptr);
        Rec bare = filled(o->entity_len);
        mask = mask3 = 1;
        o->pack_entity(bare.data(), &mask, &mask3, none.data());
        EXPECT_TRUE(mask == 0 && mask3 == 0 && untouched(bare, 0, bare.size()));
        ++checked;
    }
    EXPECT_EQ(checked, 2415u);
}

} // namespace
