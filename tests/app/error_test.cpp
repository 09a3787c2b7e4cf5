// Error reporting: which code wins, the error segment's body, defense reports,
// the private code on ADC and other platforms, the thread's stored error.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "app_fixture.h"

using namespace app_test;

namespace {

constexpr uint32_t M = 0x520000;

// A context attached to a response buffer, as a handler gets it.
struct Ctx {
    Bytes rqt;
    std::vector<uint8_t> rsp = std::vector<uint8_t>(65536, 0);
    mgiInfo info;
    explicit Ctx(uint32_t word = M | 1) : rqt(request({word})) {
        init_mgi_info(&info);
        decode_app_mgi_hdr(rqt.data(), rsp.data(), &info);
        prefix_encode_app_rsp_hdr(rqt.data(), rsp.data(), &info);
    }
    ~Ctx() { mgi_final_rsp_message(&info); }
    // The segment of type 135 as it stands, from the head that announces it.
    Bytes error_body() const {
        if (info.last_seg_type != MGI_SEG_ERROR) return {};
        const uint8_t *head = info.rsp_hdr_segment;
        uint16_t n = mgmt_test::be16(head + 2);
        return Bytes(head + 8, head + 8 + n);
    }
};

TEST(ErrorCodes, WhichCodeWins) {
    {
        Ctx c;
        c.info.decodeErr = 7;
        c.info.encodeErr = 9;
        mgi_sprintf_err(&c.info, "x");
        EXPECT_EQ(c.info.err_code, 9);
    }
    {
        Ctx c;
        c.info.decodeErr = 7;
        mgi_sprintf_err(&c.info, "x");
        EXPECT_EQ(c.info.err_code, 7);
    }
    {
        Ctx c;
        c.info.err_code = 5;
        mgi_sprintf_err(&c.info, "x");
        EXPECT_EQ(c.info.err_code, 5);
        EXPECT_EQ(c.info.decodeErr, 0);
        EXPECT_EQ(c.info.encodeErr, 0);
    }
    {
        Ctx c;
        mgi_sprintf_err(&c.info, "x");
        EXPECT_EQ(c.info.err_code, -1);
        EXPECT_EQ(c.info.decodeErr, -1);
        EXPECT_EQ(c.info.encodeErr, -1);
    }
    mgi_sprintf_err(nullptr, "ignored");
}

TEST(ErrorSegment, FirstSegmentStandsAndTextsArePadded) {
    Ctx c;
    c.info.private_ecode = 3;
    c.info.err_status = 4;
    c.info.err_detail = 8;
    mgi_sprintf_err(&c.info, "code %d failed", 12);
    EXPECT_EQ(c.info.rsptype, MGI_RSP_ERROR);
    Bytes b = c.error_body();
    ASSERT_EQ(b.size(), 16u + 16u); // "code 12 failed" + NUL is 15, padded to 16
    EXPECT_EQ(host_i32(b, 0), -1);
    EXPECT_EQ(host_i32(b, 4), 3);
    EXPECT_EQ(host_i32(b, 8), 8);
    EXPECT_EQ(host_i32(b, 12), 4);
    EXPECT_EQ(Bytes(b.begin() + 16, b.end()), text_body("code 12 failed"));
    uint32_t len_after_first = c.info.rsp_len;
    EXPECT_EQ(len_after_first, 8u + 32u);

    mgi_sprintf_err(&c.info, "second");
    EXPECT_STREQ(c.info.err_buf, "second");
    EXPECT_EQ(c.info.rsp_len, len_after_first);
    EXPECT_EQ(c.info.rsptype, MGI_RSP_ERROR);
    EXPECT_EQ(c.rsp[MGI_OFF_NEXTSEG], MGI_SEG_ERROR);
}

TEST(ErrorSegment, UntouchedTextIsMagicAndSecondTextFollows) {
    Ctx c;
    char second[] = "more";
    c.info.err_string2 = second;
    default_err_handle(&c.info);
    Bytes b = c.error_body();
    Bytes want = text_body("magic!\n");
    Bytes more = text_body("more");
    want.insert(want.end(), more.begin(), more.end());
    EXPECT_EQ(Bytes(b.begin() + 16, b.end()), want);

    Ctx bare;
    bare.info.err_string = nullptr;
    default_err_handle(&bare.info);
    EXPECT_EQ(bare.error_body().size(), 16u);
}

TEST(ErrorSegment, EmptyTextBuildsNothing) {
    Ctx c;
    const char *empty = "";
    mgi_sprintf_err(&c.info, "%s", empty);
    EXPECT_EQ(c.info.rsp_len, 0u);
    EXPECT_EQ(c.info.rsptype, 0);
    EXPECT_EQ(c.info.err_code, -1);
    EXPECT_EQ(c.info.decodeErr, -1);
}

TEST(DefenseReport, FollowsTheErrorSegmentAndGrowsItsLengthWordAsStored) {
    Ctx c;
    mgi_set_err_defense_report(&c.info, "dropped: no error yet");
    EXPECT_EQ(c.info.rsp_len, 0u);

    mgi_sprintf_err(&c.info, "0123456789abcde"); // body 16 + 16 = 0x20
    uint32_t before = c.info.rsp_len;
    mgi_set_err_defense_report(&c.info, "report number %d...", 1); // 19 bytes with the NUL: 24 padded
    EXPECT_EQ(c.info.rsp_len, before + 24);
    EXPECT_EQ(c.info.rsp_seg_used, before + 24);
    const uint8_t *head = c.info.rsp_hdr_segment;
    uint16_t stored;
    std::memcpy(&stored, head + 2, 2);
    uint16_t be_before = 0x0020;
    uint16_t native_before;
    std::memcpy(&native_before, "\x00\x20", 2);
    uint16_t expect = uint16_t(native_before + 24);
    EXPECT_EQ(stored, expect);
    if (native_before != be_before) {
        EXPECT_EQ(mgmt_test::be16(head + 2), 0x1820); // little-endian hosts
    }
    EXPECT_EQ(0, std::memcmp(c.info.rsp_data + before, text_body("report number 1...").data(), 24));
}

TEST(PrivateCode, AdcPlatformLetsCodeZeroPass) {
    unsetenv("MGMT_PLATFORM");
    {
        Ctx c;
        mgi_set_err_info_with_private_ecode(&c.info, 0, 77, "user %s", "bob");
        EXPECT_EQ(c.info.decodeErr, -1);
        EXPECT_EQ(c.info.err_code, 0);
        EXPECT_EQ(c.info.private_ecode, 77);
        EXPECT_STREQ(c.info.err_buf, "user bob");
        EXPECT_EQ(c.info.rsp_len, 0u); // the segment comes later
        mgi_final_rsp_message(&c.info);
        Bytes b = c.error_body();
        ASSERT_FALSE(b.empty());
        EXPECT_EQ(host_i32(b, 4), 77);
        EXPECT_STREQ(reinterpret_cast<const char *>(&b[16]), "user bob");
    }
    setenv("MGMT_PLATFORM", "waf,adc", 1);
    {
        Ctx c;
        mgi_set_err_info_with_private_ecode(&c.info, 0, 1, "ok");
        EXPECT_EQ(c.info.decodeErr, 0);
        mgi_set_err_info_with_private_ecode(&c.info, 4, 1, "not ok");
        EXPECT_EQ(c.info.decodeErr, -1);
    }
    unsetenv("MGMT_PLATFORM");
}

TEST(GlobalError, AttachedOnlyWhenSet) {
    Ctx c;
    mgi_attach_global_err_info(&c.info); // init_mgi_info cleared the thread's error
    EXPECT_EQ(c.info.decodeErr, 0);
    mgi_set_global_err_info(12, "disk %s", "full");
    mgi_attach_global_err_info(&c.info);
    EXPECT_EQ(c.info.decodeErr, -1);
    EXPECT_EQ(c.info.err_code, 12);
    EXPECT_STREQ(c.info.err_buf, "disk full");
    EXPECT_EQ(mgi_get_global_err_code(), 12); // the thread's store stays until the next request
    mgi_set_global_err_info(0, nullptr);
}

TEST(EncodeErrorHandling, FallsBackWithoutAnEntity) {
    Ctx c(M | 0x999);
    c.info.encodeErr = -100;
    testing::internal::CaptureStdout();
    EXPECT_EQ(encode_app_error_handling(&c.info), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "request path does not exist\n");
    EXPECT_EQ(c.info.err_code, -2);
    EXPECT_EQ(host_i32(c.error_body(), 0), -2);
    EXPECT_EQ(mgi_basic_errMap_table[0].from, 0);
}

TEST(ErrorSetters, PlainStores) {
    Ctx c;
    set_decode_errcode(&c.info, 3);
    set_encode_errcode(&c.info, 4);
    set_errCode(&c.info, 5);
    set_errStatus(&c.info, 6);
    EXPECT_EQ(c.info.decodeErr, 3);
    EXPECT_EQ(c.info.encodeErr, 4);
    EXPECT_EQ(get_rsp_errcode(&c.info), 5);
    EXPECT_EQ(c.info.err_status, 6);
    c.info.mgidata = &c;
    mgi_clear_rqt_mgidata(&c.info);
    EXPECT_EQ(c.info.mgidata, nullptr);
    c.info.decodeErr = 0; // no error segment at the final call
}

} // namespace
