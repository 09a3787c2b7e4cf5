// Local flags of the IPC library: one word per process, bit n for flag n.
#include <atomic>

#include "mgmt/platform/ipc_flags.h"

namespace {
std::atomic<uint32_t> g_local_flags{0};
bool valid(int flag) { return flag >= 0 && flag < 32; }
} // namespace

extern "C" {

PLATFORM_API int ipcmsg_set_local_flag(int flag) {
    if (!valid(flag)) return -1;
    g_local_flags.fetch_or(1u << flag);
    return 0;
}

PLATFORM_API int ipcmsg_unset_local_flag(int flag) {
    if (!valid(flag)) return -1;
    g_local_flags.fetch_and(~(1u << flag));
    return 0;
}

PLATFORM_API uint32_t ipcmsg_get_local_flags(void) { return g_local_flags.load(); }

} // extern "C"
