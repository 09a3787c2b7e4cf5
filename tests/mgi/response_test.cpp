// Reading responses from hand-built chains in the receive buffer.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <tuple>

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
    EXPECT_EQ(mgi_get_rsp_err_code_r(buf), -2);
    EXPECT_EQ(mgi_get_rsp_private_err_code_r(buf), 9);
    EXPECT_STREQ(get_errString_r(buf), "broken");
    EXPECT_EQ(get_mgi_resp_type_r(buf), 15);
    EXPECT_EQ(get_mgi_resp_data_r(buf), buf->rbuf + 312); // the raw payload: the first head
    // len counting only the first two segments: the walk runs out before the error; len 0: no segment at all.
    buf->rbuf[130] = 0;
    buf->rbuf[131] = 5 + 8 + 24 + 8;
    EXPECT_TRUE(find(135).first == -1 && find(132).first > 0);
    EXPECT_EQ(get_errString_r(buf), nullptr);
    buf->rbuf[131] = 0;
    EXPECT_EQ(find(134).first, -1);
    load(mgi_message(16, {{132, {}}}));
    EXPECT_EQ(find(132), std::make_pair(320L, 0u)); // a cookie of length 0 is found
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
    EXPECT_EQ(be32(b), 30u);
    EXPECT_EQ(be32(b + 16), 0x0a0b0c0du);
    EXPECT_EQ(k[3], 0x01020304u); // word 3 is left alone
    mgi_common_cookie_ntoh(k);
    EXPECT_EQ(k[5], 6u);
}

TEST(ThreadWrappers, WorkOnTheThreadPair) {
    std::thread([] {
        EXPECT_TRUE(get_mgi_resp_type() == 0 && get_errString() == nullptr); // no pair: nothing to read
        init_mgi();
        Bytes m = mgi_message(18, {{132, Bytes(24, 1)}});
        std::memcpy(get_mgi_rbuf(), m.data(), m.size());
        void *body;
        uint32_t len = 0;
        EXPECT_TRUE(find_roundtrip_cookie(&body, &len) == 0 && len == 24u && get_mgi_resp_type() == 18);
        thread_free_mgi();
    }).join();
}

} // namespace
