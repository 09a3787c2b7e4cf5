// mgload: load on mgd and the owner of aaa_role (the example application daemon) from K processes
// of T threads each, bounded in requests and in time. Every answer is checked against its request;
// the report gives requests per second, each road's count, errors and latency percentiles, and the
// resident size and descriptors of both daemons before and after. It talks to them only through
// the runtime directory.
//
// Usage: mgload [-p K] [-t T] [-n N] [-d SECONDS] [--rows N] [--json] (--help tells more).
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "mgi/wire.h"
#include "mgload.h"
#include "mgmt/catalogue.h"
#include "mgmt/mgi.h"
#include "mgmt/platform/platform.h"
#include "tools/cli.h"

namespace {

constexpr const char *kProg = "mgload";
constexpr int kWrong = 1;  // an answer was wrong or missing
constexpr int kAbsent = 4; // mgd or the owner does not serve in the runtime directory
constexpr int kProbeMs = 2000;

struct Options {
    unsigned long processes = 8, threads = 4, requests = 0, seconds = 10, rows = 500, timeout = 10;
    bool json = false;
};

int help() {
    std::printf("Usage: mgload [OPTION]...\n"
                "Puts load on mgd and the application that owns aaa_role (app_daemon) from K processes of\n"
                "T threads, each thread with a role of its own (load-P-T): a set through mgd with a new value,\n"
                "a set the owner must refuse (privilege 99), a get of the role straight from the owner, and a\n"
                "walk of the whole table over its pages, round after round. Every answer is checked against\n"
                "its request; a run stops after N requests a thread or SECONDS, whichever comes first.\n"
                "\n"
                "  -p, --processes K   processes, 1 to 256 (8)\n"
                "  -t, --threads T     threads in each process, 1 to 256 (4)\n"
                "  -n, --requests N    requests of each thread at most, 1 to 10^12 (no bound but time)\n"
                "  -d, --duration S    seconds at most, 1 to 86400 (10)\n"
                "      --rows N        seeded rows the table holds, role1 to roleN (500, app_daemon's)\n"
                "      --timeout S     seconds for each answer, 1 to 255 (10)\n"
                "      --json          the report as one JSON object on standard output\n"
                "  -h, --help          show this help and exit\n"
                "  -V, --version       show the version and exit\n"
                "\n"
                "It prints requests per second, each road's requests, errors and latency percentiles, and\n"
                "the resident size and descriptors of mgd and the owner at the start and at the end.\n"
                "The runtime directory is $MGMT_IPC_DIR, else /run/mgmt where writable, else /tmp/mgmt-<uid>.\n"
                "Exit status: 0 every answer right, 1 some answer wrong or missing, 2 wrong command line,\n"
                "4 mgd or the owner not serving there.\n");
    return 0;
}

bool parse(int argc, char **argv, Options &o, int &status) {
    enum { kRows = 256, kTimeout, kJson };
    static const option options[] = {
        {"processes", required_argument, nullptr, 'p'}, {"threads", required_argument, nullptr, 't'},
        {"requests", required_argument, nullptr, 'n'},  {"duration", required_argument, nullptr, 'd'},
        {"rows", required_argument, nullptr, kRows},    {"timeout", required_argument, nullptr, kTimeout},
        {"json", no_argument, nullptr, kJson},          {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},         {nullptr, 0, nullptr, 0}};
    status = mgmt_cli::kUsageError;
    for (int c; (c = getopt_long(argc, argv, "p:t:n:d:hV", options, nullptr)) != -1;) {
        bool ok = true;
        switch (c) {
        case 'p':
            ok = mgmt_cli::number(kProg, "--processes", optarg, 1, 256, &o.processes);
            break;
        case 't':
            ok = mgmt_cli::number(kProg, "--threads", optarg, 1, 256, &o.threads);
            break;
        case 'n':
            ok = mgmt_cli::number(kProg, "--requests", optarg, 1, 1000000000000ul, &o.requests);
            break;
        case 'd':
            ok = mgmt_cli::number(kProg, "--duration", optarg, 1, 86400, &o.seconds);
            break;
        case kRows:
            ok = mgmt_cli::number(kProg, "--rows", optarg, 1, 100000, &o.rows);
            break;
        case kTimeout:
            ok = mgmt_cli::number(kProg, "--timeout", optarg, 1, 255, &o.timeout);
            break;
        case kJson:
            o.json = true;
            break;
        case 'h':
            status = help();
            return false;
        case 'V':
            status = mgmt_cli::version(kProg);
            return false;
        default:
            ok = false;
        }
        if (!ok) {
            status = mgmt_cli::usage_error(kProg);
            return false;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "%s: '%s': no arguments are taken, only options\n", kProg, argv[optind]);
        status = mgmt_cli::usage_error(kProg);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- the daemons

struct Daemon {
    const char *name;
    uint32_t appid;
    int pid = 0;
};

// Resident size in kB and open descriptors of a process, from /proc; -1 where it cannot be read.
struct Usage {
    long rss_kb = -1, fds = -1;
};

Usage usage_of(int pid) {
    Usage u;
    std::string base = "/proc/" + std::to_string(pid);
    if (FILE *f = std::fopen((base + "/status").c_str(), "re")) {
        char line[256];
        while (std::fgets(line, sizeof line, f))
            if (std::sscanf(line, "VmRSS: %ld kB", &u.rss_kb) == 1) break;
        std::fclose(f);
    }
    if (DIR *d = opendir((base + "/fd").c_str())) {
        u.fds = 0;
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.') ++u.fds;
        closedir(d);
    }
    return u;
}

// Who serves the daemon's address now: its pid, 0 when nobody answers there.
int holder(const Daemon &d) {
    int pid = ipc_address_holder(d.appid, 0, kProbeMs);
    return pid > 0 ? pid : 0;
}

// ---------------------------------------------------------------- the processes

void write_all(int fd, const void *p, size_t n) {
    const char *c = static_cast<const char *>(p);
    while (n) {
        ssize_t w = write(fd, c, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return;
        c += w;
        n -= size_t(w);
    }
}

// One process of the load: its threads, then their merged report on fd.
[[noreturn]] void child(unsigned process, const Options &o, mgload::Clock::time_point end, int fd) {
    std::vector<mgload::Report> reports(o.threads); // value-initialised: all zero
    std::vector<std::thread> threads;
    mgload::keep_console_texts();
    for (unsigned t = 0; t < o.threads; ++t) {
        mgload::Plan plan{process, t, o.requests ? o.requests : UINT64_MAX, end, uint32_t(o.rows), uint8_t(o.timeout)};
        threads.emplace_back([plan, &reports, t] { mgload::run_thread(plan, reports[t]); });
    }
    auto total = std::make_unique<mgload::Report>();
    for (unsigned t = 0; t < o.threads; ++t) {
        threads[t].join();
        total->merge(reports[t]);
        if (total->first_failure_ns && reports[t].first_failure_ns == total->first_failure_ns)
            strlcpy(total->first_failure,
                    ("process " + std::to_string(process) + " thread " + std::to_string(t) + ", " +
                     reports[t].first_failure)
                        .c_str(),
                    sizeof total->first_failure);
    }
    write_all(fd, total.get(), sizeof *total);
    close(fd);
    std::fflush(nullptr);
    _exit(0);
}

struct Child {
    pid_t pid = -1;
    int fd = -1;
    std::string got; // the bytes of its report so far
    int status = 0;
};

// Reads every child's report until all have ended or the bound has passed; true when all came.
bool collect(std::vector<Child> &children, mgload::Clock::time_point bound) {
    size_t open = children.size();
    while (open) {
        std::vector<pollfd> fds;
        for (const Child &c : children)
            if (c.fd >= 0) fds.push_back({c.fd, POLLIN, 0});
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(bound - mgload::Clock::now()).count();
        if (left <= 0) return false;
        int n = poll(fds.data(), fds.size(), int(std::min<long long>(left, 60000)));
        if (n < 0 && errno != EINTR) return false;
        for (Child &c : children) {
            if (c.fd < 0) continue;
            char buf[65536];
            pollfd *p = nullptr;
            for (pollfd &f : fds)
                if (f.fd == c.fd) p = &f;
            if (!p || !p->revents) continue;
            ssize_t r = read(c.fd, buf, sizeof buf);
            if (r > 0) {
                c.got.append(buf, size_t(r));
            } else if (r == 0 || errno != EINTR) {
                close(c.fd);
                c.fd = -1;
                --open;
            }
        }
    }
    return true;
}

std::string ms(uint64_t ns) {
    char out[32];
    std::snprintf(out, sizeof out, "%.3f", double(ns) / 1e6);
    return out;
}


std::string kb(long v) { return v < 0 ? "?" : std::to_string(v) + " kB"; }
std::string count(long v) { return v < 0 ? "?" : std::to_string(v); }

} // namespace

int main(int argc, char **argv) {
    Options o;
    int status = 0;
    if (!parse(argc, argv, o, status)) return status;
    setvbuf(stdout, nullptr, _IOLBF, 0);

    const libmgmt_object *role = libmgmt_object_find("aaa_role");
    if (!role) {
        std::fprintf(stderr, "%s: the catalogue has no aaa_role\n", kProg);
        return kWrong;
    }
    ipc_init(mgmt::kAppCli, 0);
    const char *dir = ipc_runtime_dir();
    if (!dir) {
        std::fprintf(stderr, "%s: the runtime directory %s cannot be used: %s\n", kProg, ipc_runtime_dir_tried(),
                     std::strerror(errno));
        return kAbsent;
    }
    const std::string where = dir;
    Daemon daemons[] = {{"mgd", MGD_APPID}, {"app_daemon", role->owner}};
    for (Daemon &d : daemons) {
        d.pid = holder(d);
        if (!d.pid) {
            std::fprintf(stderr, "%s: %s (application %u) does not serve in %s: nobody answers at its address\n", kProg,
                         d.name, d.appid, where.c_str());
            return kAbsent;
        }
    }
    Usage before[2] = {usage_of(daemons[0].pid), usage_of(daemons[1].pid)};

    if (!o.json) {
        std::printf("mgload: %lu processes x %lu threads, %lu s", o.processes, o.threads, o.seconds);
        if (o.requests) std::printf(" or %lu requests a thread", o.requests);
        std::printf(", against mgd (pid %d) and app_daemon (application %u, pid %d) in %s\n", daemons[0].pid,
                    daemons[1].appid, daemons[1].pid, where.c_str());
    }

    std::fflush(nullptr);
    const mgload::Clock::time_point start = mgload::Clock::now();
    const mgload::Clock::time_point end = start + std::chrono::seconds(o.seconds);
    std::vector<Child> children(o.processes);
    for (unsigned p = 0; p < o.processes; ++p) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            std::fprintf(stderr, "%s: cannot make a pipe for process %u: %s\n", kProg, p, std::strerror(errno));
            break;
        }
        pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            for (unsigned q = 0; q < p; ++q)
                close(children[q].fd);
            child(p, o, end, fds[1]);
        }
        close(fds[1]);
        if (pid < 0) {
            std::fprintf(stderr, "%s: cannot start process %u: %s\n", kProg, p, std::strerror(errno));
            close(fds[0]);
            break;
        }
        children[p].pid = pid;
        children[p].fd = fds[0];
    }
    // Each answer may take the whole time-out, and a walk has several: past that, a process hangs.
    const bool all_came = collect(children, end + std::chrono::seconds(4 * o.timeout + 5));
    for (Child &c : children) {
        if (c.pid <= 0) continue;
        if (!all_came) kill(c.pid, SIGKILL);
        waitpid(c.pid, &c.status, 0);
        if (c.fd >= 0) close(c.fd);
    }
    const double seconds = std::chrono::duration<double>(mgload::Clock::now() - start).count();

    mgload::Report total{};
    std::vector<std::string> lost;
    for (size_t p = 0; p < children.size(); ++p) {
        const Child &c = children[p];
        if (c.pid > 0 && c.got.size() == sizeof(mgload::Report) && WIFEXITED(c.status) && WEXITSTATUS(c.status) == 0) {
            mgload::Report r;
            std::memcpy(&r, c.got.data(), sizeof r);
            total.merge(r);
            continue;
        }
        std::string why = c.pid <= 0              ? "never started"
                          : !all_came             ? "still running when the time was up, killed"
                          : WIFSIGNALED(c.status) ? "killed by signal " + std::to_string(WTERMSIG(c.status))
                                                  : "ended with status " + std::to_string(WEXITSTATUS(c.status));
        lost.push_back("process " + std::to_string(p) + " left no report (" + why + ")");
    }

    Usage after[2];
    std::string gone;
    for (int i = 0; i < 2; ++i) {
        int now = holder(daemons[i]);
        after[i] = now == daemons[i].pid ? usage_of(now) : Usage{};
        if (now != daemons[i].pid)
            gone += std::string(gone.empty() ? "" : "; ") + daemons[i].name + " (pid " +
                    std::to_string(daemons[i].pid) + ") " +
                    (now ? "was replaced by pid " + std::to_string(now) : "no longer serves");
    }

    uint64_t requests = 0, errors = 0;
    for (const mgload::RoadStats &s : total.roads) {
        requests += s.requests;
        errors += s.errors;
    }
    const bool right = !errors && lost.empty() && gone.empty();
    if (o.json) {
        std::printf("{\"processes\": %lu, \"threads\": %lu, \"seconds\": %.3f, \"requests\": %" PRIu64
                    ", \"requests_per_second\": %.1f, \"right\": %s,\n \"roads\": {",
                    o.processes, o.threads, seconds, requests, double(requests) / seconds, right ? "true" : "false");
        for (int r = 0; r < mgload::kRoads; ++r) {
            const mgload::RoadStats &s = total.roads[r];
            std::printf("%s\n  \"%s\": {\"requests\": %" PRIu64 ", \"errors\": %" PRIu64
                        ", \"p50_ms\": %s, \"p90_ms\": %s, \"p99_ms\": %s, \"max_ms\": %s}",
                        r ? "," : "", mgload::kRoadNames[r], s.requests, s.errors,
                        ms(s.latency.percentile(0.50)).c_str(), ms(s.latency.percentile(0.90)).c_str(),
                        ms(s.latency.percentile(0.99)).c_str(), ms(s.latency.max_ns).c_str());
        }
        std::printf("},\n \"daemons\": {");
        for (int i = 0; i < 2; ++i)
            std::printf("%s\n  \"%s\": {\"pid\": %d, \"rss_kb_start\": %ld, \"rss_kb_end\": %ld, \"fds_start\": %ld, "
                        "\"fds_end\": %ld}",
                        i ? "," : "", daemons[i].name, daemons[i].pid, before[i].rss_kb, after[i].rss_kb, before[i].fds,
                        after[i].fds);
        std::string failures = total.first_failure_ns ? total.first_failure : "";
        for (const std::string &l : lost)
            failures += (failures.empty() ? "" : "; ") + l;
        if (!gone.empty()) failures += (failures.empty() ? "" : "; ") + gone;
        std::printf("},\n \"failure\": %s}\n", mgmt_cli::json_string(failures).c_str());
        return right ? 0 : kWrong;
    }
    std::printf("ran %.2f s: %" PRIu64 " requests, %.0f requests/s\n\n", seconds, requests, double(requests) / seconds);
    std::printf("%-12s %10s %7s %10s %10s %10s %10s\n", "road", "requests", "errors", "p50 ms", "p90 ms", "p99 ms",
                "max ms");
    for (int r = 0; r < mgload::kRoads; ++r) {
        const mgload::RoadStats &s = total.roads[r];
        std::printf("%-12s %10" PRIu64 " %7" PRIu64 " %10s %10s %10s %10s\n", mgload::kRoadNames[r], s.requests,
                    s.errors, ms(s.latency.percentile(0.50)).c_str(), ms(s.latency.percentile(0.90)).c_str(),
                    ms(s.latency.percentile(0.99)).c_str(), ms(s.latency.max_ns).c_str());
    }
    std::printf("\n%-12s %8s %12s %12s %10s %10s\n", "daemon", "pid", "RSS start", "RSS end", "fds start", "fds end");
    for (int i = 0; i < 2; ++i)
        std::printf("%-12s %8d %12s %12s %10s %10s\n", daemons[i].name, daemons[i].pid, kb(before[i].rss_kb).c_str(),
                    kb(after[i].rss_kb).c_str(), count(before[i].fds).c_str(), count(after[i].fds).c_str());

    if (right) {
        std::printf("\nevery answer right, none lost\n");
        return 0;
    }
    std::printf("\nFAILED:");
    for (int r = 0; r < mgload::kRoads; ++r)
        if (total.roads[r].errors)
            std::printf(" %s %" PRIu64 " of %" PRIu64 " wrong;", mgload::kRoadNames[r], total.roads[r].errors,
                        total.roads[r].requests);
    std::printf("\n");
    if (total.first_failure_ns) std::printf("first: %s\n", total.first_failure);
    for (const std::string &l : lost)
        std::printf("%s\n", l.c_str());
    if (!gone.empty()) std::printf("at the end: %s\n", gone.c_str());
    return kWrong;
}
