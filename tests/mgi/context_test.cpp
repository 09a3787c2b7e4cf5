// The request context, its pair and the thread's error.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "mgmt/mgi.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

TEST(Context, FreshContextStartValues) {
    mgiInfo info;
    std::memset(&info, 0x5A, sizeof info);
    set_mgi_vsysid(0x33);
    _ui_language = 0x102;
    init_mgi_info(&info);
    EXPECT_STREQ(info.err_string, "magic!\n");
    EXPECT_EQ(info.err_string, info.err_buf);
    EXPECT_EQ(info.rqt_timeout, 96);
    EXPECT_EQ(info.rqt_language, 0x02);
    EXPECT_EQ(info.rqt_vsysid, 0x33);
    EXPECT_EQ(info.last_seg_type, 139u);
    EXPECT_EQ(info.rqt_no_more, 0u);
    EXPECT_EQ(info.mgi_flag, 0u);
    EXPECT_EQ(info.mgidata, nullptr);
    EXPECT_EQ(info.rqt_item[127], nullptr);
    EXPECT_EQ(info.mgi_buf, global_mgi_buf);
    EXPECT_NE(info.mgi_buf, nullptr);
    EXPECT_EQ(info.mgi_buf_owned, 0u);
    set_mgi_vsysid(0);
    _ui_language = 0;
}

TEST(Context, PrivatePairIsOwnedAndDeinitTwiceIsHarmless) {
    mgiInfo info;
    ASSERT_EQ(init_mgi_info_r(&info), 0);
    EXPECT_EQ(info.mgi_buf_owned, 1u);
    EXPECT_NE(info.mgi_buf, global_mgi_buf);
    deinit_mgi_info(&info);
    EXPECT_EQ(info.mgi_buf_owned, 0u);
    deinit_mgi_info(&info);

    // A request built in a private pair: its udcdata is the first segment's body there.
    ASSERT_EQ(mgi_init_rqt_message_r(&info), 0);
    EXPECT_EQ(info.mgi_buf_owned, 1u);
    EXPECT_NE(info.mgi_buf, global_mgi_buf);
    EXPECT_EQ(info.udcdata, info.mgi_buf->sbuf + 320);
    deinit_mgi_info(&info);
}

TEST(Context, OffsetLocalityAndMasks) {
    mgiInfo info;
    init_mgi_info_basic(&info);
    info.rqt_offset = 0xFFFFFFFF;
    EXPECT_EQ(get_rqt_offset(&info), 0xFFFF);
    mgi_set_rqt_offset(&info, 0xFFFE);
    EXPECT_EQ(info.rqt_offset, 0xFFFEu);

    EXPECT_EQ(mgi_get_whether_local_entity(&info), 0);
    mgi_set_whether_local_entity(&info, 0);
    EXPECT_EQ(info.mgi_flag & 3u, 3u);
    EXPECT_EQ(mgi_get_whether_local_entity(&info), 0);
    mgi_set_whether_local_entity(&info, 1);
    EXPECT_EQ(info.mgi_flag & 3u, 1u);
    EXPECT_EQ(mgi_get_whether_local_entity(&info), 1);
    mgi_set_flag(&info, 0x100);
    EXPECT_EQ(get_mgi_flag(&info), 0x101u);

    info.rsp_mask1 = 0xF0;
    EXPECT_EQ(mgi_set_rsp_mask1(&info, 3, 0), -1);
    EXPECT_EQ(info.rsp_mask1, 0xF0u);
    EXPECT_EQ(mgi_set_rsp_mask1(&info, 1, 0x30), 0);
    EXPECT_EQ(info.rsp_mask1, 0x30u);
    EXPECT_EQ(mgi_set_rsp_mask2(&info, 2, 0x5), 0);
    EXPECT_EQ(mgi_set_rsp_mask3(&info, 0, 0x9), 0);
    EXPECT_EQ(info.rsp_mask3, 0x9u);
    mgi_reset_rsp_mask(&info, 0x0000000100000010ull);
    EXPECT_EQ(mgi_get_rsp_mask1(&info), 0x20u);
    EXPECT_EQ(mgi_get_rsp_mask2(&info), 0x4u);

    mgi_set_rqt_mask1(&info, 0x1);
    mgi_set_rqt_mask2(&info, 0x80000000);
    EXPECT_EQ(get_rqt_mask(&info), 0x8000000000000001ull);
}

TEST(Context, PreindexIsDataElseCondition) {
    mgiInfo info;
    init_mgi_info_basic(&info);
    EXPECT_EQ(get_preindex(&info), nullptr);
    EXPECT_EQ(get_preindex_len(&info), 0);
    EXPECT_EQ(get_preindex_subtype(&info), 0xFFFFFFFFu);
    char cond[4], data[8];
    mgi_set_rqt_condition(&info, cond, 4);
    mgi_set_rqt_condition_subtype(&info, 7);
    EXPECT_EQ(get_preindex(&info), cond);
    EXPECT_EQ(get_preindex_len(&info), 4);
    EXPECT_EQ(get_preindex_subtype(&info), 7u);
    info.mgidata = data;
    info.mgidata_len = 8;
    mgi_set_rqt_ruledata_subtype(&info, 9);
    EXPECT_EQ(get_preindex(&info), data);
    EXPECT_EQ(get_preindex_len(&info), 8);
    EXPECT_EQ(get_preindex_subtype(&info), 9u);
}

TEST(Context, FernlookTextsAreCutAndNullIsIgnored) {
    mgiInfo info;
    init_mgi_info_basic(&info);
    std::string long_id(50, 'x');
    mgi_set_fernlook_taskid(&info, long_id.c_str());
    EXPECT_EQ(std::strlen(info.fernlook_taskid), 32u);
    mgi_set_rqt_fernlook_type(&info, "scan");
    EXPECT_STREQ(info.fernlook_type, "scan");
    mgi_set_fernlook_type(&info, nullptr);
    EXPECT_STREQ(info.fernlook_type, "scan");
}

TEST(Identity, SettersCopyWithTruncationAndModes) {
    set_mgi_user(nullptr, 5);
    set_mgi_user("admin", 15);
    EXPECT_STREQ(get_mgi_user(), "admin");
    EXPECT_EQ(mgi_user_priv, 15u);
    set_mgi_user(nullptr, 3); // ignored, privilege too
    EXPECT_EQ(mgi_user_priv, 15u);
    std::string ip(60, '1');
    set_mgi_ip_addr(ip.c_str());
    EXPECT_EQ(std::strlen(get_mgi_ip_addr()), 39u);

    set_mgi_ha_unset_src(42);
    EXPECT_EQ(mgi_src_ha_unset, 1u);
    set_mgi_ha_unset_src(0);
    set_force_cli_mode(2);
    EXPECT_EQ(is_force_cli_mode(), 1);
    EXPECT_EQ(is_force_cli_fru_config_mode(), 1);
    set_force_cli_mode(-1);
    EXPECT_EQ(is_force_cli_mode(), 0);
    set_force_cli_mode(0);
    set_force_import_mode(-7);
    EXPECT_EQ(is_force_import_mode(), -7);
    set_force_import_mode(0);

    mgi_set_admin_user("alice");
    mgi_set_ip_addr("10.0.0.1");
    EXPECT_STREQ(mgi_get_admin_user(), "alice");
    EXPECT_STREQ(mgi_get_ip_addr(), "10.0.0.1");
    EXPECT_STRNE(get_mgi_ip_addr(), "10.0.0.1"); // the server's record is separate
    mgi_clear_admin_user();
    mgi_clear_ip_addr();
    EXPECT_STREQ(mgi_get_admin_user(), "");
    EXPECT_STREQ(mgi_get_ip_addr(), "");
}

TEST(Identity, InfoFromIsPerThread) {
    set_mgi_info_from(7);
    uint32_t other = 99;
    std::thread([&] { other = get_mgi_info_from(); }).join();
    EXPECT_EQ(other, 0u);
    EXPECT_EQ(get_mgi_info_from(), 7u);
    set_mgi_info_from(0);
}

TEST(ThreadError, FormatsAndWarnsOnEmptyText) {
    ConsoleCapture cap;
    mgi_set_global_err_info(-100, "bad %s %d", "value", 3);
    EXPECT_EQ(mgi_get_global_err_code(), -100);
    EXPECT_STREQ(mgi_get_global_err_msg(), "bad value 3");
    EXPECT_EQ(cap.text(), "");
    mgi_set_global_err_info(5, "%s", "");
    EXPECT_EQ(cap.text(), "MGI: errmsg is NULL\n");
    cap.clear();
    mgiInfo info;
    init_mgi_info(&info); // clears the error silently
    EXPECT_EQ(mgi_get_global_err_code(), 0);
    EXPECT_STREQ(mgi_get_global_err_msg(), "");
    EXPECT_EQ(cap.text(), "");
    std::string long_text(400, 'e');
    mgi_set_global_err_info(1, "%s", long_text.c_str());
    EXPECT_EQ(std::strlen(mgi_get_global_err_msg()), 299u);
}

TEST(Pairs, KeptOnlyInitMakesTheThreadPairAndPlainFormsTakeItAsItStands) {
    std::thread([] {
        thread_free_mgi(); // no pair yet: nothing happens
        EXPECT_EQ(global_mgi_buf, nullptr);
        EXPECT_EQ(get_mgi_sbuf(), nullptr);
        mgiBuf *b = init_mgi_exchange(); // a fresh thread gets its pair here
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b, global_mgi_buf);
        EXPECT_EQ(get_global_mgi_buf(), b);
        b->sbuf[100] = 1;
        b->rbuf[49999] = 1;
        init_mgi_exchange();
        EXPECT_EQ(b->sbuf[100], 0);
        EXPECT_EQ(b->rbuf[49999], 0);
        thread_free_mgi();
        EXPECT_EQ(global_mgi_buf, nullptr);
        thread_init_mgi();
        EXPECT_NE(global_mgi_buf, nullptr);
        thread_free_mgi();
    }).join();
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
    EXPECT_EQ(base, info.mgi_buf->sbuf + 320);
    EXPECT_EQ(info.udcdata_len, 0);

    // Data written in place is only counted, and not measured at all.
    std::memcpy(base, "abcd", 4);
    EXPECT_EQ(mgi_update_rqt_udcdata(&info, base, 4), 0);
    EXPECT_EQ(info.udcdata_len, 4);

    static uint8_t chunk[49688];
    std::memset(chunk, 0x61, sizeof chunk);
    EXPECT_EQ(mgi_update_rqt_udcdata(&info, chunk, 49684), 0); // total 49688 fits
    EXPECT_EQ(info.udcdata_len, 49688);
    EXPECT_EQ(info.mgi_buf->sbuf[MGI_MAX_LEN - 1], 0x61) << "copied up to the buffer's end, and cut there";
    EXPECT_EQ(cap.text(), "");
    info.udcdata_len = 4;
    EXPECT_EQ(mgi_update_rqt_udcdata(&info, chunk, 49685), -1); // 49689 does not
    EXPECT_EQ(cap.text(), "MGI: reqest data leng (49689) is incorrect\n");
    EXPECT_EQ(info.udcdata_len, 4);
    EXPECT_EQ(0, std::memcmp(base, "abcd", 4));
}

TEST(Request, FinalAppendsDataCookieConditionQueryInOrder) {
    mgiInfo info;
    init_mgi_info(&info);
    init_mgi_exchange_r(info.mgi_buf);
    prepare_to_append_segment_r(info.mgi_buf);
    uint8_t data[4] = {1, 2, 3, 4}, cookie[24] = {}, cond[8] = {'x'}, query[2] = {7, 7};
    info.mgidata = data;
    info.mgidata_len = 4;
    info.mgidata_subtype = 0x33;
    mgi_set_rqt_cookie(&info, cookie, 24);
    mgi_set_rqt_cookie_subtype(&info, 0x44);
    mgi_set_rqt_condition(&info, cond, 8);
    mgi_set_rqt_condition_subtype(&info, 0x55);
    mgi_set_rqt_querydata(&info, query, 0); // length 0: not sent
    ASSERT_EQ(mgi_final_rqt_message(&info), 0);
    const uint8_t *s = info.mgi_buf->sbuf;
    EXPECT_EQ(s[128], 133);
    EXPECT_EQ(be32(s + 312 + 4), 0x33u);
    const uint8_t *c = s + 312 + 8 + 4;
    EXPECT_EQ(s[312], 132);
    EXPECT_EQ(c[1], 132);
    EXPECT_EQ(be32(c + 4), 0x44u);
    const uint8_t *d = c + 8 + 24;
    EXPECT_EQ(c[0], 131);
    EXPECT_EQ(be32(d + 4), 0x55u);
    EXPECT_EQ(d[0], 139);
    EXPECT_EQ(info.mgi_buf->sendseg_len, 12u + 32u + 16u);

    mgi_set_rqt_querydata(&info, query, 2);
    info.mgidata = nullptr;
    info.cookie = nullptr;
    info.condition = nullptr;
    prepare_to_append_segment_r(info.mgi_buf);
    std::memset(info.mgi_buf->sbuf + 312, 0xAB, 8);
    mgi_final_rqt_message(&info);
    EXPECT_EQ(s[128], 138);
    EXPECT_EQ(be32(s + 316), 0xABABABABu); // query data carries no subtype of its own
}

} // namespace
