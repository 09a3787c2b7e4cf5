// Login queue: order, removal at every place, and the look-ups.

#include <gtest/gtest.h>
#include <utmp.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mgmt/utmp_queue.h"

namespace {

std::unique_ptr<utmp_queue_entry> entry(int pid, const char *access, const char *host) {
    auto e = std::make_unique<utmp_queue_entry>();
    memset(e.get(), 0, sizeof *e);
    e->record.ut_pid = pid;
    snprintf(e->access, sizeof e->access, "%s", access);
    snprintf(e->record.ut_host, sizeof e->record.ut_host, "%s", host);
    return e;
}

std::vector<int> pids(const utmp_queue &q) {
    std::vector<int> v;
    for (utmp_queue_entry *e = q.first; e != nullptr; e = e->next) {
        v.push_back(e->record.ut_pid);
    }
    return v;
}

// A queue of a (100), b (200) and c (300), inserted in that order; a null entry is ignored.
class UtmpQueue : public ::testing::Test {
  protected:
    void SetUp() override {
        utmp_queue_init(&q);
        for (utmp_queue_entry *e : {a.get(), b.get(), static_cast<utmp_queue_entry *>(nullptr), c.get()}) {
            utmp_queue_insert(&q, e);
        }
        ASSERT_EQ(pids(q), (std::vector<int>{100, 200, 300}));
    }
    utmp_queue q{};
    std::unique_ptr<utmp_queue_entry> a = entry(100, "ssh", "10.0.0.1");
    std::unique_ptr<utmp_queue_entry> b = entry(200, "telnet", "10.0.0.2");
    std::unique_ptr<utmp_queue_entry> c = entry(300, "ssh", "10.0.0.3");
};

// After each removal the queue's end is right: the next insert hangs behind the new last entry.
TEST_F(UtmpQueue, RemovingAtEveryPlace) {
    utmp_queue_remove(&q, b.get());
    EXPECT_EQ(pids(q), (std::vector<int>{100, 300}));
    EXPECT_EQ(q.last, &c->next);
    auto stranger = entry(999, "ssh", "x");
    utmp_queue_remove(&q, stranger.get());
    utmp_queue_remove(&q, nullptr);
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 555), nullptr);
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 300), c.get());
    EXPECT_EQ(q.last, &a->next);
    EXPECT_EQ(utmp_queue_find_by_pid(&q, 100), a.get());
    EXPECT_EQ(utmp_queue_find_by_pid(&q, 300), nullptr);

    // Removing the only entry leaves the queue as init left it.
    utmp_queue_remove(&q, a.get());
    EXPECT_EQ(q.first, nullptr);
    EXPECT_EQ(q.last, &q.first);
    utmp_queue_insert(&q, b.get());
    EXPECT_EQ(pids(q), (std::vector<int>{200}));
}

TEST_F(UtmpQueue, FindByAccessAndHost) {
    auto twin = entry(600, "ssh", "10.0.0.1");
    auto full_host = entry(700, "web", "");
    memset(full_host->record.ut_host, 'h', sizeof full_host->record.ut_host); // no terminator
    utmp_queue_insert(&q, twin.get());
    utmp_queue_insert(&q, full_host.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0.1"), a.get()) << "the first match";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0.2"), nullptr) << "both must match";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0."), nullptr) << "no prefix match";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, nullptr, "10.0.0.1"), nullptr);
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", nullptr), nullptr);

    // A host that fills its whole field is compared inside the field.
    const std::string full(sizeof full_host->record.ut_host, 'h');
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "web", full.c_str()), full_host.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "web", (full + "h").c_str()), nullptr);
}

}  // namespace
