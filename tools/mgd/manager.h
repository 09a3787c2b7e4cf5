// The reference manager daemon: relays sets to the owning application, keeps
// a copy of what was set for gets of type 30, and answers the manager's own
// services (transactions, configuration lock, state queries, import).
#ifndef MGMT_TOOLS_MGD_MANAGER_H
#define MGMT_TOOLS_MGD_MANAGER_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "log.h"
#include "mgmt/platform/platform.h"

namespace mgd {

// A transaction held for one virtual system.
struct Transaction {
    uint8_t id = 0;
    std::string user;
};

class Manager {
  public:
    Manager();
    // Registers the handlers on the process endpoint (application 2).
    void attach();
    // The handler of configuration locks, for a further address of the manager.
    static ipc_handler_fn lock_handler();

    // Owner of the object at a target path (host order), 0 when unknown.
    uint32_t owner_of(const uint32_t *target) const;

    int on_mgi(ipc_peer_t *peer, const uint8_t *msg, uint32_t len, int32_t *status, uint8_t *reply,
               uint32_t *reply_len);
    int on_transaction(const uint8_t *req, uint32_t len, int32_t *status, uint8_t *reply, uint32_t *reply_len,
                       uint32_t from);
    int on_simple(uint16_t msg, const uint8_t *req, uint32_t len, int32_t *status, uint8_t *reply,
                  uint32_t *reply_len, uint32_t from);

  private:
    void answer_error(ipc_peer_t *peer, const uint8_t *request, uint32_t len, int32_t code, const char *text);
    void relay_set(ipc_peer_t *peer, const uint8_t *msg, uint32_t len, uint32_t owner,
                   const std::function<void(const std::string &, Level)> &done);
    void answer_stored(ipc_peer_t *peer, const uint8_t *msg, uint32_t len, uint8_t *reply, uint32_t *reply_len);

    std::map<uint32_t, uint32_t> module_owner_;            // module number -> application
    std::map<std::vector<uint32_t>, uint32_t> path_owner_; // exact path -> application
    std::map<uint16_t, Transaction> transactions_;         // per virtual system
    std::map<std::vector<uint32_t>, std::vector<uint8_t>> stored_; // path -> records set through us
    std::map<std::vector<uint32_t>, std::vector<uint8_t>> own_records_; // the manager's own objects
    uint8_t next_id_ = 1;
    bool config_locked_ = false;
    bool config_changed_ = false;
};

} // namespace mgd

#endif
