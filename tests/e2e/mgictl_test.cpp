// mgictl as a user runs it, against mgd and the example application daemon in
// processes of their own: each row is one command line, its exit status, what
// it prints and what mgd logged for it.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"

using namespace mgmt_test;

namespace {

struct ToolRun {
    int code = -1;
    std::string out, err;
};

// Starts a program of this build with standard output to out_fd and standard error to err_fd.
pid_t spawn(const std::string &relpath, const std::vector<std::string> &args, int out_fd, int err_fd) {
    std::string path = build_path(relpath);
    std::vector<char *> argv{const_cast<char *>(path.c_str())};
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    return pid;
}

std::string drain(int fd) {
    std::string s;
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) s.append(buf, size_t(n));
    close(fd);
    return s;
}

int reap(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs a program of this build with the arguments; standard output through a pipe, standard error
// through a file.
ToolRun tool(const std::string &relpath, const std::vector<std::string> &args) {
    std::string err_file = std::string(ipc_runtime_dir()) + "/tool.err";
    int out[2];
    ToolRun r;
    if (pipe(out) != 0) return r;
    int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    pid_t pid = spawn(relpath, args, out[1], err);
    close(out[1]);
    close(err);
    r.out = drain(out[0]);
    r.code = reap(pid);
    r.err = drain(open(err_file.c_str(), O_RDONLY | O_CLOEXEC));
    return r;
}

ToolRun mgictl(const std::vector<std::string> &args) { return tool("tools/mgictl/mgictl", args); }

size_t lines(const std::string &s) { return size_t(std::count(s.begin(), s.end(), '\n')); }

class Mgictl : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        mgd_ = std::make_unique<Daemon>("tools/mgd", std::vector<std::string>{}, MGD_APPID);
        app_ = std::make_unique<Daemon>("examples/app_daemon", std::vector<std::string>{"--rows", "500"}, 11);
        ASSERT_TRUE(mgd_->ok() && app_->ok()) << mgd_->output() << app_->output();
    }
    static void TearDownTestSuite() {
        app_.reset();
        mgd_.reset();
    }
    static std::unique_ptr<Daemon> mgd_, app_;
};
std::unique_ptr<Daemon> Mgictl::mgd_, Mgictl::app_;

TEST_F(Mgictl, CommandLinesBetweenRealProcesses) {
    const std::string long_text(40, 'x');
    struct Row {
        std::vector<std::string> args;
        int code;
        std::string out, err, logged; // each must stand in what the run printed or mgd logged
    };
    const std::vector<Row> rows = {
        // Set through mgd, read back straight from the owner; identity options reach the header.
        {{"set", "aaa_radius_authorization", "f1=1", "f2=45", "--app", "46"},
         0,
         "",
         "",
         "set aaa_radius_authorization (e0005) type 1 from app46 src 3 trans 0: 8 bytes -> app11: answered type 15"},
        {{"get", "aaa_radius_authorization"}, 0, "f1  f2\n1   45\n", "", ""},
        {{"get", "aaa_radius_authorization", "--type", "30", "--json"},
         0,
         "{\"f1\": 1, \"f2\": 45}",
         "",
         "get aaa_radius_authorization (e0005) type 30 from app5"},
        // The owner refuses a set, then a get by a key it lacks, a condition, an exec the second time.
        {{"set", "aaa_radius_authorization", "f2=0"},
         3,
         "",
         "refused by 2 (mgd) for the owner 11 (app11): MGI code -1, private code 1301: timeout 0 is outside 1 to 600",
         ""},
        {{"get", "aaa_role", "f1=role7"}, 0, "role7  7   10  \"role number 7\"\n", "", ""},
        {{"get", "aaa_role", "f1=nosuch"}, 3, "", "MGI code -11, private code 0: role nosuch does not exist", ""},
        {{"get", "aaa_role_role_mapping", "aaa_role.f1=role5"}, 0, "role5  group-5-2  3\n", "", ""},
        {{"get", "aaa_role", "--where", "privilege gt 10"},
         3,
         "",
         "MGI code -1987, private code 0: condition \"privilege gt 10\" refused (-1987)",
         ""},
        {{"get", "aaa_role", "--where", "or privilege gt 10"}, 3, "", "MGI code -1988", ""}, // the daemon serves on
        {{"exec", "aaa_del_lockout", "f1=trent"}, 0, "", "", ""},
        {{"exec", "aaa_del_lockout", "f1=trent"}, 3, "", "private code 1201: user trent is not locked out", ""},
        {{"get", "aaa_user_mapping_entity"}, 3, "", "MGI code -100", ""},
        {{"get", "aaa_dynamic_cap"}, 3, "", "answered with message type 0 and no error text", ""},
        // Refused here: nothing is sent (mgd logs no set of these).
        {{"get", "no_such_object"}, 1, "", "unknown object 'no_such_object'", ""},
        {{"set", "aaa_radius_authorization", "f2=4294967296"}, 1, "", "f2 (u32): '4294967296' is out of range", ""},
        {{"set", "aaa_radius_authorization", "f2=-1"}, 1, "", "'-1' is out of range for u32 (0 to 4294967295)", ""},
        {{"set", "aaa_radius_authorization", "f1=ten"}, 1, "", "f1 (u32): 'ten' is not a number", ""},
        {{"set", "aaa_role", "f1=" + long_text}, 1, "", "text of 40 bytes is longer than its s32 holds", ""},
        {{"set", "aaa_user_mapping_entity", "f4=abc"}, 1, "", "f4 (b6): odd number of hex digits", ""},
        {{"set", "aaa_radius_authorization", "f3=1"}, 1, "", "f3: aaa_radius_authorization has no such field", ""},
        {{"exec", "aaa_radius_authorization"}, 1, "", "takes set and get, not exec", ""},
        // The owner is not running: a get cannot reach it, mgd refuses a set on its behalf.
        {{"get", "admind_utmp", "--timeout", "2"}, 4, "", "could not reach 15 (app15)", ""},
        {{"set", "admind_utmp", "f1=1"}, 3, "", "application app15 does not answer", "-> app15: no answer"},
        // The command line itself.
        {{"get", "--help"}, 0, "Usage: mgictl [OPTION]... get OBJECT", "", ""},
        {{"help", "exec"}, 0, "Usage: mgictl [OPTION]... exec OBJECT", "", ""},
        {{"--version"}, 0, "mgictl (libmgmt) ", "", ""},
        {{"get", "aaa_role", "--bogus"}, 2, "", "unrecognized option", ""},
        {{"frobnicate"}, 2, "", "unknown verb 'frobnicate'", ""},
        {{"list", "--where", "x"}, 2, "", "--match and --where belong to get", ""},
        {{"get", "aaa_role", "--timeout", "0"}, 2, "", "--timeout '0': a number from 1 to 255", ""},
        // The catalogue as it stands, and the manager's own object served by mgd itself.
        {{"list", "mgmt_tr*"}, 0, "set,get  2    mgd      90012\n", "", ""},
        {{"show", "aaa_role_role_mapping"}, 0, "parents aaa_role\n", "", ""},
        {{"set", "mgmt_trans", "f1=admin", "f2=3", "f3=4"},
         0,
         "",
         "",
         "set mgmt_trans (90012) type 1 from app5: served here\n"},
        {{"get", "mgmt_trans"}, 0, "admin", "", ""},
    };
    for (const Row &row : rows) {
        std::string cmd;
        for (const std::string &a : row.args) cmd += " " + a;
        size_t logged = mgd_->output().size();
        ToolRun r = mgictl(row.args);
        std::string log = mgd_->output().substr(logged);
        EXPECT_EQ(r.code, row.code) << cmd << "\n" << r.out << r.err;
        EXPECT_NE(r.out.find(row.out), std::string::npos) << cmd << "\n" << r.out;
        if (row.args[0] == "set") {
            EXPECT_EQ(r.out, "") << cmd << ": a set prints nothing";
        }
        EXPECT_NE(r.err.find(row.err), std::string::npos) << cmd << "\n" << r.err;
        EXPECT_NE(log.find(row.logged), std::string::npos) << cmd << "\n" << log;
        if (row.code == 1) {
            EXPECT_EQ(log, "") << cmd << ": something was sent";
        }
    }
}

TEST_F(Mgictl, PagedTableAndRegexFilterComeWhole) {
    ToolRun all = mgictl({"get", "aaa_role", "--json"});
    ASSERT_EQ(all.code, 0) << all.err;
    std::vector<std::string> names; // in the daemon's order, over three partial answers
    for (size_t at = 0; (at = all.out.find("{\"f1\": \"", at)) != std::string::npos;) {
        at += 8;
        names.push_back(all.out.substr(at, all.out.find('"', at) - at));
    }
    std::vector<std::string> want;
    for (int i = 1; i <= 500; ++i) want.push_back("role" + std::to_string(i));
    EXPECT_EQ(names, want);
    EXPECT_EQ(lines(mgictl({"get", "aaa_role"}).out), 501u); // a head and 500 rows

    ToolRun some = mgictl({"get", "aaa_role", "--match", "f1=^role1[0-9]$"});
    EXPECT_TRUE(some.code == 0 && lines(some.out) == 11 && some.out.find("\nrole19 ") != std::string::npos)
        << some.err << some.out;

    // Walks from eight front ends interleave, each page in its own cookie: every one comes whole.
    std::vector<std::thread> walkers;
    std::atomic<int> whole{0};
    for (int w = 0; w < 8; ++w)
        walkers.emplace_back([&] {
            for (int round = 0; round < 5; ++round)
                whole += lines(mgictl({"get", "aaa_role"}).out) == 501u;
        });
    for (std::thread &t : walkers) t.join();
    EXPECT_EQ(whole, 40);
}

// The monitor sees the demo's traffic; its capture decodes in tshark with the dissector.
TEST_F(Mgictl, MonitorCapturesTheDemoForTshark) {
    std::string capture = std::string(ipc_runtime_dir()) + "/demo.pcapng";
    int out[2], err[2];
    ASSERT_EQ(pipe(out), 0);
    ASSERT_EQ(pipe(err), 0);
    pid_t monitor = spawn("tools/mgictl/mgictl", {"monitor", "-w", capture}, out[1], err[1]);
    close(out[1]);
    close(err[1]);
    std::string ready;
    char c;
    while (read(err[0], &c, 1) == 1 && c != '\n') ready += c; // "watching ...", or the monitor has ended
    ASSERT_NE(ready.find("mgictl monitor: watching"), std::string::npos) << ready;
    int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(reap(spawn("tools/mgi_demo", {}, devnull, devnull)), 0);
    close(devnull);
    kill(monitor, SIGTERM);
    std::string shown = drain(out[0]), tail = drain(err[0]);
    EXPECT_EQ(reap(monitor), 0) << tail;
    EXPECT_NE(tail.find(" copies dropped"), std::string::npos);
    for (const char *want : {"app5 -> app11 6 MGI seq", "type 16 (partial) e0002 aaa_role segments 134(",
                             "e0012 aaa_del_lockout segments 135(48) error -12/1201 \"user alice is not locked out\"",
                             "mgd -> app15 6 MGI seq", ": not delivered (No such file or directory)",
                             "app5 -> mgd 371 manager: transaction seq", "app5 -> app23 64 trap seq"})
        EXPECT_NE(shown.find(want), std::string::npos) << want << "\n" << shown;

    if (std::system("command -v tshark >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed (scripts/setup installs it)";
    std::string cmd = "tshark -X lua_script:" + build_path("tools/wireshark/mgi.lua") + " -r " + capture +
                      " -T fields -E 'separator=|' -e mgimon.msg -e mgimon.result -e mgi.type -e mgi.target"
                      " -e mgi.seg.type -e mgi.err.code -e mgi.err.private -e mgi.err.text -e mgd.trans.user"
                      " -e mgitrap.code 2>/dev/null";
    FILE *p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string decoded;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) decoded.append(buf, n);
    EXPECT_EQ(pclose(p), 0);
    EXPECT_EQ(lines(decoded), lines(shown)) << decoded; // every copy a packet
    for (const char *want : {"6|0|18|0x000e0012|135|-12|1201|user alice is not locked out||",
                             "6|0|16|0x000e0002|134,132|||||", "371|0|||||||admin|", "64|0||||||||1001",
                             "6|-2||||||||"}) // the set mgd passed to application 15, which is not running
        EXPECT_NE(decoded.find(want), std::string::npos) << want << "\n" << decoded;
}

// mgload's short run between real processes: each road's every request answered right; without
// the owner it says whom it missed where, and ends with 4.
TEST(Load, ShortRunChecksEveryAnswer) {
    Daemon mgd("tools/mgd", {"-q"}, MGD_APPID);
    ASSERT_TRUE(mgd.ok()) << mgd.output();
    const std::vector<std::string> run = {"-p", "2", "-t", "2", "-n", "40", "-d", "120"};
    ToolRun absent = tool("tools/mgload", run);
    EXPECT_EQ(absent.code, 4);
    EXPECT_NE(absent.err.find("app_daemon (application 11) does not serve in " + std::string(ipc_runtime_dir())),
              std::string::npos) << absent.err;
    Daemon app("examples/app_daemon", {}, 11);
    ASSERT_TRUE(app.ok()) << app.output();
    ToolRun r = tool("tools/mgload", run);
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    for (const std::string road : {"set ", "refused set ", "get ", "walk "}) { // 2 x 2 threads, 10 rounds each
        size_t at = r.out.find("\n" + road);
        unsigned long requests = 0, errors = 1;
        ASSERT_NE(at, std::string::npos) << road << r.out;
        EXPECT_EQ(std::sscanf(r.out.c_str() + at + 1 + road.size(), "%lu %lu", &requests, &errors), 2) << r.out;
        EXPECT_TRUE(requests == 40 && errors == 0) << road << r.out;
    }
    EXPECT_NE(r.out.find("every answer right, none lost"), std::string::npos) << r.out;
}

} // namespace
