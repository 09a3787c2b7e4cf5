// The reference manager as a real process: sets relayed to the owning
// application, transactions, malformed requests, traps and the configuration
// lock of the management slot.
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

// A set inside a transaction is relayed to the owner with its header, record and the id in byte 3;
// another taker is refused, and a rollback with nothing open too.
TEST_F(Manager, SetIsRelayedInsideATransactionUntilReleasedOrRolledBack) {
    uint8_t id = 0;
    run_as(5, [&] {
        ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
        id = get_mgi_transaction_id();
        mgiInfo info;
        EXPECT_EQ(set_role(info, {"auditor", 2, 0, "reads logs"}), 0);
        set_mgi_transaction_id(0);
        EXPECT_EQ(get_mgi_transaction_lock("other", 0), -1);
        set_mgi_transaction_id(id);
        int state = -1;
        EXPECT_TRUE(get_mgi_transaction_state(&state, 0) == 0 && state == 1);
        EXPECT_GE(release_mgi_transaction_lock("admin", 0), 0);
        EXPECT_EQ(get_mgi_transaction_id(), 0);
        EXPECT_EQ(rollback_mgi_transaction("admin", 0), -1); // nothing open
        ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
        EXPECT_NE(get_mgi_transaction_id(), id); // a new id
        EXPECT_EQ(rollback_mgi_transaction("admin", 0), 0);
        EXPECT_TRUE(get_mgi_transaction_state(&state, 0) == 0 && state == 0);
    });
    ASSERT_TRUE(app->wait_for(1));
    const Bytes got = app->received()[0].bytes;
    ASSERT_EQ(got.size(), MGI_HDR_LEN + 72);
    expect_fields(got.data(), {{hdr::src, 1}, {hdr::transaction_id, id}, {hdr::mask1, 0xf}}); // four fields given
    EXPECT_EQ(be32(&got[MGI_OFF_TARGET]), 0xe0002u);
    EXPECT_STREQ(reinterpret_cast<const char *>(&got[MGI_HDR_LEN]), "auditor");
    EXPECT_EQ(got[MGI_HDR_LEN + 32], 2); // priv, host order
    std::string log = mgd->output();
    for (const std::string &want : {"mgd: set aaa_role (e0002) type 1 from app5 src 1 trans " + std::to_string(id) +
                                       ": 72 bytes -> app11: answered type 15\n",
                                   "transaction take vsys 0 by \"other\" (app5 pid " + std::to_string(getpid()) +
                                       "): refused",
                                   std::string("transaction rollback vsys 0: refused, none open")})
        EXPECT_NE(log.find(want), std::string::npos) << want << "\n" << log;
}

// A message too short to be MGI gets an error answer and the manager serves on; with no trap
// receiver running it takes the traps itself. Each is logged on a line of its own, in order.
TEST_F(Manager, MalformedRequestsAndTrapsAreLoggedAndTheManagerServesOn) {
    run_as(5, [&] {
        uint8_t junk[40] = {8};
        uint8_t reply[MGI_MAX_LEN];
        int32_t status = 0;
        uint32_t cap = sizeof reply;
        ASSERT_EQ(ipcmsg_send_and_recv(MGD_APPID, 0, MGI_IPC_MSG, junk, sizeof junk, &status, reply, &cap, 2000), 0);
        EXPECT_EQ(reply[MGI_OFF_TYPE], MGI_RSP_ERROR);
        mgiInfo info;
        EXPECT_EQ(set_role(info, {"after", 1, 0, ""}), 0);
        const char text[] = "fan failed";
        EXPECT_EQ(vk_private_trap(77, text, sizeof text, 3), 0);
        const uint8_t short_record[4] = {};
        EXPECT_EQ(ipcmsg_send(23, 0, 64, const_cast<uint8_t *>(short_record), sizeof short_record), 0);
    });
    auto logged = [&] {
        std::string log = mgd->output();
        size_t at = log.find(" mgd: warning: malformed MGI message from app5 (40 bytes): refused\n");
        for (const char *next : {" mgd: trap kind 6 code 77 arg 3 from app5: \"fan failed\"\n",
                                 " mgd: warning: trap of 4 bytes from app5: too short, dropped\n"})
            at = at == std::string::npos ? at : log.find(next, at);
        return at != std::string::npos;
    };
    EXPECT_TRUE(wait_until(logged, {mgd->log_path()})) << mgd->output();
}

TEST_F(Manager, ConfigurationLockOfTheManagementSlot) {
    run_as(5, [&] {
        int locked = -1;
        EXPECT_TRUE(get_mgd_config_lock_status(&locked) == 0 && locked == 0);
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
