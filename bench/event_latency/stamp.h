#pragma once

// What the benchmark's line monitors and its floor sender put into each event,
// and the schedule both follow.
//
// An event carries "kalbench <line> <seq> <ns>" as caller-ID text: the line's
// index, its per-line sequence number and the CLOCK_MONOTONIC time taken just
// before the event was written. Caller ID is the event whose text reaches a
// client unchanged, as the string KALCallerIDContentsKey.
//
// The lines share one schedule: at `rate` events a second in all, event j
// (seq j / lines of line j % lines) is due at start + j / rate, so the lines
// take turns and no two are due at once.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kal::bench {

// CLOCK_MONOTONIC in nanoseconds: the clock of both ends of a measurement.
int64_t mono_ns();
// Sleeps until mono_ns() >= when (at once when it already is).
void sleep_until_ns(int64_t when);

struct Stamp {
    int line = 0;
    int64_t seq = 0;
    int64_t ns = 0;
};

std::string stamp_text(const Stamp& s);
// nullopt unless `text` is exactly what stamp_text writes.
std::optional<Stamp> parse_stamp(std::string_view text);

// The serial of the benchmark's adapter for `line` ("BENCH00", ...); the
// floor sender names its lines the same way.
std::string line_serial(int line);

// When event `seq` of `line` is due.
int64_t due_ns(int64_t start_ns, double rate, int lines, int line, int64_t seq);

}  // namespace kal::bench
