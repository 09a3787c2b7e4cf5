// The manager's own services against a test manager over the IPC.
#include <gtest/gtest.h>

#include <cstring>

#include "fault_injection.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_services.h"
#include "mgmt/platform/questions.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

mgi_trans_info record_of(const Received &r) {
    mgi_trans_info t;
    EXPECT_EQ(r.bytes.size(), sizeof t);
    std::memcpy(&t, r.bytes.data(), sizeof t);
    return t;
}

Answer reply_words(std::initializer_list<uint32_t> words, int32_t status = 0) {
    Bytes b(words.size() * 4);
    size_t i = 0;
    for (uint32_t w : words) std::memcpy(b.data() + 4 * i++, &w, 4);
    return {b, status, true};
}

// One take, state, refused take, release, rollback round against the test manager, with the
// records as they went out; a refusal of the far side leaves the held id alone.
TEST(Transactions, TakeStateReleaseRollbackAndFarSideRefusals) {
    TestPeer mgd(MGD_APPID); // keeps one transaction, id 42
    uint8_t open_id = 0;
    int32_t status = 0;
    mgd.handle(MGD_MSG_TRANSACTION, [&](const Received &r) {
        mgi_trans_info t = record_of(r), out = t;
        if (t.trans_op == MGI_TRANS_LOCK && t.trans_lock == 1) {
            out.trans_id = open_id ? 0 : 42;
            open_id = 42;
        } else if ((t.trans_op == MGI_TRANS_LOCK && t.trans_id == open_id) || t.trans_op == MGI_TRANS_ROLLBACK) {
            open_id = 0;
        } else if (t.trans_op == MGI_TRANS_STATE) {
            out.trans_id = open_id;
        }
        Bytes b(sizeof out);
        std::memcpy(b.data(), &out, sizeof out);
        return std::vector<Answer>{{b, status, true}};
    });
    run_as(102, [&] {
        set_mgi_transaction_id(0);
        EXPECT_EQ(get_mgi_transaction_lock("admin", 3), 0);
        EXPECT_EQ(get_mgi_transaction_id(), 42);
        int state = -1;
        EXPECT_TRUE(get_mgi_transaction_state(&state, 3) == 0 && state == 1);
        EXPECT_EQ(get_mgi_transaction_lock(nullptr, 3), -1); // a second take is refused, the id stays
        EXPECT_EQ(get_mgi_transaction_id(), 42);
        status = -3;
        EXPECT_EQ(release_mgi_transaction_lock("admin", 3), -1);
        EXPECT_EQ(rollback_mgi_transaction(nullptr, 3), -1);
        EXPECT_EQ(get_mgi_transaction_state(&state, 3), -1);
        EXPECT_EQ(get_mgi_transaction_id(), 42);
        status = 0;
        EXPECT_EQ(release_mgi_transaction_lock("admin", 3), 0);
        EXPECT_EQ(get_mgi_transaction_id(), 0);
        EXPECT_TRUE(get_mgi_transaction_state(&state, 3) == 0 && state == 0);
        EXPECT_EQ(rollback_mgi_transaction(nullptr, 3), 0);
    });
    auto got = mgd.received();
    ASSERT_EQ(got.size(), 9u);
    struct Want {
        size_t at;
        uint32_t op, lock;
        int id;
        const char *user;
    } wants[] = {{0, 2, 1, 0, "admin"}, {1, 1, 0, 0, ""}, {2, 2, 1, 0, ""}, {6, 2, 0, 42, "admin"}, {8, 3, 0, 0, ""}};
    for (const Want &w : wants) {
        mgi_trans_info t = record_of(got[w.at]);
        EXPECT_TRUE(t.trans_op == w.op && t.trans_lock == w.lock && t.trans_id == w.id) << w.at;
        EXPECT_STREQ(t.trans_user, w.user) << w.at;
        EXPECT_TRUE(t.trans_src == 19 && t.trans_vsysid == 3) << w.at; // application 102 has a code here only
    }
}

TEST(Queries, KeptEachQuestionReadsTheStatusItsOwnWay) {
    TestPeer mgd(MGD_APPID), app(40);
    int32_t status = 0;
    uint16_t lock_words[2] = {};
    auto word = [&](uint32_t w) {
        return [&, w](const Received &) { return std::vector<Answer>{reply_words({w}, status)}; };
    };
    mgd.handle(MGD_MSG_TRANSACTION_STATE, word(77));
    mgd.handle(MGD_MSG_SYSTEM_DEBUG_STATE, word(5));
    mgd.handle(MGD_MSG_PLATFORM, word(0x31));
    mgd.handle(MGD_MSG_CONFIG_CHANGE_STATUS, [&](const Received &) {
        return std::vector<Answer>{{Bytes(2, 0xff), status, true}};
    });
    mgd.handle(MGD_MSG_OBJECT_DEFAULT_VALUE, [&](const Received &) {
        return std::vector<Answer>{{Bytes{1, 2, 3, 4, 5, 6}, status, true}};
    });
    mgd.handle(MGD_MSG_CONFIG_LOCK_STATUS, [&](const Received &) {
        Bytes b(4);
        std::memcpy(b.data(), lock_words, 4);
        return std::vector<Answer>{{b, status, true}};
    });
    mgd.handle(MGD_MSG_PRE_CONFIG_FEATURE,
               [&](const Received &r) { return std::vector<Answer>{reply_words({r.bytes[0] * 10u}, -9)}; });
    app.handle(MGD_MSG_PRE_CONFIG_FEATURE, [&](const Received &) { return std::vector<Answer>{reply_words({1})}; });
    const uint32_t target[10] = {0x4f0001, 0x20401, 0};
    struct Row {
        int32_t status;
        int state, debug, platform, change, default_value, lock;
    } rows[] = {
        {0, 77, 5, 0x31, 1, 0, 0}, {12, 77, 5, 0x31, 1, 0, 0}, {-2, 77, 5, -1, 0, 0, -1}, {-1, -1, -1, -1, 0, -1, -1}};
    run_as(5, [&] {
        for (const Row &r : rows) {
            status = r.status;
            uint8_t out[8];
            std::memset(out, 0xEE, sizeof out);
            int locked = -1;
            EXPECT_EQ(vk_get_mgi_transaction_state(0x0102), r.state) << r.status;
            EXPECT_EQ(vk_get_system_debug_state(), r.debug) << r.status;
            EXPECT_EQ(get_mgd_platform(), r.platform) << r.status;
            EXPECT_EQ(get_config_change_status(3), r.change) << r.status;
            EXPECT_EQ(get_object_default_value_with_target(target, 0x0203, out, 8), r.default_value) << r.status;
            EXPECT_EQ(Bytes(out, out + 8), r.default_value ? Bytes(8, 0xEE) : (Bytes{1, 2, 3, 4, 5, 6, 0, 0}))
                << r.status;
            EXPECT_EQ(get_mgd_config_lock_status(&locked), r.lock) << r.status;
        }
        status = 0; // the lock: the first word is 1, or the second is not 0
        for (auto [a, b, want] : {std::tuple{0, 7, 1}, {1, 0, 1}, {2, 0, 0}, {0, 0, 0}}) {
            lock_words[0] = uint16_t(a);
            lock_words[1] = uint16_t(b);
            int locked = -1;
            EXPECT_EQ(get_mgd_config_lock_status(&locked), 0);
            EXPECT_EQ(locked, want) << a << "," << b;
        }
        uint32_t v = 0;
        EXPECT_EQ(get_pre_config_feature(4, &v), 0);
        EXPECT_EQ(v, 40u);
        EXPECT_EQ(get_pre_config_feature_with_dst_appid(40, 4, &v), 0);
        EXPECT_EQ(v, 1u);
    });
    auto got = mgd.received();
    EXPECT_EQ(got[2].bytes[0], 1); // word 1 asks for the platform
    EXPECT_EQ(be16(&got[5].bytes[0]), 16u << 8); // the lock status asks for 16, host order
    const Bytes rq = got[4].bytes; // the default value: the target in host order, the selector at 40
    ASSERT_EQ(rq.size(), 44u);
    EXPECT_TRUE(rq[4] == 0x01 && rq[5] == 0x04 && rq[40] == 0x03 && rq[41] == 0x02 && rq[42] == 0);
}

// No manager and no memory: the release reduces a failed IPC to -1 (the others give their own
// result), and each call tells its own text, on the console or on standard output.
TEST(NoManager, KeptReleaseReducesAFailedIpcToMinusOneAndEachCallTellsItsText) {
    ConsoleCapture cap;
    testing::internal::CaptureStdout();
    run_as(5, [&] {
        set_mgi_transaction_id(9);
        EXPECT_LT(get_mgi_transaction_lock("a", 0), -1);
        EXPECT_LT(rollback_mgi_transaction("a", 0), -1);
        int state, locked = 5;
        EXPECT_LT(get_mgi_transaction_state(&state, 0), -1);
        EXPECT_EQ(release_mgi_transaction_lock("a", 0), -1); // reduced to -1
        EXPECT_EQ(get_mgi_transaction_id(), 9);
        set_mgi_transaction_id(0);
        EXPECT_EQ(vk_get_mgi_transaction_state(1), -1);
        EXPECT_EQ(vk_get_system_debug_state(), -1);
        EXPECT_EQ(get_mgd_platform(), -1);
        EXPECT_EQ(get_mgd_config_lock_status(&locked), -1);
        EXPECT_EQ(get_config_change_status(1), 0);
        uint32_t v = 3;
        EXPECT_EQ(get_pre_config_feature(1, &v), -1);
        auto out_of_memory = [](auto call) {
            fault::arm_alloc_failures(1);
            return call();
        };
        EXPECT_EQ(out_of_memory([&] { return get_mgi_transaction_state(&state, 0); }), -1);
        EXPECT_EQ(out_of_memory([&] { return get_pre_config_feature(1, &v); }), -1);
        EXPECT_EQ(out_of_memory([] { return get_config_change_status(1); }), 0);
        EXPECT_EQ(out_of_memory([] { return vk_get_mgi_transaction_state(1); }), -1);
        fault::disarm();
        EXPECT_EQ(v, 3u);
    });
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "CAP: ipc send failed\nCAP: ipc malloc error\n");
    EXPECT_EQ(cap.text(),
              "MGI: Failed send message to MGD\n" // the state's; a failed allocation of the last tells nothing
              "MGI TRANSACTION STATE: ipc send recv failed\n"
              "SYSTEM DEBUG STATE: ipc send recv failed\n"
              "ipc error.\n"
              "MGI: Failed to malloc, when get transaction state\n"
              "malloc ipc buf failed\n");
}

TEST(OneWay, ConfigurationRequestsDebugConfigAndLockOfTheManagementSlot) {
    TestPeer mgd(MGD_APPID);
    mgd.handle(MGD_MSG_REQUEST_CONFIG, [](const Received &) { return std::vector<Answer>{}; });
    mgd.handle(MGD_MSG_DBG_CONFIG, [](const Received &) { return std::vector<Answer>{}; });
    // The lock goes to the manager of the management slot plus one.
    setenv("MGMT_MCP_SLOT", "2", 1);
    setenv("MGMT_SLOT", "3", 1);
    TestPeer remote(MGD_APPID);
    unsetenv("MGMT_SLOT");
    remote.handle(MGD_MSG_LOCK_CFG, [](const Received &) { return std::vector<Answer>{}; });
    ConsoleCapture cap;
    run_as(65, [&] {
        uint16_t before = vk_x86_get_request_config_num();
        EXPECT_EQ(request_config_from_mgd(0x0a0b), 0);
        EXPECT_EQ(vk_x86_get_request_config_num(), uint16_t(before + 1));
        uint8_t rec[4] = {0x34, 0x12, 0, 0};
        EXPECT_EQ(create_request_config_info(rec), 0);
        EXPECT_TRUE(rec[0] == 0x12 && rec[1] == 0x34 && be16(rec + 2) == uint16_t(before + 2));
        EXPECT_EQ(make_dbg_config(1, 2, 3, nullptr), -1); // needs the thread's pair
        init_mgi();
        EXPECT_EQ(make_dbg_config(1, 2, 3, "trace"), 0);
        EXPECT_TRUE(req_lock_mgd_cfg(1) == 0 && req_lock_mgd_cfg(0) == 0);
    });
    unsetenv("MGMT_MCP_SLOT");
    run_as(65, [] { EXPECT_EQ(req_lock_mgd_cfg(0), -1); }); // slot 1: nobody there
    EXPECT_EQ(cap.text(), "IPC send MGD msg(unlock) error\n");
    ASSERT_TRUE(mgd.wait_for(2) && remote.wait_for(2));
    auto got = mgd.received();
    EXPECT_EQ(be16(got[0].bytes.data()), 0x0a0b);
    ASSERT_EQ(got[1].bytes.size(), 76u);
    mgi_dbg_config d;
    std::memcpy(&d, got[1].bytes.data(), sizeof d);
    EXPECT_TRUE(d.word[2] == 3 && std::string(d.text) == "trace");
    EXPECT_EQ(remote.received()[0].bytes[4], 1); // the lock word
}

// What this process answers alone: the source code of a transaction record by application, the
// request counter's wrap, the x86 daemons.
TEST(Local, SourceCodesCounterWrapAndX86DaemonList) {
    for (auto [app, src] :
         {std::pair{5u, 1}, {23u, 4}, {46u, 3}, {102u, 19}, {114u, 27}, {118u, 26}, {16u, 0}, {2u, 0}}) {
        run_as(app, [&] {
            mgi_trans_info t = {};
            EXPECT_EQ(set_trans_src(&t), 0);
            EXPECT_EQ(t.trans_src, src) << app;
        });
    }
    EXPECT_EQ(set_trans_src(nullptr), -1);
    uint8_t rec[4] = {};
    while (vk_x86_get_request_config_num() != 65535) create_request_config_info(rec);
    request_config_from_mgd(1); // nobody listens; the counter moves all the same
    EXPECT_EQ(vk_x86_get_request_config_num(), 0);
    for (uint32_t id : {65u, 71u, 76u, 80u, 85u, 88u, 90u, 106u, 109u, 0x10000u + 65u})
        EXPECT_EQ(is_x86_daemon(id), 1) << id;
    for (uint32_t id : {64u, 70u, 77u, 89u, 105u, 110u, 2u})
        EXPECT_EQ(is_x86_daemon(id), 0) << id;
}

} // namespace
