// An application daemon that serves a few objects of the management tree over
// MGI, as application 11 (authentication):
//
//   aaa_role               (0xe0002)          a keyed table of roles, several hundred rows by default;
//                                             a set (a whole record through the manager) adds the role
//                                             of that name or replaces it, and is refused when its
//                                             privilege is above 15 (private code 1401);
//                                             a get by key answers one row, a get without key walks the
//                                             whole table in name order over several partial answers,
//                                             paged by a cookie that names the last row sent (walks
//                                             interleave); a type-31 get filters the walk by a regular
//                                             expression on the name (object id 0);
//                                             a condition in the request is parsed against the items
//   aaa_role_role_mapping  (0xe0002.0xe0001)  the mappings of one role: a nested child whose parent
//                                             index (the role) is decoded by the role's decodeIndex
//   aaa_radius_authorization (0xe0005)        a single-instance object: get answers it, a set-shaped
//                                             request (a record through the manager) replaces it
//   aaa_del_lockout        (0xe0012)          an exec: releases a locked-out user
//   aaa_user_mapping_entity (0xe0018)         registered without encodeData
//   aaa_connect_control_user (0xe0019)        registered without decodeData
//
// Usage: app_daemon [--rows N] [--appid ID] (--help tells more).
// It prints "ready" on standard output once it serves, and stops on SIGTERM or SIGINT.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <getopt.h>
#include <vector>

#include "libmgmt.h"
#include "mgmt/records_gen.h"
#include "mgmt/platform/platform.h"
#include "tools/cli.h"

namespace {

// ---------------------------------------------------------------- data

constexpr uint32_t kRole = 0xe0002;
constexpr uint32_t kRoleMapping = 0xe0001;
constexpr uint32_t kRadiusAuth = 0xe0005;
constexpr uint32_t kDelLockout = 0xe0012;
constexpr uint32_t kUserMapping = 0xe0018;
constexpr uint32_t kConnectControl = 0xe0019;

// The records as the generated layer lays them out (mgmt/records_gen.h), fields f1..fN:
// aaa_role: f1 name, f2 id, f3 privilege, f4 description; its index is f1 and f2.
using RoleRecord = aaa_role_entity;
constexpr size_t kRoleIndexLen = offsetof(RoleRecord, f3);
// aaa_role_role_mapping: f1 role, f2 group, f3 weight (index and entity are the same).
using RoleMappingRecord = aaa_role_role_mapping_entity;
// aaa_radius_authorization: f1 enable, f2 timeout.
using RadiusAuthRecord = aaa_radius_authorization_entity;
// aaa_del_lockout: f1 user, f2 vsys, f3 server, f4 address, f5 to f7 three words.
using DelLockoutRecord = aaa_del_lockout_entity;

// Codes of this daemon's own errors.
constexpr int32_t kErrNoSuchRole = -11;
constexpr int32_t kErrNotLockedOut = -12;
constexpr int32_t kPrivNotLockedOut = 1201;
constexpr int32_t kErrWalkLost = -13;
constexpr int32_t kErrBadRole = -14;
constexpr int32_t kPrivBadRole = 1401;
constexpr uint32_t kMaxPrivilege = 15;

// A deque: rows added by sets leave the others where they are, so the name index may point at them.
std::deque<RoleRecord> g_roles;
RadiusAuthRecord g_radius = {1, 30};
std::vector<std::string> g_locked_out = {"alice", "mallory", "trent"};

// Fields of a role by name, for conditions; offsets laid out at start.
appItem g_role_items[] = {
    {{"name", "role", nullptr}, APP_ITEM_STRING, 32},
    {{"id", nullptr}, APP_ITEM_UINT32, 0},
    {{"privilege", "priv", nullptr}, APP_ITEM_UINT32, 0},
    {{"description", "desc", nullptr}, APP_ITEM_STRING, 32},
    {{nullptr}, 0, 0},
};

// The role that the decodeIndex of aaa_role found for the request in hand.
const RoleRecord *g_parent_role = nullptr;

std::string field_text(const char *p, size_t n) { return std::string(p, strnlen(p, n)); }

// ---------------------------------------------------------------- the roles in name order

// The roles in name order (the sorter's natural order of strings), made at start by the sorter and
// kept in that order as sets add rows.
std::vector<RoleRecord *> g_by_name;

// A name as the records hold it: the field's width, zero-filled behind the text, which is what the
// order of strings compares.
using NameField = char[sizeof(RoleRecord::f1)];

void name_field(const std::string &name, NameField &out) {
    std::memset(out, 0, sizeof out);
    strlcpy(out, name.c_str(), sizeof out);
}

int name_order(const char *a, const char *b) { return compare_by_type(APP_ITEM_STRING, sizeof(NameField), a, b); }

// Whether a role has that name; *at is where it stands, or where it would (the first role whose
// name does not sort before it).
bool name_at(const NameField &key, std::vector<RoleRecord *>::iterator *at) {
    *at = std::lower_bound(g_by_name.begin(), g_by_name.end(), key,
                           [](const RoleRecord *r, const char *k) { return name_order(r->f1, k) < 0; });
    return *at != g_by_name.end() && name_order((**at)->f1, key) == 0;
}

RoleRecord *find_role(const std::string &name) {
    NameField key;
    name_field(name, key);
    std::vector<RoleRecord *>::iterator at;
    return name_at(key, &at) ? *at : nullptr;
}

void sort_roles() {
    vk_sorter_init(sizeof(RoleRecord), APP_ITEM_STRING, 0, 0, sizeof(NameField), 0, nullptr, 0);
    for (RoleRecord &r : g_roles) vk_sorter_write(&r);
    for (vk_sorter_node *s = vk_sorter_get(); s; s = s->next) g_by_name.push_back(static_cast<RoleRecord *>(s->object));
    vk_sorter_free();
}

// Adds the role, or replaces the one of its name.
void store_role(const RoleRecord &r) {
    std::vector<RoleRecord *>::iterator at;
    if (name_at(r.f1, &at)) {
        **at = r;
        return;
    }
    g_roles.push_back(r);
    g_by_name.insert(at, &g_roles.back());
}

// ---------------------------------------------------------------- handlers shared by all entities

// Reports a failure that has no text yet, and closes the response.
int report_error(mgiInfo *info) {
    if (info->last_seg_type == MGI_SEG_ERROR) return 0;
    if (info->err_code == 0)
        mgi_sprintf_err(info, "object %#x: the request failed (%d)", info->rqt_target[0],
                        info->encodeErr ? info->encodeErr : info->decodeErr);
    else
        default_err_handle(info); // code and text were set by mgi_set_err_info_with_private_ecode
    mgi_final_rsp_message(info);
    return 0;
}

int accept_request(mgiInfo *) { return 0; }

// ---------------------------------------------------------------- aaa_role

// A walk of the table pages by its cookie: the name of the last row sent, which the next request
// brings back. Nothing of a walk stays here between its answers, so any number of walks, from any
// number of front ends, interleave. The request's filter (its query data) goes out with each
// partial answer and so comes back with the next request too.
struct WalkCookie {
    uint32_t sent;  // rows sent so far
    char after[32]; // the name of the last of them
};

int role_decode_index(mgiInfo *info) {
    // Runs for requests to the role's children: the role's index record leads the request data.
    g_parent_role = nullptr;
    if (!info->mgidata || info->mgidata_len < kRoleIndexLen) {
        mgi_sprintf_err(info, "no role given");
        return 0;
    }
    std::string name = field_text(static_cast<const char *>(info->mgidata), 32);
    g_parent_role = find_role(name);
    if (!g_parent_role) {
        set_decode_errcode(info, kErrNoSuchRole);
        mgi_sprintf_err(info, "role %s does not exist", name.c_str());
    }
    return 0;
}

// A set through the manager: the whole record is the payload (no segment chain).
bool is_role_set(mgiInfo *info) {
    return get_rqt_type(info) == MGI_RQT_SET && info->rqt_nextseg < 128 && info->mgidata;
}

int role_decode(mgiInfo *info) {
    if (!is_role_set(info)) return 0;
    if (info->rqt_len < sizeof(RoleRecord)) {
        mgi_set_err_info_with_private_ecode(info, kErrBadRole, kPrivBadRole, "a role record has %zu bytes, not %u",
                                            sizeof(RoleRecord), unsigned(info->rqt_len));
        return 0;
    }
    RoleRecord r;
    std::memcpy(&r, info->mgidata, sizeof r);
    // Names compare with the field zero-filled behind the text, whatever the sender left there.
    NameField name;
    name_field(field_text(r.f1, sizeof r.f1), name);
    std::memcpy(r.f1, name, sizeof name);
    if (!r.f1[0]) {
        mgi_set_err_info_with_private_ecode(info, kErrBadRole, kPrivBadRole, "a role needs a name");
        return 0;
    }
    if (r.f3 > kMaxPrivilege) {
        mgi_set_err_info_with_private_ecode(info, kErrBadRole, kPrivBadRole,
                                            "privilege %u of role %s is outside 0 to %u", r.f3, r.f1, kMaxPrivilege);
        return 0;
    }
    store_role(r);
    mgi_data_changed(info);
    return 0;
}

int role_encode(mgiInfo *info) {
    auto *ctx = static_cast<condContext *>(info->cond_ctx);
    if (is_role_set(info)) { // taken: the answer says so and holds nothing
        set_rsptype(info, MGI_RSP_FINAL);
        mgi_final_rsp_message(info);
        return 0;
    }
    // A get by key: field 0 (the name) is given.
    if ((get_rqt_mask1(info) & 1u) && info->mgidata && info->mgidata_len >= kRoleIndexLen) {
        std::string name = field_text(static_cast<const char *>(info->mgidata), 32);
        const RoleRecord *r = find_role(name);
        if (!r) {
            set_encode_errcode(info, kErrNoSuchRole);
            mgi_sprintf_err(info, "role %s does not exist", name.c_str());
            return 0;
        }
        mgi_init_rsp_message(info);
        mgi_update_rsp_data(info, const_cast<RoleRecord *>(r), sizeof *r);
        set_rsptype(info, MGI_RSP_FINAL);
        mgi_final_rsp_message(info);
        return 0;
    }

    // A walk: the first request has no cookie, the others send back the one of the last answer.
    WalkCookie cookie{};
    if (info->cookie && info->cookie_len == sizeof cookie) {
        std::memcpy(&cookie, info->cookie, sizeof cookie);
        cookie.after[sizeof cookie.after - 1] = '\0';
    } else {
        free_cond_ctx_by_uiInfo();
        // A condition of the request is parsed against the role's items. The
        // parser takes the text's first word at every step, so a text always
        // meets the word limit (or, starting with a connector, the connector
        // limit): the daemon reports that code to the requester.
        if (info->condition && info->condition_len) {
            char text[256];
            size_t n = std::min<size_t>(info->condition_len, sizeof text - 1);
            std::memcpy(text, info->condition, n);
            text[n] = '\0';
            int rc = retrieve_postJudge_stdExpr(info->rqt_target, text, ctx->words, ctx->connectors,
                                                &ctx->expr_list);
            if (rc != 0) {
                set_encode_errcode(info, rc);
                mgi_sprintf_err(info, "condition \"%s\" refused (%d)", text, rc);
                return 0;
            }
        }
    }
    // The rows after the cookie's name that pass the filter, as many as one answer holds. Rows added
    // since the last answer are found where they sort: those after the cookie's name come too.
    auto from = g_by_name.begin();
    if (cookie.after[0]) {
        NameField after;
        name_field(cookie.after, after);
        if (!name_at(after, &from)) {
            set_encode_errcode(info, kErrWalkLost);
            mgi_sprintf_err(info, "the listing lost its place (%s); start it again", cookie.after);
            return 0;
        }
        ++from;
    }
    void *regex = mgi_get_match_regex_by_obj_id(info, 0);
    const uint32_t room = get_mgi_rsp_data_num(sizeof(RoleRecord));
    uint32_t count = 0;
    mgi_init_rsp_message(info);
    auto it = from;
    for (; it != g_by_name.end() && count < room; ++it) {
        if (mgi_pcre_exec(regex, (*it)->f1, int(strlen((*it)->f1))) != 0) continue;
        auto *end = static_cast<unsigned char *>(get_rsp_data(info)) + get_rsp_datalen(info);
        std::memcpy(end, *it, sizeof(RoleRecord)); // built in place
        mgi_update_rsp_data(info, end, sizeof(RoleRecord));
        ++count;
        strlcpy(cookie.after, (*it)->f1, sizeof cookie.after);
    }
    cookie.sent += count;
    static WalkCookie out_cookie;
    if (it != g_by_name.end()) {
        out_cookie = cookie;
        mgi_set_rsp_cookie(info, &out_cookie, sizeof out_cookie);
        if (info->querydata && info->querydata_len) // the filter comes back with the next request
            append_rsp_segment(info, MGI_SEG_QUERYDATA, info->querydata, uint16_t(info->querydata_len));
        set_rsptype(info, MGI_RSP_PARTIAL);
    } else {
        set_rsptype(info, MGI_RSP_FINAL);
    }
    mgi_final_rsp_message(info);
    return 0;
}

// ---------------------------------------------------------------- aaa_role_role_mapping

std::vector<RoleMappingRecord> mappings_of(const RoleRecord &role) {
    std::vector<RoleMappingRecord> out;
    for (uint32_t k = 0; k < 1 + role.f2 % 3; ++k) {
        RoleMappingRecord m{};
        strlcpy(m.f1, role.f1, sizeof m.f1);
        snprintf(m.f2, sizeof m.f2, "group-%u-%u", role.f2, k);
        m.f3 = k + 1;
        out.push_back(m);
    }
    return out;
}

int role_mapping_encode(mgiInfo *info) {
    mgi_init_rsp_message(info);
    for (const RoleMappingRecord &m : mappings_of(*g_parent_role))
        mgi_update_rsp_data(info, const_cast<RoleMappingRecord *>(&m), sizeof m);
    set_rsptype(info, MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    return 0;
}

// ---------------------------------------------------------------- aaa_radius_authorization

int radius_decode(mgiInfo *info) {
    // A set through the manager carries the record as the whole payload.
    if (info->rqt_nextseg < 128 && info->mgidata && info->rqt_len >= sizeof(RadiusAuthRecord)) {
        RadiusAuthRecord r;
        std::memcpy(&r, info->mgidata, sizeof r);
        if (r.f2 == 0 || r.f2 > 600) {
            mgi_set_err_info_with_private_ecode(info, -1, 1301, "timeout %u is outside 1 to 600", r.f2);
            return 0;
        }
        g_radius = r;
        mgi_data_changed(info);
    }
    return 0;
}

int radius_encode(mgiInfo *info) {
    if (info->rqt_nextseg >= 128) {
        mgi_init_rsp_message(info);
        mgi_update_rsp_data(info, &g_radius, sizeof g_radius);
    }
    set_rsptype(info, MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    return 0;
}

// ---------------------------------------------------------------- aaa_del_lockout

int del_lockout_decode(mgiInfo *info) {
    if (!info->mgidata || info->mgidata_len < sizeof(DelLockoutRecord)) {
        mgi_set_err_info_with_private_ecode(info, kErrNotLockedOut, kPrivNotLockedOut, "no user given");
        return 0;
    }
    std::string user = field_text(static_cast<const char *>(info->mgidata), 64);
    auto it = std::find(g_locked_out.begin(), g_locked_out.end(), user);
    if (it == g_locked_out.end()) {
        mgi_set_err_info_with_private_ecode(info, kErrNotLockedOut, kPrivNotLockedOut, "user %s is not locked out",
                                            user.c_str());
        return 0;
    }
    g_locked_out.erase(it);
    return 0;
}

int del_lockout_encode(mgiInfo *info) {
    set_rsptype(info, MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    return 0;
}

// ---------------------------------------------------------------- start

void make_roles(uint32_t rows) {
    std::vector<RoleRecord> seeded(rows);
    for (uint32_t i = 0; i < rows; ++i) {
        RoleRecord &r = seeded[i];
        std::memset(&r, 0, sizeof r);
        snprintf(r.f1, sizeof r.f1, "role%u", i + 1);
        r.f2 = i + 1;
        r.f3 = (i * 7) % 16;
        snprintf(r.f4, sizeof r.f4, "role number %u", i + 1);
    }
    // Kept in no particular order: listings come out sorted by the sorter.
    std::shuffle(seeded.begin(), seeded.end(), std::mt19937(2024));
    g_roles.assign(seeded.begin(), seeded.end());
    sort_roles();
}

int register_entities() {
    set_items_default_offset(g_role_items);
    if (getOffset(APP_ITEM_KEEP_TYPE, GETOFFSET_LAST_MEMBER) != int32_t(sizeof(RoleRecord))) return -1;
    struct Reg {
        std::vector<uint32_t> parent;
        uint32_t word;
        uint32_t kind;
        mgi_app_handler index, err, data, encode;
        appItem *items;
    };
    const Reg regs[] = {
        {{}, kRole, APP_ENTITY_INDEXED, role_decode_index, report_error, role_decode, role_encode, g_role_items},
        {{kRole}, kRoleMapping, 0, nullptr, report_error, accept_request, role_mapping_encode, nullptr},
        {{}, kRadiusAuth, 0, nullptr, report_error, radius_decode, radius_encode, nullptr},
        {{}, kDelLockout, 0, nullptr, report_error, del_lockout_decode, del_lockout_encode, nullptr},
        {{}, kUserMapping, 0, nullptr, report_error, accept_request, nullptr, nullptr},
        {{}, kConnectControl, 0, nullptr, report_error, nullptr, radius_encode, nullptr},
    };
    for (const Reg &r : regs) {
        appEntity *e = app_entity_init(r.word, r.kind, r.index, r.err, r.data, r.encode, r.items);
        if (!e) return -1;
        std::vector<uint32_t> path(r.parent);
        path.push_back(0);
        if (app_entity_add(path.data(), e) != 0) return -1;
    }
    return 0;
}

void on_signal(int) { ipc_stop(); }

} // namespace

int main(int argc, char **argv) {
    unsigned long rows = 500, appid = 11;
    static const option options[] = {{"rows", required_argument, nullptr, 'r'},
                                     {"appid", required_argument, nullptr, 'a'},
                                     {"help", no_argument, nullptr, 'h'},
                                     {"version", no_argument, nullptr, 'V'},
                                     {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "hV", options, nullptr)) != -1;) {
        switch (c) {
        case 'r':
            if (!mgmt_cli::number("app_daemon", "--rows", optarg, 1, 100000, &rows))
                return mgmt_cli::usage_error("app_daemon");
            break;
        case 'a':
            if (!mgmt_cli::number("app_daemon", "--appid", optarg, 1, 0xffff, &appid))
                return mgmt_cli::usage_error("app_daemon");
            break;
        case 'h':
            std::printf("Usage: app_daemon [--rows N] [--appid ID]\n"
                        "An application daemon serving the aaa_* objects of the management tree over MGI.\n"
                        "Its role table (aaa_role) holds N roles named role1 to roleN; a set through mgd adds\n"
                        "a role or replaces the one of that name (privilege 0 to 15, else refused).\n"
                        "\n"
                        "      --rows N      roles in the table, 1 to 100000 (500)\n"
                        "      --appid ID    the application id to serve as, 1 to 65535 (11, the owner the\n"
                        "                    catalogue gives these objects: sets through mgd reach only it)\n"
                        "  -h, --help        show this help and exit\n"
                        "  -V, --version     show the version and exit\n"
                        "\n"
                        "It serves in the runtime directory ($MGMT_IPC_DIR, else /run/mgmt where writable,\n"
                        "else /tmp/mgmt-<uid>), prints \"ready\" once it does, and stops on SIGTERM or SIGINT.\n");
            return 0;
        case 'V': return mgmt_cli::version("app_daemon");
        default: return mgmt_cli::usage_error("app_daemon");
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "app_daemon: '%s': no arguments are taken, only options\n", argv[optind]);
        return mgmt_cli::usage_error("app_daemon");
    }
    setvbuf(stdout, nullptr, _IOLBF, 0); // the library's lines reach a pipe as they come
    make_roles(uint32_t(rows));
    if (register_entities() != 0) {
        std::fprintf(stderr, "app_daemon: cannot register the entities: the role items do not lay out as the record, "
                             "or memory ran out\n");
        return 1;
    }
    free_cond_ctx_by_uiInfo(); // the condition context's lists start empty
    ipc_register_handler(MGI_IPC_MSG, handle_mgi_msg);
    if (ipc_register(uint32_t(appid), 0) != 0) {
        char why[512];
        ipc_register_error(uint32_t(appid), 0, errno, why, sizeof why);
        std::fprintf(stderr, "app_daemon: cannot serve as application %lu: %s\n", appid, why);
        return 1;
    }
    std::signal(SIGTERM, on_signal);
    std::signal(SIGINT, on_signal);
    std::printf("ready\n");
    std::fflush(stdout);
    return ipc_serve() == 0 ? 0 : 1;
}
