#pragma once

// The emulator's process: a pseudo-terminal whose master end is the modem
// (the host opens the other end as its serial port), the control socket,
// and one poll loop over both, a signalfd and the modem's timers.
//
// The port: either a pty of its own whose slave name is linked at
// `link_path` (replacing what is there, e.g. the device node of a umockdev
// testbed, or any path for a person), or an inherited master descriptor
// (`master_fd`, e.g. umockdev's own pty). The emulator keeps the slave end
// open itself, so the port stays up between the host's opens. `vanish`
// closes both ends and removes the link, as an unplugged USB modem takes
// its device away; the emulator then runs on for its control socket.
//
// SIGTERM, SIGHUP, SIGINT end it (socket and link removed) by that signal.

#include <string>
#include <utility>
#include <vector>

#include "modemsim/modem.h"

namespace kal::modemsim {

struct ServerOptions {
    std::string serial = "modem";  // names the control socket
    std::string link_path;         // where to link the pty's slave end
    int master_fd = -1;            // or an inherited pty master
    std::string socket_path;       // default: control_socket_path(serial)
    double speed = 1;
    std::vector<std::pair<std::string, std::string>> quirks;  // "set" pairs
};

// Runs the emulator; returns the exit status.
int serve_modem(const ServerOptions& options);

}  // namespace kal::modemsim
