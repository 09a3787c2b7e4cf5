// Factory clearing: the exact, ordered command lines of each entry point for each platform kind,
// captured (nothing is removed from the machine), and the foundry entry points' failures.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>

#include "device_support.h"
#include "mgmt/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

using Lines = std::vector<std::string>;
using Paths = std::initializer_list<const char *>;

std::string sys(const std::string &cmd) { return "system: " + cmd; }
std::string rm_f(const std::string &pattern) { return sys("rm -f " + pattern + " 2>/dev/null"); }
std::string rm_rf(const std::string &pattern) { return sys("rm -rf " + pattern + " 2>/dev/null"); }
std::string clear_dir(const std::string &dir) { return rm_rf(dir + "/*"); }

void add(Lines &to, std::string (*command)(const std::string &), Paths paths) {
    for (const char *p : paths)
        to.push_back(command(p));
}

const Paths kLoginPages = {"/flash/httpauth/BG_pag.zip",           "/flash/httpauth/login_page_bg_cn.gif",
                           "/flash/httpauth/login_page_bg_en.gif", "/flash/httpauth_desc/login_desc",
                           "/flash/httpauth/web_redirect_bg_en.gif", "/flash/httpauth/web_redirect_bg_cn.gif"};
const Paths kSslvpnToTroubleShooting = {
    "/flash/sslvpn/BG_pag.zip",         "/flash/sslvpn/Login_box_bg_cn.gif",
    "/flash/sslvpn/Login_box_bg_en.gif", "/flash/urlfilter/urlfilter-database",
    "/flash/urlfilter/urlfilter-database-saved", "/flash/feature/webui.conf",
    "/flash/trouble_shooting/*.pcap",   "/flash/trouble_shooting/1*"};

void ssl_modes_to_customize_files(Lines &l) {
    l.push_back(sys("rm -f /flash/ssl_next_mode"));
    l.push_back(sys("rm -f /flash/ssl_running_mode"));
    l.push_back(sys("rm -rf /flash/admin/*"));
    add(l, clear_dir, {"/flash/web_linkdir", "/flash/etc_customize_file"});
}

struct Kind {
    bool adc_or_waf = false;
    bool mysql = false;
    bool mysql_data = false; // /etc/mnt/nvme/mysql_data readable
    bool a_and_adc = false;
};

Lines full_list(const Kind &k) {
    Lines l;
    add(l, rm_f, kLoginPages);
    l.push_back(clear_dir("/flash/gatevpn/web/"));
    add(l, rm_f, kSslvpnToTroubleShooting);
    l.push_back(sys("rm -f /flash/api_dir/* 2>dev/null"));
    ssl_modes_to_customize_files(l);
    l.push_back(rm_rf("/flash/app_sig/sig/app_rule_v3 /flash/app_sig/sig/app_sig_desc.xml "
                      "/flash/app_sig/sig/pre_servgroup_desc.xml /flash/app_sig/sig/libai.so.1 "
                      "/flash/app_sig/sig/libai_noipv6.so.1"));
    if (k.adc_or_waf) {
        l.push_back(rm_f("/flash/diagnostic/*"));
        l.push_back(rm_rf("/flash/mysql"));
        add(l, clear_dir, {"/flash/rrd", "/flash/health-check", "/flash/third-party-script", "/flash/nginx/vsys",
                           "/flash/nginx/html", "/flash/slb_script"});
        add(l, rm_rf, {"/flash/nginx_data/cache*", "/flash/nginx_data/old_cache*", "/flash/nginx_data/trash/",
                       "/flash/nginx/logs/error.log"});
        l.push_back(clear_dir("/flash/patch"));
    }
    l.push_back(clear_dir("/flash/aaa"));
    l.push_back(rm_rf("/flash/aaa/%s/user_extern.txt"));
    add(l, clear_dir, {"/tmp/idp_custom_sig", "/flash/urldb/url_file/"});
    l.push_back(rm_rf("/flash/storage/sqlite/log/*"));
    l.push_back(clear_dir("/flash/storage/reportfiles"));
    if (k.mysql) l.push_back("run /bin/rm: /bin/rm -rf /flash/mysql");
    if (k.mysql && k.mysql_data) l.push_back("run /bin/rm: /bin/rm -rf /etc/mnt/nvme/mysql_data");
    add(l, clear_dir,
        {"/ssd-data/reportfiles", "/flash/reportfiles", "/etc/mnt/nvme/reportfiles", "/flash/storage/sqlite/report"});
    if (k.a_and_adc) {
        for (const char *dir : {"mysql_logs", "rrd", "nginx_data", "bind_data"})
            l.push_back(sys(std::string("rm -rf /etc/mnt/nvme/") + dir));
    }
    add(l, rm_f,
        {"/flash/.flow_core_num", "/flash/ipgeo/sig/*", "/flash/isp/sig/*", "/flash/domain_geo/sig/*",
         "/flash/urldb/url_file/*", "/flash/warnpage/html/*", "/flash/warnpage/image/*",
         "/flash/platform/logical_id_file", "/flash/platform/logical_id_status_file", "/flash/dpdk/dpdk_queue_set"});
    add(l, rm_rf,
        {"/flash/web/data/*", "/flash/web/web_local/*", "/flash/botnet_detection/lib/db/*",
         "/flash/botnet_detection/lib/ha/*", "/flash/botnet_detection/lib/import/*"});
    return l;
}

class Clearing : public ::testing::Test {
  protected:
    void SetUp() override {
        hooks::set_system(hooks::SystemMode::record);
        hooks::set_popen(hooks::PopenMode::record);
        hooks::capture_runs(0);
    }
    void TearDown() override {
        hooks::reset();
        unsetenv("MGMT_PLATFORM");
    }
    // What one entry point ran on the given platform, and checks its result.
    Lines run(int (*entry)(), const char *platform, int want = 0) {
        setenv("MGMT_PLATFORM", platform, 1);
        hooks::clear_recorded();
        EXPECT_EQ(entry(), want) << platform;
        return hooks::recorded();
    }
    Sysroot root;
};

TEST_F(Clearing, FullListPerPlatformKind) {
    const struct {
        const char *platform;
        Kind kind;
    } cases[] = {
        {"", {}},
        {"none", {}},
        {"adc", {true, false, false, false}},
        {"waf", {true, false, false, false}},
        {"mysql", {false, true, false, false}},
        {"a", {}},
        {"bds", {}},
        {"nips", {}},
        {"ids", {}},
        {"adc,a", {true, false, false, true}},
        {"waf,a", {true, false, false, false}},
        {"adc,mysql", {true, true, false, false}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(run(clear_customization_file_in_flash, c.platform), full_list(c.kind)) << c.platform;
    EXPECT_EQ(full_list({}).size(), 47u) << "steps 1 to 22, 24 to 29, 31, 33 to 43 with their sub-steps";

    // The database's data goes only where it can be read.
    make_dirs(root.path("/etc/mnt/nvme/mysql_data"));
    EXPECT_EQ(run(clear_customization_file_in_flash, "mysql"), full_list({false, true, true, false}));
    const Lines both = run(clear_customization_file_in_flash, "adc,a,mysql");
    EXPECT_EQ(both, full_list({true, true, true, true}));
    EXPECT_EQ(std::count_if(both.begin(), both.end(),
                            [](const std::string &l) { return l.find("/flash/mysql") != std::string::npos; }),
              2)
        << "removed twice on a database platform of the ADC type";
    hooks::fail_access("/etc/mnt/nvme/mysql_data", R_OK);
    EXPECT_EQ(run(clear_customization_file_in_flash, "mysql"), full_list({false, true, false, false}));
}

TEST_F(Clearing, KeepListAsksNoPlatformQuestion) {
    Lines want;
    add(want, rm_f, kLoginPages);
    add(want, rm_f, kSslvpnToTroubleShooting);
    add(want, rm_rf, {"/flash/ptf/lib/*", "/flash/storage/ptf/lib/*"});
    ssl_modes_to_customize_files(want);
    want.push_back(clear_dir("/flash/aaa"));
    want.push_back(rm_rf("/flash/aaa/%s/user_extern.txt"));
    EXPECT_EQ(want.size(), 23u);
    for (const char *platform : {"", "adc,a,mysql,waf"})
        EXPECT_EQ(run(clear_customization_file_in_flash_keep, platform), want) << platform;
}

TEST_F(Clearing, FoundryScriptThenTheDatabaseOnInspectionPlatforms) {
    const std::string script = "run /bin/sh: /bin/sh /etc/unsetall.script";
    const std::string keep = "run /bin/sh: /bin/sh /etc/unsetall_keep.script";
    for (const char *platform : {"bds", "nips", "ids"}) {
        EXPECT_EQ(run(fy_clear_customization_file_in_flash, platform), (Lines{script, "popen r: rm -rf /flash/mysql"}));
        EXPECT_EQ(run(fy_clear_customization_file_in_flash_keep, platform), Lines{keep});
    }
    for (const char *platform : {"", "adc,waf,mysql,a"}) {
        EXPECT_EQ(run(fy_clear_customization_file_in_flash, platform), Lines{script});
        EXPECT_EQ(run(fy_clear_customization_file_in_flash_keep, platform), Lines{keep});
    }

    ConsoleCapture console;
    hooks::capture_runs(-1);
    EXPECT_EQ(run(fy_clear_customization_file_in_flash, "bds", -1), Lines{script}) << "no database after a failure";
    EXPECT_EQ(run(fy_clear_customization_file_in_flash_keep, "bds", -1), Lines{keep});
    const std::string failed = "Failed to clear customization files of foundry series platform in flash\n";
    EXPECT_EQ(console.text(), failed + failed);
    console.clear();
    hooks::capture_runs(3);
    EXPECT_EQ(fy_clear_customization_file_in_flash_keep(), 0) << "only a negative result fails";
    hooks::set_popen(hooks::PopenMode::fail);
    EXPECT_EQ(fy_clear_customization_file_in_flash(), -1);
    EXPECT_EQ(console.text(), "rm /flash/mysql failed. \n");
}

} // namespace
