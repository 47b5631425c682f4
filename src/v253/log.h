#pragma once

// The line monitor's messages, on standard error (the daemon's), each
// prefixed with the program and the line. Levels as the daemon's log:
// 3 error, 4 warning, 5 notice, 6 info, 7 debug; KAL_V253_VERBOSE=<level>
// shows up to that level (default 5).

namespace v253 {

void set_log_name(const char* name);
void vlog(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

inline constexpr int kLogErr = 3, kLogWarn = 4, kLogNotice = 5, kLogInfo = 6, kLogDebug = 7;

}  // namespace v253
