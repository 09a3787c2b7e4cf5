/*
 * Value helpers shared by daemons and front ends: the range check of an
 * item's value, string trimming, XML length, IPv4 address sanity and the
 * virtual router of a socket or interface. All are reentrant and keep no
 * state.
 */
#ifndef MGMT_VALUE_H
#define MGMT_VALUE_H

#include <stdint.h>

#include "mgmt/export.h"

MGMT_BEGIN_DECLS

/*
 * Checks the value at value against [min, max] by object type (0 truth
 * value, 1 i32, 2 u32, 3 i64, 4 u64, 5 string, 6 u8, 7 i8, 8 u16, 9 i16,
 * 10..13 addresses and fixed bytes, 17 untrimmed string). For the two string
 * types max is the buffer size and so excluded; a type 5 string is trimmed in
 * place. 0 in range, -1 out of it (also for a null value and unknown types).
 * Kept on purpose: the trim's result is not handed back, so the caller still
 * sees the leading blanks; for type 17 a max of 0 sets no upper limit.
 */
MGMT_API int libmgmt_item_value_range_check(void *value, int32_t type, uint64_t min, uint64_t max);

/*
 * Cuts trailing white space (in place) and returns a pointer to the first
 * character that is not white space; null for null. A string of white space
 * only gives its own terminator, its blanks left in the buffer.
 */
MGMT_API char *libmgmt_string_trim(char *str);

/* Bytes the string needs once written as XML, terminator included; 0 for null. */
MGMT_API uint32_t libmgmt_get_xml_converted_string_length(const char *str);

/*
 * Sanity of an IPv4 address with its mask, both in host order: 0 valid, -1 invalid. Kept on purpose:
 * network and broadcast addresses are told by their last octet (0, 255), so with a mask longer than 24
 * bits such an address with another last octet passes.
 */
MGMT_API int vk_check_ip_address_validate(uint32_t ip, uint32_t mask);

/* The virtual router of the interface a TCP socket uses (asked of the platform); 0 when unknown. */
MGMT_API uint16_t get_vrid_from_sock(int sock);
/* The virtual router of an interface; 0 when unknown. */
MGMT_API uint16_t get_vrid_from_ifindex(uint32_t ifindex);

MGMT_END_DECLS

#endif
