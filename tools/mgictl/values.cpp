// Values of record fields: parsed from the command line by the field's kind,
// and printed from a record by the catalogue's layout.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mgictl.h"

namespace mgictl {

namespace {

bool is_integer(uint8_t kind) { return kind >= LIBMGMT_FIELD_U8 && kind <= LIBMGMT_FIELD_U64; }
bool is_signed(uint8_t kind) { return kind == LIBMGMT_FIELD_I8 || kind == LIBMGMT_FIELD_I16; }

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Bytes as hex digits, in pairs that ':' or '-' may separate ("00:1a:2b..." or "001a2b...").
bool parse_hex(const std::string &text, uint32_t width, std::vector<uint8_t> &out, std::string &err) {
    std::string digits;
    size_t from = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 2 : 0;
    for (size_t i = from; i < text.size(); ++i) {
        char c = text[i];
        if (c == ':' || c == '-') {
            if (digits.size() % 2) digits.insert(digits.size() - 1, "0"); // "0:1a" is 00 1a
            continue;
        }
        if (hex_digit(c) < 0) {
            err = "'" + text + "' is not hex bytes (a character '" + std::string(1, c) + "')";
            return false;
        }
        digits += c;
    }
    if (digits.empty()) {
        err = "no bytes given";
        return false;
    }
    if (digits.size() % 2) {
        err = "odd number of hex digits in '" + text + "'";
        return false;
    }
    if (digits.size() / 2 > width) {
        err = std::to_string(digits.size() / 2) + " bytes, more than its " + std::to_string(width);
        return false;
    }
    out.assign(width, 0); // fewer bytes: the rest stays zero
    for (size_t i = 0; i < digits.size(); i += 2)
        out[i / 2] = uint8_t(hex_digit(digits[i]) << 4 | hex_digit(digits[i + 1]));
    return true;
}

} // namespace

std::string kind_text(const libmgmt_field &f) {
    libmgmt_field plain = f;
    plain.flags &= uint8_t(~LIBMGMT_FIELD_PLACED);
    char buf[32];
    libmgmt_field_notation(&plain, buf, sizeof buf);
    return buf;
}

std::string hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(2 * n);
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

std::vector<Slot> slots_of(const libmgmt_object *obj) {
    std::vector<const libmgmt_object *> chain;
    for (const libmgmt_object *p = obj->parent; p && chain.size() < MGI_TARGET_WORDS; p = p->parent)
        chain.insert(chain.begin(), p);
    std::vector<Slot> out;
    for (const libmgmt_object *p : chain)
        for (uint32_t k = 0; k < p->index_count; ++k)
            out.push_back({p, &p->fields[k], k, std::string(p->name) + ".f" + std::to_string(k + 1)});
    for (uint32_t k = 0; k < obj->field_count; ++k)
        out.push_back({obj, &obj->fields[k], k, "f" + std::to_string(k + 1)});
    return out;
}

bool parse_value(const libmgmt_field &f, const std::string &text, std::vector<uint8_t> &out, std::string &err) {
    if (is_integer(f.kind)) {
        const unsigned bits = f.width * 8;
        const uint64_t top = bits == 64 ? UINT64_MAX : (uint64_t(1) << bits) - 1;
        const std::string range = is_signed(f.kind) ? std::to_string(-(1LL << (bits - 1))) + " to " +
                                                          std::to_string((1LL << (bits - 1)) - 1)
                                                    : "0 to " + std::to_string(top);
        if (text.empty() || !(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-' || text[0] == '+')) {
            err = text.empty() ? "no value given" : "'" + text + "' is not a number";
            return false;
        }
        if (text[0] == '-' && !is_signed(f.kind) && text.size() > 1 && isdigit(static_cast<unsigned char>(text[1]))) {
            err = "'" + text + "' is out of range for " + kind_text(f) + " (" + range + ")";
            return false;
        }
        // Decimal, or hex after 0x; a leading zero does not make octal.
        const size_t digits_at = text[0] == '-' || text[0] == '+' ? 1 : 0;
        const int base = text.compare(digits_at, 2, "0x") == 0 || text.compare(digits_at, 2, "0X") == 0 ? 16 : 10;
        errno = 0;
        char *end = nullptr;
        uint64_t raw;
        if (is_signed(f.kind)) {
            long long v = std::strtoll(text.c_str(), &end, base);
            const long long lo = -(1LL << (bits - 1)), hi = (1LL << (bits - 1)) - 1;
            if (*end || end == text.c_str()) {
                err = "'" + text + "' is not a number";
                return false;
            }
            if (errno == ERANGE || v < lo || v > hi) {
                err = "'" + text + "' is out of range for " + kind_text(f) + " (" + range + ")";
                return false;
            }
            raw = uint64_t(v);
        } else {
            unsigned long long v = std::strtoull(text.c_str(), &end, base);
            if (*end || end == text.c_str()) {
                err = "'" + text + "' is not a number";
                return false;
            }
            if (errno == ERANGE || v > top || text[0] == '-') {
                err = "'" + text + "' is out of range for " + kind_text(f) + " (" + range + ")";
                return false;
            }
            raw = v;
        }
        // Host order, the width of the field.
        out.resize(f.width);
        switch (f.width) {
        case 1: out[0] = uint8_t(raw); break;
        case 2: { uint16_t v = uint16_t(raw); std::memcpy(out.data(), &v, 2); break; }
        case 4: { uint32_t v = uint32_t(raw); std::memcpy(out.data(), &v, 4); break; }
        default: std::memcpy(out.data(), &raw, 8); break;
        }
        return true;
    }
    if (f.kind == LIBMGMT_FIELD_TEXT) {
        if (text.size() + 1 > f.width) {
            err = "text of " + std::to_string(text.size()) + " bytes is longer than its " + kind_text(f) + " holds (" +
                  std::to_string(f.width - 1) + " and the terminator)";
            return false;
        }
        if (text.find('\0') != std::string::npos) {
            err = "a text cannot hold a NUL byte";
            return false;
        }
        out.assign(text.begin(), text.end());
        out.push_back(0);
        return true;
    }
    // bN and pN: bytes; a 16-byte field also takes an IPv6 address, a 4-byte one an IPv4 address.
    if (f.width == 16 && text.find("::") != std::string::npos) {
        out.assign(16, 0);
        if (inet_pton(AF_INET6, text.c_str(), out.data()) == 1) return true;
    }
    if (f.width == 4 && std::count(text.begin(), text.end(), '.') == 3) {
        out.assign(4, 0);
        if (inet_pton(AF_INET, text.c_str(), out.data()) == 1) return true;
    }
    return parse_hex(text, f.width, out, err);
}

bool Arguments::parse(const libmgmt_object *obj, const std::vector<std::string> &words, std::string &err) {
    const std::vector<Slot> slots = slots_of(obj);
    for (const std::string &w : words) {
        const size_t eq = w.find('=');
        if (eq == std::string::npos || eq == 0) {
            err = "'" + w + "' is not NAME=VALUE (fN=VALUE, or PARENT.fN=VALUE for a parent's key)";
            return false;
        }
        const std::string name = w.substr(0, eq), value = w.substr(eq + 1);
        auto it = std::find_if(slots.begin(), slots.end(), [&](const Slot &s) { return s.label == name; });
        if (it == slots.end()) {
            err = name + ": " + obj->name + " has no such field (f1 to f" + std::to_string(obj->field_count) +
                  (slots.size() > obj->field_count ? ", or its parents' keys: see mgictl show" : "") + ")";
            return false;
        }
        const size_t slot = size_t(it - slots.begin());
        for (auto &g : given_)
            if (g.first == slot) {
                err = name + ": given twice";
                return false;
            }
        std::vector<uint8_t> bytes;
        std::string why;
        if (!parse_value(*it->field, value, bytes, why)) {
            err = name + " (" + kind_text(*it->field) + "): " + why;
            return false;
        }
        store_.push_back(std::move(bytes));
        const void *arg = store_.back().data();
        // Texts and refs: the slot points at a pointer to the bytes.
        if (it->field->kind == LIBMGMT_FIELD_TEXT || it->field->kind == LIBMGMT_FIELD_REF) {
            pointers_.push_back(arg);
            arg = &pointers_.back();
        }
        given_.emplace_back(slot, arg);
        if (it->of == obj && it->number >= obj->index_count) non_key_ = true;
    }
    return true;
}

void Arguments::fill(void **slots) const {
    for (const auto &[slot, arg] : given_)
        slots[slot] = const_cast<void *>(arg);
}

std::string format_value(const libmgmt_field &f, const uint8_t *record, bool json) {
    const uint8_t *p = record + f.offset;
    uint64_t u = 0;
    int64_t i = 0;
    char buf[32];
    switch (f.kind) {
    case LIBMGMT_FIELD_U8: u = p[0]; break;
    case LIBMGMT_FIELD_I8: i = int8_t(p[0]); break;
    case LIBMGMT_FIELD_U16: { uint16_t v; std::memcpy(&v, p, 2); u = v; break; }
    case LIBMGMT_FIELD_I16: { int16_t v; std::memcpy(&v, p, 2); i = v; break; }
    case LIBMGMT_FIELD_U32: { uint32_t v; std::memcpy(&v, p, 4); u = v; break; }
    case LIBMGMT_FIELD_U64: std::memcpy(&u, p, 8); break;
    case LIBMGMT_FIELD_TEXT: {
        std::string text(reinterpret_cast<const char *>(p), strnlen(reinterpret_cast<const char *>(p), f.width));
        if (json) return json_string(text);
        // For people: what cannot be printed is escaped, and an empty text shows as "".
        std::string shown = json_string(text);
        bool plain = !text.empty() && shown.size() == text.size() + 2 &&
                     text.find_first_of(" \t") == std::string::npos;
        return plain ? text : shown;
    }
    default: return json ? "\"" + hex(p, f.width) + "\"" : hex(p, f.width);
    }
    if (is_signed(f.kind))
        std::snprintf(buf, sizeof buf, "%" PRId64, i);
    else
        std::snprintf(buf, sizeof buf, "%" PRIu64, u);
    return buf;
}

void print_records(const libmgmt_object *obj, const std::vector<std::vector<uint8_t>> &answers, bool json,
                   const char *verb) {
    const size_t stride = obj->entity_len;
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> rest; // bytes of an answer that make no whole record
    for (const auto &d : answers) {
        size_t at = 0;
        for (; stride && at + stride <= d.size(); at += stride) {
            std::vector<std::string> row;
            for (uint32_t k = 0; k < obj->field_count; ++k) row.push_back(format_value(obj->fields[k], &d[at], json));
            rows.push_back(std::move(row));
        }
        if (at < d.size()) rest.push_back(hex(&d[at], d.size() - at));
    }
    if (json) {
        std::string o = "{\"object\": " + json_string(obj->name) + ", \"verb\": " + json_string(verb) +
                        ", \"owner\": " + std::to_string(obj->owner) + ", \"records\": [";
        for (size_t r = 0; r < rows.size(); ++r) {
            o += r ? ",\n  {" : "\n  {";
            for (uint32_t k = 0; k < obj->field_count; ++k)
                o += (k ? ", \"f" : "\"f") + std::to_string(k + 1) + "\": " + rows[r][k];
            o += "}";
        }
        o += rows.empty() ? "]" : "\n]";
        if (!rest.empty()) {
            o += ", \"rest\": [";
            for (size_t r = 0; r < rest.size(); ++r) o += (r ? ", " : "") + json_string(rest[r]);
            o += "]";
        }
        std::printf("%s}\n", o.c_str());
        return;
    }
    if (rows.empty() && rest.empty()) return;
    std::vector<size_t> width(obj->field_count);
    for (uint32_t k = 0; k < obj->field_count; ++k) width[k] = 1 + std::to_string(k + 1).size();
    for (const auto &row : rows)
        for (uint32_t k = 0; k < obj->field_count; ++k) width[k] = std::max(width[k], row[k].size());
    std::string line;
    for (uint32_t k = 0; k < obj->field_count; ++k) {
        std::string h = "f" + std::to_string(k + 1);
        line += h + (k + 1 < obj->field_count ? std::string(width[k] - h.size() + 2, ' ') : "");
    }
    if (!rows.empty()) std::printf("%s\n", line.c_str());
    for (const auto &row : rows) {
        line.clear();
        for (uint32_t k = 0; k < obj->field_count; ++k)
            line += row[k] + (k + 1 < obj->field_count ? std::string(width[k] - row[k].size() + 2, ' ') : "");
        std::printf("%s\n", line.c_str());
    }
    for (const std::string &r : rest) std::printf("(%zu bytes that make no whole record: %s)\n", r.size() / 2, r.c_str());
}

} // namespace mgictl
