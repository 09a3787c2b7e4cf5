// What the manager keeps when things go wrong, between real processes: answers that come late,
// a stopped owner, transactions against other front ends, a killed manager, a restarted owner.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <set>
#include <thread>

#include "libmgmt.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

Bytes g_data;
int keep_data(void *data, uint32_t *len, void *, uint32_t *, void *, uint32_t *, void *) {
    auto *p = static_cast<uint8_t *>(data);
    g_data.assign(p, p + (data ? *len : 0));
    return 0;
}

// Sets aaa_radius_authorization (owner app_daemon, which refuses a time-out of 0) through the manager.
int set_radius(uint32_t timeout, uint8_t rqt_timeout = 10, std::string *error = nullptr) {
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, 1);
    mgi_set_rqt_timeout(&info, rqt_timeout);
    uint32_t enable = 1;
    info.rqt_item[0] = &enable;
    info.rqt_item[1] = &timeout;
    int rc = final_set_aaa_radius_authorization(&info, nullptr);
    if (error) *error = rc == 0 ? "" : get_errString_r(info.mgi_buf);
    return rc;
}

// Its time-out as the owner answers it, or with type 30 as the manager's copy holds it; -1 on failure.
int64_t radius_timeout(uint8_t type = 0, uint8_t rqt_timeout = 10) {
    mgiInfo info;
    init_mgi_info(&info);
    if (type) mgi_set_rqt_type(&info, type);
    mgi_set_rqt_timeout(&info, rqt_timeout);
    g_data.clear();
    if (final_get_aaa_radius_authorization(&info, keep_data, nullptr) != 0 || g_data.size() < 8) return -1;
    uint32_t words[2];
    std::memcpy(words, g_data.data(), sizeof words);
    return words[1];
}

class Promises : public ::testing::Test {
  protected:
    void SetUp() override {
        set_mgi_transaction_id(0);
        state_ =
            std::string(ipc_runtime_dir()) + "/kept-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        start_mgd();
        start_app();
    }
    void TearDown() override {
        if (app) kill(app->pid(), SIGCONT);
        app.reset();
        mgd.reset();
        set_mgi_transaction_id(0);
    }
    void start_mgd(const std::string &relay_timeout_ms = "5000") {
        mgd = std::make_unique<Daemon>(
            "tools/mgd", std::vector<std::string>{"--state-dir", state_, "-v", "--relay-timeout", relay_timeout_ms},
            MGD_APPID);
        ASSERT_TRUE(mgd->ok()) << mgd->output();
    }
    void start_app() {
        app = std::make_unique<Daemon>("examples/app_daemon", std::vector<std::string>{"--rows", "10"}, 11);
        ASSERT_TRUE(app->ok()) << app->output();
    }
    static void kill9(std::unique_ptr<Daemon> &d) {
        kill(d->pid(), SIGKILL);
        d.reset();
    }
    std::string state_;
    std::unique_ptr<Daemon> mgd, app;
};

TEST_F(Promises, ALateAnswerShiftsNoAnswerAfterIt) {
    run_as(5, [&] {
        kill(app->pid(), SIGSTOP);
        EXPECT_EQ(set_radius(41, 1), -1); // the front end gives up after a second
        kill(app->pid(), SIGCONT);        // the owner answers: the manager passes it on, late
        ASSERT_TRUE(mgd->wait_output("answered type 15"));
        int right = 0;
        for (uint32_t i = 0; i < 20; ++i) {
            std::string error;
            switch (i % 3) {
            case 0: right += set_radius(0, 10, &error) == -1 && error == "timeout 0 is outside 1 to 600"; break;
            case 1: right += set_radius(100 + i) == 0; break;
            case 2: right += radius_timeout() == 100 + i - 1; break;
            }
        }
        EXPECT_EQ(right, 20);
        // Without waiting, the road through the manager fails whenever the answer is not there yet,
        // and its answer then reaches nobody; the direct road waits the platform's time.
        for (uint32_t i = 0; i < 10; ++i) set_radius(200 + i, 0);
        EXPECT_EQ(set_radius(300), 0);
        for (int i = 0; i < 10; ++i) EXPECT_EQ(radius_timeout(0, 0), 300);
    });
}

TEST_F(Promises, AStoppedOwnerHoldsUpOnlyItsOwnSets) {
    kill(app->pid(), SIGSTOP);
    std::atomic<bool> done{false};
    std::thread stuck([&] {
        run_as(5, [&] { EXPECT_EQ(set_radius(55), 0) << "taken once the owner goes on"; });
        done = true;
    });
    ASSERT_TRUE(mgd->wait_output("waits for app11"));
    run_as(5, [&] {
        for (int i = 0; i < 5; ++i) {
            EXPECT_EQ(vk_get_mgi_transaction_state(0), 0u);
            ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
            EXPECT_GE(release_mgi_transaction_lock("admin", 0), 0);
            EXPECT_EQ(radius_timeout(MGI_RQT_MGD_GET), -1) << "nothing accepted yet";
        }
    });
    EXPECT_FALSE(done) << "the other requests waited for the stopped owner";
    kill(app->pid(), SIGCONT);
    stuck.join();

    // The manager gives up first; the owner's late yes still reaches the manager's copy.
    mgd.reset();
    start_mgd("200");
    kill(app->pid(), SIGSTOP);
    run_as(5, [&] {
        std::string error;
        EXPECT_EQ(set_radius(77, 10, &error), -1);
        EXPECT_EQ(error, "application app11 does not answer");
        kill(app->pid(), SIGCONT);
        ASSERT_TRUE(mgd->wait_output("late answer type 15 from app11"));
        EXPECT_EQ(radius_timeout(MGI_RQT_MGD_GET), 77);
    });
}

TEST_F(Promises, TheLockHoldsAgainstOthersAndIdsNeverRepeat) {
    auto other = [](const std::function<int()> &fn) {
        return run_in_child([&](int) { return fn(); }).code;
    };
    std::set<int> ids;
    run_as(5, [&] {
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
            ids.insert(get_mgi_transaction_id());
            EXPECT_GE(release_mgi_transaction_lock("admin", 0), 0);
        }
        ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
        const uint8_t held = get_mgi_transaction_id();
        ids.insert(held);
        EXPECT_EQ(set_radius(61), 0) << "the holder's own set";
        // Another process: a set without the id, a release and a rollback with it, a state query.
        EXPECT_EQ(other([&] {
                      std::string error;
                      set_mgi_transaction_id(0);
                      if (set_radius(62, 10, &error) != -1) return 1;
                      if (error !=
                          "virtual system 0 is locked by transaction " + std::to_string(held) + " of \"admin\"")
                          return 2;
                      set_mgi_transaction_id(held);
                      if (release_mgi_transaction_lock("admin", 0) != -1) return 3;
                      if (rollback_mgi_transaction("admin", 0) != -1) return 4;
                      int state = 0;
                      return get_mgi_transaction_state(&state, 0) == -1 ? 0 : 5;
                  }),
                  0);
        EXPECT_EQ(radius_timeout(), 61);

        // A killed manager comes back with the transaction open and the counter where it was.
        kill9(mgd);
        start_mgd();
        EXPECT_EQ(other([] { return get_mgi_transaction_lock("operator", 0) == -1 ? 0 : 1; }), 0);
        EXPECT_GE(release_mgi_transaction_lock("admin", 0), 0);
        // A holder that ends leaves nothing locked behind it.
        EXPECT_EQ(other([] { return get_mgi_transaction_lock("operator", 0) == 0 ? 0 : 1; }), 0);
        ASSERT_TRUE(mgd->wait_output("released: its holder has ended"));
        ASSERT_EQ(get_mgi_transaction_lock("admin", 0), 0);
        EXPECT_EQ(ids.count(get_mgi_transaction_id()), 0u) << "an id given before";
        EXPECT_GE(release_mgi_transaction_lock("admin", 0), 0);
    });
    EXPECT_EQ(ids.size(), 4u);
}

TEST_F(Promises, AcceptedSetsOutliveTheManagerAndReachARestartedOwner) {
    run_as(5, [&] {
        ASSERT_EQ(set_radius(45), 0);
        ASSERT_EQ(set_radius(0), -1); // refused by the owner: not kept
        kill9(mgd);
        start_mgd();
        EXPECT_EQ(radius_timeout(MGI_RQT_MGD_GET), 45) << "the manager's copy after kill -9";
        kill9(app);
        start_app();
        ASSERT_TRUE(mgd->wait_output("registered: replaying its 1 accepted sets")) << mgd->output();
        EXPECT_EQ(radius_timeout(), 45) << "the owner's own value after its restart";
    });
}

} // namespace
