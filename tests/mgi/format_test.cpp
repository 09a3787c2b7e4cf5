// The message format: target lists, segment appends, the header a requester writes.
#include <gtest/gtest.h>

#include <cstring>

#include "mgmt/mgi.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

TEST(TargetList, HeaderConversionStopsAfterFirstZeroWord) {
    uint8_t hdr[MGI_HDR_LEN] = {};
    const uint32_t words[10] = {0x4f0001, 0x20401, 0x2041d, 0};
    EXPECT_EQ(set_mgi_msg_hdr_target(hdr, words, 10), 3);
    EXPECT_EQ(be32(hdr + 88), 0x4f0001u);
    EXPECT_EQ(be32(hdr + 96), 0x2041du);
    EXPECT_EQ(hdr[88], 0x00);
    EXPECT_EQ(hdr[89], 0x4f);

    uint32_t back[10];
    std::memset(back, 0xAA, sizeof back);
    EXPECT_EQ(get_mgi_msg_hdr_target(back, hdr), 3);
    EXPECT_EQ(back[2], 0x2041du);
    EXPECT_EQ(back[3], 0u);          // the terminator is stored too
    EXPECT_EQ(back[4], 0xAAAAAAAAu); // and nothing after it
}

TEST(TargetList, TenWordsFillTheFieldWithoutTerminator) {
    uint8_t hdr[MGI_HDR_LEN];
    std::memset(hdr, 0x55, sizeof hdr);
    uint32_t words[11];
    for (uint32_t i = 0; i < 11; ++i) words[i] = 0x10000 + i + 1;
    EXPECT_EQ(set_mgi_msg_hdr_target(hdr, words, 10), 10);
    EXPECT_EQ(be32(hdr + 124), 0x1000au);
    EXPECT_EQ(hdr[128], 0x55); // nextseg untouched
    uint32_t back[10];
    EXPECT_EQ(get_mgi_msg_hdr_target(back, hdr), 10);
    EXPECT_EQ(back[9], 0x1000au);
    EXPECT_EQ(get_mgi_target_len(words), 11); // gives up at 11
}

TEST(TargetList, StopAtMaxStoresNoTerminatorButAlwaysHandlesOneWord) {
    uint8_t hdr[MGI_HDR_LEN];
    std::memset(hdr, 0x77, sizeof hdr);
    const uint32_t words[10] = {1, 2, 3, 0};
    EXPECT_EQ(set_mgi_msg_hdr_target(hdr, words, 2), 2);
    EXPECT_EQ(be32(hdr + 92), 2u);
    EXPECT_EQ(be32(hdr + 96), 0x77777777u); // no terminator of its own
    EXPECT_EQ(set_mgi_msg_hdr_target(hdr, words, 0), 1);
    EXPECT_EQ(be32(hdr + 88), 1u);
    const uint32_t empty[10] = {0};
    EXPECT_EQ(set_mgi_msg_hdr_target(hdr, empty, 0), 0);
    EXPECT_EQ(be32(hdr + 88), 0u);
    EXPECT_EQ(get_mgi_target_len(words), 3);
    EXPECT_EQ(get_mgi_target_len(empty), 0);
}

TEST(Segments, AppendWritesLinkHeadAndBody) {
    uint8_t buf[64];
    std::memset(buf, 0xEE, sizeof buf);
    uint8_t link = 0;
    const uint8_t body[3] = {1, 2, 3};
    append_segment(&link, buf, MGI_SEG_COOKIE, body, 3);
    EXPECT_EQ(link, MGI_SEG_COOKIE);
    EXPECT_EQ(buf[0], MGI_SEG_END);
    EXPECT_EQ(buf[1], MGI_SEG_COOKIE);
    EXPECT_EQ(be16(buf + 2), 3);
    EXPECT_EQ(be32(buf + 4), 0xEEEEEEEEu); // subtype is not the append's business
    EXPECT_EQ(0, std::memcmp(buf + 8, body, 3));
    EXPECT_EQ(buf[11], 0xEE); // odd body: nothing pads it
}

TEST(Segments, StringBodiesArePaddedToEightWithNul) {
    uint8_t buf[64];
    std::memset(buf, 0xEE, sizeof buf);
    uint8_t link = 0;
    EXPECT_EQ(append_segment_with_string(&link, buf, MGI_SEG_ERROR, "1234567"), 8);
    EXPECT_EQ(be16(buf + 2), 8);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf + 8)), "1234567");
    std::memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(append_segment_with_string(&link, buf, MGI_SEG_ERROR, "12345678"), 16);
    for (int i = 8 + 8; i < 8 + 16; ++i) EXPECT_EQ(buf[i], 0) << i;
    EXPECT_EQ(buf[24], 0xEE);
    // A text already in place is taken as it stands.
    std::memset(buf, 0xEE, sizeof buf);
    std::memcpy(buf + 8, "ab", 3);
    EXPECT_EQ(append_segment_with_string(&link, buf, 140, reinterpret_cast<char *>(buf + 8)), 8);
    EXPECT_EQ(buf[11], 0xEE);
}

TEST(Segments, ChainInTheSendBufferLinksEachHead) {
    mgiBuf *buf = init_mgi_r();
    ASSERT_NE(buf, nullptr);
    init_mgi_exchange_r(buf);
    prepare_to_append_segment_r(buf);
    EXPECT_EQ(get_sendseg_buf_r(buf), buf->sbuf + 320);
    set_sendseg_subtype_r(buf, 0x01020304);
    uint8_t a[5] = {9, 9, 9, 9, 9};
    ASSERT_EQ(append_rqt_segment_r(buf, MGI_SEG_RULEDATA, a, 5), 0);
    ASSERT_EQ(append_rqt_segment_r(buf, MGI_SEG_COOKIE, nullptr, 0), 0); // a segment of length 0 is legal
    EXPECT_EQ(buf->sbuf[128], MGI_SEG_RULEDATA);
    EXPECT_EQ(buf->sbuf[312], MGI_SEG_COOKIE); // link of the first head names the second
    EXPECT_EQ(buf->sbuf[313], MGI_SEG_RULEDATA);
    EXPECT_EQ(be32(buf->sbuf + 316), 0x01020304u);
    EXPECT_EQ(buf->sbuf[312 + 13], MGI_SEG_END);
    EXPECT_EQ(buf->sendseg_len, 13u + 8u);
    EXPECT_EQ(buf->sendseg, buf->sbuf + 312 + 21);
    // Nothing is written past the end of the send buffer.
    static uint8_t big[60000];
    EXPECT_EQ(append_rqt_segment_r(buf, MGI_SEG_UDCDATA, big, 50000), -1);
    EXPECT_EQ(buf->sendseg_len, 21u);
    deinit_mgi_r(buf);
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
    // Byte 2 is reserved (kept as the cleared buffer held it), 5 the low byte of the language
    // word; the offset given is ignored (132).
    expect_fields(h, {{0, 1, 8}, {2, 1, 0}, {3, 1, 0x42}, {4, 1, 96}, {5, 1, 0x07}, {6, 2, 0x0102},
                      {40, 4, 0x0a0b0c0d}, {44, 2, 0x0304}, {88, 4, 0xe0001}, {92, 4, 0xe0002}, {96, 4, 0},
                      {128, 1, 0}, {129, 1, 77}, {130, 2, 6}, {132, 4, 0xFFFFFFFF}, {140, 2, 0xbeef},
                      {144, 4, 0}, {152, 4, 0x11}, {156, 4, 0x22}, {160, 4, 0x33}, {168, 4, 0x44},
                      {172, 4, 0x55}, {176, 4, 0x66}});
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(h + 8)), "operator-with-a-name-longer-tha");
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(h + 48)), "192.0.2.17");
    EXPECT_EQ(0, std::memcmp(h + 312, record, 6));
    _ui_language = 0;
    set_mgi_transaction_id(0);
    set_mgi_vsysid(0);
    set_mgi_login_vsysid(0);
    deinit_mgi_r(buf);
}

TEST(Header, PrepareDirectStartsAnEmptyChain) {
    mgiBuf *buf = init_mgi_r();
    ASSERT_NE(buf, nullptr);
    init_mgi_exchange_r(buf);
    std::memset(buf->sbuf, 0xCC, MGI_MAX_LEN);
    const uint32_t target[10] = {0xe0012, 0};
    prepare_mgi_exchange_direct_r(buf, target, 31, 0x00010002, 7, 0xa, 0xb);
    const uint8_t *h = buf->sbuf;
    // Mask3 (160) is the stub's to write, the reserved byte 2 is never written, and the
    // destination's vsys id (46) only through its own prepare.
    expect_fields(h, {{128, 1, MGI_SEG_END}, {129, 1, 31}, {130, 2, 0}, {132, 4, 0x00010002}, {140, 2, 7},
                      {152, 4, 0xa}, {156, 4, 0xb}, {160, 4, 0xCCCCCCCC}, {2, 1, 0xCC}, {46, 2, 0xCCCC}});
    EXPECT_EQ(buf->sendseg, buf->sbuf + 312);
    EXPECT_EQ(buf->sendseg_link, buf->sbuf + 128);
    prepare_mgi_dst_vsysid_r(buf, 0x0fff);
    EXPECT_EQ(be16(h + 46), 0x0fff);
    prepare_mgi_partname_r(buf, "slot-part");
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(h + 8)), "slot-part");
    deinit_mgi_r(buf);
}

TEST(Header, NullPairsAreIgnoredByPrepare) {
    const uint32_t target[10] = {1, 0};
    prepare_mgi_exchange_r(nullptr, target, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, nullptr);
    prepare_mgi_exchange_direct_r(nullptr, target, 1, 0, 0, 0, 0);
    EXPECT_EQ(make_mgi_exchange_r(nullptr, nullptr, 4), -1);
    EXPECT_EQ(make_mgi_exchange_direct_r(nullptr, 11, nullptr, nullptr), -1);
}

} // namespace
