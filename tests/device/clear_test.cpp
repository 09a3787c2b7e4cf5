// Factory clearing: the exact, ordered command lines of each entry point for each platform kind,
// captured (nothing is removed from the machine) and held to tests/device/clear.golden, and the
// foundry entry points' failures. MGMT_UPDATE_GOLDEN=1 writes the file anew from what ran.
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

TEST_F(Clearing, EveryEntryPointOnEveryPlatformKindRunsTheGoldenList) {
    const struct {
        int (*entry)();
        const char *name;
    } entries[] = {{clear_customization_file_in_flash, "clear_customization_file_in_flash"},
                   {clear_customization_file_in_flash_keep, "clear_customization_file_in_flash_keep"},
                   {fy_clear_customization_file_in_flash, "fy_clear_customization_file_in_flash"},
                   {fy_clear_customization_file_in_flash_keep, "fy_clear_customization_file_in_flash_keep"}};
    const char *platforms[] = {"",   "none", "adc",     "waf",   "mysql",     "a",         "bds",
                               "nips", "ids", "adc,a", "waf,a", "adc,mysql", "adc,a,mysql"};
    std::string got;
    auto record = [&](const std::string &title, const Lines &lines) {
        got += "== " + title + "\n";
        for (const std::string &l : lines)
            got += l + "\n";
    };
    for (const auto &e : entries)
        for (const char *p : platforms)
            record(std::string(e.name) + " [" + p + "]", run(e.entry, p));
    // The database's data goes only where it can be read.
    make_dirs(root.path("/etc/mnt/nvme/mysql_data"));
    for (const char *p : {"mysql", "adc,a,mysql"})
        record(std::string("clear_customization_file_in_flash [") + p + "] with readable database data",
               run(clear_customization_file_in_flash, p));
    hooks::fail_access("/etc/mnt/nvme/mysql_data", R_OK);
    record("clear_customization_file_in_flash [mysql] with unreadable database data",
           run(clear_customization_file_in_flash, "mysql"));

    const std::string golden = std::string(MGMT_SOURCE_DIR) + "/tests/device/clear.golden";
    if (getenv("MGMT_UPDATE_GOLDEN")) write_file(golden, got);
    EXPECT_EQ(got, read_file(golden)) << "MGMT_UPDATE_GOLDEN=1 writes what ran; review the difference";
}

TEST_F(Clearing, FoundryFailuresAreTold) {
    const std::string script = "run /bin/sh: /bin/sh /etc/unsetall.script";
    const std::string keep = "run /bin/sh: /bin/sh /etc/unsetall_keep.script";
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
