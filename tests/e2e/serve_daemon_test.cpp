// The example application daemon in a process of its own, served through
// handle_mgi_msg, against front ends that use the generated stubs: a whole
// table over several partial answers, one row by key, a match expression, a
// nested child, a single-instance object, an exec, and each error road, read
// back with the response readers.
#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "mgmt/objects.h"
#include "test_support.h"

using namespace mgmt_test;

namespace {

constexpr uint32_t kFrontEnd = 5;
constexpr size_t kRoleLen = 72;
constexpr size_t kMappingLen = 164;
constexpr uint32_t kRows = 500;

std::string daemon_path() {
    if (const char *dir = std::getenv("MGMT_TEST_BINARY_DIR")) return std::string(dir) + "/examples/app_daemon";
    char exe[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string p(exe, n > 0 ? size_t(n) : 0);
    for (int up = 0; up < 2; ++up) p = p.substr(0, p.rfind('/'));
    return p + "/examples/app_daemon";
}

// What the direct callback saw, one entry per answer.
struct Answers {
    std::vector<Bytes> data, err, cookie;
};
Answers g_answers;

int collect(void *data, uint32_t *dl, void *err, uint32_t *el, void *cookie, uint32_t *cl, void *) {
    auto take = [](void *p, uint32_t n) {
        auto *b = static_cast<uint8_t *>(p);
        return p ? Bytes(b, b + n) : Bytes{};
    };
    g_answers.data.push_back(take(data, *dl));
    g_answers.err.push_back(take(err, *el));
    g_answers.cookie.push_back(take(cookie, *cl));
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
    uint8_t type;
    int code, private_code;
    std::string text;
    bool has_text;
    Bytes header;
};
LastResponse read_last(mgiInfo &info) {
    LastResponse r;
    r.type = get_mgi_resp_type_r(info.mgi_buf);
    r.code = mgi_get_rsp_err_code_r(info.mgi_buf);
    r.private_code = mgi_get_rsp_private_err_code_r(info.mgi_buf);
    const char *t = get_errString_r(info.mgi_buf);
    r.has_text = t != nullptr;
    r.text = t ? t : "";
    r.header.assign(info.mgi_buf->rbuf, info.mgi_buf->rbuf + MGI_HDR_LEN);
    return r;
}

class ServeDaemon : public ::testing::Test {
  protected:
    static pid_t pid_;
    static int out_fd_;

    static void SetUpTestSuite() {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        std::string path = daemon_path();
        pid_ = fork();
        ASSERT_GE(pid_, 0);
        if (pid_ == 0) {
            dup2(fds[1], 1);
            close(fds[0]);
            close(fds[1]);
            std::string rows = std::to_string(kRows);
            execl(path.c_str(), path.c_str(), "--rows", rows.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        out_fd_ = fds[0];
        fcntl(out_fd_, F_SETFL, O_NONBLOCK);
        ASSERT_NE(read_output(10000).find("ready\n"), std::string::npos) << "the daemon didn't start: " << path;
    }
    static void TearDownTestSuite() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "daemon status " << status;
        }
        if (out_fd_ >= 0) close(out_fd_);
    }
    // What the daemon printed within ms (reading stops at the first quiet 200 ms once something came).
    static std::string read_output(int ms) {
        std::string out;
        for (int waited = 0; waited < ms;) {
            pollfd p{out_fd_, POLLIN, 0};
            int step = out.empty() ? 100 : 200;
            if (poll(&p, 1, step) <= 0) {
                if (!out.empty()) break;
                waited += step;
                continue;
            }
            char buf[4096];
            ssize_t n = read(out_fd_, buf, sizeof buf);
            if (n <= 0) break;
            out.append(buf, size_t(n));
        }
        return out;
    }
    // Drops what the daemon printed so far.
    static void drain() {
        char buf[4096];
        while (read(out_fd_, buf, sizeof buf) > 0) {
        }
    }
    void SetUp() override { g_answers = Answers{}; }
};
pid_t ServeDaemon::pid_ = -1;
int ServeDaemon::out_fd_ = -1;

TEST_F(ServeDaemon, WholeTableComesInOrderOverSeveralPartialAnswers) {
    int rc = -1;
    Bytes first_cookie;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        rc = final_get_aaa_role(&info, collect, nullptr);
        EXPECT_EQ(get_mgi_resp_type_r(info.mgi_buf), MGI_RSP_FINAL);
    });
    ASSERT_EQ(rc, 0);
    // 194 records of 72 bytes fit in one answer: 500 rows take three.
    ASSERT_EQ(g_answers.data.size(), 3u);
    EXPECT_EQ(g_answers.data[0].size(), 194 * kRoleLen);
    EXPECT_EQ(g_answers.cookie[0].size(), 24u);
    EXPECT_TRUE(g_answers.cookie[2].empty());
    std::vector<std::string> names = names_of(g_answers, kRoleLen);
    ASSERT_EQ(names.size(), kRows);
    std::set<std::string> distinct(names.begin(), names.end());
    EXPECT_EQ(distinct.size(), kRows);
    for (uint32_t i = 0; i < kRows; ++i) ASSERT_EQ(names[i], "role" + std::to_string(i + 1)) << i;
    // The cookie of the first part, big-endian: next index 194, last 499.
    uint32_t c[6];
    std::memcpy(c, g_answers.cookie[0].data(), sizeof c);
    mgi_common_cookie_ntoh(c);
    EXPECT_EQ(c[0], 194u);
    EXPECT_EQ(c[1], kRows - 1);
}

TEST_F(ServeDaemon, OneRowByKey) {
    LastResponse last;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        const char *name = "role123";
        info.rqt_item[0] = &name;
        ASSERT_EQ(final_get_aaa_role(&info, collect, nullptr), 0);
        last = read_last(info);
    });
    ASSERT_EQ(g_answers.data.size(), 1u);
    ASSERT_EQ(g_answers.data[0].size(), kRoleLen);
    const Bytes &row = g_answers.data[0];
    EXPECT_STREQ(reinterpret_cast<const char *>(&row[0]), "role123");
    uint32_t id;
    std::memcpy(&id, &row[32], 4);
    EXPECT_EQ(id, 123u);
    EXPECT_STREQ(reinterpret_cast<const char *>(&row[40]), "role number 123");
    // The response header on the wire: the target echoed, type 15, the request's mask 1 (field 0 given).
    EXPECT_EQ(last.type, MGI_RSP_FINAL);
    EXPECT_EQ(be32(&last.header[MGI_OFF_TARGET]), 0xe0002u);
    EXPECT_EQ(be32(&last.header[MGI_OFF_TARGET + 4]), 0u);
    EXPECT_EQ(be32(&last.header[MGI_OFF_MASK1]), 1u);
    EXPECT_EQ(be16(&last.header[MGI_OFF_LEN]), 8 + kRoleLen);
    EXPECT_EQ(last.header[MGI_OFF_NEXTSEG], MGI_SEG_UDCDATA);
    EXPECT_FALSE(last.has_text);
}

TEST_F(ServeDaemon, MatchExpressionFiltersTheWalk) {
    std::string pattern = "^role1[0-9]$";
    Bytes body(140 + pattern.size() + 1, 0);
    uint32_t mask[3] = {1, 0, 0};
    std::memcpy(body.data(), mask, sizeof mask);
    body[12] = 10; // object id 0, the name: a regular expression
    int32_t len = int32_t(pattern.size() + 1);
    std::memcpy(&body[132], &len, 4);
    std::memcpy(&body[140], pattern.c_str(), pattern.size() + 1);
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, MGI_RQT_MATCH_GET);
        mgi_set_rqt_udcdata(&info, body.data(), uint16_t(body.size()));
        ASSERT_EQ(final_get_aaa_role(&info, collect, nullptr), 0);
    });
    std::vector<std::string> want;
    for (int i = 10; i <= 19; ++i) want.push_back("role" + std::to_string(i));
    EXPECT_EQ(names_of(g_answers, kRoleLen), want);
}

TEST_F(ServeDaemon, NestedChildUnderItsParentsKey) {
    LastResponse last;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        const char *role = "role5";
        info.rqt_item[0] = &role;
        ASSERT_EQ(final_get_aaa_role_role_mapping(&info, collect, nullptr), 0);
        last = read_last(info);
    });
    ASSERT_EQ(g_answers.data.size(), 1u);
    EXPECT_EQ(names_of(g_answers, kMappingLen, 32),
              (std::vector<std::string>{"group-5-0", "group-5-1", "group-5-2"}));
    EXPECT_EQ(be32(&last.header[MGI_OFF_TARGET]), 0xe0002u);
    EXPECT_EQ(be32(&last.header[MGI_OFF_TARGET + 4]), 0xe0001u);

    // A parent that doesn't exist fails in the parent's index decoder.
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        const char *role = "nosuch";
        info.rqt_item[0] = &role;
        ASSERT_EQ(final_get_aaa_role_role_mapping(&info, collect, nullptr), 0);
        last = read_last(info);
    });
    EXPECT_EQ(last.type, MGI_RSP_ERROR);
    EXPECT_EQ(last.code, -11);
    EXPECT_EQ(last.text, "role nosuch does not exist");
}

TEST_F(ServeDaemon, SingleInstanceObject) {
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        ASSERT_EQ(final_get_aaa_radius_authorization(&info, collect, nullptr), 0);
    });
    ASSERT_EQ(g_answers.data.size(), 1u);
    ASSERT_EQ(g_answers.data[0].size(), 8u);
    uint32_t v[2];
    std::memcpy(v, g_answers.data[0].data(), 8);
    EXPECT_EQ(v[0], 1u);
    EXPECT_EQ(v[1], 30u);
}

TEST_F(ServeDaemon, ExecAndItsErrorWithPrivateCode) {
    LastResponse first, second;
    run_as(kFrontEnd, [&] {
        const char *user = "alice";
        mgiInfo info;
        init_mgi_info(&info);
        info.rqt_item[0] = &user;
        ASSERT_EQ(final_exec_aaa_del_lockout(&info, collect, nullptr), 0);
        first = read_last(info);
        init_mgi_info(&info);
        info.rqt_item[0] = &user;
        ASSERT_EQ(final_exec_aaa_del_lockout(&info, collect, nullptr), 0);
        second = read_last(info);
    });
    EXPECT_EQ(first.type, MGI_RSP_FINAL);
    EXPECT_EQ(first.code, 0);
    EXPECT_FALSE(first.has_text);
    EXPECT_EQ(second.type, MGI_RSP_ERROR);
    EXPECT_EQ(second.code, -12);
    EXPECT_EQ(second.private_code, 1201);
    EXPECT_EQ(second.text, "user alice is not locked out");
    ASSERT_EQ(g_answers.err.size(), 2u);
    EXPECT_TRUE(g_answers.err[0].empty());
    EXPECT_EQ(g_answers.err[1].size(), 16 + 32u); // the text padded to a multiple of 8
}

TEST_F(ServeDaemon, ErrorRoads) {
    drain();
    LastResponse unknown, no_decode, no_encode, with_text;
    run_as(kFrontEnd, [&] {
        mgiInfo info;
        init_mgi_info(&info);
        ASSERT_EQ(final_get_aaa_dynamic_cap(&info, collect, nullptr), 0); // served by nobody's entity
        unknown = read_last(info);
        init_mgi_info(&info);
        ASSERT_EQ(final_get_aaa_connect_control_user(&info, collect, nullptr), 0);
        no_decode = read_last(info);
        init_mgi_info(&info);
        ASSERT_EQ(final_get_aaa_user_mapping_entity(&info, collect, nullptr), 0);
        no_encode = read_last(info);
        init_mgi_info(&info);
        const char *name = "role9999";
        info.rqt_item[0] = &name;
        ASSERT_EQ(final_get_aaa_role(&info, collect, nullptr), 0);
        with_text = read_last(info);
    });
    // An unknown path: no handler runs, the answer has no error segment and type 0.
    EXPECT_EQ(unknown.type, 0);
    EXPECT_EQ(unknown.code, 0);
    EXPECT_FALSE(unknown.has_text);
    EXPECT_EQ(read_output(3000), "request path does not exist\nrequest path does not exist\n"
                                 "there is sw error, as decodeErr -101 not set but get into error handling!\n");

    EXPECT_EQ(no_decode.type, MGI_RSP_ERROR);
    EXPECT_EQ(no_decode.code, -101);
    EXPECT_EQ(no_decode.text, "object 0xe0019: the request failed (-101)");
    EXPECT_EQ(no_encode.type, MGI_RSP_ERROR);
    EXPECT_EQ(no_encode.code, -100);
    EXPECT_EQ(no_encode.text, "object 0xe0018: the request failed (-100)");
    EXPECT_EQ(with_text.type, MGI_RSP_ERROR);
    EXPECT_EQ(with_text.code, -11);
    EXPECT_EQ(with_text.text, "role role9999 does not exist");
}

} // namespace
