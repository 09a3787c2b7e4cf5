#include "manager.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

#include "mgi/wire.h"
#include "mgmt/catalogue.h"
#include "mgmt/device.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_app.h"
#include "mgmt/mgi_services.h"
#include "mgmt/platform/device.h"

namespace mgd {

namespace {

Manager *g_manager = nullptr;

using mgmt::get_be16;
using mgmt::get_be32;
using mgmt::pad8;
using mgmt::get_field;
using mgmt::put_field;
namespace hdr = mgmt::hdr;

std::vector<uint32_t> target_of(const uint8_t *msg) {
    std::vector<uint32_t> t;
    for (int i = 0; i < MGI_TARGET_WORDS; ++i) {
        uint32_t w = get_be32(msg + MGI_OFF_TARGET + 4 * i);
        if (!w) break;
        t.push_back(w);
    }
    return t;
}

std::string path_text(const std::vector<uint32_t> &t) {
    std::string s;
    char w[16];
    for (uint32_t x : t) {
        std::snprintf(w, sizeof w, "%s%x", s.empty() ? "" : ".", x);
        s += w;
    }
    return s.empty() ? "-" : s;
}

const char *object_name(const std::vector<uint32_t> &t) {
    const libmgmt_object *o = libmgmt_object_by_path(t.data(), uint32_t(t.size()));
    return o ? o->name : "?";
}

int mgi_handler(void *ipc, void *, void *payload, uint32_t len, int32_t *status, void *reply, uint32_t *reply_len) {
    return g_manager->on_mgi(static_cast<ipc_peer_t *>(ipc), static_cast<uint8_t *>(payload), len, status,
                             static_cast<uint8_t *>(reply), reply_len);
}

int transaction_handler(void *ipc, void *, void *payload, uint32_t len, int32_t *status, void *reply,
                        uint32_t *reply_len) {
    return g_manager->on_transaction(static_cast<ipc_peer_t *>(ipc), static_cast<uint8_t *>(payload), len, status,
                                     static_cast<uint8_t *>(reply), reply_len);
}

int simple_handler(void *ipc, void *head, void *payload, uint32_t len, int32_t *status, void *reply,
                   uint32_t *reply_len) {
    uint16_t msg = get_be16(static_cast<const ipc_frame_t *>(head)->msg_be);
    return g_manager->on_simple(msg, static_cast<uint8_t *>(payload), len, status, static_cast<uint8_t *>(reply),
                                reply_len, static_cast<ipc_peer_t *>(ipc)->appid);
}

int address_handler(void *, void *, void *payload, uint32_t len, int32_t *, void *, uint32_t *) {
    ipc_address_note_t note;
    if (len >= sizeof note) {
        std::memcpy(&note, payload, sizeof note);
        g_manager->on_address(note);
    }
    return IPC_HANDLER_NOREPLY;
}

long long now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// The start time of a process (clock ticks after boot), 0 when it does not exist: with the pid it
// names one process, even after the pid was given to another.
uint64_t start_time(int32_t pid) {
    char path[32], text[1024];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    FILE *f = std::fopen(path, "r");
    if (!f) return 0;
    size_t n = std::fread(text, 1, sizeof text - 1, f);
    std::fclose(f);
    text[n] = '\0';
    const char *p = std::strrchr(text, ')'); // the name may hold spaces and parentheses
    unsigned long long start = 0;
    // After the name: state, then fields 4 to 21; the start time is field 22.
    if (!p || std::sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu",
                          &start) != 1)
        return 0;
    return start;
}

int pidfd_of(int32_t pid) { return pid > 0 ? int(syscall(SYS_pidfd_open, pid, 0)) : -1; }

// The key under which an accepted set is kept: its path and, for an indexed object, its index.
std::vector<uint8_t> set_key(const std::vector<uint32_t> &path, const uint8_t *record, size_t len) {
    std::vector<uint8_t> key(reinterpret_cast<const uint8_t *>(path.data()),
                             reinterpret_cast<const uint8_t *>(path.data() + path.size()));
    const libmgmt_object *o = libmgmt_object_by_path(path.data(), uint32_t(path.size()));
    if (o && o->index_len && len >= o->index_len) key.insert(key.end(), record, record + o->index_len);
    return key;
}

// The manager's own objects (mgmt_*): what was set is kept and given back to a get.
std::map<std::vector<uint32_t>, std::vector<uint8_t>> *g_own_records = nullptr;

std::vector<uint32_t> info_target(const mgiInfo *info) {
    std::vector<uint32_t> t;
    for (int i = 0; i < MGI_TARGET_WORDS && info->rqt_target[i]; ++i) t.push_back(info->rqt_target[i]);
    return t;
}

int own_decode(mgiInfo *info) {
    // A set through the manager carries its record as the whole payload, whose length is the
    // request's; a record segment carries its own length, and an empty one keeps nothing.
    const bool payload = info->mgidata == info->rqt_data;
    const uint16_t len = payload ? info->rqt_len : info->mgidata_len;
    if (info->rqt_no_more && info->mgidata && len) {
        auto *p = static_cast<uint8_t *>(info->mgidata);
        (*g_own_records)[info_target(info)].assign(p, p + len);
    }
    return 0;
}

int own_encode(mgiInfo *info) {
    set_rsptype(info, MGI_RSP_FINAL);
    if (info->rqt_no_more) return 0;
    auto it = g_own_records->find(info_target(info));
    if (it == g_own_records->end() || it->second.empty()) return 0;
    mgi_init_rsp_message(info);
    mgi_update_rsp_data(info, it->second.data(), uint16_t(it->second.size()));
    mgi_final_rsp_message(info);
    return 0;
}

} // namespace

Manager::Manager() {
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        std::vector<uint32_t> path(o->path, o->path + o->depth);
        path_owner_[path] = o->owner;
        module_owner_.emplace(o->path[o->depth - 1] >> 16, o->owner);
    }
}

Manager::~Manager() {
    for (auto &[vsys, t] : transactions_)
        if (t.watch >= 0) close(t.watch);
    ipc_client_close(client_);
    if (g_manager == this) g_manager = nullptr;
}

bool Manager::start(const std::string &state_dir, std::string *why) {
    if (!store_.open(state_dir, why)) return false;
    client_ = ipc_client_open();
    if (!client_) {
        *why = std::string("cannot open a socket for relays: ") + std::strerror(errno);
        return false;
    }
    store_.each_set(0, [&](const std::vector<uint32_t> &path, const std::vector<uint8_t> &message) {
        stored_[path].assign(message.begin() + MGI_HDR_LEN, message.end());
        ++loaded_sets_;
    });
    next_id_ = store_.next_id();
    for (const Held &h : store_.held()) {
        transactions_[h.vsys].held = h;
        if (holder_alive(h)) transactions_[h.vsys].watch = pidfd_of(h.pid);
    }
    g_manager = this;
    g_own_records = &own_records_;
    // The manager's own objects are served by the library's serving side.
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        if (o->owner != MGD_APPID || o->depth != 1) continue;
        appEntity *e = app_entity_init(o->path[0], o->index_count ? APP_ENTITY_INDEXED : 0, nullptr, nullptr,
                                       own_decode, own_encode, nullptr);
        if (e) app_entity_add(nullptr, e);
    }
    ipc_register_handler(MGI_IPC_MSG, mgi_handler);
    ipc_register_handler(MGD_MSG_TRANSACTION, transaction_handler);
    ipc_register_handler(IPC_CHANNEL_ADDRESS, address_handler);
    for (int m : {MGD_MSG_REQUEST_CONFIG, MGD_MSG_DBG_CONFIG, MGD_MSG_CONFIG_CHANGE_STATUS, MGD_MSG_LOCK_CFG,
                  MGD_MSG_SYSTEM_DEBUG_STATE, MGD_MSG_OBJECT_DEFAULT_VALUE, MGD_MSG_CONFIG_LOCK_STATUS,
                  MGD_MSG_PRE_CONFIG_FEATURE, MGD_MSG_TRANSACTION_STATE, MGD_MSG_PLATFORM, MGMT_IMPORT_RQT_MSG})
        ipc_register_handler(uint16_t(m), simple_handler);
    return true;
}

void Manager::report() {
    // Addresses that appear from now on are told to the manager's own (bound) address.
    ipc_subscribe(IPC_CHANNEL_ADDRESS, MGD_APPID, 0);
    log(Level::info, "state in %s: %zu accepted sets, %zu open transactions, next transaction id %u",
        store_.path().c_str(), loaded_sets_, transactions_.size(), next_id_);
    std::vector<uint16_t> ended;
    for (const auto &[vsys, t] : transactions_) {
        if (t.watch >= 0)
            log(Level::info, "transaction %u of vsys %u held by \"%s\" (pid %d) is still open", t.held.id, vsys,
                t.held.user.c_str(), t.held.pid);
        else
            ended.push_back(vsys);
    }
    for (uint16_t vsys : ended) release(vsys, "its holder ended while the manager was away");
}

ipc_handler_fn Manager::lock_handler() { return simple_handler; }

uint32_t Manager::owner_of(const uint32_t *target) const {
    std::vector<uint32_t> t;
    for (int i = 0; i < MGI_TARGET_WORDS && target[i]; ++i) t.push_back(target[i]);
    if (t.empty()) return 0;
    if (auto it = path_owner_.find(t); it != path_owner_.end()) return it->second;
    auto it = module_owner_.find(t.back() >> 16);
    return it == module_owner_.end() ? 0 : it->second;
}

// An error answer: the request's header with type 18 and one error segment.
void Manager::answer_error(const ipc_peer_t *peer, const uint8_t *request, uint32_t len, int32_t code,
                           const char *text) {
    // The error segment's body: four code words, then the text.
    constexpr size_t kCodes = 4 * sizeof(int32_t);
    uint8_t out[MGI_HDR_LEN + MGI_SEGHDR_LEN + kCodes + 128] = {};
    std::memcpy(out, request, std::min<uint32_t>(len, MGI_HDR_LEN));
    out[MGI_OFF_TYPE] = MGI_RSP_ERROR;
    uint8_t *head = out + MGI_HDR_LEN;
    uint8_t *body = mgmt::seg_body(head);
    int32_t words[4] = {code, 0, 0, 0};
    std::memcpy(body, words, kCodes);
    char text_copy[128] = {};
    strlcpy(text_copy, text, sizeof text_copy - kCodes);
    size_t padded = pad8(std::strlen(text_copy) + 1);
    std::memcpy(body + kCodes, text_copy, padded);
    append_segment(out + MGI_OFF_NEXTSEG, head, MGI_SEG_ERROR, body, uint16_t(kCodes + padded));
    put_field(out, hdr::len, uint16_t(MGI_SEGHDR_LEN + kCodes + padded));
    ipc_send_to_peer(peer, MGI_IPC_MSG, out, uint32_t(MGI_HDR_LEN + MGI_SEGHDR_LEN + kCodes + padded), 0);
}

int Manager::on_mgi(ipc_peer_t *peer, const uint8_t *msg, uint32_t len, int32_t *status, uint8_t *reply,
                    uint32_t *reply_len) {
    if (len < MGI_HDR_LEN || msg[MGI_OFF_MARK] != MGI_MARK || get_field(msg, hdr::len) + MGI_HDR_LEN > len) {
        log(Level::warning, "malformed MGI message from app%u (%u bytes): refused", peer->appid, len);
        uint8_t hdr[MGI_HDR_LEN] = {};
        if (len) std::memcpy(hdr, msg, std::min<uint32_t>(len, MGI_HDR_LEN));
        hdr[MGI_OFF_MARK] = MGI_MARK;
        answer_error(peer, hdr, MGI_HDR_LEN, kRefused, "malformed request");
        *status = -1;
        return IPC_HANDLER_NOREPLY;
    }
    std::vector<uint32_t> t = target_of(msg);
    uint32_t target[MGI_TARGET_WORDS] = {};
    std::copy(t.begin(), t.end(), target);
    uint32_t owner = owner_of(target);
    uint8_t type = msg[MGI_OFF_TYPE];
    bool through_mgd = msg[MGI_OFF_NEXTSEG] < mgmt::kNextsegRecord && get_field(msg, hdr::offset) == MGI_NO_MORE;
    if (through_mgd) {
        // A locked virtual system takes sets only under its holder's transaction.
        uint16_t vsys = get_field(msg, hdr::vsysid);
        auto held = transactions_.find(vsys);
        if (held != transactions_.end() && msg[MGI_OFF_TRANSACTION_ID] != held->second.held.id) {
            const Held &h = held->second.held;
            char text[96];
            std::snprintf(text, sizeof text, "virtual system %u is locked by transaction %u of \"%s\"", vsys, h.id,
                          h.user.c_str());
            log(Level::warning, "set %s (%s) type %u from app%u trans %u: refused, %s", object_name(t),
                path_text(t).c_str(), type, peer->appid, msg[MGI_OFF_TRANSACTION_ID], text);
            answer_error(peer, msg, len, kLocked, text);
            return IPC_HANDLER_NOREPLY;
        }
    }
    if (owner == MGD_APPID && type != MGI_RQT_MGD_GET) {
        log(Level::info, "%s %s (%s) type %u from app%u: served here", through_mgd ? "set" : "get", object_name(t),
            path_text(t).c_str(), type, peer->appid);
        uint8_t head[32] = {};
        head[4] = 0;
        head[5] = MGI_IPC_MSG;
        handle_mgi_msg(peer, head, const_cast<uint8_t *>(msg), len, status, reply, reply_len);
        return IPC_HANDLER_REPLY;
    }
    if (through_mgd) {
        Relay r;
        r.has_peer = true;
        r.peer = *peer;
        r.set.assign(msg, msg + len);
        if (!owner) {
            log_set(r, owner, "unknown object, refused", Level::warning);
            answer_error(peer, msg, len, kRefused, "unknown object");
        } else {
            enqueue(owner, std::move(r));
        }
        return IPC_HANDLER_NOREPLY;
    }
    log(Level::info, "get %s (%s) type %u from app%u", object_name(t), path_text(t).c_str(), type, peer->appid);
    answer_stored(msg, reply, reply_len);
    return IPC_HANDLER_REPLY;
}

// The line of a set, written before its last answer goes out, so that whoever got the answer finds it.
void Manager::log_set(const Relay &r, uint32_t owner, const std::string &outcome, Level level) const {
    const uint8_t *msg = r.set.data();
    std::vector<uint32_t> t = target_of(msg);
    if (r.has_peer)
        log(level, "set %s (%s) type %u from app%u src %u trans %u: %u bytes -> app%u: %s", object_name(t),
            path_text(t).c_str(), msg[MGI_OFF_TYPE], r.peer.appid, msg[MGI_OFF_SRC], msg[MGI_OFF_TRANSACTION_ID],
            get_field(msg, hdr::len), owner, outcome.c_str());
    else
        log(level == Level::info ? Level::debug : level, "replayed set %s (%s): %u bytes -> app%u: %s",
            object_name(t), path_text(t).c_str(), get_field(msg, hdr::len), owner, outcome.c_str());
}

void Manager::enqueue(uint32_t owner, Relay relay) {
    OwnerQueue &q = owners_[owner];
    if (q.waiting.size() >= kMaxWaiting) {
        char text[96];
        std::snprintf(text, sizeof text, "application %s has %zu sets waiting: refused", appid2appname(owner),
                      q.waiting.size());
        log_set(relay, owner, text, Level::warning);
        if (relay.has_peer) answer_error(&relay.peer, relay.set.data(), uint32_t(relay.set.size()), kBusy, text);
        return;
    }
    relay.request = relay.set;
    relay.deadline = now_ms() + relay_timeout_ms_;
    if (relay.has_peer && log_enabled(Level::debug)) {
        std::vector<uint32_t> t = target_of(relay.set.data());
        log(Level::debug, "set %s (%s) from app%u waits for app%u behind %zu others", object_name(t),
            path_text(t).c_str(), relay.peer.appid, owner, q.waiting.size());
    }
    q.waiting.push_back(std::move(relay));
    send_next(owner);
}

// Sends the owner's next request when none is in flight.
void Manager::send_next(uint32_t owner) {
    OwnerQueue &q = owners_[owner];
    while (!q.in_flight && !q.waiting.empty()) {
        Relay &r = q.waiting.front();
        uint32_t seq = 0;
        int rc = ipc_client_send(client_, owner, MGI_IPC_MSG, r.request.data(), uint32_t(r.request.size()), &seq);
        if (rc == -EAGAIN && now_ms() < r.deadline) {
            q.retry_at = now_ms() + 10; // its queue is full: again shortly, until the deadline
            return;
        }
        if (rc < 0) {
            finish(owner,
                   "no answer (" + std::string(errno_name(-rc)) +
                       (rc == -ENOENT || rc == -ECONNREFUSED ? ": not running" : "") + ")",
                   Level::warning, rc == -EAGAIN ? kNoAnswer : kOwnerGone);
            continue;
        }
        q.retry_at = 0;
        q.in_flight = true;
        r.seq = seq;
        r.deadline = now_ms() + relay_timeout_ms_;
        in_flight_[seq] = owner;
        q.watch = ipc_client_watch(client_, owner);
    }
}

// Ends the set in flight (or at the front) of the owner without an answer of its: the front end
// hears why, and the next set goes out.
void Manager::finish(uint32_t owner, const std::string &outcome, Level level, int32_t code) {
    OwnerQueue &q = owners_[owner];
    Relay r = std::move(q.waiting.front());
    q.waiting.pop_front();
    if (q.in_flight) {
        in_flight_.erase(r.seq);
        q.in_flight = false;
        q.watch = -1;
    }
    log_set(r, owner, r.types + (r.types.empty() ? "" : ", then ") + outcome, level);
    if (r.has_peer) {
        char text[64];
        std::snprintf(text, sizeof text, "application %s does not answer", appid2appname(owner));
        answer_error(&r.peer, r.set.data(), uint32_t(r.set.size()), code, text);
    }
    if (code == kNoAnswer && r.seq) given_up_[r.seq] = {owner, std::move(r.set)}; // its answer may still come
    while (given_up_.size() > 1024) given_up_.erase(given_up_.begin());
}

// Keeps what an owner accepted: in the copy that answers gets and in the database.
void Manager::accept(const std::vector<uint8_t> &set, uint32_t owner) {
    std::vector<uint32_t> path = target_of(set.data());
    const uint8_t *record = set.data() + MGI_HDR_LEN;
    size_t len = std::min<size_t>(get_field(set.data(), hdr::len), set.size() - MGI_HDR_LEN);
    stored_[path].assign(record, record + len);
    std::vector<uint8_t> message(set.begin(), set.begin() + MGI_HDR_LEN + len);
    if (!store_.put_set(set_key(path, record, len), owner, path, message))
        log(Level::error, "cannot keep the set of %s (%s): %s", object_name(path), path_text(path).c_str(),
            store_.error().c_str());
    config_changed_ = true;
}

void Manager::on_answer(uint32_t seq, const uint8_t *answer, uint32_t len) {
    uint8_t type = len >= MGI_HDR_LEN ? answer[MGI_OFF_TYPE] : 0;
    auto late = given_up_.find(seq);
    if (late != given_up_.end()) {
        // The owner took the set after the front end was told it failed: the copy follows the owner.
        auto [owner, set] = late->second;
        std::vector<uint32_t> t = target_of(set.data());
        bool taken = type == MGI_RSP_FINAL || type == MGI_RSP_FINAL2;
        log(Level::warning, "late answer type %u from app%u to a set of %s (%s) reported as failed: %s", type, owner,
            object_name(t), path_text(t).c_str(), taken ? "it was applied, the copy now holds it" : "not applied");
        if (taken) accept(set, owner);
        if (type != MGI_RSP_PARTIAL) given_up_.erase(late);
        return;
    }
    auto it = in_flight_.find(seq);
    if (it == in_flight_.end()) return; // an answer to nothing the manager waits for
    uint32_t owner = it->second;
    OwnerQueue &q = owners_[owner];
    Relay &r = q.waiting.front();
    if (len < MGI_HDR_LEN) {
        finish(owner, "no answer (an answer of " + std::to_string(len) + " bytes)", Level::warning, kRefused);
        send_next(owner);
        return;
    }
    r.types += (r.types.empty() ? "answered type " : ", ") + std::to_string(type);
    bool final = type == MGI_RSP_FINAL || type == MGI_RSP_FINAL2;
    if (final && r.has_peer) accept(r.set, owner); // kept before the front end hears of it
    if (type != MGI_RSP_PARTIAL) log_set(r, owner, r.types, Level::info);
    if (r.has_peer) ipc_send_to_peer(&r.peer, MGI_IPC_MSG, answer, len, 0);
    in_flight_.erase(seq);
    q.in_flight = false;
    q.watch = -1;
    if (type == MGI_RSP_PARTIAL && ++r.answers < kMaxAnswers) {
        // More follows from the owner: ask for it as a closing request of the same set.
        r.request.assign(r.set.begin(), r.set.begin() + MGI_HDR_LEN);
        r.request[MGI_OFF_TYPE] = MGI_RQT_CLOSE;
        r.request[MGI_OFF_NEXTSEG] = MGI_SEG_END;
        put_field(r.request.data(), hdr::len, 0);
    } else if (type == MGI_RSP_PARTIAL) {
        finish(owner, "no end after " + std::to_string(kMaxAnswers) + " answers", Level::warning, kRefused);
    } else {
        q.waiting.pop_front();
    }
    send_next(owner);
}

void Manager::poll_fds(std::vector<pollfd> *fds) const {
    fds->push_back({ipc_client_fd(client_), POLLIN, 0});
    for (const auto &[owner, q] : owners_)
        if (q.in_flight && q.watch >= 0) fds->push_back({q.watch, POLLIN, 0});
    for (const auto &[vsys, t] : transactions_)
        if (t.watch >= 0) fds->push_back({t.watch, POLLIN, 0});
}

int Manager::wait_ms() const {
    long long next = -1;
    for (const auto &[owner, q] : owners_) {
        if (q.waiting.empty()) continue;
        long long at = q.in_flight ? q.waiting.front().deadline : q.retry_at;
        if (at && (next < 0 || at < next)) next = at;
    }
    if (next < 0) return -1;
    long long left = next - now_ms();
    return left > 0 ? int(std::min<long long>(left, 60000)) : 0;
}

void Manager::on_events(const pollfd *fds, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        if (fds[i].fd == ipc_client_fd(client_)) {
            static uint8_t answer[MGI_MAX_LEN];
            uint32_t seq;
            int32_t status;
            for (int got; (got = ipc_client_recv(client_, &seq, &status, answer, sizeof answer)) >= 0;)
                on_answer(seq, answer, uint32_t(got));
            continue;
        }
        for (auto &[owner, q] : owners_)
            if (q.in_flight && q.watch == fds[i].fd && !q.waiting.empty())
                finish(owner, "no answer (it ended before it answered)", Level::warning, kOwnerGone);
        for (auto it = transactions_.begin(); it != transactions_.end();) {
            auto next = std::next(it);
            if (it->second.watch == fds[i].fd) release(it->first, "its holder has ended");
            it = next;
        }
    }
    long long now = now_ms();
    for (auto &[owner, q] : owners_) {
        if (q.in_flight && !q.waiting.empty() && now >= q.waiting.front().deadline)
            finish(owner, "no answer (ETIMEDOUT: it did not answer in " + std::to_string(relay_timeout_ms_) + " ms)",
                   Level::warning, kNoAnswer);
        if (!q.in_flight && !q.waiting.empty() && (!q.retry_at || now >= q.retry_at)) send_next(owner);
    }
}

// An address was bound: an owner that (re)registers gets the sets it accepted, in their order.
void Manager::on_address(const ipc_address_note_t &note) {
    if (note.appid == MGD_APPID || note.slot != ipc_own_slot() || note.instance != 0) return;
    std::vector<std::vector<uint8_t>> sets;
    store_.each_set(note.appid, [&](const std::vector<uint32_t> &, const std::vector<uint8_t> &m) { sets.push_back(m); });
    if (sets.empty()) return;
    for (auto &m : sets) {
        Relay r;
        r.set = std::move(m);
        enqueue(note.appid, std::move(r));
    }
    // Written once the first of them is on its way: what the owner is asked next comes after it.
    log(Level::info, "app%u (pid %d) registered: replaying its %zu accepted sets", note.appid, note.pid, sets.size());
}

// A get answered from the manager's own copy: the last record accepted on that path.
void Manager::answer_stored(const uint8_t *msg, uint8_t *reply, uint32_t *reply_len) {
    std::memcpy(reply, msg, MGI_HDR_LEN);
    reply[MGI_OFF_TYPE] = MGI_RSP_FINAL;
    reply[MGI_OFF_NEXTSEG] = MGI_SEG_END;
    put_field(reply, hdr::len, 0);
    auto it = stored_.find(target_of(msg));
    if (it != stored_.end() && !it->second.empty()) {
        uint8_t *head = reply + MGI_HDR_LEN;
        append_segment(reply + MGI_OFF_NEXTSEG, head, MGI_SEG_ANSWER, it->second.data(), uint16_t(it->second.size()));
        put_field(reply, hdr::len, uint16_t(8 + it->second.size()));
    }
    *reply_len = MGI_HDR_LEN + get_field(reply, hdr::len);
}

bool Manager::holder_alive(const Held &h) const { return h.pid > 0 && start_time(h.pid) == h.start; }

// With a pidfd the question costs one poll instead of reading /proc: it is readable once the
// holder has ended. A poll that fails asks /proc instead of releasing a live holder's lock.
bool Manager::holder_alive(const Transaction &t) const {
    pollfd p{t.watch, POLLIN, 0};
    const int ready = t.watch < 0 ? -1 : poll(&p, 1, 0);
    return ready < 0 ? holder_alive(t.held) : ready == 0;
}

void Manager::release(uint16_t vsys, const char *why) {
    auto it = transactions_.find(vsys);
    if (it == transactions_.end()) return;
    const Held &h = it->second.held;
    log(Level::info, "transaction %u of vsys %u held by \"%s\" (pid %d) released: %s", h.id, vsys, h.user.c_str(),
        h.pid, why);
    if (it->second.watch >= 0) close(it->second.watch);
    store_.drop_held(vsys);
    transactions_.erase(it);
}

// Grants the next id: never 0, never one held now, and never one given before while the
// counter has not come round (ids are one byte on the wire).
bool Manager::grant(const ipc_peer_t *peer, const char *user, uint16_t vsys, uint8_t *id) {
    uint32_t next = next_id_;
    for (int tries = 0; tries < 256; ++tries, next = next % 255 + 1) {
        bool taken = false;
        for (const auto &[v, t] : transactions_) taken |= t.held.id == next;
        if (!taken) break;
    }
    Held h{vsys, uint8_t(next), user, peer->pid, peer->uid, start_time(peer->pid)};
    if (!store_.set_next_id(next % 255 + 1) || !store_.put_held(h)) {
        log(Level::error, "transaction take vsys %u: cannot keep it: %s", vsys, store_.error().c_str());
        return false;
    }
    next_id_ = next % 255 + 1;
    transactions_[vsys] = Transaction{h, pidfd_of(peer->pid)};
    *id = h.id;
    return true;
}

int Manager::on_transaction(const ipc_peer_t *peer, const uint8_t *req, uint32_t len, int32_t *status,
                            uint8_t *reply, uint32_t *reply_len) {
    mgi_trans_info t = {};
    const uint32_t from = peer->appid;
    if (len < sizeof t) {
        log(Level::warning, "transaction request of %u bytes from app%u: refused", len, from);
        *status = -1;
        *reply_len = 0;
        return IPC_HANDLER_REPLY;
    }
    std::memcpy(&t, req, sizeof t);
    t.trans_user[sizeof t.trans_user - 1] = '\0';
    const uint16_t vsys = t.trans_vsysid;
    auto open = transactions_.find(vsys);
    if (open != transactions_.end() && !holder_alive(open->second)) {
        release(vsys, "its holder has ended");
        open = transactions_.end();
    }
    // Who asks: the holder is the same user name in the same process (its credentials, as the
    // kernel gave them); a state query carries no user name.
    auto by_holder = [&](bool check_user) {
        const Held &h = open->second.held;
        return h.pid == peer->pid && h.uid == peer->uid && (!check_user || h.user == t.trans_user);
    };
    auto refuse_other = [&](const char *what) {
        const Held &h = open->second.held;
        log(Level::warning, "transaction %s vsys %u by \"%s\" (app%u pid %d): refused, transaction %u is held by \"%s\" (pid %d)",
            what, vsys, t.trans_user, from, peer->pid, h.id, h.user.c_str(), h.pid);
        *status = kLocked;
    };
    mgi_trans_info out = t;
    *status = 0;
    switch (t.trans_op) {
    case MGI_TRANS_LOCK:
        if (t.trans_lock == 1) {
            out.trans_id = 0;
            if (open != transactions_.end()) {
                log(Level::info, "transaction take vsys %u by \"%s\" (app%u pid %d): refused, %u is open", vsys,
                    t.trans_user, from, peer->pid, open->second.held.id);
            } else if (grant(peer, t.trans_user, vsys, &out.trans_id)) {
                log(Level::info, "transaction take vsys %u by \"%s\" (app%u pid %d): id %u", vsys, t.trans_user, from,
                    peer->pid, out.trans_id);
            }
        } else if (open == transactions_.end() || open->second.held.id != t.trans_id) {
            log(Level::info, "transaction release vsys %u id %u: refused, not open", vsys, t.trans_id);
            *status = -1;
        } else if (!by_holder(true)) {
            refuse_other("release");
        } else {
            release(vsys, "by its holder");
        }
        break;
    case MGI_TRANS_STATE:
        out.trans_id = 0;
        if (open != transactions_.end() && !by_holder(false)) {
            refuse_other("state");
        } else {
            out.trans_id = open == transactions_.end() ? 0 : open->second.held.id;
            log(Level::debug, "transaction state vsys %u: %s", vsys, out.trans_id ? "open" : "none");
        }
        break;
    case MGI_TRANS_ROLLBACK:
        if (open == transactions_.end()) {
            log(Level::info, "transaction rollback vsys %u: refused, none open", vsys);
            *status = -1;
        } else if (!by_holder(true)) {
            refuse_other("rollback");
        } else {
            release(vsys, "rolled back by its holder");
        }
        break;
    default:
        log(Level::warning, "transaction operation %u: refused", t.trans_op);
        *status = -1;
    }
    std::memcpy(reply, &out, sizeof out);
    *reply_len = sizeof out;
    return IPC_HANDLER_REPLY;
}
int Manager::on_simple(uint16_t msg, const uint8_t *req, uint32_t len, int32_t *status, uint8_t *reply,
                       uint32_t *reply_len, uint32_t from) {
    auto word = [&](size_t at) {
        uint32_t w = 0;
        if (len >= at + 4) std::memcpy(&w, req + at, 4);
        return w;
    };
    auto answer_word = [&](uint32_t w) {
        std::memcpy(reply, &w, 4);
        *reply_len = 4;
    };
    *status = 0;
    switch (msg) {
    case MGD_MSG_REQUEST_CONFIG:
        log(Level::info, "configuration requested by app%u (id %u, sequence %u)", from, len >= 2 ? get_be16(req) : 0,
            len >= 4 ? get_be16(req + 2) : 0);
        return IPC_HANDLER_NOREPLY;
    case MGD_MSG_DBG_CONFIG:
        log(Level::info, "debug configuration from app%u: %u %u %u", from, word(0), word(4), word(8));
        return IPC_HANDLER_NOREPLY;
    case MGD_MSG_LOCK_CFG:
        config_locked_ = word(4) != 0;
        log(Level::info, "configuration %s by app%u", config_locked_ ? "locked" : "unlocked", from);
        return IPC_HANDLER_NOREPLY;
    case MGD_MSG_CONFIG_LOCK_STATUS: {
        uint16_t words[2] = {uint16_t(config_locked_ ? 1 : 0), 0};
        std::memcpy(reply, words, 4);
        *reply_len = 4;
        log(Level::debug, "configuration lock status to app%u: %s", from, config_locked_ ? "locked" : "unlocked");
        return IPC_HANDLER_REPLY;
    }
    case MGD_MSG_CONFIG_CHANGE_STATUS:
        *status = config_changed_ ? 0 : -1;
        log(Level::debug, "configuration change status to app%u: %s", from, config_changed_ ? "changed" : "unchanged");
        std::memcpy(reply, req, std::min<uint32_t>(len, 2));
        *reply_len = std::min<uint32_t>(len, 2);
        return IPC_HANDLER_REPLY;
    case MGD_MSG_TRANSACTION_STATE: {
        uint16_t vsys = 0;
        if (len >= 2) std::memcpy(&vsys, req, 2);
        auto open = transactions_.find(vsys);
        uint32_t id = open == transactions_.end() ? 0 : open->second.held.id;
        answer_word(id);
        log(Level::debug, "transaction state word of vsys %u to app%u: %u", vsys, from, id);
        return IPC_HANDLER_REPLY;
    }
    case MGD_MSG_SYSTEM_DEBUG_STATE:
        answer_word(0);
        log(Level::debug, "system debug state to app%u: 0", from);
        return IPC_HANDLER_REPLY;
    case MGD_MSG_PLATFORM:
        answer_word(word(0) == 1 ? 1 : 0);
        log(Level::debug, "platform word %u to app%u", word(0), from);
        return IPC_HANDLER_REPLY;
    case MGD_MSG_PRE_CONFIG_FEATURE:
        answer_word(0);
        log(Level::debug, "pre-configured feature %u to app%u: 0", word(0), from);
        return IPC_HANDLER_REPLY;
    case MGD_MSG_OBJECT_DEFAULT_VALUE:
        std::memset(reply, 0, *reply_len < 64 ? *reply_len : 64);
        *reply_len = std::min<uint32_t>(*reply_len, 64);
        log(Level::debug, "default value of %x... to app%u: zeros", word(0), from);
        return IPC_HANDLER_REPLY;
    case MGMT_IMPORT_RQT_MSG: {
        // Import of one virtual system's configuration file.
        constexpr size_t name_at = offsetof(mgmt_import_rqt, file_name);
        char name[sizeof(mgmt_import_rqt::file_name)] = {};
        if (len >= name_at + sizeof name) std::memcpy(name, req + name_at, sizeof name - 1);
        std::memset(reply, 0, len);
        *reply_len = len;
        char *reason = reinterpret_cast<char *>(reply) + MGMT_IMPORT_REASON_OFFSET;
        if (len != sizeof(mgmt_import_rqt)) {
            *status = -1;
            strlcpy(reason, "malformed import request", 64);
        } else if (access(name, R_OK) != 0) {
            *status = -1;
            strlcpy(reason, "file not readable", 64);
        }
        log(Level::info, "import of \"%s\" by app%u: %s", name, from, *status == 0 ? "done" : "refused");
        return IPC_HANDLER_REPLY;
    }
    default:
        *status = -1;
        return IPC_HANDLER_REPLY;
    }
}

} // namespace mgd
