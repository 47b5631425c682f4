#pragma once

// A simulator's own diagnostics, on standard error and never in the
// daemon's log: "<name>: <text>", e.g. "kal-linesim[SERIAL]: ...". fail()
// always prints; trace() only when verbose (the simulators turn it on from
// their *_VERBOSE environment variable: every command, event and control
// request, for watching a demo).

#include <string>

namespace kal::simctl {

void set_trace_name(const std::string& name);
void set_trace_verbose(bool on);
void trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kal::simctl
