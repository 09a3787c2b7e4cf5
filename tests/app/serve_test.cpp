// Requests served in process: header decoding, the segment walk, the order of
// the handlers, the response header, data bodies, the oversized response and
// the local flag of source 8.

#include "app_fixture.h"
#include "mgmt/platform/ipc_flags.h"

using namespace app_test;

namespace {

constexpr uint32_t M = 0x510000; // module of this file's entities

// What the handlers saw while the request was in service.
struct Seen {
    mgiInfo info;
    int config_mode;
    std::string admin_user, ip_addr;
    int ui_language;
    uint32_t local_flags;
    std::vector<std::string> calls;
};
Seen g_seen;

void call(const std::string &what) { g_seen.calls.push_back(what); }

int record_data(mgiInfo *i) {
    g_seen.info = *i;
    g_seen.config_mode = _config_mode;
    g_seen.admin_user = mgi_get_admin_user();
    g_seen.ip_addr = mgi_get_ip_addr();
    g_seen.ui_language = _ui_language;
    g_seen.local_flags = ipcmsg_get_local_flags();
    call("data");
    return 0;
}
int final_answer(mgiInfo *i) { return call("encode"), set_rsptype(i, MGI_RSP_FINAL), 0; }
int index_a(mgiInfo *) { return call("index a"), 0; }
int index_b(mgiInfo *) { return call("index b"), 0; }
int index_c(mgiInfo *i) {
    call("index c");
    if (i->rqt_type == 99) set_decode_errcode(i, -7);
    return 0;
}
int err_to_text(mgiInfo *i) {
    call("errHandle " + std::to_string(i->decodeErr) + "/" + std::to_string(i->encodeErr));
    mgi_sprintf_err(i, "object failed");
    return 0;
}
int fail_with_text(mgiInfo *i) { return mgi_sprintf_err(i, "role %s does not exist", "r9"), 0; }

class Serve : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { add_entity({}, M | 1, 0, nullptr, nullptr, record_data, final_answer); }
    void SetUp() override { g_seen = Seen{}; }
};

TEST_F(Serve, HeaderFieldsReachTheContextAndTheResponseHeader) {
    Bytes q = request({M | 1}, 77, {{MGI_SEG_COOKIE, {1, 2, 3}, 9}});
    // rsp_aux is not read: the response carries rsp_aux of the context.
    const std::pair<mgmt::HdrField, uint32_t> in[] = {
        {hdr::src, 3}, {hdr::timeout, 40}, {hdr::language, 7}, {hdr::vsysid, 0x1234}, {hdr::user_priv, 0x01020304},
        {hdr::login_vsysid, 0x0506}, {hdr::dst_vsysid, 0x0708}, {hdr::offset, MGI_NO_MORE}, {hdr::rqt_aux, 0xabcd},
        {hdr::mgi_flag, 3}, {hdr::sublevel, 11}, {hdr::mask1, 0x0f}, {hdr::mask2, 0xf0}, {hdr::mask3, 0x100},
        {hdr::descend, 12}, {hdr::xmask7, 0x70}, {{MGI_OFF_XMASK7 + 8, 4, "xmask9"}, 0x72},
        {hdr::rsp_data_type, 0x55}, {hdr::rsp_aux, 0xdeadbeef}};
    for (auto [field, value] : in) mgmt::put_field(q.data(), field, value);
    std::memcpy(&q[MGI_OFF_USER], "alice", 5);
    std::memcpy(&q[MGI_OFF_IP_ADDR], "10.1.2.3", 8);
    std::memset(&q[MGI_OFF_FERNLOOK_TASKID], 'T', 33); // no terminator in the field
    std::memcpy(&q[MGI_OFF_FERNLOOK_TYPE], "probe", 5);

    Response r = serve(q);
    ASSERT_EQ(g_seen.calls, (std::vector<std::string>{"data", "encode"}));
    const mgiInfo &i = g_seen.info;
    const int64_t seen[][2] = {
        {i.rqt_src, 3}, {g_seen.config_mode, 3}, {i.rqt_timeout, 40}, {i.rqt_language, 7}, {g_seen.ui_language, 7},
        {i.rqt_vsysid, 0x1234}, {i.rqt_user_priv, 0x01020304}, {i.rqt_login_vsysid, 0x0506},
        {i.rqt_dst_vsysid, 0x0708}, {i.rqt_type, 77}, {i.rqt_nextseg, MGI_SEG_COOKIE}, {i.rqt_len, 11},
        {i.rqt_offset, MGI_NO_MORE}, {i.rqt_no_more, 1}, {i.rqt_aux, 0xabcd}, {i.mgi_flag, 3}, {i.rqt_sublevel, 11},
        {i.rqt_descend, 12}, {i.rqt_xmask[6], 0x70}, {i.rqt_xmask[8], 0x72}, {i.rqt_mask1, 0x0f}, {i.rsp_mask1, 0x0f},
        {i.rsp_mask3, 0x100}, {i.rsp_data_type, 0x55},
    };
    for (size_t k = 0; k < std::size(seen); ++k) EXPECT_EQ(seen[k][0], seen[k][1]) << "row " << k;
    EXPECT_EQ((std::vector<std::string>{i.rqt_user, g_seen.admin_user, i.rqt_ip_addr, g_seen.ip_addr,
                                        i.fernlook_taskid, i.fernlook_type}),
              (std::vector<std::string>{"alice", "alice", "10.1.2.3", "10.1.2.3", std::string(32, 'T'), "probe"}));
    EXPECT_EQ(i.cond_ctx, &gcondCtx);

    // The response header; a handler that appends nothing leaves the request's nextseg in byte 128.
    ASSERT_EQ(r.bytes.size(), 312u);
    EXPECT_EQ(0, std::memcmp(&r.bytes[88], &q[88], 40));
    // Fields the server doesn't write keep what the buffer held (src).
    mgmt_test::expect_fields(r.bytes.data(), {{hdr::type, MGI_RSP_FINAL}, {hdr::len, 0}, {hdr::nextseg, MGI_SEG_COOKIE},
                                              {hdr::offset, MGI_NO_MORE}, {hdr::mgi_flag, 3}, {hdr::mask1, 0x0f},
                                              {hdr::mask2, 0xf0}, {hdr::mask3, 0x100}, {hdr::rsp_data_type, 0x55},
                                              {hdr::rqt_aux, 0xabcd}, {hdr::rsp_aux, 0}, {hdr::src, 0xEE}});
    // The response clears who asked.
    EXPECT_EQ(_config_mode + _ui_language, 0);
    EXPECT_EQ(std::string(mgi_get_admin_user()) + mgi_get_ip_addr(), "");
}

TEST_F(Serve, LanguageComesFromTheSystemForSomeSourcesAndForZero) {
    int saved = _system_language;
    _system_language = 42;
    for (uint8_t src : {5, 6, 24, 25, 0, 1}) {
        Bytes q = request({M | 1});
        q[MGI_OFF_SRC] = src;
        q[MGI_OFF_LANGUAGE] = src == 0 ? 0 : 9;
        serve(q);
        EXPECT_EQ(g_seen.ui_language, src == 1 ? 9 : 42) << int(src);
    }
    _system_language = saved;
}

// Each segment type has its place in the context (an unknown type is skipped, a later cookie
// replaces the earlier); a plain record (nextseg below 128) is the mgidata with length 0; nextseg
// 128 or 139 walks nothing.
TEST_F(Serve, SegmentsAreRecordedAndPayloadFormsFollowNextseg) {
    serve(request({M | 1}, 0, {{MGI_SEG_UIINFO, {9, 9}, 1}, {MGI_SEG_COOKIE, {4}, 0x32}, {136, {0, 0, 0}, 7},
                               {MGI_SEG_QUERYDATA, {8}, 0x35}, {MGI_SEG_COOKIE, {4, 4, 4, 4}, 0x36}}));
    const mgiInfo &i = g_seen.info;
    EXPECT_EQ(static_cast<uint8_t *>(i.uiInfo) - static_cast<uint8_t *>(i.rqt_data), 8);
    EXPECT_TRUE(i.querydata_len == 1 && i.cookie_len == 4 && i.cookie_subtype == 0x36u);
    Bytes rec = mgmt_test::mgi_record_message(0, {1, 2, 3, 4});
    std::copy_n(request({M | 1}).begin() + 88, 40, rec.begin() + 88);
    serve(rec);
    EXPECT_TRUE(g_seen.info.mgidata == g_seen.info.rqt_data && g_seen.info.mgidata_len == 0);
    for (uint8_t first : {128, 139}) {
        Bytes q = request({M | 1}, 0, {{MGI_SEG_RULEDATA, {1}, 0}});
        q[MGI_OFF_NEXTSEG] = first;
        serve(q);
        EXPECT_EQ(g_seen.info.mgidata, nullptr) << int(first);
    }
}

TEST_F(Serve, IndexDecodersRunFromTheRootAndAnErrorStopsTheRest) {
    add_entity({}, M | 0x10, APP_ENTITY_INDEXED, index_a, nullptr, nullptr, nullptr);
    add_entity({M | 0x10}, M | 0x11, 0, index_b, nullptr, nullptr, nullptr); // kind 0: its decodeIndex never runs
    add_entity({M | 0x10, M | 0x11}, M | 0x12, APP_ENTITY_INDEXED, index_c, err_to_text, record_data, final_answer);
    add_entity({}, M | 0x13, APP_ENTITY_INDEXED, index_a, nullptr, record_data, final_answer);
    // Rows: target, request type, handlers called. A one-word target runs no decodeIndex, not even its own.
    using Calls = std::vector<std::string>;
    for (auto [target, type, calls] : {std::tuple<std::vector<uint32_t>, uint8_t, Calls>{
             {M | 0x10, M | 0x11, M | 0x12}, 0, {"index a", "index c", "data", "encode"}},
             {{M | 0x10, M | 0x11, M | 0x12}, 99, {"index a", "index c", "errHandle -7/0"}},
             {{M | 0x13}, 0, {"data", "encode"}}}) {
        g_seen.calls.clear();
        serve(request(target, type));
        EXPECT_EQ(g_seen.calls, calls) << target.size() << " words, type " << int(type);
    }

    // A ten-word target: the tenth word never reaches the index decoders, and all ten are echoed.
    std::vector<uint32_t> path;
    for (uint32_t level = 1; level <= 10; path.push_back(M | (0x100 + level)), ++level)
        add_entity(path, M | (0x100 + level), APP_ENTITY_INDEXED, index_a, nullptr, level == 10 ? record_data : nullptr,
                   level == 10 ? final_answer : nullptr);
    g_seen.calls.clear();
    Response r = serve(request(path));
    std::vector<std::string> want(9, "index a");
    want.insert(want.end(), {"data", "encode"});
    EXPECT_EQ(g_seen.calls, want);
    EXPECT_EQ(0, std::memcmp(&r.bytes[88], &request(path)[88], 40));
}

TEST_F(Serve, KeptUnknownPathPrintsTheSwErrorLineWithMinus101AndNoErrorSegment) {
    const std::string missing = "request path does not exist\n",
                      sw = "there is sw error, as decodeErr -101 not set but get into error handling!\n";
    CaptureStdout();
    Response r = serve(request({M | 0x7777}));
    EXPECT_EQ(GetCapturedStdout(), missing + missing + sw);
    EXPECT_TRUE(r.type() == 0 && r.bytes.size() == 312u);
    CaptureStdout();
    serve(request({M | 1, M | 0x7777})); // a two-word target is looked up once more by the index step
    EXPECT_EQ(GetCapturedStdout(), missing + missing + missing + sw);
}

// Rows: the entity's missing or failing handler, the handlers called, the error code and text.
TEST_F(Serve, MissingHandlersAndHandlerErrors) {
    add_entity({}, M | 0x20, 0, nullptr, err_to_text, nullptr, final_answer);   // no decodeData
    add_entity({}, M | 0x21, 0, nullptr, err_to_text, record_data, nullptr);    // no encodeData
    add_entity({}, M | 0x22, 0, nullptr, err_to_text, fail_with_text, nullptr); // fails with a text
    add_entity({}, M | 0x23, 0, nullptr, nullptr, record_data, nullptr);        // no encodeData, no errHandle
    const struct {
        uint32_t word;
        std::vector<std::string> calls;
        int code;
        const char *text;
    } cases[] = {
        {M | 0x20, {"errHandle -101/0"}, -101, "object failed"},
        {M | 0x21, {"data", "errHandle 0/-100"}, -100, "object failed"},
        // The handler's segment stands; errHandle's second text doesn't make another.
        {M | 0x22, {"errHandle -1/-1"}, -1, "role r9 does not exist"},
        // encodeErr with an entity but no errHandle: nothing is appended, rsptype stays.
        {M | 0x23, {"data"}, 0, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.word);
        g_seen.calls.clear();
        Response r = serve(request({c.word}));
        EXPECT_EQ(g_seen.calls, c.calls);
        ASSERT_EQ(r.segments().size(), c.text ? 1u : 0u);
        EXPECT_EQ(r.type(), c.text ? MGI_RSP_ERROR : 0);
        if (!c.text) continue;
        const Seg e = r.segments()[0];
        EXPECT_TRUE(e.type == MGI_SEG_ERROR && host_i32(e.body, 0) == c.code);
        EXPECT_EQ(Bytes(e.body.begin() + 16, e.body.end()), text_body(c.text));
    }
}

// ---------------------------------------------------------------- data bodies

Bytes g_body;
uint16_t g_in_place = 0;
int encode_body(mgiInfo *i) {
    mgi_init_rsp_message(i);
    mgi_update_rsp_data(i, g_body.data(), uint16_t(g_body.size()));
    if (g_in_place) {
        auto *end = static_cast<uint8_t *>(get_rsp_data(i)) + get_rsp_datalen(i);
        std::memset(end, 0xAB, g_in_place);
        mgi_update_rsp_data(i, end, g_in_place);
    }
    static uint32_t cookie[2] = {0x11111111, 0x22222222};
    mgi_set_rsp_cookie(i, cookie, i->rqt_type == 1 ? 0 : 8);
    set_rsptype(i, MGI_RSP_FINAL);
    return mgi_final_rsp_message(i), 0;
}

TEST_F(Serve, DataBodyThenCookieAndTheBodyLimit) {
    add_entity({}, M | 0x30, 0, nullptr, nullptr, record_data, encode_body);
    g_body = {1, 2, 3, 4, 5};
    g_in_place = 0;
    Response r = serve(request({M | 0x30}));
    auto segs = r.segments();
    ASSERT_EQ(segs.size(), 2u);
    EXPECT_TRUE(segs[0].body == g_body && segs[1].type == MGI_SEG_COOKIE && segs[1].body.size() == 8u);
    EXPECT_EQ(r.bytes.size(), 312u + 8 + 5 + 8 + 8);
    EXPECT_TRUE(r.bytes[MGI_OFF_NEXTSEG] == MGI_SEG_UDCDATA && r.bytes[312 + 13] == MGI_SEG_END);
    EXPECT_EQ(serve(request({M | 0x30}, 1)).segments().size(), 1u); // a cookie of length 0 is not sent

    // A copy one byte over what fits behind the header is refused: the response goes out without a body.
    ConsoleCapture cap;
    g_body.assign(49689, 1);
    EXPECT_TRUE(serve(request({M | 0x30}, 1)).segments().empty());
    EXPECT_EQ(cap.text(), "MGI: response data leng (49689) is incorrect\n");
    // Data written in place at the body's end takes no limit check.
    cap.clear();
    g_body.assign(49000, 1);
    g_in_place = 680;
    EXPECT_EQ(serve(request({M | 0x30}, 1)).segments().at(0).body.size(), 49680u);
    EXPECT_EQ(cap.text(), "");
}

int echo(mgiInfo *i) {
    if (i->rqt_type == 5) mgi_data_changed(i);
    return accept_preprovisoning_data(i), set_rsptype(i, MGI_RSP_FINAL), 0;
}

TEST_F(Serve, PreprovisioningEchoesTheRequestPayloadUnlessDataChanged) {
    add_entity({}, M | 0x33, 0, nullptr, nullptr, record_data, echo);
    Bytes q = request({M | 0x33}, 0, {{MGI_SEG_RULEDATA, {1, 2, 3}, 5}, {MGI_SEG_COOKIE, {4}, 6}});
    Response r = serve(q);
    EXPECT_TRUE(r.len() == q.size() - 312 && std::equal(q.begin() + 312, q.end(), r.bytes.begin() + 312));
    EXPECT_EQ(serve(request({M | 0x33}, 5, {{MGI_SEG_RULEDATA, {1, 2, 3}, 5}})).len(), 0);
}

// ---------------------------------------------------------------- housekeeping, local flag

int fail_index(mgiInfo *i) { return g_seen.local_flags = ipcmsg_get_local_flags(), set_decode_errcode(i, -3), 0; }

// Rows: the target, its source, and whether flag 4 was up while the handlers ran.
TEST_F(Serve, SourceEightHoldsLocalFlagFourForTheRequest) {
    add_entity({}, M | 0x41, APP_ENTITY_INDEXED, nullptr, nullptr, nullptr, nullptr);
    add_entity({M | 0x41}, M | 0x42, APP_ENTITY_INDEXED, fail_index, nullptr, record_data, final_answer);
    for (auto [words, src, up] : {std::tuple<int, uint8_t, bool>{1, 8, true}, {2, 8, true}, {2, 9, false}}) {
        Bytes q = request(words == 1 ? std::vector<uint32_t>{M | 1} : std::vector<uint32_t>{M | 0x41, M | 0x42});
        q[MGI_OFF_SRC] = src;
        g_seen.local_flags = 0;
        serve(q); // a failing decodeIndex (two words): the flag is still cleared afterwards
        EXPECT_EQ(g_seen.local_flags & (1u << 4), up ? 1u << 4 : 0u) << words << " words, source " << int(src);
        EXPECT_EQ(ipcmsg_get_local_flags() & (1u << 4), 0u);
    }
}

// ---------------------------------------------------------------- the length limit

uint16_t g_answer_len;
int answer_of_len(mgiInfo *i) {
    std::vector<uint8_t> body(g_answer_len, 0x5A);
    append_rsp_segment(i, MGI_SEG_ANSWER, body.data(), g_answer_len);
    set_rsptype(i, MGI_RSP_FINAL);
    return 0;
}

using ServeDeathTest = Serve;

// Exactly the limit passes on both roads; one byte more ends the process.
TEST_F(ServeDeathTest, KeptResponseAboveTheLimitEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    add_entity({}, M | 0x50, 0, nullptr, nullptr, record_data, answer_of_len);
    g_answer_len = uint16_t(MGI_MAX_PAYLOAD - 8);
    Response r = serve(request({M | 0x50}));
    EXPECT_EQ(r.bytes.size(), 50000u);
    EXPECT_EQ(r.segments().at(0).body.size(), size_t(g_answer_len));
    Bytes q = request({M | 0x50}, 0, {{MGI_SEG_COOKIE, {1, 2}, 0}});
    auto ha_sync = [&q] {
        std::vector<uint8_t> rsp(65536);
        uint32_t len = 65536;
        return std::make_pair(handle_ha_sync_mgi_msg(q.data(), 0, nullptr, rsp.data(), &len), len);
    };
    EXPECT_EQ(ha_sync(), std::make_pair(0, 50000u));
    EXPECT_EQ(g_seen.info.cookie_len, 2);

    g_answer_len = uint16_t(MGI_MAX_PAYLOAD - 7);
    ipc_set_thread_identity(11, 0);
    EXPECT_DEATH(serve(request({M | 0x50})),
                 "app:app11 msg_type: 6 returned buf_len: 50001 more than mgi max len: 50000\n");
    EXPECT_DEATH(ha_sync(), "MGD: returned buf_len: 50001 more than mgi max len: 50000\n");
    // A response too long for the buffer it is built in is not written past it, and still ends the process.
    EXPECT_DEATH(serve(request({M | 0x50}), 20000), "returned buf_len: 50001 more than mgi max len: 50000");
}

TEST_F(Serve, RequestBuiltInAPairIsServedIntoItsReceiveBuffer) {
    add_entity({}, M | 0x60, 0, nullptr, err_to_text, fail_with_text, final_answer);
    mgiBuf *buf = init_mgi_r();
    ASSERT_NE(buf, nullptr);
    const uint32_t target[MGI_TARGET_WORDS] = {M | 0x60, 0};
    prepare_mgi_exchange_direct_r(buf, target, 0, 0, 0, 0, 0);
    uint8_t cookie[4] = {1, 2, 3, 4};
    append_rqt_segment_r(buf, MGI_SEG_COOKIE, cookie, sizeof cookie);
    ASSERT_EQ(libmgmt_serve_mgi_buf(buf), 0);
    EXPECT_EQ(be16(buf->sbuf + MGI_OFF_LEN), 12); // the appended length went out, as on the direct road
    EXPECT_TRUE(get_mgi_resp_type_r(buf) == MGI_RSP_ERROR && be32(buf->rbuf + MGI_OFF_TARGET) == (M | 0x60));
    EXPECT_STREQ(get_errString_r(buf), "role r9 does not exist");
    deinit_mgi_r(buf);
    uint32_t len = 0;
    EXPECT_TRUE(libmgmt_serve_mgi_buf(nullptr) == -1 && libmgmt_serve_request(nullptr, 0, &len, 4, &len) == -1);
}

} // namespace
