// The reference manager daemon: relays sets to the owning application, keeps a copy of what the
// owners accepted for gets of type 30, and answers the manager's own services (transactions,
// configuration lock, state queries, import).
//
// It is driven by events: a set waits in its owner's queue and is relayed when the owner is free;
// sets to different owners are in flight at once, each with its own deadline, so a stuck owner
// holds up only the sets sent to it. What an owner accepted, the open transactions and the id
// counter are kept in a database (store.h) before the front end hears of it, and an owner that
// registers again gets its accepted sets back in their order.
#ifndef MGMT_TOOLS_MGD_MANAGER_H
#define MGMT_TOOLS_MGD_MANAGER_H

#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <poll.h>

#include "log.h"
#include "store.h"
#include "mgmt/platform/platform.h"

namespace mgd {

// Codes of the manager's own refusals: the first word of the error segment it answers.
enum Refusal : int32_t {
    kRefused = -1,              // a malformed request, an unknown object
    kNoAnswer = -ETIMEDOUT,     // the owner did not answer in time
    kOwnerGone = -ECONNRESET,   // the owner is not running, or ended before it answered
    kBusy = -EBUSY,             // too many sets wait for that owner already
    kLocked = -EACCES,          // the virtual system is locked by another's transaction
};

// How long a relay waits for each answer of the owner, unless told otherwise.
constexpr int kRelayTimeoutMs = 5000;
// Sets that may wait for one owner; more are refused at once with kBusy.
constexpr size_t kMaxWaiting = 256;
// Answers to one set, partial ones included, before the manager gives up on an owner that never ends.
constexpr unsigned kMaxAnswers = 100000;

// A transaction held for one virtual system, and who holds it.
struct Transaction {
    Held held;
    int watch = -1; // pidfd of the holder: readable once it ends
};

// A set on its way to its owner.
struct Relay {
    bool has_peer = false; // false for a replay, which answers nobody
    ipc_peer_t peer{};
    std::vector<uint8_t> set;     // the request as it came
    std::vector<uint8_t> request; // what goes to the owner next (the set, then closing requests)
    std::string types;            // the answers' types so far
    unsigned answers = 0;
    uint32_t seq = 0;
    long long deadline = 0;
};

struct OwnerQueue {
    std::deque<Relay> waiting; // the front one is in flight when in_flight
    bool in_flight = false;
    long long retry_at = 0; // the owner's queue was full: the next try
    int watch = -1;         // the owner's process, while a set is in flight (the client's descriptor)
};

class Manager {
  public:
    Manager();
    ~Manager();
    // Opens the state in dir, loads it and registers the handlers on the process endpoint
    // (application 2). False with why filled when it cannot.
    bool start(const std::string &state_dir, std::string *why);
    // The wait for each answer of an owner (ms, above 0).
    void set_relay_timeout(int ms) { relay_timeout_ms_ = ms; }
    // Once the manager's address is bound: follows the addresses that appear, logs what the state
    // held at the start, and releases the transactions whose holders ended.
    void report();
    // The handler of configuration locks, for a further address of the manager.
    static ipc_handler_fn lock_handler();

    // Descriptors the event loop polls for the manager (after its endpoints), and the wait until
    // the next deadline in ms (-1: none).
    void poll_fds(std::vector<pollfd> *fds) const;
    int wait_ms() const;
    // After a poll: answers of owners, ended owners and holders, deadlines.
    void on_events(const pollfd *fds, size_t n);

    // Owner of the object at a target path (host order), 0 when unknown.
    uint32_t owner_of(const uint32_t *target) const;

    int on_mgi(ipc_peer_t *peer, const uint8_t *msg, uint32_t len, int32_t *status, uint8_t *reply,
               uint32_t *reply_len);
    int on_transaction(const ipc_peer_t *peer, const uint8_t *req, uint32_t len, int32_t *status, uint8_t *reply,
                       uint32_t *reply_len);
    int on_simple(uint16_t msg, const uint8_t *req, uint32_t len, int32_t *status, uint8_t *reply,
                  uint32_t *reply_len, uint32_t from);
    void on_address(const ipc_address_note_t &note);

  private:
    void answer_error(const ipc_peer_t *peer, const uint8_t *request, uint32_t len, int32_t code, const char *text);
    void enqueue(uint32_t owner, Relay relay);
    void send_next(uint32_t owner);
    void on_answer(uint32_t seq, const uint8_t *answer, uint32_t len);
    void finish(uint32_t owner, const std::string &outcome, Level level, int32_t code);
    void accept(const std::vector<uint8_t> &set, uint32_t owner);
    void log_set(const Relay &r, uint32_t owner, const std::string &outcome, Level level) const;
    void answer_stored(const uint8_t *msg, uint8_t *reply, uint32_t *reply_len);
    bool holder_alive(const Held &h) const;
    bool holder_alive(const Transaction &t) const;
    void release(uint16_t vsys, const char *why);
    bool grant(const ipc_peer_t *peer, const char *user, uint16_t vsys, uint8_t *id);

    std::map<uint32_t, uint32_t> module_owner_;            // module number -> application
    std::map<std::vector<uint32_t>, uint32_t> path_owner_; // exact path -> application
    std::map<uint16_t, Transaction> transactions_;         // per virtual system
    std::map<std::vector<uint32_t>, std::vector<uint8_t>> stored_; // path -> last record accepted there
    std::map<std::vector<uint32_t>, std::vector<uint8_t>> own_records_; // the manager's own objects
    std::map<uint32_t, OwnerQueue> owners_;
    std::map<uint32_t, uint32_t> in_flight_;               // sequence -> owner
    std::map<uint32_t, std::pair<uint32_t, std::vector<uint8_t>>> given_up_; // sequence -> owner, set
    ipc_client_t *client_ = nullptr;
    Store store_;
    int relay_timeout_ms_ = kRelayTimeoutMs;
    uint32_t next_id_ = 1;
    size_t loaded_sets_ = 0;
    bool config_locked_ = false;
    bool config_changed_ = false;
};

} // namespace mgd

#endif
