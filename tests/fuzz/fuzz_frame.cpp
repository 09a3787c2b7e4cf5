// A datagram as another process sends it: the platform's frame parser (what recv_frame keeps of
// it: the frame, the sender's credentials and address, the payload length). The first byte is
// the length of the control data the kernel would hand over, the second the length of the
// sender's address; the control data, the address and then the datagram itself follow.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/ipc_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    union {
        cmsghdr align;
        char bytes[CMSG_SPACE(sizeof(ucred)) * 2];
    } ctl = {};
    sockaddr_un from = {};
    size_t at = 2;
    const size_t ctl_len = std::min<size_t>({size_t(data[0]), sizeof ctl, size - at});
    std::memcpy(&ctl, data + at, ctl_len);
    at += ctl_len;
    const socklen_t name_len = std::min<socklen_t>(data[1], socklen_t(sizeof from + 1));
    std::memcpy(&from, data + at, std::min<size_t>({size_t(name_len), sizeof from, size - at}));
    at += std::min<size_t>(name_len, size - at);
    // The datagram in a buffer of exactly its size, the frame copied out as recvmsg scatters it.
    std::vector<uint8_t> dgram(data + at, data + size);
    ipc_frame_t fr = {};
    if (!dgram.empty()) std::memcpy(&fr, dgram.data(), std::min(dgram.size(), sizeof fr));
    msghdr mh = {};
    mh.msg_name = &from;
    mh.msg_namelen = name_len;
    mh.msg_control = ctl_len ? &ctl : nullptr;
    mh.msg_controllen = ctl_len;
    ipc_peer_t peer;
    std::memset(&peer, 0xa5, sizeof peer);
    const int len = plat::take_frame(&mh, dgram.size(), fr, &peer);
    if (len >= 0 && (size_t(len) + sizeof fr != dgram.size() || peer.addrlen > sizeof from)) std::abort();
    if (plat::take_frame(&mh, dgram.size(), fr, nullptr) != len) std::abort();
    return 0;
}
