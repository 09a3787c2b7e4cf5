// Object stubs end to end: a front end thread calls final_set_, final_get_ and
// final_exec_ stubs; a test manager (application 2) and test applications
// answer over the platform IPC and keep the bytes they received.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgmt/objects.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

constexpr uint32_t kFrontEnd = 5;

uint32_t hdr32(const Bytes &m, size_t off) { return be32(&m[off]); }

// Argument values for the fields of an object, made from the field kinds.
class Slots {
  public:
    explicit Slots(const libmgmt_object *o)
        : o_(o), bytes_(o->field_count), text_(o->field_count), inner_(o->field_count) {}
    void give(size_t k, unsigned char v) {
        const libmgmt_field &f = o_->fields[k];
        if (f.kind == LIBMGMT_FIELD_TEXT) {
            text_[k] = std::string(f.width - 1, static_cast<char>(v));
            inner_[k] = text_[k].c_str();
        } else {
            bytes_[k].assign(f.width, v);
            inner_[k] = bytes_[k].data();
        }
        given_.push_back(k);
    }
    void *arg(size_t k) {
        if (!inner_[k]) return nullptr;
        const uint8_t kind = o_->fields[k].kind;
        return kind == LIBMGMT_FIELD_TEXT || kind == LIBMGMT_FIELD_REF ? static_cast<void *>(&inner_[k])
                                                                       : const_cast<void *>(inner_[k]);
    }
    std::vector<void *> args() {
        std::vector<void *> a(o_->field_count);
        for (size_t k = 0; k < a.size(); ++k)
            a[k] = arg(k);
        return a;
    }

  private:
    const libmgmt_object *o_;
    std::vector<Bytes> bytes_;
    std::vector<std::string> text_;
    std::vector<const void *> inner_;
    std::vector<size_t> given_;
};

// Records handed to the callback of the road through the manager.
std::vector<Bytes> g_records;
size_t g_stride = 0;
int set_cb(void *record) {
    auto *p = static_cast<uint8_t *>(record);
    g_records.emplace_back(p, p + g_stride);
    return 0;
}

struct DirectCalls {
    std::vector<Bytes> data;
};
int direct_cb(void *data, uint32_t *dl, void *, uint32_t *, void *, uint32_t *, void *ud) {
    auto *c = static_cast<DirectCalls *>(ud);
    auto *p = static_cast<uint8_t *>(data);
    c->data.push_back(p ? Bytes(p, p + *dl) : Bytes{});
    return 0;
}

// A final answer on the direct road, with data in segment 134.
std::vector<Answer> direct_answer(const std::string &text) {
    Answer a{mgi_message(MGI_RSP_FINAL, {Seg{MGI_SEG_UDCDATA, bytes_of(text)}}), 0, true};
    return {a};
}

// The record segment (133) of a direct request: its head and body.
struct RecordSeg {
    size_t head = 0;
    Bytes body;
    uint32_t subtype = 0;
};
RecordSeg record_segment(const Bytes &m) {
    RecordSeg r;
    uint8_t next = m[MGI_OFF_NEXTSEG];
    size_t at = MGI_HDR_LEN;
    while (next != MGI_SEG_END && at + MGI_SEGHDR_LEN <= m.size()) {
        const uint16_t len = be16(&m[at + 2]);
        if (m[at + 1] == MGI_SEG_RULEDATA) {
            r.head = at;
            r.body.assign(m.begin() + long(at + MGI_SEGHDR_LEN), m.begin() + long(at + MGI_SEGHDR_LEN + len));
            r.subtype = be32(&m[at + 4]);
            return r;
        }
        next = m[at];
        at += MGI_SEGHDR_LEN + len;
    }
    return r;
}

class Stubs : public ::testing::Test {
  protected:
    void SetUp() override {
        set_mgi_info_from(0);
        set_mgi_transaction_id(0);
        g_records.clear();
    }
};

// ---------------------------------------------------------------- set

TEST_F(Stubs, SetGoesToTheManagerWithItsMaskWordsAndRecord) {
    const libmgmt_object *o = libmgmt_object_find("if_if");
    ASSERT_NE(o, nullptr);
    TestPeer mgd(MGD_APPID), owner(o->owner);
    ASSERT_TRUE(mgd.ok() && owner.ok());
    Bytes rows(2 * o->entity_len, 0);
    rows[0] = 0x31;
    rows[o->entity_len] = 0x32;
    mgd.handle(MGI_IPC_MSG, [&](const Received &) {
        return std::vector<Answer>{{mgi_record_message(MGI_RSP_FINAL, rows), 0, false}};
    });
    Slots s(o);
    s.give(0, 'n');   // mask1 bit 0
    s.give(40, 0x5a); // mask2 bit 8
    s.give(70, 0x6b); // third word bit 6
    g_stride = o->entity_len;
    int rc = -9;
    bool placed = false;
    uint16_t len = 0;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 3);
        info.rqt_mask1 = 0x100000;
        info.rqt_mask2 = 0x1;
        info.rqt_mask3 = 0x80000000;
        info.rqt_mask4 = 0x40;
        info.rqt_mask5 = 0x2;
        info.rqt_mask6 = 0x6;
        auto a = s.args();
        for (size_t k = 0; k < a.size(); ++k)
            info.rqt_item[k] = a[k];
        rc = final_set_if_if(&info, set_cb);
        placed = info.mgidata == info.mgi_buf->sbuf + MGI_HDR_LEN;
        len = info.mgidata_len;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(placed);
    EXPECT_EQ(len, o->entity_len);
    ASSERT_TRUE(mgd.wait_for(1));
    EXPECT_TRUE(owner.received().empty()) << "every set goes to the manager";
    const Bytes m = mgd.received()[0].bytes;
    ASSERT_EQ(m.size(), MGI_HDR_LEN + o->entity_len);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET), 0x30001u);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET + 4), 0u);
    EXPECT_EQ(m[MGI_OFF_NEXTSEG], 0) << "rqt_firstseg: a plain record";
    EXPECT_EQ(m[MGI_OFF_TYPE], 3);
    EXPECT_EQ(be16(&m[MGI_OFF_LEN]), o->entity_len);
    EXPECT_EQ(hdr32(m, MGI_OFF_OFFSET), MGI_NO_MORE);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK1), 0x100000u | 0x1u);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK2), 0x1u | 0x100u);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK3), 0x80000000u | 0x40u);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK4), 0x40u) << "mask4 as it stands";
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK5), 0x2u | 0x100u) << "mask5 takes the high half";
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK6), 0x6u);
    Bytes want(o->entity_len, 0); // the set clears the buffers before packing
    auto a = s.args();
    o->pack_entity(want.data(), nullptr, nullptr, a.data());
    EXPECT_EQ(Bytes(m.begin() + MGI_HDR_LEN, m.end()), want);
    EXPECT_EQ(want[o->fields[40].offset], 0x5a);
    // The answer comes back in records of the entity's length.
    ASSERT_EQ(g_records.size(), 2u);
    EXPECT_EQ(g_records[0][0], 0x31);
    EXPECT_EQ(g_records[1][0], 0x32);
}

TEST_F(Stubs, SetOfNestedObjectPutsTheParentsKeyAhead) {
    TestPeer mgd(MGD_APPID);
    ASSERT_TRUE(mgd.ok());
    mgd.handle(MGI_IPC_MSG, [](const Received &) {
        return std::vector<Answer>{{mgi_record_message(MGI_RSP_FINAL, {}), 0, false}};
    });
    const char *attr = "radius", *filter = "f1", *name = "n";
    uint32_t a1 = 7, a2 = 8, kind = 9;
    uint64_t own_mask = 0;
    Bytes want(40 + 68, 0);
    construct_aaa_role_mapping_user_attribute_index(want.data(), nullptr, nullptr, &attr, &a1, &a2);
    construct_aaa_role_mapping_user_attribute_filter_entity(want.data() + 40, &own_mask, nullptr, &filter, &kind,
                                                            &name);
    int rc = -9;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        void *slots[] = {&attr, &a1, &a2, &filter, &kind, &name};
        std::memcpy(info.rqt_item, slots, sizeof slots);
        rc = final_set_aaa_role_mapping_user_attribute_filter(&info, nullptr);
    });
    EXPECT_EQ(rc, 0);
    ASSERT_TRUE(mgd.wait_for(1));
    const Bytes m = mgd.received()[0].bytes;
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET), 0xe0001u);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET + 4), 0xe0001u);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET + 8), 0u);
    EXPECT_EQ(be16(&m[MGI_OFF_LEN]), 108u);
    ASSERT_EQ(m.size(), MGI_HDR_LEN + 108);
    EXPECT_EQ(Bytes(m.begin() + MGI_HDR_LEN, m.end()), want);
    EXPECT_STREQ(reinterpret_cast<const char *>(&m[MGI_HDR_LEN]), "radius");
    EXPECT_STREQ(reinterpret_cast<const char *>(&m[MGI_HDR_LEN + 40]), "f1");
    EXPECT_EQ(own_mask, 0x7u);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK1), 0x7u) << "only the object's own record is in the mask";
}

TEST_F(Stubs, SetWithAPreparedRecordSendsItAsItStands) {
    TestPeer mgd(MGD_APPID);
    ASSERT_TRUE(mgd.ok());
    mgd.handle(MGI_IPC_MSG, [](const Received &) {
        return std::vector<Answer>{{mgi_record_message(MGI_RSP_FINAL, {}), 0, false}};
    });
    unsigned char ready[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const char *ignored = "not packed";
    void *kept = nullptr;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        info.mgidata = ready;
        info.mgidata_len = sizeof ready;
        info.rqt_item[0] = &ignored;
        info.rqt_mask2 = 0x11;
        info.rqt_mask5 = 0x22;
        EXPECT_EQ(final_set_aaa_role(&info, nullptr), 0);
        kept = info.mgidata;
    });
    EXPECT_EQ(kept, static_cast<void *>(ready));
    ASSERT_TRUE(mgd.wait_for(1));
    const Bytes m = mgd.received()[0].bytes;
    EXPECT_EQ(Bytes(m.begin() + MGI_HDR_LEN, m.end()), Bytes(ready, ready + sizeof ready));
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK1), 0u) << "no packer ran: the stub's own mask stays 0";
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK2), 0x11u);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK5), 0x22u);
}

// ---------------------------------------------------------------- get

struct NestedGet {
    const char *router = "vr-main";
    uint32_t asn = 65001, id = 3, port = 179, extra = 0xabcd;
    unsigned char addr[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    void fill(mgiInfo &info) {
        info.rqt_item[0] = &router; // vr_vr key
        info.rqt_item[1] = &asn;    // routed_vr_bgp key
        info.rqt_item[2] = &id;     // the neighbour's own fields from here
        info.rqt_item[3] = addr;
        info.rqt_item[4] = &port;
        info.rqt_item[5] = &extra;
    }
};

TEST_F(Stubs, GetOfNestedObjectGoesStraightToTheOwner) {
    const libmgmt_object *o = libmgmt_object_find("routed_vr_bgp_neighbor");
    ASSERT_NE(o, nullptr);
    TestPeer mgd(MGD_APPID), owner(o->owner);
    ASSERT_TRUE(mgd.ok() && owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer("row-1"); });
    NestedGet g;
    // Parents' keys first, root down, then the neighbour's key, each behind the other.
    Bytes want(32 + 4 + 32, 0xEE);
    construct_vr_vr_index(want.data(), nullptr, nullptr, &g.router);
    construct_routed_vr_bgp_index(want.data() + 32, nullptr, nullptr, &g.asn);
    construct_routed_vr_bgp_neighbor_index(want.data() + 36, nullptr, nullptr, &g.id, g.addr, &g.port);
    DirectCalls calls;
    int rc = -9;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        std::memset(info.mgi_buf->sbuf, 0xEE, MGI_MAX_LEN);
        mgi_set_rqt_type(&info, 1);
        info.rqt_offset = 0x10;
        info.rqt_aux = 0x77;
        info.rqt_mask1 = 0x1000;
        info.rqt_mask2 = 0x2;
        info.rqt_mask3 = 0x3;
        for (int i = 0; i < 9; ++i)
            info.rqt_xmask[i] = 0x100u + i;
        mgi_set_rqt_ruledata_subtype(&info, 0x1234);
        g.fill(info);
        rc = final_get_routed_vr_bgp_neighbor(&info, direct_cb, &calls);
    });
    EXPECT_EQ(rc, 0);
    ASSERT_TRUE(owner.wait_for(1));
    EXPECT_TRUE(mgd.received().empty()) << "a get does not pass through the manager";
    const Bytes m = owner.received()[0].bytes;
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET), 0x4f0001u);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET + 4), 0x20401u);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET + 8), 0x2041du);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET + 12), 0u);
    EXPECT_EQ(m[MGI_OFF_TYPE], 1);
    EXPECT_EQ(hdr32(m, MGI_OFF_OFFSET), 0x10u);
    EXPECT_EQ(be16(&m[MGI_OFF_RQT_AUX]), 0x77u);
    EXPECT_EQ(m[MGI_OFF_NEXTSEG], MGI_SEG_RULEDATA);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK1), 0x1000u | 0x7u) << "the neighbour's three key fields";
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK2), 0x2u);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK3), 0x3u);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(hdr32(m, MGI_OFF_XMASK1 + 4 * i), 0x100u + i);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(hdr32(m, MGI_OFF_XMASK7 + 4 * i), 0x106u + i);
    const RecordSeg seg = record_segment(m);
    EXPECT_EQ(seg.head, MGI_HDR_LEN);
    EXPECT_EQ(seg.subtype, 0x1234u);
    EXPECT_EQ(seg.body, want);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(seg.body.data())), "vr-main");
    ASSERT_EQ(calls.data.size(), 1u);
    EXPECT_EQ(calls.data[0], bytes_of("row-1"));
}

TEST_F(Stubs, GetPacksTheWholeEntityOnlyForExactlyOne) {
    const libmgmt_object *o = libmgmt_object_find("routed_vr_bgp_neighbor");
    TestPeer owner(o->owner);
    ASSERT_TRUE(owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer(""); });
    struct Case {
        uint8_t full;
        uint32_t own_len;
        uint32_t mask;
    } cases[] = {{0, o->index_len, 0x7}, {1, o->entity_len, 0xf}, {2, o->index_len, 0x7}};
    size_t n = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(int(c.full));
        NestedGet g;
        run_as(kFrontEnd, [&] {
            mgiInfo info;
            init_mgi_info(&info);
            mgi_set_whether_full_entity(&info, c.full);
            g.fill(info);
            EXPECT_EQ(final_get_routed_vr_bgp_neighbor(&info, nullptr, nullptr), 0);
            EXPECT_EQ(info.mgidata_len, 36 + c.own_len);
        });
        ASSERT_TRUE(owner.wait_for(++n));
        const Bytes m = owner.received()[n - 1].bytes;
        EXPECT_EQ(record_segment(m).body.size(), 36 + c.own_len);
        EXPECT_EQ(hdr32(m, MGI_OFF_MASK1), c.mask);
    }
}

TEST_F(Stubs, GetOfTypeThirtyGoesToTheManager) {
    TestPeer mgd(MGD_APPID), owner(11);
    ASSERT_TRUE(mgd.ok() && owner.ok());
    mgd.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer("from-mgd"); });
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer("from-owner"); });
    const char *role = "admin";
    DirectCalls calls;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, MGI_RQT_MGD_GET);
        info.rqt_item[0] = &role;
        EXPECT_EQ(final_get_aaa_role(&info, direct_cb, &calls), 0);
    });
    ASSERT_TRUE(mgd.wait_for(1));
    EXPECT_TRUE(owner.received().empty());
    const Bytes m = mgd.received()[0].bytes;
    EXPECT_EQ(m[MGI_OFF_TYPE], MGI_RQT_MGD_GET);
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET), 0xe0002u);
    EXPECT_EQ(record_segment(m).body.size(), 36u);
    ASSERT_EQ(calls.data.size(), 1u);
    EXPECT_EQ(calls.data[0], bytes_of("from-mgd"));
}

TEST_F(Stubs, ManagerObjectsAreAskedAtTheManager) {
    TestPeer mgd(MGD_APPID);
    ASSERT_TRUE(mgd.ok());
    mgd.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer("cfg"); });
    DirectCalls calls;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 1);
        EXPECT_EQ(final_get_mgmt_config_file_info_tbl(&info, direct_cb, &calls), 0);
    });
    ASSERT_TRUE(mgd.wait_for(1));
    EXPECT_EQ(hdr32(mgd.received()[0].bytes, MGI_OFF_TARGET), 0x90001u);
    ASSERT_EQ(calls.data.size(), 1u);
}

TEST_F(Stubs, GetOfTypeThirtyOneHandsBackRecordAndMasks) {
    TestPeer owner(11);
    ASSERT_TRUE(owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer(""); });
    const char *role = "ops";
    uint32_t scope = 4;
    const char udc[] = "match"; // 5 bytes: the record stands behind this segment
    uint32_t first[3] = {0xdead, 0xdead, 0xdead}, second[3] = {0xbeef, 0xbeef, 0xbeef};
    mgi_match_get_record rec{nullptr, first, second};
    ptrdiff_t place = -1;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, MGI_RQT_MATCH_GET);
        mgi_set_whether_full_entity(&info, 1);
        for (int i = 0; i < 9; ++i)
            info.rqt_xmask[i] = 0x10000u << i;
        info.rqt_item[0] = &role;
        info.rqt_item[3] = &role;
        info.rqt_item[2] = &scope;
        mgi_set_rqt_udcdata(&info, const_cast<char *>(udc), 5);
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, &rec), 0);
        place = static_cast<unsigned char *>(rec.data) - info.mgi_buf->sbuf;
    });
    EXPECT_EQ(place, MGI_HDR_LEN + MGI_SEGHDR_LEN + 5 + MGI_SEGHDR_LEN);
    const uint32_t lo = 0xd; // fields 0, 2 and 3 of the entity
    EXPECT_EQ(first[0], 0x10000u | lo);
    EXPECT_EQ(first[1], 0x20000u);
    EXPECT_EQ(first[2], 0x40000u);
    EXPECT_EQ(second[0], 0x80000u | lo);
    EXPECT_EQ(second[1], 0x100000u);
    EXPECT_EQ(second[2], 0x200000u);
    ASSERT_TRUE(owner.wait_for(1));
    const Bytes m = owner.received()[0].bytes;
    // Segment 134 first, then the record.
    EXPECT_EQ(m[MGI_OFF_NEXTSEG], MGI_SEG_UDCDATA);
    EXPECT_EQ(m[MGI_HDR_LEN + 1], MGI_SEG_UDCDATA);
    EXPECT_EQ(be16(&m[MGI_HDR_LEN + 2]), 5u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&m[MGI_HDR_LEN + 8]), 5), "match");
    EXPECT_EQ(m[MGI_HDR_LEN], MGI_SEG_RULEDATA);
    const RecordSeg seg = record_segment(m);
    EXPECT_EQ(seg.head, MGI_HDR_LEN + MGI_SEGHDR_LEN + 5);
    EXPECT_EQ(seg.body.size(), 72u);
}

TEST_F(Stubs, GetOfTypeThirtyOneWithoutRecordAndEmptyUdcdata) {
    TestPeer owner(11);
    ASSERT_TRUE(owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer(""); });
    const char udc[] = "x";
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, MGI_RQT_MATCH_GET);
        mgi_set_rqt_udcdata(&info, const_cast<char *>(udc), 0);
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, nullptr), 0);
    });
    ASSERT_TRUE(owner.wait_for(1));
    const Bytes m = owner.received()[0].bytes;
    EXPECT_EQ(m[MGI_OFF_NEXTSEG], MGI_SEG_RULEDATA) << "no segment 134 for a length of 0";
}

TEST_F(Stubs, ReusedContextSendsTheFirstRecordAgain) {
    TestPeer owner(11);
    ASSERT_TRUE(owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer(""); });
    const char *first = "first", *second = "second";
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        info.rqt_item[0] = &first;
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, nullptr), 0);
        info.rqt_item[0] = &second;
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, nullptr), 0);
    });
    ASSERT_TRUE(owner.wait_for(2));
    const auto got = owner.received();
    EXPECT_STREQ(reinterpret_cast<const char *>(record_segment(got[1].bytes).body.data()), "first");
    EXPECT_EQ(hdr32(got[1].bytes, MGI_OFF_MASK1), 0u);
}

// A paged get: the record goes out again with the cookie of a partial answer; the error of the last is readable.
TEST_F(Stubs, GetFollowsTheCookieAndLeavesTheErrorToRead) {
    TestPeer owner(11);
    ASSERT_TRUE(owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &r) {
        if (r.bytes[MGI_OFF_NEXTSEG] == MGI_SEG_RULEDATA && r.bytes[MGI_HDR_LEN] == MGI_SEG_END) {
            Answer a{mgi_message(MGI_RSP_PARTIAL,
                                 {Seg{MGI_SEG_UDCDATA, bytes_of("p1")}, Seg{MGI_SEG_COOKIE, bytes_of("c1c1c1c1")}}),
                     0, true};
            return std::vector<Answer>{a};
        }
        mgiErrBody err{-5, -6, 0, 0};
        Bytes body(reinterpret_cast<uint8_t *>(&err), reinterpret_cast<uint8_t *>(&err) + sizeof err);
        for (char c : std::string("no such role\0\0\0\0", 16))
            body.push_back(uint8_t(c));
        return std::vector<Answer>{{mgi_message(MGI_RSP_ERROR, {Seg{MGI_SEG_ERROR, body}}), 0, true}};
    });
    const char *role = "ghost";
    DirectCalls calls;
    int code = 0;
    std::string text;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        info.rqt_item[0] = &role;
        EXPECT_EQ(final_get_aaa_role(&info, direct_cb, &calls), 0) << "an error answer is not a failure of this road";
        code = mgi_get_rsp_err_code_r(info.mgi_buf);
        text = get_errString_r(info.mgi_buf);
    });
    EXPECT_EQ(code, -5);
    EXPECT_EQ(text, "no such role");
    ASSERT_TRUE(owner.wait_for(2));
    const auto got = owner.received();
    const RecordSeg first = record_segment(got[0].bytes), again = record_segment(got[1].bytes);
    EXPECT_EQ(again.body, first.body);
    EXPECT_STREQ(reinterpret_cast<const char *>(again.body.data()), "ghost");
    const size_t cookie = again.head + MGI_SEGHDR_LEN + again.body.size();
    ASSERT_GE(got[1].bytes.size(), cookie + MGI_SEGHDR_LEN + 8);
    EXPECT_EQ(got[1].bytes[cookie + 1], MGI_SEG_COOKIE);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&got[1].bytes[cookie + MGI_SEGHDR_LEN]), 8), "c1c1c1c1");
    ASSERT_EQ(calls.data.size(), 2u);
    EXPECT_EQ(calls.data[0], bytes_of("p1"));
}

// ---------------------------------------------------------------- exec

TEST_F(Stubs, ExecAlwaysPacksTheEntityAndWritesOnlyThreeMaskWords) {
    const libmgmt_object *o = libmgmt_object_find("admind_verify_password");
    ASSERT_NE(o, nullptr);
    ASSERT_EQ(o->exec != nullptr, true);
    ASSERT_LT(o->index_len, o->entity_len);
    TestPeer mgd(MGD_APPID), owner(o->owner);
    ASSERT_TRUE(mgd.ok() && owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer("done"); });
    Slots s(o);
    for (size_t k = 0; k < o->field_count; ++k)
        s.give(k, static_cast<unsigned char>('a' + k));
    auto a = s.args();
    Bytes want(o->entity_len, 0);
    o->pack_entity(want.data(), nullptr, nullptr, a.data());
    DirectCalls calls;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        init_mgi_exchange_r(info.mgi_buf);
        mgi_set_rqt_type(&info, 2);
        mgi_set_rqt_udcdata(&info, const_cast<char *>("skip"), 4);
        for (int i = 0; i < 9; ++i)
            info.rqt_xmask[i] = 0xffffffffu;
        info.rqt_mask2 = 0x5;
        for (size_t k = 0; k < a.size(); ++k)
            info.rqt_item[k] = a[k];
        EXPECT_EQ(final_exec_admind_verify_password(&info, direct_cb, &calls), 0);
    });
    ASSERT_TRUE(owner.wait_for(1));
    EXPECT_TRUE(mgd.received().empty());
    const Bytes m = owner.received()[0].bytes;
    EXPECT_EQ(hdr32(m, MGI_OFF_TARGET), 0x1c0022u);
    EXPECT_EQ(m[MGI_OFF_NEXTSEG], MGI_SEG_RULEDATA) << "an exec sends no udcdata";
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK1), (1u << o->field_count) - 1);
    EXPECT_EQ(hdr32(m, MGI_OFF_MASK2), 0x5u);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(hdr32(m, MGI_OFF_XMASK1 + 4 * i), 0u) << "xmask is the get stubs' only";
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(hdr32(m, MGI_OFF_XMASK7 + 4 * i), 0u);
    EXPECT_EQ(record_segment(m).body, want);
    ASSERT_EQ(calls.data.size(), 1u);
    EXPECT_EQ(calls.data[0], bytes_of("done"));
}

// ---------------------------------------------------------------- what cannot be sent

TEST_F(Stubs, DataThatDoesNotFitIsRefusedAndNothingIsSent) {
    TestPeer owner(1);
    ASSERT_TRUE(owner.ok());
    owner.handle(MGI_IPC_MSG, [](const Received &) { return direct_answer(""); });
    ConsoleCapture console;
    std::vector<char> big(9000, 'u');
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_whether_full_entity(&info, 1);
        mgi_set_rqt_udcdata(&info, big.data(), static_cast<uint16_t>(big.size()));
        EXPECT_EQ(final_get_addrbook_addr_refence(&info, nullptr, nullptr), -1);
        EXPECT_EQ(info.mgidata, nullptr);
        EXPECT_EQ(final_set_aaa_role(nullptr, nullptr), -1);
        EXPECT_EQ(final_get_aaa_role(nullptr, nullptr, nullptr), -1);
        info.mgi_buf = nullptr;
        EXPECT_EQ(final_exec_aaa_sync(&info, nullptr, nullptr), -1);
    });
    EXPECT_NE(console.text().find("addrbook_addr_refence"), std::string::npos) << console.text();
    EXPECT_FALSE(owner.wait_for(1, 200));
}

} // namespace
