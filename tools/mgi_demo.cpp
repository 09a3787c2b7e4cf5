// mgi_demo: one MGI conversation between two processes over the platform IPC.
//
//   mgi_demo serve   an application (id 11) that answers a paged table of rows
//                    and a set that comes through it as the manager (id 2)
//   mgi_demo ask     a front end (id 5) that sets a value through the manager
//                    and reads the table straight from the application
//
// Both sides print what they see. Run `serve` first, in the same MGMT_IPC_DIR.
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <string>

#include "libmgmt.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kApp = 11;
constexpr uint32_t kRows = 10;
constexpr uint32_t kRowsPerPage = 4;
const uint32_t kTarget[10] = {0xe0002, 0}; // a table of roles

struct Row {
    char name[32];
    uint32_t priv;
};
static_assert(sizeof(Row) == 36);

void put16(unsigned char *p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
uint16_t get16(const unsigned char *p) { return uint16_t(p[0] << 8 | p[1]); }

// Appends one segment to a response under construction; returns the new end.
unsigned char *add_segment(unsigned char *msg, unsigned char *&link, unsigned char *at, uint8_t type,
                           const void *body, uint16_t len) {
    append_segment(link, at, type, body, len);
    link = at;
    unsigned char *end = at + 8 + len;
    put16(msg + MGI_OFF_LEN, uint16_t(end - msg - MGI_HDR_LEN));
    return end;
}

// The application's answer to a get: rows from the cookie's first index on.
int serve_get(void *, void *, void *payload, uint32_t len, int32_t *status, void *reply, uint32_t *reply_len) {
    auto *rq = static_cast<unsigned char *>(payload);
    auto *rs = static_cast<unsigned char *>(reply);
    if (len < MGI_HDR_LEN) {
        *status = -1;
        return IPC_HANDLER_REPLY;
    }
    // Find the cookie the front end sent back, if any.
    uint32_t first = 0;
    unsigned char *seg = rq + MGI_HDR_LEN;
    for (uint8_t t = rq[MGI_OFF_NEXTSEG]; t != MGI_SEG_END && t > 128 && seg + 8 <= rq + len;) {
        uint16_t n = get16(seg + 2);
        if (t == MGI_SEG_COOKIE && n >= 24) {
            uint32_t cookie[6];
            std::memcpy(cookie, seg + 8, sizeof cookie);
            mgi_common_cookie_ntoh(cookie);
            first = cookie[0];
        }
        t = seg[0];
        seg += 8 + n;
    }
    std::memcpy(rs, rq, MGI_HDR_LEN); // the answer echoes the request's header
    uint32_t last = first + kRowsPerPage < kRows ? first + kRowsPerPage : kRows;
    rs[MGI_OFF_TYPE] = rq[MGI_OFF_TYPE] == MGI_RQT_CLOSE ? MGI_RSP_FINAL : (last < kRows ? MGI_RSP_PARTIAL : MGI_RSP_FINAL);
    rs[MGI_OFF_NEXTSEG] = MGI_SEG_END;
    put16(rs + MGI_OFF_LEN, 0);
    unsigned char *link = rs + MGI_OFF_NEXTSEG;
    unsigned char *end = rs + MGI_HDR_LEN;
    if (rq[MGI_OFF_TYPE] != MGI_RQT_CLOSE) {
        Row rows[kRowsPerPage] = {};
        for (uint32_t i = first; i < last; ++i) {
            std::snprintf(rows[i - first].name, sizeof rows[0].name, "role-%02u", i);
            rows[i - first].priv = i % 3;
        }
        end = add_segment(rs, link, end, MGI_SEG_UDCDATA, rows, uint16_t((last - first) * sizeof(Row)));
        if (last < kRows) {
            uint32_t cookie[6] = {last, kRows - 1, 0, 0, 0, 0};
            mgi_common_cookie_hton(cookie);
            end = add_segment(rs, link, end, MGI_SEG_COOKIE, cookie, sizeof cookie);
        }
    }
    std::printf("[app 11] get: rows %u..%u of %u, answer type %u\n", first, last - 1, kRows, rs[MGI_OFF_TYPE]);
    std::fflush(stdout);
    *reply_len = uint32_t(end - rs);
    return IPC_HANDLER_REPLY;
}

// As manager: takes a set's record and answers final.
int serve_set(void *ipc, void *, void *payload, uint32_t len, int32_t *, void *, uint32_t *) {
    auto *rq = static_cast<unsigned char *>(payload);
    if (len < MGI_HDR_LEN + sizeof(Row)) return IPC_HANDLER_NOREPLY;
    Row row;
    std::memcpy(&row, rq + MGI_HDR_LEN, sizeof row);
    row.name[sizeof row.name - 1] = '\0';
    std::printf("[mgd] set from app %u (src %u): name=\"%s\" priv=%u mask1=%#x\n",
                static_cast<ipc_peer_t *>(ipc)->appid, rq[MGI_OFF_SRC], row.name, row.priv,
                unsigned(rq[152] << 24 | rq[153] << 16 | rq[154] << 8 | rq[155]));
    std::fflush(stdout);
    unsigned char answer[MGI_HDR_LEN];
    std::memcpy(answer, rq, MGI_HDR_LEN);
    answer[MGI_OFF_TYPE] = MGI_RSP_FINAL;
    put16(answer + MGI_OFF_LEN, 0);
    ipc_send_to_peer(static_cast<ipc_peer_t *>(ipc), MGI_IPC_MSG, answer, sizeof answer, 0);
    return IPC_HANDLER_NOREPLY;
}

volatile std::sig_atomic_t stop_requested = 0;
void on_term(int) { stop_requested = 1; }

int serve() {
    ipc_endpoint_t *mgd = ipc_endpoint_open(MGD_APPID, 0, nullptr);
    if (ipc_register(kApp, 0) != 0 || !mgd) {
        std::fprintf(stderr, "mgi_demo: cannot bind in %s\n", ipc_runtime_dir());
        return 1;
    }
    ipc_register_handler(MGI_IPC_MSG, serve_get);
    ipc_endpoint_handler(mgd, MGI_IPC_MSG, serve_set);
    std::signal(SIGTERM, on_term);
    std::signal(SIGINT, on_term);
    std::printf("[app 11] serving in %s\n", ipc_runtime_dir());
    std::fflush(stdout);
    // The manager's endpoint is served from the same loop, one message at a time.
    while (!stop_requested) {
        if (ipc_dispatch_one(20) < 0 && !stop_requested) break;
        if (ipc_endpoint_dispatch(mgd, 0) < 0 && !stop_requested) break;
    }
    std::printf("[app 11] stopped\n");
    ipc_endpoint_close(mgd);
    return 0;
}

int print_rows(void *data, uint32_t *len, void *err, uint32_t *, void *cookie, uint32_t *cookie_len, void *) {
    if (err) std::printf("[app 5] error: %s\n", static_cast<char *>(err) + 16);
    for (uint32_t off = 0; data && off + sizeof(Row) <= *len; off += sizeof(Row)) {
        Row r;
        std::memcpy(&r, static_cast<char *>(data) + off, sizeof r);
        std::printf("[app 5]   %-10s priv %u\n", r.name, r.priv);
    }
    std::printf("[app 5]   (%s)\n", cookie && *cookie_len ? "more follows: cookie sent back" : "last part");
    return 0;
}

int ask() {
    ipc_init(5, 0);
    set_mgi_user("admin", 15);
    set_mgi_ip_addr("192.0.2.10");

    mgiInfo info;
    init_mgi_info(&info);
    mgi_set_rqt_type(&info, 1);
    init_mgi_exchange_r(info.mgi_buf);
    Row row = {};
    std::strcpy(row.name, "auditor");
    row.priv = 2;
    prepare_mgi_exchange_r(info.mgi_buf, kTarget, 0, 1, sizeof row, 0, 0, 0x3, 0, 0, 0, 0, 0, &row);
    std::printf("[app 5] set role \"auditor\" through the manager\n");
    int rc = make_mgi_exchange_with_context(&info, nullptr, sizeof row);
    std::printf("[app 5] set result %d\n", rc);

    init_mgi_info(&info);
    mgi_set_rqt_type(&info, 2);
    prepare_mgi_exchange_direct_r(info.mgi_buf, kTarget, 2, 0, 0, 0, 0);
    mgi_final_rqt_message(&info);
    std::printf("[app 5] get the role table from application %u\n", kApp);
    rc = make_mgi_exchange_direct_with_context(&info, kApp, print_rows, nullptr);
    std::printf("[app 5] get result %d\n", rc);

    init_mgi_info(&info);
    prepare_mgi_exchange_direct_r(info.mgi_buf, kTarget, 2, 0, 0, 0, 0);
    std::printf("[app 5] get from application 77, which is not running\n");
    rc = make_mgi_exchange_direct_with_context(&info, 77, print_rows, nullptr);
    std::printf("[app 5] get result %d\n", rc);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 2 && std::strcmp(argv[1], "serve") == 0) return serve();
    if (argc == 2 && std::strcmp(argv[1], "ask") == 0) return ask();
    std::fprintf(stderr, "usage: mgi_demo serve|ask\n");
    return 2;
}
