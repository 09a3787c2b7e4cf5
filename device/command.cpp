// Command execution: a command text or a file of commands applied through the command line
// interpreter, by a double fork. The first child cuts itself off from the daemon's IPC, starts the
// interpreter as its own child, waits for it, tries again if told to, and removes the command file.
#include "mgmt/device.h"

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/wait.h>
#include <unistd.h>

#include "device/device_internal.h"
#include "device/exec_status.h"
#include "mgmt/buf_list.h"
#include "mgmt/platform/device.h"
#include "mgmt/platform/platform.h"

using mgmt_device::ChildVerdict;
using mgmt_device::format_into;
using mgmt_device::judge_child_status;

ChildVerdict mgmt_device::judge_child_status(int status) {
    const int sig = status & 0x7f;
    if (sig == 0) return ChildVerdict::done;
    if (sig == 0x7f) return ChildVerdict::wait_again;
    if (((status >> 8) & 0xff) == 0) return ChildVerdict::done;
    return ChildVerdict::retry;
}

namespace {

constexpr uint32_t kCmdListElem = 1024;
constexpr uint32_t kSliceCap = 1023;
constexpr int kRetryStep = 10;
constexpr int kRetryLimit = 30;

// Waits for the interpreter: a wait failure keeps the status as it stands, a stopped process is
// waited for again.
int wait_interpreter() {
    int status = 0;
    for (;;) {
        pid_t r = wait(&status);
        if (r < -1) {
            console_print("MGMTLIB: wait failed\n");
            exit(-1);
        }
        if (judge_child_status(status) != ChildVerdict::wait_again) return status;
    }
}

// The tries of the first child: start the interpreter (run_one never returns in the grandchild),
// judge its status, and on the retry branch sleep 0, 10 and 20 seconds; after the third, give up.
template <typename RunOne>
void run_with_retries(RunOne run_one) {
    int delay = 0;
    for (;;) {
        pid_t pid = fork();
        if (pid < 0) {
            console_print("MGMTLIB: fork process failed\n");
            exit(-1);
        }
        if (pid == 0) run_one();
        const int status = wait_interpreter();
        if (judge_child_status(status) == ChildVerdict::done) return;
        console_print("MGMTLIB: child process error\n");
        sleep(static_cast<unsigned>(delay));
        delay += kRetryStep;
        if (delay >= kRetryLimit) exit(-1);
    }
}

// The first child of exec_command_set: write the command file, run the interpreter on it, remove it.
[[noreturn]] void command_set_child(const char *cmd, int32_t num) {
    ipc_close();
    buf_list *list = buf_list_new(kCmdListElem);
    if (!list) {
        console_print("MGMTLIB: alloc momery failed\n");
        exit(-1);
    }
    buf_list_print(list, "%s\n", cmd);

    char file[256];
    format_into(file, sizeof file, "%s%s%d.tmp", MGMT_CMD_FILE_PREFIX, appid2appname(myipc.appid), getpid());
    FILE *fp = fopen(file, "w");
    if (!fp) {
        console_print("MGMTLIB: open file %s failed\n", file);
        buf_list_free(list);
        exit(-1);
    }
    buf_list_rewind(list);
    char slice[kSliceCap + 1];
    for (;;) {
        uint32_t n = kSliceCap;
        buf_list_get_exact_lines(list, slice, &n);
        if (n == 0) break;
        if (fwrite(slice, n, 1, fp) == 0) {
            console_print("MGMTLIB: fwrite failed\n");
            fclose(fp);
            unlink(file);
            buf_list_free(list);
            exit(-1);
        }
    }
    buf_list_free(list);
    fclose(fp);

    run_with_retries([&] {
        char number[100];
        format_into(number, sizeof number, "%d", num);
        char arg0[] = "cli", arg_p[] = "-p", arg_i[] = "-i";
        char *argv[] = {arg0, arg_p, file, arg_i, number, nullptr};
        execv(MGMT_CLI_PATH, argv);
        console_print("MGMTLIB: execv failed\n");
        exit(-1);
    });
    if (unlink(file) != 0) console_print("MGMTLIB: delete file (%s) error\n", file);
    exit(0);
}

// The first child of exec_command_file_redirect.
[[noreturn]] void file_redirect_child(const char *file, const char *output, int mode) {
    ipc_close();
    const char *cli = MGMT_CLI_PATH;
    run_with_retries([&] {
        char command[1024];
        if (mode == 1)
            format_into(command, sizeof command, "%s -q -b %s >> %s", cli, file, output);
        else if (mode == 2)
            format_into(command, sizeof command, "%s -q -C -b %s >> %s", cli, file, output);
        else
            format_into(command, sizeof command, "%s -b %s >> %s", cli, file, output);
        if (system(command) < 0) {
            console_print("MGMTLIB: system failed\n");
            exit(-1);
        }
        exit(0);
    });
    if (unlink(file) != 0) {
        if (mode == 0)
            console_print("MGMTLIB: delete file (%s) error\n", file);
        else
            boot_print("MGMTLIB: delete file (%s) error\n", file);
    }
    exit(0);
}

} // namespace

extern "C" {

MGMT_API int exec_command_set(const char *cmd, int32_t num) {
    if (!cmd || !*cmd) return -1;
    pid_t pid = fork();
    if (pid < 0) {
        console_print("MGMTLIB: fork process failed\n");
        return -1;
    }
    if (pid == 0) command_set_child(cmd, num);
    signal(SIGCHLD, sig_int);
    return 0;
}

MGMT_API int exec_command_file_redirect(const char *file, const char *output, int mode, int wait_flag) {
    if (!file || !*file || !output || !*output) return -1;
    pid_t pid = fork();
    if (pid < 0) {
        console_print("MGMTLIB: fork process failed\n");
        return -1;
    }
    if (pid == 0) file_redirect_child(file, output, mode);
    if (wait_flag == 0) {
        signal(SIGCHLD, sig_int);
    } else if (wait(nullptr) != pid) {
        console_print("MGMTLIB: wait failed\n");
    }
    return 0;
}

} // extern "C"
