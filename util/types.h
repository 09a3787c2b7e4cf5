// The object type codes 0..17, one row each: how a value of the type is range-checked, how two
// values compare in the sorter, and how the sorter places it in a record, and how the condition language compares
// and reads it. The users (the value helpers, the sorter, the condition language) switch on these kinds, never on the codes themselves.
#ifndef MGMT_UTIL_TYPES_H
#define MGMT_UTIL_TYPES_H

#include <cstdint>

namespace mgmt::types {

enum class Range : uint8_t {
    refuse,     // -1
    pass,       // 0, whatever the value
    i8, u8, i16, u16, i32, u32, i64, u64,   // min <= value <= max in the type
    trimmed,    // text: trimmed length in [min, max)
    unbounded,  // text: length in [min, max - 1]; a maximum of 0 wraps to no limit
};

enum class Compare : uint8_t {
    unknown,    // prints "Unknown object type N" and gives 0
    diff_i8, diff_i16, diff_i32,            // the signed difference
    order_u8, order_u16, order_u32, order_i64, order_u64,  // 1, 0 or -1 by order
    natural,    // texts: digits as numbers
    bytes6, bytes16,                        // a fixed number of bytes
    bytes,      // the record's length of bytes
};

enum class Place : uint8_t {
    none,       // getOffset gives -1 and keeps the layout as it stands
    aligned,    // at the next multiple of align, size bytes
    packed,     // right behind the last field: the given length, or size when that is not 0
    ipv6,       // at the next multiple of 4; the record then grows by 16 plus everything before it
};

// The condition language: equality, order, and how a condition's value word is read.
enum class Match : uint8_t { always, u32, u64, text };  // always: 1, whatever the values
enum class Less : uint8_t { always, truth, i32, u32, i64, text, text6 };  // truth, always: 1
enum class Reading : uint8_t { none, truth, i32, u32, i64, text, ipv4, mac };

struct TypeRow {
    Range range;
    Compare compare;
    Place place;
    uint8_t align;
    uint8_t size;
    Match match;
    Less less;
    Reading reading;
};

inline constexpr uint32_t kTypeCount = 18;

inline constexpr TypeRow kTypes[kTypeCount] = {
    /*  0 */ {Range::pass, Compare::diff_i32, Place::aligned, 4, 4, Match::u32, Less::truth, Reading::truth},
    /*  1 */ {Range::i32, Compare::diff_i32, Place::aligned, 4, 4, Match::u32, Less::i32, Reading::i32},
    /*  2 */ {Range::u32, Compare::order_u32, Place::aligned, 4, 4, Match::u32, Less::u32, Reading::u32},
    /*  3 */ {Range::i64, Compare::order_i64, Place::aligned, 8, 8, Match::u64, Less::i64, Reading::i64},
    /*  4 */ {Range::u64, Compare::order_u64, Place::none, 0, 0, Match::always, Less::always, Reading::none},
    /*  5 */ {Range::trimmed, Compare::natural, Place::packed, 1, 0, Match::text, Less::text, Reading::text},
    /*  6 */ {Range::u8, Compare::order_u8, Place::none, 0, 0, Match::always, Less::always, Reading::none},
    /*  7 */ {Range::i8, Compare::diff_i8, Place::none, 0, 0, Match::always, Less::always, Reading::none},
    /*  8 */ {Range::u16, Compare::order_u16, Place::aligned, 2, 2, Match::always, Less::always, Reading::none},
    /*  9 */ {Range::i16, Compare::diff_i16, Place::aligned, 2, 2, Match::always, Less::always, Reading::none},
    /* 10 */ {Range::pass, Compare::order_u32, Place::aligned, 4, 4, Match::u32, Less::u32, Reading::ipv4},
    /* 11 */ {Range::pass, Compare::bytes16, Place::ipv6, 4, 16, Match::always, Less::always, Reading::none},
    /* 12 */ {Range::pass, Compare::bytes6, Place::packed, 1, 6, Match::text, Less::text6, Reading::mac},
    /* 13 */ {Range::pass, Compare::bytes, Place::packed, 1, 0, Match::always, Less::always, Reading::none},
    /* 14 */ {Range::refuse, Compare::bytes, Place::packed, 1, 0, Match::always, Less::always, Reading::none},
    /* 15 */ {Range::refuse, Compare::unknown, Place::none, 0, 0, Match::always, Less::always, Reading::none},
    /* 16 */ {Range::refuse, Compare::unknown, Place::none, 0, 0, Match::always, Less::always, Reading::none},
    /* 17 */ {Range::unbounded, Compare::bytes, Place::packed, 1, 0, Match::always, Less::always, Reading::none},
};

// The row of a type code; codes past the table behave as 15 and 16 do.
inline constexpr const TypeRow &type_row(uint32_t type) {
    return kTypes[type < kTypeCount ? type : 15];
}

} // namespace mgmt::types

#endif
