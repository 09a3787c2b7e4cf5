// mgictl monitor: a line for every message that a process of the runtime
// directory sends, decoded as far as this system knows it, and optionally a
// pcapng capture of the copies as they came (tools/wireshark/mgi.lua reads it).
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "mgi/wire.h"
#include "mgictl.h"
#include "mgmt/device.h"
#include "mgmt/mgi_services.h"
#include "mgmt/platform/platform.h"

namespace mgictl {
namespace {

volatile sig_atomic_t g_stop = 0;
void on_stop(int) { g_stop = 1; }

using mgmt::get_be16;
using mgmt::get_be32;
using mgmt::get_field;
namespace hdr = mgmt::hdr;

// What each message number is.
struct Known {
    uint16_t msg;
    const char *what;
};
const Known kMessages[] = {
    {MGI_IPC_MSG, "MGI"},
    {MGD_MSG_REQUEST_CONFIG, "manager: configuration request"},
    {MGD_MSG_DBG_CONFIG, "manager: debug configuration"},
    {MGD_MSG_CONFIG_CHANGE_STATUS, "manager: configuration change status"},
    {MGD_MSG_LOCK_CFG, "manager: configuration lock"},
    {MGD_MSG_SYSTEM_DEBUG_STATE, "manager: system debug state"},
    {MGD_MSG_OBJECT_DEFAULT_VALUE, "manager: object default value"},
    {MGD_MSG_CONFIG_LOCK_STATUS, "manager: configuration lock status"},
    {MGD_MSG_TRANSACTION, "manager: transaction"},
    {MGD_MSG_PRE_CONFIG_FEATURE, "manager: pre-configured feature"},
    {MGD_MSG_TRANSACTION_STATE, "manager: transaction state"},
    {MGD_MSG_PLATFORM, "manager: platform word"},
    {MGMT_IMPORT_RQT_MSG, "manager: configuration import"},
    {MGMT_SESSION_CUT_MSG, "manager: session cut"},
    {MGMT_NM_TIMEOUT_MSG, "manager: network manager time-out"},
    {VK_TRAP_MSG, "trap"},
    {VK_TM_TRAP_CHANNEL, "manager trap (published)"},
    {MGMT_ADMIND_PUBLISH_MSG, "publish news"},
    {VK_FIRMWARE_IMAGE_MSG, "firmware image"},
    {VK_HEARTBEAT_MSG, "heartbeat"},
    {MGMT_AVAIL_STATUS_MSG, "availability status"},
};

const char *message_name(uint16_t msg) {
    for (const Known &k : kMessages)
        if (k.msg == msg) return k.what;
    return "message";
}

const char *mgi_type_name(uint8_t type) {
    switch (type) {
    case MGI_RSP_FINAL: return "final";
    case MGI_RSP_PARTIAL: return "partial";
    case MGI_RSP_ERROR: return "error";
    case MGI_RQT_CLOSE: return "close";
    case MGI_RSP_FINAL2: return "final";
    case MGI_RQT_MGD_GET: return "get from mgd";
    case MGI_RQT_MATCH_GET: return "match get";
    default: return nullptr;
    }
}

// The segments of an MGI message, one line each with -v, the records decoded by the object's layout.
std::string mgi_text(const uint8_t *p, uint32_t n, bool verbose) {
    if (n < MGI_HDR_LEN) return " (" + std::to_string(n) + " bytes: shorter than a header)";
    const uint8_t type = p[MGI_OFF_TYPE], first = p[MGI_OFF_NEXTSEG];
    const uint32_t len = get_field(p, hdr::len);
    uint32_t words[MGI_TARGET_WORDS], depth = 0;
    while (depth < MGI_TARGET_WORDS && (words[depth] = get_be32(p + MGI_OFF_TARGET + 4 * depth))) ++depth;
    const libmgmt_object *obj = libmgmt_object_by_path(words, depth);
    const char *tn = mgi_type_name(type);
    std::string o = " type " + std::to_string(type) + (tn ? std::string(" (") + tn + ")" : "") + " " +
                    (depth ? path_text(words, depth) : "-") + " " + (obj ? obj->name : "?");
    std::string lines;
    if (verbose) {
        // The header's other number fields that are set, by name.
        std::string set;
        for (const mgmt::HdrField &f : hdr::numbers)
            if (f.off != MGI_OFF_TYPE && f.off != MGI_OFF_LEN && f.off != MGI_OFF_NEXTSEG && get_field(p, f))
                set += std::string(" ") + f.name + "=" + std::to_string(get_field(p, f));
        if (!set.empty()) lines += "      header" + set + "\n";
    }
    auto records = [&](const uint8_t *body, uint32_t size) {
        if (!obj || !verbose) return;
        for (uint32_t at = 0; obj->entity_len && at + obj->entity_len <= size; at += obj->entity_len) {
            lines += "        ";
            for (uint32_t k = 0; k < obj->field_count; ++k)
                lines += " f" + std::to_string(k + 1) + "=" + format_value(obj->fields[k], body + at, false);
            lines += "\n";
        }
    };
    if (first < mgmt::kNextsegRecord) {
        o += " record " + std::to_string(len) + " bytes";
        records(p + MGI_HDR_LEN, std::min(len, n - MGI_HDR_LEN));
    } else if (first == MGI_SEG_END || len == 0) {
        o += " no segments";
    } else {
        // The chain as a reader walks it: types 129 to 140, heads inside the message.
        o += " segments";
        uint32_t at = MGI_HDR_LEN, left = len;
        for (uint8_t seg = first; seg >= MGI_SEG_FIRST && seg <= MGI_SEG_LAST && seg != MGI_SEG_END && left >= 8 &&
                                  at + MGI_SEGHDR_LEN <= n;) {
            const uint32_t size = std::min<uint32_t>(mgmt::seg_len(p + at), n - at - MGI_SEGHDR_LEN);
            const uint8_t *body = p + at + MGI_SEGHDR_LEN;
            o += " " + std::to_string(seg) + "(" + std::to_string(size) + ")";
            if (seg == MGI_SEG_ERROR && size >= sizeof(mgiErrBody)) {
                mgiErrBody e;
                std::memcpy(&e, body, sizeof e);
                std::string text(reinterpret_cast<const char *>(body) + 16, strnlen(reinterpret_cast<const char *>(body) + 16, size - 16));
                o += " error " + std::to_string(e.err_code) + "/" + std::to_string(e.private_ecode) + " \"" + text + "\"";
            }
            if (verbose) {
                lines += "      segment " + std::to_string(seg) + " subtype " + std::to_string(mgmt::seg_subtype(p + at)) +
                         ", " + std::to_string(size) + " bytes: " + hex(body, std::min<uint32_t>(size, 32)) +
                         (size > 32 ? "...\n" : "\n");
                if (seg == MGI_SEG_RULEDATA || seg == MGI_SEG_UDCDATA || seg == MGI_SEG_ANSWER || seg == MGI_SEG_ANSWER2)
                    records(body, size);
            }
            seg = p[at];
            at += MGI_SEGHDR_LEN + size;
            left = left >= MGI_SEGHDR_LEN + size ? left - MGI_SEGHDR_LEN - size : 0;
        }
    }
    return o + (lines.empty() ? "" : "\n" + lines.substr(0, lines.size() - 1));
}

// A pcapng file: one section, one interface of a user link type, an enhanced packet per copy.
class Pcapng {
  public:
    bool open(const std::string &path) {
        f_ = std::fopen(path.c_str(), "wb");
        if (!f_) return false;
        const uint32_t shb[] = {0x0A0D0D0A, 28, 0x1A2B3C4D, 0x00000001, 0xffffffff, 0xffffffff, 28};
        // LINKTYPE_USER0 (147), no snap limit; if_tsresol 9: nanoseconds.
        const uint32_t idb[] = {1, 32, 147, 0, 0x00010009, 0x00000009, 0, 32};
        std::fwrite(shb, sizeof shb, 1, f_);
        std::fwrite(idb, sizeof idb, 1, f_);
        return std::fflush(f_) == 0;
    }
    bool packet(uint64_t time_ns, const uint8_t *data, uint32_t n) {
        const uint32_t padded = (n + 3) & ~3u, total = 32 + padded;
        const uint32_t head[] = {6, total, 0, uint32_t(time_ns >> 32), uint32_t(time_ns), n, n};
        const uint8_t zeros[4] = {};
        std::fwrite(head, sizeof head, 1, f_);
        std::fwrite(data, 1, n, f_);
        std::fwrite(zeros, 1, padded - n, f_);
        std::fwrite(&total, 4, 1, f_);
        return !std::ferror(f_);
    }
    // Whole packets on disk: the capture is readable while it grows.
    bool flush() { return !f_ || std::fflush(f_) == 0; }
    bool close() {
        bool ok = f_ && std::fclose(f_) == 0;
        f_ = nullptr;
        return ok;
    }
    ~Pcapng() { close(); }

  private:
    FILE *f_ = nullptr;
};

std::string clock_text(uint64_t ns) {
    time_t s = time_t(ns / 1000000000u);
    tm t;
    localtime_r(&s, &t);
    char b[32];
    std::snprintf(b, sizeof b, "%02d:%02d:%02d.%06u", t.tm_hour, t.tm_min, t.tm_sec, unsigned(ns % 1000000000u / 1000));
    return b;
}

} // namespace

std::string copy_text(const uint8_t *copy, uint32_t n, bool verbose) {
    ipc_monitor_head_t h;
    ipc_frame_t fr;
    std::memcpy(&h, copy, sizeof h);
    std::memcpy(&fr, copy + sizeof h, sizeof fr);
    const uint8_t *payload = copy + sizeof h + sizeof fr;
    const uint32_t len = std::min<uint32_t>(fr.len, n - sizeof h - sizeof fr);
    const uint16_t msg = get_be16(fr.msg_be);
    std::string from = appid2appname(fr.src_app), to = appid2appname(h.dst_app);
    std::string line = clock_text(h.time_ns) + " " + from + " -> " + to + " " + std::to_string(msg) + " " +
                       message_name(msg) + (fr.kind == IPC_KIND_REPLY ? " answer" : "") + " seq " +
                       std::to_string(fr.seq);
    // The result negated without overflow: the most negative one is an unknown error as well.
    if (h.result < 0) line += std::string(": not delivered (") + std::strerror(int(0u - uint32_t(h.result))) + ")";
    else if (msg == MGI_IPC_MSG) line += mgi_text(payload, len, verbose);
    else
        line += " " + std::to_string(len) + " bytes" +
                (verbose && len ? ": " + hex(payload, std::min<uint32_t>(len, 48)) : "");
    if (fr.kind == IPC_KIND_REPLY && fr.status) line += " status " + std::to_string(fr.status);
    return line;
}

int verb_monitor(const std::vector<std::string> &args, const Options &o) {
    if (!args.empty()) {
        std::fprintf(stderr, "mgictl monitor: takes no arguments (see mgictl monitor --help)\n");
        return kUsage;
    }
    Pcapng capture;
    if (!o.write_file.empty() && !capture.open(o.write_file)) {
        std::fprintf(stderr, "mgictl monitor: cannot write %s: %s\n", o.write_file.c_str(), std::strerror(errno));
        return kFailed;
    }
    const char *dir = ipc_runtime_dir();
    int fd = ipc_monitor_open();
    if (fd < 0) {
        std::fprintf(stderr, "mgictl monitor: cannot watch %s: %s\n", dir ? dir : "the runtime directory",
                     fd == -EADDRINUSE ? "another monitor watches it" : std::strerror(-fd));
        return kFailed;
    }
    struct sigaction sa = {};
    sa.sa_handler = on_stop; // no SA_RESTART: a signal ends the wait
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::fprintf(stderr, "mgictl monitor: watching %s%s%s\n", dir, o.write_file.empty() ? "" : ", writing ",
                 o.write_file.c_str());
    std::fflush(stderr);
    std::vector<uint8_t> buf(sizeof(ipc_monitor_head_t) + sizeof(ipc_frame_t) + IPC_MAX_PAYLOAD);
    uint64_t seen = 0, dropped = 0;
    int status = kOk;
    // After a stop, what was sent before it is still shown (a bounded number, should a flood go on).
    for (int after_stop = 0; after_stop < 10000; after_stop += g_stop ? 1 : 0) {
        // What waits is taken at once; the output is flushed whenever the queues are empty.
        int n = ipc_monitor_recv(buf.data(), uint32_t(buf.size()), 0);
        if (n == -ETIMEDOUT && g_stop) break;
        if (n == -ETIMEDOUT) {
            std::fflush(stdout);
            if (!capture.flush() && status == kOk) {
                std::fprintf(stderr, "mgictl monitor: writing %s failed: %s\n", o.write_file.c_str(),
                             std::strerror(errno));
                status = kFailed;
            }
            n = ipc_monitor_recv(buf.data(), uint32_t(buf.size()), -1);
        }
        if (n == -EINTR) continue;
        if (n < 0) {
            std::fprintf(stderr, "mgictl monitor: %s\n", std::strerror(-n));
            status = kFailed;
            break;
        }
        ipc_monitor_head_t h;
        ipc_frame_t fr;
        std::memcpy(&h, buf.data(), sizeof h);
        std::memcpy(&fr, buf.data() + sizeof h, sizeof fr);
        if (h.magic != IPC_MONITOR_MAGIC) continue;
        if (o.app_set && fr.src_app != o.app && h.dst_app != o.app) continue;
        ++seen;
        if (capture.packet(h.time_ns, buf.data(), uint32_t(n)) == false && status == kOk) {
            std::fprintf(stderr, "mgictl monitor: writing %s failed: %s\n", o.write_file.c_str(), std::strerror(errno));
            status = kFailed;
        }
        std::printf("%s\n", copy_text(buf.data(), uint32_t(n), o.verbose).c_str());
        if (uint64_t d = ipc_monitor_dropped(); d != dropped) {
            std::printf("(%llu copies dropped so far: the monitor's queue was full)\n", (unsigned long long)d);
            dropped = d;
        }
    }
    ipc_monitor_close();
    if (!capture.close() && !o.write_file.empty() && status == kOk) status = kFailed;
    std::fprintf(stderr, "mgictl monitor: %llu messages, %llu copies dropped\n", (unsigned long long)seen,
                 (unsigned long long)ipc_monitor_dropped());
    return status;
}

} // namespace mgictl
