// The judge of query conditions: the post-judge parses a condition text into
// expression nodes once, then judges the rows of a walk one at a time; the
// pre-judge stage does nothing.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "cond/cond_internal.h"
#include "mgmt/cond.h"
#include "mgmt/platform/strings.h"
#include "util/types.h"

namespace {

using namespace mgmt::cond;

bool is(const char *word, const char *text) { return word && std::strcmp(word, text) == 0; }

bool is_connector(const char *w) { return is(w, "&&") || is(w, "||") || is(w, "and") || is(w, "or"); }

// A value read from a node's value word: the type code first, the value behind it.
struct Parsed {
    uint32_t type;
    union {
        uint32_t truth;
        int32_t i32;
        uint32_t u32;
        int64_t i64;
        char *text;
        uint32_t ipv4;
        uint8_t *mac;
    } value;
};

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// xxxx.xxxx.xxxx, or xxxx.xxxxxxxx. with the second dot at the end: six bytes on the heap.
int read_mac(const char *text, Parsed &out) {
    auto *bytes = static_cast<uint8_t *>(std::malloc(6));
    bool shaped = text && std::strlen(text) == 14 && (text[4] == '.' || text[9] == '.');
    // Groups of four digits, each followed by at most one dot, to the end.
    for (const char *p = text; shaped && *p;) {
        for (int i = 0; i < 4; ++i)
            if (hex_digit(p[i]) < 0) shaped = false;
        if (!shaped) break;
        p += 4;
        if (*p == '.') ++p;
    }
    if (!shaped || !bytes) {
        std::free(bytes);
        return COND_ERR_MAC;
    }
    const char *p = text;
    for (int i = 0; i < 6 && *p; ++i) {
        bytes[i] = uint8_t(hex_digit(p[0]) << 4 | hex_digit(p[1]));
        p += 2;
        if (*p == '.') ++p;
    }
    never_freed(bytes);
    out.value.mac = bytes;
    return 0;
}

// Reads a node's value word by the node's type. The three numeric readings
// test the end pointer of the conversion, which is never null: they refuse
// every text.
int read_value(uint32_t type, const char *text, Parsed &out) {
    out.type = type;
    char *end = nullptr;
    using mgmt::types::Reading;
    switch (mgmt::types::type_row(type).reading) {
    case Reading::truth:
        if (is(text, "true"))
            out.value.truth = 1;
        else if (is(text, "false"))
            out.value.truth = 0;
        else
            return COND_ERR_BOOL;
        return 0;
    case Reading::i32:
        if (!text) return COND_ERR_INT32;
        out.value.i32 = int32_t(std::strtol(text, &end, 0));
        return end ? COND_ERR_INT32 : 0;
    case Reading::u32:
        if (!text) return COND_ERR_UINT32;
        out.value.u32 = uint32_t(std::strtoul(text, &end, 0));
        return end ? COND_ERR_UINT32 : 0;
    case Reading::i64:
        if (!text) return COND_ERR_INT64;
        out.value.i64 = int64_t(std::strtoll(text, &end, 0));
        return end ? COND_ERR_INT64 : 0;
    case Reading::text:
        out.value.text = text ? strdup(text) : nullptr;
        never_freed(out.value.text);
        return 0;
    case Reading::ipv4: return ipv4str_2_uint(text, &out.value.ipv4) != 0 ? COND_ERR_IPV4 : 0;
    case Reading::mac: return read_mac(text, out);
    case Reading::none: break;
    }
    return COND_ERR_NO_READING;
}

// The verdict of one node on the field; -1 for an operator that isn't one.
// The parsed side is the record's start, the type code, and not its value.
int verdict_of(const cond_expr_node &node, const Parsed &parsed, const void *field) {
    uint32_t t = node.type;
    const void *p = &parsed;
    const char *op = node.op;
    if (is(op, kMatch)) return logic_compare_match(t, p, field);
    if (is(op, kUnmatch)) return !logic_compare_match(t, p, field);
    if (is(op, kLt)) return logic_compare_less(t, p, field);
    if (is(op, kGt)) return logic_compare_match(t, field, p) ? 0 : logic_compare_less(t, field, p);
    if (is(op, kNlt)) return !logic_compare_less(t, p, field);
    if (is(op, kNgt)) return logic_compare_match(t, p, field) ? 1 : logic_compare_less(t, p, field);
    return -1;
}

// Frees every node of a list by its link and leaves the list empty.
template <class List> void free_all(List *list) {
    if (!list) return;
    while (auto *node = list->first) {
        list->first = node->next;
        std::free(node);
    }
    list->last = &list->first;
}

} // namespace

extern "C" {

MGMT_API int retrieve_preJudge_stdExpr(void) { return 0; }
MGMT_API int default_pre_logic_analyze(void) { return 0; }

MGMT_API int retrieve_postJudge_stdExpr(const uint32_t *path, const char *expression, char **words,
                                        int32_t *connectors, cond_expr_list *expr_list) {
    if (!expression || !words || !connectors || !expr_list) return COND_ERR_NO_WORD;
    char *copy = strdup(expression);
    if (!copy) return COND_ERR_NO_WORD;
    char *save = nullptr;
    char *word = strtok_r(copy, " ", &save);
    if (!word) {
        std::free(copy);
        return COND_ERR_NO_WORD;
    }
    int n = 0, k = 0;
    while (word) {
        if (is_connector(word)) {
            if (k == 4) {
                std::free(copy);
                return COND_ERR_CONNECTORS;
            }
            connectors[k++] = n;
        }
        if (n == 32) {
            std::free(copy);
            return COND_ERR_WORDS;
        }
        words[n] = strdup(word);
        // A slot the parser fills holds a new word, whatever an earlier release left there.
        if (words == gcondCtx.words) released_words(&gcondCtx)[n] = nullptr;
        ++n;
        // Each step starts over at the copy's start, and so hands back its first word.
        word = strtok_r(copy, " ", &save);
    }
    int rc = build_clauses(path, words, connectors, n, k, expr_list);
    if (rc == COND_ERR_NO_OPERATOR)
        std::free(copy);
    else
        never_freed(copy);
    return rc;
}

MGMT_API int default_post_logic_analyze(cond_data_list *data_list, cond_expr_list *expr_list) {
    if (!data_list || !expr_list || !data_list->first || !expr_list->first) return 0;
    cond_data_node *row = data_list->first;
    int result = 1;
    for (const cond_expr_node *node = expr_list->first; node; node = node->next) {
        Parsed parsed;
        std::memset(&parsed, 0, sizeof parsed);
        int rc = read_value(node->type, node->value, parsed);
        if (rc) return rc;
        int verdict = 1;
        if (node->offset >= 0) {
            verdict = verdict_of(*node, parsed, reinterpret_cast<unsigned char *>(row) + node->offset);
            if (verdict < 0) return COND_ERR_BAD_NODE;
        }
        if (!node->connector)
            result = verdict;
        else if (is(node->connector, "&&") || is(node->connector, "and"))
            result = result && verdict;
        else if (is(node->connector, "||") || is(node->connector, "or"))
            result = result || verdict;
        else
            return COND_ERR_BAD_NODE;
    }
    if (result) return 0;
    data_list->first = row->next;
    if (!data_list->first) data_list->last = &data_list->first;
    return 0;
}

MGMT_API void free_record_words(char **words) {
    if (!words || !words[0]) return;
    // Every slot is freed, a null one included; a freed slot is left null, so
    // that the words of an older and longer expression are never freed twice.
    for (int i = 0; i < COND_WORDS; ++i) {
        std::free(words[i]);
        words[i] = nullptr;
    }
}

MGMT_API void free_expr_list_all(cond_expr_list *list) { free_all(list); }

MGMT_API void free_data_list_all(cond_data_list *list) { free_all(list); }

} // extern "C"
