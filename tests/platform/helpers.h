// Helpers of the platform tests: a fresh runtime directory per test, a serving endpoint on a
// thread of its own, and the names the stand-in binds.
#ifndef PLATFORM_TEST_HELPERS_H
#define PLATFORM_TEST_HELPERS_H

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include "mgmt/platform/platform.h"
#include "served.h"

namespace plat_test {

// Each test talks in a runtime directory of its own, with a clean IPC state.
class IpcTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ipc_reset();
        char tmpl[] = "/tmp/plat-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv("MGMT_IPC_DIR", dir_.c_str(), 1);
        for (const char *v : {"MGMT_SLOT", "MGMT_APPID", "MGMT_INSTANCE", "MGMT_IPC_TIMEOUT_MS", "MGMT_CONSOLE"})
            unsetenv(v);
    }
    void TearDown() override {
        ipc_reset();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    std::string ep_path(uint32_t app, uint32_t inst = 0, uint32_t slot = 0) const {
        return path("s" + std::to_string(slot) + ".a" + std::to_string(app) + ".i" + std::to_string(inst));
    }
    // The reply socket name of the calling thread.
    std::string my_thread_path() const { return path("t" + std::to_string(getpid()) + "." + std::to_string(gettid())); }
    std::string dir_;
};

inline bool exists(const std::string &p) {
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

inline long long elapsed_ms(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

using Server = mgmt_test::ServedEndpoint;

// Runs fn on a new thread and waits for it.
template <class F> void on_thread(F fn) {
    std::thread t(fn);
    t.join();
}

} // namespace plat_test

#endif
