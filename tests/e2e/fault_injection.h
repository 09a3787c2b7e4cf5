// Faults injected into the calls that libmgmt makes, per thread: this program
// defines poll and ipcmsg_recv_sync itself, ahead of the C library and the
// platform library, and passes every call on unless a fault is armed.
#ifndef MGMT_TEST_FAULT_INJECTION_H
#define MGMT_TEST_FAULT_INJECTION_H

#include <cstdint>

namespace fault {

struct PollFault {
    bool armed = false;
    int result = 0;     // what poll returns
    int err = 0;        // errno it leaves
    short revents = 0;  // events it reports
};

// Armed on the calling thread only.
void arm_poll(const PollFault &f);
void arm_recv_failures(int count);
// The next `count` ipcmsg_alloc calls of this thread fail, after `skip` that succeed.
void arm_alloc_failures(int count, int skip = 0);
void disarm();
// The size of this thread's last ipcmsg_alloc call.
extern thread_local uint32_t last_alloc_size;

} // namespace fault

#endif
