// Factory clearing: what users, upgrades and services left in flash goes, by one fixed, ordered
// list of shell commands per entry point. The commands run one after the other and their results
// are not looked at; the texts stand exactly as the device has always run them.
#include "mgmt/device.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "device/device_internal.h"
#include "mgmt/platform/device.h"
#include "mgmt/platform/platform.h"
#include "mgmt/platform/questions.h"

using mgmt_device::format_into;

namespace {

constexpr size_t kCmdLen = 256;

// One command, built in a buffer of 256 bytes, run through the shell.
__attribute__((format(printf, 1, 2))) void shell(const char *fmt, ...) {
    char cmd[kCmdLen];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(cmd, sizeof cmd, fmt, ap);
    va_end(ap);
    (void)!system(cmd);
}

// "clear D": what lies in the directory.
void clear_dir(const char *dir) { shell("rm -rf %s/* 2>/dev/null", dir); }
// "remove F".
void remove_file(const char *file) { shell("rm -f %s 2>/dev/null", file); }

// Steps 1 to 6 of both ordinary lists: log-in page pictures and texts.
void clear_login_pages() {
    remove_file("/flash/httpauth/BG_pag.zip");
    remove_file("/flash/httpauth/login_page_bg_cn.gif");
    remove_file("/flash/httpauth/login_page_bg_en.gif");
    remove_file("/flash/httpauth_desc/login_desc");
    remove_file("/flash/httpauth/web_redirect_bg_en.gif");
    remove_file("/flash/httpauth/web_redirect_bg_cn.gif");
}

void clear_sslvpn_pages() {
    remove_file("/flash/sslvpn/BG_pag.zip");
    remove_file("/flash/sslvpn/Login_box_bg_cn.gif");
    remove_file("/flash/sslvpn/Login_box_bg_en.gif");
}

void clear_urlfilter_to_trouble_shooting() {
    remove_file("/flash/urlfilter/urlfilter-database");
    remove_file("/flash/urlfilter/urlfilter-database-saved");
    remove_file("/flash/feature/webui.conf");
    remove_file("/flash/trouble_shooting/*.pcap");
    remove_file("/flash/trouble_shooting/1*");
}

// Without redirection of errors: a missing file puts a line on the shell's standard error.
void clear_ssl_modes_and_admin() {
    shell("rm -f /flash/ssl_next_mode");
    shell("rm -f /flash/ssl_running_mode");
    shell("rm -rf /flash/admin/*");
}

// The "%s" in the pattern stays as it is: no user name is put in.
void clear_aaa() {
    clear_dir("/flash/aaa");
    shell("rm -rf %s 2>/dev/null", "/flash/aaa/%s/user_extern.txt");
}

int foundry_script(const char *script) {
    char cmd[kCmdLen];
    std::memset(cmd, 0, sizeof cmd);
    format_into(cmd, sizeof cmd, "/bin/sh %s", script);
    if (run_shellcmd("/bin/sh", cmd, 1, 0) < 0) {
        console_print("Failed to clear customization files of foundry series platform in flash\n");
        return -1;
    }
    return 0;
}

} // namespace

extern "C" {

MGMT_API int clear_customization_file_in_flash(void) {
    clear_login_pages();
    clear_dir("/flash/gatevpn/web/");
    clear_sslvpn_pages();
    clear_urlfilter_to_trouble_shooting();
    shell("rm -f /flash/api_dir/* 2>dev/null");
    clear_ssl_modes_and_admin();
    clear_dir("/flash/web_linkdir");
    clear_dir("/flash/etc_customize_file");
    shell("rm -rf %s %s %s %s %s 2>/dev/null", "/flash/app_sig/sig/app_rule_v3", "/flash/app_sig/sig/app_sig_desc.xml",
          "/flash/app_sig/sig/pre_servgroup_desc.xml", "/flash/app_sig/sig/libai.so.1",
          "/flash/app_sig/sig/libai_noipv6.so.1");
    if (vk_is_adc_platform() || vk_is_waf_platform()) {
        shell("rm -f %s* 2>/dev/null", "/flash/diagnostic/");
        shell("rm -rf /flash/mysql 2>/dev/null");
        for (const char *dir : {"/flash/rrd", "/flash/health-check", "/flash/third-party-script", "/flash/nginx/vsys",
                                "/flash/nginx/html", "/flash/slb_script"})
            clear_dir(dir);
        shell("rm -rf /flash/nginx_data/cache* 2>/dev/null");
        shell("rm -rf /flash/nginx_data/old_cache* 2>/dev/null");
        shell("rm -rf /flash/nginx_data/trash/ 2>/dev/null");
        shell("rm -rf /flash/nginx/logs/error.log 2>/dev/null");
        clear_dir("/flash/patch");
    }
    clear_aaa();
    clear_dir("/tmp/idp_custom_sig");
    clear_dir("/flash/urldb/url_file/");
    shell("rm -rf /flash/storage/sqlite/log/* 2>/dev/null");
    clear_dir("/flash/storage/reportfiles");
    if (vk_is_support_mysql()) {
        run_shellcmd("/bin/rm", "/bin/rm -rf /flash/mysql", 1, 0);
        const char *data = "/etc/mnt/nvme/mysql_data";
        if (access(data, R_OK) == 0) run_shellcmd("/bin/rm", "/bin/rm -rf /etc/mnt/nvme/mysql_data", 1, 0);
    }
    for (const char *dir : {"/ssd-data/reportfiles", "/flash/reportfiles", "/etc/mnt/nvme/reportfiles",
                            "/flash/storage/sqlite/report"})
        clear_dir(dir);
    if (vk_is_a_platform() && vk_is_adc_platform()) {
        shell("rm -rf /etc/mnt/nvme/mysql_logs");
        shell("rm -rf /etc/mnt/nvme/rrd");
        shell("rm -rf /etc/mnt/nvme/nginx_data");
        shell("rm -rf /etc/mnt/nvme/bind_data");
    }
    remove_file("/flash/.flow_core_num");
    for (const char *dir : {"/flash/ipgeo/sig", "/flash/isp/sig", "/flash/domain_geo/sig"})
        shell("rm -f %s/* 2>/dev/null", dir);
    shell("rm -f /flash/urldb/url_file/* 2>/dev/null");
    shell("rm -f /flash/warnpage/html/* 2>/dev/null");
    shell("rm -f /flash/warnpage/image/* 2>/dev/null");
    for (const char *file : {"/flash/platform/logical_id_file", "/flash/platform/logical_id_status_file",
                             "/flash/dpdk/dpdk_queue_set"})
        remove_file(file);
    shell("rm -rf /flash/web/data/* 2>/dev/null");
    shell("rm -rf /flash/web/web_local/* 2>/dev/null");
    shell("rm -rf /flash/botnet_detection/lib/db/* 2>/dev/null");
    shell("rm -rf /flash/botnet_detection/lib/ha/* 2>/dev/null");
    shell("rm -rf /flash/botnet_detection/lib/import/* 2>/dev/null");
    return 0;
}

MGMT_API int clear_customization_file_in_flash_keep(void) {
    clear_login_pages();
    clear_sslvpn_pages(); // the gatevpn web directory stays
    clear_urlfilter_to_trouble_shooting();
    shell("rm -rf /flash/ptf/lib/* 2>/dev/null");
    shell("rm -rf /flash/storage/ptf/lib/* 2>/dev/null");
    clear_ssl_modes_and_admin(); // the api directory stays
    clear_dir("/flash/web_linkdir");
    clear_dir("/flash/etc_customize_file");
    clear_aaa();
    return 0;
}

MGMT_API int fy_clear_customization_file_in_flash(void) {
    if (foundry_script("/etc/unsetall.script") < 0) return -1;
    if (vk_is_bds_platform() || vk_is_nips_platform() || vk_is_ids_platform()) {
        FILE *fp = popen("rm -rf /flash/mysql", "r");
        if (!fp) {
            console_print("rm /flash/mysql failed. \n");
            return -1;
        }
        pclose(fp);
    }
    return 0;
}

MGMT_API int fy_clear_customization_file_in_flash_keep(void) {
    return foundry_script("/etc/unsetall_keep.script") < 0 ? -1 : 0;
}

} // extern "C"
