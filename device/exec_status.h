// How the child of a command run judges the wait status of the interpreter it started.
// Not installed.
#ifndef MGMT_DEVICE_EXEC_STATUS_H
#define MGMT_DEVICE_EXEC_STATUS_H

namespace mgmt_device {

enum class ChildVerdict { done, wait_again, retry };

// Low 7 bits 0: exited (any code), done. 127: only stopped, wait again. Any other signal with
// bits 8 to 15 zero: killed, done. Any other signal with bits 8 to 15 set: retry. So a non-zero
// exit code of the interpreter is not an error, and the retry is reached only by a status that the
// kernel does not report for an ended process.
constexpr ChildVerdict judge_child_status(int status) {
    const int sig = status & 0x7f;
    if (sig == 0) return ChildVerdict::done;
    if (sig == 0x7f) return ChildVerdict::wait_again;
    if (((status >> 8) & 0xff) == 0) return ChildVerdict::done;
    return ChildVerdict::retry;
}

} // namespace mgmt_device

#endif
