#pragma once

// The control vocabulary: one text command per line in, one reply out
// (simctl/control.h: replies, listings, waits, exit and crash).
//
// Driving the line (each reply names what was sent, e.g. "ok sent R"):
//   ring                     `R`; an idle line starts ringing
//   callerid [text]          `X` text NUL (just `X` without text)
//   digits <keys>            one `#` event per key of 0-9 * # A-D
//   tone fax|dial|busy|data  `c` `d` `b` `e`
//   offhook | onhook         handset up/down: `P` / `p`
//   hook off|on              the handset's state only, no event
//   reversal | silence | signal   `l` `s` `S`
//   flow on|off              `o` / `u`
//   event <c> [text]         any event character (or 0xNN), text NUL-ended
//   frame <hex>              any payload, framed
//   raw <hex>                bytes as they are, no framing (bad frames)
//   reply <token> <status> [c]    a `^` record built by hand
//   stop <c>                 end running audio: status 4 with c, no event
//   finish                   end running audio now: status 3
// Reading back:
//   commands                 every command received, oldest first
//   sent                     every message sent, oldest first
//   wait-command [c|any] [seconds]  the oldest command with character c
//                            that no earlier wait-command returned, waiting
//                            up to seconds (default 10) for one to arrive
//   clear                    forget both logs
//   orders | status | help
// The process:
//   exit <code>              reply, then exit with that status
//   crash <signal>           reply, then die by that signal (number or name,
//                            "segv", "SIGABRT", "kill"; one that ends a
//                            process by default), without a core file
// Events that end running audio say so: "ok sent b; stopped audio token=12".

#include <string_view>

#include "simctl/control.h"
#include "simulator/line_sim.h"

namespace kal::linesim {

using simctl::ControlReply;

simctl::ControlReply run_control(LineSim& sim, std::string_view line, Clock::time_point now);

}  // namespace kal::linesim
