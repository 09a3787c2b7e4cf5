// Reading responses from hand-built chains in the receive buffer.
#include <gtest/gtest.h>

#include <cstring>

#include "mgmt/mgi.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

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
        size_t n = std::strlen(text) + 1;
        b.resize(16 + ((n + 7) & ~size_t{7}), 0);
        std::memcpy(b.data() + 16, text, n);
        return b;
    }
    mgiBuf *buf = nullptr;
};

TEST_F(Response, FindWalksByTheAnnouncedType) {
    load(mgi_message(15, {{134, Bytes(5, 0x34)}, {132, Bytes(24, 0x32)}, {135, error_body(-2, 9, "broken")}}));
    void *body = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(find_roundtrip_segment_r(buf, 134, &body, &len), 0);
    EXPECT_EQ(body, buf->rbuf + 320);
    EXPECT_EQ(len, 5u);
    ASSERT_EQ(find_roundtrip_segment_r(buf, 132, &body, &len), 0);
    EXPECT_EQ(body, buf->rbuf + 320 + 5 + 8); // odd bodies are not aligned
    EXPECT_EQ(len, 24u);
    EXPECT_EQ(buf->recvseg_link, buf->rbuf + 312);
    EXPECT_EQ(mgi_get_rsp_err_code_r(buf), -2);
    EXPECT_EQ(mgi_get_rsp_private_err_code_r(buf), 9);
    EXPECT_STREQ(get_errString_r(buf), "broken");
    EXPECT_STREQ(mgi_get_rsp_err_string_r(buf), "broken");
    EXPECT_EQ(get_mgi_resp_type_r(buf), 15);
    EXPECT_EQ(get_mgi_resp_data_r(buf), buf->rbuf + 312); // the raw payload: the first head

    void *keep = &len;
    uint32_t keep_len = 77;
    EXPECT_EQ(find_roundtrip_segment_r(buf, 139, &keep, &keep_len), -1);
    EXPECT_EQ(find_roundtrip_segment_r(buf, 128, &keep, &keep_len), -1);
    EXPECT_EQ(find_roundtrip_segment_r(buf, 131, &keep, &keep_len), -1);
    EXPECT_EQ(keep, &len); // outputs untouched on failure
    EXPECT_EQ(keep_len, 77u);
}

TEST_F(Response, LengthDecidesWhatIsInTheChain) {
    Bytes m = mgi_message(15, {{132, Bytes(8, 1)}, {135, error_body(-1, 0, "e")}});
    load(m);
    void *body;
    uint32_t len;
    EXPECT_EQ(find_roundtrip_segment_r(buf, 135, &body, &len), 0);
    // len counting only the first segment: the walk runs out before the error
    buf->rbuf[130] = 0;
    buf->rbuf[131] = 16;
    EXPECT_EQ(find_roundtrip_segment_r(buf, 135, &body, &len), -1);
    EXPECT_EQ(mgi_get_rsp_err_code_r(buf), 0);
    EXPECT_EQ(get_errString_r(buf), nullptr);
    // len 0: no segment at all, whatever nextseg says
    buf->rbuf[131] = 0;
    EXPECT_EQ(find_roundtrip_segment_r(buf, 132, &body, &len), -1);
}

TEST_F(Response, CookieOfLengthZeroIsFound) {
    load(mgi_message(16, {{132, {}}}));
    void *body = nullptr;
    uint32_t len = 99;
    ASSERT_EQ(find_roundtrip_segment_r(buf, 132, &body, &len), 0);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(body, buf->rbuf + 320);
}

TEST_F(Response, RecordTakesDataErrorCookieAndKeepsTheLaterData) {
    load(mgi_message(15, {{133, Bytes(3, 3)}, {131, Bytes(4, 1)}, {137, Bytes(9, 7)}, {132, Bytes(24, 2)},
                          {135, error_body(-101, 0, "x")}}));
    void *data, *err, *cookie;
    uint32_t dl, el, cl;
    EXPECT_EQ(record_rsp_seg_r(buf, &data, &dl, &err, &el, &cookie, &cl), 0);
    EXPECT_EQ(dl, 9u);
    EXPECT_EQ(static_cast<uint8_t *>(data)[0], 7);
    EXPECT_EQ(cl, 24u);
    EXPECT_EQ(el, 24u);
    EXPECT_EQ(*static_cast<int32_t *>(err), -101);

    load(mgi_message(15, {}));
    EXPECT_EQ(record_rsp_seg_r(buf, &data, &dl, &err, &el, &cookie, &cl), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(dl + el + cl, 0u);
    EXPECT_EQ(err, nullptr);
    EXPECT_EQ(cookie, nullptr);
}

TEST_F(Response, LengthsFromTheFarSideNeverLeadOutsideTheBuffer) {
    // A chain whose segment claims far more than the buffer holds.
    Bytes m = mgi_message(16, {{134, Bytes(16, 1)}, {132, Bytes(8, 2)}});
    m[312 + 2] = 0xFF; // seglen 0xFF10
    m[130] = 0xFF;
    m[131] = 0xFF;
    load(m);
    void *body;
    uint32_t len;
    EXPECT_EQ(find_roundtrip_segment_r(buf, 132, &body, &len), -1);
    EXPECT_EQ(find_roundtrip_segment_r(buf, 134, &body, &len), -1);
    void *data, *err, *cookie;
    uint32_t dl, el, cl;
    record_rsp_seg_r(buf, &data, &dl, &err, &el, &cookie, &cl);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(cookie, nullptr);

    // A chain of heads that runs to the very end of the buffer and stops there.
    std::memset(buf->rbuf, 0, MGI_MAX_LEN);
    buf->rbuf[128] = 129;
    buf->rbuf[130] = 0xFF;
    buf->rbuf[131] = 0xFF;
    for (uint8_t *p = buf->rbuf + 312; p + 8 <= buf->rbuf + MGI_MAX_LEN; p += 8) p[0] = 129;
    EXPECT_EQ(find_roundtrip_segment_r(buf, 132, &body, &len), -1);
    EXPECT_EQ(record_rsp_seg_r(buf, &data, &dl, &err, &el, &cookie, &cl), 0);

    // An error text left unterminated at the end of the buffer still ends.
    std::memset(buf->rbuf, 'A', MGI_MAX_LEN);
    buf->rbuf[128] = 135;
    buf->rbuf[130] = 0xC2;
    buf->rbuf[131] = 0x10; // len 49680
    uint8_t *head = buf->rbuf + 312;
    head[0] = 139;
    head[2] = 0xC2;
    head[3] = 0x08; // seglen 49672: body to the last byte
    char *text = get_errString_r(buf);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::strlen(text), size_t{MGI_MAX_LEN - 312 - 8 - 16 - 1}); // cut at the last byte of the buffer
    // Data up to an error body whose words end at the buffer's very end: no room for a text.
    buf->rbuf[128] = 132;
    buf->rbuf[130] = 0xC2;
    buf->rbuf[131] = 0x18; // len 49688
    head[0] = 135;
    head[1] = 132;
    head[2] = 0xC1;
    head[3] = 0xF8; // seglen 49656: up to byte 49976
    uint8_t *err_head = buf->rbuf + 49976;
    err_head[0] = 139;
    err_head[1] = 135;
    err_head[2] = 0;
    err_head[3] = 16;
    EXPECT_STREQ(get_errString_r(buf), "");
}

TEST(CommonCookie, Helpers) {
    // 12422 below 2, else 24844 >> (significant bits of the record size).
    for (auto [len, n] : {std::pair<uint64_t, uint32_t>{0, 12422}, {1, 12422}, {2, 6211}, {3, 6211}, {7, 3105},
                          {8, 1552}, {31, 776}, {44, 388}, {1ull << 40, 0}})
        EXPECT_EQ(get_mgi_rsp_data_num(len), n) << len;

    uint32_t c[6] = {5, 4, 0, 0, 0, 0};
    EXPECT_EQ(get_rqt_num_by_cookie(c), -1);
    c[1] = 5;
    EXPECT_EQ(get_rqt_num_by_cookie(c), 1);
    c[0] = 0xFFFFFFFF; // -1 as a signed word
    c[1] = 2;
    EXPECT_EQ(get_rqt_num_by_cookie(c), 4);

    uint32_t k[6] = {10, 99, 1, 0x01020304, 0x0a0b0c0d, 6};
    set_cookie_by_rsp_data(k, 20, 77);
    EXPECT_EQ(k[0], 30u);
    EXPECT_EQ(k[2], 77u);
    mgi_common_cookie_hton(k);
    const uint8_t *b = reinterpret_cast<const uint8_t *>(k);
    EXPECT_EQ(be32(b), 30u);
    EXPECT_EQ(be32(b + 4), 99u);
    EXPECT_EQ(be32(b + 16), 0x0a0b0c0du);
    EXPECT_EQ(k[3], 0x01020304u); // word 3 is left alone
    mgi_common_cookie_ntoh(k);
    EXPECT_EQ(k[0], 30u);
    EXPECT_EQ(k[5], 6u);
}

TEST(ThreadWrappers, WorkOnTheThreadPair) {
    std::thread([] {
        EXPECT_EQ(get_mgi_resp_type(), 0); // no pair: nothing to read
        EXPECT_EQ(get_errString(), nullptr);
        init_mgi();
        Bytes m = mgi_message(18, {{132, Bytes(24, 1)}});
        std::memcpy(get_mgi_rbuf(), m.data(), m.size());
        void *body;
        uint32_t len;
        EXPECT_EQ(find_roundtrip_cookie(&body, &len), 0);
        EXPECT_EQ(len, 24u);
        EXPECT_EQ(find_roundtrip_segment(132, &body, &len), 0);
        EXPECT_EQ(get_mgi_resp_type(), 18);
        EXPECT_EQ(get_mgi_resp_data(), get_mgi_rbuf() + 312);
        EXPECT_EQ(mgi_get_rsp_err_code(), 0);
        EXPECT_EQ(mgi_get_rsp_private_err_code(), 0);
        EXPECT_EQ(mgi_get_rsp_err_string(), nullptr);
        thread_free_mgi();
    }).join();
}

} // namespace
