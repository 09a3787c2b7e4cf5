/*
 * ntp_daemon: an application daemon written in C against libmgmt. It serves three objects of the
 * management tree as their owner, application 14:
 *
 *   ntp_ntp      one record. A set comes through mgd and changes the fields it carries; a get
 *                comes straight from the front end and is answered with the record.
 *   ntp_server   a table keyed by server name. A set adds a server or changes one; a get with the
 *                name answers that row; a get without it lists the table, a few rows per answer
 *                (--page-rows), the front end sending the paging cookie back for the next part; a
 *                get of type 31 lists only the servers whose name matches a regular expression.
 *   ntp_ntptime  an action (exec): sets the daemon's clock and reports it with a trap.
 *
 * The guide walks through this file: docs/writing-a-daemon.md in the source tree,
 * share/doc/libmgmt/guide/ when installed. Build it against an installed libmgmt with
 *     cc -o ntp_daemon ntp_daemon.c $(pkg-config --cflags --libs libmgmt)
 * (and -Wl,-rpath,$(pkg-config --variable=libdir libmgmt) for a prefix the loader does not search),
 * or with the CMakeLists.txt beside it. Run it with mgd in the same runtime directory.
 */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "libmgmt.h"
#include "mgmt/platform/platform.h"
#include "ntp_records.h"

/* Codes of this daemon's own errors: err_code, and a finer private code beside it. */
enum { NTP_ERR_INVALID = -20, NTP_ERR_NO_SERVER = -21, NTP_ERR_FULL = -22, NTP_ERR_WALK_LOST = -23 };
enum { NTP_PRIV_NAME = 2001, NTP_PRIV_INTERVAL = 2002, NTP_PRIV_KEY = 2003, NTP_PRIV_DATE = 2004 };

#define MAX_SERVERS 256

static struct ntp_settings g_settings = {1, 64, 0, 1000};
static struct ntp_server g_servers[MAX_SERVERS]; /* never moved: a walk keeps pointers to rows */
static unsigned g_server_count;
static struct ntp_time g_clock = {2025, 1, 1, 0, 0, 0};
static unsigned g_page_rows; /* rows per answer of a listing; 0: as many as fit */

/* ------------------------------------------------------------------ shared handlers */

/*
 * errHandle of every entity: runs instead of encodeData when decodeIndex or decodeData failed,
 * and after encodeData when that failed. default_err_handle builds the error segment from
 * err_code, private_ecode and err_buf unless the response already has one (mgi_sprintf_err builds
 * it at once); mgi_final_rsp_message closes the response. Without an errHandle the requester
 * would get no error segment at all.
 */
static int report_error(mgiInfo *info) {
    default_err_handle(info);
    mgi_final_rsp_message(info);
    return 0;
}

/* A set travels through mgd: its offset word says so (rqt_no_more), and its payload is the plain
 * record, with mgidata pointing at it and its length in rqt_len (mgidata_len stays 0). */
static int is_set(const mgiInfo *info) { return info->rqt_no_more == 1 && info->rqt_nextseg < 128; }

/* The answer to a set: a final message with no data. */
static int answer_done(mgiInfo *info) {
    set_rsptype(info, MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    return 0;
}

/* Whether field k of the object was given: bit k of the request's mask. */
static int given(mgiInfo *info, unsigned k) { return (get_rqt_mask1(info) >> k) & 1u; }

/* ------------------------------------------------------------------ ntp_ntp */

static int settings_decode(mgiInfo *info) {
    if (!is_set(info)) return 0; /* a get: nothing to take in */
    struct ntp_settings in;
    if (info->rqt_len < sizeof in) {
        mgi_set_err_info_with_private_ecode(info, NTP_ERR_INVALID, 0, "ntp_ntp: %u bytes, %zu expected",
                                            info->rqt_len, sizeof in);
        return 0;
    }
    memcpy(&in, info->mgidata, sizeof in);
    if (given(info, 1) && (in.sync_interval < 1 || in.sync_interval > 1440)) {
        mgi_set_err_info_with_private_ecode(info, NTP_ERR_INVALID, NTP_PRIV_INTERVAL,
                                            "sync interval %u is outside 1 to 1440 minutes", in.sync_interval);
        return 0;
    }
    if (given(info, 0)) g_settings.enable = in.enable;
    if (given(info, 1)) g_settings.sync_interval = in.sync_interval;
    if (given(info, 2)) g_settings.authentication = in.authentication;
    if (given(info, 3)) g_settings.max_adjust = in.max_adjust;
    mgi_data_changed(info);
    printf("ntp_daemon: settings now enable %u, interval %u min\n", g_settings.enable, g_settings.sync_interval);
    return 0;
}

/* encodeData runs for the set too: it must still close the answer. */
static int settings_encode(mgiInfo *info) {
    if (!is_set(info)) {
        mgi_init_rsp_message(info);
        mgi_update_rsp_data(info, &g_settings, sizeof g_settings);
    }
    return answer_done(info);
}

/* ------------------------------------------------------------------ ntp_server */

static struct ntp_server *find_server(const char *name) {
    for (unsigned i = 0; i < g_server_count; ++i)
        if (strncmp(g_servers[i].name, name, sizeof g_servers[i].name) == 0) return &g_servers[i];
    return NULL;
}

static int server_decode(mgiInfo *info) {
    if (!is_set(info)) return 0;
    struct ntp_server in;
    if (info->rqt_len < sizeof in || !given(info, 0)) {
        mgi_set_err_info_with_private_ecode(info, NTP_ERR_INVALID, NTP_PRIV_NAME, "ntp_server: no server name given");
        return 0;
    }
    memcpy(&in, info->mgidata, sizeof in);
    in.name[sizeof in.name - 1] = '\0';
    if (in.name[0] == '\0') {
        mgi_set_err_info_with_private_ecode(info, NTP_ERR_INVALID, NTP_PRIV_NAME, "ntp_server: the name is empty");
        return 0;
    }
    if (given(info, 1) && in.key_id > 65535) {
        mgi_set_err_info_with_private_ecode(info, NTP_ERR_INVALID, NTP_PRIV_KEY, "key %u is outside 0 to 65535",
                                            in.key_id);
        return 0;
    }
    struct ntp_server *row = find_server(in.name);
    if (!row) {
        if (g_server_count == MAX_SERVERS) {
            mgi_set_err_info_with_private_ecode(info, NTP_ERR_FULL, 0, "no room for server %s", in.name);
            return 0;
        }
        row = &g_servers[g_server_count++];
        memset(row, 0, sizeof *row);
        memcpy(row->name, in.name, sizeof row->name);
        printf("ntp_daemon: server %s added\n", row->name);
    }
    if (given(info, 1)) row->key_id = in.key_id;
    if (given(info, 2)) memcpy(row->vrouter, in.vrouter, sizeof row->vrouter);
    if (given(info, 3)) memcpy(row->source_if, in.source_if, sizeof row->source_if);
    if (given(info, 4)) row->prefer = in.prefer;
    mgi_data_changed(info);
    return 0;
}

/*
 * A listing keeps its rows in the condition context, which the library keeps alive from one
 * partial answer (type 16) to the next and releases after the last. The rows are collected at the
 * first request, because what selects them (the match data of a type-31 get) comes only with it.
 * The context's application area holds a number that ties a cookie to its listing.
 */
struct walk {
    uint32_t generation;
    uint32_t rows;
};
static uint32_t g_generation;

static struct walk walk_of(const condContext *ctx) {
    struct walk w;
    memcpy(&w, ctx->app_area, sizeof w);
    return w;
}

static int start_walk(mgiInfo *info, condContext *ctx) {
    free_cond_ctx_by_uiInfo(); /* drops a listing that was never finished, and readies the lists */
    void *regex = mgi_get_match_regex_by_obj_id(info, 0); /* field 0, the name; null: no filter */
    struct walk w = {++g_generation, 0};
    for (unsigned i = 0; i < g_server_count; ++i) {
        if (mgi_pcre_exec(regex, g_servers[i].name, (int)strlen(g_servers[i].name)) != 0) continue;
        cond_data_node *node = calloc(1, sizeof *node); /* freed by the library with the context */
        if (!node) return -1;
        node->row = &g_servers[i];
        *ctx->data_list.last = node;
        ctx->data_list.last = &node->next;
        ++w.rows;
    }
    memcpy(ctx->app_area, &w, sizeof w);
    return 0;
}

static int list_servers(mgiInfo *info) {
    condContext *ctx = info->cond_ctx;
    uint32_t cookie[MGI_COOKIE_WORDS] = {0};
    if (!info->cookie || info->cookie_len != sizeof cookie) { /* the first request of a listing */
        if (start_walk(info, ctx) != 0) {
            set_encode_errcode(info, NTP_ERR_FULL);
            mgi_sprintf_err(info, "out of memory for the listing");
            return 0;
        }
        cookie[0] = 0;                        /* first row wanted */
        cookie[1] = walk_of(ctx).rows - 1;    /* last row wanted */
        cookie[2] = walk_of(ctx).generation;  /* ours: which listing */
    } else {                                  /* a later part: the cookie of the last answer */
        memcpy(cookie, info->cookie, sizeof cookie);
        mgi_common_cookie_ntoh(cookie);
        if (cookie[2] != walk_of(ctx).generation) {
            set_encode_errcode(info, NTP_ERR_WALK_LOST);
            mgi_sprintf_err(info, "the listing was interrupted by another request; start it again");
            return 0;
        }
    }
    uint32_t rows = walk_of(ctx).rows;
    int wanted = rows ? get_rqt_num_by_cookie(cookie) : 0;
    uint32_t count = wanted > 0 ? (uint32_t)wanted : 0;
    uint32_t fit = get_mgi_rsp_data_num(sizeof(struct ntp_server));
    if (g_page_rows && g_page_rows < fit) fit = g_page_rows;
    if (count > fit) count = fit;

    mgi_init_rsp_message(info);
    cond_data_node *node = ctx->data_list.first;
    for (uint32_t i = 0; node && i < cookie[0]; ++i) node = node->next;
    for (uint32_t i = 0; node && i < count; ++i, node = node->next)
        mgi_update_rsp_data(info, node->row, sizeof(struct ntp_server));
    set_cookie_by_rsp_data(cookie, count, walk_of(ctx).generation);

    uint32_t out[MGI_COOKIE_WORDS]; /* must live until mgi_final_rsp_message has copied it */
    if (count > 0 && cookie[0] <= cookie[1]) {
        memcpy(out, cookie, sizeof out);
        mgi_common_cookie_hton(out);
        mgi_set_rsp_cookie(info, out, sizeof out);
        set_rsptype(info, MGI_RSP_PARTIAL); /* more follows: the context lives on */
    } else {
        set_rsptype(info, MGI_RSP_FINAL);
    }
    mgi_final_rsp_message(info);
    return 0;
}

static int server_encode(mgiInfo *info) {
    if (is_set(info)) return answer_done(info);
    if (!given(info, 0)) return list_servers(info); /* no key: the whole table */
    char name[sizeof g_servers[0].name] = "";
    if (info->mgidata && info->mgidata_len >= sizeof name) memcpy(name, info->mgidata, sizeof name - 1);
    const struct ntp_server *row = find_server(name);
    if (!row) {
        set_encode_errcode(info, NTP_ERR_NO_SERVER);
        mgi_sprintf_err(info, "no server %s", name);
        return 0;
    }
    mgi_init_rsp_message(info);
    mgi_update_rsp_data(info, (void *)row, sizeof *row);
    set_rsptype(info, MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    return 0;
}

/* ------------------------------------------------------------------ ntp_ntptime */

static int ntptime_decode(mgiInfo *info) {
    struct ntp_time t;
    if (!info->mgidata || info->mgidata_len < sizeof t) {
        mgi_set_err_info_with_private_ecode(info, NTP_ERR_INVALID, NTP_PRIV_DATE, "ntp_ntptime: no time given");
        return 0;
    }
    memcpy(&t, info->mgidata, sizeof t);
    if (t.month < 1 || t.month > 12 || t.day < 1 || t.day > 31 || t.hour > 23 || t.minute > 59 || t.second > 60) {
        mgi_set_err_info_with_private_ecode(info, NTP_ERR_INVALID, NTP_PRIV_DATE,
                                            "%04u-%02u-%02u %02u:%02u:%02u is not a time", t.year, t.month, t.day,
                                            t.hour, t.minute, t.second);
        return 0;
    }
    g_clock = t;
    return 0;
}

static int ntptime_encode(mgiInfo *info) {
    char text[64];
    snprintf(text, sizeof text, "clock set to %04u-%02u-%02u %02u:%02u:%02u", g_clock.year, g_clock.month,
             g_clock.day, g_clock.hour, g_clock.minute, g_clock.second);
    printf("ntp_daemon: %s\n", text);
    /* A trap to the trap receiver (application 23); mgd takes that address when nobody else does. */
    if (vk_private_trap(4001, text, (int32_t)strlen(text) + 1, 0) != 0)
        printf("ntp_daemon: no trap receiver runs; the trap was not sent\n");
    mgi_init_rsp_message(info);
    mgi_update_rsp_data(info, &g_clock, sizeof g_clock); /* an exec may answer with data too */
    set_rsptype(info, MGI_RSP_FINAL);
    mgi_final_rsp_message(info);
    return 0;
}

/* ------------------------------------------------------------------ start */

struct served {
    const char *name;
    size_t record_len;
    mgi_app_handler decode, encode;
};

/* Registers each object at the place the catalogue gives it, after checking its record. */
static int register_entities(void) {
    const struct served objects[] = {
        {"ntp_ntp", sizeof(struct ntp_settings), settings_decode, settings_encode},
        {"ntp_server", sizeof(struct ntp_server), server_decode, server_encode},
        {"ntp_ntptime", sizeof(struct ntp_time), ntptime_decode, ntptime_encode},
    };
    for (size_t i = 0; i < sizeof objects / sizeof objects[0]; ++i) {
        const libmgmt_object *o = libmgmt_object_find(objects[i].name);
        if (!o || o->owner != NTP_APPID || o->entity_len != objects[i].record_len) {
            fprintf(stderr, "ntp_daemon: %s: the catalogue of this libmgmt does not match the record\n",
                    objects[i].name);
            return -1;
        }
        uint32_t parent[MGI_TARGET_WORDS] = {0}; /* the path up to the object's own word */
        memcpy(parent, o->path, (o->depth - 1u) * sizeof parent[0]);
        appEntity *e = app_entity_init(o->path[o->depth - 1], o->index_count ? APP_ENTITY_INDEXED : 0, NULL,
                                       report_error, objects[i].decode, objects[i].encode, NULL);
        if (!e || app_entity_add(parent, e) != 0) {
            fprintf(stderr, "ntp_daemon: %s: out of memory\n", objects[i].name);
            return -1;
        }
    }
    return 0;
}

static void on_signal(int sig) {
    (void)sig;
    ipc_stop();
}

static void usage(void) {
    printf("Usage: ntp_daemon [--page-rows N]\n"
           "Serves ntp_ntp, ntp_server and ntp_ntptime as application %u over MGI.\n"
           "\n"
           "      --page-rows N   rows per answer of a listing, 1 to 1000 (default: as many as fit)\n"
           "  -h, --help          show this help and exit\n"
           "  -V, --version       show the version and exit\n"
           "\n"
           "It serves in the runtime directory ($MGMT_IPC_DIR, else /run/mgmt where writable, else\n"
           "/tmp/mgmt-<uid>), prints \"ready\" once it does, and stops on SIGTERM or SIGINT.\n",
           NTP_APPID);
}

static int parse_args(int argc, char **argv) {
    static const struct option options[] = {{"page-rows", required_argument, NULL, 'p'},
                                            {"help", no_argument, NULL, 'h'},
                                            {"version", no_argument, NULL, 'V'},
                                            {NULL, 0, NULL, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "hV", options, NULL)) != -1) {
        char *end = NULL;
        unsigned long v;
        switch (c) {
        case 'p':
            errno = 0;
            v = strtoul(optarg, &end, 10);
            if (optarg[0] < '0' || optarg[0] > '9' || *end || errno) {
                fprintf(stderr, "ntp_daemon: --page-rows: '%s' is not a number\n", optarg);
                return 2;
            }
            if (v < 1 || v > 1000) {
                fprintf(stderr, "ntp_daemon: --page-rows: %lu is outside 1 to 1000\n", v);
                return 2;
            }
            g_page_rows = (unsigned)v;
            break;
        case 'h': usage(); return 0;
        case 'V': printf("ntp_daemon (libmgmt) %s\n", LIBMGMT_VERSION); return 0;
        default: return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "ntp_daemon: '%s': no arguments are taken, only options\n", argv[optind]);
        return 2;
    }
    return -1; /* go on */
}

int main(int argc, char **argv) {
    int rc = parse_args(argc, argv);
    if (rc == 2) fprintf(stderr, "Try 'ntp_daemon --help' for more information.\n");
    if (rc >= 0) return rc;
    setvbuf(stdout, NULL, _IOLBF, 0);

    /* Everything the daemon answers is in place before its address appears. */
    if (register_entities() != 0) return 1;
    free_cond_ctx_by_uiInfo(); /* the condition context's lists start empty */
    ipc_register_handler(MGI_IPC_MSG, handle_mgi_msg);
    if (ipc_register(NTP_APPID, 0) != 0) {
        char why[512];
        ipc_register_error(NTP_APPID, 0, errno, why, sizeof why);
        fprintf(stderr, "ntp_daemon: cannot serve as application %u: %s\n", NTP_APPID, why);
        return 1;
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    printf("ready\n");

    rc = ipc_serve() == 0 ? 0 : 1;
    free_cond_ctx_by_uiInfo(); /* a listing left unfinished */
    thread_free_mgi();         /* the buffer pair the serving thread used */
    ipc_close();
    return rc;
}
