// Virtual router lookups: the interface of a TCP socket, and the VRF an
// interface is enslaved to, checked in a private network namespace.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "mgmt/value.h"
#include "mgmt/platform/netif.h"
#include "test_support.h"

namespace {

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

TEST(InterfaceVr, LoopbackAndUnknownInterfaces) {
    uint32_t slot = 77;
    EXPECT_EQ(vk_get_if_vr("lo", &slot), 0);
    EXPECT_EQ(slot, 0u) << "filled with 0 when the interface has no VRF";
    EXPECT_EQ(get_vrid_from_ifindex(if_nametoindex("lo")), 0);

    slot = 77;
    EXPECT_NE(vk_get_if_vr("no-such-if0", &slot), 0);
    EXPECT_EQ(slot, 77u) << "left alone when unknown";
    EXPECT_NE(vk_get_if_vr(nullptr, &slot), 0);
    EXPECT_NE(vk_get_if_vr("lo", nullptr), 0);
    EXPECT_EQ(get_vrid_from_ifindex(0), 0);
    EXPECT_EQ(get_vrid_from_ifindex(0x7ffffff0u), 0);
}

TEST(SocketInterface, TcpOverLoopbackUsesLo) {
    const uint32_t lo = if_nametoindex("lo");
    Fd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *sa = reinterpret_cast<sockaddr *>(&addr);
    socklen_t alen = sizeof addr;
    ASSERT_EQ(bind(listener.fd, sa, alen), 0);
    ASSERT_EQ(listen(listener.fd, 1), 0);
    ASSERT_EQ(getsockname(listener.fd, sa, &alen), 0);
    Fd client(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(client.fd, sa, alen), 0);
    Fd server(accept(listener.fd, nullptr, nullptr));
    EXPECT_EQ(get_tcp_sock_if_index(client.fd), lo);
    EXPECT_EQ(get_tcp_sock_if_index(server.fd), lo);
    EXPECT_EQ(get_vrid_from_sock(server.fd), 0);

    Fd any(socket(AF_INET, SOCK_STREAM, 0));
    addr = sockaddr_in{AF_INET, 0, {htonl(INADDR_ANY)}, {}};
    ASSERT_EQ(bind(any.fd, sa, sizeof addr), 0);
    EXPECT_EQ(get_tcp_sock_if_index(any.fd), 0u) << "the wildcard address names no interface";

    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(get_tcp_sock_if_index(p[0]), 0u);
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(get_tcp_sock_if_index(-1), 0u);
    EXPECT_EQ(get_vrid_from_sock(-1), 0);

    Fd bound(socket(AF_INET, SOCK_STREAM, 0));
    if (setsockopt(bound.fd, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3) == 0) {
        EXPECT_EQ(get_tcp_sock_if_index(bound.fd), lo) << "a bound device wins";
    }
}

// Runs the ip commands and then check in a child with a network namespace of
// its own: 0 pass, 1 fail, 2 the namespace, the ip tool or a device kind is
// not available.
int in_private_netns(const std::vector<std::string> &setup, const std::function<bool()> &check) {
    mgmt_test::ChildResult r = mgmt_test::run_in_child([&](int) {
        if (unshare(CLONE_NEWNET) != 0) {
            return 2;
        }
        for (const std::string &cmd : setup) {
            if (system((cmd + " >/dev/null 2>&1").c_str()) != 0) {
                return 2;
            }
        }
        return check() ? 0 : 1;
    });
    return r.exited ? r.code : 1;
}

uint32_t vr_of(const char *name) {
    uint32_t slot = 99;
    return vk_get_if_vr(name, &slot) == 0 ? slot : 99;
}

// A bridge port has no VRF; a VRF port answers the low 16 bits of its table.
TEST(InterfaceVr, BridgePortAndVrfPortsInAPrivateNamespace) {
    int rc = in_private_netns({"ip link add mgt-br0 type bridge", "ip link add mgt-v2 type veth peer name mgt-v3",
                               "ip link set mgt-v2 master mgt-br0", "ip link add mgt-blue type vrf table 42",
                               "ip link add mgt-red type vrf table 0x12345",
                               "ip link add mgt-v0 type veth peer name mgt-v1", "ip link set mgt-v0 master mgt-blue",
                               "ip link set mgt-v1 master mgt-red"},
                              [] {
                                  return vr_of("mgt-v2") == 0 && vr_of("mgt-v3") == 0 &&
                                         get_vrid_from_ifindex(if_nametoindex("mgt-v2")) == 0 &&
                                         vr_of("mgt-v0") == 42 && vr_of("mgt-blue") == 42 &&
                                         get_vrid_from_ifindex(if_nametoindex("mgt-v0")) == 42 &&
                                         get_vrid_from_ifindex(if_nametoindex("mgt-v1")) == 0x2345;
                              });
    if (rc == 2) {
        GTEST_SKIP() << "no private network namespace with bridges and VRF devices here";
    }
    EXPECT_EQ(rc, 0);
}

} // namespace
