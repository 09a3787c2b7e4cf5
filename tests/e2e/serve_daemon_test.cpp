// The example application daemon in a process of its own, served through
// handle_mgi_msg, against front ends that use the generated stubs: one row by
// key, a nested child, an exec, an unknown path and a missing handler, read
// back with the response readers. The whole paged table and a match
// expression over it come through mgictl (mgictl_test.cpp).
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mgmt/objects.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

constexpr uint32_t kFrontEnd = 5;
constexpr size_t kRoleLen = 72;
constexpr size_t kMappingLen = 164;

// What the direct callback saw, one entry per answer.
struct Answers {
    std::vector<Bytes> data, err;
};
Answers g_answers;

int collect(void *data, uint32_t *dl, void *err, uint32_t *el, void *, uint32_t *, void *) {
    auto take = [](void *p, uint32_t n) {
        auto *b = static_cast<uint8_t *>(p);
        return p ? Bytes(b, b + n) : Bytes{};
    };
    g_answers.data.push_back(take(data, *dl));
    g_answers.err.push_back(take(err, *el));
    return 0;
}

std::vector<std::string> names_of(const Answers &a, size_t stride, size_t name_at = 0) {
    std::vector<std::string> out;
    for (const Bytes &d : a.data)
        for (size_t at = 0; at + stride <= d.size(); at += stride)
            out.emplace_back(reinterpret_cast<const char *>(&d[at + name_at]));
    return out;
}

// The last response, as the response readers give it.
struct LastResponse {
    int rc;
    uint8_t type;
    int code, private_code;
    std::string text;
    bool has_text;
    Bytes header;
};

using Stub = int (*)(mgiInfo *, mgi_direct_callback, void *);

// One request of the front end through a stub, with the key in item slot 0 if
// given; prepare may set more of the request.
LastResponse ask(Stub stub, const char *key = nullptr, const std::function<void(mgiInfo &)> &prepare = {}) {
    LastResponse r{};
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        if (key) info.rqt_item[0] = &key;
        if (prepare) prepare(info);
        r.rc = stub(&info, collect, nullptr);
        r.type = get_mgi_resp_type_r(info.mgi_buf);
        r.code = mgi_get_rsp_err_code_r(info.mgi_buf);
        r.private_code = mgi_get_rsp_private_err_code_r(info.mgi_buf);
        const char *t = get_errString_r(info.mgi_buf);
        r.has_text = t != nullptr;
        r.text = t ? t : "";
        r.header.assign(info.mgi_buf->rbuf, info.mgi_buf->rbuf + MGI_HDR_LEN);
    });
    return r;
}

class ServeDaemon : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        daemon_ = std::make_unique<Daemon>("examples/app_daemon", std::vector<std::string>{"--rows", "500"}, 11);
        ASSERT_TRUE(daemon_->ok()) << daemon_->output();
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(daemon_->stop(), 0);
        daemon_.reset();
    }
    void SetUp() override { g_answers = Answers{}; }
    static std::unique_ptr<Daemon> daemon_;
};
std::unique_ptr<Daemon> ServeDaemon::daemon_;

TEST_F(ServeDaemon, OneRowByKeyAndANestedChildUnderItsParentsKey) {
    LastResponse last = ask(final_get_aaa_role, "role123");
    ASSERT_EQ(last.rc, 0);
    ASSERT_EQ(g_answers.data.size(), 1u);
    ASSERT_EQ(g_answers.data[0].size(), kRoleLen);
    const Bytes &row = g_answers.data[0];
    EXPECT_STREQ(reinterpret_cast<const char *>(&row[0]), "role123");
    EXPECT_STREQ(reinterpret_cast<const char *>(&row[40]), "role number 123");
    // The response header on the wire: type 15, the request's mask 1 (field 0 given), one data segment.
    EXPECT_EQ(last.type, MGI_RSP_FINAL);
    expect_fields(last.header.data(), {{hdr::mask1, 1}, {hdr::len, 8 + kRoleLen}, {hdr::nextseg, MGI_SEG_UDCDATA}});
    EXPECT_FALSE(last.has_text);

    g_answers = Answers{};
    last = ask(final_get_aaa_role_role_mapping, "role5");
    ASSERT_EQ(last.rc, 0);
    EXPECT_EQ(names_of(g_answers, kMappingLen, 32),
              (std::vector<std::string>{"group-5-0", "group-5-1", "group-5-2"}));
    EXPECT_EQ(be32(&last.header[MGI_OFF_TARGET]), 0xe0002u);
    EXPECT_EQ(be32(&last.header[MGI_OFF_TARGET + 4]), 0xe0001u);

    // A parent that doesn't exist fails in the parent's index decoder.
    last = ask(final_get_aaa_role_role_mapping, "nosuch");
    EXPECT_EQ(last.type, MGI_RSP_ERROR);
    EXPECT_EQ(last.code, -11);
    EXPECT_EQ(last.text, "role nosuch does not exist");
}

TEST_F(ServeDaemon, ExecAndItsErrorWithPrivateCode) {
    LastResponse first = ask(final_exec_aaa_del_lockout, "alice");
    LastResponse second = ask(final_exec_aaa_del_lockout, "alice");
    EXPECT_EQ(first.type, MGI_RSP_FINAL);
    EXPECT_FALSE(first.has_text);
    EXPECT_EQ(second.type, MGI_RSP_ERROR);
    EXPECT_EQ(second.code, -12);
    EXPECT_EQ(second.private_code, 1201);
    EXPECT_EQ(second.text, "user alice is not locked out");
    ASSERT_EQ(g_answers.err.size(), 2u);
    EXPECT_EQ(g_answers.err[1].size(), 16 + 32u); // the text padded to a multiple of 8
}

TEST_F(ServeDaemon, KeptUnknownPathPrintsTheMinus101LineAndErrorRoads) {
    // An unknown path: no handler runs, the answer has no error segment and type 0. The daemon's
    // own start-up lines may come in after the bind that the test waited for: only the tail counts.
    LastResponse unknown = ask(final_get_aaa_dynamic_cap); // served by nobody's entity
    EXPECT_EQ(unknown.rc, 0);
    EXPECT_EQ(unknown.type, 0);
    EXPECT_FALSE(unknown.has_text);
    const std::string out = daemon_->output();
    EXPECT_TRUE(out.ends_with("\nrequest path does not exist\nrequest path does not exist\n"
                              "there is sw error, as decodeErr -101 not set but get into error handling!\n"))
        << out;

    // No decodeData: the entity's errHandle reports -101.
    LastResponse no_decode = ask(final_get_aaa_connect_control_user);
    EXPECT_EQ(no_decode.type, MGI_RSP_ERROR);
    EXPECT_EQ(no_decode.code, -101);
    EXPECT_EQ(no_decode.text, "object 0xe0019: the request failed (-101)");
}

} // namespace
