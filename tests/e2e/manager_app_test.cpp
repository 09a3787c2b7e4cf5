// The whole system between real processes: a front end, the reference manager
// and the example application daemon.
#include <gtest/gtest.h>

#include <cstring>

#include "libmgmt.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

struct Radius {
    uint32_t enable;
    uint32_t timeout;
};

Bytes g_data;
int keep_data(void *data, uint32_t *len, void *, uint32_t *, void *, uint32_t *, void *) {
    auto *p = static_cast<uint8_t *>(data);
    g_data.assign(p, p + (data ? *len : 0));
    return 0;
}

int set_radius(mgiInfo &info, uint32_t enable, uint32_t timeout) {
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, 1);
    info.rqt_item[0] = &enable;
    info.rqt_item[1] = &timeout;
    return final_set_aaa_radius_authorization(&info, nullptr);
}

Radius get_radius() {
    mgiInfo info;
    init_mgi_info(&info);
    g_data.clear();
    EXPECT_EQ(final_get_aaa_radius_authorization(&info, keep_data, nullptr), 0);
    Radius r{};
    if (g_data.size() >= sizeof r) std::memcpy(&r, g_data.data(), sizeof r);
    return r;
}

class System : public ::testing::Test {
  protected:
    void SetUp() override {
        set_mgi_transaction_id(0);
        mgd = std::make_unique<Daemon>("tools/mgd", std::vector<std::string>{}, MGD_APPID);
        ASSERT_TRUE(mgd->ok()) << mgd->output();
        app = std::make_unique<Daemon>("examples/app_daemon", std::vector<std::string>{"--rows", "40"}, 11);
        ASSERT_TRUE(app->ok()) << app->output();
    }
    void TearDown() override {
        if (app) {
            EXPECT_EQ(app->stop(), 0);
        }
        if (mgd) {
            EXPECT_EQ(mgd->stop(), 0);
        }
        set_mgi_transaction_id(0);
    }
    std::unique_ptr<Daemon> mgd, app;
};

TEST_F(System, SetThroughTheManagerReachesTheApplicationAndComesBack) {
    run_as(5, [&] {
        EXPECT_EQ(get_radius().timeout, 30u);
        mgiInfo info;
        EXPECT_EQ(set_radius(info, 1, 45), 0);
        EXPECT_EQ(get_radius().timeout, 45u);
        // The application refuses a value; its code, private code and text come back through the manager.
        EXPECT_EQ(set_radius(info, 1, 0), -1);
        EXPECT_EQ(mgi_get_rsp_err_code_r(info.mgi_buf), -1);
        EXPECT_EQ(mgi_get_rsp_private_err_code_r(info.mgi_buf), 1301);
        EXPECT_STREQ(get_errString_r(info.mgi_buf), "timeout 0 is outside 1 to 600");
        EXPECT_EQ(get_radius().timeout, 45u);
    });
    std::string log = mgd->output();
    EXPECT_NE(log.find("mgd: set aaa_radius_authorization (e0005) type 1 from app5 src 1 trans 0: 8 bytes -> app11: "
                       "answered type 15\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("-> app11: answered type 18\n"), std::string::npos) << log;
}

TEST_F(System, TransactionIdTravelsWithEverySetUntilReleased) {
    run_as(5, [&] {
        ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
        uint8_t id = get_mgi_transaction_id();
        mgiInfo info;
        EXPECT_EQ(set_radius(info, 1, 50), 0);
        EXPECT_EQ(info.mgi_buf->sbuf[MGI_OFF_TRANSACTION_ID], id);
        EXPECT_GE(release_mgi_transaction_lock("admin", 0), 0);
        EXPECT_EQ(set_radius(info, 1, 51), 0);
        EXPECT_EQ(info.mgi_buf->sbuf[MGI_OFF_TRANSACTION_ID], 0);
        char want[64];
        std::snprintf(want, sizeof want, "from app5 src 1 trans %u: 8 bytes -> app11", id);
        EXPECT_NE(mgd->output().find(want), std::string::npos) << mgd->output();
    });
}

TEST_F(System, TheApplicationParsesTheConditionOfTheRequest) {
    run_as(5, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 2);
        char cond[] = "privilege gt 10";
        mgi_set_rqt_condition(&info, cond, sizeof cond - 1);
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, nullptr), 0);
        EXPECT_EQ(get_mgi_resp_type_r(info.mgi_buf), MGI_RSP_ERROR);
        EXPECT_EQ(mgi_get_rsp_err_code_r(info.mgi_buf), -1987); // the word limit
        EXPECT_STREQ(get_errString_r(info.mgi_buf), "condition \"privilege gt 10\" refused (-1987)");
        char connector_first[] = "or privilege gt 10";
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 2);
        mgi_set_rqt_condition(&info, connector_first, sizeof connector_first - 1);
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, nullptr), 0);
        EXPECT_EQ(mgi_get_rsp_err_code_r(info.mgi_buf), -1988); // the connector limit
        // The daemon serves on, and the listing without a condition is whole.
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 2);
        EXPECT_EQ(final_get_aaa_role(&info, nullptr, nullptr), 0);
        EXPECT_EQ(get_mgi_resp_type_r(info.mgi_buf), MGI_RSP_FINAL);
    });
}

} // namespace
