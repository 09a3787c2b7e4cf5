// Login queue: order, refresh of a repeated login, removal at every place,
// the look-ups, and copies of the whole system login record.

#include <gtest/gtest.h>
#include <utmp.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "mgmt/utmp_queue.h"

namespace {

static_assert(offsetof(utmp_queue_entry, record) == 64, "the record follows the link and the 56-byte access");

std::unique_ptr<utmp_queue_entry> entry(int pid, const char *access, const char *host) {
    auto e = std::make_unique<utmp_queue_entry>();
    memset(e.get(), 0, sizeof *e);
    e->record.ut_pid = pid;
    e->record.ut_type = USER_PROCESS;
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

class UtmpQueue : public ::testing::Test {
protected:
    void SetUp() override {
        q.first = reinterpret_cast<utmp_queue_entry *>(0x1);
        q.last = nullptr;
        utmp_queue_init(&q);
        a = entry(100, "ssh", "10.0.0.1");
        b = entry(200, "telnet", "10.0.0.2");
        c = entry(300, "ssh", "10.0.0.3");
    }
    utmp_queue q{};
    std::unique_ptr<utmp_queue_entry> a, b, c;
};

TEST_F(UtmpQueue, InitAndAppendInOrder) {
    EXPECT_EQ(q.first, nullptr);
    EXPECT_EQ(q.last, &q.first);
    EXPECT_EQ(utmp_queue_find_by_pid(&q, 100), nullptr);

    a->next = reinterpret_cast<utmp_queue_entry *>(0x2);
    utmp_queue_insert(&q, a.get());
    EXPECT_EQ(a->next, nullptr);
    EXPECT_EQ(q.last, &a->next);
    utmp_queue_insert(&q, b.get());
    utmp_queue_insert(&q, c.get());
    utmp_queue_insert(&q, nullptr);
    EXPECT_EQ(pids(q), (std::vector<int>{100, 200, 300}));
    EXPECT_EQ(q.last, &c->next);
    EXPECT_EQ(utmp_queue_find_by_pid(&q, 200), b.get());
    EXPECT_EQ(utmp_queue_find_by_pid(&q, 201), nullptr);
}

TEST_F(UtmpQueue, RepeatedLoginRefreshesTheWholeRecordInPlace) {
    utmp_queue_insert(&q, a.get());
    utmp_queue_insert(&q, b.get());
    auto again = entry(100, "console", "192.168.9.9");
    snprintf(again->record.ut_line, sizeof again->record.ut_line, "pts/7");
    snprintf(again->record.ut_user, sizeof again->record.ut_user, "admin");
    again->record.ut_tv.tv_sec = 1700000000;
    // The last bytes of the record must travel too.
    auto *raw = reinterpret_cast<unsigned char *>(&again->record);
    raw[sizeof(struct utmp) - 1] = 0xa5;
    raw[sizeof(struct utmp) - 20] = 0x5a;
    again->next = reinterpret_cast<utmp_queue_entry *>(0x3);

    utmp_queue_insert(&q, again.get());
    EXPECT_EQ(pids(q), (std::vector<int>{100, 200})) << "no new entry";
    EXPECT_EQ(memcmp(&a->record, &again->record, sizeof(struct utmp)), 0);
    EXPECT_STREQ(a->record.ut_host, "192.168.9.9");
    EXPECT_STREQ(a->access, "ssh") << "the access of the queued entry stays";
    EXPECT_EQ(again->next, reinterpret_cast<utmp_queue_entry *>(0x3)) << "the new entry is not linked";
    EXPECT_EQ(q.last, &b->next);

    utmp_queue_insert(&q, a.get());
    EXPECT_EQ(pids(q), (std::vector<int>{100, 200})) << "an entry inserted twice stays once";
}

TEST_F(UtmpQueue, RemovingTheOnlyEntryRestoresTheEmptyQueue) {
    utmp_queue_insert(&q, a.get());
    utmp_queue_remove(&q, a.get());
    EXPECT_EQ(q.first, nullptr);
    EXPECT_EQ(q.last, &q.first);
    utmp_queue_insert(&q, b.get());
    EXPECT_EQ(q.first, b.get());
    EXPECT_EQ(pids(q), (std::vector<int>{200}));
}

TEST_F(UtmpQueue, RemovingTheLastHangsTheNextBehindItsPredecessor) {
    utmp_queue_insert(&q, a.get());
    utmp_queue_insert(&q, b.get());
    utmp_queue_insert(&q, c.get());
    utmp_queue_remove(&q, c.get());
    EXPECT_EQ(q.last, &b->next);
    auto d = entry(400, "web", "10.0.0.4");
    utmp_queue_insert(&q, d.get());
    EXPECT_EQ(b->next, d.get());
    EXPECT_EQ(pids(q), (std::vector<int>{100, 200, 400}));
}

TEST_F(UtmpQueue, RemovingFirstAndMiddle) {
    utmp_queue_insert(&q, a.get());
    utmp_queue_insert(&q, b.get());
    utmp_queue_insert(&q, c.get());
    utmp_queue_remove(&q, b.get());
    EXPECT_EQ(pids(q), (std::vector<int>{100, 300}));
    EXPECT_EQ(b->next, c.get()) << "the removed entry's link is not cleared";
    EXPECT_EQ(q.last, &c->next);
    utmp_queue_remove(&q, a.get());
    EXPECT_EQ(pids(q), (std::vector<int>{300}));
    EXPECT_EQ(q.last, &c->next);

    auto stranger = entry(999, "ssh", "x");
    utmp_queue_remove(&q, stranger.get());
    utmp_queue_remove(&q, nullptr);
    EXPECT_EQ(pids(q), (std::vector<int>{300})) << "an entry that is not queued changes nothing";
}

TEST_F(UtmpQueue, RemoveByPid) {
    utmp_queue_insert(&q, a.get());
    utmp_queue_insert(&q, b.get());
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 555), nullptr);
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 200), b.get());
    EXPECT_EQ(pids(q), (std::vector<int>{100}));
    EXPECT_EQ(q.last, &a->next);
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 100), a.get());
    EXPECT_EQ(q.last, &q.first);
    EXPECT_EQ(utmp_queue_remove_by_pid(&q, 100), nullptr);
}

TEST_F(UtmpQueue, FindByAccessAndHost) {
    auto blank_host = entry(500, "console", "");
    utmp_queue_insert(&q, a.get());
    utmp_queue_insert(&q, b.get());
    utmp_queue_insert(&q, c.get());
    utmp_queue_insert(&q, blank_host.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0.3"), c.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "telnet", "10.0.0.2"), b.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0.2"), nullptr) << "both must match";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0."), nullptr) << "no prefix match";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "console", ""), nullptr) << "empty host";
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "", "10.0.0.1"), nullptr);
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, nullptr, "10.0.0.1"), nullptr);
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", nullptr), nullptr);

    auto twin = entry(600, "ssh", "10.0.0.1");
    utmp_queue_insert(&q, twin.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", "10.0.0.1"), a.get()) << "the first match";
}

TEST_F(UtmpQueue, HostFillingItsWholeFieldIsComparedInside) {
    auto e = entry(700, "ssh", "");
    memset(e->record.ut_host, 'h', sizeof e->record.ut_host);  // no terminator
    utmp_queue_insert(&q, e.get());
    const std::string full(sizeof e->record.ut_host, 'h');
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", full.c_str()), e.get());
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", full.substr(1).c_str()), nullptr);
    EXPECT_EQ(utmp_queue_find_by_access_and_host(&q, "ssh", (full + "h").c_str()), nullptr);
}

}  // namespace
