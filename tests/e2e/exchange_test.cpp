// Both exchange roads between real endpoints over the platform IPC: a test
// manager (application 2) and a test application answer a front end thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <poll.h>
#include <cstring>

#include "mgmt/mgi.h"
#include "fault_injection.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

constexpr uint32_t kApp = 11;
const uint32_t kTarget[10] = {0xe0001, 0xe0002, 0};

Answer final_msg(uint8_t type = MGI_RSP_FINAL, const Bytes &payload = {}) {
    return {mgi_record_message(type, payload), 0, false};
}

Bytes records(std::initializer_list<uint8_t> firsts, size_t stride) {
    Bytes b;
    for (uint8_t f : firsts) {
        Bytes r(stride, 0);
        r[0] = f;
        b.insert(b.end(), r.begin(), r.end());
    }
    return b;
}

void reset_modes() {
    set_mgi_info_from(0);
    set_mgi_ha_unset_src(0);
    set_mgi_fernlook_src(0);
    set_force_cli_mode(0);
    set_force_import_mode(0);
    set_mgi_transaction_id(0);
}

// A set-shaped request through the manager with a small record.
int send_through_mgd(mgiInfo &info, mgi_rsp_callback cb = nullptr, int stride = 4) {
    uint8_t record[4] = {0xde, 0xad, 0xbe, 0xef};
    init_mgi_exchange_r(info.mgi_buf);
    prepare_mgi_exchange_r(info.mgi_buf, kTarget, info.rqt_firstseg, info.rqt_type, sizeof record, 0, 0, 0, 0, 0,
                           0, 0, 0, record);
    return make_mgi_exchange_with_context(&info, cb, stride);
}

// A get-shaped request on the direct road, with what the context holds.
void prepare_direct(mgiInfo &info) {
    prepare_mgi_exchange_direct_r(info.mgi_buf, kTarget, info.rqt_type, info.rqt_offset, info.rqt_aux, 0, 0);
    mgi_final_rqt_message(&info);
}

struct DirectCalls {
    std::vector<Bytes> data, err, cookie;
    int stop_at = -1;
};

int direct_cb(void *data, uint32_t *dl, void *err, uint32_t *el, void *cookie, uint32_t *cl, void *ud) {
    auto *c = static_cast<DirectCalls *>(ud);
    auto take = [](void *p, uint32_t n) {
        auto *b = static_cast<uint8_t *>(p);
        return p ? Bytes(b, b + n) : Bytes{};
    };
    c->data.push_back(take(data, *dl));
    c->err.push_back(take(err, *el));
    c->cookie.push_back(take(cookie, *cl));
    return int(c->data.size()) == c->stop_at ? 1 : 0;
}

class Exchange : public ::testing::Test {
  protected:
    void SetUp() override { reset_modes(); }
    void TearDown() override { reset_modes(); }
};

// ---------------------------------------------------------------- both roads

struct SrcCase {
    uint32_t app;
    std::function<void(mgiInfo &)> setup;
    uint8_t through_mgd;
    uint8_t direct;
    const char *what;
};

// Each row is sent on both roads: the source-of-request code each writes. The first row carries a
// whole context, and the header table below says which fields each road writes of it (-1: not
// looked at).
TEST_F(Exchange, KeptDirectRoadSourceIgnoresModesAndInfoFrom) {
    TestPeer mgd(MGD_APPID), app(kApp);
    mgd.handle(MGI_IPC_MSG, [](const Received &) { return std::vector<Answer>{final_msg(MGI_RSP_FINAL2)}; });
    app.handle(MGI_IPC_MSG, [](const Received &) {
        return std::vector<Answer>{{mgi_message(MGI_RSP_FINAL, {}), 0, true}};
    });
    auto none = [](mgiInfo &) {};
    auto whole_context = [](mgiInfo &info) {
        set_mgi_transaction_id(0x21);
        mgi_set_rqt_type(&info, 2);
        mgi_set_rqt_language(&info, 4);
        mgi_set_rqt_vsysid(&info, 0x0a0b);
        mgi_set_rqt_dst_vsysid(&info, 0x0c0d);
        mgi_set_rqt_sublevel(&info, 0x11);
        mgi_set_attr_brief(&info, 0x12);
        mgi_set_revision(&info, 0x01020304);
        mgi_set_rqt_descend(&info, 0x14);
        mgi_set_rsp_data_type(&info, 0x05060708);
        mgi_set_flag(&info, 0x80000001);
        mgi_set_rqt_offset(&info, 0x1234);
        info.rqt_aux = 0x4321;
        mgi_set_fernlook_taskid(&info, "task-1");
        mgi_set_fernlook_type(&info, "probe");
    };
    const std::vector<SrcCase> cases = {
        {5, whole_context, 1, 1, "front end in normal mode"},
        {5, [](mgiInfo &) { set_mgi_ha_unset_src(1); set_force_cli_mode(2); }, 10, 1, "HA-unset is tested first"},
        {5, [](mgiInfo &) { set_force_cli_mode(2); set_force_import_mode(1); }, 29, 1, "FRU configuration"},
        {5, [](mgiInfo &) { set_force_cli_mode(1); set_force_import_mode(1); }, 16, 1, "force CLI"},
        {5, [](mgiInfo &) { set_force_import_mode(-3); }, 18, 1, "force import, any non-zero"},
        {5, [](mgiInfo &) { set_mgi_info_from(7); }, 7, 1, "thread's own code wins through MGD only"},
        {16, [](mgiInfo &) { set_mgi_fernlook_src(1); }, 22, 0, "fernlook mode"},
        {16, none, 0, 0, "16 plain"},
        {23, none, 4, 4, "by application id (the transaction tests sweep the list)"},
        {46, none, 3, 0, "46 passes its rqt_src on the direct road"},
        {53, [](mgiInfo &i) { i.rqt_src = 22; }, 22, 0, "relay passes 22 on through MGD"},
        {11, [](mgiInfo &i) { i.rqt_src = 2; }, 2, 0, "relay 11 passes 2"},
        {29, [](mgiInfo &i) { i.rqt_src = 28; }, 28, 0, "relay 29 passes 28"},
        {11, [](mgiInfo &i) { i.rqt_src = 5; }, 0, 0, "relay filter keeps its own choice"},
        {46, [](mgiInfo &i) { i.rqt_src = 9; }, 3, 9, "46 passes anything on the direct road"},
        {5, [](mgiInfo &i) { i.rqt_src = 22; }, 1, 1, "no relay"},
    };
    size_t n = 0;
    for (const SrcCase &c : cases) {
        SCOPED_TRACE(c.what);
        run_as(c.app, [&] { // direct first: the thread's new pair holds no earlier request
            mgiInfo info;
            init_mgi_info(&info);
            c.setup(info);
            prepare_direct(info);
            EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, kApp, nullptr, nullptr), 0);
            init_mgi_info(&info);
            c.setup(info);
            EXPECT_EQ(send_through_mgd(info), 0);
        });
        reset_modes();
        ++n;
        ASSERT_TRUE(mgd.wait_for(n));
        ASSERT_TRUE(app.wait_for(n));
        EXPECT_EQ(mgd.received().back().bytes[MGI_OFF_SRC], c.through_mgd);
        EXPECT_EQ(app.received().back().bytes[MGI_OFF_SRC], c.direct);
    }
    const Received m = mgd.received()[0], d = app.received()[0];
    EXPECT_EQ(m.src_app, 5u);
    ASSERT_EQ(m.bytes.size(), 312u + 4u); // IPC length is len plus the header: a plain record, no chain
    ASSERT_EQ(d.bytes.size(), 312u);
    struct Row {
        size_t at;
        int width;
        int64_t mgd, direct;
    } rows[] = {{0, 1, 8, -1},          {3, 1, 0x21, 0x21},       {4, 1, 96, -1},           {5, 1, 4, 4},
                {6, 2, 0x0a0b, 0x0a0b}, {46, 2, 0x0c0d, 0},       {88, 4, 0xe0001, 0xe0001}, {128, 1, 0, 139},
                {129, 1, 2, 2},         {130, 2, 4, 0},           {132, 4, -1, 0x1234},     {140, 2, -1, 0x4321},
                {144, 4, 0x80000001, 0x80000001}, {148, 4, 0, 0x11}, {164, 4, -1, 0x12},
                {216, 4, 0x01020304, 0x01020304}, {220, 4, -1, 0x14}, {308, 4, 0x05060708, 0x05060708},
                {312, 4, 0xdeadbeef, -1}};
    auto field = [](const Bytes &b, const Row &r) -> int64_t {
        return r.width == 1 ? b[r.at] : r.width == 2 ? be16(&b[r.at]) : be32(&b[r.at]);
    };
    for (const Row &r : rows) {
        EXPECT_TRUE(r.mgd < 0 || field(m.bytes, r) == r.mgd) << "through mgd, offset " << r.at;
        EXPECT_TRUE(r.direct < 0 || field(d.bytes, r) == r.direct) << "direct, offset " << r.at;
    }
    EXPECT_STREQ(reinterpret_cast<const char *>(&d.bytes[240]), "task-1");
    EXPECT_STREQ(reinterpret_cast<const char *>(&d.bytes[273]), "probe");
}

// ---------------------------------------------------------------- road through MGD

std::vector<uint8_t> g_seen;
int g_fail_at = -1;
int record_cb(void *rec) {
    g_seen.push_back(*static_cast<uint8_t *>(rec));
    return int(g_seen.size()) == g_fail_at ? -1 : 0;
}

TEST_F(Exchange, KeptCallbackFailureStopsLaterMessagesButNotTheResult) {
    TestPeer mgd(MGD_APPID);
    auto walk = [&](std::vector<Answer> answers) {
        mgd.handle(MGI_IPC_MSG, [answers](const Received &) { return answers; });
        g_seen.clear();
        run_as(5, [&] {
            mgiInfo info;
            init_mgi_info(&info);
            EXPECT_EQ(send_through_mgd(info, record_cb, 4), 0);
        });
        return g_seen;
    };
    g_fail_at = 2;
    // The rest of the first message still comes; in a final message the first failure stops the walk.
    EXPECT_EQ(walk({final_msg(MGI_RSP_PARTIAL, records({1, 2, 3}, 4)), final_msg(MGI_RSP_PARTIAL, records({4}, 4)),
                    final_msg(MGI_RSP_FINAL, records({5}, 4))}),
              (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(walk({final_msg(MGI_RSP_FINAL, records({7, 8, 9}, 4))}), (std::vector<uint8_t>{7, 8}));
    g_fail_at = -1;
}

// Every way a request through the manager ends, in order, with what each tells on the console.
TEST_F(Exchange, ThroughMgdAnswersAndFaultsAreToldOnTheConsole) {
    TestPeer mgd(MGD_APPID);
    std::atomic<int> answer_type{MGI_RSP_FINAL}; // -1: no answer
    mgd.handle(MGI_IPC_MSG, [&](const Received &) {
        if (answer_type < 0) return std::vector<Answer>{};
        if (answer_type != MGI_RSP_ERROR) return std::vector<Answer>{final_msg(uint8_t(answer_type))};
        Bytes body(16, 0);
        int32_t code = -100;
        std::memcpy(body.data(), &code, 4);
        const char text[8] = "denied";
        body.insert(body.end(), text, text + 8);
        return std::vector<Answer>{{mgi_message(MGI_RSP_ERROR, {{MGI_SEG_ERROR, body}}), 0, false}};
    });
    ConsoleCapture cap;
    g_seen.clear();
    auto started = std::chrono::steady_clock::now();
    run_as(5, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        EXPECT_EQ(send_through_mgd(info, record_cb, 4), 0); // final with len 0: no callback
        EXPECT_TRUE(g_seen.empty());
        answer_type = MGI_RSP_ERROR;
        EXPECT_EQ(send_through_mgd(info, record_cb, 4), -1);
        EXPECT_EQ(mgi_get_rsp_err_code_r(info.mgi_buf), -100); // the error stays for the reader
        EXPECT_STREQ(get_errString_r(info.mgi_buf), "denied");
        answer_type = 21;
        EXPECT_EQ(send_through_mgd(info, record_cb, 4), -1);
        answer_type = -1;
        mgi_set_rqt_timeout(&info, 0);
        EXPECT_EQ(send_through_mgd(info), -1);
        init_mgi_info(&info); // the default time-out again
        fault::arm_poll({true, 1, 0, POLLERR | POLLHUP});
        EXPECT_EQ(send_through_mgd(info), -1);
        // The last two go unanswered (a late answer would be dropped and told as a failed receive).
        ASSERT_TRUE(mgd.wait_for(5));
        answer_type = MGI_RSP_FINAL;
        fault::arm_recv_failures(3); // the message stays waiting, so the loop goes round again
        EXPECT_EQ(send_through_mgd(info), 0);
        fault::disarm();
    });
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    answer_type = MGI_RSP_FINAL;
    // The plain pair form: no context, source 4 for application 23, its own poll text.
    run_as(23, [&] {
        mgiBuf *buf = init_mgi_exchange();
        prepare_mgi_exchange_r(buf, kTarget, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, nullptr);
        EXPECT_EQ(make_mgi_exchange(nullptr, 4), 0);
        fault::arm_poll({true, -1, EINTR, 0});
        EXPECT_EQ(make_mgi_exchange_r(buf, nullptr, 4), -1);
        fault::disarm();
    });
    ASSERT_TRUE(mgd.wait_for(8));
    EXPECT_EQ(mgd.received()[6].bytes[MGI_OFF_SRC], 4);
    // Target words are printed as they stand in the send buffer, big-endian, unconverted.
    const std::string targets = "MGI target[0] " + std::to_string(__builtin_bswap32(0xe0001)) + "\nMGI target[1] " +
                                std::to_string(__builtin_bswap32(0xe0002)) + "\n";
    EXPECT_EQ(cap.text(),
              "MGI: unknown msg type: 21\n"
              "MGI CONTEXT: poll failed: return 0, error: Success(0), myapp app5 dst-app mgd\n" +
                  targets +
                  "MGI: unknown event 18\nMGI: recv failed\nMGI: recv failed\nMGI: recv failed\n"
                  "MGI R: poll failed: return -1, error: Interrupted system call(4), myapp app23 dst-app mgd\n" +
                  targets);
}

// ---------------------------------------------------------------- direct road

// Pages answered by the application, by the cookie the requester sent back: two partial answers
// with cookies, then a final one.
std::vector<Answer> paged_answer(const Received &r) {
    static const Bytes kCookie1(24, 0xC1), kCookie2(24, 0xC2);
    auto sent = [&](const Bytes &c) {
        return std::search(r.bytes.begin() + 312, r.bytes.end(), c.begin(), c.end()) != r.bytes.end();
    };
    if (sent(kCookie2)) return {{mgi_message(MGI_RSP_FINAL, {{134, Bytes(12, 3)}}), 0, true}};
    if (sent(kCookie1)) return {{mgi_message(MGI_RSP_PARTIAL, {{134, Bytes(12, 2)}, {132, kCookie2}}), 0, true}};
    return {{mgi_message(MGI_RSP_PARTIAL, {{134, Bytes(12, 1)},
                                           {132, kCookie1},
                                           {131, bytes_of(std::string("cond-a\0\0", 8))},
                                           {138, Bytes(4, 0x38)}}),
             0, true}};
}

TEST_F(Exchange, DirectPagingSendsCookieConditionQueryAndRecordBack) {
    TestPeer app(kApp);
    app.handle(MGI_IPC_MSG, paged_answer);
    DirectCalls calls;
    run_as(5, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 2);
        uint8_t key[6] = {'k', 'e', 'y', 0, 0, 0};
        info.mgidata = key;
        info.mgidata_len = 6;
        mgi_set_rqt_ruledata_subtype(&info, 0x77);
        prepare_direct(info);
        EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, kApp, direct_cb, &calls), 0);
        // The record now lives in the send buffer.
        EXPECT_EQ(info.mgidata, info.mgi_buf->sbuf + 320);
    });
    ASSERT_EQ(app.received().size(), 3u);
    ASSERT_EQ(calls.data.size(), 3u);
    EXPECT_EQ(calls.data[2], Bytes(12, 3));
    EXPECT_EQ(calls.cookie[0], Bytes(24, 0xC1));
    EXPECT_TRUE(calls.cookie[2].empty());

    // The second: the type stays; key (subtype 0x77), the cookie unchanged, the condition, the query data.
    const Bytes second = app.received()[1].bytes;
    ASSERT_EQ(second.size(), 312u + 74u);
    expect_fields(second.data(), {{128, 1, 133},
                                  {129, 1, 2},
                                  {130, 2, 14 + 32 + 16 + 12},
                                  {313, 1, 133},
                                  {316, 4, 0x77},
                                  {327, 1, 132},
                                  {359, 1, 131},
                                  {374, 1, 139},
                                  {375, 1, 138}});
    EXPECT_STREQ(reinterpret_cast<const char *>(&second[320]), "key");
    EXPECT_EQ(Bytes(&second[334], &second[358]), Bytes(24, 0xC1));
    EXPECT_STREQ(reinterpret_cast<const char *>(&second[366]), "cond-a");
    // The third carries the second cookie and no condition (the second answer had none).
    EXPECT_EQ(be16(&app.received()[2].bytes[130]), 14u + 32u);
}

// A partial answer without a cookie is closed with type 22; an error answer reaches the callback, not
// the result; a callback that says stop ends the exchange with -1.
TEST_F(Exchange, DirectCloseErrorAndStop) {
    TestPeer app(kApp);
    std::atomic<int> answer{MGI_RSP_PARTIAL};
    app.handle(MGI_IPC_MSG, [&](const Received &r) {
        if (r.bytes[129] == MGI_RQT_CLOSE) return std::vector<Answer>{{mgi_message(MGI_RSP_FINAL, {}), 0, true}};
        if (answer == MGI_RSP_PARTIAL)
            return std::vector<Answer>{
                {mgi_message(MGI_RSP_PARTIAL, {{137, Bytes(4, 9)}, {131, Bytes(8, 0x31)}}), 0, true}};
        Bytes body(16, 0);
        const int32_t code = -2;
        std::memcpy(body.data(), &code, 4);
        return std::vector<Answer>{{mgi_message(MGI_RSP_ERROR, {{135, body}}), 0, true}};
    });
    DirectCalls calls;
    run_as(5, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, 2);
        prepare_direct(info);
        EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, kApp, direct_cb, &calls), 0);
        answer = MGI_RSP_ERROR;
        prepare_direct(info);
        EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, kApp, direct_cb, &calls), 0);
        EXPECT_EQ(mgi_get_rsp_err_code_r(info.mgi_buf), -2);
        calls.stop_at = 4;
        prepare_direct(info);
        EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, kApp, direct_cb, &calls), -1);
    });
    ASSERT_EQ(app.received().size(), 4u);
    // The close: no chain for the server, but the condition of the last answer is counted.
    expect_fields(app.received()[1].bytes.data(),
                  {{129, 1, MGI_RQT_CLOSE}, {128, 1, 139}, {130, 2, 16}, {313, 1, 131}});
    ASSERT_EQ(calls.data.size(), 4u); // the partial answer, the close's final one, two errors
    EXPECT_EQ(calls.data[0], Bytes(4, 9));
    EXPECT_TRUE(calls.data[2].empty() && calls.err[2].size() == 16);
}

// Nothing to talk with: a pair that cannot be made is reported and nothing is kept, and a context
// without one is refused; nobody bound on either road fails at once; a silent application fails at
// its time-out.
TEST_F(Exchange, NothingToTalkWithFailsAndSaysSo) {
    ConsoleCapture cap;
    auto started = std::chrono::steady_clock::now();
    run_as(5, [] {
        fault::arm_alloc_failures(1); // the send buffer
        EXPECT_EQ(init_mgi_r(), nullptr);
        EXPECT_EQ(fault::last_alloc_size, MGI_MAX_LEN) << "no buffer larger than the largest message";
        fault::arm_alloc_failures(1, 1); // the receive buffer, after the send buffer was had
        EXPECT_EQ(init_mgi_r(), nullptr);
        EXPECT_EQ(fault::last_alloc_size, MGI_MAX_LEN);
        fault::arm_alloc_failures(2);
        mgiInfo info;
        EXPECT_EQ(init_mgi_info(&info), 0);
        EXPECT_EQ(info.mgi_buf, nullptr);
        EXPECT_EQ(make_mgi_exchange_with_context(&info, nullptr, 4), -1);
        EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, kApp, nullptr, nullptr), -1);
        fault::arm_alloc_failures(2);
        EXPECT_EQ(init_mgi_info_r(&info), -1);
        EXPECT_EQ(info.mgi_buf_owned, 0u);
        fault::disarm();
        init_mgi_info(&info);
        EXPECT_EQ(send_through_mgd(info), -1);
        prepare_direct(info);
        EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, 77, nullptr, nullptr), -1);
    });
    TestPeer app(kApp);
    app.handle(MGI_IPC_MSG, [](const Received &) { return std::vector<Answer>{}; });
    run_as(5, [] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_timeout(&info, 1);
        prepare_direct(info);
        EXPECT_EQ(make_mgi_exchange_direct_with_context(&info, kApp, nullptr, nullptr), -1);
    });
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    std::string no_pair;
    for (int i = 0; i < 4; ++i) no_pair += "MGI: failed to alloc memory\n"; // every pair that could not be made
    EXPECT_EQ(cap.text(), no_pair + "MGI: ipc send failed myapp app5 dst-app mgd\n"
                          "MGI: ipc send failed myapp app5 dst-app app77\n"
                          "MGI: ipc send failed myapp app5 dst-app app11\n");
}

TEST_F(Exchange, DirectPlainPairFormDiffersAsStated) {
    TestPeer app(kApp);
    app.handle(MGI_IPC_MSG, paged_answer);
    run_as(5, [&] {
        mgiBuf *buf = init_mgi_exchange();
        prepare_mgi_exchange_direct_r(buf, kTarget, 2, 0, 0, 0, 0);
        uint8_t key[6] = {'k'};
        set_sendseg_subtype_r(buf, 5);
        append_rqt_segment_r(buf, 133, key, 6);
        // Without a callback the plain form gives up after the first reply.
        EXPECT_EQ(make_mgi_exchange_direct(kApp, nullptr, nullptr), -1);

        prepare_mgi_exchange_direct_r(buf, kTarget, 2, 0, 0, 0, 0);
        append_rqt_segment_r(buf, 133, key, 6);
        set_mgi_transaction_id(1);
        DirectCalls calls;
        auto cb = [](void *d, uint32_t *dl, void *e, uint32_t *el, void *c, uint32_t *cl, void *ud) {
            set_mgi_transaction_id(uint8_t(get_mgi_transaction_id() + 1));
            return direct_cb(d, dl, e, el, c, cl, ud);
        };
        EXPECT_EQ(make_mgi_exchange_direct_r(buf, kApp, cb, &calls), 0);
        EXPECT_EQ(calls.data.size(), 3u);
    });
    auto got = app.received();
    ASSERT_EQ(got.size(), 4u);
    // The third request: the record is not sent again, nor query data; the id is written at every send.
    expect_fields(got[2].bytes.data(), {{3, 1, 2}, {128, 1, 132}, {130, 2, 32 + 16}, {344, 1, 139}, {345, 1, 131}});
    EXPECT_EQ(got[3].bytes[3], 3);
    set_mgi_transaction_id(0);
}

} // namespace
