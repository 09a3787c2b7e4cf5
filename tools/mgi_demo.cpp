// mgi_demo: a front end (application 5) that shows the system at work against
// the reference manager (mgd, application 2) and the example application
// daemon (application 11), both running in the same runtime directory.
// scripts/demo starts the daemons, runs this program and stops them.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <getopt.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "libmgmt.h"
#include "mgmt/records_gen.h"
#include "mgmt/platform/platform.h"
#include "tools/cli.h"

namespace {

// The records, as the generated layer lays them out: aaa_radius_authorization is f1 enable and
// f2 timeout; aaa_role is f1 name, f2 id, f3 privilege, f4 description.
using Radius = aaa_radius_authorization_entity;
using Role = aaa_role_entity;

// What the direct road handed over, part by part. The callback's last argument
// is the stub's caller record, which a get of type 31 fills with the packed
// record and its masks, so the parts are kept here and not behind it.
struct Parts {
    std::vector<std::vector<uint8_t>> data;
};
Parts *g_parts = nullptr;

int collect(void *data, uint32_t *len, void *, uint32_t *, void *, uint32_t *, void *) {
    auto *p = static_cast<uint8_t *>(data);
    if (g_parts) g_parts->data.emplace_back(p, p + (data ? *len : 0));
    return 0;
}

// Runs a get or exec stub with the parts collected into `parts`.
template <class Fn> int collecting(Parts &parts, Fn &&call) {
    g_parts = &parts;
    int rc = call();
    g_parts = nullptr;
    return rc;
}

std::vector<Role> roles_of(const Parts &parts) {
    std::vector<Role> out;
    for (const auto &d : parts.data)
        for (size_t at = 0; at + sizeof(Role) <= d.size(); at += sizeof(Role)) {
            Role r;
            std::memcpy(&r, d.data() + at, sizeof r);
            r.f1[sizeof r.f1 - 1] = '\0';
            out.push_back(r);
        }
    return out;
}

void say_error(const mgiInfo &info, const char *who) {
    const char *text = get_errString_r(info.mgi_buf);
    std::printf("   %s: code %d, private code %d: \"%s\"\n", who, mgi_get_rsp_err_code_r(info.mgi_buf),
                mgi_get_rsp_private_err_code_r(info.mgi_buf), text ? text : "(no text)");
}

int set_radius(mgiInfo &info, uint32_t enable, uint32_t timeout) {
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_SET);
    info.rqt_item[0] = &enable;
    info.rqt_item[1] = &timeout;
    return final_set_aaa_radius_authorization(&info, nullptr);
}

Radius get_radius() {
    mgiInfo info;
    init_mgi_info(&info);
    Parts parts;
    Radius r{};
    if (collecting(parts, [&] { return final_get_aaa_radius_authorization(&info, collect, nullptr); }) == 0 &&
        !parts.data.empty() &&
        parts.data[0].size() >= sizeof r)
        std::memcpy(&r, parts.data[0].data(), sizeof r);
    return r;
}

void step(int n, const char *what) { std::printf("\n%d. %s\n", n, what); }

void set_through_manager() {
    step(1, "Set through the manager: RADIUS authorization timeout, read back from its application");
    std::printf("   timeout now: %u s\n", get_radius().f2);
    mgiInfo info;
    int rc = set_radius(info, 1, 45);
    std::printf("   final_set_aaa_radius_authorization(timeout 45) through mgd: result %d\n", rc);
    std::printf("   timeout now: %u s (asked straight from application 11)\n", get_radius().f2);
}

void paged_get() {
    step(2, "Paged get: the whole table of roles, straight from application 11");
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_GET);
    Parts parts;
    int rc = collecting(parts, [&] { return final_get_aaa_role(&info, collect, nullptr); });
    std::vector<Role> roles = roles_of(parts);
    std::printf("   final_get_aaa_role: result %d, %zu roles in %zu answers of", rc, roles.size(), parts.data.size());
    for (const auto &d : parts.data) std::printf(" %zu", d.size() / sizeof(Role));
    std::printf(" rows (the front end sent each cookie back)\n");
    if (roles.size() >= 3)
        std::printf("   in name order: %s, %s, %s ... %s\n", roles[0].f1, roles[1].f1, roles[2].f1,
                    roles.back().f1);
}

void filtered_query() {
    step(3, "Filtered query (type 31): roles whose name matches ^role1[0-9]$");
    std::string pattern = "^role1[0-9]$";
    std::vector<uint8_t> body(sizeof(mgiMatchHdr) + pattern.size() + 1, 0);
    auto *hdr = reinterpret_cast<mgiMatchHdr *>(body.data());
    hdr->mask[0] = 1;                // object 0, the name
    hdr->type[0] = MGI_MATCH_REGEX;  // is matched by a regular expression
    hdr->pattern_len = int32_t(pattern.size() + 1);
    std::memcpy(body.data() + sizeof(mgiMatchHdr), pattern.c_str(), pattern.size() + 1);
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_MATCH_GET);
    mgi_set_rqt_udcdata(&info, body.data(), uint16_t(body.size()));
    Parts parts;
    uint32_t masks[3] = {}, xmasks[3] = {};
    mgi_match_get_record match = {nullptr, masks, xmasks};
    int rc = collecting(parts, [&] { return final_get_aaa_role(&info, collect, &match); });
    std::vector<Role> roles = roles_of(parts);
    std::printf("   final_get_aaa_role: result %d, %zu roles:", rc, roles.size());
    for (const Role &r : roles) std::printf(" %s", r.f1);
    std::printf("\n");

    std::printf("   the same table with the condition \"privilege gt 10\":\n");
    char cond[] = "privilege gt 10";
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_GET);
    mgi_set_rqt_condition(&info, cond, sizeof cond - 1);
    rc = final_get_aaa_role(&info, nullptr, nullptr);
    std::printf("   final_get_aaa_role: result %d, answer type %u\n", rc, get_mgi_resp_type_r(info.mgi_buf));
    say_error(info, "the application's condition parser refused it");
}

void exec_action() {
    step(4, "Exec: release the locked-out user \"alice\"");
    const char *user = "alice";
    for (int round = 0; round < 2; ++round) {
        mgiInfo info;
        init_mgi_info(&info);
        info.rqt_item[0] = &user;
        int rc = final_exec_aaa_del_lockout(&info, nullptr, nullptr);
        std::printf("   final_exec_aaa_del_lockout: result %d, answer type %u\n", rc,
                    get_mgi_resp_type_r(info.mgi_buf));
        if (get_mgi_resp_type_r(info.mgi_buf) == MGI_RSP_ERROR) say_error(info, "and again");
    }
}

void transaction() {
    step(5, "Transaction on virtual system 0");
    int rc = get_mgi_transaction_lock("admin", 0);
    std::printf("   take the lock as \"admin\": result %d, transaction id %u\n", rc, get_mgi_transaction_id());
    mgiInfo info;
    rc = set_radius(info, 1, 60);
    std::printf("   set timeout 60 s inside it: result %d, header byte 3 carried %u\n", rc,
                info.mgi_buf->sbuf[MGI_OFF_TRANSACTION_ID]);
    std::fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        // Another front end, a process of its own.
        ipc_close();
        ipc_init(46, 0);
        set_mgi_transaction_id(0);
        int other = get_mgi_transaction_lock("operator", 0);
        std::printf("   another front end (application 46) asks for the lock: result %d (refused)\n", other);
        std::fflush(stdout);
        _exit(0);
    }
    if (child > 0) waitpid(child, nullptr, 0);
    int state = -1;
    get_mgi_transaction_state(&state, 0);
    std::printf("   state: %s\n", state == 1 ? "a transaction is open" : "none open");
    rc = release_mgi_transaction_lock("admin", 0);
    std::printf("   release: result %d, transaction id now %u\n", rc, get_mgi_transaction_id());
}

void errors() {
    step(6, "Errors");
    mgiInfo info;
    int rc = set_radius(info, 1, 0);
    std::printf("   set timeout 0 s through mgd: result %d\n", rc);
    say_error(info, "application 11 answered");
    const libmgmt_object *o = libmgmt_object_find("admind_utmp");
    if (o && o->set) {
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, MGI_RQT_SET);
        rc = o->set(&info, nullptr);
        std::printf("   set %s, owned by application %u, which is not running: result %d\n", o->name, o->owner, rc);
        say_error(info, "mgd answered");
    }
    init_mgi_info(&info);
    rc = final_get_aaa_user_mapping_entity(&info, nullptr, nullptr);
    std::printf("   get aaa_user_mapping_entity, which application 11 serves without an encoder: result %d\n", rc);
    say_error(info, "application 11 answered");
}

void trap() {
    step(7, "Trap: the front end reports an event to the trap receiver (application 23)");
    const char text[] = "disk usage above 90%";
    int rc = vk_private_trap(1001, text, sizeof text, 7);
    std::printf("   vk_private_trap(code 1001, \"%s\", argument 7): result %d (mgd logs what arrived)\n", text, rc);
}

} // namespace

int main(int argc, char **argv) {
    static const option options[] = {{"help", no_argument, nullptr, 'h'},
                                     {"version", no_argument, nullptr, 'V'},
                                     {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "hV", options, nullptr)) != -1;) {
        switch (c) {
        case 'h':
            std::printf("Usage: mgi_demo\n"
                        "A front end (application 5) that shows the system at work: a set through mgd, a\n"
                        "paged get, a filtered query, an exec, a transaction, errors and a trap. It needs\n"
                        "mgd and app_daemon serving in the same runtime directory; ./scripts/demo starts\n"
                        "them and runs it.\n"
                        "\n"
                        "  -h, --help      show this help and exit\n"
                        "  -V, --version   show the version and exit\n");
            return 0;
        case 'V': return mgmt_cli::version("mgi_demo");
        default: return mgmt_cli::usage_error("mgi_demo");
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "mgi_demo: '%s': no arguments are taken\n", argv[optind]);
        return mgmt_cli::usage_error("mgi_demo");
    }
    ipc_init(5, 0);
    const char *dir = ipc_runtime_dir();
    if (!dir) {
        std::fprintf(stderr, "mgi_demo: the runtime directory %s cannot be used: %s\n", ipc_runtime_dir_tried(),
                     std::strerror(errno));
        return 1;
    }
    set_mgi_user("admin", 15);
    set_mgi_ip_addr("192.0.2.10");
    int locked = 0;
    if (get_mgd_config_lock_status(&locked) != 0) {
        std::fprintf(stderr, "mgi_demo: mgd (application 2) does not answer in %s; ./scripts/demo starts it\n", dir);
        return 1;
    }
    mgiInfo probe;
    init_mgi_info(&probe);
    if (final_get_aaa_radius_authorization(&probe, nullptr, nullptr) != 0) {
        std::fprintf(stderr, "mgi_demo: app_daemon (application 11) does not answer in %s; ./scripts/demo starts it\n",
                     dir);
        return 1;
    }
    std::printf("A front end (application 5) talks to mgd (application 2) and app_daemon (application 11).\n");
    set_through_manager();
    paged_get();
    filtered_query();
    exec_action();
    transaction();
    errors();
    trap();
    thread_free_mgi();
    return 0;
}
