// Byte-order helpers for the MGI header and segment heads (big-endian on the wire).
#ifndef MGMT_MGI_WIRE_H
#define MGMT_MGI_WIRE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

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

// The application id of the calling thread.
uint32_t own_appid();

} // namespace mgmt

#endif
