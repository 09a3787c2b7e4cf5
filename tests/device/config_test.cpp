// Configuration save, import and compression against a test manager bound as application 2:
// the save request, the import request of message 61, the two phases of the all-vsys import, the
// zip step through a test zipper in the device tree, the reboot after an import, and the texts.
// Factory clearing: the exact, ordered command lines of each entry point for each platform kind,
// captured (nothing is removed from the machine) and held to tests/device/clear.golden, and the
// foundry entry points' failures.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include <unistd.h>

#include "device_support.h"
#include "mgmt/catalogue.h"
#include "mgmt/device.h"

using namespace mgmt_test;
using namespace devtest;

namespace {

constexpr uint32_t kFrontEnd = 5;

// Copies the source ($3) to the archive ($2) unless told to fail.
const char *kZipper = R"(#!/bin/sh
[ -n "$ZIP_TEST_FAIL" ] && exit 1
cp "$3" "$2"
)";

// The record segment (133) of a request on the direct road.
Bytes record_of(const Bytes &m) {
    uint8_t next = m[MGI_OFF_NEXTSEG];
    for (const uint8_t *h = &m[MGI_HDR_LEN]; next != MGI_SEG_END && h + MGI_SEGHDR_LEN <= m.data() + m.size();
         h = mgmt::seg_body(h) + mgmt::seg_len(h)) {
        if (h[1] == MGI_SEG_RULEDATA) return Bytes(mgmt::seg_body(h), mgmt::seg_body(h) + mgmt::seg_len(h));
        next = h[0];
    }
    return {};
}

// The terminated texts of a record: offset, field size, text.
struct Text {
    size_t at, len;
    std::string text;
};
void expect_texts(const Bytes &rec, std::initializer_list<Text> texts) {
    for (const Text &t : texts) {
        const char *p = reinterpret_cast<const char *>(&rec[t.at]);
        EXPECT_EQ(std::string(p, strnlen(p, t.len)), t.text) << "at " << t.at;
    }
}

std::vector<Answer> final_answer(const std::string &data = "") {
    return {{mgi_message(MGI_RSP_FINAL, {Seg{MGI_SEG_UDCDATA, bytes_of(data)}}), 0, true}};
}

std::vector<Answer> error_answer(int32_t code, const std::string &text) {
    const mgiErrBody body{code, 0, 0, 0};
    Bytes b(reinterpret_cast<const uint8_t *>(&body), reinterpret_cast<const uint8_t *>(&body) + sizeof body);
    Bytes t = bytes_of(text);
    t.resize((t.size() / 8 + 1) * 8, 0);
    b.insert(b.end(), t.begin(), t.end());
    return {{mgi_message(MGI_RSP_ERROR, {Seg{MGI_SEG_ERROR, b}}), 0, true}};
}

// A manager that answers message 61 with a reply that carries `reason` and the status of the time.
void answer_imports(TestPeer &mgd, const int32_t &status, const std::string &reason = "") {
    mgd.handle(MGMT_IMPORT_RQT_MSG, [&status, reason](const Received &) {
        Bytes reply(1348, 0);
        std::memcpy(&reply[16], reason.data(), reason.size());
        return std::vector<Answer>{{reply, status, true}};
    });
}

class Config : public ::testing::Test {
  protected:
    void SetUp() override {
        make_dirs(root.path("/usr/local/sbin"));
        write_file(root.path(MGMT_ZIP_PATH), kZipper, 0755);
        unsetenv("ZIP_TEST_FAIL");
        write_file(conf, "set hostname a\n");
    }
    void TearDown() override {
        reset_hooks();
        unsetenv("ZIP_TEST_FAIL");
        unsetenv("MGMT_REBOOT_CMD");
    }
    Sysroot root;
    std::string conf = root.dir() + "/running.conf";
};

// ---------------------------------------------------------------- save

int save_cb(void *data, uint32_t *len, void *, uint32_t *, void *, uint32_t *, void *user) {
    static_cast<std::string *>(user)->assign(static_cast<char *>(data), *len);
    return 0;
}

TEST_F(Config, KeptSaveSendsItemsOneToSixAndItemZeroStaysBehind) {
    TestPeer mgd(MGD_APPID);
    mgd.handle(MGI_IPC_MSG, [](const Received &) { return final_answer("saved"); });
    std::string answer;
    int rc = -9;
    run_as(kFrontEnd, [&] {
        rc = save_configuration(MGMT_VSYS_ALL, "admin", "/flash/config/startup.conf", "web", "10.0.0.1", "tag", 77,
                                2, save_cb, &answer);
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(answer, "saved");
    ASSERT_TRUE(mgd.wait_for(1));
    const Bytes m = mgd.received()[0].bytes;
    expect_fields(m.data(), {{hdr::type, 24}, {hdr::language, 2}, {MGI_OFF_TARGET, 4, 0x90002},
                             {hdr::vsysid, 0xfffe}, {hdr::mask1, 0x7e}}); // item 0 does not travel
    const Bytes rec = record_of(m);
    ASSERT_EQ(rec.size(), size_t(libmgmt_object_find("mgmt_save_config_grp")->entity_len));
    expect_texts(rec, {{0, 32, ""}, {32, 64, "admin"}, {96, 256, "/flash/config/startup.conf"}, {352, 32, "web"},
                       {384, 16, "10.0.0.1"}, {400, 32, "tag"}});
    EXPECT_EQ(host32(rec, 432), 77u);
}

// ---------------------------------------------------------------- compression

TEST_F(Config, KeptCompressionCutsTheLastSuffixAndRemovesTheSourceEvenOnFailure) {
    make_dirs(root.dir() + "/dir.d");
    char path[128] = {}, err[64] = "untouched";
    for (auto [name, zip] : {std::pair{"/backup.tar.gz", "/backup.tar.zip"}, {"/dir.d/config", "/dir.zip"}}) {
        const std::string source = root.dir() + name, archive = root.dir() + zip;
        write_file(source, source);
        strlcpy(path, source.c_str(), sizeof path);
        EXPECT_EQ(libmgmt_compress_file(path, err, sizeof err), 0);
        EXPECT_EQ(std::string(path), archive);
        EXPECT_STREQ(err, "untouched");
        EXPECT_FALSE(exists(source));
        EXPECT_EQ(read_file(archive), source);
    }

    // A failure loses the source too; the text is cut to the buffer.
    strlcpy(path, conf.c_str(), sizeof path);
    setenv("ZIP_TEST_FAIL", "1", 1);
    EXPECT_EQ(libmgmt_compress_file(path, err, sizeof err), -1);
    EXPECT_STREQ(err, "Error: Failed to execute zip\n");
    EXPECT_FALSE(exists(conf));
    write_file(conf, "again");
    char small[8] = "";
    EXPECT_EQ(libmgmt_compress_file(path, small, sizeof small), -1);
    EXPECT_STREQ(small, "Error: ");
}

// ---------------------------------------------------------------- one virtual system

// The manager's reason goes to err within its size and to the console; a missing file is told, but
// the manager's answer counts; only a successful import with the flag reboots.
TEST_F(Config, ImportFailuresAreToldAndOnlySuccessReboots) {
    ConsoleCapture console;
    char err[16] = "old", big[64] = "";
    EXPECT_EQ(libmgmt_import_single_vsys_configuration(1, "f", "r", "cli", err, sizeof err), -1);
    EXPECT_STREQ(err, "") << "no manager";
    strlcpy(err, "old", sizeof err);
    fault::arm_alloc_failures(1);
    EXPECT_EQ(libmgmt_import_single_vsys_configuration(1, "f", "r", "cli", err, sizeof err), -1);
    EXPECT_STREQ(err, "old") << "the allocation failure only goes to the console";
    EXPECT_EQ(console.text(), "failed to import config from cli, reason:\nlibmgmt: ipc malloc failed\n");
    console.clear();

    int32_t status = -1;
    TestPeer mgd(MGD_APPID);
    answer_imports(mgd, status, "configuration file is corrupt");
    EXPECT_EQ(libmgmt_import_single_vsys_configuration(1, "f", "r", "web", err, sizeof err), -1);
    EXPECT_STREQ(err, "configuration f") << "within the buffer's size";
    status = 0;
    char missing[128] = "/flash/none.conf";
    EXPECT_EQ(libmgmt_import_configuration(2, missing, "r", "o", 0, big, sizeof big), 0);
    EXPECT_STREQ(big, "Error: import file not exist\n");
    EXPECT_EQ(libmgmt_import_configuration(2, missing, "r", "o", 0, nullptr, 10), -1);
    EXPECT_FALSE(mgd.wait_for(3, 100)) << "nothing is sent without an error buffer";

    const std::string marker = root.dir() + "/rebooted";
    setenv("MGMT_REBOOT_CMD", ("echo reboot >> " + marker).c_str(), 1);
    char file[128] = {};
    strlcpy(file, conf.c_str(), sizeof file);
    for (auto [st, flag, rc] : {std::tuple{0, 0, 0}, {-1, 1, -1}, {0, 1, 0}}) {
        status = st;
        EXPECT_EQ(libmgmt_import_configuration(1, file, "r", "o", flag, big, sizeof big), rc);
        EXPECT_EQ(read_file(marker), st == 0 && flag ? "reboot\n" : "") << st << " " << flag;
    }
    EXPECT_EQ(console.text(), "failed to import config from web, reason:configuration file is corrupt\n"
                              "failed to import config from o, reason:configuration file is corrupt\n"
                              "success to import configuration, system reboot now\n");
    EXPECT_EQ(libmgmt_is_start_with_default_config(), 0);
    make_dirs(root.path("/tmp"));
    write_file(root.path(MGMT_START_STATIC_CONFIG_FILE), "");
    EXPECT_EQ(libmgmt_is_start_with_default_config(), 1);
}

// ---------------------------------------------------------------- all virtual systems

// A manager that refuses the phase `failing` (none for 0) and carries out the others.
class AllVsys : public Config {
  protected:
    void SetUp() override {
        Config::SetUp();
        mgd.handle(MGI_IPC_MSG, [this](const Received &r) {
            const uint32_t phase = host32(record_of(r.bytes), 0);
            return phase == failing ? error_answer(-3, phase == 1 ? "archive is not valid" : "disk full")
                                    : final_answer();
        });
    }
    // An import of a fresh configuration file.
    int import(uint32_t fail_phase, int32_t errlen = 64) {
        failing = fail_phase;
        write_file(conf, "x");
        strlcpy(file, conf.c_str(), sizeof file);
        int rc = -9;
        run_as(kFrontEnd,
               [&] { rc = libmgmt_import_configuration(MGMT_VSYS_ALL, file, "admin", "web", 0, err, errlen); });
        return rc;
    }
    TestPeer mgd{MGD_APPID};
    std::atomic<uint32_t> failing{0};
    char file[128] = {}, err[64] = "";
};

TEST_F(AllVsys, KeptTheSecondPhaseDropsTheLastCharacterOfARefusal) {
    // Two phases of the management object, after zipping; the caller's name now names the archive.
    EXPECT_EQ(import(0), 0);
    const std::string archive = root.dir() + "/running.zip";
    EXPECT_EQ(std::string(file), archive);
    auto got = mgd.received();
    ASSERT_EQ(got.size(), 2u);
    expect_fields(got[1].bytes.data(), {{hdr::type, 32}, {MGI_OFF_TARGET, 4, 0x9000c}, {hdr::mask1, 1}});
    const Bytes first = record_of(got[0].bytes), second = record_of(got[1].bytes);
    ASSERT_GE(first.size(), 341u);
    EXPECT_EQ(host32(first, 0) * 10 + host32(second, 0), 12u) << "the phase words";
    expect_texts(first, {{4, 257, archive}, {261, 64, "admin"}, {325, 16, "web"}});

    // The first phase copies the manager's text within the buffer's size.
    EXPECT_EQ(import(1, 8), -1);
    EXPECT_STREQ(err, "archive");
    EXPECT_EQ(mgd.received().size(), 3u);

    // The second phase drops the text's last character.
    EXPECT_EQ(import(2), -1);
    EXPECT_STREQ(err, "disk ful");

    setenv("ZIP_TEST_FAIL", "1", 1);
    EXPECT_EQ(import(0), -1);
    EXPECT_STREQ(err, "Error: Failed to execute zip\n");
    EXPECT_FALSE(mgd.wait_for(6, 100)) << "nothing is sent after a failed zip";
}

// ---------------------------------------------------------------- factory clearing

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
    EXPECT_EQ(console.text(), "Failed to clear customization files of foundry series platform in flash\n");
    console.clear();
    capture_runs(3);
    EXPECT_EQ(fy_clear_customization_file_in_flash_keep(), 0) << "only a negative result fails";
    hook.popen = Hooks::fail;
    EXPECT_EQ(fy_clear_customization_file_in_flash(), -1);
    EXPECT_EQ(console.text(), "rm /flash/mysql failed. \n");
}

} // namespace
