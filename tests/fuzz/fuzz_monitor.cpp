// A copy as the monitor receives it (its head, the frame, the payload: what ipc_monitor_recv
// returns and what a capture holds) turned into the monitor's text, short and verbose: the
// decoder must stay inside the copy whatever the frame's length word and the MGI segments say.
#include <cstdint>
#include <vector>

#include "mgmt/platform/platform.h"
#include "tools/mgictl/mgictl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < sizeof(ipc_monitor_head_t) + sizeof(ipc_frame_t) ||
        size > sizeof(ipc_monitor_head_t) + sizeof(ipc_frame_t) + IPC_MAX_PAYLOAD)
        return 0; // ipc_monitor_recv gives neither
    std::vector<uint8_t> copy(data, data + size); // exactly its size: a read past it is seen
    volatile size_t sink = mgictl::copy_text(copy.data(), uint32_t(size), false).size();
    sink = sink + mgictl::copy_text(copy.data(), uint32_t(size), true).size();
    return 0;
}
