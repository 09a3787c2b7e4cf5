// Object stubs end to end: a front end thread calls final_set_, final_get_ and
// final_exec_ stubs; a test manager (application 2) and test applications
// answer over the platform IPC and keep the bytes they received.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "mgmt/objects.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

using Words = std::vector<uint32_t>;

// n big-endian header words from offset off on.
Words words(const Bytes &m, size_t off, size_t n) {
    Words w;
    for (size_t i = 0; i < n; ++i) w.push_back(be32(&m[off + 4 * i]));
    return w;
}

// The body of the segment whose head stands at offset at.
Bytes seg_body(const Bytes &m, size_t at) {
    const uint8_t *b = mgmt::seg_body(&m[at]);
    return Bytes(b, b + mgmt::seg_len(&m[at]));
}


// Runs fn on a front end thread (application 5) with a freshly initialised request context.
void front_end(const std::function<void(mgiInfo &)> &fn) {
    run_as(5, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        fn(info);
    });
}

// The entity record that these arguments make in a zeroed buffer.
Bytes entity(const libmgmt_object *o, const std::vector<void *> &args) {
    Bytes rec(o->entity_len, 0);
    o->pack_entity(rec.data(), nullptr, nullptr, args.data());
    return rec;
}

// First bytes of the records handed to the callback of the road through the manager.
Bytes g_records;
int set_cb(void *record) { return g_records.push_back(*static_cast<uint8_t *>(record)), 0; }

// Data handed to the callback of the direct road.
int direct_cb(void *data, uint32_t *dl, void *, uint32_t *, void *, uint32_t *, void *ud) {
    auto *p = static_cast<uint8_t *>(data);
    static_cast<std::vector<Bytes> *>(ud)->push_back(p ? Bytes(p, p + *dl) : Bytes{});
    return 0;
}

class Stubs : public ::testing::Test {
  protected:
    void SetUp() override {
        set_mgi_info_from(0);
        set_mgi_transaction_id(0);
        g_records.clear();
    }
    // The manager or an application, answering each request as its road expects: a set (header
    // offset MGI_NO_MORE) with a final message of rows_, any other with text_ in segment 134.
    TestPeer &peer(uint32_t app) {
        std::unique_ptr<TestPeer> &p = peers_[app];
        if (!p) {
            p = std::make_unique<TestPeer>(app);
            EXPECT_TRUE(p->ok()) << app;
            p->handle(MGI_IPC_MSG, [this](const Received &r) {
                if (be32(&r.bytes[MGI_OFF_OFFSET]) == MGI_NO_MORE)
                    return std::vector<Answer>{{mgi_record_message(MGI_RSP_FINAL, rows_), 0, false}};
                Bytes answer = mgi_message(MGI_RSP_FINAL, {Seg{MGI_SEG_UDCDATA, bytes_of(text_)}});
                return std::vector<Answer>{{answer, 0, true}};
            });
        }
        return *p;
    }
    // Message n (from 1) that app received.
    Bytes sent_to(uint32_t app, size_t n = 1) {
        EXPECT_TRUE(peer(app).wait_for(n)) << app;
        auto got = peer(app).received();
        return got.size() >= n ? got[n - 1].bytes : Bytes(MGI_MAX_LEN, 0);
    }
    bool nothing_to(uint32_t app) { return peer(app).received().empty(); }

    Bytes rows_;
    std::string text_;
    std::map<uint32_t, std::unique_ptr<TestPeer>> peers_; // last: ends before what it answers with
};

// Field 0 (s32) is mask1 bit 0, field 40 (u32) mask2 bit 8, field 70 (u64) bit 6 of the third word.
TEST_F(Stubs, KeptSetGoesToTheManagerWithTheHighHalfInMaskFiveAndNothingInMaskFour) {
    const libmgmt_object *o = libmgmt_object_find("if_if");
    ASSERT_NE(o, nullptr);
    peer(MGD_APPID);
    peer(o->owner);
    rows_.assign(2 * o->entity_len, 0);
    rows_[0] = 0x31;
    rows_[o->entity_len] = 0x32;
    const char *name = "eth0";
    uint32_t f40 = 0x5a5a5a5a;
    uint64_t f70 = 0x6b6b6b6b6b6b6b6bull;
    std::vector<void *> args(o->field_count);
    std::tie(args[0], args[40], args[70]) = std::make_tuple(&name, &f40, &f70);
    front_end([&](mgiInfo &info) {
        mgi_set_rqt_type(&info, 3);
        mgi_set_rqt_nextseg(&info, MGI_SEG_UDCDATA); // not sent: a set sends rqt_firstseg
        const std::pair<uint32_t *, uint32_t> masks[] = {{&info.rqt_mask1, 0x100000}, {&info.rqt_mask2, 0x1},
            {&info.rqt_mask3, 0x80000000}, {&info.rqt_mask4, 0x40}, {&info.rqt_mask5, 0x2}, {&info.rqt_mask6, 0x6}};
        for (auto [field, value] : masks) *field = value;
        std::copy(args.begin(), args.end(), info.rqt_item);
        EXPECT_EQ(final_set_if_if(&info, set_cb), 0);
        EXPECT_TRUE(info.mgidata == info.mgi_buf->sbuf + MGI_HDR_LEN && info.mgidata_len == o->entity_len);
    });
    const Bytes m = sent_to(MGD_APPID);
    EXPECT_TRUE(nothing_to(o->owner)) << "every set goes to the manager";
    expect_fields(m.data(), {{hdr::nextseg, 0}, {hdr::type, 3}, {hdr::len, o->entity_len},
                                        {hdr::offset, MGI_NO_MORE}, {MGI_OFF_TARGET, 4, 0x30001}, {96 - 4, 4, 0},
                                        {hdr::mask1, 0x100000 | 0x1}, {hdr::mask2, 0x1 | 0x100},
                                        {hdr::mask3, 0x80000000 | 0x40}, {hdr::mask4, 0x40},
                                        {hdr::mask5, 0x2 | 0x100}, {hdr::mask6, 0x6}});
    EXPECT_EQ(Bytes(m.begin() + MGI_HDR_LEN, m.end()), entity(o, args)); // the set clears the buffers before packing
    EXPECT_EQ(g_records, (Bytes{0x31, 0x32})) << "the answer comes back in records of the entity's length";
}

// A record already in mgidata goes out as it stands, with the mask words of the context.
TEST_F(Stubs, ARecordInMgidataIsSentAsItStands) {
    peer(MGD_APPID);
    unsigned char ready[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const char *ignored = "not packed";
    front_end([&](mgiInfo &info) {
        info.rqt_mask2 = 0x11;
        info.rqt_item[0] = &ignored;
        info.mgidata = ready;
        info.mgidata_len = sizeof ready;
        EXPECT_EQ(final_set_aaa_role(&info, nullptr), 0);
    });
    const Bytes m = sent_to(MGD_APPID);
    EXPECT_EQ(Bytes(m.begin() + MGI_HDR_LEN, m.end()), Bytes(ready, ready + sizeof ready));
    EXPECT_EQ(words(m, MGI_OFF_MASK1, 2), (Words{0, 0x11})) << "no packer ran: the stub's own mask stays 0";
}

// The get goes to the owner with the parents' index records ahead of its own (a set packs them
// the same way); only the exact value 1 of whether_full_entity packs the entity, 0 and 2 the index;
// type 30 goes to the manager instead.
TEST_F(Stubs, GetOfNestedObjectGoesStraightToTheOwner) {
    const libmgmt_object *o = libmgmt_object_find("routed_vr_bgp_neighbor");
    ASSERT_NE(o, nullptr);
    peer(MGD_APPID);
    peer(o->owner);
    text_ = "row-1";
    const char *router = "vr-main";
    uint32_t asn = 65001, id = 3, port = 179, extra = 0xabcd;
    unsigned char addr[16] = {0x20, 0x01, 0x0d, 0xb8};
    void *slots[] = {&router, &asn, &id, addr, &port, &extra}; // the parents' keys, then the neighbour's fields
    Bytes want(32 + 4 + 32, 0xEE);
    construct_vr_vr_index(want.data(), nullptr, nullptr, &router);
    construct_routed_vr_bgp_index(want.data() + 32, nullptr, nullptr, &asn);
    construct_routed_vr_bgp_neighbor_index(want.data() + 36, nullptr, nullptr, &id, addr, &port);
    std::vector<Bytes> calls;
    front_end([&](mgiInfo &info) {
        std::memset(info.mgi_buf->sbuf, 0xEE, MGI_MAX_LEN);
        mgi_set_rqt_type(&info, 1);
        std::tie(info.rqt_offset, info.rqt_aux, info.rqt_mask1, info.rqt_mask2, info.rqt_mask3) =
            std::make_tuple(0x10u, 0x77u, 0x1000u, 0x2u, 0x3u);
        for (int i = 0; i < 9; ++i) info.rqt_xmask[i] = 0x100u + i;
        mgi_set_rqt_ruledata_subtype(&info, 0x1234);
        std::copy(slots, slots + 6, info.rqt_item);
        EXPECT_EQ(final_get_routed_vr_bgp_neighbor(&info, direct_cb, &calls), 0);
    });
    const Bytes m = sent_to(o->owner);
    EXPECT_TRUE(nothing_to(MGD_APPID)) << "a get does not pass through the manager";
    EXPECT_EQ(words(m, MGI_OFF_TARGET, 4), (Words{0x4f0001, 0x20401, 0x2041d, 0}));
    // The mask words carry the neighbour's three key fields; the xmask words go unchanged.
    expect_fields(m.data(), {{hdr::type, 1}, {hdr::offset, 0x10}, {hdr::rqt_aux, 0x77},
                                        {hdr::nextseg, MGI_SEG_RULEDATA}, {MGI_HDR_LEN + 4, 4, 0x1234},
                                        {hdr::mask1, 0x1000 | 0x7}, {hdr::mask2, 0x2}, {hdr::mask3, 0x3}});
    EXPECT_EQ(words(m, MGI_OFF_XMASK1, 6), (Words{0x100, 0x101, 0x102, 0x103, 0x104, 0x105}));
    EXPECT_EQ(words(m, MGI_OFF_XMASK7, 3), (Words{0x106, 0x107, 0x108}));
    EXPECT_EQ(seg_body(m, MGI_HDR_LEN), want);
    EXPECT_EQ(calls, std::vector<Bytes>{bytes_of("row-1")});

    // Rows: whether_full_entity, the length of the own record and the mask it gives.
    size_t n = 1;
    for (auto [full, own_len, mask] : {std::tuple<uint8_t, uint32_t, uint32_t>{1, o->entity_len, 0xf},
                                       {2, o->index_len, 0x7}}) {
        front_end([&](mgiInfo &info) {
            mgi_set_whether_full_entity(&info, full);
            std::copy(slots, slots + 6, info.rqt_item);
            EXPECT_EQ(final_get_routed_vr_bgp_neighbor(&info, nullptr, nullptr), 0);
        });
        const Bytes r = sent_to(o->owner, ++n);
        EXPECT_TRUE(seg_body(r, MGI_HDR_LEN).size() == 36 + own_len && be32(&r[MGI_OFF_MASK1]) == mask) << int(full);
    }
    // A get of type 30 goes to the manager whoever owns the object.
    text_ = "from-mgd";
    front_end([&](mgiInfo &info) {
        mgi_set_rqt_type(&info, MGI_RQT_MGD_GET);
        EXPECT_EQ(final_get_routed_vr_bgp_neighbor(&info, direct_cb, &calls), 0);
    });
    expect_fields(sent_to(MGD_APPID).data(), {{hdr::type, MGI_RQT_MGD_GET}, {MGI_OFF_TARGET, 4, 0x4f0001}});
    EXPECT_EQ(calls.back(), bytes_of("from-mgd"));
    EXPECT_FALSE(peer(o->owner).wait_for(4, 200)) << "nor to the owner";
}

// Type 31 hands back the record's place and the mask blocks; segment 134 stands ahead of the record,
// without the context's udcdata_subtype, unless its length is 0; a null caller record is left alone.
TEST_F(Stubs, KeptGetOfTypeThirtyOneSendsSegmentOneThirtyFourWithoutItsSubtype) {
    peer(11);
    const char *role = "ops";
    uint32_t scope = 4;
    char udc[] = "match";
    uint32_t first[3] = {0xdead, 0xdead, 0xdead}, second[3] = {0xbeef, 0xbeef, 0xbeef};
    mgi_match_get_record rec{nullptr, first, second};
    ptrdiff_t place = -1;
    front_end([&](mgiInfo &info) {
        mgi_set_rqt_type(&info, MGI_RQT_MATCH_GET);
        mgi_set_whether_full_entity(&info, 1);
        for (int i = 0; i < 9; ++i) info.rqt_xmask[i] = 0x10000u << i;
        info.rqt_item[0] = info.rqt_item[3] = &role;
        info.rqt_item[2] = &scope;
        mgi_set_rqt_udcdata(&info, udc, 5);
        mgi_set_rqt_udcdata_subtype(&info, 0x99);
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, &rec), 0);
        place = static_cast<unsigned char *>(rec.data) - info.mgi_buf->sbuf;
    });
    const size_t record = MGI_HDR_LEN + MGI_SEGHDR_LEN + 5;
    EXPECT_EQ(place, record + MGI_SEGHDR_LEN);
    const uint32_t lo = 0xd; // fields 0, 2 and 3 of the entity
    EXPECT_EQ(Words(first, first + 3), (Words{0x10000 | lo, 0x20000, 0x40000})) << "mask 1 to 3 with xmask 1 to 3";
    EXPECT_EQ(Words(second, second + 3), (Words{0x80000 | lo, 0x100000, 0x200000})) << "with xmask 4 to 6";
    const Bytes m = sent_to(11);
    expect_fields(m.data(), {{hdr::nextseg, MGI_SEG_UDCDATA}, {MGI_HDR_LEN, 1, MGI_SEG_RULEDATA},
                                        {MGI_HDR_LEN + 1, 1, MGI_SEG_UDCDATA}, {MGI_HDR_LEN + 4, 4, 0},
                                        {record + 1, 1, MGI_SEG_RULEDATA}});
    EXPECT_TRUE(seg_body(m, MGI_HDR_LEN) == bytes_of("match") && seg_body(m, record).size() == 72u);

    front_end([&](mgiInfo &info) {
        mgi_set_rqt_type(&info, MGI_RQT_MATCH_GET);
        mgi_set_rqt_udcdata(&info, udc, 0);
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, nullptr), 0);
    });
    EXPECT_EQ(sent_to(11, 2)[MGI_OFF_NEXTSEG], MGI_SEG_RULEDATA) << "no segment 134 for a length of 0";
}

// The udcdata leaves the whole record exactly its room, or one byte less: the data that does not fit is
// refused with a console line and nothing is sent; null contexts and pairs give -1.
TEST_F(Stubs, DataThatDoesNotFitIsRefusedAndNothingIsSent) {
    const libmgmt_object *o = libmgmt_object_find("addrbook_addr_refence");
    ASSERT_NE(o, nullptr);
    peer(o->owner);
    ConsoleCapture console;
    size_t exact = MGI_MAX_LEN - MGI_HDR_LEN - 2 * MGI_SEGHDR_LEN - o->entity_len;
    for (const libmgmt_object *p = o->parent; p; p = p->parent) exact -= p->index_len;
    std::vector<char> big(exact + 1, 'u');
    front_end([&](mgiInfo &info) {
        mgi_set_whether_full_entity(&info, 1);
        mgi_set_rqt_udcdata(&info, big.data(), static_cast<uint16_t>(exact + 1));
        EXPECT_TRUE(final_get_addrbook_addr_refence(&info, nullptr, nullptr) == -1 && !info.mgidata);
        mgi_set_rqt_udcdata(&info, big.data(), static_cast<uint16_t>(exact));
        EXPECT_EQ(final_get_addrbook_addr_refence(&info, nullptr, nullptr), 0);
        EXPECT_TRUE(final_set_aaa_role(nullptr, nullptr) == -1 && final_get_aaa_role(nullptr, nullptr, nullptr) == -1);
        info.mgi_buf = nullptr;
        EXPECT_EQ(final_exec_aaa_sync(&info, nullptr, nullptr), -1);
    });
    EXPECT_NE(console.text().find("addrbook_addr_refence"), std::string::npos) << console.text();
    EXPECT_EQ(sent_to(o->owner).size(), MGI_MAX_LEN);
    EXPECT_FALSE(peer(o->owner).wait_for(2, 200)) << "only the request that fits goes out";
}

} // namespace
