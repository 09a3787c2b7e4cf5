// The manager's durable state: the sets the owners accepted (the last one per object and index),
// the open transactions and the transaction id counter, in an SQLite database (WAL) in the state
// directory. Every write is committed before the call returns, so what the manager answered
// survives its being killed.
#ifndef MGMT_TOOLS_MGD_STORE_H
#define MGMT_TOOLS_MGD_STORE_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace mgd {

struct Held {
    uint16_t vsys = 0;
    uint8_t id = 0;
    std::string user;
    int32_t pid = 0;
    uint32_t uid = 0;
    uint64_t start = 0; // the holder's start time (clock ticks since boot): tells a reused pid apart
};

class Store {
  public:
    Store() = default;
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Opens (making them when missing) the directory and its database; false with why filled.
    bool open(const std::string &dir, std::string *why);
    const std::string &path() const { return path_; }

    // One accepted set: key is the object's path words and its index bytes; the message is the
    // set's whole request (header and record), replayed to the owner as it stood.
    bool put_set(const std::vector<uint8_t> &key, uint32_t owner, const std::vector<uint32_t> &path,
                 const std::vector<uint8_t> &message);
    // Every accepted set, in the order they were accepted (the owner's, or all with owner 0).
    void each_set(uint32_t owner,
                  const std::function<void(const std::vector<uint32_t> &, const std::vector<uint8_t> &)> &fn) const;

    bool put_held(const Held &h);
    bool drop_held(uint16_t vsys);
    std::vector<Held> held() const;

    // The id after the last one granted (1 when none was), and its update.
    uint32_t next_id() const;
    bool set_next_id(uint32_t id);

    // The last failure's words.
    std::string error() const;

  private:
    bool exec(const char *sql);
    sqlite3_stmt *prepare(const char *sql) const;
    sqlite3 *db_ = nullptr;
    // The statements of every write, made once: a write only binds and steps.
    sqlite3_stmt *put_set_ = nullptr;
    sqlite3_stmt *put_held_ = nullptr;
    sqlite3_stmt *drop_held_ = nullptr;
    sqlite3_stmt *set_next_id_ = nullptr;
    int64_t last_seq_ = 0; // the order of the last set kept
    std::string path_;
};

} // namespace mgd

#endif
