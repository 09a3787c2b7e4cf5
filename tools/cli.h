// Command-line helpers shared by the programs of this tree (mgd, mgi_demo, app_daemon, lineedit):
// a number argument checked together with the option it belongs to, the --version line, and a
// text quoted as a JSON string.
// Each program parses with getopt_long, answers --help on standard output with exit status 0,
// and a wrong argument with a message naming it, a hint to --help and exit status 2.
#ifndef MGMT_TOOLS_CLI_H
#define MGMT_TOOLS_CLI_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mgmt/version.h"

namespace mgmt_cli {

// Exit status of a wrong command line.
constexpr int kUsageError = 2;

// Reads text as a decimal number from min to max into *out. Otherwise says what is wrong with
// which option ("app_daemon: --rows: 'abc' is not a number") and returns false.
inline bool number(const char *prog, const char *option, const char *text, unsigned long min, unsigned long max,
                   unsigned long *out) {
    char *end = nullptr;
    errno = 0;
    unsigned long v = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end || errno == ERANGE) {
        std::fprintf(stderr, "%s: %s: '%s' is not a number\n", prog, option, text);
        return false;
    }
    if (v < min || v > max) {
        std::fprintf(stderr, "%s: %s: %s is outside %lu to %lu\n", prog, option, text, min, max);
        return false;
    }
    *out = v;
    return true;
}

// The line that --help's caller points to after a wrong argument; returns the exit status.
inline int usage_error(const char *prog) {
    std::fprintf(stderr, "Try '%s --help' for more information.\n", prog);
    return kUsageError;
}

inline int version(const char *prog) {
    std::printf("%s (libmgmt) %s\n", prog, LIBMGMT_VERSION);
    return 0;
}

// s as a JSON string: quotes and backslashes escaped, control characters and bytes above 0x7e as
// \u00XX (a byte is shown as itself, whatever encoding it belongs to).
inline std::string json_string(const std::string &s) {
    std::string o = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            o += '\\';
            o += char(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char b[8];
            std::snprintf(b, sizeof b, "\\u%04x", c);
            o += b;
        } else {
            o += char(c);
        }
    }
    return o + "\"";
}

} // namespace mgmt_cli

#endif
