// The reference manager as a real process: sets relayed to the owning
// application and back, transactions, its own copy for gets of type 30,
// refusals, and the configuration lock of the management slot.
#include <gtest/gtest.h>

#include <cstring>

#include "libmgmt.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

constexpr uint32_t kRoleOwner = 11;

// A role record as final_set_aaa_role packs it: s32 u32 u32 s32 (72 bytes).
struct Role {
    const char *name;
    uint32_t priv;
    uint32_t flags;
    const char *descr;
};

int set_role(mgiInfo &info, const Role &r) {
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, 1);
    info.rqt_item[0] = const_cast<char **>(&r.name);
    info.rqt_item[1] = const_cast<uint32_t *>(&r.priv);
    info.rqt_item[2] = const_cast<uint32_t *>(&r.flags);
    info.rqt_item[3] = const_cast<char **>(&r.descr);
    return final_set_aaa_role(&info, nullptr);
}

class Manager : public ::testing::Test {
  protected:
    void SetUp() override {
        set_mgi_transaction_id(0);
        mgd = std::make_unique<Daemon>("tools/mgd", std::vector<std::string>{}, MGD_APPID);
        ASSERT_TRUE(mgd->ok()) << mgd->output();
        app = std::make_unique<TestPeer>(kRoleOwner);
        app->handle(MGI_IPC_MSG, [](const Received &r) {
            Bytes answer(r.bytes.begin(), r.bytes.begin() + MGI_HDR_LEN);
            answer[MGI_OFF_TYPE] = MGI_RSP_FINAL;
            answer[MGI_OFF_NEXTSEG] = MGI_SEG_END;
            answer[MGI_OFF_LEN] = answer[MGI_OFF_LEN + 1] = 0;
            return std::vector<Answer>{{answer, 0, true}};
        });
    }
    void TearDown() override {
        app.reset();
        if (mgd) {
            EXPECT_EQ(mgd->stop(), 0);
        }
        set_mgi_transaction_id(0);
    }
    std::unique_ptr<Daemon> mgd;
    std::unique_ptr<TestPeer> app;
};

TEST_F(Manager, SetIsRelayedToTheOwnerWithItsHeaderAndRecord) {
    int rc = -9;
    run_as(5, [&] {
        mgiInfo info;
        rc = set_role(info, {"auditor", 2, 0, "reads logs"});
    });
    EXPECT_EQ(rc, 0);
    ASSERT_TRUE(app->wait_for(1));
    const Bytes got = app->received()[0].bytes;
    ASSERT_EQ(got.size(), MGI_HDR_LEN + 72);
    EXPECT_EQ(got[MGI_OFF_SRC], 1);
    EXPECT_EQ(be32(&got[MGI_OFF_TARGET]), 0xe0002u);
    EXPECT_EQ(be32(&got[MGI_OFF_MASK1]), 0xfu); // four fields given
    EXPECT_STREQ(reinterpret_cast<const char *>(&got[MGI_HDR_LEN]), "auditor");
    uint32_t priv;
    std::memcpy(&priv, &got[MGI_HDR_LEN + 32], 4);
    EXPECT_EQ(priv, 2u);
    EXPECT_NE(mgd->output().find("mgd: set aaa_role (e0002) type 1 from app5 src 1 trans 0: 72 bytes -> app11: "
                                 "answered type 15\n"),
              std::string::npos)
        << mgd->output();
}

TEST_F(Manager, TransactionIsTakenUsedReleasedAndRolledBack) {
    run_as(5, [&] {
        ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
        uint8_t id = get_mgi_transaction_id();
        EXPECT_NE(id, 0);
        mgiInfo info;
        EXPECT_EQ(set_role(info, {"ops", 1, 0, ""}), 0);
        // Another process asking for the same virtual system is refused.
        uint8_t mine = get_mgi_transaction_id();
        set_mgi_transaction_id(0);
        EXPECT_EQ(get_mgi_transaction_lock("other", 0), -1);
        set_mgi_transaction_id(mine);
        int state = -1;
        EXPECT_EQ(get_mgi_transaction_state(&state, 0), 0);
        EXPECT_EQ(state, 1);
        EXPECT_GE(release_mgi_transaction_lock("admin", 0), 0);
        EXPECT_EQ(get_mgi_transaction_id(), 0);
        EXPECT_EQ(rollback_mgi_transaction("admin", 0), -1); // nothing open
        ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
        EXPECT_NE(get_mgi_transaction_id(), id); // a new id
        EXPECT_EQ(rollback_mgi_transaction("admin", 0), 0);
        EXPECT_EQ(get_mgi_transaction_id(), 0);
        EXPECT_EQ(get_mgi_transaction_state(&state, 0), 0);
        EXPECT_EQ(state, 0);
    });
    ASSERT_TRUE(app->wait_for(1));
    EXPECT_NE(app->received()[0].bytes[MGI_OFF_TRANSACTION_ID], 0); // the id travels in byte 3
    std::string log = mgd->output();
    EXPECT_NE(log.find("transaction take vsys 0 by \"other\" (app5 pid " + std::to_string(getpid()) + "): refused"), std::string::npos) << log;
    EXPECT_NE(log.find("transaction rollback vsys 0: refused, none open"), std::string::npos) << log;
}

int g_calls = 0;
Bytes g_data;
int keep_data(void *data, uint32_t *len, void *, uint32_t *, void *, uint32_t *, void *) {
    ++g_calls;
    auto *p = static_cast<uint8_t *>(data);
    g_data.assign(p, p + (data ? *len : 0));
    return 0;
}

TEST_F(Manager, GetOfTypeThirtyIsAnsweredFromTheManagersCopy) {
    run_as(5, [&] {
        mgiInfo info;
        ASSERT_EQ(set_role(info, {"viewer", 7, 1, "read only"}), 0);
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, MGI_RQT_MGD_GET);
        const char *name = "viewer";
        info.rqt_item[0] = &name;
        g_calls = 0;
        EXPECT_EQ(final_get_aaa_role(&info, keep_data, nullptr), 0);
    });
    EXPECT_EQ(g_calls, 1);
    ASSERT_EQ(g_data.size(), 72u);
    EXPECT_STREQ(reinterpret_cast<const char *>(g_data.data()), "viewer");
    EXPECT_EQ(app->received().size(), 1u); // the owner was not asked
}

TEST_F(Manager, OwnerNotRunningAndMalformedRequestsGetErrorAnswers) {
    const libmgmt_object *o = nullptr;
    for (uint32_t i = 0; i < libmgmt_object_count() && !o; ++i)
        if (libmgmt_object_at(i)->owner == 15 && libmgmt_object_at(i)->set) o = libmgmt_object_at(i);
    ASSERT_NE(o, nullptr);
    run_as(5, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 1);
        EXPECT_EQ(o->set(&info, nullptr), -1);
        EXPECT_STREQ(get_errString_r(info.mgi_buf), "application app15 does not answer");

        // A message too short to be MGI: refused with an error, and the manager serves on.
        uint8_t junk[40] = {8};
        uint8_t reply[MGI_MAX_LEN];
        int32_t status = 0;
        uint32_t cap = sizeof reply;
        ASSERT_EQ(ipcmsg_send_and_recv(MGD_APPID, 0, MGI_IPC_MSG, junk, sizeof junk, &status, reply, &cap, 2000), 0);
        EXPECT_EQ(reply[MGI_OFF_TYPE], MGI_RSP_ERROR);
        EXPECT_EQ(set_role(info, {"after", 1, 0, ""}), 0);
    });
    EXPECT_NE(mgd->output().find("malformed MGI message from app5 (40 bytes): refused"), std::string::npos);
}

TEST_F(Manager, ServesItsOwnObjectsThroughTheServingSide) {
    run_as(5, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 1);
        const char *who = "admin";
        uint32_t a = 3, b = 4;
        info.rqt_item[0] = &who;
        info.rqt_item[1] = &a;
        info.rqt_item[2] = &b;
        EXPECT_EQ(final_set_mgmt_trans(&info, nullptr), 0);
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 2);
        g_calls = 0;
        EXPECT_EQ(final_get_mgmt_trans(&info, keep_data, nullptr), 0);
    });
    EXPECT_EQ(g_calls, 1);
    ASSERT_EQ(g_data.size(), 40u);
    EXPECT_STREQ(reinterpret_cast<const char *>(g_data.data()), "admin");
    uint32_t b;
    std::memcpy(&b, g_data.data() + 36, 4);
    EXPECT_EQ(b, 4u);
    EXPECT_NE(mgd->output().find("mgd: set mgmt_trans (90012) type 1 from app5: served here\n"), std::string::npos)
        << mgd->output();
}

TEST_F(Manager, TakesTrapsWhenNoReceiverRuns) {
    run_as(5, [] {
        const char text[] = "fan failed";
        EXPECT_EQ(vk_private_trap(77, text, sizeof text, 3), 0);
        const uint8_t short_record[4] = {};
        EXPECT_EQ(ipcmsg_send(23, 0, 64, const_cast<uint8_t *>(short_record), sizeof short_record), 0);
    });
    // In the order sent, each on a line of its own behind its time stamp.
    auto logged = [&] {
        std::string log = mgd->output();
        size_t first = log.find(" mgd: trap kind 6 code 77 arg 3 from app5: \"fan failed\"\n");
        return first != std::string::npos &&
               log.find(" mgd: warning: trap of 4 bytes from app5: too short, dropped\n", first) != std::string::npos;
    };
    EXPECT_TRUE(wait_until(logged, {mgd->log_path()})) << mgd->output();
}

TEST_F(Manager, ConfigurationLockOfTheManagementSlot) {
    run_as(5, [&] {
        int locked = -1;
        EXPECT_EQ(get_mgd_config_lock_status(&locked), 0);
        EXPECT_EQ(locked, 0);
        EXPECT_EQ(req_lock_mgd_cfg(1), 0);
        // The lock goes to the management slot's address, the question to the manager's own: both
        // are waiting when the manager next looks, and it serves every ready address in a round,
        // so by the second answer the lock has been taken.
        for (int i = 0; i < 2 && locked != 1; ++i)
            EXPECT_EQ(get_mgd_config_lock_status(&locked), 0);
        EXPECT_EQ(locked, 1);
        EXPECT_EQ(get_config_change_status(0), 0); // nothing set yet
        mgiInfo info;
        EXPECT_EQ(set_role(info, {"x", 1, 0, ""}), 0);
        EXPECT_EQ(get_config_change_status(0), 1);
    });
}

} // namespace
