#pragma once

// The simulator's process as a line monitor: reads the 3072-byte orders
// record from descriptor 4, opens its control socket (control_path.h), then
// runs one poll loop over descriptor 4, the control socket and its clients,
// a signalfd and the line's timers, until one of these ends it:
//   - end of file on descriptor 4, or a frame whose length is 0 (as the
//     daemon's own reader treats it): exit 0; a write the daemon's end no
//     longer takes ends it the same way;
//   - a frame longer than kMaxFrame: exit 1 (the daemon never sends one);
//   - `exit <code>` / `crash <signal>` on the control socket;
//   - SIGTERM, SIGHUP, SIGINT: the control socket is removed, then the
//     process dies by that signal as the default action would.
// SIGUSR1 (the daemon's log-level broadcast) is counted and ignored; SIGPIPE
// is ignored. Signals the daemon left blocked are unblocked.
//
// Frames from the daemon are read without blocking and taken apart here, so
// a half-sent frame never stalls the control clients; frames to the daemon
// go out through dmp_write on the blocking descriptor. Thread-aware, not
// thread-safe: everything runs on the calling thread.

#include "simulator/line_sim.h"

namespace kal::linesim {

// The descriptor the daemon leaves the line socket on.
inline constexpr int kLineFd = 4;
// Commands are at most 1629 bytes; anything this long is not a command.
inline constexpr size_t kMaxFrame = 1 << 20;

// Runs the line monitor; returns the exit status.
int serve_line(const Identity& id, double speed);

}  // namespace kal::linesim
