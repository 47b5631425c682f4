#pragma once

// The control vocabulary: one text command per line in, one reply out.
//
// A reply's first line is "ok ..." or "error ...". Listing commands
// (commands, sent, help) answer exactly "ok <n> commands|messages|lines"
// and then n lines; no other reply has that form, so a reader knows from
// the first line how many follow (reply_line_count()).
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

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/line_sim.h"

namespace kal::linesim {

struct ControlReply {
    enum class Then { Reply, Wait, Exit, Crash };
    std::string text;  // the whole reply, lines joined by '\n', no final newline
    Then then = Then::Reply;
    int value = 0;                  // Exit: the status; Crash: the signal
    std::optional<char> wait_char;  // Wait: the command character, or any
    Clock::duration wait_timeout{};
};

ControlReply run_control(LineSim& sim, std::string_view line, Clock::time_point now);

// Replies for a wait-command that found its command, or ran out of time.
std::string wait_found_reply(const std::string& command_text);
std::string wait_timeout_reply(std::optional<char> c);

// How many lines follow a reply's first line.
int reply_line_count(std::string_view first_line);

// Signal number from "11", "segv", "SIGSEGV"; nothing when unknown.
std::optional<int> parse_signal(std::string_view text);

}  // namespace kal::linesim
