#pragma once

// The simulator's client side, for people and scripts:
//
//   kal-linesim ctl [-w SECONDS] <serial | socket path> [command words...]
//       (a socket path starts with "/" or "./"; anything else is a serial)
//       sends one command (the words joined by spaces), prints the reply and
//       exits 0 for "ok", 1 for "error", 2 when the simulator cannot be
//       reached. -w keeps trying to connect for that long (a line monitor
//       that is still starting). Without command words it reads commands
//       from standard input, one a line, and prints each reply (with a
//       prompt on a terminal).
//   kal-linesim list
//       the serials that have a control socket, and whether one answers.

namespace kal::linesim {

int run_ctl(int argc, char** argv);  // argv[0] is "ctl"
int run_list();

}  // namespace kal::linesim
