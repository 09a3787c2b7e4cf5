// The log of mgd: one line per event, on standard output with a time stamp, or to syslog.
//
// Levels, most severe first: error, warning, info, debug. The threshold starts at info; -q lowers
// it by one step, -v raises it, MGMT_LOG_LEVEL (a level's name) sets it before the options apply.
// A line reads "2025-03-01 12:00:00.123 mgd: set ...", with "warning: " or "error: " in front of
// the text of those levels; syslog gets the text alone at the matching priority.
#ifndef MGMT_TOOLS_MGD_LOG_H
#define MGMT_TOOLS_MGD_LOG_H

namespace mgd {

enum class Level { error, warning, info, debug };

// The level of that name ("error", "warning", "info", "debug"); false for any other text.
bool parse_level(const char *text, Level *out);
// Threshold and destination; with to_syslog the lines go to syslog (facility daemon) instead.
void log_setup(Level threshold, bool to_syslog);
// Whether a line of this level would be written.
bool log_enabled(Level level);
void log(Level level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// The symbolic name of an error number ("ETIMEDOUT"), or its number in words when it has none.
const char *errno_name(int err);

} // namespace mgd

#endif
