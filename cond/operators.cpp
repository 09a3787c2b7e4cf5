// Operator phrases of the condition language and the comparison of two stored
// values of an item type.
#include <cstdint>
#include <cstring>

#include "cond/cond_internal.h"
#include "mgmt/cond.h"
#include "util/types.h"

namespace {

bool is(const char *word, const char *text) { return word && std::strcmp(word, text) == 0; }

const char *one_word(const char *w) {
    using namespace mgmt::cond;
    if (is(w, "=") || is(w, "==") || is(w, "equal") || is(w, "match")) return kMatch;
    if (is(w, "!=") || is(w, "unequal") || is(w, "unmatch")) return kUnmatch;
    if (is(w, ">") || is(w, "gt")) return kGt;
    if (is(w, "<") || is(w, "lt")) return kLt;
    if (is(w, ">=") || is(w, "nlt")) return kNlt;
    if (is(w, "<=") || is(w, "ngt")) return kNgt;
    return nullptr;
}

template <class T> T load(const void *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

} // namespace

extern "C" {

MGMT_API const char *find_match_op_symbol_with2str(char *const *words) {
    using namespace mgmt::cond;
    if (!words) return nullptr;
    const char *first = words[0], *second = words[1];
    if (is(first, "not") && (is(second, "match") || is(second, "equal"))) return kUnmatch;
    if ((is(first, "bigger") || is(first, "greater")) && is(second, "than")) return kGt;
    if ((is(first, "less") || is(first, "smaller")) && is(second, "than")) return kLt;
    return nullptr;
}

MGMT_API const char *find_match_op_symbol(char *const *words, int count) {
    using namespace mgmt::cond;
    if (!words) return nullptr;
    switch (count) {
    case 1: return one_word(words[0]);
    case 2: return find_match_op_symbol_with2str(words);
    case 3: {
        if (!is(words[0], "no") && !is(words[0], "not")) return nullptr;
        const char *op = find_match_op_symbol_with2str(words + 1);
        if (op == kGt) return kNgt;
        if (op == kLt) return kNlt;
        return nullptr;
    }
    default: return nullptr;
    }
}

MGMT_API int logic_compare_match(uint32_t type, const void *a, const void *b) {
    using mgmt::types::Match;
    switch (mgmt::types::type_row(type).match) {
    case Match::u32:
        if (!a || !b) return 0;
        return load<uint32_t>(a) == load<uint32_t>(b);
    case Match::u64:
        if (!a || !b) return 0;
        return load<uint64_t>(a) == load<uint64_t>(b);
    case Match::text: // a MAC's six raw bytes too, and still compared up to a zero byte
        if (!a || !b) return 0;
        return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
    case Match::always: break;
    }
    return 1;
}

MGMT_API int logic_compare_less(uint32_t type, const void *a, const void *b) {
    using mgmt::types::Less;
    switch (mgmt::types::type_row(type).less) {
    case Less::truth: return 1;
    case Less::i32:
        if (!a || !b) return 0;
        return load<int32_t>(b) < load<int32_t>(a);
    case Less::u32:
        if (!a || !b) return 0;
        return load<uint32_t>(b) < load<uint32_t>(a);
    case Less::i64:
        if (!a || !b) return 0;
        return load<int64_t>(b) < load<int64_t>(a);
    case Less::text:
        if (!a || !b) return 0;
        return std::strcmp(static_cast<const char *>(b), static_cast<const char *>(a)) < 0;
    case Less::text6:
        if (!a || !b) return 0;
        return std::strncmp(static_cast<const char *>(b), static_cast<const char *>(a), 6) < 0;
    case Less::always: break;
    }
    return 1;
}

} // extern "C"
