#pragma once

// The simulator's own diagnostics, on standard error and never in the
// daemon's log: "kal-linesim[<serial>]: <text>". fail() always prints;
// trace() only when KAL_LINESIM_VERBOSE is set to something other than "0"
// (every command, event and control request, for watching a demo).

namespace kal::linesim {

void set_trace_name(const char* serial);
void set_trace_verbose(bool on);
bool trace_verbose();
void trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kal::linesim
