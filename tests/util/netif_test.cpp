// Virtual router lookups: the interface of a TCP socket, and the VRF an
// interface is enslaved to, checked in a private network namespace.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "mgmt/value.h"
#include "platform/netif.h"

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

TEST(InterfaceVr, LoopbackBelongsToNoVrf) {
    uint32_t slot = 77;
    EXPECT_EQ(vk_get_if_vr("lo", &slot), 0);
    EXPECT_EQ(slot, 0u) << "filled with 0 when the interface has no VRF";
    EXPECT_EQ(get_vrid_from_ifindex(if_nametoindex("lo")), 0);
}

TEST(InterfaceVr, UnknownInterfacesAndIndexes) {
    uint32_t slot = 77;
    EXPECT_NE(vk_get_if_vr("no-such-if0", &slot), 0);
    EXPECT_EQ(slot, 77u) << "left alone when unknown";
    EXPECT_NE(vk_get_if_vr(nullptr, &slot), 0);
    EXPECT_NE(vk_get_if_vr("lo", nullptr), 0);
    EXPECT_EQ(get_vrid_from_ifindex(0), 0);
    EXPECT_EQ(get_vrid_from_ifindex(0x7ffffff0u), 0);
}

TEST(SocketInterface, TcpOverLoopbackUsesLo) {
    const uint32_t lo = if_nametoindex("lo");
    ASSERT_NE(lo, 0u);
    Fd listener(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(listener.fd, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener.fd, 1), 0);
    socklen_t alen = sizeof addr;
    ASSERT_EQ(getsockname(listener.fd, reinterpret_cast<sockaddr *>(&addr), &alen), 0);

    Fd client(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(client.fd, 0);
    EXPECT_EQ(get_tcp_sock_if_index(client.fd), 0u) << "not bound yet";
    ASSERT_EQ(connect(client.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    Fd server(accept(listener.fd, nullptr, nullptr));
    ASSERT_GE(server.fd, 0);

    EXPECT_EQ(get_tcp_sock_if_index(client.fd), lo);
    EXPECT_EQ(get_tcp_sock_if_index(server.fd), lo);
    EXPECT_EQ(get_vrid_from_sock(server.fd), 0);
}

TEST(SocketInterface, NotASocketOrWildcard) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    EXPECT_EQ(get_tcp_sock_if_index(p[0]), 0u);
    close(p[0]);
    close(p[1]);
    EXPECT_EQ(get_tcp_sock_if_index(-1), 0u);
    EXPECT_EQ(get_vrid_from_sock(-1), 0);

    Fd any(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    ASSERT_EQ(bind(any.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(get_tcp_sock_if_index(any.fd), 0u);
}

TEST(SocketInterface, BoundDeviceWins) {
    Fd s(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_GE(s.fd, 0);
    if (setsockopt(s.fd, SOL_SOCKET, SO_BINDTODEVICE, "lo", 3) != 0) {
        GTEST_SKIP() << "binding to a device needs CAP_NET_RAW";
    }
    EXPECT_EQ(get_tcp_sock_if_index(s.fd), if_nametoindex("lo"));
}

TEST(SocketInterface, Ipv6LoopbackUsesLo) {
    Fd listener(socket(AF_INET6, SOCK_STREAM, 0));
    if (listener.fd < 0) {
        GTEST_SKIP() << "no IPv6";
    }
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    if (bind(listener.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        GTEST_SKIP() << "no IPv6 loopback address";
    }
    ASSERT_EQ(listen(listener.fd, 1), 0);
    socklen_t alen = sizeof addr;
    ASSERT_EQ(getsockname(listener.fd, reinterpret_cast<sockaddr *>(&addr), &alen), 0);
    Fd client(socket(AF_INET6, SOCK_STREAM, 0));
    ASSERT_EQ(connect(client.fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(get_tcp_sock_if_index(client.fd), if_nametoindex("lo"));
}

// Runs body in a child with a network namespace of its own; its exit code
// comes back: 0 pass, 1 fail, 2 the namespace or the ip tool is not available.
template <typename Body>
int in_private_netns(Body body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (unshare(CLONE_NEWNET) != 0) {
            _exit(2);
        }
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return 1;
    }
    return WEXITSTATUS(status);
}

bool run(const std::string &cmd) {
    return system((cmd + " >/dev/null 2>&1").c_str()) == 0;
}

TEST(InterfaceVr, PortOfABridgeHasNoVrf) {
    int rc = in_private_netns([] {
        if (!run("ip link add mgt-br0 type bridge") || !run("ip link add mgt-v0 type veth peer name mgt-v1") ||
            !run("ip link set mgt-v0 master mgt-br0")) {
            return 2;
        }
        uint32_t slot = 99;
        if (vk_get_if_vr("mgt-v0", &slot) != 0 || slot != 0) {
            fprintf(stderr, "bridge port: slot %u\n", slot);
            return 1;
        }
        slot = 99;
        if (vk_get_if_vr("mgt-v1", &slot) != 0 || slot != 0) {
            return 1;
        }
        return get_vrid_from_ifindex(if_nametoindex("mgt-v0")) == 0 ? 0 : 1;
    });
    if (rc == 2) {
        GTEST_SKIP() << "no private network namespace with bridges here";
    }
    EXPECT_EQ(rc, 0);
}

TEST(InterfaceVr, VrfPortAnswersTheVrfTable) {
    int rc = in_private_netns([] {
        if (!run("ip link add mgt-blue type vrf table 42") || !run("ip link add mgt-red type vrf table 0x12345") ||
            !run("ip link add mgt-v0 type veth peer name mgt-v1") || !run("ip link set mgt-v0 master mgt-blue") ||
            !run("ip link set mgt-v1 master mgt-red")) {
            return 2;
        }
        uint32_t slot = 0;
        if (vk_get_if_vr("mgt-v0", &slot) != 0 || slot != 42) {
            fprintf(stderr, "port of blue: slot %u\n", slot);
            return 1;
        }
        slot = 0;
        if (vk_get_if_vr("mgt-blue", &slot) != 0 || slot != 42) {
            fprintf(stderr, "blue itself: slot %u\n", slot);
            return 1;
        }
        if (get_vrid_from_ifindex(if_nametoindex("mgt-v0")) != 42) {
            return 1;
        }
        // The id is the low 16 bits of the table.
        if (get_vrid_from_ifindex(if_nametoindex("mgt-v1")) != 0x2345) {
            return 1;
        }
        return 0;
    });
    if (rc == 2) {
        GTEST_SKIP() << "this kernel has no VRF devices (or no private network namespace)";
    }
    EXPECT_EQ(rc, 0);
}

}  // namespace
