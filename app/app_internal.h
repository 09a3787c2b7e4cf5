// Shared inside the serving side: where the request and the response buffers
// of the message in service begin and end, so that no walk reads or writes
// outside them whatever the message says.
#ifndef MGMT_APP_INTERNAL_H
#define MGMT_APP_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "mgmt/mgi_app.h"

namespace mgmt::app {

struct Extent {
    const unsigned char *begin = nullptr;
    const unsigned char *end = nullptr;
    bool contains(const void *p) const {
        auto *q = static_cast<const unsigned char *>(p);
        return begin && q >= begin && q < end;
    }
    // Whether p lies in the extent or just at its end (where a body of no bytes stands).
    bool reaches(const void *p) const { return contains(p) || (begin && p == end); }
    // Bytes available from p to the end; p must lie in the extent or at its end.
    size_t room(const void *p) const { return static_cast<size_t>(end - static_cast<const unsigned char *>(p)); }
    // Whether [p, p + n) lies inside the extent.
    bool holds(const void *p, size_t n) const {
        auto *q = static_cast<const unsigned char *>(p);
        return begin && q >= begin && q <= end && n <= static_cast<size_t>(end - q);
    }
};

// The buffers of the message in service on this thread.
struct Serving {
    Extent rqt;
    Extent rsp;
};
Serving &serving();

// Announces the sizes of the next request's buffers before recv_app_rqt_mgi
// runs; without it a request and a response are taken as MGI_MAX_LEN bytes.
void announce(const void *rqt, size_t rqt_len, void *rsp, size_t rsp_cap);

// Whether the response may take n bytes at p. A place outside the response
// buffer in service (a handler's own buffer) is the handler's to size.
bool rsp_fits(const mgiInfo *info, const void *p, size_t n);

// The entity at a target list of at most ten words (the list ends at its
// first 0 word or after the tenth), with the look-up's message when missing.
appEntity *entity_at_target(const uint32_t *target);

} // namespace mgmt::app

#endif
