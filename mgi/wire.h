// The wire layer: byte order, padding, segment heads and the header's fields (big-endian on the
// wire), application ids, source codes and time-outs.
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
inline void set_seg_len(unsigned char *head, uint16_t len) { put_be16(head + 2, len); }
inline uint32_t seg_subtype(const unsigned char *head) { return get_be32(head + 4); }
inline void set_seg_subtype(unsigned char *head, uint32_t subtype) { put_be32(head + 4, subtype); }
inline unsigned char *seg_body(unsigned char *head) { return head + MGI_SEGHDR_LEN; }
inline const unsigned char *seg_body(const unsigned char *head) { return head + MGI_SEGHDR_LEN; }
// The head right behind this segment's body.
inline unsigned char *seg_after(unsigned char *head) { return seg_body(head) + seg_len(head); }

// The header's next-segment byte: below 128 the body is one record (the road through MGD), above it
// the type of the first segment of a chain.
inline constexpr uint8_t kNextsegRecord = 128;

// The 312-byte header a field at a time: where each field lies and how wide it is, taken from the
// mgiHdr record (the MGI_OFF_* names give the same offsets). Fields of 2 and 4 bytes hold big-endian
// numbers; the wider ones hold texts or runs of bytes.
struct HdrField {
    uint16_t off;
    uint16_t width;
    const char *name;
};

namespace hdr {
#define MGMT_HDR_FIELD(name, member) \
    inline constexpr HdrField name{offsetof(mgiHdr, member), sizeof(mgiHdr::member), #name}
MGMT_HDR_FIELD(mark, mgi_mark);
MGMT_HDR_FIELD(src, src);
MGMT_HDR_FIELD(transaction_id, transaction_id);
MGMT_HDR_FIELD(timeout, timeout);
MGMT_HDR_FIELD(language, language);
MGMT_HDR_FIELD(vsysid, vsysid);
MGMT_HDR_FIELD(user, user);
MGMT_HDR_FIELD(user_priv, user_priv);
MGMT_HDR_FIELD(login_vsysid, login_vsysid);
MGMT_HDR_FIELD(dst_vsysid, dst_vsysid);
MGMT_HDR_FIELD(ip_addr, ip_addr);
MGMT_HDR_FIELD(target, target);
MGMT_HDR_FIELD(nextseg, nextseg);
MGMT_HDR_FIELD(type, type);
MGMT_HDR_FIELD(len, len);
MGMT_HDR_FIELD(offset, offset);
MGMT_HDR_FIELD(rsp_aux, rsp_aux);
MGMT_HDR_FIELD(rqt_aux, rqt_aux);
MGMT_HDR_FIELD(mgi_flag, mgi_flag);
MGMT_HDR_FIELD(sublevel, sublevel);
MGMT_HDR_FIELD(mask1, mask1);
MGMT_HDR_FIELD(mask2, mask2);
MGMT_HDR_FIELD(mask3, mask3);
MGMT_HDR_FIELD(attr_brief, attr_brief);
MGMT_HDR_FIELD(mask4, mask4);
MGMT_HDR_FIELD(mask5, mask5);
MGMT_HDR_FIELD(mask6, mask6);
MGMT_HDR_FIELD(revision, revision);
MGMT_HDR_FIELD(descend, descend);
MGMT_HDR_FIELD(fernlook_taskid, fernlook_taskid);
MGMT_HDR_FIELD(fernlook_type, fernlook_type);
MGMT_HDR_FIELD(rsp_data_type, rsp_data_type);
#undef MGMT_HDR_FIELD
// The first words of the extra mask runs.
inline constexpr HdrField xmask1{offsetof(mgiHdr, xmask1_6), 4, "xmask1"};
inline constexpr HdrField xmask7{offsetof(mgiHdr, xmask7_9), 4, "xmask7"};

// The number fields in header order, for whoever shows a header.
inline constexpr HdrField numbers[] = {mark,     src,      transaction_id, timeout, language, vsysid,   user_priv,
                                       login_vsysid, dst_vsysid, nextseg, type,     len,      offset,   rsp_aux,
                                       rqt_aux,  mgi_flag, sublevel,       mask1,   mask2,    mask3,    attr_brief,
                                       mask4,    mask5,    mask6,          xmask1,  revision, descend,  xmask7,
                                       rsp_data_type};
} // namespace hdr

static_assert(hdr::mark.off == MGI_OFF_MARK && hdr::src.off == MGI_OFF_SRC && hdr::timeout.off == MGI_OFF_TIMEOUT &&
              hdr::transaction_id.off == MGI_OFF_TRANSACTION_ID && hdr::language.off == MGI_OFF_LANGUAGE &&
              hdr::vsysid.off == MGI_OFF_VSYSID && hdr::user.off == MGI_OFF_USER && hdr::user_priv.off == MGI_OFF_USER_PRIV &&
              hdr::login_vsysid.off == MGI_OFF_LOGIN_VSYSID && hdr::dst_vsysid.off == MGI_OFF_DST_VSYSID &&
              hdr::ip_addr.off == MGI_OFF_IP_ADDR && hdr::target.off == MGI_OFF_TARGET && hdr::nextseg.off == MGI_OFF_NEXTSEG &&
              hdr::type.off == MGI_OFF_TYPE && hdr::len.off == MGI_OFF_LEN && hdr::offset.off == MGI_OFF_OFFSET &&
              hdr::rsp_aux.off == MGI_OFF_RSP_AUX && hdr::rqt_aux.off == MGI_OFF_RQT_AUX &&
              hdr::mgi_flag.off == MGI_OFF_MGI_FLAG && hdr::sublevel.off == MGI_OFF_SUBLEVEL &&
              hdr::mask1.off == MGI_OFF_MASK1 && hdr::mask2.off == MGI_OFF_MASK2 && hdr::mask3.off == MGI_OFF_MASK3 &&
              hdr::attr_brief.off == MGI_OFF_ATTR_BRIEF && hdr::mask4.off == MGI_OFF_MASK4 &&
              hdr::mask5.off == MGI_OFF_MASK5 && hdr::mask6.off == MGI_OFF_MASK6 && hdr::xmask1.off == MGI_OFF_XMASK1 &&
              hdr::revision.off == MGI_OFF_REVISION && hdr::descend.off == MGI_OFF_DESCEND &&
              hdr::xmask7.off == MGI_OFF_XMASK7 && hdr::fernlook_taskid.off == MGI_OFF_FERNLOOK_TASKID &&
              hdr::fernlook_type.off == MGI_OFF_FERNLOOK_TYPE && hdr::rsp_data_type.off == MGI_OFF_RSP_DATA_TYPE,
              "the header's names and its record agree");

// A number field of a header (1, 2 or 4 bytes), read and written in wire order.
inline uint32_t get_field(const unsigned char *h, HdrField f) {
    return f.width == 1 ? h[f.off] : f.width == 2 ? get_be16(h + f.off) : get_be32(h + f.off);
}
inline void put_field(unsigned char *h, HdrField f, uint32_t v) {
    if (f.width == 1)
        h[f.off] = static_cast<unsigned char>(v);
    else if (f.width == 2)
        put_be16(h + f.off, static_cast<uint16_t>(v));
    else
        put_be32(h + f.off, v);
}

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
inline constexpr int kServiceQueryTimeoutMs = 1000;     // state words, feature and default-value questions
inline constexpr int kConfigChangeTimeoutMs = 2000;     // the configuration-change status
inline constexpr int kLockSendTimeoutMs = 500;          // the lock notice to the management slot's MGD

// The application id of the calling thread.
uint32_t own_appid();

} // namespace mgmt

#endif
