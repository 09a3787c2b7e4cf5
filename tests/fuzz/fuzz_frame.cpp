// A datagram as another process sends it: the platform's frame parser (what recv_frame keeps of
// it: the frame, the sender's credentials and address, the payload length). Byte 0 is the length
// of the control data the kernel would hand over, byte 1 the length of the sender's address; the
// control data, the address and then the datagram itself follow.
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
    msghdr mh = {&from, std::min<socklen_t>(data[1], sizeof from + 1), nullptr, 0, &ctl, 0, 0};
    size_t at = 2;
    mh.msg_controllen = std::min<size_t>({size_t(data[0]), sizeof ctl, size - at});
    std::memcpy(&ctl, data + at, mh.msg_controllen);
    at += mh.msg_controllen;
    std::memcpy(&from, data + at, std::min<size_t>({size_t(mh.msg_namelen), sizeof from, size - at}));
    at += std::min<size_t>(mh.msg_namelen, size - at);
    // The datagram in a buffer of exactly its size, the frame copied out as recvmsg scatters it.
    std::vector<uint8_t> dgram(data + at, data + size);
    ipc_frame_t fr = {};
    if (!dgram.empty()) std::memcpy(&fr, dgram.data(), std::min(dgram.size(), sizeof fr));
    ipc_peer_t peer;
    const int len = plat::take_frame(&mh, dgram.size(), fr, &peer);
    if (len >= 0 && (size_t(len) + sizeof fr != dgram.size() || peer.addrlen > sizeof from)) std::abort();
    if (plat::take_frame(&mh, dgram.size(), fr, nullptr) != len) std::abort();
    return 0;
}
