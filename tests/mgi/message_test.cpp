// Messages both ways: target lists, segment appends, the header a requester writes, the
// request context, its pair and the thread's error, and responses read from hand-built
// chains in the receive buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <tuple>

#include "mgmt/mgi.h"
#include "faults.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

// How many words the header takes, and what stands in the ten slots afterwards (0x55: untouched).
TEST(TargetList, WordsTerminatorAndTheTenWordLimit) {
    const struct {
        std::vector<uint32_t> words; // filled up to 11 with zeros
        int max, stored;
        std::vector<uint32_t> field; // the ten slots as the header holds them afterwards
    } cases[] = {
        {{0x4f0001, 0x20401, 0x2041d}, 10, 3, {0x4f0001, 0x20401, 0x2041d, 0, 0x55555555}}, // the zero is stored too
        {{1, 2, 3}, 2, 2, {1, 2, 0x55555555}},                                         // no terminator of its own
        {{1, 2, 3}, 0, 1, {1, 0x55555555}},                                            // always one word
        {{}, 0, 0, {0, 0x55555555}},
        {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, 10, 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}}, // no room for a terminator
    };
    for (const auto &c : cases) {
        uint8_t hdr[MGI_HDR_LEN];
        std::memset(hdr, 0x55, sizeof hdr);
        std::vector<uint32_t> words(c.words);
        words.resize(11, 0);
        EXPECT_EQ(set_mgi_msg_hdr_target(hdr, words.data(), c.max), c.stored);
        for (size_t i = 0; i < c.field.size(); ++i) EXPECT_EQ(be32(hdr + 88 + 4 * i), c.field[i]) << c.stored << i;
        EXPECT_EQ(hdr[128], 0x55); // nextseg untouched
        uint32_t back[10];
        std::memset(back, 0xAA, sizeof back);
        if (c.max == 10) {
            EXPECT_EQ(get_mgi_msg_hdr_target(back, hdr), c.stored);
            std::vector<uint32_t> want(c.field); // read back up to the terminator, nothing after it
            for (auto &w : want) w = w == 0x55555555 ? 0xAAAAAAAA : w;
            EXPECT_EQ(std::vector<uint32_t>(back, back + want.size()), want);
        }
        EXPECT_EQ(get_mgi_target_len(words.data()), int(c.words.size()) > 10 ? 11 : int(c.words.size()));
    }
}

// Appending writes the link, the head and the body, unpadded; a string body is padded to eight with NULs.
TEST(Segments, AppendsLinkEachHeadAndStayInsideTheBuffer) {
    uint8_t buf[32], link = 0;
    std::memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(append_segment_with_string(&link, buf, MGI_SEG_ERROR, "12345678"), 16); // eight and the NUL: 16
    EXPECT_TRUE(link == MGI_SEG_ERROR && be16(buf + 2) == 16 && buf[8 + 15] == 0 && buf[8 + 16] == 0xEE);
    mgiBuf *b = init_mgi_r();
    ASSERT_NE(b, nullptr);
    init_mgi_exchange_r(b);
    prepare_to_append_segment_r(b);
    set_sendseg_subtype_r(b, 0x01020304);
    uint8_t a[5] = {9, 9, 9, 9, 9};
    ASSERT_EQ(append_rqt_segment_r(b, MGI_SEG_RULEDATA, a, 5), 0);
    ASSERT_EQ(append_rqt_segment_r(b, MGI_SEG_COOKIE, nullptr, 0), 0); // a segment of length 0 is legal
    expect_fields(b->sbuf, {{128, 1, MGI_SEG_RULEDATA}, {312, 1, MGI_SEG_COOKIE}, {313, 1, MGI_SEG_RULEDATA},
                            {316, 4, 0x01020304}, {312 + 13, 1, MGI_SEG_END}});
    EXPECT_EQ(b->sendseg, b->sbuf + 312 + 21);
    // Nothing is written past the end of the send buffer.
    static uint8_t big[60000];
    EXPECT_EQ(append_rqt_segment_r(b, MGI_SEG_UDCDATA, big, 50000), -1);
    EXPECT_EQ(b->sendseg_len, 21u);
    deinit_mgi_r(b);
}

TEST(Header, PrepareThroughMgdPlacesEveryFieldBigEndian) {
    mgiBuf *buf = init_mgi_r();
    ASSERT_NE(buf, nullptr);
    init_mgi_exchange_r(buf);
    set_mgi_user("operator-with-a-name-longer-than-31", 0x0a0b0c0d);
    set_mgi_ip_addr("192.0.2.17");
    set_mgi_vsysid(0x0102);
    set_mgi_login_vsysid(0x0304);
    set_mgi_transaction_id(0x42);
    _ui_language = 0x107;
    const uint32_t target[10] = {0xe0001, 0xe0002, 0};
    uint8_t record[6] = {1, 2, 3, 4, 5, 6};
    prepare_mgi_exchange_r(buf, target, 0, 77, 6, 1234, 0xbeef, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, record);
    const uint8_t *h = buf->sbuf;
    // Byte 2 is reserved (kept as the cleared buffer held it), the language the low byte of the
    // word; the offset given is ignored.
    expect_fields(h, {{hdr::mark, 8}, {2, 1, 0}, {hdr::transaction_id, 0x42}, {hdr::timeout, 96},
                      {hdr::language, 0x07}, {hdr::vsysid, 0x0102}, {hdr::user_priv, 0x0a0b0c0d},
                      {hdr::login_vsysid, 0x0304}, {88, 4, 0xe0001}, {92, 4, 0xe0002}, {96, 4, 0},
                      {hdr::nextseg, 0}, {hdr::type, 77}, {hdr::len, 6}, {hdr::offset, 0xFFFFFFFF},
                      {hdr::rqt_aux, 0xbeef}, {hdr::mgi_flag, 0}, {hdr::mask1, 0x11}, {hdr::mask2, 0x22},
                      {hdr::mask3, 0x33}, {hdr::mask4, 0x44}, {hdr::mask5, 0x55}, {hdr::mask6, 0x66}});
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(h + MGI_OFF_USER)) + " " +
                  reinterpret_cast<const char *>(h + MGI_OFF_IP_ADDR),
              "operator-with-a-name-longer-tha 192.0.2.17");
    EXPECT_EQ(0, std::memcmp(h + 312, record, 6));
    set_mgi_transaction_id(0), set_mgi_vsysid(0), set_mgi_login_vsysid(0), _ui_language = 0;

    deinit_mgi_r(buf);
    // Null pairs are ignored.
    prepare_mgi_exchange_r(nullptr, target, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, nullptr);
    prepare_mgi_exchange_direct_r(nullptr, target, 1, 0, 0, 0, 0);
    EXPECT_EQ(make_mgi_exchange_r(nullptr, nullptr, 4), -1);
    EXPECT_EQ(make_mgi_exchange_direct_r(nullptr, 11, nullptr, nullptr), -1);
}

// ---------------------------------------------------------------- the request context

// The offset's low half, the local-entity bits (1 alone means local, 3 does not) and the mask setters.
TEST(Context, OffsetLocalityAndMasks) {
    mgiInfo info;
    init_mgi_info_basic(&info);
    info.rqt_offset = 0xFFFFFFFF;
    EXPECT_EQ(get_rqt_offset(&info), 0xFFFF);
    mgi_set_whether_local_entity(&info, 0);
    const int local_for_flag3 = mgi_get_whether_local_entity(&info);
    mgi_set_whether_local_entity(&info, 1);
    EXPECT_EQ(std::make_pair(local_for_flag3, mgi_get_whether_local_entity(&info)), std::make_pair(0, 1));
    info.rsp_mask1 = 0xF0;
    EXPECT_EQ(mgi_set_rsp_mask1(&info, 3, 0), -1); // an unknown mode changes nothing
    EXPECT_EQ(mgi_set_rsp_mask1(&info, 1, 0x30), 0);
    mgi_set_rsp_mask2(&info, 2, 0x5);
    mgi_reset_rsp_mask(&info, 0x0000000100000010ull);
    EXPECT_EQ(std::make_pair(mgi_get_rsp_mask1(&info), mgi_get_rsp_mask2(&info)), std::make_pair(0x20u, 0x4u));
    mgi_set_rqt_mask1(&info, 0x1);
    mgi_set_rqt_mask2(&info, 0x80000000);
    EXPECT_EQ(get_rqt_mask(&info), 0x8000000000000001ull);
}

TEST(ThreadError, FormatsAndWarnsOnEmptyText) {
    ConsoleCapture cap;
    mgi_set_global_err_info(-100, "bad %s %d", "value", 3);
    EXPECT_STREQ(mgi_get_global_err_msg(), "bad value 3");
    mgi_set_global_err_info(5, "%s", "");
    EXPECT_EQ(cap.text(), "MGI: errmsg is NULL\n");
    mgiInfo info;
    init_mgi_info(&info); // clears the error silently
    EXPECT_EQ(mgi_get_global_err_code(), 0);
    EXPECT_EQ(cap.text(), "MGI: errmsg is NULL\n");
    std::string long_text(400, 'e');
    mgi_set_global_err_info(1, "%s", long_text.c_str());
    EXPECT_EQ(std::strlen(mgi_get_global_err_msg()), 299u);
    mgi_set_global_err_info(0, nullptr);
}

TEST(Pairs, KeptOnlyInitMakesTheThreadPairAndPlainFormsTakeItAsItStands) {
    std::thread([] {
        thread_free_mgi(); // no pair yet: nothing happens, nothing to read
        EXPECT_TRUE(get_mgi_sbuf() == nullptr && get_mgi_resp_type() == 0 && get_errString() == nullptr);
        mgiBuf *b = init_mgi_exchange(); // a fresh thread gets its pair here
        ASSERT_TRUE(b && b == global_mgi_buf);
        b->rbuf[49999] = 1;
        init_mgi_exchange();
        EXPECT_EQ(b->rbuf[49999], 0);
        thread_free_mgi();
        EXPECT_EQ(global_mgi_buf, nullptr);
    }).join();
    // A thread that ends holding the pair made for it leaves no buffer behind; a pair freed by hand
    // is not freed again at the thread's end.
    const long held = fault::ipc_buffers;
    for (int i = 0; i < 200; ++i) std::thread([] { get_global_mgi_buf(); }).join();
    std::thread([] { deinit_mgi_r(thread_init_mgi()); }).join();
    EXPECT_EQ(fault::ipc_buffers, held);
    deinit_mgi_r(nullptr);
    free_mgi_buf(nullptr);
    mgiBuf *fresh = init_mgi_exchange_r(nullptr);
    ASSERT_NE(fresh, nullptr);
    ipcmsg_free(fresh->rbuf);
    fresh->rbuf = nullptr;
    EXPECT_EQ(init_mgi_exchange_r(fresh), fresh); // the missing buffer is made again
    EXPECT_NE(fresh->rbuf, nullptr);
    free_mgi_buf(fresh);
}

TEST(Request, UdcdataGrowsInPlaceOrByCopyWithinTheLimit) {
    ConsoleCapture cap;
    mgiInfo info;
    ASSERT_EQ(mgi_init_rqt_message(&info), 0);
    auto *base = static_cast<uint8_t *>(info.udcdata);
    // Data written in place is only counted, and not measured at all.
    std::memcpy(base, "abcd", 4);
    EXPECT_EQ(mgi_update_rqt_udcdata(&info, base, 4), 0);
    static uint8_t chunk[49688];
    std::memset(chunk, 0x61, sizeof chunk);
    EXPECT_EQ(mgi_update_rqt_udcdata(&info, chunk, 49684), 0); // total 49688 fits
    EXPECT_TRUE(info.udcdata_len == 49688 && info.mgi_buf->sbuf[MGI_MAX_LEN - 1] == 0x61) << "copied to the end";
    EXPECT_EQ(cap.text(), "");
    info.udcdata_len = 4;
    EXPECT_EQ(mgi_update_rqt_udcdata(&info, chunk, 49685), -1); // 49689 does not
    EXPECT_EQ(cap.text(), "MGI: reqest data leng (49689) is incorrect\n");
    EXPECT_TRUE(info.udcdata_len == 4 && std::memcmp(base, "abcd", 4) == 0);
}

// ---------------------------------------------------------------- responses

class Response : public ::testing::Test {
  protected:
    void SetUp() override {
        buf = init_mgi_r();
        ASSERT_NE(buf, nullptr);
    }
    void TearDown() override { deinit_mgi_r(buf); }
    void load(const Bytes &m) {
        std::memset(buf->rbuf, 0, MGI_MAX_LEN);
        std::memcpy(buf->rbuf, m.data(), std::min<size_t>(m.size(), MGI_MAX_LEN));
    }
    static Bytes error_body(int32_t code, int32_t priv, const char *text) {
        Bytes b(16, 0);
        std::memcpy(b.data(), &code, 4);
        std::memcpy(b.data() + 4, &priv, 4);
        Bytes t = bytes_of(text);
        t.resize(mgmt::pad8(t.size() + 1), 0);
        b.insert(b.end(), t.begin(), t.end());
        return b;
    }
    // The body's offset in the receive buffer and its length, or {-1, 0} when not found.
    std::pair<long, uint32_t> find(uint8_t type) {
        void *body = nullptr;
        uint32_t len = 0;
        if (find_roundtrip_segment_r(buf, type, &body, &len) != 0) return {-1, 0};
        return {static_cast<uint8_t *>(body) - buf->rbuf, len};
    }
    mgiBuf *buf = nullptr;
};

TEST_F(Response, FindWalksByTheAnnouncedTypeAsFarAsTheLengthGoes) {
    load(mgi_message(15, {{134, Bytes(5, 0x34)}, {132, Bytes(24, 0x32)}, {135, error_body(-2, 9, "broken")}}));
    EXPECT_EQ(find(134), std::make_pair(320L, 5u));
    EXPECT_EQ(find(132), std::make_pair(320L + 5 + 8, 24u)); // odd bodies are not aligned
    for (uint8_t absent : {139, 128, 131}) EXPECT_EQ(find(absent).first, -1) << int(absent);
    EXPECT_EQ((std::vector<int>{mgi_get_rsp_err_code_r(buf), mgi_get_rsp_private_err_code_r(buf),
                                get_mgi_resp_type_r(buf)}),
              (std::vector<int>{-2, 9, 15}));
    EXPECT_STREQ(get_errString_r(buf), "broken");
    EXPECT_EQ(get_mgi_resp_data_r(buf), buf->rbuf + 312); // the raw payload: the first head
    // len counting only the first two segments: the walk runs out before the error; len 0: no segment at all.
    mgmt::put_be16(buf->rbuf + 130, 5 + 8 + 24 + 8);
    EXPECT_TRUE(find(135).first == -1 && find(132).first > 0 && get_errString_r(buf) == nullptr);
    mgmt::put_be16(buf->rbuf + 130, 0);
    EXPECT_EQ(find(134).first, -1);
    load(mgi_message(16, {{132, {}}}));
    EXPECT_EQ(find(132), std::make_pair(320L, 0u)); // a cookie of length 0 is found
    // The reader of data, error and cookie counts only those against len: a condition ahead of
    // the data costs nothing.
    load(mgi_message(16, {{131, Bytes(8, 1)}, {134, Bytes(8, 2)}}));
    mgmt::put_field(buf->rbuf, mgmt::hdr::len, uint16_t(8 + 8));
    void *data = nullptr, *other = nullptr;
    uint32_t data_len = 0, other_len = 0;
    record_rsp_seg_r(buf, &data, &data_len, &other, &other_len, &other, &other_len);
    EXPECT_EQ(data_len, 8u);
}

TEST_F(Response, LengthsFromTheFarSideNeverLeadOutsideTheBuffer) {
    // A chain whose segment claims far more than the buffer holds.
    Bytes m = mgi_message(16, {{134, Bytes(16, 1)}, {132, Bytes(8, 2)}});
    m[312 + 2] = 0xFF; // seglen 0xFF10
    m[130] = m[131] = 0xFF;
    load(m);
    EXPECT_EQ(find(132).first + find(134).first, -2);
    void *data, *err, *cookie;
    uint32_t dl, el, cl;
    record_rsp_seg_r(buf, &data, &dl, &err, &el, &cookie, &cl);
    EXPECT_TRUE(!data && !cookie);

    // A chain of heads that runs to the very end of the buffer and stops there.
    std::memset(buf->rbuf, 0, MGI_MAX_LEN);
    buf->rbuf[128] = 129;
    buf->rbuf[130] = buf->rbuf[131] = 0xFF;
    for (uint8_t *p = buf->rbuf + 312; p + 8 <= buf->rbuf + MGI_MAX_LEN; p += 8) p[0] = 129;
    EXPECT_EQ(find(132).first, -1);
    EXPECT_EQ(record_rsp_seg_r(buf, &data, &dl, &err, &el, &cookie, &cl), 0);

    // An error text left unterminated at the end of the buffer still ends.
    std::memset(buf->rbuf, 'A', MGI_MAX_LEN);
    uint8_t *head = buf->rbuf + 312;
    buf->rbuf[128] = 135;
    mgmt::put_be16(buf->rbuf + 130, 49680);
    head[0] = 139;
    mgmt::put_be16(head + 2, 49672); // the body runs to the last byte
    char *text = get_errString_r(buf);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::strlen(text), size_t{MGI_MAX_LEN - 312 - 8 - 16 - 1}); // cut at the last byte of the buffer
    // Data up to an error body whose words end at the buffer's very end: no room for a text.
    buf->rbuf[128] = 132;
    mgmt::put_be16(buf->rbuf + 130, 49688);
    head[0] = 135;
    head[1] = 132;
    mgmt::put_be16(head + 2, 49656); // up to byte 49976
    uint8_t *err_head = buf->rbuf + 49976;
    err_head[0] = 139;
    err_head[1] = 135;
    mgmt::put_be16(err_head + 2, 16);
    EXPECT_STREQ(get_errString_r(buf), "");
}

TEST(CommonCookie, Helpers) {
    // 12422 below 2, else 24844 >> (significant bits of the record size).
    for (auto [len, n] : {std::pair<uint64_t, uint32_t>{0, 12422}, {1, 12422}, {2, 6211}, {3, 6211}, {7, 3105},
                          {8, 1552}, {31, 776}, {44, 388}, {1ull << 40, 0}})
        EXPECT_EQ(get_mgi_rsp_data_num(len), n) << len;
    // Rows: first, last word of the cookie, and the number of requests it gives.
    for (auto [first, last, n] : {std::tuple<uint32_t, uint32_t, int>{5, 4, -1}, {5, 5, 1}, {0xFFFFFFFF, 2, 4}}) {
        uint32_t c[6] = {first, last, 0, 0, 0, 0};
        EXPECT_EQ(get_rqt_num_by_cookie(c), n) << first << " " << last;
    }
    uint32_t k[6] = {10, 99, 1, 0x01020304, 0x0a0b0c0d, 6};
    set_cookie_by_rsp_data(k, 20, 77);
    EXPECT_EQ(k[0] + k[2], 30u + 77u);
    mgi_common_cookie_hton(k);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(k);
    EXPECT_TRUE(be32(b) == 30u && be32(b + 16) == 0x0a0b0c0du && k[3] == 0x01020304u); // word 3 is left alone
}

} // namespace
