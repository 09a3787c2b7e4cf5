// The catalogue verbs (list, show) and the request verbs (get, set, exec):
// every object is reached through the generated catalogue and its stubs.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fnmatch.h>

#include "mgi/wire.h"
#include "mgictl.h"
#include "mgmt/mgi_app.h"
#include "mgmt/objects.h"
#include "mgmt/platform/platform.h"

namespace mgictl {

std::string app_text(uint32_t app) { return std::to_string(app) + " (" + appid2appname(app) + ")"; }

std::string path_text(const uint32_t *words, uint32_t depth) {
    std::string s;
    char w[16];
    for (uint32_t k = 0; k < depth; ++k) {
        std::snprintf(w, sizeof w, "%s%x", k ? "." : "", words[k]);
        s += w;
    }
    return s;
}

namespace {

const char *ops_text(const libmgmt_object *o) { return o->ops & LIBMGMT_OP_EXEC ? "exec" : "set,get"; }

// Objects whose names match any of the globs, in name order; false when a glob matches nothing.
bool select(const std::vector<std::string> &globs, std::vector<const libmgmt_object *> &out) {
    const uint32_t n = libmgmt_object_count();
    for (const std::string &g : globs) {
        size_t before = out.size();
        if (const libmgmt_object *o = libmgmt_object_find(g.c_str())) {
            out.push_back(o);
        } else {
            for (uint32_t i = 0; i < n; ++i)
                if (fnmatch(g.c_str(), libmgmt_object_at(i)->name, 0) == 0) out.push_back(libmgmt_object_at(i));
        }
        if (out.size() == before) {
            std::fprintf(stderr, "mgictl: no object matches '%s' (mgictl list shows them all)\n", g.c_str());
            return false;
        }
    }
    std::stable_sort(out.begin(), out.end(),
                     [](const libmgmt_object *a, const libmgmt_object *b) { return std::strcmp(a->name, b->name) < 0; });
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return true;
}

void show_one(const libmgmt_object *o) {
    std::printf("object  %s\n", o->name);
    std::printf("path    %s (%u words)\n", path_text(o->path, o->depth).c_str(), o->depth);
    std::printf("owner   %s\n", app_text(o->owner).c_str());
    std::printf("ops     %s (%s)\n", ops_text(o),
                o->ops & LIBMGMT_OP_EXEC ? "final_exec, straight to the owner"
                                         : "final_set through mgd, final_get straight to the owner");
    std::string chain;
    for (const libmgmt_object *p = o->parent; p; p = p->parent) chain += std::string(chain.empty() ? "" : " <- ") + p->name;
    std::printf("parents %s\n", chain.empty() ? "none" : chain.c_str());
    std::printf("record  %u bytes%s; index %s\n", o->entity_len, o->flags & LIBMGMT_OBJ_SIZED ? " (stated)" : "",
                o->index_count ? (std::to_string(o->index_count) + " key field(s), " + std::to_string(o->index_len) +
                                  " bytes").c_str()
                               : "none");
    std::printf("fields  %u\n", o->field_count);
    std::printf("  field kind   width offset key\n");
    for (uint32_t k = 0; k < o->field_count; ++k) {
        const libmgmt_field &f = o->fields[k];
        std::printf("  f%-4u %-6s %5u %6u%s %s\n", k + 1, kind_text(f).c_str(), f.width, f.offset,
                    f.flags & LIBMGMT_FIELD_PLACED ? "@" : " ", k < o->index_count ? "key" : "-");
    }
    const std::vector<Slot> slots = slots_of(o);
    size_t width = 5;
    for (const Slot &s : slots) width = std::max(width, s.label.size());
    std::printf("slots   %zu (rqt_item, parents' keys first)\n", slots.size());
    for (size_t s = 0; s < slots.size(); ++s)
        std::printf("  %-4zu %-*s %s\n", s, int(width), slots[s].label.c_str(), kind_text(*slots[s].field).c_str());
}

// ---------------------------------------------------------------- requests

// What the direct road handed over, answer by answer.
struct Collected {
    std::vector<std::vector<uint8_t>> data;
    bool error = false;
};
Collected *g_collected = nullptr;
const libmgmt_object *g_set_object = nullptr;

int on_direct(void *data, uint32_t *len, void *err, uint32_t *, void *, uint32_t *, void *) {
    if (data && *len) g_collected->data.emplace_back(static_cast<uint8_t *>(data), static_cast<uint8_t *>(data) + *len);
    if (err) g_collected->error = true;
    return 0;
}

int on_set_record(void *record) {
    auto *p = static_cast<uint8_t *>(record);
    g_collected->data.emplace_back(p, p + g_set_object->entity_len);
    return 0;
}

// The console's text (the library's own messages), kept to say why a request failed.
void keep_console(const char *text, void *ctx) { *static_cast<std::string *>(ctx) += text; }

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    for (char &c : s)
        if (c == '\n') c = ';';
    return s;
}

// A match segment for a type-31 get: one regular expression on one field (object id = field number).
std::vector<uint8_t> match_body(uint32_t field, const std::string &pattern) {
    std::vector<uint8_t> body(sizeof(mgiMatchHdr) + pattern.size() + 1, 0);
    auto *hdr = reinterpret_cast<mgiMatchHdr *>(body.data());
    hdr->mask[field / 32] = 1u << (field % 32);
    hdr->type[field] = MGI_MATCH_REGEX;
    hdr->pattern_len = int32_t(pattern.size() + 1);
    std::memcpy(body.data() + sizeof(mgiMatchHdr), pattern.c_str(), pattern.size() + 1);
    return body;
}

} // namespace

int verb_list(const std::vector<std::string> &args, const Options &) {
    if (args.size() > 1) {
        std::fprintf(stderr, "mgictl list: one GLOB at most (see mgictl list --help)\n");
        return kUsage;
    }
    const std::string glob = args.empty() ? "*" : args[0];
    size_t width = 0, shown = 0;
    const uint32_t n = libmgmt_object_count();
    for (uint32_t i = 0; i < n; ++i) width = std::max(width, std::strlen(libmgmt_object_at(i)->name));
    for (uint32_t i = 0; i < n; ++i) {
        const libmgmt_object *o = libmgmt_object_at(i);
        if (fnmatch(glob.c_str(), o->name, 0) != 0) continue;
        std::printf("%-*s  %-7s  %-4u %-8s %s\n", int(width), o->name, ops_text(o), o->owner, appid2appname(o->owner),
                    path_text(o->path, o->depth).c_str());
        ++shown;
    }
    if (!shown) {
        std::fprintf(stderr, "mgictl list: no object matches '%s'\n", glob.c_str());
        return kFailed;
    }
    return kOk;
}

int verb_show(const std::vector<std::string> &args, const Options &) {
    if (args.empty()) {
        std::fprintf(stderr, "mgictl show: which OBJECT? (see mgictl show --help)\n");
        return kUsage;
    }
    std::vector<const libmgmt_object *> objs;
    if (!select(args, objs)) return kFailed;
    for (size_t i = 0; i < objs.size(); ++i) {
        if (i) std::printf("\n");
        show_one(objs[i]);
    }
    return kOk;
}

int verb_request(const std::string &verb, const std::vector<std::string> &args, const Options &o) {
    if (args.empty()) {
        std::fprintf(stderr, "mgictl %s: which OBJECT? (see mgictl %s --help)\n", verb.c_str(), verb.c_str());
        return kUsage;
    }
    const libmgmt_object *obj = libmgmt_object_find(args[0].c_str());
    if (!obj) {
        std::fprintf(stderr, "mgictl %s: unknown object '%s' (mgictl list '*%s*' may find it); nothing sent\n",
                     verb.c_str(), args[0].c_str(), args[0].c_str());
        return kFailed;
    }
    const bool is_exec = verb == "exec";
    if (is_exec != bool(obj->ops & LIBMGMT_OP_EXEC)) {
        std::fprintf(stderr, "mgictl %s: %s takes %s, not %s; nothing sent\n", verb.c_str(), obj->name,
                     is_exec ? "set and get" : "exec only", verb.c_str());
        return kFailed;
    }
    // Everything is parsed before anything is sent.
    Arguments values;
    std::string err;
    if (!values.parse(obj, std::vector<std::string>(args.begin() + 1, args.end()), err)) {
        std::fprintf(stderr, "mgictl %s %s: %s; nothing sent\n", verb.c_str(), obj->name, err.c_str());
        return kFailed;
    }
    std::vector<uint8_t> match;
    if (!o.match.empty()) {
        // "fN=REGEX" chooses the field, a plain REGEX matches field 1.
        uint32_t field = 0;
        std::string pattern = o.match;
        size_t eq = pattern.find('=');
        if (pattern[0] == 'f' && eq != std::string::npos && eq > 1 &&
            pattern.find_first_not_of("0123456789", 1) == eq) {
            field = uint32_t(std::stoul(pattern.substr(1, eq - 1)));
            pattern = pattern.substr(eq + 1);
            if (field == 0 || field > obj->field_count) {
                std::fprintf(stderr, "mgictl get %s: --match f%u: the object has fields f1 to f%u; nothing sent\n",
                             obj->name, field, obj->field_count);
                return kFailed;
            }
            --field;
        }
        match = match_body(field, pattern);
    }

    std::string console;
    console_set_sink(keep_console, &console);
    mgiInfo info;
    init_mgi_info(&info);
    if (!info.mgi_buf || !info.mgi_buf->rbuf) {
        console_set_sink(nullptr, nullptr);
        std::fprintf(stderr, "mgictl: no memory for the exchange buffers\n");
        return kFailed;
    }
    values.fill(info.rqt_item);
    if (o.timeout > 0) info.rqt_timeout = uint8_t(o.timeout);
    uint8_t type = uint8_t(o.type >= 0 ? o.type : verb == "set" ? 1 : verb == "get" ? 2 : 0);
    if (!match.empty()) {
        type = MGI_RQT_MATCH_GET;
        mgi_set_rqt_udcdata(&info, match.data(), uint16_t(match.size()));
    }
    mgi_set_rqt_type(&info, type);
    if (!o.where.empty()) mgi_set_rqt_condition(&info, const_cast<char *>(o.where.c_str()), uint16_t(o.where.size()));
    if (verb == "get" && values.gives_non_key()) mgi_set_whether_full_entity(&info, 1);

    // A type no answer has: it tells "nothing came back" from an answer. (A set clears the
    // buffers first: there an empty header says it.)
    info.mgi_buf->rbuf[MGI_OFF_TYPE] = 0xff;
    Collected got;
    g_collected = &got;
    g_set_object = obj;
    uint32_t peer = obj->owner;
    int rc;
    if (verb == "set") {
        peer = MGD_APPID;
        rc = obj->set(&info, on_set_record);
    } else if (verb == "get") {
        if (type == MGI_RQT_MGD_GET) peer = MGD_APPID;
        mgi_match_get_record record = {nullptr, nullptr, nullptr};
        rc = obj->get(&info, on_direct, type == MGI_RQT_MATCH_GET ? &record : nullptr);
    } else {
        rc = obj->exec(&info, on_direct, nullptr);
    }
    g_collected = nullptr;
    console_set_sink(nullptr, nullptr);

    mgiBuf *buf = info.mgi_buf;
    const uint8_t answer = buf->rbuf[MGI_OFF_TYPE];
    const bool error = got.error || answer == MGI_RSP_ERROR;
    const bool silent = answer == 0xff || (answer == 0 && buf->rbuf[MGI_OFF_MARK] == 0);
    int status = kOk;
    if (error) {
        // A direct answer of type 18 leaves the stub's result at 0: it is an error all the same.
        const char *text = get_errString_r(buf);
        const std::string who = app_text(peer) + (peer == obj->owner ? "" : " for the owner " + app_text(obj->owner));
        std::fprintf(stderr, "mgictl %s %s: refused by %s: MGI code %d, private code %d: %s\n", verb.c_str(),
                     obj->name, who.c_str(), mgi_get_rsp_err_code_r(buf),
                     mgi_get_rsp_private_err_code_r(buf), text && *text ? text : "(no text)");
        status = kRefused;
    } else if (rc != 0 && silent) {
        std::fprintf(stderr, "mgictl %s %s: could not reach %s in %s%s%s\n", verb.c_str(), obj->name,
                     app_text(peer).c_str(), ipc_runtime_dir() ? ipc_runtime_dir() : "(no runtime directory)",
                     console.empty() ? "" : ": ", trimmed(console).c_str());
        status = kUnreachable;
    } else if (rc != 0 || (answer != MGI_RSP_FINAL && answer != MGI_RSP_FINAL2 && answer != MGI_RSP_PARTIAL)) {
        std::fprintf(stderr, "mgictl %s %s: %s answered with message type %u and no error text%s%s\n", verb.c_str(),
                     obj->name, app_text(peer).c_str(), answer, console.empty() ? "" : ": ", trimmed(console).c_str());
        status = kRefused;
    }
    // A set shows what the answer holds only when it holds records: an owner's answer relayed by
    // mgd may come as segments, which are no records of the object.
    const bool records = verb != "set" || buf->rbuf[MGI_OFF_NEXTSEG] < mgmt::kNextsegRecord;
    if (status == kOk && (verb == "get" || (!got.data.empty() && records)))
        print_records(obj, got.data, o.json, verb.c_str());
    thread_free_mgi();
    return status;
}

} // namespace mgictl
