// Helpers of the serving-side tests: requests built byte by byte, served in
// process through libmgmt_serve_request, and responses taken apart.
#ifndef MGMT_TEST_APP_FIXTURE_H
#define MGMT_TEST_APP_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "mgmt/mgi_app.h"
#include "test_support.h"

namespace app_test {

using mgmt::put_be16;
using mgmt::put_be32;
using mgmt_test::be16;
using mgmt_test::be32;
using mgmt_test::Bytes;
using mgmt_test::ConsoleCapture;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
namespace hdr = mgmt::hdr;
using mgmt_test::Seg;

// A request of the given type and segments addressed to target.
inline Bytes request(const std::vector<uint32_t> &target, uint8_t type = 0, const std::vector<Seg> &segs = {}) {
    Bytes m = mgmt_test::mgi_message(type, segs);
    for (size_t i = 0; i < target.size() && i < 10; ++i) put_be32(&m[MGI_OFF_TARGET + 4 * i], target[i]);
    return m;
}

struct Response {
    Bytes bytes;
    uint8_t type() const { return bytes[MGI_OFF_TYPE]; }
    uint16_t len() const { return mgmt::get_be16(&bytes[MGI_OFF_LEN]); }
    // The chain as the header's nextseg and len describe it.
    std::vector<Seg> segments() const {
        std::vector<Seg> out;
        const size_t end = std::min<size_t>(bytes.size(), MGI_HDR_LEN + len());
        for (size_t pos = MGI_HDR_LEN, t = bytes[MGI_OFF_NEXTSEG]; t >= 129 && t <= 140 && t != 139 && pos + 8 <= end;
             t = bytes[pos], pos += 8 + mgmt::seg_len(&bytes[pos])) {
            const size_t stop = std::min(end, pos + 8 + mgmt::seg_len(&bytes[pos]));
            out.push_back({uint8_t(t), Bytes(bytes.begin() + long(pos + 8), bytes.begin() + long(stop)),
                           mgmt::get_be32(&bytes[pos + 4])});
        }
        return out;
    }
};

// Serves the request in process; the response buffer has the room of a real IPC reply buffer.
inline Response serve(const Bytes &rqt, uint32_t room = 65536) {
    std::vector<uint8_t> exact(rqt); // exactly its size, so that a read past it is seen
    Response r;
    r.bytes.assign(room, 0xEE);
    uint32_t len = 0;
    libmgmt_serve_request(exact.data(), uint32_t(exact.size()), r.bytes.data(), room, &len);
    r.bytes.resize(std::min<uint32_t>(len, room));
    return r;
}

inline Bytes text_body(const std::string &s) {
    Bytes b(s.begin(), s.end());
    b.resize(mgmt::pad8(b.size() + 1), 0);
    return b;
}

inline int32_t host_i32(const Bytes &b, size_t at) { return int32_t(mgmt::get_raw32(&b[at])); }

// Registers an entity under parent (empty: the top level).
inline appEntity *add_entity(const std::vector<uint32_t> &parent, uint32_t word, uint32_t kind,
                             mgi_app_handler index, mgi_app_handler err, mgi_app_handler data,
                             mgi_app_handler encode, appItem *items = nullptr) {
    appEntity *e = app_entity_init(word, kind, index, err, data, encode, items);
    std::vector<uint32_t> path(parent);
    path.push_back(0);
    app_entity_add(path.data(), e);
    return e;
}

} // namespace app_test

#endif
