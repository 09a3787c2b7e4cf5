/*
 * ntp_frontend: a front end written in C against libmgmt. It drives the objects that ntp_daemon
 * serves (application 14), with mgd (application 2) in the same runtime directory:
 *
 *   1. sets ntp_ntp through mgd and reads it back straight from the daemon, and from mgd's copy
 *   2. adds servers through mgd (ntp_server), and meets a set that the daemon refuses
 *   3. lists the servers: one get, answered in parts, the library sending each cookie back
 *   4. reads one server by its name, and a name that does not exist (an error answer)
 *   5. lists the servers whose name matches a regular expression (a get of type 31)
 *   6. sets the clock (an exec of ntp_ntptime), once with a date the daemon refuses
 *   7. changes a setting inside a transaction
 *
 * Each step prints what it did and what came back. The exit status is 0 when every answer was
 * the expected one, 1 otherwise, 2 for a wrong command line.
 *
 * The guide walks through this file: docs/writing-a-front-end.md in the source tree,
 * share/doc/libmgmt/guide/ when installed. Build it against an installed libmgmt with
 *     cc -o ntp_frontend ntp_frontend.c $(pkg-config --cflags --libs libmgmt)
 * (and -Wl,-rpath,$(pkg-config --variable=libdir libmgmt) for a prefix the loader does not search),
 * or with the CMakeLists.txt beside it.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <string.h>

#include "libmgmt.h"
#include "mgmt/platform/platform.h"
#include "ntp_records.h"

/* This front end's own application number: 5, the command line's. It is what the header's
 * source code is chosen by (1 for application 5); a front end binds no address of its own. */
#define FRONTEND_APPID 5

static int g_failures;

static void check(int ok, const char *what) {
    if (!ok) {
        ++g_failures;
        printf("   UNEXPECTED: %s\n", what);
    }
}

/* The error of the last answer on this context's buffer pair, in words. */
static void print_error(const mgiInfo *info) {
    const char *text = get_errString_r(info->mgi_buf);
    printf("   error answer: code %d, private code %d, \"%s\"\n", mgi_get_rsp_err_code_r(info->mgi_buf),
           mgi_get_rsp_private_err_code_r(info->mgi_buf), text ? text : "");
}

/* ------------------------------------------------------------------ collecting answers */

/*
 * What a get collects. The stub hands its last argument to the callback; a get of type 31 also
 * fills a mgi_match_get_record there, so that record comes first and the rest is ours.
 */
struct listing {
    mgi_match_get_record match;
    struct ntp_server rows[64];
    unsigned count;
    unsigned parts;
};

/* Direct road: called once per answer with its data, error and cookie; 0 goes on. */
static int collect_servers(void *data, uint32_t *data_len, void *err, uint32_t *err_len, void *cookie,
                           uint32_t *cookie_len, void *user) {
    (void)err, (void)err_len, (void)cookie, (void)cookie_len;
    struct listing *l = user;
    ++l->parts;
    const unsigned char *p = data;
    for (uint32_t at = 0; p && at + sizeof l->rows[0] <= *data_len && l->count < 64; at += sizeof l->rows[0])
        memcpy(&l->rows[l->count++], p + at, sizeof l->rows[0]);
    return 0;
}

/* One record of a fixed size into user, when the answer has one. */
struct one_record {
    void *out;
    size_t size;
    int found;
};
static int collect_one(void *data, uint32_t *data_len, void *err, uint32_t *err_len, void *cookie,
                       uint32_t *cookie_len, void *user) {
    (void)err, (void)err_len, (void)cookie, (void)cookie_len;
    struct one_record *r = user;
    if (data && *data_len >= r->size) {
        memcpy(r->out, data, r->size);
        r->found = 1;
    }
    return 0;
}

/* ------------------------------------------------------------------ steps */

static int set_settings(uint32_t *enable, uint32_t *interval) {
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_SET);
    info.rqt_item[0] = enable; /* a null slot: that field is not given */
    info.rqt_item[1] = interval;
    int rc = final_set_ntp_ntp(&info, NULL);
    if (rc != 0 && get_mgi_resp_type_r(info.mgi_buf) == MGI_RSP_ERROR) print_error(&info);
    return rc;
}

static int get_settings(uint8_t type, struct ntp_settings *out) {
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, type);
    struct one_record r = {out, sizeof *out, 0};
    int rc = final_get_ntp_ntp(&info, collect_one, &r);
    return rc == 0 && r.found && get_mgi_resp_type_r(info.mgi_buf) != MGI_RSP_ERROR ? 0 : -1;
}

static void settings(void) {
    printf("1. ntp_ntp: set through mgd, read back\n");
    uint32_t enable = 1, interval = 30;
    int rc = set_settings(&enable, &interval);
    printf("   set enable 1, interval 30: result %d\n", rc);
    check(rc == 0, "the set was refused");
    struct ntp_settings s = {0}, copy = {0};
    rc = get_settings(MGI_RQT_GET, &s);
    printf("   get from application %u: result %d, enable %u, interval %u\n", NTP_APPID, rc, s.enable,
           s.sync_interval);
    check(rc == 0 && s.sync_interval == 30, "the daemon does not have the new interval");
    rc = get_settings(MGI_RQT_MGD_GET, &copy);
    printf("   get of type 30, answered by mgd from its copy: result %d, interval %u\n", rc, copy.sync_interval);
    check(rc == 0 && copy.sync_interval == 30, "mgd's copy differs");
}

static int add_server(const char *name, uint32_t key, uint32_t prefer) {
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_SET);
    info.rqt_item[0] = &name; /* a text field: the slot points at the char pointer */
    info.rqt_item[1] = &key;
    info.rqt_item[4] = &prefer;
    int rc = final_set_ntp_server(&info, NULL);
    if (rc != 0 && get_mgi_resp_type_r(info.mgi_buf) == MGI_RSP_ERROR) print_error(&info);
    return rc;
}

static void servers(void) {
    printf("2. ntp_server: five servers set through mgd\n");
    const char *names[] = {"pool0.example.net", "pool1.example.net", "time.example.org", "pool2.example.net",
                           "gps.example.org"};
    int ok = 1;
    for (unsigned i = 0; i < 5; ++i) ok &= add_server(names[i], i + 1, i == 2) == 0;
    printf("   %s\n", ok ? "all five taken" : "some were refused");
    check(ok, "a valid server was refused");
    int rc = add_server("bad-key.example.net", 70000, 0);
    printf("   a server with key 70000: result %d\n", rc);
    check(rc == -1, "an invalid key was taken");
    uint32_t interval = 0;
    rc = set_settings(NULL, &interval);
    printf("   ntp_ntp with interval 0: result %d\n", rc);
    check(rc == -1, "interval 0 was taken");
}

static void list_all(void) {
    printf("3. ntp_server: the whole table, in parts\n");
    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_GET);
    struct listing l = {0};
    int rc = final_get_ntp_server(&info, collect_servers, &l);
    printf("   result %d, %u servers in %u answers:", rc, l.count, l.parts);
    for (unsigned i = 0; i < l.count; ++i) printf(" %s", l.rows[i].name);
    printf("\n");
    check(rc == 0 && l.count == 5, "the listing is incomplete");
}

static void get_by_name(void) {
    printf("4. ntp_server: one server by its name\n");
    const char *names[] = {"time.example.org", "nowhere.example.net"};
    for (int i = 0; i < 2; ++i) {
        mgiInfo info;
        init_mgi_info(&info);
        mgi_set_rqt_type(&info, MGI_RQT_GET);
        info.rqt_item[0] = &names[i]; /* the key: the get stub packs the index record */
        struct ntp_server s;
        struct one_record r = {&s, sizeof s, 0};
        int rc = final_get_ntp_server(&info, collect_one, &r);
        /* A get returns 0 on an error answer too: the answer's type tells. */
        int error = get_mgi_resp_type_r(info.mgi_buf) == MGI_RSP_ERROR;
        printf("   %s: result %d, answer type %u\n", names[i], rc, get_mgi_resp_type_r(info.mgi_buf));
        if (error)
            print_error(&info);
        else if (r.found)
            printf("   key %u, prefer %u\n", s.key_id, s.prefer);
        check(rc == 0 && error == (i == 1) && (i == 1 || (r.found && s.prefer == 1)), "unexpected answer");
    }
}

static void list_matching(void) {
    printf("5. ntp_server: names matching ^pool[12] (a get of type 31)\n");
    const char pattern[] = "^pool[12]";
    unsigned char body[sizeof(mgiMatchHdr) + sizeof pattern];
    memset(body, 0, sizeof body);
    mgiMatchHdr hdr;
    memset(&hdr, 0, sizeof hdr);
    hdr.mask[0] = 1u << 0;         /* object id 0: the name */
    hdr.type[0] = MGI_MATCH_REGEX; /* matched by a regular expression */
    hdr.pattern_len = (int32_t)sizeof pattern;
    memcpy(body, &hdr, sizeof hdr);
    memcpy(body + sizeof hdr, pattern, sizeof pattern);

    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, MGI_RQT_MATCH_GET);
    mgi_set_rqt_udcdata(&info, body, sizeof body);
    struct listing l = {0};
    int rc = final_get_ntp_server(&info, collect_servers, &l);
    printf("   result %d, %u servers:", rc, l.count);
    for (unsigned i = 0; i < l.count; ++i) printf(" %s", l.rows[i].name);
    printf("\n");
    check(rc == 0 && l.count == 2, "the filter did not give two servers");
}

static void set_clock(void) {
    printf("6. ntp_ntptime: set the clock (an exec)\n");
    struct ntp_time times[] = {{2025, 6, 1, 12, 30, 0}, {2025, 13, 1, 0, 0, 0}};
    for (int i = 0; i < 2; ++i) {
        mgiInfo info;
        init_mgi_info(&info);
        struct ntp_time *t = &times[i];
        uint32_t *fields[] = {&t->year, &t->month, &t->day, &t->hour, &t->minute, &t->second};
        for (int k = 0; k < 6; ++k) info.rqt_item[k] = fields[k]; /* an exec packs every field given */
        struct ntp_time now;
        struct one_record r = {&now, sizeof now, 0};
        int rc = final_exec_ntp_ntptime(&info, collect_one, &r);
        int error = get_mgi_resp_type_r(info.mgi_buf) == MGI_RSP_ERROR;
        printf("   %04u-%02u-%02u: result %d, answer type %u\n", times[i].year, times[i].month, times[i].day, rc,
               get_mgi_resp_type_r(info.mgi_buf));
        if (error) print_error(&info);
        check(rc == 0 && error == (i == 1) && (i == 1 || (r.found && now.minute == 30)), "unexpected answer");
    }
}

static void transaction(void) {
    printf("7. a transaction on virtual system 0\n");
    int rc = get_mgi_transaction_lock("admin", 0);
    printf("   take: result %d, transaction id %u\n", rc, get_mgi_transaction_id());
    check(rc == 0, "the lock was refused");
    uint32_t interval = 64;
    rc = set_settings(NULL, &interval);
    printf("   set interval 64 inside it: result %d\n", rc);
    check(rc == 0, "the set inside the transaction was refused");
    rc = release_mgi_transaction_lock("admin", 0);
    printf("   release: result %d, transaction id now %u\n", rc, get_mgi_transaction_id());
    check(rc >= 0 && get_mgi_transaction_id() == 0, "the release was refused");
}

/* ------------------------------------------------------------------ start */

static int parse_args(int argc, char **argv) {
    static const struct option options[] = {
        {"help", no_argument, NULL, 'h'}, {"version", no_argument, NULL, 'V'}, {NULL, 0, NULL, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "hV", options, NULL)) != -1) {
        switch (c) {
        case 'h':
            printf("Usage: ntp_frontend\n"
                   "Sets, lists, filters and executes the objects of ntp_daemon (application %u) through\n"
                   "mgd and straight, printing each answer. Both must serve in the runtime directory\n"
                   "($MGMT_IPC_DIR, else /run/mgmt where writable, else /tmp/mgmt-<uid>).\n"
                   "\n"
                   "  -h, --help      show this help and exit\n"
                   "  -V, --version   show the version and exit\n"
                   "\n"
                   "Exit status: 0 when every answer was the expected one, 1 otherwise.\n",
                   NTP_APPID);
            return 0;
        case 'V': printf("ntp_frontend (libmgmt) %s\n", LIBMGMT_VERSION); return 0;
        default: return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "ntp_frontend: '%s': no arguments are taken\n", argv[optind]);
        return 2;
    }
    return -1;
}

int main(int argc, char **argv) {
    int rc = parse_args(argc, argv);
    if (rc == 2) fprintf(stderr, "Try 'ntp_frontend --help' for more information.\n");
    if (rc >= 0) return rc;
    setvbuf(stdout, NULL, _IOLBF, 0);

    ipc_init(FRONTEND_APPID, 0);
    const char *dir = ipc_runtime_dir();
    if (!dir) {
        fprintf(stderr, "ntp_frontend: the runtime directory %s cannot be used: %s\n", ipc_runtime_dir_tried(),
                strerror(errno));
        return 1;
    }
    set_mgi_user("admin", 15); /* who the requests act for */
    int locked;
    if (get_mgd_config_lock_status(&locked) != 0) {
        fprintf(stderr, "ntp_frontend: mgd (application 2) does not answer in %s\n", dir);
        return 1;
    }
    struct ntp_settings s;
    if (get_settings(MGI_RQT_GET, &s) != 0) {
        fprintf(stderr, "ntp_frontend: ntp_daemon (application %u) does not answer in %s\n", NTP_APPID, dir);
        return 1;
    }
    settings();
    servers();
    list_all();
    get_by_name();
    list_matching();
    set_clock();
    transaction();
    thread_free_mgi(); /* the thread's buffer pair */
    printf("%s\n", g_failures ? "some answers were not the expected ones" : "every answer was the expected one");
    return g_failures ? 1 : 0;
}
