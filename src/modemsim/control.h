#pragma once

// The emulator's control vocabulary (one text command a line; replies as in
// simctl/control.h). `help` lists it:
//
// Driving the line:
//   ring                          RING (then the caller ID set before, once)
//   callerid <number> [name...]   caller ID for the next ring; the number or
//   callerid private|unavailable  name "P"/"O" (private, unavailable)
//   callerid none                 no caller-ID block
//   digits <keys>                 one DTMF report per key (0-9 * # A-D)
//   event <c>                     <DLE><c>, any character (or 0xNN)
//   tone fax|dial|busy|data|answer|silence|quiet|loop   c d b e a s q l
//   handset off|on                H / h (the local handset)
//   text <words>                  "\r\n<words>\r\n" (a result code by hand)
//   raw <hex>                     bytes as they are
//   audio <file> | audio-hex <hex> | audio-tone <seconds>
//                                 what the next +VRX streams (then silence)
// Reading back:
//   log                           AT commands, stream ends, ignored input
//   wait-command <prefix> [s]     the oldest log entry starting with prefix
//                                 (e.g. AT+VTX, "<DLE><ETX>") that no
//                                 earlier wait returned, waiting up to s (10)
//   plays                         the +VTX streams received
//   played [n] | played-to <n> <file>   bytes of play n (default: the last)
//   recorded [n]                  audio sent by +VRX n (before shielding)
//   status | clear
// Quirks (also on the command line, see main.cc):
//   set profile conexant|usr      +VSM numbering and +VLS labels
//   set vls <label,label,...>     +VLS=? labels ("" first: on hook)
//   set vsm-error|no-callerid|vcon|mute|bracket|nmbr-spaces|dle-sub on|off
//   set mute-at <prefix>          stop answering at that AT command
//   set dtmf-repeat <n> | set speed <x>
// The port and the process:
//   vanish                        close the port like a USB unplug (the
//                                 control socket stays until exit)
//   exit <code> | crash <signal> | help

#include <functional>
#include <string_view>

#include "modemsim/modem.h"
#include "simctl/control.h"

namespace kal::modemsim {

struct ControlContext {
    Modem& modem;
    std::function<void()> vanish;  // closes the port
};

simctl::ControlReply run_control(ControlContext& ctx, std::string_view line, Clock::time_point now);

// Parses "name value" of `set`; an error text, or empty when applied.
std::string apply_quirk(Modem& modem, std::string_view name, std::string_view value);

}  // namespace kal::modemsim
