/*
 * Interface questions of the platform: which interface a TCP socket uses and
 * which virtual router an interface belongs to.
 */
#ifndef PLATFORM_NETIF_H
#define PLATFORM_NETIF_H

#include <stdint.h>

#include "mgmt/platform/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The index of the interface a TCP socket uses: the device it is bound to,
 * else the interface that holds its local address. 0 when unknown (not a
 * socket, not bound, wildcard address).
 */
PLATFORM_API uint32_t get_tcp_sock_if_index(int sock);

/*
 * The virtual router of the named interface. On Linux a virtual router is a
 * VRF device: *vr gets the routing table id of the VRF the interface is
 * enslaved to (or of the interface itself when it is a VRF device), and 0
 * when it belongs to none. Returns 0 when *vr was filled, non-zero when the
 * interface is unknown or the kernel cannot be asked.
 */
PLATFORM_API int vk_get_if_vr(const char *ifname, uint32_t *vr);

#ifdef __cplusplus
}
#endif

#endif
