// Byte-order helpers for the MGI header and segment heads (big-endian on the wire).
#ifndef MGMT_MGI_WIRE_H
#define MGMT_MGI_WIRE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mgmt/mgi.h"

namespace mgmt {

inline void put_be16(unsigned char *p, uint16_t v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}
inline void put_be32(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}
inline uint16_t get_be16(const unsigned char *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t get_be32(const unsigned char *p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}
// A word as its bytes stand in memory, without conversion.
inline uint32_t get_raw32(const unsigned char *p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Segment bodies and texts on the wire take whole 8-byte units.
inline constexpr size_t pad8(size_t n) { return (n + 7) & ~size_t{7}; }

// A segment head: [0] the type of the next segment, [1] its own type, [2..3] the body's length
// (big-endian), [4..7] a subtype word; the body follows the head.
inline uint16_t seg_len(const unsigned char *head) { return get_be16(head + 2); }
inline unsigned char *seg_body(unsigned char *head) { return head + MGI_SEGHDR_LEN; }
inline const unsigned char *seg_body(const unsigned char *head) { return head + MGI_SEGHDR_LEN; }
// The head right behind this segment's body.
inline unsigned char *seg_after(unsigned char *head) { return seg_body(head) + seg_len(head); }

// Application ids the library itself tells apart (MGD_APPID and the device daemons' ids are public).
enum AppId : uint32_t {
    kAppCli = 5,          // the command-line front end, with its modes
    kAppFernlook = 16,
    kAppTrap = 23,        // VK_TRAP_APPID, the trap receiver
    kAppRelay11 = 11,     // 11, 29, 46 and 53 relay requests for other applications
    kAppRelay29 = 29,
    kAppRelay46 = 46,     // also has a source code of its own
    kAppRelay53 = 53,
    kAppNetconf = 102,    // has a source code in transaction records only
    kAppSource27 = 114,   // the application whose requests carry source 27
    kAppSource26 = 118,   // ... source 26
};

// Source-of-request codes (header byte 1) that the library chooses or passes on.
enum SourceCode : uint8_t {
    kSrcNone = 0,
    kSrcCli = 1,
    kSrcRelayed2 = 2,
    kSrcApp46 = 3,
    kSrcTrap = 4,
    kSrcCliHaUnset = 10,
    kSrcCliForce = 16,
    kSrcCliImport = 18,
    kSrcNetconf = 19,
    kSrcFernlook = 22,
    kSrcApp118 = 26,
    kSrcApp114 = 27,
    kSrcRelayed28 = 28,
    kSrcCliFruConfig = 29,
};

// The source code an application has by its id alone: the direct road's choice, the plain case of
// the road through MGD, and (with_transactions) the code of transaction records, where application
// 102 has one too.
inline constexpr uint8_t source_by_id(uint32_t app, bool with_transactions = false) {
    switch (app) {
    case kAppCli: return kSrcCli;
    case kAppTrap: return kSrcTrap;
    case kAppRelay46: return kSrcApp46;
    case kAppSource27: return kSrcApp114;
    case kAppSource26: return kSrcApp118;
    case kAppNetconf: return with_transactions ? kSrcNetconf : kSrcNone;
    default: return kSrcNone;
    }
}

// Time-outs of the library's own exchanges, in milliseconds.
inline constexpr int kPlainExchangeTimeoutMs = 60000;   // the plain (non-context) request family
inline constexpr int kManagerQueryTimeoutMs = 5000;     // lock status and platform queries to MGD

// The application id of the calling thread.
uint32_t own_appid();

} // namespace mgmt

#endif
