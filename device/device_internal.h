// Helpers shared by the device operations. Not installed.
#ifndef MGMT_DEVICE_INTERNAL_H
#define MGMT_DEVICE_INTERNAL_H

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace mgmt_device {

// snprintf into a fixed buffer, where a cut text is the intended outcome.
__attribute__((format(printf, 3, 4))) inline int format_into(char *out, size_t size, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(out, size, fmt, ap);
    va_end(ap);
    return n;
}

} // namespace mgmt_device

// The IPC road of a trap: the record framed and sent to the trap receiver.
int vk_trap_send(uint32_t trap_kind, uint32_t trap_code, const void *payload, uint32_t len, uint32_t trap_arg);

#endif
