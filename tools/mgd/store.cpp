#include "store.h"

#include <cerrno>
#include <cstring>
#include <sqlite3.h>
#include <sys/stat.h>

namespace mgd {

namespace {

// The statement of one call, finalized on every path.
struct Stmt {
    sqlite3_stmt *s;
    ~Stmt() { sqlite3_finalize(s); }
};

void bind_blob(sqlite3_stmt *s, int i, const void *p, size_t n) {
    sqlite3_bind_blob(s, i, n ? p : "", int(n), SQLITE_TRANSIENT);
}

template <typename T> std::vector<T> column_vector(sqlite3_stmt *s, int i) {
    const auto *p = static_cast<const uint8_t *>(sqlite3_column_blob(s, i));
    size_t n = size_t(sqlite3_column_bytes(s, i)) / sizeof(T);
    std::vector<T> v(n);
    if (n) std::memcpy(v.data(), p, n * sizeof(T));
    return v;
}

} // namespace

Store::~Store() {
    for (sqlite3_stmt *s : {put_set_, put_held_, drop_held_, set_next_id_}) sqlite3_finalize(s);
    sqlite3_close(db_);
}

bool Store::open(const std::string &dir, std::string *why) {
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        *why = "cannot make the state directory " + dir + ": " + std::strerror(errno);
        return false;
    }
    path_ = dir + "/mgd.db";
    if (sqlite3_open(path_.c_str(), &db_) != SQLITE_OK) {
        *why = "cannot open " + path_ + ": " + error();
        return false;
    }
    sqlite3_busy_timeout(db_, 2000);
    // WAL with synchronous=NORMAL: a commit is in the log before the call returns, so a killed
    // manager loses nothing; only a crash of the machine may lose the last commits.
    if (!exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
              "CREATE TABLE IF NOT EXISTS accepted(key BLOB PRIMARY KEY, owner INTEGER, path BLOB, message BLOB,"
              " seq INTEGER);"
              "CREATE TABLE IF NOT EXISTS held(vsys INTEGER PRIMARY KEY, id INTEGER, user TEXT, pid INTEGER,"
              " uid INTEGER, start INTEGER);"
              "CREATE TABLE IF NOT EXISTS counter(name TEXT PRIMARY KEY, value INTEGER);")) {
        *why = "cannot set up " + path_ + ": " + error();
        return false;
    }
    // A set is kept on every accepted set, its order counted here.
    put_set_ = prepare("INSERT OR REPLACE INTO accepted(key, owner, path, message, seq) VALUES(?, ?, ?, ?, ?)");
    put_held_ = prepare("INSERT OR REPLACE INTO held(vsys, id, user, pid, uid, start) VALUES(?, ?, ?, ?, ?, ?)");
    drop_held_ = prepare("DELETE FROM held WHERE vsys = ?");
    set_next_id_ = prepare("INSERT OR REPLACE INTO counter(name, value) VALUES('transaction', ?)");
    Stmt last{prepare("SELECT IFNULL(MAX(seq), 0) FROM accepted")};
    if (!put_set_ || !put_held_ || !drop_held_ || !set_next_id_ || !last.s || sqlite3_step(last.s) != SQLITE_ROW) {
        *why = "cannot set up " + path_ + ": " + error();
        return false;
    }
    last_seq_ = sqlite3_column_int64(last.s, 0);
    return true;
}

std::string Store::error() const { return db_ ? sqlite3_errmsg(db_) : "no database"; }

bool Store::exec(const char *sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

sqlite3_stmt *Store::prepare(const char *sql) const {
    sqlite3_stmt *s = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &s, nullptr) != SQLITE_OK) return nullptr;
    return s;
}

bool Store::put_set(const std::vector<uint8_t> &key, uint32_t owner, const std::vector<uint32_t> &path,
                    const std::vector<uint8_t> &message) {
    sqlite3_stmt *st = put_set_;
    sqlite3_reset(st);
    bind_blob(st, 1, key.data(), key.size());
    sqlite3_bind_int64(st, 2, owner);
    bind_blob(st, 3, path.data(), path.size() * sizeof(uint32_t));
    bind_blob(st, 4, message.data(), message.size());
    sqlite3_bind_int64(st, 5, last_seq_ + 1);
    if (sqlite3_step(st) != SQLITE_DONE) return false;
    ++last_seq_;
    return true;
}

void Store::each_set(uint32_t owner,
                     const std::function<void(const std::vector<uint32_t> &, const std::vector<uint8_t> &)> &fn) const {
    Stmt st{prepare("SELECT path, message FROM accepted WHERE ?1 = 0 OR owner = ?1 ORDER BY seq")};
    if (!st.s) return;
    sqlite3_bind_int64(st.s, 1, owner);
    while (sqlite3_step(st.s) == SQLITE_ROW) fn(column_vector<uint32_t>(st.s, 0), column_vector<uint8_t>(st.s, 1));
}

bool Store::put_held(const Held &h) {
    sqlite3_stmt *st = put_held_;
    sqlite3_reset(st);
    sqlite3_bind_int(st, 1, h.vsys);
    sqlite3_bind_int(st, 2, h.id);
    sqlite3_bind_text(st, 3, h.user.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(st, 4, h.pid);
    sqlite3_bind_int64(st, 5, h.uid);
    sqlite3_bind_int64(st, 6, sqlite3_int64(h.start));
    return sqlite3_step(st) == SQLITE_DONE;
}

bool Store::drop_held(uint16_t vsys) {
    sqlite3_reset(drop_held_);
    sqlite3_bind_int(drop_held_, 1, vsys);
    return sqlite3_step(drop_held_) == SQLITE_DONE;
}

std::vector<Held> Store::held() const {
    std::vector<Held> out;
    Stmt st{prepare("SELECT vsys, id, user, pid, uid, start FROM held ORDER BY vsys")};
    if (!st.s) return out;
    while (sqlite3_step(st.s) == SQLITE_ROW) {
        const unsigned char *user = sqlite3_column_text(st.s, 2);
        out.push_back(Held{uint16_t(sqlite3_column_int(st.s, 0)), uint8_t(sqlite3_column_int(st.s, 1)),
                           user ? reinterpret_cast<const char *>(user) : "", sqlite3_column_int(st.s, 3),
                           uint32_t(sqlite3_column_int64(st.s, 4)), uint64_t(sqlite3_column_int64(st.s, 5))});
    }
    return out;
}

uint32_t Store::next_id() const {
    Stmt st{prepare("SELECT value FROM counter WHERE name = 'transaction'")};
    return st.s && sqlite3_step(st.s) == SQLITE_ROW ? uint32_t(sqlite3_column_int64(st.s, 0)) : 1;
}

bool Store::set_next_id(uint32_t id) {
    sqlite3_reset(set_next_id_);
    sqlite3_bind_int64(set_next_id_, 1, id);
    return sqlite3_step(set_next_id_) == SQLITE_DONE;
}

} // namespace mgd
