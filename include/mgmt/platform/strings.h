/*
 * String and address conversions of the appliance platform.
 */
#ifndef PLATFORM_STRINGS_H
#define PLATFORM_STRINGS_H

#include <stdint.h>

#include "mgmt/platform/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Parses a dotted IPv4 address ("192.168.1.10": four decimal parts of one to
 * three digits, each at most 255, nothing before or after) into *out, host
 * order, first part in the top byte. 0 on success; -1 for any other text or a
 * null argument, *out untouched.
 */
PLATFORM_API int ipv4str_2_uint(const char *text, uint32_t *out);

#ifdef __cplusplus
}
#endif

#endif
