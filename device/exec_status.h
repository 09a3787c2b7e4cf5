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
ChildVerdict judge_child_status(int status);

} // namespace mgmt_device

#endif
