// Interface questions answered from the Linux kernel: the interface of a
// TCP socket (socket options and interface addresses) and the VRF of an
// interface (rtnetlink link queries).

#include "mgmt/platform/netif.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// What one RTM_GETLINK answer says about an interface.
struct link_facts {
    bool found = false;
    uint32_t master = 0;      // IFLA_MASTER, 0 when none
    bool is_vrf = false;      // the interface is a VRF device
    uint32_t vrf_table = 0;   // its table when is_vrf
    bool slave_of_vrf = false;
    uint32_t port_table = 0;  // the table of the VRF it is enslaved to, when told
};

void parse_info_data(const rtattr *data, int len, link_facts &f, bool slave) {
    for (const rtattr *a = data; RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        if (RTA_PAYLOAD(a) < sizeof(uint32_t)) {
            continue;
        }
        uint32_t v = 0;
        memcpy(&v, RTA_DATA(a), sizeof v);
        if (!slave && a->rta_type == IFLA_VRF_TABLE) {
            f.vrf_table = v;
        } else if (slave && a->rta_type == IFLA_VRF_PORT_TABLE) {
            f.port_table = v;
        }
    }
}

bool kind_is_vrf(const rtattr *a) {
    const size_t n = RTA_PAYLOAD(a);
    const char *s = static_cast<const char *>(RTA_DATA(a));
    return strnlen(s, n) == 3 && memcmp(s, "vrf", 3) == 0;
}

void parse_linkinfo(const rtattr *info, int len, link_facts &f) {
    const rtattr *data = nullptr;
    const rtattr *slave_data = nullptr;
    for (const rtattr *a = info; RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        switch (a->rta_type) {
        case IFLA_INFO_KIND:
            f.is_vrf = kind_is_vrf(a);
            break;
        case IFLA_INFO_SLAVE_KIND:
            f.slave_of_vrf = kind_is_vrf(a);
            break;
        case IFLA_INFO_DATA:
            data = a;
            break;
        case IFLA_INFO_SLAVE_DATA:
            slave_data = a;
            break;
        default:
            break;
        }
    }
    if (f.is_vrf && data != nullptr) {
        parse_info_data(static_cast<const rtattr *>(RTA_DATA(data)), static_cast<int>(RTA_PAYLOAD(data)), f, false);
    }
    if (f.slave_of_vrf && slave_data != nullptr) {
        parse_info_data(static_cast<const rtattr *>(RTA_DATA(slave_data)), static_cast<int>(RTA_PAYLOAD(slave_data)),
                        f, true);
    }
}

// Asks the kernel about one link. False when the kernel could not be asked;
// f.found false when it has no such link.
bool query_link(uint32_t ifindex, link_facts &f) {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        return false;
    }
    timeval tv{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    struct {
        nlmsghdr nh;
        ifinfomsg ifi;
    } req{};
    req.nh.nlmsg_len = NLMSG_LENGTH(sizeof(ifinfomsg));
    req.nh.nlmsg_type = RTM_GETLINK;
    req.nh.nlmsg_flags = NLM_F_REQUEST;
    req.nh.nlmsg_seq = 1;
    req.ifi.ifi_family = AF_UNSPEC;
    req.ifi.ifi_index = static_cast<int>(ifindex);

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, &req, req.nh.nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) < 0) {
        close(fd);
        return false;
    }

    alignas(nlmsghdr) static thread_local char buf[32768];
    bool answered = false;
    while (!answered) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            break;
        }
        int left = static_cast<int>(n);
        // The netlink walking macros compare the message's unsigned length with the signed rest.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"
        for (auto *nh = reinterpret_cast<nlmsghdr *>(buf); NLMSG_OK(nh, left); nh = NLMSG_NEXT(nh, left)) {
#pragma GCC diagnostic pop
            if (nh->nlmsg_seq != 1) {
                continue;
            }
            if (nh->nlmsg_type == NLMSG_ERROR) {
                // ENODEV: no such link; any other error: no answer.
                const auto *err = static_cast<const nlmsgerr *>(NLMSG_DATA(nh));
                answered = nh->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr)) && err->error == -ENODEV;
                close(fd);
                return answered;
            }
            if (nh->nlmsg_type != RTM_NEWLINK || nh->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) {
                continue;
            }
            const auto *ifi = static_cast<const ifinfomsg *>(NLMSG_DATA(nh));
            if (static_cast<uint32_t>(ifi->ifi_index) != ifindex) {
                continue;
            }
            f.found = true;
            int alen = static_cast<int>(IFLA_PAYLOAD(nh));
            for (const rtattr *a = IFLA_RTA(ifi); RTA_OK(a, alen); a = RTA_NEXT(a, alen)) {
                if (a->rta_type == IFLA_MASTER && RTA_PAYLOAD(a) >= sizeof(uint32_t)) {
                    memcpy(&f.master, RTA_DATA(a), sizeof f.master);
                } else if (a->rta_type == IFLA_LINKINFO) {
                    parse_linkinfo(static_cast<const rtattr *>(RTA_DATA(a)), static_cast<int>(RTA_PAYLOAD(a)), f);
                }
            }
            answered = true;
            break;
        }
    }
    close(fd);
    return answered;
}

bool same_address(const sockaddr *a, const sockaddr_storage &local) {
    if (a == nullptr || a->sa_family != local.ss_family) {
        return false;
    }
    if (a->sa_family == AF_INET) {
        return reinterpret_cast<const sockaddr_in *>(a)->sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in *>(&local)->sin_addr.s_addr;
    }
    if (a->sa_family == AF_INET6) {
        return memcmp(&reinterpret_cast<const sockaddr_in6 *>(a)->sin6_addr,
                      &reinterpret_cast<const sockaddr_in6 *>(&local)->sin6_addr, sizeof(in6_addr)) == 0;
    }
    return false;
}

}  // namespace

extern "C" {

PLATFORM_API uint32_t get_tcp_sock_if_index(int sock) {
    if (sock < 0) {
        return 0;
    }
#ifdef SO_BINDTOIFINDEX
    int bound = 0;
    socklen_t blen = sizeof bound;
    if (getsockopt(sock, SOL_SOCKET, SO_BINDTOIFINDEX, &bound, &blen) == 0 && bound > 0) {
        return static_cast<uint32_t>(bound);
    }
#endif
    sockaddr_storage local{};
    socklen_t llen = sizeof local;
    if (getsockname(sock, reinterpret_cast<sockaddr *>(&local), &llen) != 0) {
        return 0;
    }
    if (local.ss_family == AF_INET6) {
        auto *s6 = reinterpret_cast<sockaddr_in6 *>(&local);
        if (IN6_IS_ADDR_LINKLOCAL(&s6->sin6_addr) && s6->sin6_scope_id != 0) {
            return s6->sin6_scope_id;
        }
        if (IN6_IS_ADDR_V4MAPPED(&s6->sin6_addr)) {
            // An IPv4 peer on a dual-stack socket: look for the IPv4 address.
            sockaddr_in s4{};
            s4.sin_family = AF_INET;
            memcpy(&s4.sin_addr, &s6->sin6_addr.s6_addr[12], 4);
            local = {};
            memcpy(&local, &s4, sizeof s4);
        } else if (IN6_IS_ADDR_UNSPECIFIED(&s6->sin6_addr)) {
            return 0;
        }
    } else if (local.ss_family == AF_INET) {
        if (reinterpret_cast<sockaddr_in *>(&local)->sin_addr.s_addr == htonl(INADDR_ANY)) {
            return 0;
        }
    } else {
        return 0;
    }
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        return 0;
    }
    uint32_t index = 0;
    for (ifaddrs *i = list; i != nullptr && index == 0; i = i->ifa_next) {
        if (same_address(i->ifa_addr, local)) {
            index = if_nametoindex(i->ifa_name);
        }
    }
    freeifaddrs(list);
    return index;
}

/*
 * The stand-in's virtual routers are Linux VRF devices, and the id is the
 * VRF's routing table. The interface's own link record tells its master and,
 * for a VRF port, the table directly; otherwise the master's record is asked
 * whether it is a VRF. A VRF device answers its own table. An interface with
 * no VRF answers 0. Names the kernel does not know, and a kernel that cannot
 * be asked over rtnetlink, give -1 and leave *vr alone.
 */
PLATFORM_API int vk_get_if_vr(const char *ifname, uint32_t *vr) {
    if (ifname == nullptr || vr == nullptr) {
        return -1;
    }
    const uint32_t ifindex = if_nametoindex(ifname);
    if (ifindex == 0) {
        return -1;
    }
    link_facts self;
    if (!query_link(ifindex, self) || !self.found) {
        return -1;
    }
    if (self.is_vrf) {
        *vr = self.vrf_table;
        return 0;
    }
    if (self.slave_of_vrf && self.port_table != 0) {
        *vr = self.port_table;
        return 0;
    }
    if (self.master == 0) {
        *vr = 0;
        return 0;
    }
    link_facts master;
    if (!query_link(self.master, master) || !master.found) {
        return -1;
    }
    *vr = master.is_vrf ? master.vrf_table : 0;
    return 0;
}

}  // extern "C"
