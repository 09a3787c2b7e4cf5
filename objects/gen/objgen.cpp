// mgmt_objgen: reads the catalogue of the management tree (catalogue.tsv) and
// writes the packers, the stubs, their header and the catalogue table of
// libmgmt.
//
//   mgmt_objgen CATALOGUE SOURCE_DIR HEADER_DIR CHUNKS
//
// SOURCE_DIR receives objects_<n>.cpp (n = 0 .. CHUNKS-1) and catalogue_data.cpp,
// HEADER_DIR receives objects_gen.h. A file whose content would not change is
// not rewritten. A row that cannot be laid out stops the tool with the row's
// line, its name and the reason, and nothing is written.
//
// Record layout: fields in order, each at the next offset its alignment allows
// (u16 2, u32 4, u64 8, b16 8, everything else 1), unless the row gives the
// offset (kind@offset); the cursor goes on from the end of the field just
// placed. The length is the furthest end brought up to a multiple of the
// largest alignment, unless the row gives it (=N). Index fields must be the
// leading fields of the entity, at the same offsets.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "mgmt/mgi.h"

namespace {

constexpr uint32_t kMaxPayload = MGI_MAX_PAYLOAD;
constexpr size_t kMaxFields = 96;             // three mask words
constexpr size_t kMaxSlots = MGI_ITEM_SLOTS;  // rqt_item slots
constexpr size_t kMaxPath = MGI_TARGET_WORDS; // target words

enum class Kind { U8 = 1, I8, U16, I16, U32, U64, Text, Bytes, Ref };

const char *kind_enum(Kind k) {
    switch (k) {
    case Kind::U8:
        return "LIBMGMT_FIELD_U8";
    case Kind::I8:
        return "LIBMGMT_FIELD_I8";
    case Kind::U16:
        return "LIBMGMT_FIELD_U16";
    case Kind::I16:
        return "LIBMGMT_FIELD_I16";
    case Kind::U32:
        return "LIBMGMT_FIELD_U32";
    case Kind::U64:
        return "LIBMGMT_FIELD_U64";
    case Kind::Text:
        return "LIBMGMT_FIELD_TEXT";
    case Kind::Bytes:
        return "LIBMGMT_FIELD_BYTES";
    case Kind::Ref:
        return "LIBMGMT_FIELD_REF";
    }
    return "0";
}

struct Field {
    Kind kind{};
    uint32_t width = 0;
    uint32_t align = 1;
    uint32_t offset = 0;
    bool placed = false;
    std::string token;
};

struct Layout {
    std::vector<Field> fields;
    uint32_t length = 0;
    bool sized = false;
};

struct Row {
    int line = 0;
    std::string name, ops, path_text, app_text, parent_name, index_text, entity_text;
    std::vector<uint32_t> path;
    uint32_t owner = 0;
    Layout entity;
    size_t index_count = 0;
    uint32_t index_len = 0;
    int parent = -1;
    size_t slots = 0;
};

// A fault in a row: reported with the row's line and name.
struct RowError {
    std::string text;
};

[[noreturn]] void fail(const std::string &why) { throw RowError{why}; }

uint32_t align_up(uint64_t v, uint32_t a) { return static_cast<uint32_t>((v + a - 1) / a * a); }

std::optional<uint64_t> number(std::string_view s, int base) {
    if (s.empty() || s.size() > 10) return std::nullopt;
    uint64_t v = 0;
    for (char c : s) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return std::nullopt;
        v = v * base + d;
    }
    return v;
}

std::vector<std::string> split(const std::string &s, char sep) {
    std::vector<std::string> out;
    std::string cur;
    for (char c : s) {
        if (c == sep) {
            out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    out.push_back(cur);
    return out;
}

// One token of the record notation: kind and width, optional *count, optional @offset.
void parse_token(const std::string &tok, std::vector<Field> &out) {
    if (tok.size() < 2) fail("unknown field '" + tok + "'");
    char k = tok[0];
    size_t i = 1;
    while (i < tok.size() && tok[i] >= '0' && tok[i] <= '9')
        ++i;
    auto width = number(std::string_view(tok).substr(1, i - 1), 10);
    uint64_t count = 1;
    std::optional<uint64_t> offset;
    while (i < tok.size()) {
        char mark = tok[i++];
        size_t j = i;
        while (j < tok.size() && tok[j] >= '0' && tok[j] <= '9')
            ++j;
        auto v = number(std::string_view(tok).substr(i, j - i), 10);
        if (!v || (mark != '*' && mark != '@')) fail("unknown field '" + tok + "'");
        if (mark == '*') {
            if (count != 1 || offset || *v == 0 || *v > kMaxFields) fail("bad repeat count in '" + tok + "'");
            count = *v;
        } else {
            if (offset) fail("two offsets in '" + tok + "'");
            offset = *v;
        }
        i = j;
    }
    if (!width || *width == 0) fail("unknown field '" + tok + "'");
    Field f;
    f.token = tok;
    switch (k) {
    case 'u':
    case 'i':
        if (k == 'u' && *width == 8)
            f.kind = Kind::U8;
        else if (k == 'i' && *width == 8)
            f.kind = Kind::I8;
        else if (k == 'u' && *width == 16)
            f.kind = Kind::U16;
        else if (k == 'i' && *width == 16)
            f.kind = Kind::I16;
        else if (k == 'u' && *width == 32)
            f.kind = Kind::U32;
        else if (k == 'u' && *width == 64)
            f.kind = Kind::U64;
        else
            fail("unknown integer kind '" + tok + "'");
        f.width = static_cast<uint32_t>(*width / 8);
        f.align = f.width;
        break;
    case 's':
    case 'b':
    case 'p':
        if (*width > kMaxPayload) fail("field '" + tok + "' is wider than a message");
        f.kind = k == 's' ? Kind::Text : k == 'b' ? Kind::Bytes : Kind::Ref;
        f.width = static_cast<uint32_t>(*width);
        f.align = (k == 'b' && f.width == 16) ? 8 : 1; // an IPv6 address is aligned to 8
        break;
    default:
        fail("unknown field kind '" + tok + "'");
    }
    for (uint64_t n = 0; n < count; ++n) {
        Field g = f;
        if (n == 0 && offset) {
            if (*offset > kMaxPayload) fail("offset of '" + tok + "' lies beyond any message");
            g.placed = true;
            g.offset = static_cast<uint32_t>(*offset);
        }
        out.push_back(g);
    }
}

// Lays out a record written in the catalogue's notation.
Layout lay_out(const std::string &notation, bool allow_length, const char *what) {
    Layout l;
    std::optional<uint64_t> length;
    std::istringstream in(notation);
    std::string tok;
    std::vector<std::string> toks;
    while (in >> tok)
        toks.push_back(tok);
    for (size_t t = 0; t < toks.size(); ++t) {
        const std::string &tk = toks[t];
        if (tk[0] == '=') {
            if (!allow_length) fail(std::string("a length in the ") + what + " record");
            if (t + 1 != toks.size() || length) fail("the length '" + tk + "' must close the " + what + " record");
            length = number(std::string_view(tk).substr(1), 10);
            if (!length) fail("bad length '" + tk + "'");
            continue;
        }
        parse_token(tk, l.fields);
    }
    if (l.fields.empty()) fail(std::string("empty ") + what + " record");
    if (l.fields.size() > kMaxFields)
        fail(std::string("the ") + what + " record has " + std::to_string(l.fields.size()) +
             " fields, the mask holds " + std::to_string(kMaxFields));
    uint64_t cursor = 0, end = 0;
    uint32_t align = 1;
    for (size_t k = 0; k < l.fields.size(); ++k) {
        Field &f = l.fields[k];
        uint32_t natural = align_up(cursor, f.align);
        if (f.placed) {
            if (f.offset % f.align)
                fail("field " + std::to_string(k) + " '" + f.token + "': offset " + std::to_string(f.offset) +
                     " breaks its alignment of " + std::to_string(f.align));
            if (f.offset == natural)
                fail("field " + std::to_string(k) + " '" + f.token + "': offset " + std::to_string(f.offset) +
                     " is where the layout puts it anyway");
        } else {
            f.offset = natural;
        }
        cursor = uint64_t(f.offset) + f.width;
        end = std::max(end, cursor);
        align = std::max(align, f.align);
    }
    uint64_t rule = align_up(end, align);
    if (length) {
        if (*length < end)
            fail("length " + std::to_string(*length) + " cuts the fields, which end at " + std::to_string(end));
        if (*length % align)
            fail("length " + std::to_string(*length) + " breaks the record's alignment of " + std::to_string(align));
        if (*length == rule) fail("length " + std::to_string(*length) + " is what the layout gives anyway");
        rule = *length;
        l.sized = true;
    }
    if (rule > kMaxPayload)
        fail("the " + std::string(what) + " record of " + std::to_string(rule) + " bytes does not fit a message");
    l.length = static_cast<uint32_t>(rule);
    return l;
}

bool valid_name(const std::string &n) {
    auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (n.empty() || n.size() > 200 || !letter(n[0])) return false;
    return std::all_of(n.begin(), n.end(), [&](char c) { return letter(c) || (c >= '0' && c <= '9') || c == '_'; });
}

void read_row(Row &r) {
    if (r.ops != "sg" && r.ops != "e") fail("ops '" + r.ops + "' is neither 'sg' nor 'e'");
    auto words = split(r.path_text, '.');
    if (words.size() > kMaxPath - 1)
        fail("path of " + std::to_string(words.size()) + " words leaves no room for the terminating zero");
    for (auto &w : words) {
        auto v = number(w, 16);
        if (!v || *v > 0xffffffffu || (*v & 0xffffu) == 0) fail("bad path word '" + w + "'");
        r.path.push_back(static_cast<uint32_t>(*v));
    }
    auto app = number(r.app_text, 10);
    if (!app || *app > 0xffff) fail("bad application id '" + r.app_text + "'");
    r.owner = static_cast<uint32_t>(*app);

    if (r.entity_text == "-") fail("no entity record");
    Layout index;
    if (r.index_text != "-") index = lay_out(r.index_text, false, "index");
    if (r.entity_text == "=") {
        if (r.index_text == "-") fail("entity '=' with no index");
        r.entity = index;
    } else {
        r.entity = lay_out(r.entity_text, true, "entity");
    }
    r.index_count = index.fields.size();
    if (r.index_count > r.entity.fields.size()) fail("the index has more fields than the entity");
    for (size_t k = 0; k < r.index_count; ++k) {
        const Field &a = index.fields[k], &b = r.entity.fields[k];
        if (a.kind != b.kind || a.width != b.width || a.offset != b.offset)
            fail("index field " + std::to_string(k) + " '" + a.token + "' at " + std::to_string(a.offset) +
                 " is not entity field " + std::to_string(k) + " '" + b.token + "' at " + std::to_string(b.offset) +
                 ": the index must be a prefix of the entity");
    }
    if (r.index_count) r.index_len = r.index_count == r.entity.fields.size() ? r.entity.length : index.length;
}

std::vector<Row> read_catalogue(const std::string &file) {
    std::ifstream in(file);
    if (!in) {
        fprintf(stderr, "%s: cannot read the catalogue\n", file.c_str());
        exit(1);
    }
    std::vector<Row> rows;
    std::map<std::string, int> by_name;
    int errors = 0;
    auto report = [&](int line, const std::string &name, const std::string &why) {
        fprintf(stderr, "%s:%d: %s: %s\n", file.c_str(), line, name.c_str(), why.c_str());
        ++errors;
    };
    std::string text;
    int line = 0;
    while (std::getline(in, text)) {
        ++line;
        if (text.empty() || text[0] == '#') continue;
        auto cells = split(text, '\t');
        Row r;
        r.line = line;
        r.name = cells[0];
        if (cells.size() != 7) {
            report(line, r.name, "expected 7 columns, found " + std::to_string(cells.size()));
            continue;
        }
        r.ops = cells[1];
        r.path_text = cells[2];
        r.app_text = cells[3];
        r.parent_name = cells[4];
        r.index_text = cells[5];
        r.entity_text = cells[6];
        if (!valid_name(r.name)) {
            report(line, r.name, "not a valid object name");
            continue;
        }
        if (by_name.count(r.name)) {
            report(line, r.name,
                   "second row of this name (first on line " + std::to_string(rows[by_name[r.name]].line) + ")");
            continue;
        }
        try {
            read_row(r);
        } catch (const RowError &e) {
            report(line, r.name, e.text);
            continue;
        }
        by_name[r.name] = static_cast<int>(rows.size());
        rows.push_back(std::move(r));
    }
    // One object per path: the path names the object on the wire.
    std::map<std::vector<uint32_t>, int> by_path;
    for (const auto &r : rows)
        if (auto [it, fresh] = by_path.emplace(r.path, r.line); !fresh)
            report(r.line, r.name, "path " + r.path_text + " is taken by the row on line " + std::to_string(it->second));
    // Parents: a keyed object whose path is a proper prefix of the row's path.
    for (auto &r : rows) {
        if (r.parent_name == "-") continue;
        auto it = by_name.find(r.parent_name);
        if (it == by_name.end()) {
            report(r.line, r.name, "parent '" + r.parent_name + "' is not in the catalogue");
            continue;
        }
        const Row &p = rows[it->second];
        if (p.index_count == 0) {
            report(r.line, r.name, "parent '" + p.name + "' has no index record to put ahead");
            continue;
        }
        if (p.path.size() >= r.path.size() || !std::equal(p.path.begin(), p.path.end(), r.path.begin())) {
            report(r.line, r.name, "parent '" + p.name + "' at " + p.path_text + " is not above " + r.path_text);
            continue;
        }
        r.parent = it->second;
    }
    if (errors) {
        fprintf(stderr, "%s: %d row(s) rejected, nothing generated\n", file.c_str(), errors);
        exit(1);
    }
    // Slots and room: parents' key fields and records, root first, then the object's own.
    for (auto &r : rows) {
        size_t slots = r.entity.fields.size();
        uint64_t bytes = r.entity.length;
        for (int p = r.parent; p >= 0; p = rows[p].parent) {
            slots += rows[p].index_count;
            bytes += rows[p].index_len;
        }
        r.slots = slots;
        if (slots > kMaxSlots)
            report(r.line, r.name,
                   "needs " + std::to_string(slots) + " argument slots, a request has " + std::to_string(kMaxSlots));
        if (bytes > kMaxPayload)
            report(r.line, r.name,
                   "with its parents' index records the data is " + std::to_string(bytes) +
                       " bytes, more than a message holds");
    }
    if (errors) {
        fprintf(stderr, "%s: %d row(s) rejected, nothing generated\n", file.c_str(), errors);
        exit(1);
    }
    if (rows.empty() || rows.size() > 65535) {
        fprintf(stderr, "%s: %zu rows: no catalogue to generate\n", file.c_str(), rows.size());
        exit(1);
    }
    return rows;
}

// ------------------------------------------------------------------ output

std::string params(size_t n) {
    std::string s = "void *record, uint64_t *mask_out, uint32_t *mask3_out";
    for (size_t k = 0; k < n; ++k)
        s += ", void *f" + std::to_string(k);
    return s;
}

std::string args(size_t n) {
    std::string s;
    for (size_t k = 0; k < n; ++k)
        s += ", a[" + std::to_string(k) + "]";
    return s;
}

std::string hex(uint64_t v, const char *suffix) {
    char b[32];
    snprintf(b, sizeof b, "0x%llx%s", static_cast<unsigned long long>(v), suffix);
    return b;
}

void emit_packer(std::string &o, const Row &r, const char *which, size_t n, uint32_t length) {
    o += "MGMT_API uint32_t construct_" + r.name + "_" + which + "(" + params(n) + ")\n{\n";
    o += "    unsigned char *const r = static_cast<unsigned char *>(record);\n";
    o += "    uint64_t m = 0;\n    uint32_t m3 = 0;\n";
    for (size_t k = 0; k < n; ++k) {
        const Field &f = r.entity.fields[k];
        std::string arg = "f" + std::to_string(k);
        std::string at = "r + " + std::to_string(f.offset);
        std::string w = std::to_string(f.width);
        std::string put;
        switch (f.kind) {
        case Kind::Text:
            put = "mgmt_put_text(" + at + ", " + arg + ", " + w + ");";
            break;
        case Kind::Ref:
            put = "mgmt_put_ref(" + at + ", " + arg + ", " + w + ");";
            break;
        default:
            put = "memcpy(" + at + ", " + arg + ", " + w + ");";
            break;
        }
        std::string bit =
            k < 64 ? "m |= " + hex(uint64_t(1) << k, "ull") + ";" : "m3 |= " + hex(uint64_t(1) << (k - 64), "u") + ";";
        o += "    if (" + arg + ") { " + put + " " + bit + " }\n";
    }
    o += "    if (mask_out)\n        *mask_out = m;\n    if (mask3_out)\n        *mask3_out = m3;\n";
    o += "    return " + std::to_string(length) + "u;\n}\n\n";
}

std::string object_symbol(const Row &r) { return "mgmt_obj_" + r.name; }

void emit_object(std::string &o, const std::vector<Row> &rows, const Row &r) {
    const size_t n = r.entity.fields.size();
    o += "/* " + r.name + ": " + r.path_text + ", application " + r.app_text + " */\n";
    o += "static const libmgmt_field fl_" + r.name + "[] = {\n";
    for (const Field &f : r.entity.fields)
        o += "    {" + std::string(kind_enum(f.kind)) + ", " + (f.placed ? "LIBMGMT_FIELD_PLACED" : "0") + ", " +
             std::to_string(f.align) + ", " + std::to_string(f.offset) + ", " + std::to_string(f.width) + "},\n";
    o += "};\n\n";

    emit_packer(o, r, "entity", n, r.entity.length);
    if (r.index_count) {
        emit_packer(o, r, "index", r.index_count, r.index_len);
        std::string fwd;
        for (size_t k = 0; k < r.index_count; ++k)
            fwd += ", f" + std::to_string(k);
        o += "MGMT_API uint32_t construct_" + r.name + "_new_index(" + params(r.index_count) + ")\n{\n";
        o += "    return construct_" + r.name + "_index(record, mask_out, mask3_out" + fwd + ");\n}\n\n";
    }
    o += "static uint32_t pe_" + r.name + "(void *record, uint64_t *m, uint32_t *m3, void *const *a)\n{\n";
    o += "    return construct_" + r.name + "_entity(record, m, m3" + args(n) + ");\n}\n\n";
    if (r.index_count) {
        o += "static uint32_t pi_" + r.name + "(void *record, uint64_t *m, uint32_t *m3, void *const *a)\n{\n";
        o += "    return construct_" + r.name + "_index(record, m, m3" + args(r.index_count) + ");\n}\n\n";
    }
    const std::string sym = object_symbol(r);
    if (r.ops == "sg") {
        o += "MGMT_API int final_set_" + r.name + "(mgiInfo *info, mgi_rsp_callback callback)\n{\n";
        o += "    return mgmt_stub_set(&" + sym + ", info, callback);\n}\n\n";
        o += "MGMT_API int final_get_" + r.name + "(mgiInfo *info, mgi_direct_callback callback, void *record)\n{\n";
        o += "    return mgmt_stub_get(&" + sym + ", info, callback, record);\n}\n\n";
    } else {
        o += "MGMT_API int final_exec_" + r.name + "(mgiInfo *info, mgi_direct_callback callback, void *record)\n{\n";
        o += "    return mgmt_stub_exec(&" + sym + ", info, callback, record);\n}\n\n";
    }
    std::string path;
    for (size_t k = 0; k < kMaxPath; ++k)
        path += (k ? ", " : "") + (k < r.path.size() ? hex(r.path[k], "u") : std::string("0"));
    bool sg = r.ops == "sg";
    o += "extern const libmgmt_object " + sym + " = {\n";
    o += "    \"" + r.name + "\",\n";
    o += "    " + (r.parent >= 0 ? "&" + object_symbol(rows[r.parent]) : std::string("nullptr")) + ",\n";
    o += "    fl_" + r.name + ",\n";
    o += "    {" + path + "},\n";
    o += "    " + std::to_string(r.path.size()) + ", " + std::to_string(r.owner) + ", " +
         (sg ? "LIBMGMT_OP_SET | LIBMGMT_OP_GET" : "LIBMGMT_OP_EXEC") + ", " +
         (r.entity.sized ? "LIBMGMT_OBJ_SIZED" : "0") + ",\n";
    o += "    " + std::to_string(n) + ", " + std::to_string(r.index_count) + ", " + std::to_string(r.slots) + ", " +
         std::to_string(r.entity.length) + "u, " + std::to_string(r.index_len) + "u,\n";
    o += "    pe_" + r.name + ", " + (r.index_count ? "pi_" + r.name : std::string("nullptr")) + ",\n";
    o += "    " + (sg ? "final_set_" + r.name : std::string("nullptr")) + ", " +
         (sg ? "final_get_" + r.name : std::string("nullptr")) + ", " +
         (sg ? std::string("nullptr") : "final_exec_" + r.name) + ",\n";
    o += "};\n\n";
}

const char *kBanner = "/* Generated by mgmt_objgen from objects/catalogue.tsv. Do not edit. */\n";

std::string header(const std::vector<Row> &rows) {
    std::string o = kBanner;
    o += "#ifndef MGMT_OBJECTS_GEN_H\n#define MGMT_OBJECTS_GEN_H\n\n";
    o += "#include <stdint.h>\n\n#include \"mgmt/export.h\"\n#include \"mgmt/mgi.h\"\n\nMGMT_BEGIN_DECLS\n\n";
    for (const Row &r : rows) {
        o += "/* " + r.name + " */\n";
        o += "MGMT_API uint32_t construct_" + r.name + "_entity(" + params(r.entity.fields.size()) + ");\n";
        if (r.index_count) {
            o += "MGMT_API uint32_t construct_" + r.name + "_index(" + params(r.index_count) + ");\n";
            o += "MGMT_API uint32_t construct_" + r.name + "_new_index(" + params(r.index_count) + ");\n";
        }
        if (r.ops == "sg") {
            o += "MGMT_API int final_set_" + r.name + "(mgiInfo *info, mgi_rsp_callback callback);\n";
            o += "MGMT_API int final_get_" + r.name + "(mgiInfo *info, mgi_direct_callback callback, void *record);\n";
        } else {
            o += "MGMT_API int final_exec_" + r.name + "(mgiInfo *info, mgi_direct_callback callback, void *record);\n";
        }
    }
    o += "\nMGMT_END_DECLS\n\n#endif\n";
    return o;
}

// The C type of a field of the record types, and the array bound it takes ("" for none).
std::pair<std::string, std::string> c_type(const Field &f) {
    switch (f.kind) {
    case Kind::U8: return {"uint8_t", ""};
    case Kind::I8: return {"int8_t", ""};
    case Kind::U16: return {"uint16_t", ""};
    case Kind::I16: return {"int16_t", ""};
    case Kind::U32: return {"uint32_t", ""};
    case Kind::U64: return {"uint64_t", ""};
    case Kind::Text: return {"char", "[" + std::to_string(f.width) + "]"};
    case Kind::Bytes:
    case Kind::Ref: break;
    }
    return {"unsigned char", "[" + std::to_string(f.width) + "]"};
}

// records_gen.h: one struct per object, struct <object>_entity, with fields f1..fN at the offsets
// the packers write them to and the record's length as its size, both pinned by static asserts.
// An object whose stated offsets make two fields overlap gets none.
std::string records(const std::vector<Row> &rows) {
    std::string o = kBanner;
    o += "#ifndef MGMT_RECORDS_GEN_H\n#define MGMT_RECORDS_GEN_H\n\n#include <stddef.h>\n#include <stdint.h>\n\n";
    o += "#ifdef __cplusplus\n#define MGMT_RECORD_CHECK(cond, what) static_assert(cond, what)\n#else\n"
         "#define MGMT_RECORD_CHECK(cond, what) _Static_assert(cond, what)\n#endif\n\n";
    for (const Row &r : rows) {
        const std::vector<Field> &fs = r.entity.fields;
        uint64_t cursor = 0;
        bool overlap = false;
        for (const Field &f : fs) {
            if (f.offset < cursor) overlap = true;
            cursor = uint64_t(f.offset) + f.width;
        }
        if (overlap || cursor > r.entity.length) {
            o += "/* " + r.name + ": fields overlap, no record type */\n\n";
            continue;
        }
        const std::string tag = r.name + "_entity";
        std::string body, checks;
        cursor = 0;
        for (size_t k = 0; k < fs.size(); ++k) {
            const Field &f = fs[k];
            if (f.offset > cursor)
                body += "    unsigned char gap" + std::to_string(k + 1) + "[" + std::to_string(f.offset - cursor) + "];\n";
            auto [type, bound] = c_type(f);
            const std::string name = "f" + std::to_string(k + 1);
            body += "    " + type + " " + name + bound + ";\n";
            checks += "MGMT_RECORD_CHECK(offsetof(struct " + tag + ", " + name + ") == " + std::to_string(f.offset) +
                      ", \"" + tag + "." + name + "\");\n";
            cursor = uint64_t(f.offset) + f.width;
        }
        if (r.entity.length > cursor) body += "    unsigned char tail[" + std::to_string(r.entity.length - cursor) + "];\n";
        o += "struct " + tag + " {\n" + body + "};\n" + checks;
        o += "MGMT_RECORD_CHECK(sizeof(struct " + tag + ") == " + std::to_string(r.entity.length) + ", \"" + tag +
             "\");\n\n";
    }
    o += "#undef MGMT_RECORD_CHECK\n\n#endif\n";
    return o;
}

// The names the generated layer exports, one per line, for the library's version script.
std::string exports(const std::vector<Row> &rows) {
    std::string o;
    for (const Row &r : rows) {
        o += "construct_" + r.name + "_entity\n";
        if (r.index_count) o += "construct_" + r.name + "_index\nconstruct_" + r.name + "_new_index\n";
        if (r.ops == "sg")
            o += "final_set_" + r.name + "\nfinal_get_" + r.name + "\n";
        else
            o += "final_exec_" + r.name + "\n";
    }
    return o;
}

std::string chunk(const std::vector<Row> &rows, size_t from, size_t to) {
    std::string o = kBanner;
    o += "#include \"objects/objects_internal.h\"\n\n";
    std::vector<std::string> decl;
    for (size_t i = from; i < to; ++i) {
        decl.push_back(object_symbol(rows[i]));
        if (rows[i].parent >= 0) decl.push_back(object_symbol(rows[rows[i].parent]));
    }
    std::sort(decl.begin(), decl.end());
    decl.erase(std::unique(decl.begin(), decl.end()), decl.end());
    for (auto &d : decl)
        o += "extern const libmgmt_object " + d + ";\n";
    o += "\n";
    for (size_t i = from; i < to; ++i)
        emit_object(o, rows, rows[i]);
    return o;
}

std::string table(const std::vector<Row> &rows) {
    std::string o = kBanner;
    o += "#include \"objects/objects_internal.h\"\n\n";
    for (const Row &r : rows)
        o += "extern const libmgmt_object " + object_symbol(r) + ";\n";
    o += "\nextern const libmgmt_object *const mgmt_object_table[] = {\n";
    for (const Row &r : rows)
        o += "    &" + object_symbol(r) + ",\n";
    o += "};\n\n";
    std::vector<size_t> order(rows.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return rows[a].name < rows[b].name; });
    auto numbers = [&](const char *name) {
        o += std::string("extern const uint16_t ") + name + "[] = {\n";
        for (size_t i = 0; i < order.size(); ++i)
            o += (i % 16 == 0 ? "    " : " ") + std::to_string(order[i]) + "," + (i % 16 == 15 ? "\n" : "");
        o += "\n};\n\n";
    };
    numbers("mgmt_object_by_name");
    // Path order: word by word, a path before the longer paths it leads.
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return rows[a].path < rows[b].path; });
    numbers("mgmt_object_by_path");
    o += "extern const uint32_t mgmt_object_total = " + std::to_string(rows.size()) + "u;\n";
    return o;
}

bool write_if_changed(const std::string &path, const std::string &text) {
    {
        std::ifstream in(path, std::ios::binary);
        if (in) {
            std::ostringstream have;
            have << in.rdbuf();
            if (have.str() == text) return true;
        }
    }
    std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out) {
            fprintf(stderr, "%s: cannot write\n", tmp.c_str());
            return false;
        }
    }
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        fprintf(stderr, "%s: cannot rename into place\n", path.c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: %s CATALOGUE SOURCE_DIR HEADER_DIR CHUNKS\n", argv[0]);
        return 2;
    }
    const std::string src_dir = argv[2], hdr_dir = argv[3];
    auto chunks_opt = number(argv[4], 10);
    if (!chunks_opt || *chunks_opt == 0 || *chunks_opt > 256) {
        fprintf(stderr, "%s: bad number of chunks '%s'\n", argv[0], argv[4]);
        return 2;
    }
    const size_t chunks = *chunks_opt;
    std::vector<Row> rows = read_catalogue(argv[1]);

    // Chunks of about equal weight, in catalogue order; every chunk file is written, even an empty one.
    std::vector<size_t> weight(rows.size());
    size_t total = 0;
    for (size_t i = 0; i < rows.size(); ++i)
        total += weight[i] = rows[i].entity.fields.size() + rows[i].index_count + 8;
    std::vector<size_t> bounds{0};
    size_t acc = 0;
    for (size_t i = 0; i < rows.size() && bounds.size() < chunks; ++i) {
        acc += weight[i];
        if (acc * chunks >= total * bounds.size()) bounds.push_back(i + 1);
    }
    while (bounds.size() <= chunks)
        bounds.push_back(rows.size());
    bounds.back() = rows.size();

    std::error_code ec;
    for (const std::string &d : {src_dir, hdr_dir}) {
        std::filesystem::create_directories(d, ec);
        if (ec) {
            fprintf(stderr, "%s: cannot make the directory: %s\n", d.c_str(), ec.message().c_str());
            return 1;
        }
    }
    bool ok = write_if_changed(hdr_dir + "/objects_gen.h", header(rows));
    ok = write_if_changed(hdr_dir + "/records_gen.h", records(rows)) && ok;
    for (size_t c = 0; c < chunks; ++c)
        ok = write_if_changed(src_dir + "/objects_" + std::to_string(c) + ".cpp",
                              chunk(rows, bounds[c], bounds[c + 1])) &&
             ok;
    ok = write_if_changed(src_dir + "/catalogue_data.cpp", table(rows)) && ok;
    ok = write_if_changed(src_dir + "/objects.exports", exports(rows)) && ok;
    return ok ? 0 : 1;
}
