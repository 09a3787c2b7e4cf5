// Factory clearing: the exact, ordered command lines of each entry point for each platform kind,
// captured (nothing is removed from the machine) and held to tests/device/clear.golden, and the
// foundry entry points' failures.
#include <gtest/gtest.h>

#include <unistd.h>

#include "device_support.h"
#include "mgmt/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

using Lines = std::vector<std::string>;

class Clearing : public ::testing::Test {
  protected:
    void SetUp() override {
        hook.system = hook.popen = Hooks::record;
        capture_runs(0);
    }
    void TearDown() override {
        reset_hooks();
        unsetenv("MGMT_PLATFORM");
    }
    // What one entry point ran on the given platform, and checks its result.
    Lines run(int (*entry)(), const char *platform, int want = 0) {
        setenv("MGMT_PLATFORM", platform, 1);
        hook.log.clear();
        EXPECT_EQ(entry(), want) << platform;
        return hook.log;
    }
    Sysroot root;
};

TEST_F(Clearing, KeptEveryEntryPointOnEveryPlatformKindRunsItsListMistakesIncluded) {
    const struct {
        int (*entry)();
        const char *name;
    } entries[] = {{clear_customization_file_in_flash, "clear_customization_file_in_flash"},
                   {clear_customization_file_in_flash_keep, "clear_customization_file_in_flash_keep"},
                   {fy_clear_customization_file_in_flash, "fy_clear_customization_file_in_flash"},
                   {fy_clear_customization_file_in_flash_keep, "fy_clear_customization_file_in_flash_keep"}};
    std::string got;
    auto record = [&](const std::string &title, const Lines &lines) {
        got += "== " + title + "\n";
        for (const std::string &l : lines)
            got += l + "\n";
    };
    for (const auto &e : entries)
        for (const char *p : {"", "none", "adc", "waf", "mysql", "a", "bds", "nips", "ids", "adc,a", "waf,a",
                              "adc,mysql", "adc,a,mysql"})
            record(std::string(e.name) + " [" + p + "]", run(e.entry, p));
    // The database's data goes only where it can be read.
    make_dirs(root.path("/etc/mnt/nvme/mysql_data"));
    for (const char *p : {"mysql", "adc,a,mysql"})
        record(std::string("clear_customization_file_in_flash [") + p + "] with readable database data",
               run(clear_customization_file_in_flash, p));
    hook.access_suffix = "/etc/mnt/nvme/mysql_data";
    record("clear_customization_file_in_flash [mysql] with unreadable database data",
           run(clear_customization_file_in_flash, "mysql"));
    expect_golden("clear.golden", got);
}

TEST_F(Clearing, FoundryFailuresAreTold) {
    ConsoleCapture console;
    capture_runs(-1);
    EXPECT_EQ(run(fy_clear_customization_file_in_flash, "bds", -1), Lines{"run /bin/sh: /bin/sh /etc/unsetall.script"})
        << "no database after a failure";
    EXPECT_EQ(run(fy_clear_customization_file_in_flash_keep, "bds", -1),
              Lines{"run /bin/sh: /bin/sh /etc/unsetall_keep.script"});
    const std::string failed = "Failed to clear customization files of foundry series platform in flash\n";
    EXPECT_EQ(console.text(), failed + failed);
    console.clear();
    capture_runs(3);
    EXPECT_EQ(fy_clear_customization_file_in_flash_keep(), 0) << "only a negative result fails";
    hook.popen = Hooks::fail;
    EXPECT_EQ(fy_clear_customization_file_in_flash(), -1);
    EXPECT_EQ(console.text(), "rm /flash/mysql failed. \n");
}

} // namespace
