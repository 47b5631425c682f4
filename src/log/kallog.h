#pragma once

// The daemon's log: levelled, thread-safe, printf-style messages written to
// <log dir>/<program name>, rolled at local midnight and, when the file is
// first opened, if it has reached 5000000 bytes. Falls back to syslog when no
// file can be used. Any thread may log while holding any other lock: the log
// mutex is the innermost lock of the process.

#include <cstddef>

namespace kal {
inline constexpr int KAL_EMERG = 0;
inline constexpr int KAL_ALERT = 1;
inline constexpr int KAL_CRIT = 2;
inline constexpr int KAL_ERR = 3;
inline constexpr int KAL_WARN = 4;
inline constexpr int KAL_NOTICE = 5;
inline constexpr int KAL_INFO = 6;
inline constexpr int KAL_DEBUG = 7;
inline constexpr int KAL_DEVEL = 8;

// Files above this size are rolled when the log is first opened.
inline constexpr long kLargeLogBytes = 5000000;
}  // namespace kal

// When nonzero at registration, a SIGUSR1 handler that reloads the threshold
// is installed (once) and the switch drops to 0. The daemon leaves it at 0.
extern int enable_kallog_sigvec;

void kallogregister(const char* name);
void kallogversion(const char* version);
void kallog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void kallogflush();
unsigned kalgetcurrentloglevel();
void kalsetcurrentloglevel(unsigned level);
void kallogreadlevelfromfile();
void kal_save_stderr();
void kal_restore_stderr();

// "EMERG" .. "DEVEL", or "UNKNOWN" outside 0..8.
const char* kallog_level_name(unsigned level);
// The open log file's descriptor, or -1; a forked child closes it.
int kallog_debugfd();
