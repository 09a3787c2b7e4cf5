// The request context, its pair and the thread's error.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "mgmt/mgi.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

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
        thread_free_mgi(); // no pair yet: nothing happens
        EXPECT_EQ(get_mgi_sbuf(), nullptr);
        mgiBuf *b = init_mgi_exchange(); // a fresh thread gets its pair here
        ASSERT_TRUE(b && b == global_mgi_buf);
        b->rbuf[49999] = 1;
        init_mgi_exchange();
        EXPECT_EQ(b->rbuf[49999], 0);
        thread_free_mgi();
        EXPECT_EQ(global_mgi_buf, nullptr);
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

} // namespace
