// Factory clearing: the exact, ordered command lines of each entry point for each platform kind,
// captured (nothing is removed from the machine), and the foundry entry points' failures.
#include <gtest/gtest.h>

#include "device_support.h"
#include "mgmt/device.h"
#include "test_support.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

using Lines = std::vector<std::string>;

std::string sys(const std::string &cmd) { return "system: " + cmd; }
std::string clear_dir(const std::string &dir) { return sys("rm -rf " + dir + "/* 2>/dev/null"); }
std::string remove_file(const std::string &file) { return sys("rm -f " + file + " 2>/dev/null"); }

struct Kind {
    bool adc_or_waf = false;
    bool mysql = false;
    bool mysql_data = false; // /etc/mnt/nvme/mysql_data readable
    bool a_and_adc = false;
};

Lines login_pages() {
    return {
        sys("rm -f /flash/httpauth/BG_pag.zip 2>/dev/null"),
        sys("rm -f /flash/httpauth/login_page_bg_cn.gif 2>/dev/null"),
        sys("rm -f /flash/httpauth/login_page_bg_en.gif 2>/dev/null"),
        sys("rm -f /flash/httpauth_desc/login_desc 2>/dev/null"),
        sys("rm -f /flash/httpauth/web_redirect_bg_en.gif 2>/dev/null"),
        sys("rm -f /flash/httpauth/web_redirect_bg_cn.gif 2>/dev/null"),
    };
}
Lines sslvpn_to_trouble_shooting() {
    return {
        sys("rm -f /flash/sslvpn/BG_pag.zip 2>/dev/null"),
        sys("rm -f /flash/sslvpn/Login_box_bg_cn.gif 2>/dev/null"),
        sys("rm -f /flash/sslvpn/Login_box_bg_en.gif 2>/dev/null"),
        sys("rm -f /flash/urlfilter/urlfilter-database 2>/dev/null"),
        sys("rm -f /flash/urlfilter/urlfilter-database-saved 2>/dev/null"),
        sys("rm -f /flash/feature/webui.conf 2>/dev/null"),
        sys("rm -f /flash/trouble_shooting/*.pcap 2>/dev/null"),
        sys("rm -f /flash/trouble_shooting/1* 2>/dev/null"),
    };
}
Lines ssl_modes_to_aaa() {
    return {
        sys("rm -f /flash/ssl_next_mode"),
        sys("rm -f /flash/ssl_running_mode"),
        sys("rm -rf /flash/admin/*"),
        sys("rm -rf /flash/web_linkdir/* 2>/dev/null"),
        sys("rm -rf /flash/etc_customize_file/* 2>/dev/null"),
    };
}
void append(Lines &to, const Lines &from) { to.insert(to.end(), from.begin(), from.end()); }

Lines full_list(const Kind &k) {
    Lines l = login_pages();
    l.push_back(sys("rm -rf /flash/gatevpn/web//* 2>/dev/null"));
    append(l, sslvpn_to_trouble_shooting());
    l.push_back(sys("rm -f /flash/api_dir/* 2>dev/null"));
    append(l, ssl_modes_to_aaa());
    l.push_back(sys("rm -rf /flash/app_sig/sig/app_rule_v3 /flash/app_sig/sig/app_sig_desc.xml "
                    "/flash/app_sig/sig/pre_servgroup_desc.xml /flash/app_sig/sig/libai.so.1 "
                    "/flash/app_sig/sig/libai_noipv6.so.1 2>/dev/null"));
    if (k.adc_or_waf) {
        append(l, {
                      sys("rm -f /flash/diagnostic/* 2>/dev/null"),
                      sys("rm -rf /flash/mysql 2>/dev/null"),
                      clear_dir("/flash/rrd"),
                      clear_dir("/flash/health-check"),
                      clear_dir("/flash/third-party-script"),
                      clear_dir("/flash/nginx/vsys"),
                      clear_dir("/flash/nginx/html"),
                      clear_dir("/flash/slb_script"),
                      sys("rm -rf /flash/nginx_data/cache* 2>/dev/null"),
                      sys("rm -rf /flash/nginx_data/old_cache* 2>/dev/null"),
                      sys("rm -rf /flash/nginx_data/trash/ 2>/dev/null"),
                      sys("rm -rf /flash/nginx/logs/error.log 2>/dev/null"),
                      clear_dir("/flash/patch"),
                  });
    }
    append(l, {
                  clear_dir("/flash/aaa"),
                  sys("rm -rf /flash/aaa/%s/user_extern.txt 2>/dev/null"),
                  clear_dir("/tmp/idp_custom_sig"),
                  sys("rm -rf /flash/urldb/url_file//* 2>/dev/null"),
                  sys("rm -rf /flash/storage/sqlite/log/* 2>/dev/null"),
                  clear_dir("/flash/storage/reportfiles"),
              });
    if (k.mysql) {
        l.push_back("run /bin/rm: /bin/rm -rf /flash/mysql");
        if (k.mysql_data) l.push_back("run /bin/rm: /bin/rm -rf /etc/mnt/nvme/mysql_data");
    }
    append(l, {
                  clear_dir("/ssd-data/reportfiles"),
                  clear_dir("/flash/reportfiles"),
                  clear_dir("/etc/mnt/nvme/reportfiles"),
                  clear_dir("/flash/storage/sqlite/report"),
              });
    if (k.a_and_adc) {
        append(l, {
                      sys("rm -rf /etc/mnt/nvme/mysql_logs"),
                      sys("rm -rf /etc/mnt/nvme/rrd"),
                      sys("rm -rf /etc/mnt/nvme/nginx_data"),
                      sys("rm -rf /etc/mnt/nvme/bind_data"),
                  });
    }
    append(l, {
                  remove_file("/flash/.flow_core_num"),
                  sys("rm -f /flash/ipgeo/sig/* 2>/dev/null"),
                  sys("rm -f /flash/isp/sig/* 2>/dev/null"),
                  sys("rm -f /flash/domain_geo/sig/* 2>/dev/null"),
                  sys("rm -f /flash/urldb/url_file/* 2>/dev/null"),
                  sys("rm -f /flash/warnpage/html/* 2>/dev/null"),
                  sys("rm -f /flash/warnpage/image/* 2>/dev/null"),
                  remove_file("/flash/platform/logical_id_file"),
                  remove_file("/flash/platform/logical_id_status_file"),
                  remove_file("/flash/dpdk/dpdk_queue_set"),
                  sys("rm -rf /flash/web/data/* 2>/dev/null"),
                  sys("rm -rf /flash/web/web_local/* 2>/dev/null"),
                  sys("rm -rf /flash/botnet_detection/lib/db/* 2>/dev/null"),
                  sys("rm -rf /flash/botnet_detection/lib/ha/* 2>/dev/null"),
                  sys("rm -rf /flash/botnet_detection/lib/import/* 2>/dev/null"),
              });
    return l;
}

Lines keep_list() {
    Lines l = login_pages();
    append(l, sslvpn_to_trouble_shooting());
    l.push_back(sys("rm -rf /flash/ptf/lib/* 2>/dev/null"));
    l.push_back(sys("rm -rf /flash/storage/ptf/lib/* 2>/dev/null"));
    append(l, ssl_modes_to_aaa());
    l.push_back(clear_dir("/flash/aaa"));
    l.push_back(sys("rm -rf /flash/aaa/%s/user_extern.txt 2>/dev/null"));
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
    Lines run_full(const char *platform) {
        setenv("MGMT_PLATFORM", platform, 1);
        hooks::clear_recorded();
        EXPECT_EQ(clear_customization_file_in_flash(), 0);
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
    for (const auto &c : cases) {
        const Lines got = run_full(c.platform);
        const Lines want = full_list(c.kind);
        EXPECT_EQ(got, want) << "platform '" << c.platform << "'";
    }
    EXPECT_EQ(full_list({}).size(), 47u) << "steps 1 to 22, 24 to 29, 31, 33 to 43 with their sub-steps";
}

TEST_F(Clearing, DatabaseDataIsRemovedOnlyWhenReadable) {
    make_dirs(root.path("/etc/mnt/nvme/mysql_data"));
    EXPECT_EQ(run_full("mysql"), full_list({false, true, true, false}));
    const Lines both = run_full("adc,a,mysql");
    EXPECT_EQ(both, full_list({true, true, true, true}));
    EXPECT_EQ(std::count_if(both.begin(), both.end(),
                            [](const std::string &l) { return l.find("/flash/mysql") != std::string::npos; }),
              2)
        << "removed twice on a database platform of the ADC type";
    hooks::fail_access("/etc/mnt/nvme/mysql_data", R_OK);
    EXPECT_EQ(run_full("mysql"), full_list({false, true, false, false}));
}

TEST_F(Clearing, KeepListAsksNoPlatformQuestion) {
    for (const char *platform : {"", "adc,a,mysql,waf"}) {
        setenv("MGMT_PLATFORM", platform, 1);
        hooks::clear_recorded();
        EXPECT_EQ(clear_customization_file_in_flash_keep(), 0);
        EXPECT_EQ(hooks::recorded(), keep_list()) << platform;
    }
    EXPECT_EQ(keep_list().size(), 23u);
}

TEST_F(Clearing, FoundryScriptThenTheDatabaseOnInspectionPlatforms) {
    for (const char *platform : {"bds", "nips", "ids"}) {
        setenv("MGMT_PLATFORM", platform, 1);
        hooks::clear_recorded();
        EXPECT_EQ(fy_clear_customization_file_in_flash(), 0) << platform;
        EXPECT_EQ(hooks::recorded(), (Lines{"run /bin/sh: /bin/sh /etc/unsetall.script", "popen r: rm -rf /flash/mysql"}))
            << platform;
    }
    for (const char *platform : {"", "adc,waf,mysql,a"}) {
        setenv("MGMT_PLATFORM", platform, 1);
        hooks::clear_recorded();
        EXPECT_EQ(fy_clear_customization_file_in_flash(), 0);
        EXPECT_EQ(hooks::recorded(), Lines{"run /bin/sh: /bin/sh /etc/unsetall.script"}) << platform;
        hooks::clear_recorded();
        EXPECT_EQ(fy_clear_customization_file_in_flash_keep(), 0);
        EXPECT_EQ(hooks::recorded(), Lines{"run /bin/sh: /bin/sh /etc/unsetall_keep.script"});
    }
    setenv("MGMT_PLATFORM", "bds", 1);
    hooks::clear_recorded();
    EXPECT_EQ(fy_clear_customization_file_in_flash_keep(), 0);
    EXPECT_EQ(hooks::recorded(), Lines{"run /bin/sh: /bin/sh /etc/unsetall_keep.script"});
}

TEST_F(Clearing, FoundryFailures) {
    ConsoleCapture console;
    setenv("MGMT_PLATFORM", "bds", 1);
    hooks::capture_runs(-1);
    EXPECT_EQ(fy_clear_customization_file_in_flash(), -1);
    EXPECT_EQ(fy_clear_customization_file_in_flash_keep(), -1);
    EXPECT_EQ(console.text(), "Failed to clear customization files of foundry series platform in flash\n"
                              "Failed to clear customization files of foundry series platform in flash\n");
    EXPECT_EQ(hooks::recorded().size(), 2u) << "no database removal after a failed script";
    console.clear();

    hooks::capture_runs(3);
    EXPECT_EQ(fy_clear_customization_file_in_flash_keep(), 0) << "only a negative result fails";
    hooks::set_popen(hooks::PopenMode::fail);
    EXPECT_EQ(fy_clear_customization_file_in_flash(), -1);
    EXPECT_EQ(console.text(), "rm /flash/mysql failed. \n");
}

} // namespace
