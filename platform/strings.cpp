/*
 * The platform stand-in: string and address conversions.
 */
#include "mgmt/platform/strings.h"

extern "C" {

int ipv4str_2_uint(const char *text, uint32_t *out) {
    if (!text || !out) return -1;
    uint32_t value = 0;
    const char *p = text;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (*p != '.') return -1;
            ++p;
        }
        unsigned n = 0;
        int digits = 0;
        while (*p >= '0' && *p <= '9' && digits < 4) {
            n = n * 10 + unsigned(*p - '0');
            ++p;
            ++digits;
        }
        if (digits == 0 || digits > 3 || n > 255) return -1;
        value = (value << 8) | n;
    }
    if (*p != '\0') return -1;
    *out = value;
    return 0;
}

} // extern "C"
