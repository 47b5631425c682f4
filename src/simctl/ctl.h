#pragma once

// A simulator's client side, for people and scripts:
//
//   <program> ctl [-w SECONDS] <serial | socket path> [command words...]
//       (a socket path starts with "/" or "./"; anything else is a serial)
//       sends one command (the words joined by spaces), prints the reply and
//       exits 0 for "ok", 1 for "error", 2 when the simulator cannot be
//       reached. -w keeps trying to connect for that long (a simulator that
//       is still starting). Without command words it reads commands from
//       standard input, one a line, and prints each reply (with a prompt on
//       a terminal).
//   <program> list
//       the serials that have a control socket, and whether one answers.

#include <optional>
#include <string>

namespace kal::simctl {

struct CtlProgram {
    std::string name;        // "kal-linesim", for messages and the prompt
    std::string socket_dir;  // where the control sockets are (socket_name.h)
};

// The exit status of `ctl` or `list` when argv[1] is one of them.
std::optional<int> run_client(const CtlProgram& program, int argc, char** argv);

}  // namespace kal::simctl
