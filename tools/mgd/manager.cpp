#include "manager.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "mgi/wire.h"
#include "mgmt/catalogue.h"
#include "mgmt/device.h"
#include "mgmt/mgi.h"
#include "mgmt/mgi_app.h"
#include "mgmt/mgi_services.h"

namespace mgd {

namespace {

Manager *g_manager = nullptr;

// How long a relay waits for the owner's answer.
constexpr int kRelayTimeoutMs = 5000;

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
    for (uint32_t i = 0; i < libmgmt_object_count(); ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        if (o->depth == t.size() && std::equal(t.begin(), t.end(), o->path)) return o->name;
    }
    return "?";
}

int mgi_handler(void *ipc, void *, void *payload, uint32_t len, int32_t *status, void *reply, uint32_t *reply_len) {
    return g_manager->on_mgi(static_cast<ipc_peer_t *>(ipc), static_cast<uint8_t *>(payload), len, status,
                             static_cast<uint8_t *>(reply), reply_len);
}

int transaction_handler(void *ipc, void *, void *payload, uint32_t len, int32_t *status, void *reply,
                        uint32_t *reply_len) {
    return g_manager->on_transaction(static_cast<uint8_t *>(payload), len, status, static_cast<uint8_t *>(reply),
                                     reply_len, static_cast<ipc_peer_t *>(ipc)->appid);
}

int simple_handler(void *ipc, void *head, void *payload, uint32_t len, int32_t *status, void *reply,
                   uint32_t *reply_len) {
    uint16_t msg = get_be16(static_cast<const ipc_frame_t *>(head)->msg_be);
    return g_manager->on_simple(msg, static_cast<uint8_t *>(payload), len, status, static_cast<uint8_t *>(reply),
                                reply_len, static_cast<ipc_peer_t *>(ipc)->appid);
}

// The manager's own objects (mgmt_*): what was set is kept and given back to a get.
std::map<std::vector<uint32_t>, std::vector<uint8_t>> *g_own_records = nullptr;

std::vector<uint32_t> info_target(const mgiInfo *info) {
    std::vector<uint32_t> t;
    for (int i = 0; i < MGI_TARGET_WORDS && info->rqt_target[i]; ++i) t.push_back(info->rqt_target[i]);
    return t;
}

int own_decode(mgiInfo *info) {
    // A set through the manager carries its record as the whole payload.
    uint16_t len = info->mgidata_len ? info->mgidata_len : info->rqt_len;
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

void Manager::attach() {
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
    for (int m : {MGD_MSG_REQUEST_CONFIG, MGD_MSG_DBG_CONFIG, MGD_MSG_CONFIG_CHANGE_STATUS, MGD_MSG_LOCK_CFG,
                       MGD_MSG_SYSTEM_DEBUG_STATE, MGD_MSG_OBJECT_DEFAULT_VALUE, MGD_MSG_CONFIG_LOCK_STATUS,
                       MGD_MSG_PRE_CONFIG_FEATURE, MGD_MSG_TRANSACTION_STATE, MGD_MSG_PLATFORM, MGMT_IMPORT_RQT_MSG})
        ipc_register_handler(uint16_t(m), simple_handler);
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
void Manager::answer_error(ipc_peer_t *peer, const uint8_t *request, uint32_t len, int32_t code, const char *text) {
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
        answer_error(peer, hdr, MGI_HDR_LEN, -1, "malformed request");
        *status = -1;
        return IPC_HANDLER_NOREPLY;
    }
    std::vector<uint32_t> t = target_of(msg);
    uint32_t target[MGI_TARGET_WORDS] = {};
    std::copy(t.begin(), t.end(), target);
    uint32_t owner = owner_of(target);
    uint8_t type = msg[MGI_OFF_TYPE];
    bool through_mgd = msg[MGI_OFF_NEXTSEG] < mgmt::kNextsegRecord && get_field(msg, hdr::offset) == MGI_NO_MORE;
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
        // The request's line is written before its last answer goes out, so that
        // whoever got the answer finds the line.
        auto log_set = [&](const std::string &outcome, Level level) {
            log(level, "set %s (%s) type %u from app%u src %u trans %u: %u bytes -> app%u: %s", object_name(t),
                path_text(t).c_str(), type, peer->appid, msg[MGI_OFF_SRC], msg[MGI_OFF_TRANSACTION_ID],
                get_field(msg, hdr::len), owner, outcome.c_str());
        };
        if (owner) {
            relay_set(peer, msg, len, owner, log_set);
        } else {
            log_set("unknown object, refused", Level::warning);
            answer_error(peer, msg, len, -1, "unknown object");
        }
        return IPC_HANDLER_NOREPLY;
    }
    log(Level::info, "get %s (%s) type %u from app%u", object_name(t), path_text(t).c_str(), type, peer->appid);
    answer_stored(peer, msg, len, reply, reply_len);
    return IPC_HANDLER_REPLY;
}

// Passes a set on to its owner and its answers back; keeps the record when it
// was taken. `done` hears what happened before the last answer goes out.
void Manager::relay_set(ipc_peer_t *peer, const uint8_t *msg, uint32_t len, uint32_t owner,
                        const std::function<void(const std::string &, Level)> &done) {
    static uint8_t answer[MGI_MAX_LEN];
    std::vector<uint8_t> req(msg, msg + len);
    std::string types;
    for (;;) {
        int32_t st = 0;
        uint32_t cap = sizeof answer;
        int rc = ipcmsg_send_and_recv(owner, 0, MGI_IPC_MSG, req.data(), uint32_t(req.size()), &st, answer, &cap,
                                      kRelayTimeoutMs);
        if (rc < 0 || cap < MGI_HDR_LEN) {
            std::string why = rc >= 0 ? "an answer of " + std::to_string(cap) + " bytes"
                              : std::string(errno_name(-rc)) + (rc == -ENOENT || rc == -ECONNREFUSED ? ": not running" : "");
            done(types + (types.empty() ? "" : ", then ") + "no answer (" + why + ")", Level::warning);
            char text[64];
            std::snprintf(text, sizeof text, "application %s does not answer", appid2appname(owner));
            answer_error(peer, msg, len, -1, text);
            return;
        }
        uint8_t type = answer[MGI_OFF_TYPE];
        types += (types.empty() ? "answered type " : ", ") + std::to_string(type);
        if (type != MGI_RSP_PARTIAL) done(types, Level::info);
        ipc_send_to_peer(peer, MGI_IPC_MSG, answer, cap, 0);
        if (type == MGI_RSP_FINAL || type == MGI_RSP_FINAL2) {
            stored_[target_of(msg)].assign(msg + MGI_HDR_LEN, msg + MGI_HDR_LEN + get_field(msg, hdr::len));
            config_changed_ = true;
        }
        if (type != MGI_RSP_PARTIAL) return;
        // More follows from the owner: ask for it as a closing request of the same set.
        req[MGI_OFF_TYPE] = MGI_RQT_CLOSE;
        req[MGI_OFF_NEXTSEG] = MGI_SEG_END;
        put_field(req.data(), hdr::len, 0);
        req.resize(MGI_HDR_LEN);
    }
}

// A get answered from the manager's own copy: the last record set on that path.
void Manager::answer_stored(ipc_peer_t *, const uint8_t *msg, uint32_t, uint8_t *reply, uint32_t *reply_len) {
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

int Manager::on_transaction(const uint8_t *req, uint32_t len, int32_t *status, uint8_t *reply, uint32_t *reply_len,
                            uint32_t from) {
    mgi_trans_info t = {};
    if (len < sizeof t) {
        log(Level::warning, "transaction request of %u bytes from app%u: refused", len, from);
        *status = -1;
        *reply_len = 0;
        return IPC_HANDLER_REPLY;
    }
    std::memcpy(&t, req, sizeof t);
    t.trans_user[sizeof t.trans_user - 1] = '\0';
    Transaction &open = transactions_[t.trans_vsysid];
    mgi_trans_info out = t;
    *status = 0;
    switch (t.trans_op) {
    case MGI_TRANS_LOCK:
        if (t.trans_lock == 1) {
            if (open.id) {
                out.trans_id = 0;
                log(Level::info, "transaction take vsys %u by \"%s\" (app%u): refused, %u is open", t.trans_vsysid, t.trans_user,
                    from, open.id);
            } else {
                open.id = next_id_;
                open.user = t.trans_user;
                next_id_ = uint8_t(next_id_ == 255 ? 1 : next_id_ + 1);
                out.trans_id = open.id;
                log(Level::info, "transaction take vsys %u by \"%s\" (app%u): id %u", t.trans_vsysid, t.trans_user, from, open.id);
            }
        } else if (open.id && open.id == t.trans_id) {
            log(Level::info, "transaction release vsys %u id %u", t.trans_vsysid, t.trans_id);
            open = Transaction{};
        } else {
            log(Level::info, "transaction release vsys %u id %u: refused, not open", t.trans_vsysid, t.trans_id);
            *status = -1;
        }
        break;
    case MGI_TRANS_STATE:
        out.trans_id = open.id;
        log(Level::debug, "transaction state vsys %u: %s", t.trans_vsysid, open.id ? "open" : "none");
        break;
    case MGI_TRANS_ROLLBACK:
        if (open.id) {
            log(Level::info, "transaction rollback vsys %u id %u", t.trans_vsysid, open.id);
            open = Transaction{};
        } else {
            log(Level::info, "transaction rollback vsys %u: refused, none open", t.trans_vsysid);
            *status = -1;
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
        answer_word(transactions_[vsys].id);
        log(Level::debug, "transaction state word of vsys %u to app%u: %u", vsys, from, transactions_[vsys].id);
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
